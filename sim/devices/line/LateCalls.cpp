#include "devices/line/LateCalls.h"

#include <utility>

namespace {

constexpr std::chrono::milliseconds kLook{10};

bool IsAnswered(LateCalls::Attempt& attempt, const TrappedCall& call) {
  try {
    return attempt(call);
  } catch (const RequestError& refused) {
    call.Fail(refused.error);
    return true;
  }
}

}  // namespace

void LateCalls::Add(const TrappedCall& call, Attempt attempt, std::function<void()> undo) {
  if (!IsAnswered(attempt, call)) {
    m_entries.push_back({call, std::move(attempt), std::move(undo)});
    m_looked = Clock::now();
  }
}

void LateCalls::Try() {
  m_entries.remove_if([](Entry& entry) { return IsAnswered(entry.attempt, entry.call); });
}

void LateCalls::LookForSignals() {
  if (const auto next = Next(); !next || Clock::now() < *next) {
    return;
  }
  m_looked = Clock::now();
  m_entries.remove_if([](const Entry& entry) {
    // A caller that was killed, or interrupted by a kernel that lets signals do that, no longer waits.
    const bool isWaiting = entry.call.IsWaiting();
    if (isWaiting && !entry.call.HasSignal()) {
      return false;
    }
    if (entry.undo) {
      entry.undo();
    }
    if (isWaiting) {
      entry.call.Restart();
    }
    return true;
  });
}

std::optional<LateCalls::Clock::time_point> LateCalls::Next() const {
  return m_entries.empty() ? std::nullopt : std::make_optional(m_looked + kLook);
}
