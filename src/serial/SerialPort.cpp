#include "SerialPort.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "../sys/SystemError.h"

namespace {

constexpr const char* kSharedFionreadMessage = "SerialPort::ReadAllAvailableData: FIONREAD failed!";

/// Gives up a descriptor that opening could not complete; errno stays that of the failed call.
[[noreturn]] void CloseAndThrow(int fd, const char* message) {
  const int error = errno;
  ::close(fd);

  ThrowSystemError(error, message);
}

/// Reports a failed call with the device's name in the text; errno is read before that is composed.
[[noreturn]] void ThrowNaming(const std::string& device, const char* before, const std::string& behind) {
  const int error = errno;
  ThrowSystemError(error, before + device + behind);
}

termios RawAttributes() {
  // The speeds stay 0 until SetBaudRate().
  termios settings{};
  settings.c_cflag |= CLOCAL | CREAD;
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
  // By contract, an exception ends the process here: a line that could not be put back is not passed over in silence.
  if (IsOpen()) {
    Close();
  }
}

void SerialPort::OpenSerialPortDevice() {
  if (IsOpen()) {
    ThrowSystemError("Serial port already open.");
  }

  const int fd = ::open(m_device.c_str(), O_RDWR | O_NOCTTY);
  if (fd == -1) {
    ThrowNaming(m_device, "Open Serial Port '", "' failed?");
  }

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

  // Kept: the flush is made on devices without terminal attributes too.
  if (::tcflush(fd, TCIFLUSH) < 0) {
    CloseAndThrow(fd, "Flush of the input buffer failed?");
  }

  m_fd = fd;
  m_isOpen = true;

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
  // Kept: as the last one it makes the line raw again, so the device runs with 8 bits and no parity.
  SetFlowControl(flowControl);
}

bool SerialPort::IsOpen() const {
  return m_isOpen;
}

void SerialPort::Close() {
  RequireOpen();

  SetLoopback(false);

  if (m_termiosSupported && ::tcsetattr(m_fd, TCSANOW, &m_savedSettings) < 0) {
    ThrowNaming(m_device, "SerialPort::Close(): Setting the attributes of the serial port '", "' failed?");
  }

  // Retried on EINTR alone; other failures are ignored.
  while (::close(m_fd) == -1 && errno == EINTR) {
  }

  m_isOpen = false;
  m_fd = -1;
}

void SerialPort::GetTheCurrentPortSettings(termios& settings) const {
  if (m_termiosSupported && ::tcgetattr(m_fd, &settings) < 0) {
    ThrowSystemError("Get the current port settings failed?");
  }
}

void SerialPort::SetPortSettings(const termios& settings, const std::string& context) {
  if (m_termiosSupported && ::tcsetattr(m_fd, TCSANOW, &settings) < 0) {
    const int error = errno;
    // Kept: the context follows without a separator.
    ThrowSystemError(error, "SerialPort::SetPortSettings(): Setting the attributes of the serial port '" + m_device +
                                "' failed?" + context);
  }
}

int SerialPort::AvailableBytesToRead() const {
  int count = 0;
  if (::ioctl(m_fd, FIONREAD, &count) < 0) {
    // Kept: the message names the other operation; both share it.
    ThrowSystemError(kSharedFionreadMessage);
  }
  return count;
}

void SerialPort::ReadAllAvailableData() {
  for (int count = AvailableBytesToRead(); count > 0; --count) {
    // Byte by byte, so that what comes in meanwhile waits for the next call.
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
  // Kept: the second flush drops what arrived between the two.
  if (::tcflush(m_fd, TCIOFLUSH) < 0 || ::tcflush(m_fd, TCIFLUSH) < 0) {
    ThrowSystemError("SerialPort::FlushInputAndOutput: tcflush() failed!");
  }
}

void SerialPort::RequireOpen() const {
  if (!m_isOpen) {
    ThrowSystemError("Serial port not open.");
  }
}
