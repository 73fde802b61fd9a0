#include "Source.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <system_error>

#include "Signals.h"

Source::Source(const std::string& path)
    // Opening a named pipe would wait for a writer, also through signals.
    : m_fd(path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)),
      m_name(path == "-" ? "Standard input" : path) {
  struct stat file {};
  if (m_fd == -1 || ::fstat(m_fd, &file) == -1) {
    throw std::system_error(errno, std::generic_category(), m_name + " can't be read");
  }
  if (S_ISREG(file.st_mode)) {
    const off_t at = ::lseek(m_fd, 0, SEEK_CUR);
    m_size = static_cast<std::uint64_t>(file.st_size - std::min(at, file.st_size));
  }
}

Source::~Source() {
  if (m_fd != STDIN_FILENO) {
    ::close(m_fd);
  }
}

std::vector<unsigned char> Source::Read() {
  constexpr std::size_t kPiece = 1024;  // less than the queue of a serial port's driver holds
  std::vector<unsigned char> bytes(kPiece);
  while (signals::Caught() == 0) {
    pollfd ready[] = {{m_fd, POLLIN, 0}, {signals::Descriptor(), POLLIN, 0}};
    if (::poll(ready, std::size(ready), -1) == -1 || ready[1].revents != 0) {
      continue;
    }
    const ssize_t got = ::read(m_fd, bytes.data(), bytes.size());
    if (got >= 0) {
      bytes.resize(static_cast<std::size_t>(got));
      return bytes;
    }
    if (errno != EINTR && errno != EAGAIN) {
      throw std::system_error(errno, std::generic_category(), m_name + " can't be read");
    }
  }
  return {};
}
