#include "Number.h"

#include <limits>
#include <stdexcept>

std::optional<std::uint32_t> ParseNumber(const std::string& text) {
  // stoull would take a sign and leading blanks.
  if (text.empty() || text.front() < '0' || text.front() > '9') {
    return std::nullopt;
  }
  try {
    std::size_t end = 0;
    const unsigned long long number = std::stoull(text, &end, 0);
    const bool isWhole = end == text.size() && number <= std::numeric_limits<std::uint32_t>::max();
    return isWhole ? std::make_optional(static_cast<std::uint32_t>(number)) : std::nullopt;
  } catch (const std::out_of_range&) {
    return std::nullopt;
  }
}
