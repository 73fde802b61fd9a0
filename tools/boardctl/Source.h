#ifndef BOARDKIT_CTL_SOURCE_H
#define BOARDKIT_CTL_SOURCE_H

#include <cstdint>
#include <string>
#include <vector>

/// A file, or standard input ("-"); a signal ends waiting for it.
class Source {
 public:
  /// @throws std::system_error if it can't be read.
  explicit Source(const std::string& path);
  ~Source();
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  /// Of a file; 0 if nobody knows.
  std::uint64_t Size() const {
    return m_size;
  }

  /// What is there next; nothing at the end, or when a signal comes. @throws std::system_error.
  std::vector<unsigned char> Read();

 private:
  int m_fd;
  std::string m_name;
  std::uint64_t m_size = 0;
};

#endif
