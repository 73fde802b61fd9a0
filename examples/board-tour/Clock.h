#ifndef BOARDKIT_EXAMPLES_CLOCK_H
#define BOARDKIT_EXAMPLES_CLOCK_H

#include <chrono>

/// Tells the milliseconds since it was made.
class Clock {
 public:
  long Milliseconds() const {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_start).count());
  }

 private:
  std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

#endif
