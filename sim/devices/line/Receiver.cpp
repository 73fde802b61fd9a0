#include "devices/line/Receiver.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "devices/line/Earlier.h"

namespace {

constexpr std::size_t kSize = 65536;
constexpr std::size_t kMostAtOnce = 4096;
constexpr std::size_t kThrottle = 3968;  // unread bytes, of the 4096 that a terminal keeps
constexpr std::size_t kUnthrottle = 128;
constexpr std::chrono::milliseconds kLook{10};
constexpr std::chrono::milliseconds kLongestLook{1000};
constexpr char kMark = '\377';

}  // namespace

Receiver::Receiver(Port& port, ModemControl& modem, Sender& sender)
    : m_port(port), m_modem(modem), m_sender(sender), m_queue(kSize) {}

bool Receiver::IsListening() const {
  return m_port.use == Port::Use::kClosed || (m_port.IsOpen() && (m_modem.IsLooped() || m_queue.Room() >= kMostAtOnce));
}

bool Receiver::Receive() {
  if (!IsListening()) {
    return false;
  }
  // A marked byte takes the room of two.
  char piece[kMostAtOnce / 2];
  const bool wasConnected = m_port.far->IsConnected();
  const std::size_t got = m_port.far->Receive(piece, sizeof piece);
  // In the loop the receiver does not listen to the line.
  if (!m_modem.IsLooped()) {
    Hear({piece, got});
  }
  if (wasConnected && !m_port.far->IsConnected()) {
    m_modem.LookAtFarEnd();
  }
  return got > 0;
}

void Receiver::Hear(std::string_view bytes) {
  // A port that is closed hears nothing.
  if (!m_port.IsOpen() || bytes.empty() || (m_port.Settings().c_cflag & CREAD) == 0) {
    return;
  }
  m_port.counts.rx += static_cast<int>(bytes.size());
  if ((m_port.Settings().c_iflag & (IXON | PARMRK | ISTRIP)) == 0) {
    Queue(bytes);
  } else {
    Queue(Filtered(bytes));
  }
}

/// Does what the terminal would do too late, as it only sees what there is room for.
std::string Receiver::Filtered(std::string_view bytes) {
  const termios2& settings = m_port.Settings();
  const auto isControl = [&settings](char byte, std::size_t which) {
    return settings.c_cc[which] != _POSIX_VDISABLE && byte == static_cast<char>(settings.c_cc[which]);
  };
  const bool isMarked = (settings.c_iflag & PARMRK) != 0 && (settings.c_iflag & ISTRIP) == 0;
  std::string rest;
  for (const char byte : bytes) {
    const char stripped = (settings.c_iflag & ISTRIP) != 0 ? static_cast<char>(byte & 0x7F) : byte;
    if ((settings.c_iflag & IXON) != 0) {
      if (isControl(stripped, VSTOP)) {
        m_sender.Stop(true);
        continue;
      }
      const bool isStart = isControl(stripped, VSTART);
      if (isStart || (settings.c_iflag & IXANY) != 0) {
        m_sender.Stop(false);
      }
      if (isStart) {
        continue;
      }
    }
    rest.append(isMarked && stripped == kMark ? 2 : 1, stripped);
  }
  return rest;
}

void Receiver::HearBreak() {
  if (!m_port.IsOpen()) {
    return;
  }
  ++m_port.counts.brk;
  m_port.Log("break in");
  const termios2& settings = m_port.Settings();
  if ((settings.c_iflag & IGNBRK) != 0) {
    return;
  }
  if ((settings.c_iflag & BRKINT) != 0) {
    if ((settings.c_lflag & NOFLSH) == 0) {
      Drop();
      m_sender.Drop();
    }
    m_port.terminal->Interrupt();
  } else if ((settings.c_iflag & PARMRK) != 0) {
    Queue(std::string_view("\377\0\0", 3));
  } else {
    Queue(std::string_view("\0", 1));
  }
}

/// For senders that can't be made to wait: bytes beyond what a driver would hold are lost.
void Receiver::Queue(std::string_view bytes) {
  const std::uint64_t before = m_queue.Dropped();
  if (!m_queue.Append(bytes)) {
    m_port.counts.buf_overrun += static_cast<int>(m_queue.Dropped() - before);
    m_port.Log("overrun dropped=" + std::to_string(m_queue.Dropped()));
  }
}

bool Receiver::Deliver() {
  if (!m_port.IsOpen() || m_queue.IsEmpty()) {
    m_pace.Rest();
    return false;
  }
  const std::string_view due = m_queue.View().substr(0, m_pace.Due(m_queue.Size()));
  const ssize_t written = due.empty() ? 0 : ::write(m_port.terminal->Get(), due.data(), due.size());
  if (written == -1 && errno != EAGAIN && errno != EINTR) {
    // A terminal that takes nothing any more has been hung up, which discards everything.
    m_queue.Clear();
    return false;
  }
  const auto taken = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
  m_isTerminalFull = taken < due.size();
  if (m_isTerminalFull) {
    m_pace.Rest();
  }
  m_queue.Take(taken);
  m_pace.Spend(taken);
  m_handedOver += taken;
  return taken > 0;
}

void Receiver::LookAtReader() {
  if (!m_port.IsOpen() || !IsThrottling()) {
    m_lookAt.reset();
    if (m_port.IsOpen() && m_isThrottled) {
      Throttle(false);
    }
    return;
  }
  if (!m_isThrottled && m_isTerminalFull) {
    Throttle(true);
  }
  const Clock::time_point now = Clock::now();
  if ((m_isThrottled || m_handedOver >= kThrottle) && (!m_lookAt || *m_lookAt > now + kLook)) {
    // What was handed over takes a moment to arrive.
    m_untilLook = kLook;
    m_lookAt = now + kLook;
  } else if (m_lookAt && now >= *m_lookAt) {
    m_lookAt.reset();
    m_handedOver = m_port.terminal->Unread();
    const bool isRead = m_queue.IsEmpty() && m_handedOver <= kUnthrottle;
    if (m_isThrottled ? isRead : m_handedOver >= kThrottle) {
      Throttle(!m_isThrottled);
    }
    // On a busy machine that moment is longer, so few unread bytes may only be the first ones.
    m_untilLook = m_isThrottled ? kLook : 2 * m_untilLook;
    if (m_untilLook <= kLongestLook) {
      m_lookAt = now + m_untilLook;
    }
  }
}

std::optional<Receiver::Clock::time_point> Receiver::Next() const {
  const bool isMoving = m_port.IsOpen() && !m_isTerminalFull;
  return Earlier(m_lookAt, isMoving ? m_pace.Next(m_queue.Size()) : std::nullopt);
}

void Receiver::Drop() {
  m_queue.Clear();
  m_port.terminal->DropInput();
  m_handedOver = 0;
}

void Receiver::Reset() {
  m_queue.Clear();
  m_isThrottled = false;
}

/// Whether flow control makes the far end wait while the application does not read.
bool Receiver::IsThrottling() const {
  const termios2& settings = m_port.Settings();
  return (settings.c_iflag & IXOFF) != 0 || (settings.c_cflag & CRTSCTS) != 0;
}

void Receiver::Throttle(bool on) {
  m_isThrottled = on;
  const termios2& settings = m_port.Settings();
  if ((settings.c_iflag & IXOFF) != 0) {
    m_sender.SendControl(on ? VSTOP : VSTART);
  }
  if ((settings.c_cflag & CRTSCTS) != 0) {
    const unsigned int others = m_modem.Outputs() & ~static_cast<unsigned int>(TIOCM_RTS);
    m_modem.SetOutputs(others | (on ? 0 : TIOCM_RTS));
  }
}
