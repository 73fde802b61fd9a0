#ifndef BOARDKIT_SIM_DEVICES_ENDS_SOCKETENDS_H
#define BOARDKIT_SIM_DEVICES_ENDS_SOCKETENDS_H

#include <string>

#include "devices/ends/StreamEnd.h"

/// A connection to a listening TCP socket.
class TcpEnd : public StreamEnd {
 public:
  /// @param target HOST:PORT.
  /// @throws SetupError
  TcpEnd(const std::string& device, const std::string& target, EventLog& log);

  static bool IsTarget(const std::string& text);
};

/// A connection to a listening UNIX socket.
class UnixEnd : public StreamEnd {
 public:
  /// @throws SetupError
  UnixEnd(const std::string& device, const std::string& path, EventLog& log);
};

#endif
