#ifndef BOARDKIT_SIM_SETUPERROR_H
#define BOARDKIT_SIM_SETUPERROR_H

#include <cstring>
#include <stdexcept>
#include <string>

/// Why the board can't be simulated: one sentence for the user.
class SetupError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  /// "WHAT: the text of the error number".
  SetupError(const std::string& what, int error) : std::runtime_error(what + ": " + std::strerror(error)) {}
};

#endif
