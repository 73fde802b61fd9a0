#ifndef BOARDKIT_SIM_TEXT_H
#define BOARDKIT_SIM_TEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

/// A 32-bit number in C's notation, without a sign.
std::optional<std::uint32_t> ParseNumber(const std::string& text);

/// The number that an option needs.
/// @throws SetupError if it is none.
std::uint32_t NumberOf(const std::string& option, const std::string& text);

/// As C writes it: "0x1a".
std::string Hex(std::uint32_t number);

/// Splits at the first separator; without one, the second part is empty.
std::pair<std::string, std::string> Cut(const std::string& text, char separator);

#endif
