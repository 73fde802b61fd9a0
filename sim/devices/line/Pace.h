#ifndef BOARDKIT_SIM_DEVICES_LINE_PACE_H
#define BOARDKIT_SIM_DEVICES_LINE_PACE_H

#include <chrono>
#include <cstddef>
#include <optional>

/// The time that bytes take on a line, in one direction.
class Pace {
 public:
  using Clock = std::chrono::steady_clock;

  /// @param rate bytes per second; 0: they take no time.
  void SetRate(double rate);
  /// How many of the bytes that wait have had their time.
  std::size_t Due(std::size_t waiting);
  /// That many have gone.
  void Spend(std::size_t bytes);
  /// Nothing waits, or nothing can go: the time of the next byte begins when one can.
  void Rest() {
    m_isResting = true;
  }
  /// When more of them will be due.
  std::optional<Clock::time_point> Next(std::size_t waiting) const;

 private:
  double m_rate = 0;
  bool m_isResting = true;
  Clock::time_point m_spent;  // up to here, time has been turned into bytes
};

#endif
