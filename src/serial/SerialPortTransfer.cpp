#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>

#include "../sys/SystemError.h"
#include "SerialPort.h"

void SerialPort::Write(const void* data, unsigned int count) {
  RequireOpen();

  const auto* position = static_cast<const char*>(data);
  while (count != 0) {
    const ssize_t written = ::write(m_fd, position, count);
    if (written == -1) {
      if (IsTemporary(errno)) {
        continue;
      }
      ThrowSystemError("Error writing to file descriptor: ");
    }
    if (written == 0) {
      ThrowSystemError("Error writing to file descriptor. writtenCount <= 0.");
    }

    position += written;
    count -= static_cast<unsigned int>(written);
  }
}

void SerialPort::Write(const std::string& text) {
  Write(text.data(), static_cast<unsigned int>(text.size()));
}

void SerialPort::Read(const void* buffer, unsigned int count) {
  // Kept: the buffer's type says that it is only read, and it is written through all the same.
  ReadExactly(m_fd, const_cast<void*>(buffer), count);  // NOLINT(cppcoreguidelines-pro-type-const-cast): the interface
}

unsigned char SerialPort::ReadOneByte() {
  RequireOpen();

  unsigned char byte = 0;
  ReadExactly(m_fd, &byte, 1);
  return byte;
}

bool SerialPort::IsDataReceived(int timeoutMs) const {
  if (!m_isOpen) {
    return false;
  }

  pollfd wanted{m_fd, POLLIN, 0};
  const int ready = ::poll(&wanted, 1, timeoutMs);
  if (ready < 0) {
    // Not retried, EINTR included: the time already waited is not known.
    ThrowSystemError("SerialPort::IsDataReceived: poll() failed!");
  }
  return ready > 0;
}

bool SerialPort::IsDataAvailable() const {
  RequireOpen();
  return !m_rxBuffer.empty();
}

void SerialPort::Read(std::vector<unsigned char>& out, unsigned int count) {
  RequireOpen();

  out.clear();
  if (count > m_rxBuffer.size()) {
    throw std::out_of_range("SerialPort::Read: " + std::to_string(count) + " bytes asked for, " +
                            std::to_string(m_rxBuffer.size()) + " buffered.");
  }

  std::size_t remaining = count == 0 ? m_rxBuffer.size() : count;
  out.reserve(remaining);
  for (; remaining != 0; --remaining) {
    out.push_back(m_rxBuffer.front());
    m_rxBuffer.pop_front();
  }
}

void SerialPort::ReadExactly(int fd, void* buffer, unsigned int count) {
  auto* position = static_cast<char*>(buffer);
  while (count != 0) {
    const ssize_t got = ::read(fd, position, count);
    if (got == -1) {
      if (IsTemporary(errno)) {
        continue;
      }
      ThrowSystemError("Error reading from file descriptor: ");
    }
    if (got == 0) {
      ThrowSystemError("SerialPort ReadCount 0");
    }

    position += got;
    count -= static_cast<unsigned int>(got);
  }
}
