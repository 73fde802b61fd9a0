#ifndef BOARDKIT_SIM_DEVICES_LINE_SENDER_H
#define BOARDKIT_SIM_DEVICES_LINE_SENDER_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "devices/ByteQueue.h"
#include "devices/line/ModemControl.h"
#include "devices/line/Pace.h"
#include "devices/line/Port.h"

/// Carries what the application writes to the far end.
///
/// Nothing of it is lost: writers wait while it can't go.
class Sender {
 public:
  using Clock = std::chrono::steady_clock;

  /// @param hear takes what the port sends to itself.
  Sender(Port& port, const ModemControl& modem, std::function<void(std::string_view)> hear);

  void SetRate(double bytesPerSecond) {
    m_pace.SetRate(bytesPerSecond);
  }

  /// Whether anything can go out on the line.
  bool CanSend() const;
  /// Sends what can go.
  /// @returns whether something has gone.
  bool Transmit();
  /// Sends all that can go at once.
  void TransmitAll();
  /// Whether the far end took less than it could have.
  bool IsFarFull() const {
    return m_isFarFull;
  }
  /// Called before another look at what can move.
  void Begin() {
    m_isFarFull = false;
  }
  /// Whether more would be taken from the application.
  bool HasRoom() const;
  /// When more will have had its time.
  std::optional<Clock::time_point> Next() const;

  /// How many bytes have been written and not gone, now that none waits in the terminal.
  std::size_t Waiting();
  /// How many bytes will have gone when all of these have.
  std::uint64_t WrittenUntilNow();
  /// How many have gone, or were discarded.
  std::uint64_t Gone() const {
    return m_gone;
  }
  bool IsEmpty() const {
    return m_queue.IsEmpty();
  }
  /// Takes what is left after the last close.
  void TakeRest();
  /// Discards what has not gone, also in the terminal.
  void Drop();
  /// Begins anew: what was in the terminal went with it.
  void Reset();

  /// The application's own stop, by TCXONC.
  void Hold(bool on);
  bool IsHeld() const {
    return m_isHeld;
  }
  /// The far end's, by XOFF.
  void Stop(bool on) {
    m_isStopped = on;
  }
  /// During a break nothing goes.
  void Break(bool on) {
    m_isBreaking = on;
  }
  bool IsBreaking() const {
    return m_isBreaking;
  }
  /// A control character of the settings (VSTOP, VSTART), if there is one. It goes before all other bytes, whatever
  /// stops these.
  void SendControl(std::size_t which);
  /// Ends everything that stops it.
  void EndStops();

 private:
  void TakeWritten(std::size_t most);
  std::size_t SendOn(std::string_view bytes);

  Port& m_port;
  const ModemControl& m_modem;
  const std::function<void(std::string_view)> m_hear;
  ByteQueue m_queue;
  Pace m_pace;
  std::uint64_t m_gone = 0;
  std::optional<char> m_urgent;
  bool m_isHeld = false;
  bool m_isStopped = false;
  bool m_isBreaking = false;
  bool m_isFarFull = false;
};

#endif
