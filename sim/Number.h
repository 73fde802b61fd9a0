#ifndef BOARDKIT_SIM_NUMBER_H
#define BOARDKIT_SIM_NUMBER_H

#include <cstdint>
#include <optional>
#include <string>

/// A number of 32 bits in C's notation, without a sign.
std::optional<std::uint32_t> ParseNumber(const std::string& text);

#endif
