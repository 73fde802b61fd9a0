#ifndef BOARDKIT_BENCH_DESCRIPTOR_H
#define BOARDKIT_BENCH_DESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

/// A descriptor that is closed at the end.
class Descriptor {
 public:
  /// Takes what a system call returned.
  /// @throws std::system_error with the current `errno` if that is -1.
  explicit Descriptor(int fd) : m_fd(fd) {
    if (m_fd == -1) {
      throw std::system_error(errno, std::system_category(), "no descriptor to measure with");
    }
  }
  ~Descriptor() {
    if (m_fd != -1) {
      ::close(m_fd);
    }
  }

  Descriptor() = default;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }

  int Get() const {
    return m_fd;
  }

 private:
  int m_fd = -1;
};

#endif
