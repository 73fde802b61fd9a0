#ifndef BOARDKIT_SIM_DEVICES_ENDS_FAREND_H
#define BOARDKIT_SIM_DEVICES_ENDS_FAREND_H

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "board/EventLog.h"
#include "devices/ModemLines.h"

/// What a serial line leads to.
class FarEnd {
 public:
  using Clock = std::chrono::steady_clock;

  FarEnd() = default;
  virtual ~FarEnd() = default;
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;

  /// Whether somebody is there.
  virtual bool IsConnected() const = 0;
  /// What the port's inputs see.
  /// @param outputs those of the port.
  virtual unsigned int Inputs(unsigned int /*outputs*/) const {
    return IsConnected() ? kReady : 0;
  }
  /// Whether what is sent comes back at once. Then the line sends nothing.
  virtual bool ReturnsBytes() const {
    return false;
  }
  virtual bool ReturnsBreaks() const {
    return false;
  }

  /// What to wait for.
  /// @param listening whether the line would take bytes.
  /// @param sending whether it has some.
  virtual pollfd Interest(bool /*listening*/, bool /*sending*/) const {
    return {-1, 0, 0};
  }
  /// When to look again, whatever happens.
  virtual std::optional<Clock::time_point> Next() const {
    return std::nullopt;
  }
  /// Looks whether somebody has come.
  virtual void Look() {}
  /// @returns how many bytes it takes now. If nobody is there, they are lost, as on a line.
  virtual std::size_t Send(std::string_view bytes) {
    return bytes.size();
  }
  /// Reads what has come, into the buffer.
  /// @returns the number of bytes; 0 if there are none, or nobody is there any more.
  virtual std::size_t Receive(char* /*buffer*/, std::size_t /*size*/) {
    return 0;
  }
};

/// Makes a far end, connected.
/// @throws SetupError if that fails.
using FarEndMaker = std::function<std::unique_ptr<FarEnd>(const std::string& device, EventLog& log)>;

/// The far end that a text asks for, as "tcp:localhost:7000".
/// @throws SetupError if it is none. Whether it can be connected shows when it is made.
FarEndMaker ParseFarEnd(const std::string& text);

/// All far ends as the user writes them: "echo, none ... or exec:COMMAND".
std::string FarEndForms();

#endif
