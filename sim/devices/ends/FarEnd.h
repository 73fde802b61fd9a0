#ifndef BOARDKIT_SIM_DEVICES_ENDS_FAREND_H
#define BOARDKIT_SIM_DEVICES_ENDS_FAREND_H

#include <poll.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "board/EventLog.h"

/// What a serial line leads to.
class FarEnd {
 public:
  FarEnd() = default;
  virtual ~FarEnd() = default;
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;

  /// Whether somebody is there.
  virtual bool IsConnected() const = 0;
  /// Whether what is sent comes back at once. Then the line sends nothing.
  virtual bool ReturnsBytes() const {
    return false;
  }

  /// What to wait for.
  /// @param listening whether the line would take bytes.
  virtual pollfd Interest(bool /*listening*/) const {
    return {-1, 0, 0};
  }
  /// Takes bytes. What is too much is counted and dropped.
  virtual void Send(std::string_view /*bytes*/) {}
  /// Hands on what it has taken, as far as that goes without waiting.
  virtual void Deliver() {}
  /// Whether Deliver() has left something.
  virtual bool HasToDeliver() const {
    return false;
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
/// @throws SetupError if it is none; whether it can be connected, the maker finds out.
FarEndMaker ParseFarEnd(const std::string& text);

/// All far ends as the user writes them: "echo, none ... or exec:COMMAND".
std::string FarEndForms();

#endif
