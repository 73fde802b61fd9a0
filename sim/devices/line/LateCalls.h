#ifndef BOARDKIT_SIM_DEVICES_LINE_LATECALLS_H
#define BOARDKIT_SIM_DEVICES_LINE_LATECALLS_H

#include <chrono>
#include <functional>
#include <list>
#include <optional>

#include "sandbox/TrappedCall.h"

/// Calls that wait for something to happen before they are answered. A signal interrupts them.
class LateCalls {
 public:
  using Clock = std::chrono::steady_clock;
  /// Answers the call if it can be answered by now.
  /// @returns whether it was.
  /// @throws RequestError, which is the answer.
  using Attempt = std::function<bool(const TrappedCall& call)>;

  /// Answers at once where that is possible.
  /// @param undo what is to be done if the call goes without an answer; may be null.
  void Add(const TrappedCall& call, Attempt attempt, std::function<void()> undo = nullptr);
  /// Answers those that can be answered by now.
  void Try();
  /// Releases those for which a signal has come, if it is time to look.
  void LookForSignals();
  /// All callers that waited have gone.
  void Clear() {
    m_entries.clear();
  }
  /// When to look for signals.
  std::optional<Clock::time_point> Next() const;

 private:
  struct Entry {
    TrappedCall call;
    Attempt attempt;
    std::function<void()> undo;
  };
  std::list<Entry> m_entries;
  Clock::time_point m_looked;
};

#endif
