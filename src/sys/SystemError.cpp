#include "SystemError.h"

#include <cerrno>
#include <system_error>

void ThrowSystemError(const char* message) {
  // Saved first: building the text allocates, which may change errno.
  const int error = errno;

  ThrowSystemError(error, message);
}

void ThrowSystemError(int error, const std::string& message) {
  throw std::system_error(error, std::system_category(), message);
}
