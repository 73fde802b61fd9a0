#ifndef BOARDKIT_SYSTEMCALLS_H
#define BOARDKIT_SYSTEMCALLS_H

/// @file
/// System calls as free functions that complete or throw.
///
/// @code{.cpp}
/// char buffer[5];
/// WriteLoop(writing, "hello", 5);            // all five, or an exception
/// ReadLoop(reading, buffer, sizeof buffer);  // likewise
/// DebugSleep(20);                            // ms, even with signals
/// @endcode
/// This is a part of `examples/descriptors.cpp`. The handbook has more: @ref descriptors, @ref signals, @ref memory.
///
/// Unless its comment says otherwise, a function turns a failed system call into a `std::system_error` with the call's
/// `errno`, `std::system_category()` and a fixed text: `what()` is the text, ": " and the error's words. A text
/// that ends in a colon is therefore followed by a second one.
///
/// The functions keep no state, except DeactivateSignalP(), and any thread may call them. The suffix `_e` marks
/// wrappers that throw on an error, `_a` those that return the call's own result.

#include <signal.h>

struct sysinfo;

#pragma GCC visibility push(default)

/// Writes all @p length bytes of @p data to @p fd.
///
/// Short writes are continued, and interrupted (EINTR) or refused (EAGAIN) ones repeated at once: on a non-blocking
/// descriptor the call spins until the descriptor accepts the data. A length of 0 does not touch the descriptor.
/// @throws std::system_error "Error writing to file descriptor:" if `write` fails otherwise.
/// @throws std::logic_error "Error writing to file descriptor. No bytes written:" if `write` makes no progress: 0, or a
/// negative result other than -1.
/// Bytes written before a failure stay written; the caller does not learn how many.
void WriteLoop(int fd, const void* data, unsigned int length);

/// Reads exactly @p length bytes from @p fd into @p buffer.
///
/// Short reads are continued, and interrupted (EINTR) or empty non-blocking (EAGAIN) ones repeated at once. A length
/// of 0 does not touch the descriptor.
/// @throws std::system_error "Error reading from file descriptor:" if `read` fails otherwise.
/// @throws std::logic_error "Error reading from file descriptor. No bytes read:" if the file ends first.
/// Bytes read before a failure stay in @p buffer; the caller does not learn how many.
void ReadLoop(int fd, void* buffer, unsigned int length);

/// Suspends the calling thread for @p milliseconds. Signals do not shorten the sleep.
/// @throws std::system_error "Error sleeping: " if `nanosleep` refuses: EINVAL for a negative time.
void DebugSleep(int milliseconds);

/// Calls @p handler whenever @p signal arrives, with the signal's information; interrupted system calls are restarted.
/// @throws std::runtime_error "Error setting signal mask."
/// @throws std::system_error "Error setting signal handler: " (EINVAL: no such signal, or one that cannot be caught),
/// or "Error setting signal interrupt: ", with the handler installed.
void InstallSignalHandler(int signal, void (*handler)(int, siginfo_t*, void*));

/// Blocks @p signal in the calling thread until the application unblocks it; no other signal is affected.
///
/// Works on one signal set of the whole process: callers must serialise their calls. Call it at the start, before there
/// are threads, which then inherit the blocking.
/// @throws std::runtime_error "Error setting deactivation signal mask." or "Error adding to terminate signal mask." (no
/// such signal).
/// @throws std::system_error with an empty message if `sigprocmask` fails. SIGKILL and SIGSTOP cannot be blocked: for
/// them nothing happens, and no error is reported.
void DeactivateSignalP(int signal);

/// The name of a scheduling policy: "other", "fifo", "rrobin" or "batch", and "<ukwn>" for all others.
const char* GetProcSchedPolicyName(int policy);

/// The calling thread's id in the kernel.
int LinuxGetThreadId();

/// The 32-bit word at the physical byte address @p address, read through /dev/mem in one access.
///
/// The address is not checked for alignment. Every call opens and maps the device again: use it for a register now and
/// then, not in a fast path.
/// @throws std::system_error "ReadFromMemory Open /dev/mem failed" (EACCES, EPERM: not privileged) or "Error from mmap"
/// (EPERM: the kernel guards this range). Where nothing answers at the address, the access itself ends the process with
/// SIGBUS.
unsigned int ReadFromPhysicalMemoryAddress(unsigned int address);

/// Stores @p value as a 32-bit word at the physical byte address @p address, through /dev/mem in one access.
/// @throws what ReadFromPhysicalMemoryAddress() throws, with the same texts.
void WriteToPhysicalMemoryAddress(unsigned int address, unsigned int value);

/// Fills @p info with the system's load, in 1/65536, its memory, in units of @c mem_unit bytes, and the seconds since
/// it was started, as `sysinfo(2)` describes.
/// @throws std::system_error "Cannot retrieve sysinfo".
void sysinfo_e(struct sysinfo* info);

/// Maps @p length bytes as `mmap` does and returns the mapping, which munmap_a() releases.
///
/// @p offset is in bytes, a multiple of the page size. It is taken as a bit pattern: where `long` has 32 bits, offsets
/// from 2 GiB on are negative numbers.
/// @throws std::system_error "Error from mmap".
void* mmap_e(void* address, unsigned int length, int protection, int flags, int fd, long offset);

/// Unmaps as `munmap` does and returns its result: 0, or -1 with `errno`. Never throws.
int munmap_a(void* address, unsigned int length);

/// The address of @p symbol in the loaded object @p handle (of `dlopen`).
/// @throws std::invalid_argument "dlsym_e: handle" or "dlsym_e: symbol" for null pointers; the first also for
/// `RTLD_DEFAULT`, which is one.
/// @throws std::logic_error "Error looking up symbol "...": ", with the symbol, and the loader's text.
/// @throws std::system_error "Cannot find symbol "..."." if the symbol is there and its value is null; its error
/// number means nothing.
void* dlsym_e(void* handle, const char* symbol);

#pragma GCC visibility pop

#endif
