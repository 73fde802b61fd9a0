#ifndef BOARDKIT_SIM_DEVICES_LINE_EARLIER_H
#define BOARDKIT_SIM_DEVICES_LINE_EARLIER_H

#include <algorithm>
#include <optional>

/// The earlier of two moments, either of which may never come.
template <typename Moment>
std::optional<Moment> Earlier(const std::optional<Moment>& one, const std::optional<Moment>& other) {
  return one && other ? std::min(one, other) : one ? one : other;
}

#endif
