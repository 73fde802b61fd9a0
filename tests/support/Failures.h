#ifndef BOARDKIT_TESTS_FAILURES_H
#define BOARDKIT_TESTS_FAILURES_H

#include <string>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

/// The messages of the failing assertions in @p action, in any thread, as one text; the test itself does not fail.
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
    const std::string message = results.GetTestPartResult(i).message();
    // Newer releases of the framework end it with a newline.
    text += message.substr(0, message.find_last_not_of('\n') + 1);
  }
  return text;
}

#endif
