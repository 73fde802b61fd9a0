#ifndef BOARDKIT_SIM_WATCHDOG_H
#define BOARDKIT_SIM_WATCHDOG_H

#include <chrono>
#include <optional>
#include <string>

#include "Descriptor.h"
#include "EventLog.h"
#include "Supervisor.h"

/// A hardware watchdog: the reading end of the FIFO that the application has as its device.
///
/// Opening arms it, a written byte or a request feeds it, and a close stops it only if a 'V' was written last.
class Watchdog {
 public:
  using Clock = std::chrono::steady_clock;

  /// @param fifo any descriptor of it.
  Watchdog(std::string path, Descriptor fifo, EventLog& log);

  const std::string& Path() const {
    return m_path;
  }
  bool Is(const FileId& file) const {
    return file == m_id;
  }
  /// Arms it, or feeds it where an earlier close has not stopped it.
  /// @throws RequestError EBUSY: somebody else has it.
  void Opened();
  /// A descriptor of its own for the application.
  Descriptor Open(int flags) const;
  /// Answers a request on the device.
  /// @throws RequestError
  void Request(const TrappedCall& call);

  int Reader() const {
    return m_reader.Get();
  }
  /// Takes what was written, and the close after it.
  void Look();

  /// When it resets the board, if nothing happens before.
  std::optional<Clock::time_point> Deadline() const;
  /// "time-out 2 s, last fed 2.003 s ago"
  std::string Account() const;
  /// For the technician: "armed open timeout=60 left=57.310".
  std::string State() const;

 private:
  void Begin();
  void Reopen();
  void Arm();
  void Feed(const char* how);
  void SetTimeout(const TrappedCall& call);
  void SetOptions(const TrappedCall& call);
  int SecondsLeft() const;

  const std::string m_path;
  const Descriptor m_fifo;
  const FileId m_id;
  EventLog& m_log;
  Descriptor m_reader;
  bool m_isOpen = false;
  bool m_isArmed = false;
  bool m_maySleep = false;  // the last byte was the magic one
  int m_timeout = 60;       // seconds
  Clock::time_point m_fed;
};

#endif
