#include "JoiningThread.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "Failures.h"

namespace {

TEST(JoiningThread, IsJoinedWhereTheTestIsLeftByAnException) {
  bool done = false;
  try {
    const JoiningThread thread([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      done = true;
    });
    throw std::runtime_error("leaves");
  } catch (const std::runtime_error&) {
    EXPECT_TRUE(done);
  }
}

TEST(JoiningThread, WhatItThrowsIsAFailureOfTheTest) {
  EXPECT_EQ(FailuresOf([] { JoiningThread([] { throw std::logic_error("wrong"); }).Join(); }),
            "Failed\nthe thread beside the test threw std::logic_error \"wrong\"");
}

TEST(JoiningThread, ReleasesItsWorkAndJoinsItWhereTheTestDoesNot) {
  std::atomic<bool> released{false};
  {
    const JoiningThread thread(
        [&] {
          while (!released) {
            std::this_thread::yield();
          }
        },
        [&] { released = true; });
  }
  EXPECT_TRUE(released);
}

TEST(JoiningThread, IsNotReleasedWhereTheTestJoinsIt) {
  bool released = false;
  JoiningThread([] {}, [&] { released = true; }).Join();
  EXPECT_FALSE(released);
}

TEST(JoiningThread, ABrokenPipeIsAnErrorInIt) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  ::close(pipe[0]);
  int error = 0;

  JoiningThread([&] { error = ::write(pipe[1], "x", 1) == -1 ? errno : 0; }).Join();

  EXPECT_EQ(error, EPIPE);
  ::close(pipe[1]);
}

}  // namespace
