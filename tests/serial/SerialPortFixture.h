#ifndef BOARDKIT_TESTS_SERIALPORTFIXTURE_H
#define BOARDKIT_TESTS_SERIALPORTFIXTURE_H

#include <cerrno>

#include <gtest/gtest.h>

#include "ExpectThrow.h"
#include "Lists.h"
#include "SerialPort.h"
#include "SerialTexts.h"
#include "SerialTty.h"

using Calls = ScriptedKernel::Calls;

inline const Calls kOpening = {"open(\"/dev/ttyS1\", 0x102)", "fcntl(70, F_SETFL, 0)", "tcgetattr(70)",
                               "tcsetattr(70, TCSAFLUSH)",    "tcflush(70, TCIFLUSH)", "tcflush(70, TCIOFLUSH)",
                               "tcflush(70, TCIFLUSH)",       "FIONREAD(70)"};
inline const Calls kOpeningWithoutAttributes = {"open(\"/dev/ttyS1\", 0x102)", "fcntl(70, F_SETFL, 0)",
                                                "tcflush(70, TCIFLUSH)",       "tcflush(70, TCIOFLUSH)",
                                                "tcflush(70, TCIFLUSH)",       "FIONREAD(70)"};
inline const Calls kClosing = {"TIOCMGET(70)", "TIOCMSET(70, 0x0)", "tcsetattr(70, TCSANOW)", "close(70)"};
inline const Calls kClosingWithoutAttributes = {"TIOCMGET(70)", "TIOCMSET(70, 0x0)", "close(70)"};

constexpr int kLoopback = 0x8000;  // in the modem bits

/// The first @p count of @p calls.
inline Calls First(std::size_t count, const Calls& calls) {
  return {calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(count)};
}

/// Every test here also checks that the device is not left open.
class SerialTtyTest : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(m_tty.Opened(), m_tty.Closed());
  }

  SerialTty m_tty;
};

/// Expects that @p statement changes nothing and fails because no port is open, with whatever errno was set before.
#define EXPECT_NOT_OPEN(statement)                               \
  do {                                                           \
    errno = EXDEV;                                               \
    EXPECT_SYSTEM_ERROR(statement, EXDEV, serialtext::kNotOpen); \
  } while (false)

#endif
