#include "devices/line/Sender.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t kDriverSize = 4096;     // bytes that a driver holds
constexpr std::size_t kTerminalSize = 20480;  // bytes that wait in the terminal besides
constexpr std::size_t kPieceSize = 4096;

}  // namespace

Sender::Sender(Port& port, const ModemControl& modem, std::function<void(std::string_view)> hear)
    : m_port(port), m_modem(modem), m_hear(std::move(hear)), m_queue(kDriverSize + kTerminalSize) {}

bool Sender::CanSend() const {
  if (!m_port.terminal || m_isHeld || m_isStopped || m_isBreaking) {
    return false;
  }
  return (m_port.Settings().c_cflag & CRTSCTS) == 0 || m_modem.IsCtsOn();
}

bool Sender::HasRoom() const {
  return m_queue.Size() < kDriverSize;
}

std::optional<Sender::Clock::time_point> Sender::Next() const {
  return CanSend() && !m_isFarFull ? m_pace.Next(m_queue.Size()) : std::nullopt;
}

bool Sender::Transmit() {
  if (m_urgent && SendOn({&*m_urgent, 1}) == 1) {
    m_urgent.reset();
  }
  TakeWritten(kDriverSize);
  if (!CanSend() || m_queue.IsEmpty()) {
    m_pace.Rest();
    return false;
  }
  const std::string_view due = m_queue.View().substr(0, m_pace.Due(m_queue.Size()));
  const std::size_t sent = due.empty() ? 0 : SendOn(due);
  m_isFarFull = sent < due.size();
  if (m_isFarFull) {
    m_pace.Rest();
  }
  m_queue.Take(sent);
  m_pace.Spend(sent);
  m_gone += sent;
  m_port.counts.tx += static_cast<int>(sent);
  return sent > 0;
}

void Sender::TransmitAll() {
  // Somebody who keeps writing must not keep it here for ever.
  constexpr int kMost = 16;
  for (int turn = 0; turn < kMost && Transmit(); ++turn) {
  }
}

std::size_t Sender::Waiting() {
  TakeWritten(kDriverSize + kTerminalSize);
  return m_queue.Size();
}

std::uint64_t Sender::WrittenUntilNow() {
  return Waiting() + m_gone;
}

void Sender::TakeRest() {
  TakeWritten(kDriverSize);
}

void Sender::Drop() {
  do {
    m_gone += m_queue.Size();
    m_queue.Clear();
    TakeWritten(kDriverSize);
  } while (!m_queue.IsEmpty());
}

void Sender::Reset() {
  m_gone += m_queue.Size();
  m_queue.Clear();
  EndStops();
}

void Sender::Hold(bool on) {
  // Its end also forgets an XOFF received meanwhile.
  m_isStopped = m_isStopped && (on || !m_isHeld);
  m_isHeld = on;
}

void Sender::SendControl(std::size_t which) {
  if (const cc_t byte = m_port.Settings().c_cc[which]; byte != _POSIX_VDISABLE) {
    m_urgent = static_cast<char>(byte);
    Transmit();
  }
}

void Sender::EndStops() {
  m_isHeld = m_isStopped = m_isBreaking = false;
  m_urgent.reset();
}

/// Takes what the application has written, up to that many bytes.
void Sender::TakeWritten(std::size_t most) {
  char piece[kPieceSize];
  while (m_port.terminal && m_queue.Size() < most) {
    const ssize_t got = ::read(m_port.terminal->Get(), piece, std::min(sizeof piece, most - m_queue.Size()));
    if (got <= 0) {
      return;
    }
    m_queue.Append({piece, static_cast<std::size_t>(got)});
  }
}

/// @returns how many have gone.
std::size_t Sender::SendOn(std::string_view bytes) {
  if (!m_modem.IsLooped() && !m_port.far->ReturnsBytes()) {
    return m_port.far->Send(bytes);
  }
  m_hear(bytes);
  return bytes.size();
}
