#include "devices/line/Pace.h"

#include <algorithm>

namespace {

constexpr double kStep = 1e-3;  // seconds between two pieces, where bytes are shorter than that

std::chrono::duration<double> TimeOf(double bytes, double rate) {
  return std::chrono::duration<double>(bytes / rate);
}

}  // namespace

void Pace::SetRate(double rate) {
  if (rate != m_rate) {
    m_rate = rate;
    Rest();
  }
}

std::size_t Pace::Due(std::size_t waiting) {
  if (m_rate == 0) {
    return waiting;
  }
  if (m_isResting) {
    m_isResting = false;
    m_spent = Clock::now();
  }
  const std::chrono::duration<double> since = Clock::now() - m_spent;
  return static_cast<std::size_t>(std::min(since.count() * m_rate, static_cast<double>(waiting)));
}

void Pace::Spend(std::size_t bytes) {
  if (m_rate != 0) {
    // The rest of a byte's time counts for the next one.
    m_spent += std::chrono::duration_cast<Clock::duration>(TimeOf(static_cast<double>(bytes), m_rate));
  }
}

std::optional<Pace::Clock::time_point> Pace::Next(std::size_t waiting) const {
  if (m_rate == 0 || m_isResting || waiting == 0) {
    return std::nullopt;
  }
  const double piece = std::clamp(m_rate * kStep, 1.0, std::max(static_cast<double>(waiting), 1.0));
  return m_spent + std::chrono::ceil<Clock::duration>(TimeOf(piece, m_rate));
}
