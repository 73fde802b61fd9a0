#include "WatchDog.h"

#include <fcntl.h>
#include <linux/watchdog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "ExpectThrow.h"
#include "OpenDescriptors.h"
#include "ScriptedKernel.h"
#include "WatchDogTexts.h"

namespace {

using Calls = ScriptedKernel::Calls;

constexpr const char* kDevice = "/dev/watchdog7";
constexpr const char* kOpenCall = "open(\"/dev/watchdog7\", 0x2)";

static_assert(!std::is_copy_constructible_v<WatchDog> && !std::is_copy_assignable_v<WatchDog>, "who would stop it?");
static_assert(!std::is_move_constructible_v<WatchDog> && !std::is_move_assignable_v<WatchDog>);
static_assert(!std::is_polymorphic_v<WatchDog> && std::is_nothrow_destructible_v<WatchDog>);
static_assert(WDIOC_KEEPALIVE == 0x80045705 && WDIOC_SETTIMEOUT == 0xC0045706 && WDIOC_GETTIMEOUT == 0x80045707,
              "the kernel's numbers on all the boards that this is for");

/// A device that is opened as 70, 71 and so on, and answers what the tests script, or success.
class WatchDogTest : public testing::Test {
 protected:
  WatchDogTest() {
    m_kernel.Simulate("open", [this](const Question&) { return Returns(m_nextFd++); });
    for (const char* function : {"close", "WDIOC_KEEPALIVE", "WDIOC_SETTIMEOUT"}) {
      m_kernel.Simulate(function, [](const Question&) { return Returns(0); });
    }
    m_kernel.Simulate("WDIOC_GETTIMEOUT", [](const Question&) { return Fills(60); });
    m_kernel.Simulate("write", [](const Question&) { return Returns(1); });
    m_kernel.Watch("ioctl");
  }

  /// Ends @p dog without leaving a trace in the recorded calls.
  void Stop(WatchDog& dog) {
    dog.Deactivate();
    m_kernel.SeenNow();
  }

  ScriptedKernel m_kernel;

 private:
  int m_nextFd = 70;
};

// --- Activate --------------------------------------------------------------------------------------------------------

TEST_F(WatchDogTest, TheConstructorTouchesNothing) {
  const WatchDog dog(30, kDevice);
  const WatchDog other(0, "");
  const WatchDog another(INT_MIN, "no such device");

  EXPECT_EQ(m_kernel.Seen(), Calls{});
}

TEST_F(WatchDogTest, ActivateOpensAndSetsTheInterval) {
  WatchDog dog(30, kDevice);

  dog.Activate();

  EXPECT_EQ(m_kernel.SeenNow(), (Calls{kOpenCall, "WDIOC_SETTIMEOUT(70, 30)"}));
  EXPECT_NO_THROW(dog.Feed());
  Stop(dog);
}

TEST_F(WatchDogTest, ThePathIsACopy) {
  std::string path = kDevice;
  WatchDog dog(30, path);
  path = "another";

  dog.Activate();

  EXPECT_EQ(m_kernel.SeenNow()[0], kOpenCall);
  Stop(dog);
}

TEST_F(WatchDogTest, AFailedOpenLeavesItInactiveWithoutADescriptor) {
  for (const int error : {EBUSY, ENOENT, EACCES, EINTR}) {
    SCOPED_TRACE(ErrorName(error));
    WatchDog dog(30, kDevice);
    m_kernel.Script("open", {Fails(error)});

    EXPECT_SYSTEM_ERROR(dog.Activate(), error, watchdogtext::kOpenError);

    EXPECT_EQ(m_kernel.SeenNow(), Calls{kOpenCall});
    EXPECT_EXACT_THROW(dog.Feed(), std::logic_error, watchdogtext::kNotActive);
    dog.Deactivate();
    EXPECT_EQ(m_kernel.SeenNow(), Calls{});
    static_cast<void>(dog.GetInterval());
    EXPECT_EQ(m_kernel.SeenNow(), (Calls{"WDIOC_GETTIMEOUT(-1)"}));
  }
}

TEST_F(WatchDogTest, ARefusedIntervalLeavesTheDeviceOpenAndTheObjectInactive) {
  for (const int result : {-1, 1, -2, INT_MAX}) {
    SCOPED_TRACE(result);
    WatchDog dog(30, kDevice);
    m_kernel.Script("WDIOC_SETTIMEOUT", {{result, EINVAL, {}, false}});

    EXPECT_EXACT_THROW(dog.Activate(), std::logic_error, watchdogtext::kNotSet);

    const Calls seen = m_kernel.SeenNow();
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(seen[0], kOpenCall);
    EXPECT_EQ(seen[1].substr(0, 17), "WDIOC_SETTIMEOUT(");
    EXPECT_EXACT_THROW(dog.Feed(), std::logic_error, watchdogtext::kNotActive);
    dog.Deactivate();
    EXPECT_EQ(m_kernel.SeenNow(), Calls{});
  }
  EXPECT_EQ(m_kernel.SeenNow(), Calls{});  // nor do the destructors close it
}

TEST_F(WatchDogTest, IntervalsBelowOneAreAcceptedByTheConstructorAndRefusedBehindTheOpen) {
  for (const int interval : {0, -1, INT_MIN}) {
    SCOPED_TRACE(interval);
    WatchDog dog(interval, kDevice);

    EXPECT_EXACT_THROW(dog.Activate(), std::logic_error, watchdogtext::kTooShort);

    EXPECT_EQ(m_kernel.SeenNow(), Calls{kOpenCall});
    EXPECT_EXACT_THROW(dog.Feed(), std::logic_error, watchdogtext::kNotActive);
  }
  EXPECT_EQ(m_kernel.SeenNow(), Calls{});
}

TEST_F(WatchDogTest, ASecondActivationLosesTheFirstDescriptor) {
  WatchDog dog(30, kDevice);
  dog.Activate();
  dog.Activate();

  dog.Feed();
  dog.Deactivate();

  EXPECT_EQ(m_kernel.Seen(), (Calls{kOpenCall, "WDIOC_SETTIMEOUT(70, 30)", kOpenCall, "WDIOC_SETTIMEOUT(71, 30)",
                                    "WDIOC_KEEPALIVE(71, 0)", "write(71, \"V\")", "close(71)"}));
}

TEST_F(WatchDogTest, ASecondActivationThatIsRefusedLeavesItActiveOnNoDescriptor) {
  auto* const dog = new (std::nothrow) WatchDog(30, kDevice);  // never destroyed: it can't be deactivated
  dog->Activate();
  m_kernel.SeenNow();
  m_kernel.Script("open", {Fails(EBUSY)}).Script("WDIOC_KEEPALIVE", {Fails(EBADF)}).Script("write", {Fails(EBADF)});

  EXPECT_SYSTEM_ERROR(dog->Activate(), EBUSY, watchdogtext::kOpenError);
  EXPECT_SYSTEM_ERROR(dog->Feed(), EBADF, watchdogtext::kCloseError);
  EXPECT_SYSTEM_ERROR(dog->Deactivate(), EBADF, watchdogtext::kWriteError);

  EXPECT_EQ(m_kernel.SeenNow(), (Calls{kOpenCall, "WDIOC_KEEPALIVE(-1, 0)", "write(-1, \"V\")"}));
  // The next activation works again.
  dog->Activate();
  delete dog;
  EXPECT_EQ(m_kernel.SeenNow(), (Calls{kOpenCall, "WDIOC_SETTIMEOUT(71, 30)", "write(71, \"V\")", "close(71)"}));
}

TEST_F(WatchDogTest, ASecondActivationWhoseIntervalIsRefusedLeavesItActiveOnTheNewDescriptor) {
  WatchDog dog(30, kDevice);
  dog.Activate();
  m_kernel.Script("WDIOC_SETTIMEOUT", {Fails(EINVAL)});

  EXPECT_EXACT_THROW(dog.Activate(), std::logic_error, watchdogtext::kNotSet);

  m_kernel.SeenNow();
  dog.Feed();
  dog.Deactivate();
  EXPECT_EQ(m_kernel.SeenNow(), (Calls{"WDIOC_KEEPALIVE(71, 0)", "write(71, \"V\")", "close(71)"}));
}

// --- Feed ------------------------------------------------------------------------------------------------------------

TEST_F(WatchDogTest, FeedIsOneRequest) {
  WatchDog dog(30, kDevice);
  dog.Activate();
  m_kernel.SeenNow();

  dog.Feed();
  dog.Feed();

  EXPECT_EQ(m_kernel.SeenNow(), (Calls{"WDIOC_KEEPALIVE(70, 0)", "WDIOC_KEEPALIVE(70, 0)"}));
  Stop(dog);
}

TEST_F(WatchDogTest, FeedOfANewObjectThrowsALogicErrorAndAsksNobody) {
  WatchDog dog(30, kDevice);

  EXPECT_EXACT_THROW(dog.Feed(), std::logic_error, watchdogtext::kNotActive);

  EXPECT_EQ(m_kernel.Seen(), Calls{});
}

TEST_F(WatchDogTest, AFailedFeedReportsTheTextOfAFailedCloseAndLeavesItActive) {
  WatchDog dog(30, kDevice);
  dog.Activate();
  for (const int error : {EIO, ENODEV, EINTR}) {
    SCOPED_TRACE(ErrorName(error));
    m_kernel.Script("WDIOC_KEEPALIVE", {Fails(error)});
    EXPECT_SYSTEM_ERROR(dog.Feed(), error, watchdogtext::kCloseError);
  }
  m_kernel.Script("WDIOC_KEEPALIVE", {Returns(1), Returns(-2)});

  EXPECT_NO_THROW(dog.Feed());  // -1 alone is a failure
  EXPECT_NO_THROW(dog.Feed());

  Stop(dog);
}

// --- SetInterval and GetInterval -------------------------------------------------------------------------------------

TEST_F(WatchDogTest, SetIntervalHandsTheSecondsOver) {
  WatchDog dog(30, kDevice);
  dog.Activate();
  m_kernel.SeenNow();
  for (const int seconds : {1, 2, 45, INT_MAX}) {
    SCOPED_TRACE(seconds);
    dog.SetInterval(seconds);
    EXPECT_EQ(m_kernel.SeenNow(), Calls{"WDIOC_SETTIMEOUT(70, " + std::to_string(seconds) + ")"});
  }
  Stop(dog);
}

TEST_F(WatchDogTest, WhatTheDriverWritesBackIsForgotten) {
  WatchDog dog(30, kDevice);
  m_kernel.Script("WDIOC_SETTIMEOUT", {Fills(32), Fills(64)});
  dog.Activate();
  dog.SetInterval(50);
  Stop(dog);

  dog.Activate();

  EXPECT_EQ(m_kernel.SeenNow(), (Calls{kOpenCall, "WDIOC_SETTIMEOUT(71, 50)"}));
  EXPECT_EQ(dog.GetInterval(), 60);  // the driver is asked
  Stop(dog);
}

TEST_F(WatchDogTest, IntervalsBelowOneThrowAndChangeNothing) {
  WatchDog dog(30, kDevice);
  for (const int seconds : {0, -1, -5, INT_MIN}) {
    SCOPED_TRACE(seconds);
    EXPECT_EXACT_THROW(dog.SetInterval(seconds), std::logic_error, watchdogtext::kTooShort);
  }
  EXPECT_EQ(m_kernel.SeenNow(), Calls{});

  dog.Activate();
  EXPECT_EXACT_THROW(dog.SetInterval(0), std::logic_error, watchdogtext::kTooShort);

  EXPECT_EQ(m_kernel.SeenNow(), (Calls{kOpenCall, "WDIOC_SETTIMEOUT(70, 30)"}));
  Stop(dog);
}

TEST_F(WatchDogTest, ARefusedIntervalIsRememberedForTheNextActivation) {
  WatchDog dog(10, kDevice);
  dog.Activate();
  for (const int result : {-1, 1}) {
    SCOPED_TRACE(result);
    m_kernel.Script("WDIOC_SETTIMEOUT", {{result, EINVAL, {}, false}});
    EXPECT_EXACT_THROW(dog.SetInterval(30 + result), std::logic_error, watchdogtext::kNotSet);
  }
  Stop(dog);

  dog.Activate();

  EXPECT_EQ(m_kernel.SeenNow(), (Calls{kOpenCall, "WDIOC_SETTIMEOUT(71, 31)"}));
  Stop(dog);
}

TEST_F(WatchDogTest, AnInactiveObjectAsksOnMinusOneAndRemembersAllTheSame) {
  WatchDog dog(10, kDevice);
  m_kernel.Script("WDIOC_SETTIMEOUT", {Fails(EBADF)}).Script("WDIOC_GETTIMEOUT", {Fails(EBADF)});

  EXPECT_EXACT_THROW(dog.SetInterval(20), std::logic_error, watchdogtext::kNotSet);
  EXPECT_EXACT_THROW(dog.GetInterval(), std::logic_error, watchdogtext::kNotRetrieved);
  dog.Activate();

  EXPECT_EQ(m_kernel.SeenNow(),
            (Calls{"WDIOC_SETTIMEOUT(-1, 20)", "WDIOC_GETTIMEOUT(-1)", kOpenCall, "WDIOC_SETTIMEOUT(70, 20)"}));
  Stop(dog);
}

TEST_F(WatchDogTest, GetIntervalIsWhatTheDriverSays) {
  const WatchDog dog(30, kDevice);
  for (const int seconds : {0, 1, 59, -7, INT_MAX}) {
    SCOPED_TRACE(seconds);
    m_kernel.Script("WDIOC_GETTIMEOUT", {Fills(seconds)});
    EXPECT_EQ(dog.GetInterval(), seconds);
  }
}

TEST_F(WatchDogTest, AnyOtherResultThanZeroIsNoInterval) {
  const WatchDog dog(30, kDevice);
  for (const int result : {-1, 1, -2, INT_MAX}) {
    SCOPED_TRACE(result);
    m_kernel.Script("WDIOC_GETTIMEOUT", {{result, EIO, BytesOf(60), false}});
    EXPECT_EXACT_THROW(dog.GetInterval(), std::logic_error, watchdogtext::kNotRetrieved);
  }
}

// --- Deactivate ------------------------------------------------------------------------------------------------------

TEST_F(WatchDogTest, DeactivateWritesTheMagicCharacterAndCloses) {
  WatchDog dog(30, kDevice);
  dog.Activate();
  m_kernel.SeenNow();

  dog.Deactivate();

  EXPECT_EQ(m_kernel.SeenNow(), (Calls{"write(70, \"V\")", "close(70)"}));
  EXPECT_EXACT_THROW(dog.Feed(), std::logic_error, watchdogtext::kNotActive);
}

TEST_F(WatchDogTest, OnAnInactiveObjectItDoesNothing) {
  WatchDog dog(30, kDevice);
  dog.Deactivate();
  EXPECT_EQ(m_kernel.SeenNow(), Calls{});

  dog.Activate();
  Stop(dog);
  dog.Deactivate();

  EXPECT_EQ(m_kernel.SeenNow(), Calls{});
}

TEST_F(WatchDogTest, TheDescriptorsNumberStaysBehind) {
  WatchDog dog(30, kDevice);
  dog.Activate();
  Stop(dog);

  static_cast<void>(dog.GetInterval());
  dog.SetInterval(5);

  EXPECT_EQ(m_kernel.SeenNow(), (Calls{"WDIOC_GETTIMEOUT(70)", "WDIOC_SETTIMEOUT(70, 5)"}));
}

TEST_F(WatchDogTest, AFailedWriteLeavesTheDeviceOpenAndTheObjectActive) {
  WatchDog dog(30, kDevice);
  dog.Activate();
  m_kernel.SeenNow();
  m_kernel.Script("write", {Fails(EIO), Fails(EINTR), Fails(EAGAIN)});

  for (const int error : {EIO, EINTR, EAGAIN}) {
    SCOPED_TRACE(ErrorName(error));
    EXPECT_SYSTEM_ERROR(dog.Deactivate(), error, watchdogtext::kWriteError);
    EXPECT_EQ(m_kernel.SeenNow(), (Calls{"write(70, \"V\")"}));
  }
  EXPECT_NO_THROW(dog.Feed());
  Stop(dog);
}

TEST_F(WatchDogTest, AWriteOfNothingIsNoFailure) {
  WatchDog dog(30, kDevice);
  dog.Activate();
  m_kernel.SeenNow();
  m_kernel.Script("write", {Returns(0)});

  dog.Deactivate();

  EXPECT_EQ(m_kernel.SeenNow(), (Calls{"write(70, \"V\")", "close(70)"}));
}

TEST_F(WatchDogTest, AFailedCloseLeavesTheObjectActive) {
  WatchDog dog(30, kDevice);
  dog.Activate();
  m_kernel.SeenNow();
  m_kernel.Script("close", {Fails(EIO), Fails(EINTR)});

  EXPECT_SYSTEM_ERROR(dog.Deactivate(), EIO, watchdogtext::kCloseError);
  EXPECT_SYSTEM_ERROR(dog.Deactivate(), EINTR, watchdogtext::kCloseError);
  EXPECT_NO_THROW(dog.Feed());
  dog.Deactivate();

  EXPECT_EQ(m_kernel.SeenNow(), (Calls{"write(70, \"V\")", "close(70)", "write(70, \"V\")", "close(70)",
                                       "WDIOC_KEEPALIVE(70, 0)", "write(70, \"V\")", "close(70)"}));
}

// --- The destructor --------------------------------------------------------------------------------------------------

TEST_F(WatchDogTest, DestroyingAnActiveObjectStopsTheTimer) {
  {
    WatchDog dog(30, kDevice);
    dog.Activate();
    m_kernel.SeenNow();
  }
  EXPECT_EQ(m_kernel.SeenNow(), (Calls{"write(70, \"V\")", "close(70)"}));
}

TEST_F(WatchDogTest, DestroyingAnInactiveObjectDoesNothing) {
  {
    WatchDog dog(30, kDevice);
    dog.Activate();
    Stop(dog);
  }
  EXPECT_EQ(m_kernel.SeenNow(), Calls{});
}

TEST(WatchDogDeathTest, AFailureInTheDestructorEndsTheProcess) {
  for (const bool atClose : {false, true}) {
    SCOPED_TRACE(atClose ? "at the close" : "at the write");
    // Only the dying process has a script: the test's own calls go on.
    const auto destroy = [&] {
      ScriptedKernel kernel;
      kernel.Script("open", {Returns(70)}).Script("WDIOC_SETTIMEOUT", {Returns(0)});
      kernel.Script("write", {atClose ? Returns(1) : Fails(EIO)});
      kernel.Script("close", {Fails(EIO)});
      try {
        WatchDog dog(30, kDevice);
        dog.Activate();
      } catch (...) {
        // Never reached.
      }
    };
    EXPECT_EXIT(destroy(), testing::KilledBySignal(SIGABRT),
                atClose ? watchdogtext::kCloseError : watchdogtext::kWriteError);
  }
}

// --- Real devices ----------------------------------------------------------------------------------------------------

TEST(RealDevice, AMissingOneThrowsEnoent) {
  WatchDog dog(30, "/dev/no-such-watchdog");

  EXPECT_SYSTEM_ERROR(dog.Activate(), ENOENT, watchdogtext::kOpenError);
  EXPECT_EXACT_THROW(dog.Activate(), std::system_error, watchdogtext::kOpenError + ": No such file or directory");
}

TEST(RealDevice, OneThatIsNoWatchdogRefusesTheIntervalAndStaysOpen) {
  const int next = NextDescriptor();
  WatchDog dog(30, "/dev/null");

  EXPECT_EXACT_THROW(dog.Activate(), std::logic_error, watchdogtext::kNotSet);
  EXPECT_EXACT_THROW(dog.GetInterval(), std::logic_error, watchdogtext::kNotRetrieved);

  EXPECT_EQ(::fcntl(next, F_GETFL, 0) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(::close(next), 0);
}

TEST(RealDevice, ANewObjectHasNoDescriptor) {
  WatchDog dog(30, "/dev/null");

  EXPECT_EXACT_THROW(dog.GetInterval(), std::logic_error, watchdogtext::kNotRetrieved);
  EXPECT_EXACT_THROW(dog.SetInterval(10), std::logic_error, watchdogtext::kNotSet);
}

// --- All of it in random order ---------------------------------------------------------------------------------------

/// A watchdog device that fails at random: it keeps its own account of what is open and what was asked.
class ChangeableDevice {
 public:
  static constexpr int kNone = -1;

  explicit ChangeableDevice(std::mt19937& engine) : m_engine(engine) {
    kernel.Simulate("open", [this](const Question& question) {
      EXPECT_EQ(question.bytes, kDevice);
      if (FailsNow()) {
        return Fails(EBUSY);
      }
      m_open.insert(++m_lastFd);
      return Returns(m_lastFd);
    });
    kernel.Simulate("close", [this](const Question& question) {
      if (!IsOpen(question)) {
        return Fails(EBADF);
      }
      if (FailsNow()) {
        return Fails(EIO);
      }
      m_open.erase(question.fd);
      return Returns(0);
    });
    kernel.Simulate("write", [this](const Question& question) {
      EXPECT_EQ(question.bytes, "V");
      return !IsOpen(question) ? Fails(EBADF) : FailsNow() ? Fails(EIO) : Returns(1);
    });
    kernel.Simulate("WDIOC_KEEPALIVE", [this](const Question& question) {
      return !IsOpen(question) ? Fails(EBADF) : FailsNow() ? Fails(EIO) : Returns(0);
    });
    kernel.Simulate("WDIOC_SETTIMEOUT", [this](const Question& question) {
      if (!IsOpen(question)) {
        return Fails(EBADF);
      }
      if (FailsNow()) {
        return m_engine() % 2 == 0 ? Fails(EINVAL) : Returns(1);
      }
      int seconds = 0;
      std::memcpy(&seconds, question.bytes.data(), sizeof(seconds));
      timeout = Rounded(seconds);
      return Fills(timeout);
    });
    kernel.Simulate("WDIOC_GETTIMEOUT", [this](const Question& question) {
      return !IsOpen(question) ? Fails(EBADF) : FailsNow() ? Returns(1) : Fills(timeout);
    });
    kernel.Watch("ioctl").Watch("read").Watch("fcntl");
  }

  /// Rounded up to the multiple of eight that this device can count.
  static int Rounded(int seconds) {
    return (seconds + 7) / 8 * 8;
  }

  int LastFd() const {
    return m_lastFd;
  }
  bool HasOpen(int fd) const {
    return m_open.count(fd) != 0;
  }

  ScriptedKernel kernel;
  std::set<int> failing;  // the numbers, from now on, of the questions that fail
  int timeout = 0;

 private:
  bool FailsNow() {
    const auto found = failing.find(0);
    const bool fails = found != failing.end();
    std::set<int> later;
    for (const int number : failing) {
      if (number > 0) {
        later.insert(number - 1);
      }
    }
    failing = later;
    return fails;
  }
  bool IsOpen(const Question& question) const {
    return m_open.count(question.fd) != 0;
  }

  std::mt19937& m_engine;
  std::set<int> m_open;
  int m_lastFd = 99;
};

std::string On(int fd) {
  return "(" + std::to_string(fd);
}

TEST(WatchDogInRandomOrder, EveryTransitionDoesWhatTheTableSays) {
  constexpr int kSteps = 30000;
  std::mt19937 engine(20260102);
  ChangeableDevice device(engine);
  std::set<std::string> transitions;

  // What must be true of the object.
  int interval = 20;
  int fd = ChangeableDevice::kNone;
  bool active = false;
  auto dog = std::make_unique<WatchDog>(interval, kDevice);

  for (int step = 0; step < kSteps; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    // One of the two questions that an operation may put fails, or none.
    const auto failing = static_cast<int>(engine() % 4);
    device.failing.clear();
    if (failing < 2) {
      device.failing.insert(failing);
    }
    const bool firstFails = failing == 0;
    const bool secondFails = failing == 1;
    const bool isOpen = device.HasOpen(fd);
    const int number = isOpen ? EIO : EBADF;
    std::string transition = active ? (isOpen ? "active: " : "active on a lost device: ") : "inactive: ";
    Calls expected;

    switch (engine() % 6) {
      case 0: {
        expected = {kOpenCall};
        if (firstFails) {
          EXPECT_SYSTEM_ERROR(dog->Activate(), EBUSY, watchdogtext::kOpenError);
          fd = ChangeableDevice::kNone;
          transition += "open refused";
          break;
        }
        fd = device.LastFd() + 1;
        if (interval < 1) {
          EXPECT_EXACT_THROW(dog->Activate(), std::logic_error, watchdogtext::kTooShort);
          transition += "interval too short";
          break;
        }
        expected.push_back("WDIOC_SETTIMEOUT" + On(fd) + ", " + std::to_string(interval) + ")");
        if (secondFails) {
          EXPECT_EXACT_THROW(dog->Activate(), std::logic_error, watchdogtext::kNotSet);
          transition += "interval refused";
        } else {
          EXPECT_NO_THROW(dog->Activate());
          EXPECT_EQ(device.timeout, ChangeableDevice::Rounded(interval));
          active = true;
          transition += "activated";
        }
        break;
      }
      case 1:
        if (!active) {
          EXPECT_EXACT_THROW(dog->Feed(), std::logic_error, watchdogtext::kNotActive);
          transition += "not fed";
          break;
        }
        expected = {"WDIOC_KEEPALIVE" + On(fd) + ", 0)"};
        if (firstFails || !isOpen) {
          EXPECT_SYSTEM_ERROR(dog->Feed(), number, watchdogtext::kCloseError);
          transition += "feed refused";
        } else {
          EXPECT_NO_THROW(dog->Feed());
          transition += "fed";
        }
        break;
      case 2: {
        const int seconds = static_cast<int>(engine() % 100) - 10;
        if (seconds < 1) {
          EXPECT_EXACT_THROW(dog->SetInterval(seconds), std::logic_error, watchdogtext::kTooShort);
          transition += "too short";
          break;
        }
        interval = seconds;
        expected = {"WDIOC_SETTIMEOUT" + On(fd) + ", " + std::to_string(seconds) + ")"};
        if (firstFails || !isOpen) {
          EXPECT_EXACT_THROW(dog->SetInterval(seconds), std::logic_error, watchdogtext::kNotSet);
          transition += "not set";
        } else {
          EXPECT_NO_THROW(dog->SetInterval(seconds));
          transition += "set";
        }
        break;
      }
      case 3:
        expected = {"WDIOC_GETTIMEOUT" + On(fd) + ")"};
        if (firstFails || !isOpen) {
          EXPECT_EXACT_THROW(dog->GetInterval(), std::logic_error, watchdogtext::kNotRetrieved);
          transition += "not asked";
        } else {
          EXPECT_EQ(dog->GetInterval(), device.timeout);
          transition += "asked";
        }
        break;
      case 4:
        if (!active) {
          EXPECT_NO_THROW(dog->Deactivate());
          transition += "nothing to do";
          break;
        }
        expected = {"write" + On(fd) + ", \"V\")"};
        if (firstFails || !isOpen) {
          EXPECT_SYSTEM_ERROR(dog->Deactivate(), number, watchdogtext::kWriteError);
          transition += "write refused";
          break;
        }
        expected.push_back("close" + On(fd) + ")");
        if (secondFails) {
          EXPECT_SYSTEM_ERROR(dog->Deactivate(), EIO, watchdogtext::kCloseError);
          transition += "close refused";
        } else {
          EXPECT_NO_THROW(dog->Deactivate());
          active = false;
          transition += "deactivated";
        }
        break;
      default:
        // A failure would end the process, so there is none.
        device.failing.clear();
        if (active && !isOpen) {
          transition.clear();
          break;
        }
        if (active) {
          expected = {"write" + On(fd) + ", \"V\")", "close" + On(fd) + ")"};
        }
        interval = static_cast<int>(engine() % 40) - 3;
        dog = std::make_unique<WatchDog>(interval, kDevice);
        fd = ChangeableDevice::kNone;
        active = false;
        transition += "destroyed";
        break;
    }
    transitions.insert(transition);
    ASSERT_EQ(device.kernel.SeenNow(), expected) << transition;
    if (HasFailure()) {
      FAIL() << transition;
    }
  }
  // A failure in the destructor would end the process.
  device.failing.clear();
  if (interval < 1) {
    try {
      dog->SetInterval(1);
    } catch (const std::logic_error&) {
      // Remembered all the same.
    }
  }
  dog->Activate();
  dog.reset();
  transitions.erase("");
  EXPECT_EQ(transitions, (std::set<std::string>{"inactive: activated",
                                                "inactive: open refused",
                                                "inactive: interval refused",
                                                "inactive: interval too short",
                                                "inactive: not fed",
                                                "inactive: too short",
                                                "inactive: not set",
                                                "inactive: set",
                                                "inactive: not asked",
                                                "inactive: asked",
                                                "inactive: nothing to do",
                                                "inactive: destroyed",
                                                "active: activated",
                                                "active: open refused",
                                                "active: interval refused",

                                                "active: fed",
                                                "active: feed refused",
                                                "active: too short",
                                                "active: not set",
                                                "active: set",
                                                "active: not asked",
                                                "active: asked",
                                                "active: deactivated",
                                                "active: write refused",
                                                "active: close refused",
                                                "active: destroyed",
                                                "active on a lost device: activated",
                                                "active on a lost device: open refused",
                                                "active on a lost device: interval refused",
                                                "active on a lost device: feed refused",
                                                "active on a lost device: too short",
                                                "active on a lost device: not set",
                                                "active on a lost device: not asked",
                                                "active on a lost device: write refused"}));
}

}  // namespace
