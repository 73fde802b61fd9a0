#include <linux/serial.h>
#include <termios.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../sys/SysTexts.h"
#include "ExpectText.h"
#include "SerialExtended.h"
#include "SerialPort.h"
#include "SerialPortFixture.h"
#include "SerialTexts.h"

namespace {

/// From the page's start on, up to 32 bytes after the register.
const Calls kAccessLineControl = MemoryStandIn::CallsFor(0x80011000, 0x2C);
const Calls kAccessLatchLow = MemoryStandIn::CallsFor(0x80011000, 0x20);
const Calls kAccessLatchHigh = MemoryStandIn::CallsFor(0x80011000, 0x24);
const Calls kAskingTheDriver = {"tcgetattr(70)", "tcgetattr(70)", "TIOCGSERIAL(70)"};
const Calls kSetting = {"tcgetattr(70)", "tcsetattr(70, TCSANOW)"};

const std::string kDeviceLine = "Device:    /dev/ttyS1\n";
const std::string kNoFlowControl = "Flowcontrol: None\n";

std::string SpeedLines(const std::string& output, const std::string& input) {
  return "Output Baudrate: " + output + "\nInput  Baudrate: " + input + "\n";
}
std::string SpeedLines(const std::string& both) {
  return SpeedLines(both, both);
}
std::string CustomSpeedLines(const std::string& speed) {
  return "Custom Output Baudrate: " + speed + "\nCustom  Baudrate:       " + speed + "\n";
}

Calls SettingSpeed(speed_t speed) {
  const std::string argument = "(" + std::to_string(speed) + ")";
  return {"tcgetattr(70)", "cfsetispeed" + argument, "cfsetospeed" + argument, "tcsetattr(70, TCSANOW)"};
}

class Report : public SerialTtyTest {
 protected:
  Report() {
    m_tty.info.baud_base = 3906250;
    m_tty.info.xmit_fifo_size = 64;
    m_tty.info.flags = 0x10000040;
    m_tty.info.irq = 42;
    m_registers.Set(SerialRegisters::kLineControl, 0x3);
    m_registers.Set(SerialRegisters::kLatchLow, 0x197);
  }

  /// The report's lines from the one that begins with @p from on.
  static std::string LinesFrom(const std::string& report, const std::string& from) {
    const auto position = report.find(from);
    return position == std::string::npos ? "no line of \"" + from + "\"" : report.substr(position);
  }

  void ExpectUntouchedRegisters() {
    EXPECT_EQ(m_registers.Get(SerialRegisters::kLineControl), 0x3U);
    EXPECT_EQ(m_registers.Get(SerialRegisters::kLatchLow), 0x197U);
    EXPECT_EQ(m_registers.Get(SerialRegisters::kLatchHigh), 0U);
  }

  const SerialRegisters m_registers{m_tty};
  const std::string m_driverLines =
      "Baud Base:     3906250\n"
      "FIFO Size:     64\n"
      "Flags:       0x10000040\n"
      "IRQ:           2a\n"
      "Divisor:       0\n";
  const std::string m_registerLines =
      "Line Register: 0x3\n"
      "Divisor Latch: 197\n"
      "Real baud rate: 9597.67\n";
};

// --- The text --------------------------------------------------------------------------------------------------------

TEST_F(Report, OfAPortWithTheDefaultsIsCompleteByteForByte) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_9600);

  EXPECT_EQ(port.ToString(), kDeviceLine + SpeedLines("9600") + kNoFlowControl + m_driverLines + m_registerLines);
}

TEST_F(Report, OfAClosedPortIsOneLineAndNoCallIsMade) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetCustomBaudRate(250000);
  port.Close();
  m_tty.kernel.SeenNow();

  EXPECT_EQ(port.ToString(), kDeviceLine + "not opened yet!\n");

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
  EXPECT_FALSE(port.IsOpen());
  ExpectUntouchedRegisters();
}

TEST_F(Report, ShowsTheSpeedsThatTheDeviceHasAsPrintableNumbers) {
  SerialPort port(SerialTty::kDevice, true);
  // Just constructed, no speed is set yet.
  EXPECT_BEGINS(port.ToString(), kDeviceLine + SpeedLines("0"));

  ::cfsetspeed(&m_tty.attributes, B3000000);
  EXPECT_BEGINS(port.ToString(), kDeviceLine + SpeedLines("2000000"));
  // A speed without a code, which some C libraries give as its number.
  m_tty.attributes.c_cflag = CS8 | ExtendedAttributes::kOtherSpeed;
  m_tty.attributes.c_ispeed = m_tty.attributes.c_ospeed = 250000;
  EXPECT_BEGINS(port.ToString(), kDeviceLine + SpeedLines("0"));
}

TEST_F(Report, TheOutputSpeedComesFirst) {
  SerialPort port(SerialTty::kDevice, true);
  termios settings{};
  ::cfsetospeed(&settings, B115200);
  ::cfsetispeed(&settings, B0);
  m_tty.attributes = settings;

  // To some C libraries this means no input speed, to others that of the output.
  const std::string input = ::cfgetispeed(&settings) == B0 ? "0" : "115200";
  EXPECT_BEGINS(port.ToString(), kDeviceLine + SpeedLines("115200", input));
}

TEST_F(Report, ReadsTheAttributesFirstAlsoWhereACustomSpeedIsShown) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetCustomBaudRate(250000);
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("tcgetattr", {Fails(EIO)});

  EXPECT_SYSTEM_ERROR(port.ToString(), EIO, serialtext::kGetFailed);

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"tcgetattr(70)"});
}

TEST_F(Report, RemembersTheSpeedAlsoWithoutAttributes) {
  SerialPort port(SerialTty::kDevice, false);
  port.SetBaudRate(SerialPort::BAUD_115200);
  m_tty.kernel.SeenNow();

  port.ToString();

  const Calls calls = m_tty.kernel.SeenNow();
  const std::string speed = std::to_string(B115200);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "cfsetispeed(" + speed + ")"), 1) << testing::PrintToString(calls);
}

TEST_F(Report, ShowsACustomSpeedInThePlaceOfTheDevices) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_9600);
  port.SetCustomBaudRate(250000);

  EXPECT_EQ(port.ToString(),
            kDeviceLine + CustomSpeedLines("250000") + kNoFlowControl + m_driverLines + m_registerLines);
}

TEST_F(Report, ShowsTheGreatestCustomSpeedWithoutASign) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetCustomBaudRate(4294967295U);

  EXPECT_BEGINS(port.ToString(), kDeviceLine + CustomSpeedLines("4294967295") + kNoFlowControl);
}

TEST_F(Report, ShowsHardwareFlowControlAndNeverTheSoftwareOne) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE);
  EXPECT_CONTAINS(port.ToString(), "\nFlowcontrol: Hardware\nBaud Base:");

  port.SetFlowControl(SerialPort::FLOW_CONTROL_NONE);
  port.SetFlowControl(SerialPort::FLOW_CONTROL_SOFTWARE);
  EXPECT_CONTAINS(port.ToString(), "\n" + kNoFlowControl + "Baud Base:");
}

TEST_F(Report, TheInterruptAndTheDivisorAreHexadecimalLikeTheFlagsBeforeThem) {
  m_tty.info.flags = 0xABCDEF;
  m_tty.info.irq = 42;
  m_tty.info.custom_divisor = 16;
  m_registers.Set(SerialRegisters::kLineControl, 0xFFFFFF1F);
  m_registers.Set(SerialRegisters::kLatchLow, 0x22);
  SerialPort port(SerialTty::kDevice, true);

  EXPECT_EQ(LinesFrom(port.ToString(), "Flags"),
            "Flags:       0xabcdef\n"
            "IRQ:           2a\n"
            "Divisor:       10\n"
            "Line Register: 0xffffff1f\n"
            "Divisor Latch: 22\n"
            "Real baud rate: 114890\n");
}

TEST_F(Report, NegativeNumbersOfTheDriverAreDecimalWithASignAndHexadecimalWithout) {
  m_tty.info.baud_base = -5;
  m_tty.info.xmit_fifo_size = -1;
  m_tty.info.flags = -1;
  m_tty.info.irq = -2;
  m_tty.info.custom_divisor = -16;
  SerialPort port(SerialTty::kDevice, true);

  EXPECT_CONTAINS(port.ToString(),
                  "\nBaud Base:     -5\n"
                  "FIFO Size:     -1\n"
                  "Flags:       0xffffffff\n"
                  "IRQ:           fffffffe\n"
                  "Divisor:       fffffff0\n");
}

TEST_F(Report, TheDriversInformationStartsAsZeros) {
  m_tty.kernel.Script("TIOCGSERIAL", {Returns(0)});
  SerialPort port(SerialTty::kDevice, true);

  EXPECT_CONTAINS(port.ToString(),
                  "\nBaud Base:     0\n"
                  "FIFO Size:     0\n"
                  "Flags:       0x0\n"
                  "IRQ:           0\n"
                  "Divisor:       0\n");
}

TEST_F(Report, TheLatchIsTheHighWordAboveTheLowOneInSixtyFourBits) {
  SerialPort port(SerialTty::kDevice, true);
  m_registers.Set(SerialRegisters::kLatchLow, 0x22);
  m_registers.Set(SerialRegisters::kLatchHigh, 0x1);
  EXPECT_EQ(LinesFrom(port.ToString(), "Divisor Latch"),
            "Divisor Latch: 100000022\n"
            "Real baud rate: 0.000909495\n");

  m_registers.Set(SerialRegisters::kLatchLow, 0xFFFFFFFF);
  m_registers.Set(SerialRegisters::kLatchHigh, 0xFFFFFFFF);
  EXPECT_EQ(LinesFrom(port.ToString(), "Divisor Latch"),
            "Divisor Latch: ffffffffffffffff\n"
            "Real baud rate: 2.11758e-13\n");

  m_registers.Set(SerialRegisters::kLatchLow, 0x80000000);
  m_registers.Set(SerialRegisters::kLatchHigh, 0);
  EXPECT_EQ(LinesFrom(port.ToString(), "Divisor Latch"),
            "Divisor Latch: 80000000\n"
            "Real baud rate: 0.00181899\n");
}

TEST_F(Report, ALatchOfZeroIsAnInfiniteSpeed) {
  m_registers.Set(SerialRegisters::kLatchLow, 0);
  SerialPort port(SerialTty::kDevice, true);

  EXPECT_EQ(LinesFrom(port.ToString(), "Divisor Latch"), "Divisor Latch: 0\nReal baud rate: inf\n");
}

TEST_F(Report, ALatchOfOneIsAFastSpeedInSixDigits) {
  m_registers.Set(SerialRegisters::kLatchLow, 1);
  SerialPort port(SerialTty::kDevice, true);

  EXPECT_EQ(LinesFrom(port.ToString(), "Divisor Latch"), "Divisor Latch: 1\nReal baud rate: 3.90625e+06\n");
}

TEST_F(Report, WithoutAttributesTheSpeedsAreZeroAndALineSaysSo) {
  SerialPort port(SerialTty::kDevice, false);
  m_tty.attributes.c_cflag = SerialPort::BAUD_115200 | CRTSCTS;

  EXPECT_EQ(port.ToString(), kDeviceLine + SpeedLines("0") + kNoFlowControl + m_driverLines +
                                 "Terminal Attributes are NOT supported!\n" + m_registerLines);
}

// --- The calls -------------------------------------------------------------------------------------------------------

TEST_F(Report, AsksTheDriverThenTheRegistersAndReopensThePort) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  port.ToString();

  EXPECT_EQ(m_tty.kernel.SeenNow(), kAskingTheDriver + kAccessLineControl + kAccessLineControl + kAccessLatchLow +
                                        kAccessLatchHigh + kClosing + kOpening + SettingSpeed(B9600) + kSetting +
                                        kSetting + kSetting + kSetting);
}

TEST_F(Report, WithoutAttributesOnlyTheyAreLeftOut) {
  SerialPort port(SerialTty::kDevice, false);
  m_tty.kernel.SeenNow();

  port.ToString();

  Calls settingSpeed = SettingSpeed(B9600);
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"TIOCGSERIAL(70)"} + kAccessLineControl + kAccessLineControl +
                                        kAccessLatchLow + kAccessLatchHigh + kClosingWithoutAttributes +
                                        kOpeningWithoutAttributes +
                                        Calls(++settingSpeed.begin(), --settingSpeed.end()));
}

TEST_F(Report, TheDivisorLatchAccessBitIsSetBesidesTheOthersAndNothingElseIsWritten) {
  SerialPort port(SerialTty::kDevice, true);
  m_registers.Set(SerialRegisters::kLineControl, 0x12345603);

  port.ToString();

  EXPECT_EQ(m_registers.Get(SerialRegisters::kLineControl), 0x12345683U);
  EXPECT_EQ(m_registers.Get(SerialRegisters::kLatchLow), 0x197U);
  EXPECT_EQ(m_registers.Get(SerialRegisters::kLatchHigh), 0U);
}

TEST_F(Report, AnAccessBitThatIsSetAlreadyIsShownAndStays) {
  SerialPort port(SerialTty::kDevice, true);
  m_registers.Set(SerialRegisters::kLineControl, 0x83);

  EXPECT_CONTAINS(port.ToString(), "\nLine Register: 0x83\n");

  EXPECT_EQ(m_registers.Get(SerialRegisters::kLineControl), 0x83U);
}

TEST_F(Report, AMappingThatCannotBeReleasedIsLetBe) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.Script("munmap", std::vector<Answer>(4, Fails(EINVAL)));

  EXPECT_EQ(LinesFrom(port.ToString(), "Line"), m_registerLines);
}

TEST_F(Report, ThePortIsOpenAfterwardsWithTheRememberedSettings) {
  m_tty.attributes.c_cflag = CS7 | SerialPort::BAUD_300;
  SerialPort port(SerialTty::kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetNumOfStopBits(SerialPort::STOP_BITS_2);
  port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE);
  port.SetCharSize(SerialPort::CHAR_SIZE_7);
  port.SetParity(SerialPort::PARITY_ODD);

  port.ToString();

  EXPECT_TRUE(port.IsOpen());
  // Making the line raw leaves the bit for odd parity, which means nothing without parity.
  EXPECT_EQ(ControlFlags(m_tty.attributes), CLOCAL | CREAD | CS8 | PARODD | CSTOPB | CRTSCTS | SerialPort::BAUD_115200);
  // What was found first is what closing restores, now as before.
  port.Close();
  EXPECT_EQ(m_tty.attributes.c_cflag, static_cast<tcflag_t>(CS7 | SerialPort::BAUD_300));
}

TEST_F(Report, TheRememberedSettingsSurviveSeveralReports) {
  SerialPort port(SerialTty::kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_19200);
  port.SetCustomBaudRate(250000);

  const std::string first = port.ToString();
  EXPECT_EQ(port.ToString().substr(0, 100), first.substr(0, 100));
  EXPECT_EQ(m_tty.outputSpeed, 250000U);
  EXPECT_EQ(port.GetCustomBaudRate(), 250000U);

  port.SetCustomBaudRate(0);
  EXPECT_BEGINS(port.ToString(), kDeviceLine + SpeedLines("19200"));
}

TEST_F(Report, TheReceiveBufferIsLost) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.received = "abc";
  port.ReadAllAvailableData();
  m_tty.received = "de";

  port.ToString();

  EXPECT_FALSE(port.IsDataAvailable());
  EXPECT_EQ(port.AvailableBytesToRead(), 0);
}

// --- Failures --------------------------------------------------------------------------------------------------------

TEST_F(Report, SettingsThatCannotBeReadThrowBeforeAnyRegisterIsTouched) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  m_tty.kernel.Script("tcgetattr", {Fails(EIO)});
  EXPECT_SYSTEM_ERROR(port.ToString(), EIO, serialtext::kGetFailed);
  EXPECT_EQ(m_tty.kernel.SeenNow(), First(1, kAskingTheDriver));

  // The flow control is read a second time.
  m_tty.kernel.Script("tcgetattr", {Real(), Fails(EIO)});
  EXPECT_SYSTEM_ERROR(port.ToString(), EIO, serialtext::kGetFailed);
  EXPECT_EQ(m_tty.kernel.SeenNow(), First(2, kAskingTheDriver));

  EXPECT_TRUE(port.IsOpen());
  ExpectUntouchedRegisters();
}

TEST_F(Report, ADriverWithoutSerialInformationThrowsBeforeAnyRegisterIsTouched) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  m_tty.received = "abc";
  port.ReadAllAvailableData();
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("TIOCGSERIAL", {Fails(ENOTTY)});

  EXPECT_SYSTEM_ERROR(port.ToString(), ENOTTY, serialtext::kInformationFailed);

  EXPECT_EQ(m_tty.kernel.SeenNow(), kAskingTheDriver);
  EXPECT_TRUE(port.IsOpen());
  EXPECT_TRUE(port.IsDataAvailable());
  ExpectUntouchedRegisters();
}

TEST_F(Report, OfTheDriversAnswersOnlyMinusOneIsAFailure) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.Script("TIOCGSERIAL", {{-2, EIO, {}, false}});

  EXPECT_EQ(LinesFrom(port.ToString(), "Line"), m_registerLines);
}

TEST_F(Report, MemoryThatCannotBeOpenedThrowsAndLeavesThePortOpenAndTheAccessBitAsItIsThen) {
  SerialPort port(SerialTty::kDevice, true);
  const std::vector<Calls> accesses = {kAccessLineControl, kAccessLineControl, kAccessLatchLow, kAccessLatchHigh};
  for (std::size_t failing = 0; failing < accesses.size(); ++failing) {
    SCOPED_TRACE("access " + std::to_string(failing));
    m_registers.Set(SerialRegisters::kLineControl, 0x3);
    m_tty.kernel.SeenNow();
    std::vector<Answer> answers(failing, Real());
    answers.push_back(Fails(EPERM));
    m_tty.kernel.Script("open", answers);

    EXPECT_SYSTEM_ERROR(port.ToString(), EPERM, systext::kMemoryError);

    Calls expected = kAskingTheDriver;
    for (std::size_t i = 0; i < failing; ++i) {
      expected = expected + accesses[i];
    }
    EXPECT_EQ(m_tty.kernel.SeenNow(), expected + First(1, accesses[failing]));
    EXPECT_TRUE(port.IsOpen());
    EXPECT_EQ(m_registers.Get(SerialRegisters::kLineControl), failing < 2 ? 0x3U : 0x83U);
  }
}

TEST_F(Report, MemoryThatCannotBeMappedThrowsAndIsClosedAndLeavesThePortOpenAndTheAccessBitAsItIsThen) {
  SerialPort port(SerialTty::kDevice, true);
  const std::vector<Calls> accesses = {kAccessLineControl, kAccessLineControl, kAccessLatchLow, kAccessLatchHigh};
  for (std::size_t failing = 0; failing < accesses.size(); ++failing) {
    SCOPED_TRACE("access " + std::to_string(failing));
    m_registers.Set(SerialRegisters::kLineControl, 0x3);
    m_tty.kernel.SeenNow();
    std::vector<Answer> answers(failing, Real());
    answers.push_back(Fails(EAGAIN));
    m_tty.kernel.Script("mmap", answers);

    EXPECT_SYSTEM_ERROR(port.ToString(), EAGAIN, systext::kMapError);

    Calls expected = kAskingTheDriver;
    for (std::size_t i = 0; i < failing; ++i) {
      expected = expected + accesses[i];
    }
    EXPECT_EQ(m_tty.kernel.SeenNow(), expected + First(2, accesses[failing]) + Calls{"close(71)"});
    EXPECT_TRUE(port.IsOpen());
    EXPECT_EQ(m_registers.Get(SerialRegisters::kLineControl), failing < 2 ? 0x3U : 0x83U);
  }
}

TEST_F(Report, AFailingCloseThrowsAndLeavesThePortOpen) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.Script("TIOCMGET", {Fails(EIO)});
  EXPECT_SYSTEM_ERROR(port.ToString(), EIO, serialtext::kLoopbackGetFailed);
  EXPECT_TRUE(port.IsOpen());

  m_tty.kernel.Script("TIOCMSET", {Fails(EIO)});
  EXPECT_SYSTEM_ERROR(port.ToString(), EIO, serialtext::kLoopbackSetFailed);
  EXPECT_TRUE(port.IsOpen());

  m_tty.kernel.Script("tcsetattr", {Fails(EIO)});
  EXPECT_SYSTEM_ERROR(port.ToString(), EIO, serialtext::CloseFailed(SerialTty::kDevice));
  EXPECT_TRUE(port.IsOpen());
  EXPECT_EQ(m_registers.Get(SerialRegisters::kLineControl), 0x83U);
}

TEST_F(Report, AFailingOpeningThrowsAndLeavesThePortClosed) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.Script("open", {Real(), Real(), Real(), Real(), Fails(ENODEV)});

  EXPECT_SYSTEM_ERROR(port.ToString(), ENODEV, serialtext::OpenFailed(SerialTty::kDevice));

  EXPECT_FALSE(port.IsOpen());
}

TEST_F(Report, AFailingSetterThrowsAndLeavesThePortOpen) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.Script("tcsetattr", {Real(), Real(), Real(), Fails(EIO)});

  EXPECT_SYSTEM_ERROR(port.ToString(), EIO, serialtext::SetFailed(SerialTty::kDevice, serialtext::kInvalidSize));

  EXPECT_TRUE(port.IsOpen());
}

}  // namespace
