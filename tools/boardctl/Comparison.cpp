#include "Comparison.h"

#include <algorithm>
#include <cstddef>

namespace {

using Bytes = std::vector<unsigned char>;

/// Whether the next bytes of both are the same; at the end of one, as many as are left.
bool GoesOn(const Bytes& sent, std::size_t i, const Bytes& received, std::size_t j) {
  constexpr std::size_t kAlike = 6;  // more equal bytes than chance gives
  const std::size_t count = std::min({kAlike, sent.size() - i, received.size() - j});
  return std::equal(sent.begin() + static_cast<std::ptrdiff_t>(i),
                    sent.begin() + static_cast<std::ptrdiff_t>(i + count),
                    received.begin() + static_cast<std::ptrdiff_t>(j));
}

unsigned int BitsSet(unsigned int byte) {
  unsigned int count = 0;
  for (; byte != 0; byte >>= 1U) {
    count += byte & 1U;
  }
  return count;
}

}  // namespace

Comparison Compare(const Bytes& sent, const Bytes& received) {
  constexpr std::size_t kFarthest = 512;     // bytes that are lost, or too many, at a time
  constexpr std::size_t kMostInVain = 1024;  // failed searches in a row: what comes is not what was sent
  Comparison result;
  result.sent = sent.size();
  result.received = received.size();
  std::size_t i = 0;
  std::size_t j = 0;
  std::size_t inVain = 0;
  while (i < sent.size() && j < received.size()) {
    if (sent[i] == received[j]) {
      ++i;
      ++j;
      continue;
    }
    // The byte may have been changed on its way, or some are missing, or too many.
    const bool isLastSent = i + 1 == sent.size();
    const bool isLastReceived = j + 1 == received.size();
    bool isChanged = isLastSent || isLastReceived ? isLastSent && isLastReceived : GoesOn(sent, i + 1, received, j + 1);
    const std::size_t farthest = inVain < kMostInVain ? kFarthest : 0;
    inVain = isChanged ? 0 : inVain + 1;
    std::size_t step = 1;
    for (; !isChanged && step <= farthest; ++step) {
      if (i + step < sent.size() && GoesOn(sent, i + step, received, j)) {
        result.lost += step;
        i += step;
        inVain = 0;
        break;
      }
      if (j + step < received.size() && GoesOn(sent, i, received, j + step)) {
        result.doubled += step;
        j += step;
        inVain = 0;
        break;
      }
    }
    isChanged = isChanged || step > farthest;
    if (isChanged) {
      result.bitErrors += BitsSet(static_cast<unsigned int>(sent[i] ^ received[j]));
      ++i;
      ++j;
    }
  }
  result.lost += sent.size() - i;
  result.doubled += received.size() - j;
  return result;
}
