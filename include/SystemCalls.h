#ifndef BOARDKIT_SYSTEMCALLS_H
#define BOARDKIT_SYSTEMCALLS_H

/// @file
/// System calls as free functions that do the whole job or throw.
///
/// A failed system call becomes a `std::system_error` with the call's `errno`, `std::system_category()` and a fixed
/// message, so that `what()` is the message, ": " and the error's text. Messages that end in a colon therefore show
/// two of them.
///
/// The functions keep no state and may be called from any thread. They survive signals whose handlers were installed
/// without `SA_RESTART`.

#pragma GCC visibility push(default)

/// Writes all @p length bytes of @p data to @p fd.
///
/// Short writes are continued, and interrupted (EINTR) or refused (EAGAIN) ones repeated at once: on a non-blocking
/// descriptor the call spins until the descriptor accepts the data. A length of 0 does not touch the descriptor.
/// @throws std::system_error "Error writing to file descriptor:" if `write` fails otherwise.
/// @throws std::logic_error "Error writing to file descriptor. No bytes written:" if `write` makes no progress.
/// Bytes written before a failure stay written; how many is not told.
void WriteLoop(int fd, const void* data, unsigned int length);

/// Reads exactly @p length bytes from @p fd into @p buffer.
///
/// Short reads are continued, and interrupted (EINTR) or empty non-blocking (EAGAIN) ones repeated at once. A length
/// of 0 does not touch the descriptor.
/// @throws std::system_error "Error reading from file descriptor:" if `read` fails otherwise.
/// @throws std::logic_error "Error reading from file descriptor. No bytes read:" if the file ends first.
/// Bytes read before a failure stay in @p buffer; how many is not told.
void ReadLoop(int fd, void* buffer, unsigned int length);

/// Suspends the calling thread for @p milliseconds; signals do not shorten the sleep.
/// @throws std::system_error "Error sleeping: " if `nanosleep` refuses: EINVAL for a negative time.
void DebugSleep(int milliseconds);

#pragma GCC visibility pop

#endif
