#ifndef BOARDKIT_CTL_COMPARISON_H
#define BOARDKIT_CTL_COMPARISON_H

#include <cstdint>
#include <vector>

/// What became of a block of bytes on its way.
struct Comparison {
  std::uint64_t sent = 0;
  std::uint64_t received = 0;
  std::uint64_t bitErrors = 0;  // bits
  std::uint64_t lost = 0;       // bytes
  std::uint64_t doubled = 0;    // bytes that were not sent, or more than once
};

/// Compares what was sent with what was received. A difference is taken for the least that explains what follows it.
Comparison Compare(const std::vector<unsigned char>& sent, const std::vector<unsigned char>& received);

#endif
