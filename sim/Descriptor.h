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
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
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
class FileId {
 public:
  static FileId Of(const struct stat& status) {
    FileId id;
    id.m_device = status.st_dev;
    id.m_inode = status.st_ino;
    return id;
  }
  static FileId Of(const Descriptor& descriptor) {
    struct stat status {};
    ::fstat(descriptor.Get(), &status);
    return Of(status);
  }

  bool operator==(const FileId& other) const {
    return m_device == other.m_device && m_inode == other.m_inode;
  }

 private:
  dev_t m_device = 0;  // 0 with 0: no file's
  ino_t m_inode = 0;
};

/// The name under which a process reaches the file of one of its own descriptors.
inline std::string PathOf(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

#endif
