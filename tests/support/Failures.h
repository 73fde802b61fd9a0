#ifndef BOARDKIT_TESTS_FAILURES_H
#define BOARDKIT_TESTS_FAILURES_H

#include <string>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

/// What the assertions in @p action, in whatever thread, say as they fail: one text, for which the test does not.
template <typename Action>
std::string FailuresOf(const Action& action) {
  testing::TestPartResultArray results;
  {
    const testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &results);
    action();
  }
  std::string text;
  for (int i = 0; i < results.size(); ++i) {
    text += results.GetTestPartResult(i).message();
  }
  return text;
}

#endif
