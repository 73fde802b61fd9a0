#include "ExpectBytes.h"

#include <algorithm>
#include <cstdint>

std::string Pattern(std::size_t length) {
  std::string text(length, '\0');
  std::uint32_t state = 1;
  for (char& byte : text) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>(state >> 24U);
  }
  return text;
}

testing::AssertionResult SameBytes(const char* bytesText, const char* expectedText, const std::string& bytes,
                                   const std::string& expected) {
  const auto differing = std::mismatch(bytes.begin(), bytes.end(), expected.begin(), expected.end());
  if (differing.first == bytes.end() && differing.second == expected.end()) {
    return testing::AssertionSuccess();
  }
  auto failure = testing::AssertionFailure()
                 << bytesText << " differs from " << expectedText << " at byte " << differing.first - bytes.begin();
  if (bytes.size() != expected.size()) {
    failure << ", and has " << bytes.size() << " bytes, not " << expected.size();
  }
  return failure;
}
