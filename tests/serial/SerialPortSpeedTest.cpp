#include <termios.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "SerialExtended.h"
#include "SerialPort.h"
#include "SerialPortSettingsFixture.h"
#include "SerialTexts.h"

namespace {

class BaudRate : public SettingsTest {};
class CustomBaudRate : public SettingsTest {};

// --- Speed -----------------------------------------------------------------------------------------------------------

const std::map<int, unsigned int>& SpeedsByCode() {
  static const std::map<int, unsigned int> speeds = {
      {0, 0},          {1, 50},         {2, 75},         {3, 110},        {4, 134},       {5, 150},
      {6, 200},        {7, 300},        {8, 600},        {9, 1200},       {10, 1800},     {11, 2400},
      {12, 4800},      {13, 9600},      {14, 19200},     {15, 38400},     {4097, 57600},  {4098, 115200},
      {4099, 230400},  {4100, 460800},  {4101, 500000},  {4102, 576000},  {4103, 921600}, {4104, 1000000},
      {4105, 1152000}, {4106, 1500000}, {4107, 2000000}, {4108, 2500000}, {4109, 3000000}};
  return speeds;
}

TEST_F(BaudRate, EveryOneIsSetInBothDirectionsAndReadBack) {
  SerialPort port(SerialTty::kDevice, true);
  for (const auto& [code, speed] : SpeedsByCode()) {
    SCOPED_TRACE(speed);
    const auto baudRate = static_cast<SerialPort::BaudRate>(code);

    port.SetBaudRate(baudRate);

    EXPECT_EQ(static_cast<int>(m_tty.attributes.c_cflag & CBAUD), code);
    EXPECT_EQ(::cfgetispeed(&m_tty.attributes), ::cfgetospeed(&m_tty.attributes));
    EXPECT_EQ(port.GetBaudRate(), baudRate);
    EXPECT_EQ(RememberedBy(port).baudRate, baudRate);
  }
}

TEST_F(BaudRate, TheOtherAttributesStay) {
  SerialPort port(SerialTty::kDevice, true);
  SetFlags(IXON | INPCK, CS7 | PARENB | CSTOPB | SerialPort::BAUD_300);

  port.SetBaudRate(SerialPort::BAUD_9600);

  ExpectFlags(IXON | INPCK, CS7 | PARENB | CSTOPB | SerialPort::BAUD_9600);
}

TEST_F(BaudRate, WhatIsNoCodeThrowsEinvalAndChangesNothing) {
  SerialPort port(SerialTty::kDevice, true);
  for (const int code : {16, 4095, 4112, 9600, -1, INT_MIN}) {
    SCOPED_TRACE(code);
    m_tty.written.clear();
    EXPECT_SYSTEM_ERROR(port.SetBaudRate(static_cast<SerialPort::BaudRate>(code)), EINVAL, serialtext::kUnsupported);
    EXPECT_TRUE(m_tty.written.empty());
  }
  EXPECT_EQ(RememberedBy(port), kDefaults);
}

TEST_F(BaudRate, EitherDirectionThatCannotBeSetThrowsAndWritesNothing) {
  SerialPort port(SerialTty::kDevice, true);
  for (const Answer& answer : {Fails(EINVAL), Answer{-2, EINVAL, {}, false}}) {
    SCOPED_TRACE(answer);
    const std::string speed = "(" + std::to_string(B19200) + ")";
    m_tty.kernel.SeenNow();
    m_tty.kernel.Script("cfsetispeed", {answer});
    EXPECT_SYSTEM_ERROR(port.SetBaudRate(SerialPort::BAUD_19200), EINVAL, serialtext::kUnsupported);
    EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"tcgetattr(70)", "cfsetispeed" + speed}));

    m_tty.kernel.Script("cfsetospeed", {answer});
    EXPECT_SYSTEM_ERROR(port.SetBaudRate(SerialPort::BAUD_19200), EINVAL, serialtext::kUnsupported);
    EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"tcgetattr(70)", "cfsetispeed" + speed, "cfsetospeed" + speed}));
  }
  EXPECT_EQ(RememberedBy(port), kDefaults);
}

TEST_F(BaudRate, AskedOfAClosedPortFailsInTheCall) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();

  EXPECT_SYSTEM_ERROR(port.GetBaudRate(), EBADF, serialtext::kGetFailed);

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"tcgetattr(-1)"});
}

TEST_F(BaudRate, AskedOfAClosedPortWithoutAttributesIsZero) {
  SerialPort port(SerialTty::kDevice, false);
  port.Close();

  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_0);
}

TEST(SpeedConversion, OnlyTheStandardSpeedsFrom9600OnHaveACode) {
  std::map<int, int> expected;
  for (const auto& [code, speed] : SpeedsByCode()) {
    if (speed >= 9600) {
      expected[static_cast<int>(speed)] = code;
    }
  }
  EXPECT_EQ(expected.size(), 16U);

  for (int number = -1000; number <= 3100000; ++number) {
    const auto found = expected.find(number);
    const int code = found == expected.end() ? 0 : found->second;
    ASSERT_EQ(SerialPort::ConversionToBaudrateEnum(number), code) << number;
  }
  for (const int number : {INT_MIN, INT_MIN + 9600, -9600, -115200, 4000000, INT_MAX}) {
    EXPECT_EQ(SerialPort::ConversionToBaudrateEnum(number), SerialPort::BAUD_0) << number;
  }
}

TEST(SpeedConversion, EveryCodeHasItsNumberButTheTwoFastest) {
  std::map<int, unsigned int> expected = SpeedsByCode();
  expected[SerialPort::BAUD_2500000] = 1500000;
  expected[SerialPort::BAUD_3000000] = 2000000;

  for (unsigned int code = 0; code < 70000; ++code) {
    const auto found = expected.find(static_cast<int>(code));
    ASSERT_EQ(SerialPort::BaudRateToPrintableNumber(code), found == expected.end() ? 0 : found->second) << code;
  }
  for (const unsigned int code : {0x80000000U, 0x8000000DU, UINT_MAX, UINT_MAX - 12}) {
    EXPECT_EQ(SerialPort::BaudRateToPrintableNumber(code), 0U) << code;
  }
}

// --- Custom speed ----------------------------------------------------------------------------------------------------

constexpr std::uint32_t kCustom = 250000;
const Calls kSettingCustom = {"TCGETS2(70)", "TCSETS2(70)"};

TEST_F(CustomBaudRate, IsZeroAtFirst) {
  const SerialPort port(SerialTty::kDevice, true);

  EXPECT_EQ(port.GetCustomBaudRate(), 0U);
}

TEST_F(BaudRate, OfThePortIsItsInputSpeed) {
  SerialPort port(SerialTty::kDevice, true);
  ::cfsetospeed(&m_tty.attributes, B115200);
  ::cfsetispeed(&m_tty.attributes, B0);

  // To some C libraries this means no input speed, to others that of the output.
  EXPECT_EQ(port.GetBaudRate(), ::cfgetispeed(&m_tty.attributes) == B0 ? SerialPort::BAUD_0 : SerialPort::BAUD_115200);
}

TEST_F(CustomBaudRate, IsSetInBothDirectionsThroughTheExtendedAttributes) {
  SerialPort port(SerialTty::kDevice, true);
  SetFlags(IXON, CS7 | PARENB | CRTSCTS | SerialPort::BAUD_9600);
  m_tty.kernel.SeenNow();

  port.SetCustomBaudRate(kCustom);

  EXPECT_EQ(m_tty.kernel.SeenNow(), kSettingCustom);
  EXPECT_EQ(m_tty.inputSpeed, kCustom);
  EXPECT_EQ(m_tty.outputSpeed, kCustom);
  // Without an input speed of its own in the flags, the output's holds for both.
  ExpectFlags(IXON, CS7 | PARENB | CRTSCTS | ExtendedAttributes::kOtherSpeed);
  EXPECT_EQ(port.GetCustomBaudRate(), kCustom);
}

TEST_F(CustomBaudRate, ZeroWithoutACustomSpeedAppliesTheRememberedBaudRateToo) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  m_tty.attributes.c_cflag = SerialPort::BAUD_1200;

  port.SetCustomBaudRate(0);

  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_115200);
}

TEST_F(CustomBaudRate, LeavesNoInputSpeedOfItsOwnInTheFlags) {
  SerialPort port(SerialTty::kDevice, true);
  constexpr unsigned int kInput9600 = 13U << ExtendedAttributes::kInputShift;
  m_tty.attributes.c_cflag |= kInput9600 | SerialPort::BAUD_9600;

  port.SetCustomBaudRate(kCustom);

  constexpr unsigned int kInputMask = ExtendedAttributes::kSpeedMask << ExtendedAttributes::kInputShift;
  EXPECT_EQ(m_tty.attributes.c_cflag & kInputMask, 0U);
  EXPECT_EQ(m_tty.attributes.c_cflag & ExtendedAttributes::kSpeedMask, ExtendedAttributes::kOtherSpeed);
}

TEST_F(CustomBaudRate, EveryNumberIsHandedToTheDriver) {
  SerialPort port(SerialTty::kDevice, true);
  for (const std::uint32_t speed : {1U, 31250U, 9600U, 4000000U, 0xFFFFFFFFU}) {
    SCOPED_TRACE(speed);
    port.SetCustomBaudRate(speed);
    EXPECT_EQ(m_tty.inputSpeed, speed);
    EXPECT_EQ(m_tty.outputSpeed, speed);
    EXPECT_EQ(port.GetCustomBaudRate(), speed);
  }
}

TEST_F(CustomBaudRate, ARefusalThrowsAndWhatIsRememberedStays) {
  SerialPort port(SerialTty::kDevice, true);
  for (const std::uint32_t before : {0U, 31250U}) {
    SCOPED_TRACE(before);
    port.SetCustomBaudRate(before);
    m_tty.kernel.SeenNow();

    m_tty.kernel.Script("TCGETS2", {Fails(ENOTTY)});
    EXPECT_SYSTEM_ERROR(port.SetCustomBaudRate(kCustom), ENOTTY, serialtext::kUnsupported);
    EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"TCGETS2(70)"});
    EXPECT_EQ(port.GetCustomBaudRate(), before);

    m_tty.kernel.Script("TCSETS2", {Fails(EINVAL)});
    EXPECT_SYSTEM_ERROR(port.SetCustomBaudRate(kCustom), EINVAL, serialtext::kUnsupported);
    EXPECT_EQ(m_tty.kernel.SeenNow(), kSettingCustom);
    EXPECT_EQ(port.GetCustomBaudRate(), before);
  }
}

TEST_F(CustomBaudRate, WhileItIsSetSetBaudRateDoesNothingNotEvenOnAClosedPort) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_19200);
  port.SetCustomBaudRate(kCustom);
  m_tty.kernel.SeenNow();

  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetBaudRate(static_cast<SerialPort::BaudRate>(-1));
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});

  port.Close();
  m_tty.kernel.SeenNow();
  port.SetBaudRate(SerialPort::BAUD_115200);
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});

  // The rate before it is the one that is still remembered.
  port.OpenSerialPortDevice();
  port.SetCustomBaudRate(0);
  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_19200);
}

TEST_F(CustomBaudRate, ZeroForgetsItAndAppliesTheRememberedBaudRate) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetCustomBaudRate(kCustom);
  m_tty.kernel.SeenNow();

  port.SetCustomBaudRate(0);

  const std::string speed = "(" + std::to_string(B115200) + ")";
  EXPECT_EQ(m_tty.kernel.SeenNow(),
            (Calls{"tcgetattr(70)", "cfsetispeed" + speed, "cfsetospeed" + speed, "tcsetattr(70, TCSANOW)"}));
  EXPECT_EQ(port.GetCustomBaudRate(), 0U);
  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_115200);
  // No input speed of its own is left in the flags.
  EXPECT_EQ(ControlFlags(m_tty.attributes) & CIBAUD, 0U);
  port.SetBaudRate(SerialPort::BAUD_4800);
  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_4800);
}

TEST_F(CustomBaudRate, ZeroThatCannotBeAppliedForgetsNothing) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetCustomBaudRate(kCustom);

  m_tty.kernel.Script("tcgetattr", {Fails(EIO)});
  EXPECT_SYSTEM_ERROR(port.SetCustomBaudRate(0), EIO, serialtext::kGetFailed);
  EXPECT_EQ(port.GetCustomBaudRate(), kCustom);

  m_tty.kernel.Script("cfsetospeed", {Fails(EINVAL)});
  EXPECT_SYSTEM_ERROR(port.SetCustomBaudRate(0), EINVAL, serialtext::kUnsupported);
  EXPECT_EQ(port.GetCustomBaudRate(), kCustom);

  m_tty.kernel.Script("tcsetattr", {Fails(EIO)});
  EXPECT_SYSTEM_ERROR(port.SetCustomBaudRate(0), EIO,
                      serialtext::SetFailed(SerialTty::kDevice, serialtext::kUnsupported));
  EXPECT_EQ(port.GetCustomBaudRate(), kCustom);
}

TEST_F(CustomBaudRate, IsAppliedAgainByOpenInThePlaceOfTheBaudRate) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetCustomBaudRate(kCustom);
  port.Close();
  EXPECT_EQ(port.GetCustomBaudRate(), kCustom);
  m_tty.inputSpeed = 0;
  m_tty.outputSpeed = 0;
  m_tty.kernel.SeenNow();

  port.Open(SerialPort::BAUD_115200, SerialPort::CHAR_SIZE_8, SerialPort::PARITY_NONE, SerialPort::STOP_BITS_1,
            SerialPort::FLOW_CONTROL_NONE);

  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpening + kSettingCustom + m_changing + m_changing + m_changing + m_changing);
  EXPECT_EQ(m_tty.inputSpeed, kCustom);
  EXPECT_EQ(m_tty.outputSpeed, kCustom);
  EXPECT_EQ(m_tty.attributes.c_cflag & ExtendedAttributes::kSpeedMask, ExtendedAttributes::kOtherSpeed);
}

TEST_F(CustomBaudRate, RefusedByOpenLeavesThePortOpenAndIsKept) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetCustomBaudRate(kCustom);
  port.Close();
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("TCSETS2", {Fails(EINVAL)});

  EXPECT_SYSTEM_ERROR(port.Open(SerialPort::BAUD_115200, SerialPort::CHAR_SIZE_8, SerialPort::PARITY_NONE,
                                SerialPort::STOP_BITS_1, SerialPort::FLOW_CONTROL_NONE),
                      EINVAL, serialtext::kUnsupported);

  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpening + kSettingCustom);
  EXPECT_TRUE(port.IsOpen());
  EXPECT_EQ(port.GetCustomBaudRate(), kCustom);
}

TEST_F(CustomBaudRate, OnAClosedPortThrowsAndStays) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetCustomBaudRate(kCustom);
  port.Close();
  m_tty.kernel.SeenNow();

  EXPECT_NOT_OPEN(port.SetCustomBaudRate(0));
  EXPECT_NOT_OPEN(port.SetCustomBaudRate(31250));

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
  EXPECT_EQ(port.GetCustomBaudRate(), kCustom);
}

TEST_F(CustomBaudRate, WithoutAttributesIsOnlyRemembered) {
  SerialPort port(SerialTty::kDevice, false);
  m_tty.kernel.SeenNow();

  port.SetCustomBaudRate(kCustom);
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
  EXPECT_EQ(port.GetCustomBaudRate(), kCustom);

  port.Close();
  m_tty.kernel.SeenNow();
  port.Open(SerialPort::BAUD_115200, SerialPort::CHAR_SIZE_8, SerialPort::PARITY_NONE, SerialPort::STOP_BITS_1,
            SerialPort::FLOW_CONTROL_NONE);
  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpeningWithoutAttributes);

  port.SetCustomBaudRate(0);
  EXPECT_EQ(port.GetCustomBaudRate(), 0U);
}

}  // namespace
