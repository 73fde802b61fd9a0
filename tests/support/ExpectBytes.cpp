#include "ExpectBytes.h"

#include <algorithm>

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
