#ifndef BOARDKIT_SIM_BOARD_BACKPLANE_H
#define BOARDKIT_SIM_BOARD_BACKPLANE_H

#include <functional>
#include <string>

#include "Descriptor.h"
#include "board/Commands.h"
#include "board/EventLog.h"
#include "board/EventLoop.h"

/// What the board has for its devices. It outlives them.
struct Backplane {
  EventLog& log;
  EventLoop& loop;
  Commands& commands;
  /// Makes what lies under a device's name anew, after a hang-up.
  /// @throws SetupError
  std::function<Descriptor(const std::string& path)> renew;
  /// Ends the application, and the board with it.
  /// @param circumstance between the path and "has reset the board", with a blank before; may be empty.
  std::function<void(const std::string& path, const std::string& circumstance, const std::string& account)> reset;
};

#endif
