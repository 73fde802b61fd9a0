#ifndef BOARDKIT_SIM_SANDBOX_ERRORS_H
#define BOARDKIT_SIM_SANDBOX_ERRORS_H

#include <cerrno>
#include <string>

#include "SetupError.h"

/// This machine does not allow what a private /dev needs; opens of devices can be answered instead.
class NamespacesForbidden : public SetupError {
 public:
  using SetupError::SetupError;
};

/// @throws Error with the text of errno.
template <typename Error = SetupError>
void Require(bool success, const std::string& what) {
  if (!success) {
    throw Error(what, errno);
  }
}

#endif
