#include "SystemCalls.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <stdexcept>

#include "SystemError.h"

namespace {

// Both loops wait in the call itself, or spin on a non-blocking descriptor: they return only with the job done.
bool IsTemporary(int error) {
  return error == EINTR || error == EAGAIN;
}

}  // namespace

void WriteLoop(int fd, const void* data, unsigned int length) {
  const auto* position = static_cast<const char*>(data);
  std::size_t remaining = length;

  while (remaining != 0) {
    const ssize_t written = ::write(fd, position, remaining);
    if (written == -1) {
      if (IsTemporary(errno)) {
        continue;
      }
      ThrowSystemError("Error writing to file descriptor:");
    }
    if (written <= 0) {
      throw std::logic_error("Error writing to file descriptor. No bytes written:");
    }

    position += written;
    remaining -= static_cast<std::size_t>(written);
  }
}

void ReadLoop(int fd, void* buffer, unsigned int length) {
  auto* position = static_cast<char*>(buffer);
  std::size_t remaining = length;

  while (remaining != 0) {
    const ssize_t got = ::read(fd, position, remaining);
    if (got == -1) {
      if (IsTemporary(errno)) {
        continue;
      }
      ThrowSystemError("Error reading from file descriptor:");
    }
    // Kept: only the end of the file counts as no progress here, while WriteLoop takes every other negative result so.
    if (got == 0) {
      throw std::logic_error("Error reading from file descriptor. No bytes read:");
    }

    position += got;
    remaining -= static_cast<std::size_t>(got);
  }
}

void DebugSleep(int milliseconds) {
  // A negative time makes negative fields, which nanosleep refuses.
  timespec request{};
  request.tv_sec = milliseconds / 1000;
  request.tv_nsec = (milliseconds % 1000) * 1'000'000L;

  timespec remaining{};
  while (::nanosleep(&request, &remaining) != 0) {
    if (errno != EINTR) {
      ThrowSystemError("Error sleeping: ");
    }
    request = remaining;
  }
}
