#ifndef BOARDKIT_SIM_BOARD_SIGNALS_H
#define BOARDKIT_SIM_BOARD_SIGNALS_H

#include <csignal>

#include "Descriptor.h"

/// The signals that are handed on to the application or report that a process has ended, blocked so that they can be
/// waited for.
class Signals {
 public:
  /// What the application gets as it was before.
  struct State {
    sigset_t mask{};
    struct sigaction child {};
  };

  /// Keeps them back in this process, and in those that it starts.
  Signals();

  /// A descriptor from which they are read.
  int Get() const {
    return m_descriptor.Get();
  }
  /// Whether somebody has pressed the key for the end, while signals are kept back. A job in the background ignores it.
  static bool IsInterruptPending();
  const State& Before() const {
    return m_before;
  }

 private:
  State m_before;
  Descriptor m_descriptor;
};

#endif
