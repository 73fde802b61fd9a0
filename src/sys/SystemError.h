#ifndef BOARDKIT_SYS_SYSTEMERROR_H
#define BOARDKIT_SYS_SYSTEMERROR_H

#include <cerrno>
#include <string>

/// Throws std::system_error with the current errno and @p message: the one way in which a failed system call is
/// reported.
[[noreturn]] void ThrowSystemError(const char* message);

/// The same with an errno that was saved before, by a caller that has to tidy up or to compose its message first.
/// (Taking a composed message alone would read errno too late: composing may change it.)
[[noreturn]] void ThrowSystemError(int error, const std::string& message);

/// Whether a transfer that failed with @p error is repeated at once, as often as it takes.
inline bool IsTemporary(int error) {
  return error == EINTR || error == EAGAIN;
}

#endif
