#ifndef BOARDKIT_SIM_BOARD_EVENTLOG_H
#define BOARDKIT_SIM_BOARD_EVENTLOG_H

#include <chrono>
#include <string>

#include "Descriptor.h"

/// One line per event: the seconds since the start, the device, what happened.
class EventLog {
 public:
  /// Keeps nothing.
  EventLog() = default;
  /// Begins the file anew, with a line "board start"; "-" is standard error.
  /// @throws SetupError if it can't be written.
  explicit EventLog(const std::string& path);

  /// A line that can't be written is the last one: a sentence on standard error says so, and the board goes on.
  void Write(const std::string& device, const std::string& event);

 private:
  /// @returns 0 or the error number.
  int TryWrite(const std::string& device, const std::string& event) const;

  Descriptor m_file;
  std::string m_path;
  std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

#endif
