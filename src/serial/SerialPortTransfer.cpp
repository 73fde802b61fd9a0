#include "SerialPort.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>

#include "../sys/DataPath.h"
#include "../sys/Retry.h"
#include "../sys/SystemError.h"

using boardkit::IsTemporary;
using boardkit::ThrowSystemError;

// Unlike WriteLoop(), this has texts of its own, treats only a result of 0 as no progress, and reports that as a system
// error, too.
void SerialPort::Write(const void* data, unsigned int count) {
  RequireOpen();

  const auto* position = static_cast<const char*>(data);
  while (count != 0) {
    const ssize_t written = ::write(m_fd, position, count);
    if (written == -1) {
      if (IsTemporary(errno)) {
        continue;
      }
      // By contract: the colon at the end, here and in ReadExactly(), although another one follows.
      ThrowSystemError("Error writing to file descriptor: ");
    }
    // By contract: a negative result other than -1 steps back, whatever the text says. No call has failed if the result
    // is 0, so the error number is whatever errno happens to hold.
    if (written == 0) {
      ThrowSystemError("Error writing to file descriptor. writtenCount <= 0.");
    }

    position += written;
    count -= static_cast<unsigned int>(written);
  }
}

void SerialPort::Write(const std::string& text) {
  // By contract: of a length that does not fit into 32 bits, the low ones count.
  Write(text.data(), static_cast<unsigned int>(text.size()));
}

void SerialPort::Read(const void* buffer, unsigned int count) {
  // By contract: the buffer is written to in spite of its type. And there is no check for open: on a closed port the
  // system call fails.
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
    // By contract: a closed port is no failure here.
    return false;
  }

  pollfd wanted{m_fd, POLLIN, 0};
  const int ready = ::poll(&wanted, 1, timeoutMs);
  if (ready < 0) {
    // By contract: EINTR is not repeated, as nobody knows how long the call has waited.
    ThrowSystemError("SerialPort::IsDataReceived: poll() failed!");
  }
  // By contract: a line that is hung up counts as data, too.
  return ready > 0;
}

bool SerialPort::IsDataAvailable() const {
  RequireOpen();
  return !m_rxBuffer.empty();
}

void SerialPort::Read(std::vector<unsigned char>& out, unsigned int count) {
  RequireOpen();

  // By contract: also where the count is refused.
  out.clear();
  if (count > m_rxBuffer.size()) {
    throw std::invalid_argument("SerialPort::Read: more bytes asked for than are buffered.");
  }

  std::size_t remaining = count == 0 ? m_rxBuffer.size() : count;
  out.reserve(remaining);
  for (; remaining != 0; --remaining) {
    out.push_back(m_rxBuffer.front());
    m_rxBuffer.pop_front();
  }
}

// By contract: from here to the last flush nothing checks for open; on a closed port the system calls fail.
int SerialPort::AvailableBytesToRead() const {
  int count = 0;
  if (::ioctl(m_fd, FIONREAD, &count) < 0) {
    // By contract: the message names the operation below, which shares it.
    ThrowSystemError("SerialPort::ReadAllAvailableData: FIONREAD failed!");
  }
  return count;
}

void SerialPort::ReadAllAvailableData() {
  for (int count = AvailableBytesToRead(); count > 0; --count) {
    // By contract: byte by byte, and a failure ends it silently. What arrives meanwhile waits for the next call.
    std::uint8_t byte = 0;
    if (::read(m_fd, &byte, 1) < 1) {
      return;
    }
    m_rxBuffer.push_back(byte);
  }
}

void SerialPort::FlushInput() const {
  if (::tcflush(m_fd, TCIFLUSH) < 0) {
    ThrowSystemError("SerialPort::FlushInput: tcflush() failed!");
  }
}

void SerialPort::FlushOutput() const {
  if (::tcflush(m_fd, TCOFLUSH) < 0) {
    ThrowSystemError("SerialPort::FlushOutput: tcflush() failed!");
  }
}

void SerialPort::FlushInputAndOutput() const {
  // By contract: the second flush drops what arrived between the two.
  if (::tcflush(m_fd, TCIOFLUSH) < 0 || ::tcflush(m_fd, TCIFLUSH) < 0) {
    ThrowSystemError("SerialPort::FlushInputAndOutput: tcflush() failed!");
  }
}

// Unlike ReadLoop(), this has texts of its own and reports the end of file as a system error, too.
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
    // By contract: as in Write(), a negative result other than -1 steps back, and the end of file gets a stray errno.
    if (got == 0) {
      ThrowSystemError("SerialPort ReadCount 0");
    }

    position += got;
    count -= static_cast<unsigned int>(got);
  }
}
