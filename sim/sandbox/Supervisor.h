#ifndef BOARDKIT_SIM_SANDBOX_SUPERVISOR_H
#define BOARDKIT_SIM_SANDBOX_SUPERVISOR_H

#include <optional>

#include "Descriptor.h"
#include "sandbox/TrappedCall.h"

/// Receives the calls that the filter keeps back.
class Supervisor {
 public:
  explicit Supervisor(Descriptor listener);

  int Get() const {
    return m_listener.Get();
  }
  /// The next call; none if it has gone in the meantime.
  std::optional<TrappedCall> Receive() const;

 private:
  Descriptor m_listener;
};

#endif
