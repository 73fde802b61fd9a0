#ifndef BOARDKIT_BENCH_BARE_H
#define BOARDKIT_BENCH_BARE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// @file
/// What a program would write that does without the library: the contenders that set the pace.

/// One `write`, and whether it wrote everything: no caller can do without this question.
bool BareWrite(int fd, const void* data, std::size_t length);

/// One `read`, and whether it filled the buffer.
bool BareRead(int fd, void* buffer, std::size_t length);

/// Replaces the content of @p bytes by what @p fd holds now, read byte by byte, and returns whether that went well.
bool BareReadAvailable(int fd, std::vector<unsigned char>& bytes);

/// Whether there is something to read from @p fd within @p timeoutMs milliseconds.
/// @throws std::runtime_error if the system does not report it.
bool BarePoll(int fd, int timeoutMs);

/// One feeding of the watchdog device @p fd, and whether it was accepted.
bool BareFeed(int fd);

/// The 32-bit word at the physical byte address @p address, through /dev/mem.
/// @throws std::runtime_error if it cannot be opened or mapped.
unsigned int BareReadPhysicalMemory(unsigned int address);

/// The innermost 20 frames of the stack, this function's left out: a line each, with the demangled name where there is
/// one.
std::string BareTraceback();

/// What @p command prints, collected with `popen`, `fgets` and `pclose`; @p command redirects its own standard error.
/// @throws std::runtime_error if it cannot be run or fails.
std::string BareExec(const char* command);

/// The position of @p key in @p text, which comes as a copy because the library's functions take theirs so.
std::size_t BareFind(std::string text, std::string_view key);

#endif
