#ifndef BOARDKIT_SIM_DEVICES_LINE_PORT_H
#define BOARDKIT_SIM_DEVICES_LINE_PORT_H

#include <linux/serial.h>

#include <memory>
#include <optional>
#include <string>

#include "board/EventLog.h"
#include "devices/ends/FarEnd.h"
#include "devices/line/Terminal.h"

/// What the parts of a serial port share.
struct Port {
  enum class Use {
    kNever,    // opened until now
    kClosed,   // after the last close
    kOpening,  // the kernel is about to open it
    kOpen
  };

  std::string path;
  EventLog& log;
  std::unique_ptr<FarEnd> far;
  serial_struct info{};
  serial_icounter_struct counts{};
  std::optional<Terminal> terminal = std::nullopt;  // none: it is not plugged in
  Use use = Use::kNever;
  bool isExclusive = false;

  bool IsOpen() const {
    return use == Use::kOpen;
  }
  /// Only while it is plugged in.
  const termios2& Settings() const {
    return terminal->Settings();
  }
  void Log(const std::string& event) const {
    log.Write(path, event);
  }
};

#endif
