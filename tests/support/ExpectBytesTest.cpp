#include "ExpectBytes.h"

#include <string>

#include <gtest/gtest.h>

#include "Failures.h"

namespace {

const std::string received = std::string("one\0two", 7);

TEST(SameBytes, TheSameAreNoFailure) {
  EXPECT_SAME_BYTES(received, std::string("one\0two", 7));
  EXPECT_SAME_BYTES(std::string(), "");
}

TEST(SameBytes, TheFirstDifferenceIsToldByItsPlace) {
  const std::string sent("one\0tWO", 7);
  EXPECT_EQ(FailuresOf([&] { EXPECT_SAME_BYTES(received, sent); }), "received differs from sent at byte 5");
}

TEST(SameBytes, OneThatIsTooShortOrTooLongIsToldByItsLength) {
  const std::string shorter = "one";
  EXPECT_EQ(FailuresOf([&] { EXPECT_SAME_BYTES(received, shorter); }),
            "received differs from shorter at byte 3, and has 7 bytes, not 3");
  EXPECT_EQ(FailuresOf([&] { EXPECT_SAME_BYTES(shorter, received); }),
            "shorter differs from received at byte 3, and has 3 bytes, not 7");
}

}  // namespace
