#ifndef BOARDKIT_SYS_LOOPS_H
#define BOARDKIT_SYS_LOOPS_H

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>

#include "SystemError.h"

/// @file
/// What WriteLoop() and ReadLoop() do, to be made a part of their callers in the library: a short transfer takes little
/// longer than its system call, so that one call more on the way shows.
///
/// The descriptor comes as a reference for the same reason: it stays where it is, in an object, and takes no register
/// that would have to be saved.

inline void WriteAll(const int& fd, const void* data, unsigned int length) {
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
    // Kept: every negative result but -1 counts as no progress here.
    if (written <= 0) {
      throw std::logic_error("Error writing to file descriptor. No bytes written:");
    }

    position += written;
    remaining -= static_cast<std::size_t>(written);
  }
}

inline void ReadAll(const int& fd, void* buffer, unsigned int length) {
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
    // Kept: only the end of the file counts as no progress here; a negative result but -1 steps back.
    if (got == 0) {
      throw std::logic_error("Error reading from file descriptor. No bytes read:");
    }

    position += got;
    remaining -= static_cast<std::size_t>(got);
  }
}

#endif
