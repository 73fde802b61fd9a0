#include "devices/line/LineSettings.h"

#include <linux/tty.h>

#include <algorithm>
#include <cerrno>

#include "Text.h"
#include "devices/ModemLines.h"
#include "sandbox/TrappedCall.h"

namespace {

/// The bits that go over the line for a byte.
int BitsOf(tcflag_t flags) {
  const tcflag_t size = flags & CSIZE;
  const int data = size == CS8 ? 8 : size == CS7 ? 7 : size == CS6 ? 6 : 5;
  return 1 + data + ((flags & PARENB) != 0 ? 1 : 0) + ((flags & CSTOPB) != 0 ? 2 : 1);
}

bool IsHungUp(const termios2& settings) {
  return (settings.c_cflag & CBAUD) == B0;
}

}  // namespace

LineSettings::LineSettings(Port& port, ModemControl& modem, Sender& sender, Receiver& receiver, bool isPaced)
    : m_port(port), m_modem(modem), m_sender(sender), m_receiver(receiver), m_isPaced(isPaced) {}

void LineSettings::Use(const Uart& uart) {
  m_uart.emplace(uart);
  Program();
}

void LineSettings::Set(const termios2& wanted) {
  if (!m_port.terminal) {
    throw RequestError{EIO};
  }
  const termios2 before = m_port.Settings();
  if (const int error = m_port.terminal->Set(wanted); error != 0) {
    throw RequestError{error};
  }
  termios2 settings = m_port.Settings();
  if (!CanRun(settings)) {
    constexpr tcflag_t kSpeeds = CBAUD | CBAUD << IBSHIFT;
    settings.c_cflag = (settings.c_cflag & ~kSpeeds) | (before.c_cflag & kSpeeds);
    settings.c_ispeed = before.c_ispeed;
    settings.c_ospeed = before.c_ospeed;
    m_port.terminal->Set(settings);
  }
  if ((settings.c_iflag & IXON) == 0) {
    m_sender.Stop(false);
  }
  // Speed 0 hangs up, and any other one after it picks up again.
  if (IsHungUp(settings)) {
    m_modem.SetOutputs(m_modem.Outputs() & ~kRaised);
  } else if (IsHungUp(before)) {
    m_modem.SetOutputs(m_modem.Outputs() | kRaised);
  }
  Program();
  m_port.Log("settings speed=" + std::to_string(IsHungUp(settings) ? 0 : settings.c_ospeed) +
             " flags=" + Hex(wanted.c_cflag));
}

void LineSettings::Program() {
  if (!m_port.terminal) {
    return;
  }
  const tcflag_t flags = m_port.Settings().c_cflag;
  const std::uint32_t baud = Baud();
  const double rate = m_isPaced ? static_cast<double>(baud) / BitsOf(flags) : 0;
  m_sender.SetRate(rate);
  m_receiver.SetRate(rate);
  if (m_uart) {
    m_uart->Program(static_cast<std::uint32_t>(m_port.info.baud_base), baud, flags);
  }
}

/// Whether the UART's clock can be divided to that speed. Drivers accept other speeds without an error, and keep the
/// old one.
bool LineSettings::CanRun(const termios2& settings) const {
  constexpr std::uint32_t kGreatestDivisor = 0xFFFF;
  constexpr std::uint32_t kTolerance = 100;  // a speed up to a hundredth above the fastest counts as that
  const auto base = static_cast<std::uint64_t>(m_port.info.baud_base);
  return IsHungUp(settings) ||
         (settings.c_ospeed >= base / kGreatestDivisor && settings.c_ospeed <= base + base / kTolerance);
}

/// The speed of the line. 38400 stands for others where TIOCSSERIAL said so.
std::uint32_t LineSettings::Baud() const {
  const speed_t speed = m_port.Settings().c_ospeed;
  if (speed != 38400) {
    return IsHungUp(m_port.Settings()) ? 0 : speed;
  }
  switch (static_cast<unsigned int>(m_port.info.flags) & ASYNC_SPD_MASK) {
    case ASYNC_SPD_HI:
      return 57600;
    case ASYNC_SPD_VHI:
      return 115200;
    case ASYNC_SPD_SHI:
      return 230400;
    case ASYNC_SPD_WARP:
      return 460800;
    case ASYNC_SPD_CUST:
      return static_cast<std::uint32_t>(m_port.info.baud_base / std::max(m_port.info.custom_divisor, 1));
    default:
      return speed;
  }
}
