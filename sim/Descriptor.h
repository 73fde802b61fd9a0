#ifndef BOARDKIT_SIM_DESCRIPTOR_H
#define BOARDKIT_SIM_DESCRIPTOR_H

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

/// A file descriptor that is closed at its owner's end, or none (-1).
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : m_fd(fd) {}
  Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~Descriptor() {
    if (m_fd != -1) {
      ::close(m_fd);
    }
  }

  explicit operator bool() const {
    return m_fd != -1;
  }
  int Get() const {
    return m_fd;
  }
  /// Gives the descriptor away unclosed.
  int Release() {
    return std::exchange(m_fd, -1);
  }
  void Close() {
    Descriptor().Swap(*this);
  }

 private:
  void Swap(Descriptor& other) {
    std::swap(m_fd, other.m_fd);
  }

  int m_fd = -1;
};

/// What makes two descriptors the same file, however each came to be: opened, duplicated, inherited or passed.
struct FileId {
  dev_t device = 0;
  ino_t inode = 0;

  bool operator==(const FileId& other) const {
    return device == other.device && inode == other.inode;
  }

  static FileId Of(const struct stat& status) {
    return {status.st_dev, status.st_ino};
  }
  static FileId Of(const Descriptor& descriptor) {
    struct stat status {};
    ::fstat(descriptor.Get(), &status);
    return Of(status);
  }
};

/// The name under which a process reaches the file behind one of its own descriptors.
inline std::string PathOf(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

#endif
