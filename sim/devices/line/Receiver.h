#ifndef BOARDKIT_SIM_DEVICES_LINE_RECEIVER_H
#define BOARDKIT_SIM_DEVICES_LINE_RECEIVER_H

#include <optional>
#include <string>
#include <string_view>

#include "devices/ByteQueue.h"
#include "devices/line/ModemControl.h"
#include "devices/line/Pace.h"
#include "devices/line/Port.h"
#include "devices/line/Sender.h"

/// Carries what comes from the far end, or back from the port itself, to the application.
///
/// The far end waits while the application does not read. What can't wait is then dropped, and counted.
class Receiver {
 public:
  using Clock = std::chrono::steady_clock;

  /// @param sender stops when an XOFF comes in, and sends those of the port.
  Receiver(Port& port, ModemControl& modem, Sender& sender);

  void SetRate(double bytesPerSecond) {
    m_pace.SetRate(bytesPerSecond);
  }

  /// Whether the far end is read. What it sends before the first open waits.
  bool IsListening() const;
  /// Takes what the far end has.
  /// @returns whether something has come.
  bool Receive();
  /// Takes what comes in.
  void Hear(std::string_view bytes);
  void HearBreak();
  /// Hands bytes to the application.
  /// @returns whether it has taken some.
  bool Deliver();
  /// Whether the application's terminal took less than it could have.
  bool IsTerminalFull() const {
    return m_isTerminalFull;
  }
  /// Called before another look at what can move.
  void Begin() {
    m_isTerminalFull = false;
  }
  /// Stops or restarts the far end by flow control, if set, as the application stops or resumes reading.
  void LookAtReader();
  /// When there is something to do, whatever happens.
  std::optional<Clock::time_point> Next() const;

  /// Discards what the application has not read.
  void Drop();
  /// Begins anew.
  void Reset();

 private:
  std::string Filtered(std::string_view bytes);
  void Queue(std::string_view bytes);
  bool IsThrottling() const;
  void Throttle(bool on);

  Port& m_port;
  ModemControl& m_modem;
  Sender& m_sender;
  ByteQueue m_queue;
  Pace m_pace;
  bool m_isTerminalFull = false;
  bool m_isThrottled = false;
  std::size_t m_handedOver = 0;  // since the last look
  std::optional<Clock::time_point> m_lookAt;
  Clock::duration m_untilLook{};
};

#endif
