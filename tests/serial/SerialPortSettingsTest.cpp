#include <sys/ioctl.h>
#include <termios.h>

#include <cerrno>
#include <climits>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "SerialPort.h"
#include "SerialPortSettingsFixture.h"
#include "SerialTexts.h"

namespace {

// The values are written into the device's attributes and into clients' files.
static_assert(SerialPort::BAUD_0 == 0 && SerialPort::BAUD_50 == 1 && SerialPort::BAUD_75 == 2);
static_assert(SerialPort::BAUD_110 == 3 && SerialPort::BAUD_134 == 4 && SerialPort::BAUD_150 == 5);
static_assert(SerialPort::BAUD_200 == 6 && SerialPort::BAUD_300 == 7 && SerialPort::BAUD_600 == 8);
static_assert(SerialPort::BAUD_1200 == 9 && SerialPort::BAUD_1800 == 10 && SerialPort::BAUD_2400 == 11);
static_assert(SerialPort::BAUD_4800 == 12 && SerialPort::BAUD_9600 == 13 && SerialPort::BAUD_19200 == 14);
static_assert(SerialPort::BAUD_38400 == 15 && SerialPort::BAUD_57600 == 4097 && SerialPort::BAUD_115200 == 4098);
static_assert(SerialPort::BAUD_230400 == 4099 && SerialPort::BAUD_460800 == 4100 && SerialPort::BAUD_500000 == 4101);
static_assert(SerialPort::BAUD_576000 == 4102 && SerialPort::BAUD_921600 == 4103 && SerialPort::BAUD_1000000 == 4104);
static_assert(SerialPort::BAUD_1152000 == 4105 && SerialPort::BAUD_1500000 == 4106);
static_assert(SerialPort::BAUD_2000000 == 4107 && SerialPort::BAUD_2500000 == 4108 && SerialPort::BAUD_3000000 == 4109);
static_assert(SerialPort::CHAR_SIZE_5 == 0 && SerialPort::CHAR_SIZE_6 == 0x10);
static_assert(SerialPort::CHAR_SIZE_7 == 0x20 && SerialPort::CHAR_SIZE_8 == 0x30);
static_assert(SerialPort::PARITY_EVEN == 0 && SerialPort::PARITY_ODD == 1 && SerialPort::PARITY_NONE == 2);
static_assert(SerialPort::STOP_BITS_1 == 0 && SerialPort::STOP_BITS_2 == 1);
static_assert(SerialPort::FLOW_CONTROL_HARDWARE == 0 && SerialPort::FLOW_CONTROL_SOFTWARE == 1);
static_assert(SerialPort::FLOW_CONTROL_NONE == 2);
static_assert(sizeof(SerialPort::BaudRate) == sizeof(int) && sizeof(SerialPort::CharacterSize) == sizeof(int));
static_assert(sizeof(SerialPort::Parity) == sizeof(int) && sizeof(SerialPort::StopBits) == sizeof(int));
static_assert(sizeof(SerialPort::FlowControl) == sizeof(int));

/// A setter with an argument, what it reports, and how it is called in a table of cases.
struct Setter {
  std::string text;
  std::function<void(SerialPort&)> apply;
};

const std::vector<Setter>& Setters() {
  static const std::vector<Setter> setters = {
      {serialtext::kUnsupported, [](SerialPort& port) { port.SetBaudRate(SerialPort::BAUD_19200); }},
      {serialtext::kInvalidSize, [](SerialPort& port) { port.SetCharSize(SerialPort::CHAR_SIZE_5); }},
      {serialtext::kInvalidParity, [](SerialPort& port) { port.SetParity(SerialPort::PARITY_ODD); }},
      {serialtext::kInvalidStopBits, [](SerialPort& port) { port.SetNumOfStopBits(SerialPort::STOP_BITS_2); }},
      {serialtext::kInvalidFlowControl,
       [](SerialPort& port) { port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE); }},
  };
  return setters;
}

class Settings : public SettingsTest {};
class CharSize : public SettingsTest {};
class Parity : public SettingsTest {};
class StopBits : public SettingsTest {};
class FlowControl : public SettingsTest {};
class ModemBits : public SerialTtyTest {};

// --- All setters -----------------------------------------------------------------------------------------------------

TEST_F(Settings, AreTheDefaultsAfterConstruction) {
  SerialPort port(SerialTty::kDevice, true);

  EXPECT_EQ(RememberedBy(port), kDefaults);
}

TEST_F(Settings, AreRememberedForReopening) {
  SerialPort port(SerialTty::kDevice, true);
  for (const Setter& setter : Setters()) {
    setter.apply(port);
  }

  EXPECT_EQ(RememberedBy(port), (Remembered{SerialPort::BAUD_19200, SerialPort::CHAR_SIZE_5, SerialPort::PARITY_ODD,
                                            SerialPort::STOP_BITS_2, SerialPort::FLOW_CONTROL_HARDWARE}));
}

TEST_F(Settings, ASetterReadsTheAttributesAndWritesThemAtOnce) {
  SerialPort port(SerialTty::kDevice, true);
  for (const Setter& setter : Setters()) {
    SCOPED_TRACE(setter.text);
    m_tty.kernel.SeenNow();
    setter.apply(port);
    Calls calls = m_tty.kernel.SeenNow();
    if (setter.text == serialtext::kUnsupported) {
      const std::string speed = "(" + std::to_string(B19200) + ")";
      EXPECT_EQ(calls,
                (Calls{"tcgetattr(70)", "cfsetispeed" + speed, "cfsetospeed" + speed, "tcsetattr(70, TCSANOW)"}));
    } else {
      EXPECT_EQ(calls, m_changing);
    }
  }
}

TEST_F(Settings, OfAClosedPortCannotBeChanged) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();
  for (const Setter& setter : Setters()) {
    SCOPED_TRACE(setter.text);
    EXPECT_NOT_OPEN(setter.apply(port));
  }
  // The check comes before that of the argument.
  EXPECT_NOT_OPEN(port.SetParity(static_cast<SerialPort::Parity>(3)));
  EXPECT_NOT_OPEN(port.SetNumOfStopBits(static_cast<SerialPort::StopBits>(2)));
  EXPECT_NOT_OPEN(port.SetFlowControl(static_cast<SerialPort::FlowControl>(3)));

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
  port.OpenSerialPortDevice();
  EXPECT_EQ(RememberedBy(port), kDefaults);
}

TEST_F(Settings, OfAClosedPortCannotBeAskedFor) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();

  EXPECT_NOT_OPEN(port.GetCharSize());
  EXPECT_NOT_OPEN(port.GetParity());
  EXPECT_NOT_OPEN(port.GetNumOfStopBits());
  EXPECT_NOT_OPEN(port.GetFlowControl());

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
}

TEST_F(Settings, ASetterThatCannotReadThrowsAndWritesAndRemembersNothing) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  for (const Setter& setter : Setters()) {
    SCOPED_TRACE(setter.text);
    m_tty.kernel.Script("tcgetattr", {Fails(EIO)});
    EXPECT_SYSTEM_ERROR(setter.apply(port), EIO, serialtext::kGetFailed);
    EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"tcgetattr(70)"});
  }
  EXPECT_EQ(RememberedBy(port), kDefaults);
}

TEST_F(Settings, ASetterThatCannotWriteThrowsItsTextBehindAndRemembersNothing) {
  SerialPort port(SerialTty::kDevice, true);
  for (const Setter& setter : Setters()) {
    SCOPED_TRACE(setter.text);
    m_tty.kernel.Script("tcsetattr", {Fails(EINVAL)});
    EXPECT_SYSTEM_ERROR(setter.apply(port), EINVAL, serialtext::SetFailed(SerialTty::kDevice, setter.text));
  }
  EXPECT_EQ(RememberedBy(port), kDefaults);
}

TEST_F(Settings, AGetterReadsTheAttributesAndNothingElse) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  port.GetBaudRate();
  port.GetCharSize();
  port.GetParity();
  port.GetNumOfStopBits();
  port.GetFlowControl();

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls(5, "tcgetattr(70)"));
}

TEST_F(Settings, AGetterThatCannotReadThrows) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.Script("tcgetattr", std::vector<Answer>(5, Fails(EIO)));

  EXPECT_SYSTEM_ERROR(port.GetBaudRate(), EIO, serialtext::kGetFailed);
  EXPECT_SYSTEM_ERROR(port.GetCharSize(), EIO, serialtext::kGetFailed);
  EXPECT_SYSTEM_ERROR(port.GetParity(), EIO, serialtext::kGetFailed);
  EXPECT_SYSTEM_ERROR(port.GetNumOfStopBits(), EIO, serialtext::kGetFailed);
  EXPECT_SYSTEM_ERROR(port.GetFlowControl(), EIO, serialtext::kGetFailed);
}

TEST_F(Settings, WithoutAttributesSettersSucceedWithoutTheDeviceAndGettersSeeZeros) {
  SerialPort port(SerialTty::kDevice, false);
  m_tty.attributes.c_cflag = SerialPort::BAUD_115200 | CS8 | PARENB | PARODD | CSTOPB | CRTSCTS;
  m_tty.kernel.SeenNow();
  for (const Setter& setter : Setters()) {
    setter.apply(port);
  }

  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_0);
  EXPECT_EQ(port.GetCharSize(), SerialPort::CHAR_SIZE_5);
  EXPECT_EQ(port.GetParity(), SerialPort::PARITY_NONE);
  EXPECT_EQ(port.GetNumOfStopBits(), SerialPort::STOP_BITS_1);
  EXPECT_EQ(port.GetFlowControl(), SerialPort::FLOW_CONTROL_NONE);
  for (const std::string& call : m_tty.kernel.SeenNow()) {
    EXPECT_EQ(call.substr(0, 5), "cfset") << call;
  }
  EXPECT_EQ(m_tty.written.size(), 0U);
}

TEST_F(Settings, InvalidArgumentsAreFoundAfterTheAttributesAreRead) {
  SerialPort port(SerialTty::kDevice, true);
  const std::vector<std::pair<std::string, std::function<void()>>> setters = {
      {serialtext::kInvalidParity, [&] { port.SetParity(static_cast<SerialPort::Parity>(3)); }},
      {serialtext::kInvalidStopBits, [&] { port.SetNumOfStopBits(static_cast<SerialPort::StopBits>(2)); }},
      {serialtext::kInvalidFlowControl, [&] { port.SetFlowControl(static_cast<SerialPort::FlowControl>(3)); }},
  };
  for (const auto& setter : setters) {
    SCOPED_TRACE(setter.first);
    const auto& set = setter.second;
    m_tty.kernel.SeenNow();
    EXPECT_EXACT_THROW(set(), std::invalid_argument, setter.first);
    EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"tcgetattr(70)"});

    m_tty.kernel.Script("tcgetattr", {Fails(EIO)});
    EXPECT_SYSTEM_ERROR(set(), EIO, serialtext::kGetFailed);
  }
}

TEST_F(Settings, WithoutAttributesInvalidArgumentsThrowAllTheSame) {
  SerialPort port(SerialTty::kDevice, false);

  EXPECT_EXACT_THROW(port.SetParity(static_cast<SerialPort::Parity>(3)), std::invalid_argument,
                     serialtext::kInvalidParity);
  EXPECT_EXACT_THROW(port.SetNumOfStopBits(static_cast<SerialPort::StopBits>(2)), std::invalid_argument,
                     serialtext::kInvalidStopBits);
  EXPECT_EXACT_THROW(port.SetFlowControl(static_cast<SerialPort::FlowControl>(3)), std::invalid_argument,
                     serialtext::kInvalidFlowControl);
  EXPECT_SYSTEM_ERROR(port.SetBaudRate(static_cast<SerialPort::BaudRate>(4095)), EINVAL, serialtext::kUnsupported);
}

// --- Character size --------------------------------------------------------------------------------------------------

TEST_F(CharSize, EveryOneReplacesTheOldOneAndNothingElse) {
  SerialPort port(SerialTty::kDevice, true);
  for (const auto size :
       {SerialPort::CHAR_SIZE_5, SerialPort::CHAR_SIZE_6, SerialPort::CHAR_SIZE_7, SerialPort::CHAR_SIZE_8}) {
    SCOPED_TRACE(size);
    for (const tcflag_t before : {CS5, CS6, CS7, CS8}) {
      SCOPED_TRACE(before);
      SetFlags(IXON | INPCK, before | PARENB | CSTOPB | CRTSCTS | SerialPort::BAUD_9600);

      port.SetCharSize(size);

      ExpectFlags(IXON | INPCK, static_cast<tcflag_t>(size) | PARENB | CSTOPB | CRTSCTS | SerialPort::BAUD_9600);
      EXPECT_EQ(port.GetCharSize(), size);
    }
    EXPECT_EQ(RememberedBy(port).charSize, size);
  }
}

TEST_F(CharSize, AnyOtherValueIsOredIntoTheControlFlags) {
  SerialPort port(SerialTty::kDevice, true);
  SetFlags(0, CS8);

  port.SetCharSize(static_cast<SerialPort::CharacterSize>(7));

  ExpectFlags(0, 7);
  EXPECT_EQ(port.GetCharSize(), SerialPort::CHAR_SIZE_5);
}

TEST_F(CharSize, AnyOtherValueIsRememberedAsItIs) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_0);
  port.SetCharSize(static_cast<SerialPort::CharacterSize>(CSTOPB | CS6));

  EXPECT_EQ(RememberedBy(port).charSize, CS6);
  EXPECT_NE(m_tty.written[3].c_cflag & CSTOPB, 0U);
}

// --- Parity ----------------------------------------------------------------------------------------------------------

TEST_F(Parity, EvenSetsParenbAndInpckAndClearsParodd) {
  SerialPort port(SerialTty::kDevice, true);
  for (const tcflag_t before : {0, PARENB, PARODD, PARENB | PARODD}) {
    SCOPED_TRACE(before);
    SetFlags(0, before | CS7);
    port.SetParity(SerialPort::PARITY_EVEN);
    ExpectFlags(INPCK, PARENB | CS7);
  }
  EXPECT_EQ(port.GetParity(), SerialPort::PARITY_EVEN);
  EXPECT_EQ(RememberedBy(port).parity, SerialPort::PARITY_EVEN);
}

TEST_F(Parity, OddSetsParenbParoddAndInpck) {
  SerialPort port(SerialTty::kDevice, true);
  for (const tcflag_t before : {0, PARENB, PARODD, PARENB | PARODD}) {
    SCOPED_TRACE(before);
    SetFlags(0, before | CS7);
    port.SetParity(SerialPort::PARITY_ODD);
    ExpectFlags(INPCK, PARENB | PARODD | CS7);
  }
  EXPECT_EQ(port.GetParity(), SerialPort::PARITY_ODD);
  EXPECT_EQ(RememberedBy(port).parity, SerialPort::PARITY_ODD);
}

TEST_F(Parity, NoneClearsParenbSetsIgnparAndLeavesParoddAndInpck) {
  SerialPort port(SerialTty::kDevice, true);
  for (const tcflag_t control : {0, PARODD}) {
    SCOPED_TRACE(control);
    for (const tcflag_t input : {0, INPCK}) {
      SCOPED_TRACE(input);
      SetFlags(input, control | PARENB | CS7);
      port.SetParity(SerialPort::PARITY_NONE);
      ExpectFlags(input | IGNPAR, control | CS7);
      EXPECT_EQ(port.GetParity(), SerialPort::PARITY_NONE);
    }
  }
}

TEST_F(Parity, EvenAndOddLeaveIgnpar) {
  SerialPort port(SerialTty::kDevice, true);
  for (const auto parity : {SerialPort::PARITY_EVEN, SerialPort::PARITY_ODD}) {
    SCOPED_TRACE(parity);
    SetFlags(IGNPAR, CS8);
    port.SetParity(parity);
    EXPECT_EQ(m_tty.attributes.c_iflag, kOtherInput | IGNPAR | INPCK);
  }
}

TEST_F(Parity, NoneReplacesAnotherRememberedOne) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetParity(SerialPort::PARITY_ODD);
  port.SetParity(SerialPort::PARITY_NONE);

  EXPECT_EQ(RememberedBy(port).parity, SerialPort::PARITY_NONE);
}

TEST_F(Parity, AnyOtherValueThrowsAndWritesAndRemembersNothing) {
  SerialPort port(SerialTty::kDevice, true);
  for (const int parity : {3, -1, INT_MAX}) {
    SCOPED_TRACE(parity);
    m_tty.written.clear();
    EXPECT_EXACT_THROW(port.SetParity(static_cast<SerialPort::Parity>(parity)), std::invalid_argument,
                       serialtext::kInvalidParity);
    EXPECT_TRUE(m_tty.written.empty());
  }
  EXPECT_EQ(RememberedBy(port), kDefaults);
}

// --- Stop bits -------------------------------------------------------------------------------------------------------

TEST_F(StopBits, OneClearsCstopbAndTwoSetIt) {
  SerialPort port(SerialTty::kDevice, true);
  for (const tcflag_t before : {0, CSTOPB}) {
    SCOPED_TRACE(before);
    SetFlags(INPCK, before | CS7 | PARENB);
    port.SetNumOfStopBits(SerialPort::STOP_BITS_2);
    ExpectFlags(INPCK, CSTOPB | CS7 | PARENB);
    EXPECT_EQ(port.GetNumOfStopBits(), SerialPort::STOP_BITS_2);

    SetFlags(INPCK, before | CS7 | PARENB);
    port.SetNumOfStopBits(SerialPort::STOP_BITS_1);
    ExpectFlags(INPCK, CS7 | PARENB);
    EXPECT_EQ(port.GetNumOfStopBits(), SerialPort::STOP_BITS_1);
  }
  EXPECT_EQ(RememberedBy(port).stopBits, SerialPort::STOP_BITS_1);
  port.SetNumOfStopBits(SerialPort::STOP_BITS_2);
  EXPECT_EQ(RememberedBy(port).stopBits, SerialPort::STOP_BITS_2);
}

TEST_F(StopBits, AnyOtherValueThrowsAndWritesAndRemembersNothing) {
  SerialPort port(SerialTty::kDevice, true);
  for (const int stopBits : {2, -1, INT_MAX}) {
    SCOPED_TRACE(stopBits);
    m_tty.written.clear();
    EXPECT_EXACT_THROW(port.SetNumOfStopBits(static_cast<SerialPort::StopBits>(stopBits)), std::invalid_argument,
                       serialtext::kInvalidStopBits);
    EXPECT_TRUE(m_tty.written.empty());
  }
  EXPECT_EQ(RememberedBy(port), kDefaults);
}

// --- Flow control ----------------------------------------------------------------------------------------------------

/// What every flow control begins with.
termios MadeRaw(termios attributes) {
  ::cfmakeraw(&attributes);
  return attributes;
}

TEST_F(FlowControl, HardwareMakesTheLineRawAndSetsCrtscts) {
  SerialPort port(SerialTty::kDevice, true);
  for (const tcflag_t before : {tcflag_t{0}, tcflag_t{CRTSCTS}}) {
    SCOPED_TRACE(before);
    SetFlags(IXON | IXANY | IXOFF | ICRNL, before | CS7 | PARENB | CSTOPB | SerialPort::BAUD_9600);
    const termios raw = MadeRaw(m_tty.attributes);

    port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE);

    EXPECT_EQ(m_tty.attributes.c_cflag, raw.c_cflag | CRTSCTS);
    EXPECT_EQ(m_tty.attributes.c_cflag, kOtherControl | CS8 | CSTOPB | SerialPort::BAUD_9600 | CRTSCTS);
    EXPECT_EQ(m_tty.attributes.c_iflag, raw.c_iflag);
    EXPECT_EQ(m_tty.attributes.c_oflag, raw.c_oflag);
    EXPECT_EQ(m_tty.attributes.c_lflag, raw.c_lflag);
    EXPECT_EQ(port.GetFlowControl(), SerialPort::FLOW_CONTROL_HARDWARE);
  }
  EXPECT_EQ(RememberedBy(port).flowControl, SerialPort::FLOW_CONTROL_HARDWARE);
}

TEST_F(FlowControl, SoftwareMakesTheLineRawSetsTheThreeInputFlagsAndLeavesCrtscts) {
  SerialPort port(SerialTty::kDevice, true);
  for (const tcflag_t before : {tcflag_t{0}, tcflag_t{CRTSCTS}}) {
    SCOPED_TRACE(before);
    SetFlags(ICRNL, before | CS7 | PARENB);
    const termios raw = MadeRaw(m_tty.attributes);

    port.SetFlowControl(SerialPort::FLOW_CONTROL_SOFTWARE);

    EXPECT_EQ(m_tty.attributes.c_cflag, raw.c_cflag);
    EXPECT_EQ(m_tty.attributes.c_cflag & CRTSCTS, before);
    EXPECT_EQ(m_tty.attributes.c_iflag, raw.c_iflag | IXON | IXANY | IXOFF);
  }
}

TEST_F(FlowControl, SoftwareIsRememberedButNeverReported) {
  SerialPort port(SerialTty::kDevice, true);

  port.SetFlowControl(SerialPort::FLOW_CONTROL_SOFTWARE);

  EXPECT_EQ(port.GetFlowControl(), SerialPort::FLOW_CONTROL_NONE);
  EXPECT_EQ(RememberedBy(port).flowControl, SerialPort::FLOW_CONTROL_SOFTWARE);
}

TEST_F(FlowControl, NoneMakesTheLineRawClearsCrtsctsAndLeavesIxoffAndIxany) {
  SerialPort port(SerialTty::kDevice, true);
  for (const tcflag_t before : {0, IXANY, IXOFF, IXANY | IXOFF}) {
    SCOPED_TRACE(before);
    SetFlags(before | IXON, CRTSCTS | CS7 | PARENB);
    const termios raw = MadeRaw(m_tty.attributes);

    port.SetFlowControl(SerialPort::FLOW_CONTROL_NONE);

    EXPECT_EQ(m_tty.attributes.c_cflag, raw.c_cflag & ~static_cast<tcflag_t>(CRTSCTS));
    EXPECT_EQ(m_tty.attributes.c_iflag, raw.c_iflag);
    EXPECT_EQ(m_tty.attributes.c_iflag & (IXON | IXANY | IXOFF), before);
    EXPECT_EQ(port.GetFlowControl(), SerialPort::FLOW_CONTROL_NONE);
  }
}

TEST_F(FlowControl, ResetsTheSizeAndTheParityOfTheDeviceWhileTheRememberedOnesStay) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetCharSize(SerialPort::CHAR_SIZE_7);
  port.SetParity(SerialPort::PARITY_EVEN);

  port.SetFlowControl(SerialPort::FLOW_CONTROL_NONE);

  EXPECT_EQ(port.GetCharSize(), SerialPort::CHAR_SIZE_8);
  EXPECT_EQ(port.GetParity(), SerialPort::PARITY_NONE);
  const Remembered remembered = RememberedBy(port);
  EXPECT_EQ(remembered.charSize, SerialPort::CHAR_SIZE_7);
  EXPECT_EQ(remembered.parity, SerialPort::PARITY_EVEN);
}

TEST_F(FlowControl, AnyOtherValueThrowsAndWritesAndRemembersNothing) {
  SerialPort port(SerialTty::kDevice, true);
  for (const int flowControl : {3, -1, INT_MAX}) {
    SCOPED_TRACE(flowControl);
    m_tty.written.clear();
    EXPECT_EXACT_THROW(port.SetFlowControl(static_cast<SerialPort::FlowControl>(flowControl)), std::invalid_argument,
                       serialtext::kInvalidFlowControl);
    EXPECT_TRUE(m_tty.written.empty());
  }
  EXPECT_EQ(RememberedBy(port), kDefaults);
}

// --- Modem bits ------------------------------------------------------------------------------------------------------

constexpr int kOtherBits = TIOCM_DTR | TIOCM_CTS | TIOCM_CD;

TEST_F(ModemBits, TheLoopbackIsSetAndClearedAloneAndInTwoCalls) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.modemBits = kOtherBits | TIOCM_RTS;
  m_tty.kernel.SeenNow();

  port.SetLoopback(true);
  EXPECT_EQ(m_tty.modemBits, kOtherBits | TIOCM_RTS | kLoopback);
  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"TIOCMGET(70)", "TIOCMSET(70, 0x8066)"}));

  port.SetLoopback(true);
  EXPECT_EQ(m_tty.modemBits, kOtherBits | TIOCM_RTS | kLoopback);
  port.SetLoopback(false);
  EXPECT_EQ(m_tty.modemBits, kOtherBits | TIOCM_RTS);
  port.SetLoopback(false);
  EXPECT_EQ(m_tty.modemBits, kOtherBits | TIOCM_RTS);
}

TEST_F(ModemBits, RtsIsSetAndClearedAloneAndInTwoCalls) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.modemBits = kOtherBits | kLoopback;
  m_tty.kernel.SeenNow();

  port.ReadyForReceive(true);
  EXPECT_EQ(m_tty.modemBits, kOtherBits | kLoopback | TIOCM_RTS);
  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"TIOCMGET(70)", "TIOCMSET(70, 0x8066)"}));

  port.ReadyForReceive(true);
  EXPECT_EQ(m_tty.modemBits, kOtherBits | kLoopback | TIOCM_RTS);
  port.ReadyForReceive(false);
  EXPECT_EQ(m_tty.modemBits, kOtherBits | kLoopback);
  port.ReadyForReceive(false);
  EXPECT_EQ(m_tty.modemBits, kOtherBits | kLoopback);
}

TEST_F(ModemBits, ADriverThatLeavesThemAloneHasNone) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.modemBits = kOtherBits;
  m_tty.kernel.Script("TIOCMGET", {Returns(0), Returns(0)});

  port.ReadyForReceive(true);
  EXPECT_EQ(m_tty.modemBits, TIOCM_RTS);
  port.SetLoopback(true);
  EXPECT_EQ(m_tty.modemBits, kLoopback);
}

TEST_F(ModemBits, AFailingReadOrWriteThrowsAndChangesNothing) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.modemBits = kOtherBits;
  for (const bool on : {false, true}) {
    SCOPED_TRACE(on ? "on" : "off");
    m_tty.kernel.SeenNow();
    m_tty.kernel.Script("TIOCMGET", {Fails(EINVAL), Fails(ENOTTY)});
    EXPECT_SYSTEM_ERROR(port.SetLoopback(on), EINVAL, serialtext::kLoopbackGetFailed);
    EXPECT_SYSTEM_ERROR(port.ReadyForReceive(on), ENOTTY, serialtext::kModemGetFailed);
    EXPECT_EQ(m_tty.kernel.SeenNow(), Calls(2, "TIOCMGET(70)"));

    m_tty.kernel.Script("TIOCMSET", {Fails(EINVAL), Fails(ENOTTY)});
    EXPECT_SYSTEM_ERROR(port.SetLoopback(on), EINVAL, serialtext::kLoopbackSetFailed);
    EXPECT_SYSTEM_ERROR(port.ReadyForReceive(on), ENOTTY, serialtext::kModemSetFailed);
    EXPECT_EQ(m_tty.modemBits, kOtherBits);
  }
}

TEST_F(ModemBits, AnyNegativeResultFailsForRtsButOnlyMinusOneForTheLoopback) {
  SerialPort port(SerialTty::kDevice, true);
  const Answer minusTwo{-2, EIO, {}, false};

  m_tty.kernel.Script("TIOCMGET", {minusTwo});
  EXPECT_SYSTEM_ERROR(port.ReadyForReceive(true), EIO, serialtext::kModemGetFailed);
  m_tty.kernel.Script("TIOCMSET", {minusTwo});
  EXPECT_SYSTEM_ERROR(port.ReadyForReceive(true), EIO, serialtext::kModemSetFailed);

  m_tty.kernel.Script("TIOCMGET", {minusTwo}).Script("TIOCMSET", {minusTwo});
  port.SetLoopback(true);
}

TEST_F(ModemBits, OfAClosedPortTheLoopbackIsRefusedAndRtsFailsInTheCall) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();

  EXPECT_NOT_OPEN(port.SetLoopback(true));
  EXPECT_NOT_OPEN(port.SetLoopback(false));
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});

  EXPECT_SYSTEM_ERROR(port.ReadyForReceive(true), EBADF, serialtext::kModemGetFailed);
  EXPECT_SYSTEM_ERROR(port.ReadyForReceive(false), EBADF, serialtext::kModemGetFailed);
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls(2, "TIOCMGET(-1)"));
}

TEST_F(ModemBits, WorkWithoutAttributesToo) {
  SerialPort port(SerialTty::kDevice, false);

  port.SetLoopback(true);
  port.ReadyForReceive(true);

  EXPECT_EQ(m_tty.modemBits, kLoopback | TIOCM_RTS);
}

}  // namespace
