#include "SystemError.h"

#include <cerrno>
#include <system_error>

void ThrowSystemError(const char* message) {
  // Saved first: building the exception allocates, which may change errno.
  const int error = errno;

  throw std::system_error(error, std::system_category(), message);
}
