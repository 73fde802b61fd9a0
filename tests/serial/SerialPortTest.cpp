#include "SerialPort.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Allocations.h"
#include "SerialPortFixture.h"
#include "SerialTexts.h"

namespace {

static_assert(!std::is_copy_constructible_v<SerialPort> && !std::is_copy_assignable_v<SerialPort>);
static_assert(!std::is_move_constructible_v<SerialPort> && !std::is_move_assignable_v<SerialPort>);
static_assert(!std::is_polymorphic_v<SerialPort>);
static_assert(std::is_nothrow_destructible_v<SerialPort>);

static_assert((O_RDWR | O_NOCTTY) == 0x102, "the number that the tests expect");

/// Attributes as a device may be found: nothing in them is what opening sets.
termios AsFound() {
  termios attributes{};
  attributes.c_iflag = ICRNL | IXON;
  attributes.c_oflag = OPOST | ONLCR;
  attributes.c_cflag = CS7 | PARENB | CREAD | HUPCL | SerialPort::BAUD_19200;
  attributes.c_lflag = ISIG | ICANON | ECHO;
  attributes.c_line = 5;
  for (cc_t& character : attributes.c_cc) {
    character = 42;
  }
  return attributes;
}

class Opening : public SerialTtyTest {};
class OpeningWithSettings : public SerialTtyTest {};
class Closing : public SerialTtyTest {};
class Destruction : public SerialTtyTest {};
class Attributes : public SerialTtyTest {};
class DriverSide : public SerialTtyTest {};

/// A step of opening that can fail.
struct OpeningFailure {
  const char* function;
  std::vector<Answer> answers;
  std::size_t calls;  // of kOpening, the failing one included
  int error;
  std::string message;
};

const std::vector<OpeningFailure>& FailuresBeforeTheDescriptorIsStored() {
  static const std::vector<OpeningFailure> failures = {
      {"tcgetattr", {Fails(ENOTTY)}, 3, ENOTTY, serialtext::kSaveFailed},
      {"tcgetattr", {{-2, EIO, {}, false}}, 3, EIO, serialtext::kSaveFailed},
      {"tcsetattr", {Fails(EINVAL)}, 4, EINVAL, serialtext::kWriteFailed},
      {"tcsetattr", {{-2, EIO, {}, false}}, 4, EIO, serialtext::kWriteFailed},
      {"tcflush", {Fails(EIO)}, 5, EIO, serialtext::kFlushFailed},
      {"tcflush", {{-2, EIO, {}, false}}, 5, EIO, serialtext::kFlushFailed},
  };
  return failures;
}

const std::vector<OpeningFailure>& FailuresAfterTheDescriptorIsStored() {
  static const std::vector<OpeningFailure> failures = {
      {"tcflush", {Real(), Fails(EIO)}, 6, EIO, serialtext::kFlushBothFailed},
      {"tcflush", {Real(), Real(), Fails(ENXIO)}, 7, ENXIO, serialtext::kFlushBothFailed},
      {"FIONREAD", {Fails(ENOTTY)}, 8, ENOTTY, serialtext::kFionreadFailed},
      {"FIONREAD", {{-2, EIO, {}, false}}, 8, EIO, serialtext::kFionreadFailed},
  };
  return failures;
}

// --- Opening ---------------------------------------------------------------------------------------------------------

TEST_F(Opening, TheConstructorOpensAndMakesEveryCallOnceInOrder) {
  const SerialPort port(SerialTty::kDevice, true);

  EXPECT_TRUE(port.IsOpen());
  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpening);
}

TEST_F(Opening, WithoutAttributesNoneAreReadOrWritten) {
  const SerialPort port(SerialTty::kDevice, false);

  EXPECT_TRUE(port.IsOpen());
  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpeningWithoutAttributes);
}

TEST_F(Opening, TheAttributesAreMadeAfreshAndRaw) {
  m_tty.attributes = AsFound();
  const SerialPort port(SerialTty::kDevice, true);

  ASSERT_EQ(m_tty.written.size(), 1U);
  const termios& raw = m_tty.written[0];
  EXPECT_EQ(raw.c_iflag, 0U);
  EXPECT_EQ(raw.c_oflag, 0U);
  EXPECT_EQ(raw.c_cflag, static_cast<tcflag_t>(CLOCAL | CREAD | CS8));
  EXPECT_EQ(raw.c_lflag, 0U);
  EXPECT_EQ(raw.c_line, 0U);
  for (int i = 0; i < NCCS; ++i) {
    EXPECT_EQ(raw.c_cc[i], i == VMIN ? 1 : 0) << i;
  }
  EXPECT_EQ(::cfgetispeed(&raw), static_cast<speed_t>(B0));
  EXPECT_EQ(::cfgetospeed(&raw), static_cast<speed_t>(B0));
}

TEST_F(Opening, AFailingOpenThrowsTheDevicesName) {
  for (const int error : {ENOENT, EACCES, EBUSY, EINTR}) {
    SCOPED_TRACE(ErrorName(error));
    m_tty.kernel.Script("open", {Fails(error)});

    EXPECT_SYSTEM_ERROR(SerialPort(SerialTty::kDevice, true), error, serialtext::OpenFailed(SerialTty::kDevice));

    EXPECT_EQ(m_tty.kernel.SeenNow(), First(1, kOpening));
  }
}

TEST_F(Opening, FlagsThatCannotBeClearedAreLetBe) {
  m_tty.kernel.Script("fcntl", {Fails(EPERM)});
  const SerialPort port(SerialTty::kDevice, true);

  EXPECT_TRUE(port.IsOpen());
  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpening);
}

TEST_F(Opening, AFailureBeforeTheDescriptorIsStoredClosesItAndKeepsTheErrno) {
  for (const OpeningFailure& failure : FailuresBeforeTheDescriptorIsStored()) {
    SCOPED_TRACE(std::string(failure.function) + ": " + failure.message);
    m_tty.kernel.Script(failure.function, failure.answers).Script("close", {Fails(EBADF)});

    EXPECT_SYSTEM_ERROR(SerialPort(SerialTty::kDevice, true), failure.error, failure.message);

    EXPECT_EQ(m_tty.kernel.SeenNow(), First(failure.calls, kOpening) + Calls{"close(70)"});
    m_tty.ForgetOpen();
  }
}

TEST_F(Opening, WithoutAttributesAFailingFlushClosesTheDescriptorToo) {
  m_tty.kernel.Script("tcflush", {Fails(ENOTTY)});

  EXPECT_SYSTEM_ERROR(SerialPort(SerialTty::kDevice, false), ENOTTY, serialtext::kFlushFailed);

  EXPECT_EQ(m_tty.kernel.SeenNow(), First(3, kOpeningWithoutAttributes) + Calls{"close(70)"});
}

TEST_F(Opening, AFailureAfterTheDescriptorIsStoredClosesItTooIfTheObjectIsNotMade) {
  for (const OpeningFailure& failure : FailuresAfterTheDescriptorIsStored()) {
    SCOPED_TRACE(std::string(failure.function) + ": " + failure.message);
    m_tty.kernel.Script(failure.function, failure.answers);

    EXPECT_SYSTEM_ERROR(SerialPort(SerialTty::kDevice, true), failure.error, failure.message);

    EXPECT_EQ(m_tty.kernel.SeenNow(), First(failure.calls, kOpening) + Calls{"close(70)"});
    EXPECT_FALSE(m_tty.IsOpen());
  }
}

TEST_F(Opening, AFailureBeforeTheDescriptorIsStoredLeavesALivingObjectClosed) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  for (const OpeningFailure& failure : FailuresBeforeTheDescriptorIsStored()) {
    SCOPED_TRACE(std::string(failure.function) + ": " + failure.message);
    m_tty.kernel.Script(failure.function, failure.answers);
    m_tty.kernel.SeenNow();

    EXPECT_SYSTEM_ERROR(port.OpenSerialPortDevice(), failure.error, failure.message);

    EXPECT_EQ(m_tty.kernel.SeenNow(), First(failure.calls, kOpening) + Calls{"close(70)"});
    EXPECT_FALSE(port.IsOpen());
    EXPECT_SYSTEM_ERROR(port.FlushInput(), EBADF, serialtext::kFlushInputFailed);
  }
}

TEST_F(Opening, AFailureAfterTheDescriptorIsStoredLeavesALivingObjectOpen) {
  SerialPort port(SerialTty::kDevice, true);
  for (const OpeningFailure& failure : FailuresAfterTheDescriptorIsStored()) {
    SCOPED_TRACE(std::string(failure.function) + ": " + failure.message);
    port.Close();
    m_tty.kernel.Script(failure.function, failure.answers);
    m_tty.kernel.SeenNow();

    EXPECT_SYSTEM_ERROR(port.OpenSerialPortDevice(), failure.error, failure.message);

    EXPECT_EQ(m_tty.kernel.SeenNow(), First(failure.calls, kOpening));
    EXPECT_TRUE(port.IsOpen());
    EXPECT_TRUE(m_tty.IsOpen());
  }
}

TEST_F(Opening, AFailingOpenLeavesALivingObjectClosed) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.Script("open", {Fails(ENODEV)});

  EXPECT_SYSTEM_ERROR(port.OpenSerialPortDevice(), ENODEV, serialtext::OpenFailed(SerialTty::kDevice));

  EXPECT_FALSE(port.IsOpen());
}

TEST_F(Opening, AnOpenPortIsNotOpenedAgainAndTheErrnoIsTheCurrentOne) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  errno = EXDEV;
  EXPECT_SYSTEM_ERROR(port.OpenSerialPortDevice(), EXDEV, serialtext::kAlreadyOpen);
  errno = EDOM;
  EXPECT_SYSTEM_ERROR(port.Open(SerialPort::BAUD_9600, SerialPort::CHAR_SIZE_8, SerialPort::PARITY_NONE,
                                SerialPort::STOP_BITS_1, SerialPort::FLOW_CONTROL_NONE),
                      EDOM, serialtext::kAlreadyOpen);

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
  EXPECT_TRUE(port.IsOpen());
}

TEST_F(Opening, WhatIsStillThereAfterTheFlushesIsReadByteByByteAndDropped) {
  m_tty.kernel.Script("FIONREAD", {Fills(3)}).Script("read", {Gives("a"), Gives("b"), Gives("c")});
  SerialPort port(SerialTty::kDevice, true);

  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpening + Calls(3, "read(70, 1)"));
  EXPECT_FALSE(port.IsDataAvailable());
}

TEST_F(Opening, AFailingReadWhileDrainingIsNoFailure) {
  m_tty.kernel.Script("FIONREAD", {Fills(3)}).Script("read", {Gives("a"), Fails(EIO)});
  SerialPort port(SerialTty::kDevice, true);

  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpening + Calls(2, "read(70, 1)"));
  EXPECT_TRUE(port.IsOpen());
  EXPECT_FALSE(port.IsDataAvailable());
}

TEST_F(Opening, TheReceiveBufferOutlivesClosingAndIsEmptiedAsTheLastStep) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.received = "abc";
  port.ReadAllAvailableData();
  std::vector<unsigned char> out;

  port.Close();
  m_tty.kernel.Script("FIONREAD", {Fails(EIO)});
  EXPECT_SYSTEM_ERROR(port.OpenSerialPortDevice(), EIO, serialtext::kFionreadFailed);
  EXPECT_TRUE(port.IsDataAvailable());

  port.Close();
  port.OpenSerialPortDevice();
  EXPECT_FALSE(port.IsDataAvailable());
  port.Read(out, 0);
  EXPECT_TRUE(out.empty());
}

// --- Opening with settings -------------------------------------------------------------------------------------------

const Calls kSetter = {"tcgetattr(70)", "tcsetattr(70, TCSANOW)"};
const Calls kSpeedSetter = {"tcgetattr(70)", "cfsetispeed(" + std::to_string(B115200) + ")",
                            "cfsetospeed(" + std::to_string(B115200) + ")", "tcsetattr(70, TCSANOW)"};

void OpenWith7DataBitsAndEvenParity(SerialPort& port) {
  port.Open(SerialPort::BAUD_115200, SerialPort::CHAR_SIZE_7, SerialPort::PARITY_EVEN, SerialPort::STOP_BITS_2,
            SerialPort::FLOW_CONTROL_HARDWARE);
}

TEST_F(OpeningWithSettings, TheFiveSettersFollowTheOpeningInOrder) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();
  m_tty.written.clear();

  OpenWith7DataBitsAndEvenParity(port);

  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpening + kSpeedSetter + kSetter + kSetter + kSetter + kSetter);
  ASSERT_EQ(m_tty.written.size(), 6U);
  constexpr tcflag_t kRaw = CLOCAL | CREAD;
  EXPECT_EQ(ControlFlags(m_tty.written[1]), kRaw | CS8 | SerialPort::BAUD_115200);
  EXPECT_EQ(ControlFlags(m_tty.written[2]), kRaw | CS7 | SerialPort::BAUD_115200);
  EXPECT_EQ(ControlFlags(m_tty.written[3]), kRaw | CS7 | PARENB | SerialPort::BAUD_115200);
  EXPECT_EQ(ControlFlags(m_tty.written[4]), kRaw | CS7 | PARENB | CSTOPB | SerialPort::BAUD_115200);
  EXPECT_EQ(ControlFlags(m_tty.written[5]), kRaw | CS8 | CSTOPB | CRTSCTS | SerialPort::BAUD_115200);
}

TEST_F(OpeningWithSettings, SevenDataBitsAndEvenParityEndAsEightBitsWithoutParity) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();

  OpenWith7DataBitsAndEvenParity(port);

  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_115200);
  EXPECT_EQ(port.GetCharSize(), SerialPort::CHAR_SIZE_8);
  EXPECT_EQ(port.GetParity(), SerialPort::PARITY_NONE);
  EXPECT_EQ(port.GetNumOfStopBits(), SerialPort::STOP_BITS_2);
  EXPECT_EQ(port.GetFlowControl(), SerialPort::FLOW_CONTROL_HARDWARE);
}

TEST_F(OpeningWithSettings, WithoutAttributesItIsOpeningAlone) {
  SerialPort port(SerialTty::kDevice, false);
  port.Close();
  m_tty.kernel.SeenNow();

  OpenWith7DataBitsAndEvenParity(port);

  const Calls speeds = {kSpeedSetter[1], kSpeedSetter[2]};
  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpeningWithoutAttributes + speeds);
}

TEST_F(OpeningWithSettings, AFailingSetterLeavesThePortOpenWithTheSettingsSoFar) {
  const std::string texts[] = {serialtext::kUnsupported, serialtext::kInvalidSize, serialtext::kInvalidParity,
                               serialtext::kInvalidStopBits, serialtext::kInvalidFlowControl};
  SerialPort port(SerialTty::kDevice, true);
  for (std::size_t setter = 0; setter < std::size(texts); ++setter) {
    SCOPED_TRACE(texts[setter]);
    port.Close();
    m_tty.written.clear();
    m_tty.kernel.SeenNow();
    std::vector<Answer> answers(setter + 1, Real());  // the first is opening's
    answers.push_back(Fails(EINVAL));
    m_tty.kernel.Script("tcsetattr", answers);

    EXPECT_SYSTEM_ERROR(OpenWith7DataBitsAndEvenParity(port), EINVAL,
                        serialtext::SetFailed(SerialTty::kDevice, texts[setter]));

    EXPECT_TRUE(port.IsOpen());
    EXPECT_EQ(m_tty.written.size(), setter + 1);
    Calls expected = kOpening + kSpeedSetter;
    for (std::size_t i = 0; i < setter; ++i) {
      expected = expected + kSetter;
    }
    EXPECT_EQ(m_tty.kernel.SeenNow(), expected);
  }
}

TEST_F(OpeningWithSettings, AnInvalidSettingLeavesThePortOpen) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();

  EXPECT_EXACT_THROW(port.Open(SerialPort::BAUD_9600, SerialPort::CHAR_SIZE_8, static_cast<SerialPort::Parity>(3),
                               SerialPort::STOP_BITS_1, SerialPort::FLOW_CONTROL_NONE),
                     std::invalid_argument, serialtext::kInvalidParity);

  EXPECT_TRUE(port.IsOpen());
}

TEST_F(OpeningWithSettings, AFailingOpeningAppliesNone) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("FIONREAD", {Fails(EIO)});

  EXPECT_SYSTEM_ERROR(OpenWith7DataBitsAndEvenParity(port), EIO, serialtext::kFionreadFailed);

  EXPECT_TRUE(port.IsOpen());
  EXPECT_EQ(m_tty.kernel.SeenNow(), kOpening);
}

// --- Closing ---------------------------------------------------------------------------------------------------------

TEST_F(Closing, TheLoopbackIsSwitchedOffTheAttributesArePutBackAndTheDescriptorIsClosed) {
  const termios found = AsFound();
  m_tty.attributes = found;
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  port.Close();

  EXPECT_EQ(m_tty.kernel.SeenNow(), kClosing);
  EXPECT_FALSE(port.IsOpen());
  EXPECT_FALSE(m_tty.IsOpen());
  EXPECT_EQ(BytesOf(m_tty.attributes), BytesOf(found));
}

TEST_F(Closing, WithoutAttributesNoneAreWritten) {
  SerialPort port(SerialTty::kDevice, false);
  m_tty.kernel.SeenNow();

  port.Close();

  EXPECT_EQ(m_tty.kernel.SeenNow(), kClosingWithoutAttributes);
}

TEST_F(Closing, OfTheModemBitsOnlyTheLoopbackIsCleared) {
  m_tty.modemBits = TIOCM_RTS | TIOCM_DTR | kLoopback;
  SerialPort port(SerialTty::kDevice, true);

  port.Close();

  EXPECT_EQ(m_tty.modemBits, TIOCM_RTS | TIOCM_DTR);
}

TEST_F(Closing, EveryOpeningSavesTheAttributesAnew) {
  m_tty.attributes.c_cflag = CS5 | SerialPort::BAUD_1200;
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  const termios found = AsFound();
  m_tty.attributes = found;

  port.OpenSerialPortDevice();
  port.Close();

  EXPECT_EQ(BytesOf(m_tty.attributes), BytesOf(found));
}

TEST_F(Closing, TheErrorNumberIsTheFailedCallsEvenIfAllocatingTheMessageChangesErrno) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.Script("tcsetattr", {Fails(EIO), Fails(EIO), Real()});
  const ErrnoChangingAllocations changing;
  EXPECT_SYSTEM_ERROR(port.SetPortSettings(termios{}, ""), EIO, serialtext::SetFailed(SerialTty::kDevice, ""));
  EXPECT_SYSTEM_ERROR(port.Close(), EIO, serialtext::CloseFailed(SerialTty::kDevice));
  port.Close();
  m_tty.kernel.Script("open", {Fails(ENXIO)});
  EXPECT_SYSTEM_ERROR(port.OpenSerialPortDevice(), ENXIO, serialtext::OpenFailed(SerialTty::kDevice));
}

TEST_F(Closing, AClosedPortThrowsAndMakesNoCall) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();

  EXPECT_NOT_OPEN(port.Close());

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
}

TEST_F(Closing, ALoopbackThatCannotBeSwitchedOffLeavesThePortOpenAndItsAttributesAsTheyAre) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  m_tty.kernel.Script("TIOCMGET", {Fails(EINVAL)});
  EXPECT_SYSTEM_ERROR(port.Close(), EINVAL, serialtext::kLoopbackGetFailed);
  EXPECT_EQ(m_tty.kernel.SeenNow(), First(1, kClosing));
  EXPECT_TRUE(port.IsOpen());

  m_tty.kernel.Script("TIOCMSET", {Fails(EIO)});
  EXPECT_SYSTEM_ERROR(port.Close(), EIO, serialtext::kLoopbackSetFailed);
  EXPECT_EQ(m_tty.kernel.SeenNow(), First(2, kClosing));
  EXPECT_TRUE(port.IsOpen());

  port.Close();
  EXPECT_EQ(m_tty.kernel.SeenNow(), kClosing);
}

TEST_F(Closing, AttributesThatCannotBePutBackLeaveThePortOpen) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  for (const Answer& answer : {Fails(EIO), Answer{-2, EIO, {}, false}}) {
    SCOPED_TRACE(answer);
    m_tty.kernel.Script("tcsetattr", {answer});
    EXPECT_SYSTEM_ERROR(port.Close(), EIO, serialtext::CloseFailed(SerialTty::kDevice));
    EXPECT_EQ(m_tty.kernel.SeenNow(), First(3, kClosing));
    EXPECT_TRUE(port.IsOpen());
  }

  port.Close();
  EXPECT_EQ(m_tty.kernel.SeenNow(), kClosing);
}

TEST_F(Closing, AnInterruptedCloseIsRepeated) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("close", {Fails(EINTR), Fails(EINTR), Real()});

  port.Close();

  EXPECT_EQ(m_tty.kernel.SeenNow(), kClosing + Calls(2, "close(70)"));
  EXPECT_FALSE(port.IsOpen());
}

TEST_F(Closing, AnyOtherFailureOfCloseIsAcceptedWithoutAnotherTry) {
  for (const int error : {EIO, EBADF, EAGAIN, ENOSPC}) {
    SCOPED_TRACE(error);
    SerialPort port(SerialTty::kDevice, true);
    m_tty.kernel.SeenNow();
    m_tty.kernel.Script("close", {Fails(error)});

    port.Close();

    EXPECT_EQ(m_tty.kernel.SeenNow(), kClosing);
    EXPECT_FALSE(port.IsOpen());
    m_tty.ForgetOpen();
  }
}

TEST_F(Closing, ACloseThatSucceedsIsNotRepeatedWhateverTheErrnoSays) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("close", {{0, EINTR, {}, false}});

  port.Close();

  EXPECT_EQ(m_tty.kernel.SeenNow(), kClosing);
  EXPECT_FALSE(port.IsOpen());
  m_tty.ForgetOpen();
}

TEST_F(Closing, AfterItTheDescriptorIsNoLongerUsed) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();

  EXPECT_SYSTEM_ERROR(port.AvailableBytesToRead(), EBADF, serialtext::kFionreadFailed);

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"FIONREAD(-1)"});
}

// --- Destruction -----------------------------------------------------------------------------------------------------

TEST_F(Destruction, OfAnOpenPortClosesIt) {
  {
    const SerialPort port(SerialTty::kDevice, true);
    m_tty.kernel.SeenNow();
  }

  EXPECT_EQ(m_tty.kernel.SeenNow(), kClosing);
  EXPECT_FALSE(m_tty.IsOpen());
}

TEST_F(Destruction, OfAClosedPortDoesNothing) {
  {
    SerialPort port(SerialTty::kDevice, true);
    port.Close();
    m_tty.kernel.SeenNow();
  }

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
}

/// Lets @p function fail while a port is destroyed. The tty lives in the dying process only: the calls by which that
/// one is watched must not be noted.
void DestroyWhileFailing(const char* function) {
  SerialTty tty;
  const SerialPort port(SerialTty::kDevice, true);
  tty.kernel.Script(function, {Fails(EIO)});
}

/// A regular expression for @p text: a full stop for each character that would mean something else.
std::string Expression(std::string text) {
  for (char& character : text) {
    character = std::strchr("()[]{}?*+|^$\\", character) == nullptr ? character : '.';
  }
  return text;
}

TEST(DestructionDeathTest, APortThatCannotBeClosedEndsTheProcess) {
  EXPECT_EXIT(DestroyWhileFailing("TIOCMGET"), testing::KilledBySignal(SIGABRT), serialtext::kLoopbackGetFailed);
  EXPECT_EXIT(DestroyWhileFailing("TIOCMSET"), testing::KilledBySignal(SIGABRT), serialtext::kLoopbackSetFailed);
  EXPECT_EXIT(DestroyWhileFailing("tcsetattr"), testing::KilledBySignal(SIGABRT),
              Expression(serialtext::CloseFailed(SerialTty::kDevice) + ": Input/output error"));
}

// --- The attributes as a whole ---------------------------------------------------------------------------------------

TEST_F(Attributes, AreReadFromTheDevice) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  const termios set = AsFound();
  m_tty.attributes = set;
  termios settings{};

  port.GetTheCurrentPortSettings(settings);

  EXPECT_EQ(BytesOf(settings), BytesOf(set));
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"tcgetattr(70)"});
}

TEST_F(Attributes, AreWrittenAtOnce) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  const termios settings = AsFound();

  port.SetPortSettings(settings, "not needed");

  EXPECT_EQ(BytesOf(m_tty.attributes), BytesOf(settings));
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"tcsetattr(70, TCSANOW)"});
}

TEST_F(Attributes, WhereThereAreNoneNothingIsReadOrWritten) {
  SerialPort port(SerialTty::kDevice, false);
  m_tty.kernel.SeenNow();
  const termios before = AsFound();
  termios settings = before;

  port.GetTheCurrentPortSettings(settings);
  port.SetPortSettings(settings, "not needed");
  port.Close();
  EXPECT_EQ(m_tty.kernel.SeenNow(), kClosingWithoutAttributes);
  port.GetTheCurrentPortSettings(settings);
  port.SetPortSettings(settings, "not needed");

  EXPECT_EQ(BytesOf(settings), BytesOf(before));
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
}

TEST_F(Attributes, AnyNegativeResultOfReadingThrows) {
  SerialPort port(SerialTty::kDevice, true);
  termios settings{};
  for (const Answer& answer : {Fails(EIO), Answer{-2, EIO, {}, false}}) {
    SCOPED_TRACE(answer);
    m_tty.kernel.Script("tcgetattr", {answer});
    EXPECT_SYSTEM_ERROR(port.GetTheCurrentPortSettings(settings), EIO, serialtext::kGetFailed);
  }
}

TEST_F(Attributes, AnyNegativeResultOfWritingThrowsWithTheContextRightBehind) {
  SerialPort port(SerialTty::kDevice, true);
  for (const Answer& answer : {Fails(EINVAL), Answer{-2, EINVAL, {}, false}}) {
    SCOPED_TRACE(answer);
    m_tty.kernel.Script("tcsetattr", {answer, answer});
    EXPECT_SYSTEM_ERROR(port.SetPortSettings({}, "This is the context."), EINVAL,
                        serialtext::SetFailed(SerialTty::kDevice, "This is the context."));
    EXPECT_SYSTEM_ERROR(port.SetPortSettings({}, ""), EINVAL, serialtext::SetFailed(SerialTty::kDevice, ""));
  }
}

TEST_F(Attributes, OfAClosedPortFailInTheCall) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();
  termios settings{};

  EXPECT_SYSTEM_ERROR(port.GetTheCurrentPortSettings(settings), EBADF, serialtext::kGetFailed);
  EXPECT_SYSTEM_ERROR(port.SetPortSettings(settings, "!"), EBADF, serialtext::SetFailed(SerialTty::kDevice, "!"));

  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"tcgetattr(-1)", "tcsetattr(-1, TCSANOW)"}));
}

// --- What the driver holds -------------------------------------------------------------------------------------------

TEST_F(DriverSide, TheNumberOfBytesIsTheDrivers) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  EXPECT_EQ(port.AvailableBytesToRead(), 0);
  m_tty.received = "0123456";
  EXPECT_EQ(port.AvailableBytesToRead(), 7);

  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"FIONREAD(70)", "FIONREAD(70)"}));
}

TEST_F(DriverSide, ADriverThatLeavesTheNumberAloneHoldsNothing) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.Script("FIONREAD", {Returns(0), Returns(0)});

  EXPECT_EQ(port.AvailableBytesToRead(), 0);
  port.ReadAllAvailableData();
}

TEST_F(DriverSide, CountingFailsWithTheMessageThatIsShared) {
  SerialPort port(SerialTty::kDevice, true);
  for (const Answer& answer : {Fails(EIO), Answer{-2, EIO, {}, false}}) {
    SCOPED_TRACE(answer);
    m_tty.kernel.Script("FIONREAD", {answer, answer});
    EXPECT_SYSTEM_ERROR(port.AvailableBytesToRead(), EIO, serialtext::kFionreadFailed);
    EXPECT_SYSTEM_ERROR(port.ReadAllAvailableData(), EIO, serialtext::kFionreadFailed);
  }
}

TEST_F(DriverSide, AllThatIsThereIsReadByteByByteAndWhatComesMeanwhileWaits) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  m_tty.received = "abcde";
  m_tty.kernel.Script("FIONREAD", {Fills(3)});

  port.ReadAllAvailableData();

  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"FIONREAD(70)", "read(70, 1)", "read(70, 1)", "read(70, 1)"}));
  EXPECT_EQ(m_tty.received, "de");
}

TEST_F(DriverSide, ACountThatIsNotPositiveReadsNothing) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("FIONREAD", {Fills(0), Fills(-1)});

  port.ReadAllAvailableData();
  port.ReadAllAvailableData();

  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"FIONREAD(70)", "FIONREAD(70)"}));
}

TEST_F(DriverSide, AReadThatFailsOrIsEmptyEndsItSilentlyAndTheBytesBeforeStay) {
  for (const Answer& end : {Fails(EIO), Fails(EINTR), Fails(EAGAIN), Returns(0), Answer{-2, EIO, {}, false}}) {
    SCOPED_TRACE(end);
    SerialPort port(SerialTty::kDevice, true);
    m_tty.kernel.SeenNow();
    m_tty.kernel.Script("FIONREAD", {Fills(5)}).Script("read", {Gives("x"), Gives("y"), end});

    port.ReadAllAvailableData();

    EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"FIONREAD(70)", "read(70, 1)", "read(70, 1)", "read(70, 1)"}));
    std::vector<unsigned char> out;
    port.Read(out, 0);
    EXPECT_EQ(out, (std::vector<unsigned char>{'x', 'y'}));
  }
}

TEST_F(DriverSide, EachFlushDiscardsItsDirections) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  port.FlushInput();
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"tcflush(70, TCIFLUSH)"});
  port.FlushOutput();
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"tcflush(70, TCOFLUSH)"});
  port.FlushInputAndOutput();
  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"tcflush(70, TCIOFLUSH)", "tcflush(70, TCIFLUSH)"}));
}

TEST_F(DriverSide, FlushingLeavesTheReceiveBufferAlone) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.received = "ab";
  port.ReadAllAvailableData();

  port.FlushInput();
  port.FlushOutput();
  port.FlushInputAndOutput();

  std::vector<unsigned char> out;
  port.Read(out, 0);
  EXPECT_EQ(out, (std::vector<unsigned char>{'a', 'b'}));
}

TEST_F(DriverSide, AnyNegativeResultOfAFlushThrowsItsMessage) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  for (const Answer& answer : {Fails(EIO), Answer{-2, EIO, {}, false}}) {
    SCOPED_TRACE(answer);
    m_tty.kernel.Script("tcflush", {answer, answer, answer});
    EXPECT_SYSTEM_ERROR(port.FlushInput(), EIO, serialtext::kFlushInputFailed);
    EXPECT_SYSTEM_ERROR(port.FlushOutput(), EIO, serialtext::kFlushOutputFailed);
    m_tty.kernel.SeenNow();
    EXPECT_SYSTEM_ERROR(port.FlushInputAndOutput(), EIO, serialtext::kFlushBothFailed);
    EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"tcflush(70, TCIOFLUSH)"});
    m_tty.kernel.Script("tcflush", {Real(), answer});
    EXPECT_SYSTEM_ERROR(port.FlushInputAndOutput(), EIO, serialtext::kFlushBothFailed);
    m_tty.kernel.SeenNow();
  }
}

TEST_F(DriverSide, OfAClosedPortFailsInTheCallWithItsOwnMessage) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();

  EXPECT_SYSTEM_ERROR(port.AvailableBytesToRead(), EBADF, serialtext::kFionreadFailed);
  EXPECT_SYSTEM_ERROR(port.ReadAllAvailableData(), EBADF, serialtext::kFionreadFailed);
  EXPECT_SYSTEM_ERROR(port.FlushInput(), EBADF, serialtext::kFlushInputFailed);
  EXPECT_SYSTEM_ERROR(port.FlushOutput(), EBADF, serialtext::kFlushOutputFailed);
  EXPECT_SYSTEM_ERROR(port.FlushInputAndOutput(), EBADF, serialtext::kFlushBothFailed);
}

}  // namespace
