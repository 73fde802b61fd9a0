#ifndef BOARDKIT_SYS_SYSTEMERROR_H
#define BOARDKIT_SYS_SYSTEMERROR_H

#include <initializer_list>
#include <string_view>

/// @file
/// The one way in which a failed system call is reported: std::system_error with the call's errno and a message.

namespace boardkit {

/// Throws with the current errno.
[[noreturn]] void ThrowSystemError(const char* message);

/// The same with a message in pieces: errno is read before they are joined, as joining may change it.
[[noreturn]] void ThrowSystemError(std::initializer_list<std::string_view> message);

/// The same with a number of the caller's: saved before it tidied up, or of a failure that no call reports.
[[noreturn]] void ThrowSystemError(int error, std::initializer_list<std::string_view> message);

}  // namespace boardkit

#endif
