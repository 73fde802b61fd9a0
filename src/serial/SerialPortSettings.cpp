#include "SerialPort.h"

#include <sys/ioctl.h>
#include <termios.h>

#include <stdexcept>

#include "../sys/SystemError.h"
#include "CustomSpeed.h"
#include "SpeedCodes.h"

namespace speedcodes = boardkit::speedcodes;
using boardkit::ThrowSystemError;

namespace {

// The C library's header knows the other modem-control bits, but not this one.
constexpr int kModemLoopback = 0x8000;

constexpr const char* kUnsupportedBaudRate = "Unsupported baud rate.";
constexpr const char* kInvalidParity = "Invalid parity setting.";
constexpr const char* kInvalidStopBits = "Invalid number of stop bits.";
constexpr const char* kInvalidFlowControl = "Invalid flow control.";

/// Whether the C library uses the same code; one that takes plain rates has no codes.
constexpr bool IsKernelCode(SerialPort::BaudRate code, speed_t constant) {
  return speedcodes::kSpeedsAreRates || static_cast<speed_t>(code) == constant;
}
static_assert(IsKernelCode(SerialPort::BAUD_0, B0));
static_assert(IsKernelCode(SerialPort::BAUD_50, B50));
static_assert(IsKernelCode(SerialPort::BAUD_75, B75));
static_assert(IsKernelCode(SerialPort::BAUD_110, B110));
static_assert(IsKernelCode(SerialPort::BAUD_134, B134));
static_assert(IsKernelCode(SerialPort::BAUD_150, B150));
static_assert(IsKernelCode(SerialPort::BAUD_200, B200));
static_assert(IsKernelCode(SerialPort::BAUD_300, B300));
static_assert(IsKernelCode(SerialPort::BAUD_600, B600));
static_assert(IsKernelCode(SerialPort::BAUD_1200, B1200));
static_assert(IsKernelCode(SerialPort::BAUD_1800, B1800));
static_assert(IsKernelCode(SerialPort::BAUD_2400, B2400));
static_assert(IsKernelCode(SerialPort::BAUD_4800, B4800));
static_assert(IsKernelCode(SerialPort::BAUD_9600, B9600));
static_assert(IsKernelCode(SerialPort::BAUD_19200, B19200));
static_assert(IsKernelCode(SerialPort::BAUD_38400, B38400));
static_assert(IsKernelCode(SerialPort::BAUD_57600, B57600));
static_assert(IsKernelCode(SerialPort::BAUD_115200, B115200));
static_assert(IsKernelCode(SerialPort::BAUD_230400, B230400));
static_assert(IsKernelCode(SerialPort::BAUD_460800, B460800));
static_assert(IsKernelCode(SerialPort::BAUD_500000, B500000));
static_assert(IsKernelCode(SerialPort::BAUD_576000, B576000));
static_assert(IsKernelCode(SerialPort::BAUD_921600, B921600));
static_assert(IsKernelCode(SerialPort::BAUD_1000000, B1000000));
static_assert(IsKernelCode(SerialPort::BAUD_1152000, B1152000));
static_assert(IsKernelCode(SerialPort::BAUD_1500000, B1500000));
static_assert(IsKernelCode(SerialPort::BAUD_2000000, B2000000));
static_assert(IsKernelCode(SerialPort::BAUD_2500000, B2500000));
static_assert(IsKernelCode(SerialPort::BAUD_3000000, B3000000));

static_assert(SerialPort::CHAR_SIZE_5 == CS5 && SerialPort::CHAR_SIZE_6 == CS6, "written into c_cflag as they are");
static_assert(SerialPort::CHAR_SIZE_7 == CS7 && SerialPort::CHAR_SIZE_8 == CS8, "written into c_cflag as they are");
static_assert(SerialPort::PARITY_EVEN == 0 && SerialPort::PARITY_ODD == 1 && SerialPort::PARITY_NONE == 2, "interface");
static_assert(SerialPort::STOP_BITS_1 == 0 && SerialPort::STOP_BITS_2 == 1, "interface");
static_assert(SerialPort::FLOW_CONTROL_HARDWARE == 0 && SerialPort::FLOW_CONTROL_SOFTWARE == 1, "interface");
static_assert(SerialPort::FLOW_CONTROL_NONE == 2, "interface");

}  // namespace

void SerialPort::SetBaudRate(BaudRate baudRate) {
  // By contract: with a custom speed this does nothing, not even check for open.
  if (m_customBaudRate != 0) {
    return;
  }

  RequireOpen();
  ApplyBaudRate(baudRate);
  m_baudRate = baudRate;
}

SerialPort::BaudRate SerialPort::GetBaudRate() const {
  // By contract: no check for open; on a closed port the read fails.
  termios settings{};
  GetTheCurrentPortSettings(settings);
  return static_cast<BaudRate>(speedcodes::ToCode(::cfgetispeed(&settings)));
}

void SerialPort::SetCustomBaudRate(std::uint32_t bitsPerSecond) {
  RequireOpen();
  if (bitsPerSecond == 0) {
    ApplyBaudRate(m_baudRate);
  } else {
    ApplyCustomBaudRate(bitsPerSecond);
  }
  m_customBaudRate = bitsPerSecond;
}

std::uint32_t SerialPort::GetCustomBaudRate() const {
  return m_customBaudRate;
}

void SerialPort::SetCharSize(CharacterSize charSize) {
  RequireOpen();
  termios settings{};
  GetTheCurrentPortSettings(settings);
  // By contract: the value is not checked.
  settings.c_cflag = (settings.c_cflag & ~static_cast<tcflag_t>(CSIZE)) | static_cast<tcflag_t>(charSize);
  SetPortSettings(settings, "Invalid character size setting.");
  m_charSize = charSize;
}

SerialPort::CharacterSize SerialPort::GetCharSize() const {
  RequireOpen();
  termios settings{};
  GetTheCurrentPortSettings(settings);
  return static_cast<CharacterSize>(settings.c_cflag & CSIZE);
}

void SerialPort::SetParity(Parity parity) {
  RequireOpen();
  termios settings{};
  // By contract: read even if the argument is refused, also for stop bits and flow control.
  GetTheCurrentPortSettings(settings);
  switch (parity) {
    case PARITY_EVEN:
      settings.c_cflag &= ~static_cast<tcflag_t>(PARODD);
      settings.c_cflag |= PARENB;
      settings.c_iflag |= INPCK;
      break;
    case PARITY_ODD:
      settings.c_cflag |= PARENB | PARODD;
      settings.c_iflag |= INPCK;
      break;
    case PARITY_NONE:
      // By contract: PARODD and INPCK stay as they are.
      settings.c_cflag &= ~static_cast<tcflag_t>(PARENB);
      settings.c_iflag |= IGNPAR;
      break;
    default:
      throw std::invalid_argument(kInvalidParity);
  }
  SetPortSettings(settings, kInvalidParity);
  m_parity = parity;
}

SerialPort::Parity SerialPort::GetParity() const {
  RequireOpen();
  termios settings{};
  GetTheCurrentPortSettings(settings);
  if ((settings.c_cflag & PARENB) == 0) {
    return PARITY_NONE;
  }
  return (settings.c_cflag & PARODD) != 0 ? PARITY_ODD : PARITY_EVEN;
}

void SerialPort::SetNumOfStopBits(StopBits stopBits) {
  RequireOpen();
  termios settings{};
  GetTheCurrentPortSettings(settings);
  switch (stopBits) {
    case STOP_BITS_1:
      settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB);
      break;
    case STOP_BITS_2:
      settings.c_cflag |= CSTOPB;
      break;
    default:
      throw std::invalid_argument(kInvalidStopBits);
  }
  SetPortSettings(settings, kInvalidStopBits);
  m_stopBits = stopBits;
}

SerialPort::StopBits SerialPort::GetNumOfStopBits() const {
  RequireOpen();
  termios settings{};
  GetTheCurrentPortSettings(settings);
  return (settings.c_cflag & CSTOPB) != 0 ? STOP_BITS_2 : STOP_BITS_1;
}

void SerialPort::SetFlowControl(FlowControl flowControl) {
  RequireOpen();
  termios settings{};
  GetTheCurrentPortSettings(settings);
  // By contract: this resets the character size and the parity of the device, while the remembered ones stay.
  ::cfmakeraw(&settings);
  switch (flowControl) {
    case FLOW_CONTROL_HARDWARE:
      settings.c_cflag |= CRTSCTS;
      break;
    case FLOW_CONTROL_SOFTWARE:
      // By contract: CRTSCTS stays as it is.
      settings.c_iflag |= IXON | IXANY | IXOFF;
      break;
    case FLOW_CONTROL_NONE:
      // By contract: IXOFF and IXANY stay as they are; IXON has just been cleared.
      settings.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
      break;
    default:
      throw std::invalid_argument(kInvalidFlowControl);
  }
  SetPortSettings(settings, kInvalidFlowControl);
  m_flowControl = flowControl;
}

SerialPort::FlowControl SerialPort::GetFlowControl() const {
  RequireOpen();
  termios settings{};
  GetTheCurrentPortSettings(settings);
  // By contract: software flow control is never reported.
  return (settings.c_cflag & CRTSCTS) != 0 ? FLOW_CONTROL_HARDWARE : FLOW_CONTROL_NONE;
}

void SerialPort::SetLoopback(bool on) {
  RequireOpen();
  int bits = 0;
  if (::ioctl(m_fd, TIOCMGET, &bits) == -1) {
    // By contract: the blank at the beginning, here and below; and -1 alone is a failure here.
    ThrowSystemError(" SetLoopback TIOCMGET failed!");
  }

  bits = on ? bits | kModemLoopback : bits & ~kModemLoopback;
  if (::ioctl(m_fd, TIOCMSET, &bits) == -1) {
    ThrowSystemError(" SetLoopback TIOCMSET failed!");
  }
}

void SerialPort::ReadyForReceive(bool ready) {
  // By contract: no check for open; on a closed port the request fails. Any negative result is a failure.
  int bits = 0;
  if (::ioctl(m_fd, TIOCMGET, &bits) < 0) {
    ThrowSystemError("TIOCMGET failed?");
  }

  bits = ready ? bits | TIOCM_RTS : bits & ~TIOCM_RTS;
  if (::ioctl(m_fd, TIOCMSET, &bits) < 0) {
    ThrowSystemError("TIOCMSET failed?");
  }
}

SerialPort::BaudRate SerialPort::ConversionToBaudrateEnum(int bitsPerSecond) {
  // By contract: the standard speeds below this one are not converted.
  constexpr int kSlowest = 9600;
  for (const speedcodes::Speed& speed : speedcodes::kSpeeds) {
    if (bitsPerSecond >= kSlowest && speed.bitsPerSecond == static_cast<unsigned int>(bitsPerSecond)) {
      return static_cast<BaudRate>(speed.code);
    }
  }
  return BAUD_0;
}

unsigned int SerialPort::BaudRateToPrintableNumber(unsigned int code) {
  // By contract: the two fastest codes print as the speeds of the two before them.
  constexpr unsigned int kShown2500000 = 1500000;
  constexpr unsigned int kShown3000000 = 2000000;
  if (code == BAUD_2500000) {
    return kShown2500000;
  }
  if (code == BAUD_3000000) {
    return kShown3000000;
  }

  for (const speedcodes::Speed& speed : speedcodes::kSpeeds) {
    if (static_cast<unsigned int>(speed.code) == code) {
      return speed.bitsPerSecond;
    }
  }
  return 0;
}

// By contract: neither this nor SetPortSettings() checks for open; on a closed port the calls fail.
void SerialPort::GetTheCurrentPortSettings(termios& settings) const {
  if (m_termiosSupported && ::tcgetattr(m_fd, &settings) < 0) {
    ThrowSystemError("Get the current port settings failed?");
  }
}

void SerialPort::SetPortSettings(const termios& settings, const std::string& context) {
  if (m_termiosSupported && ::tcsetattr(m_fd, TCSANOW, &settings) < 0) {
    // By contract: the context follows without a separator.
    ThrowSystemError(
        {"SerialPort::SetPortSettings(): Setting the attributes of the serial port '", m_device, "' failed?", context});
  }
}

void SerialPort::ApplyBaudRate(BaudRate baudRate) {
  termios settings{};
  GetTheCurrentPortSettings(settings);
  if (speedcodes::SetSpeeds(settings, baudRate) < 0) {
    ThrowSystemError(kUnsupportedBaudRate);
  }
  SetPortSettings(settings, kUnsupportedBaudRate);
}

void SerialPort::ApplyCustomBaudRate(std::uint32_t bitsPerSecond) {
  if (m_termiosSupported && boardkit::SetCustomSpeed(m_fd, bitsPerSecond) == -1) {
    ThrowSystemError(kUnsupportedBaudRate);
  }
}
