#ifndef BOARDKIT_TESTS_EXPECTTEXT_H
#define BOARDKIT_TESTS_EXPECTTEXT_H

#include <string>

#include <gtest/gtest.h>

// Assertions about a part of a text that say in one line what the whole is:
//
//     outcome.errors is "boardsim: No space left on device\n", which does not contain "Read-only"
//
// ASSERT_PRED_FORMAT2(ContainsText, text, part) ends the test, too.

#define EXPECT_CONTAINS(text, part) EXPECT_PRED_FORMAT2(ContainsText, text, part)
#define EXPECT_LACKS(text, part) EXPECT_PRED_FORMAT2(LacksText, text, part)
#define EXPECT_BEGINS(text, beginning) EXPECT_PRED_FORMAT2(BeginsWithText, text, beginning)

inline testing::AssertionResult TextResult(bool holds, const char* textName, const std::string& text,
                                           const char* failure, const std::string& part) {
  if (holds) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << textName << " is " << testing::PrintToString(text) << ", which " << failure
                                     << ' ' << testing::PrintToString(part);
}

inline testing::AssertionResult ContainsText(const char* textName, const char* /*unused*/, const std::string& text,
                                             const std::string& part) {
  return TextResult(text.find(part) != std::string::npos, textName, text, "does not contain", part);
}

inline testing::AssertionResult LacksText(const char* textName, const char* /*unused*/, const std::string& text,
                                          const std::string& part) {
  return TextResult(text.find(part) == std::string::npos, textName, text, "contains", part);
}

inline testing::AssertionResult BeginsWithText(const char* textName, const char* /*unused*/, const std::string& text,
                                               const std::string& beginning) {
  return TextResult(text.compare(0, beginning.size(), beginning) == 0, textName, text, "does not begin with",
                    beginning);
}

#endif
