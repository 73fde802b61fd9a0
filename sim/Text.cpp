#include "Text.h"

#include <charconv>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "SetupError.h"

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

std::uint32_t NumberOf(const std::string& option, const std::string& text) {
  if (const auto number = ParseNumber(text)) {
    return *number;
  }
  throw SetupError(option + " needs a 32-bit number, not \"" + text + "\".");
}

std::string Hex(std::uint32_t number) {
  constexpr int kBase = 16;
  char text[] = "0x00000000";
  return {text, std::to_chars(text + 2, std::end(text), number, kBase).ptr};
}

std::pair<std::string, std::string> Cut(const std::string& text, char separator) {
  const std::size_t at = text.find(separator);
  return at == std::string::npos ? std::make_pair(text, std::string())
                                 : std::make_pair(text.substr(0, at), text.substr(at + 1));
}
