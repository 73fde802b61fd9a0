#include "SerialPort.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "../sys/SystemError.h"

using boardkit::ThrowSystemError;

namespace {

/// Closes a descriptor whose setup failed and throws with the errno of the failed call.
[[noreturn]] void CloseAndThrow(int fd, const char* message) {
  const int error = errno;
  ::close(fd);

  ThrowSystemError(error, {message});
}

termios RawAttributes() {
  // The speeds stay 0 until SetBaudRate().
  termios settings{};
  settings.c_cflag |= CLOCAL | CREAD;
  // By contract: set, although cfmakeraw() has the last word on both.
  settings.c_cc[VTIME] = 0;
  settings.c_cc[VMIN] = 0;
  ::cfmakeraw(&settings);
  return settings;
}

}  // namespace

SerialPort::SerialPort(const std::string& device, bool termiosSupported)
    : m_device(device), m_termiosSupported(termiosSupported) {
  try {
    OpenSerialPortDevice();
  } catch (...) {
    // Without an object there is no destructor to close it.
    if (m_isOpen) {
      ::close(m_fd);
    }
    throw;
  }
}

SerialPort::~SerialPort() {
  // By contract: an exception ends the process here. A line that could not be restored does not go unnoticed.
  if (IsOpen()) {
    Close();
  }
}

void SerialPort::OpenSerialPortDevice() {
  if (IsOpen()) {
    // By contract: no call has failed, so the error number is whatever errno happens to hold.
    ThrowSystemError("Serial port already open.");
  }

  // By contract: children inherit it.
  const int fd = ::open(m_device.c_str(), O_RDWR | O_NOCTTY);
  if (fd == -1) {
    ThrowSystemError({"Open Serial Port '", m_device, "' failed?"});
  }

  // By contract: the result is ignored.
  ::fcntl(fd, F_SETFL, 0);

  if (m_termiosSupported) {
    if (::tcgetattr(fd, &m_savedSettings) < 0) {
      CloseAndThrow(fd, "Save the current settings for serial port failed?");
    }

    const termios raw = RawAttributes();
    if (::tcsetattr(fd, TCSAFLUSH, &raw) < 0) {
      CloseAndThrow(fd, "Write new settings failed?");
    }
  }

  // By contract: devices without terminal attributes are flushed, too. If that fails, the line stays raw.
  if (::tcflush(fd, TCIFLUSH) < 0) {
    CloseAndThrow(fd, "Flush of the input buffer failed?");
  }

  m_fd = fd;
  m_isOpen = true;

  // By contract: flushed again, and read empty, now that the port counts as open.
  FlushInputAndOutput();
  ReadAllAvailableData();
  m_rxBuffer.clear();
}

void SerialPort::Open(BaudRate baudRate, CharacterSize charSize, Parity parity, StopBits stopBits,
                      FlowControl flowControl) {
  OpenSerialPortDevice();
  SetBaudRate(baudRate);
  if (m_customBaudRate != 0) {
    ApplyCustomBaudRate(m_customBaudRate);
  }
  SetCharSize(charSize);
  SetParity(parity);
  SetNumOfStopBits(stopBits);
  // By contract: called last, this makes the line raw again, so the device runs with 8 bits and no parity.
  SetFlowControl(flowControl);
}

bool SerialPort::IsOpen() const {
  return m_isOpen;
}

void SerialPort::Close() {
  RequireOpen();

  SetLoopback(false);

  if (m_termiosSupported && ::tcsetattr(m_fd, TCSANOW, &m_savedSettings) < 0) {
    ThrowSystemError({"SerialPort::Close(): Setting the attributes of the serial port '", m_device, "' failed?"});
  }

  // By contract: repeated on EINTR, although Linux has released the number by then: in a program with several threads
  // the next call may close somebody else's file. Other failures are ignored.
  while (::close(m_fd) == -1 && errno == EINTR) {
  }

  m_isOpen = false;
  m_fd = -1;
}

void SerialPort::RequireOpen() const {
  if (!m_isOpen) {
    // By contract: no call has failed here either, so the error number is a stray one.
    ThrowSystemError("Serial port not open.");
  }
}
