// The watchdog on a real driver: the kernel's software watchdog, or one in hardware. What a watchdog is for, the reset,
// is seen from outside, in boots of its own.
#include <SystemCalls.h>
#include <WatchDog.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include <gtest/gtest.h>

#include "../watchdog/WatchDogTexts.h"
#include "ExpectThrow.h"

namespace {

constexpr const char* kWatchdog = "/dev/watchdog";

bool IsHardware() {
  return std::getenv("BOARD_HARDWARE_WATCHDOG") != nullptr;
}

TEST(WatchDogDriver, FedForLongerThanItsTimeOutTheBoardLives) {
  WatchDog dog(2, kWatchdog);
  dog.Activate();
  EXPECT_EQ(dog.GetInterval(), 2);
  for (int i = 0; i < 10; ++i) {
    DebugSleep(300);
    dog.Feed();
  }
}

TEST(WatchDogDriver, DisarmedByTheMagicCloseItLetsTheBoardLive) {
  WatchDog dog(2, kWatchdog);
  dog.Activate();
  dog.Deactivate();
  DebugSleep(3000);
  EXPECT_EXACT_THROW(dog.Feed(), std::logic_error, watchdogtext::kNotActive);
}

TEST(WatchDogDriver, ItsTimeOutCanBeChangedWhileItRuns) {
  WatchDog dog(2, kWatchdog);
  dog.Activate();
  dog.SetInterval(30);
  EXPECT_EQ(dog.GetInterval(), 30);
  DebugSleep(3000);
  dog.Feed();
}

TEST(WatchDogDriver, ASecondOpenerIsRefusedAndTheFirstGoesOn) {
  WatchDog first(30, kWatchdog);
  first.Activate();
  WatchDog second(30, kWatchdog);
  EXPECT_SYSTEM_ERROR(second.Activate(), EBUSY, watchdogtext::kOpenError);
  first.Feed();
  EXPECT_EQ(first.GetInterval(), 30);
}

TEST(WatchDogDriver, ATimeOutThatTheDriverRefusesLeavesTheOldOne) {
  constexpr int kTooLong = 65536;  // for a software watchdog; those in hardware are fed by the kernel meanwhile
  WatchDog dog(30, kWatchdog);
  dog.Activate();
  if (IsHardware()) {
    dog.SetInterval(kTooLong);
    EXPECT_EQ(dog.GetInterval(), kTooLong);
  } else {
    EXPECT_EXACT_THROW(dog.SetInterval(kTooLong), std::logic_error, watchdogtext::kNotSet);
    EXPECT_EQ(dog.GetInterval(), 30);
  }
}

TEST(WatchDogDriver, WhatTheLibraryRefusesDoesNotReachTheDriver) {
  WatchDog dog(30, kWatchdog);
  dog.Activate();
  EXPECT_EXACT_THROW(dog.SetInterval(0), std::logic_error, watchdogtext::kTooShort);
  EXPECT_EQ(dog.GetInterval(), 30);
}

TEST(WatchDogDriver, ItCanBeArmedAgainAfterDisarming) {
  WatchDog dog(30, kWatchdog);
  dog.Activate();
  dog.Deactivate();
  dog.Activate();
  EXPECT_EQ(dog.GetInterval(), 30);
}

TEST(WatchDogDriver, ADeviceThatIsNotThereIsReported) {
  WatchDog dog(30, "/dev/watchdog-nowhere");
  EXPECT_SYSTEM_ERROR(dog.Activate(), ENOENT, watchdogtext::kOpenError);
}

}  // namespace
