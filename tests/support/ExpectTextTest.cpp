#include "ExpectText.h"

#include <string>

#include <gtest/gtest.h>

#include "Failures.h"

namespace {

const std::string kLines = "one\ntwo\n";

TEST(ExpectText, WhatHoldsIsNoFailure) {
  EXPECT_CONTAINS(kLines, "ne\nt");
  EXPECT_CONTAINS(kLines, "");
  EXPECT_LACKS(kLines, "three");
  EXPECT_BEGINS(kLines, "one\n");
  EXPECT_BEGINS(kLines, kLines);
  EXPECT_BEGINS("", "");
}

TEST(ExpectText, AMissingPartIsShownBesideTheWholeInOneLine) {
  EXPECT_EQ(FailuresOf([] { EXPECT_CONTAINS(kLines, "three\n"); }),
            "kLines is \"one\\ntwo\\n\", which does not contain \"three\\n\"");
}

TEST(ExpectText, APartThatShouldNotBeThereIsShownBesideTheWholeInOneLine) {
  EXPECT_EQ(FailuresOf([] { EXPECT_LACKS(kLines, "two"); }), "kLines is \"one\\ntwo\\n\", which contains \"two\"");
}

TEST(ExpectText, AnotherBeginningIsShownAsTheWholeInOneLine) {
  EXPECT_EQ(FailuresOf([] { EXPECT_BEGINS(kLines, "two"); }),
            "kLines is \"one\\ntwo\\n\", which does not begin with \"two\"");
  EXPECT_EQ(FailuresOf([] { EXPECT_BEGINS("on", "one"); }), "\"on\" is \"on\", which does not begin with \"one\"");
}

}  // namespace
