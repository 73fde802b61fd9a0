#include "../../src/serial/SpeedCodes.h"

#include <termios.h>

#include <cerrno>
#include <climits>

#include <gtest/gtest.h>

#include "ScriptedKernel.h"

// Which of the two ways is taken depends on the C library; the calls are simulated here, so that both are tested with
// any of them.
namespace {

using Calls = ScriptedKernel::Calls;

/// Sets the speeds as the C library does that takes @p rates or codes, as far as the calls show.
template <bool rates>
Calls CallsOfSetting(int code) {
  ScriptedKernel kernel;
  kernel.Script("cfsetispeed", {Returns(0)}).Script("cfsetospeed", {Returns(0)});
  termios settings{};
  EXPECT_EQ(boardkit::speedcodes::SetSpeeds<rates>(settings, code), 0);
  return kernel.Seen();
}

TEST(SpeedCodes, GoToALibraryThatTakesCodesAsTheyAre) {
  for (const boardkit::speedcodes::Speed& speed : boardkit::speedcodes::kSpeeds) {
    SCOPED_TRACE(speed.code);
    const std::string argument = "(" + std::to_string(speed.code) + ")";
    EXPECT_EQ(CallsOfSetting<false>(speed.code), (Calls{"cfsetispeed" + argument, "cfsetospeed" + argument}));
  }
}

TEST(SpeedCodes, GoToALibraryThatTakesRatesAsBitsPerSecond) {
  for (const boardkit::speedcodes::Speed& speed : boardkit::speedcodes::kSpeeds) {
    SCOPED_TRACE(speed.code);
    const std::string argument = "(" + std::to_string(speed.bitsPerSecond) + ")";
    EXPECT_EQ(CallsOfSetting<true>(speed.code), (Calls{"cfsetispeed" + argument, "cfsetospeed" + argument}));
  }
}

TEST(SpeedCodes, WhatIsNoCodeDoesNotGetToALibraryThatTakesRates) {
  for (const int code : {16, 4096, 4110, 9600, 115200, -1, INT_MIN, INT_MAX}) {
    SCOPED_TRACE(code);
    ScriptedKernel kernel;
    kernel.Watch("cfsetispeed").Watch("cfsetospeed");
    termios settings{};
    errno = 0;

    EXPECT_EQ(boardkit::speedcodes::SetSpeeds<true>(settings, code), -1) << code;

    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kernel.Seen(), Calls{});
  }
}

TEST(SpeedCodes, WhatIsNoCodeIsForTheLibraryThatTakesCodesToRefuse) {
  ScriptedKernel kernel;
  kernel.Script("cfsetispeed", {Fails(EINVAL)}).Watch("cfsetospeed");
  termios settings{};

  EXPECT_EQ(boardkit::speedcodes::SetSpeeds<false>(settings, 4110), -1);

  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(kernel.Seen(), Calls{"cfsetispeed(4110)"});
}

TEST(SpeedCodes, AFailingInputOrOutputSpeedIsTheResult) {
  termios settings{};
  {
    ScriptedKernel kernel;
    kernel.Script("cfsetispeed", {Fails(EINVAL)}).Watch("cfsetospeed");
    EXPECT_EQ(boardkit::speedcodes::SetSpeeds<true>(settings, 13), -1);
    EXPECT_EQ(kernel.Seen(), Calls{"cfsetispeed(9600)"});
  }
  {
    ScriptedKernel kernel;
    kernel.Script("cfsetispeed", {Returns(0)}).Script("cfsetospeed", {Fails(EINVAL)});
    EXPECT_EQ(boardkit::speedcodes::SetSpeeds<true>(settings, 13), -1);
  }
}

TEST(SpeedCodes, ComeFromALibraryThatGivesCodesAsTheyAre) {
  for (const unsigned int given : {0U, 13U, 4096U, 4098U, 4110U, 9600U}) {
    SCOPED_TRACE(given);
    EXPECT_EQ(boardkit::speedcodes::ToCode<false>(given), static_cast<int>(given));
  }
}

TEST(SpeedCodes, ComeFromALibraryThatGivesRatesByTheirNumber) {
  for (const boardkit::speedcodes::Speed& speed : boardkit::speedcodes::kSpeeds) {
    SCOPED_TRACE(speed.code);
    EXPECT_EQ(boardkit::speedcodes::ToCode<true>(speed.bitsPerSecond), speed.code);
  }
}

TEST(SpeedCodes, ARateThatHasNoneComesAsTheKernelsCodeForOthers) {
  for (const unsigned int given : {1U, 13U, 250000U, 4098U, 4000000U, UINT_MAX}) {
    EXPECT_EQ(boardkit::speedcodes::ToCode<true>(given), 4096) << given;
  }
}

TEST(SpeedCodes, TheWayOfThisLibraryIsThatOfItsHeader) {
  EXPECT_EQ(boardkit::speedcodes::kSpeedsAreRates, B9600 != 13);
  termios settings{};
  for (const boardkit::speedcodes::Speed& speed : boardkit::speedcodes::kSpeeds) {
    SCOPED_TRACE(speed.code);
    ASSERT_EQ(boardkit::speedcodes::SetSpeeds(settings, speed.code), 0);
    EXPECT_EQ(boardkit::speedcodes::ToCode(::cfgetispeed(&settings)), speed.code);
    EXPECT_EQ(boardkit::speedcodes::ToCode(::cfgetospeed(&settings)), speed.code);
    EXPECT_EQ(settings.c_cflag & CBAUD, static_cast<tcflag_t>(speed.code));
  }
}

}  // namespace
