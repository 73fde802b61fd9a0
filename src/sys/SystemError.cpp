#include "SystemError.h"

#include <cerrno>
#include <system_error>

#include "Join.h"

namespace boardkit {

void ThrowSystemError(const char* message) {
  ThrowSystemError(errno, {message});
}

void ThrowSystemError(std::initializer_list<std::string_view> message) {
  ThrowSystemError(errno, message);
}

void ThrowSystemError(int error, std::initializer_list<std::string_view> message) {
  throw std::system_error(error, std::system_category(), Join(message));
}

}  // namespace boardkit
