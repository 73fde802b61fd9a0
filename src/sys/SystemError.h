#ifndef BOARDKIT_SYS_SYSTEMERROR_H
#define BOARDKIT_SYS_SYSTEMERROR_H

/// Throws std::system_error with the current errno and @p message: the one way in which a failed system call is
/// reported.
[[noreturn]] void ThrowSystemError(const char* message);

#endif
