// The serial port on a UART of the 16550 kind and the kernel's driver for it. Another machine is at the line's other
// end.
#include <File.h>
#include <SerialPort.h>

#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../serial/SerialTexts.h"
#include "ExpectBytes.h"
#include "ExpectThrow.h"
#include "SerialExtended.h"

namespace {

constexpr const char* kDevice = "/dev/ttyS0";
constexpr const char* kUnused = "/dev/ttyS3";  // a port of the driver without a UART

constexpr int kModemLoopback = 0x8000;
constexpr int kBase = 115200;        // bit/s, that of a UART's usual clock
constexpr int kBoardBase = 3906250;  // bit/s, that of a clock of 62.5 MHz

/// The device beside the port under test.
class Tty {
 public:
  Tty() : m_fd(::open(kDevice, O_RDWR | O_NOCTTY | O_NONBLOCK)) {
    EXPECT_NE(m_fd, -1);
  }
  ~Tty() {
    ::close(m_fd);
  }
  Tty(const Tty&) = delete;
  Tty& operator=(const Tty&) = delete;

  int Fd() const {
    return m_fd;
  }
  termios Attributes() const {
    termios attributes{};
    EXPECT_EQ(::tcgetattr(m_fd, &attributes), 0);
    return attributes;
  }
  int ModemLines() const {
    int lines = 0;
    EXPECT_EQ(::ioctl(m_fd, TIOCMGET, &lines), 0);
    return lines;
  }
  serial_struct Driver() const {
    serial_struct driver{};
    EXPECT_EQ(::ioctl(m_fd, TIOCGSERIAL, &driver), 0);
    return driver;
  }
  void SetBase(int bitsPerSecond) const {
    serial_struct driver = Driver();
    driver.baud_base = bitsPerSecond;
    EXPECT_EQ(::ioctl(m_fd, TIOCSSERIAL, &driver), 0);
  }

 private:
  int m_fd;
};

class Serial : public testing::Test {
 protected:
  Serial() {
    tty.SetBase(kBase);
  }
  ~Serial() override {
    tty.SetBase(m_base);
  }

  Tty tty;

 private:
  int m_base = tty.Driver().baud_base;
};

/// At most one chunk is in flight: less than the driver buffers, and as much as the other end waits for.
constexpr std::size_t kChunk = 2048;

std::string WriteAndReadBack(SerialPort& port, const std::string& text) {
  std::string received;
  for (std::size_t position = 0; position < text.size(); position += kChunk) {
    const std::string chunk = text.substr(position, kChunk);
    port.Write(chunk);
    std::vector<char> back(chunk.size());
    port.Read(back.data(), static_cast<unsigned int>(back.size()));
    received.append(back.begin(), back.end());
  }
  return received;
}

using Speeds = std::vector<SerialPort::BaudRate>;

const Speeds kSlow = {SerialPort::BAUD_50,    SerialPort::BAUD_75,    SerialPort::BAUD_110,   SerialPort::BAUD_134,
                      SerialPort::BAUD_150,   SerialPort::BAUD_200,   SerialPort::BAUD_300,   SerialPort::BAUD_600,
                      SerialPort::BAUD_1200,  SerialPort::BAUD_1800,  SerialPort::BAUD_2400,  SerialPort::BAUD_4800,
                      SerialPort::BAUD_9600,  SerialPort::BAUD_19200, SerialPort::BAUD_38400, SerialPort::BAUD_57600,
                      SerialPort::BAUD_115200};
const Speeds kFast = {SerialPort::BAUD_230400,  SerialPort::BAUD_460800,  SerialPort::BAUD_500000,
                      SerialPort::BAUD_576000,  SerialPort::BAUD_921600,  SerialPort::BAUD_1000000,
                      SerialPort::BAUD_1152000, SerialPort::BAUD_1500000, SerialPort::BAUD_2000000,
                      SerialPort::BAUD_2500000, SerialPort::BAUD_3000000};

TEST_F(Serial, EverySpeedUpToTheUartsFastestIsSetAndReadBack) {
  SerialPort port(kDevice, true);
  for (const SerialPort::BaudRate speed : kSlow) {
    SCOPED_TRACE(speed);
    port.SetBaudRate(speed);
    EXPECT_EQ(port.GetBaudRate(), speed);
    EXPECT_EQ(tty.Attributes().c_cflag & CBAUD, static_cast<tcflag_t>(speed));
  }
}

TEST_F(Serial, SpeedsBeyondTheUartAreTakenInSilenceAndTheOldOneStays) {
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_19200);
  for (const SerialPort::BaudRate speed : kFast) {
    port.SetBaudRate(speed);
    EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_19200) << speed;
  }
}

TEST_F(Serial, ASpeedBeyondTheUartAsTheFirstOneLeavesTheLineHungUp) {
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_3000000);
  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_0);
}

TEST_F(Serial, EverySpeedFrom134OnIsSetAndReadBackWithTheBoardsClock) {
  tty.SetBase(kBoardBase);
  SerialPort port(kDevice, true);
  Speeds speeds(kSlow.begin() + 3, kSlow.end());
  speeds.insert(speeds.end(), kFast.begin(), kFast.end());
  for (const SerialPort::BaudRate speed : speeds) {
    SCOPED_TRACE(speed);
    port.SetBaudRate(speed);
    EXPECT_EQ(port.GetBaudRate(), speed);
    EXPECT_EQ(tty.Attributes().c_cflag & CBAUD, static_cast<tcflag_t>(speed));
  }
}

TEST_F(Serial, EveryStandardSpeedIsTheOneThatTheKernelCallsSo) {
  tty.SetBase(kBoardBase);
  SerialPort port(kDevice, true);
  for (const int speed : {9600, 19200, 38400, 57600, 115200, 230400, 460800, 500000, 576000, 921600, 1000000, 1152000,
                          1500000, 2000000, 2500000, 3000000}) {
    SCOPED_TRACE(speed);
    const SerialPort::BaudRate code = SerialPort::ConversionToBaudrateEnum(speed);

    port.SetBaudRate(code);

    EXPECT_EQ(GetExtendedAttributes(tty.Fd()).outputSpeed, static_cast<unsigned int>(speed));
    EXPECT_EQ(port.GetBaudRate(), code);
  }
}

TEST_F(Serial, SpeedZeroIsSetAndReadBackAndDropsTheLines) {
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_9600);
  EXPECT_EQ(tty.ModemLines() & (TIOCM_RTS | TIOCM_DTR), TIOCM_RTS | TIOCM_DTR);

  port.SetBaudRate(SerialPort::BAUD_0);

  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_0);
  EXPECT_EQ(tty.ModemLines() & (TIOCM_RTS | TIOCM_DTR), 0);
}

TEST_F(Serial, EverySizeParityAndStopBitIsSetAndReadBackInEveryCombination) {
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_9600);
  for (const auto size :
       {SerialPort::CHAR_SIZE_5, SerialPort::CHAR_SIZE_6, SerialPort::CHAR_SIZE_7, SerialPort::CHAR_SIZE_8}) {
    SCOPED_TRACE(size);
    for (const auto parity : {SerialPort::PARITY_EVEN, SerialPort::PARITY_ODD, SerialPort::PARITY_NONE}) {
      SCOPED_TRACE(parity);
      for (const auto stopBits : {SerialPort::STOP_BITS_1, SerialPort::STOP_BITS_2}) {
        SCOPED_TRACE(stopBits);
        port.SetCharSize(size);
        port.SetParity(parity);
        port.SetNumOfStopBits(stopBits);

        EXPECT_EQ(port.GetCharSize(), size);
        EXPECT_EQ(port.GetParity(), parity);
        EXPECT_EQ(port.GetNumOfStopBits(), stopBits);
        const tcflag_t flags = tty.Attributes().c_cflag;
        EXPECT_EQ(flags & CSIZE, static_cast<tcflag_t>(size));
        EXPECT_EQ((flags & PARENB) != 0, parity != SerialPort::PARITY_NONE);
        EXPECT_EQ((flags & CSTOPB) != 0, stopBits == SerialPort::STOP_BITS_2);
      }
    }
  }
}

TEST_F(Serial, OpenEndsWithEightBitsWithoutParityWhateverWasAskedFor) {
  SerialPort port(kDevice, true);
  port.Close();

  port.Open(SerialPort::BAUD_19200, SerialPort::CHAR_SIZE_7, SerialPort::PARITY_EVEN, SerialPort::STOP_BITS_2,
            SerialPort::FLOW_CONTROL_HARDWARE);

  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_19200);
  EXPECT_EQ(port.GetCharSize(), SerialPort::CHAR_SIZE_8);
  EXPECT_EQ(port.GetParity(), SerialPort::PARITY_NONE);
  EXPECT_EQ(port.GetNumOfStopBits(), SerialPort::STOP_BITS_2);
  EXPECT_EQ(port.GetFlowControl(), SerialPort::FLOW_CONTROL_HARDWARE);
}

TEST_F(Serial, TheAttributesAfterClosingAreThoseBeforeOpening) {
  termios odd = tty.Attributes();
  odd.c_iflag |= ICRNL | INLCR | IXOFF;
  odd.c_lflag |= ICANON | ECHO;
  odd.c_cflag = CS7 | PARENB | PARODD | CSTOPB | CREAD | HUPCL | B4800;
  odd.c_cc[VINTR] = 'q';
  ASSERT_EQ(::tcsetattr(tty.Fd(), TCSANOW, &odd), 0);
  const termios before = tty.Attributes();
  {
    SerialPort port(kDevice, true);
    port.SetBaudRate(SerialPort::BAUD_115200);
    port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE);
    EXPECT_NE(tty.Attributes().c_lflag, before.c_lflag);
  }
  const termios after = tty.Attributes();

  EXPECT_EQ(after.c_iflag, before.c_iflag);
  EXPECT_EQ(after.c_oflag, before.c_oflag);
  EXPECT_EQ(after.c_cflag, before.c_cflag);
  EXPECT_EQ(after.c_lflag, before.c_lflag);
  EXPECT_EQ(std::memcmp(after.c_cc, before.c_cc, sizeof(after.c_cc)), 0);
  EXPECT_EQ(::cfgetospeed(&after), ::cfgetospeed(&before));
}

TEST_F(Serial, TheLoopbackBringsBack64KibibytesUnchanged) {
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetLoopback(true);
  EXPECT_NE(tty.ModemLines() & kModemLoopback, 0);
  constexpr std::size_t kSize = 65536;
  const std::string sent = Pattern(kSize);

  const std::string received = WriteAndReadBack(port, sent);

  EXPECT_SAME_BYTES(received, sent);
  EXPECT_EQ(port.AvailableBytesToRead(), 0);
}

TEST_F(Serial, ClosingSwitchesTheLoopbackOff) {
  {
    SerialPort port(kDevice, true);
    port.SetBaudRate(SerialPort::BAUD_115200);
    port.SetLoopback(true);
  }
  EXPECT_EQ(tty.ModemLines() & kModemLoopback, 0);
}

TEST_F(Serial, UnderLoopbackRtsIsSeenAsCts) {
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetLoopback(true);

  port.ReadyForReceive(false);
  EXPECT_EQ(tty.ModemLines() & (TIOCM_RTS | TIOCM_CTS), 0);
  port.ReadyForReceive(true);
  EXPECT_EQ(tty.ModemLines() & (TIOCM_RTS | TIOCM_CTS), TIOCM_RTS | TIOCM_CTS);
}

TEST_F(Serial, TheReceiveBufferTakesWhatTheDriverHolds) {
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetLoopback(true);
  constexpr int kLongEnough = 2000;  // ms
  EXPECT_FALSE(port.IsDataReceived(0));
  port.Write("board");
  while (port.AvailableBytesToRead() < 5 && port.IsDataReceived(kLongEnough)) {
  }

  port.ReadAllAvailableData();

  EXPECT_TRUE(port.IsDataAvailable());
  std::vector<unsigned char> received;
  port.Read(received, 0);
  EXPECT_EQ(std::string(received.begin(), received.end()), "board");
}

TEST_F(Serial, BetweenOpeningAndTheSettingOfTheSpeedRtsAndDtrAreDropped) {
  SerialPort port(kDevice, true);
  EXPECT_EQ(tty.ModemLines() & (TIOCM_RTS | TIOCM_DTR), 0);
  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_0);

  port.SetBaudRate(SerialPort::BAUD_9600);

  EXPECT_EQ(tty.ModemLines() & (TIOCM_RTS | TIOCM_DTR), TIOCM_RTS | TIOCM_DTR);
}

TEST_F(Serial, ADeviceThatRefusesTerminalAttributesCannotBeOpenedWithThem) {
  EXPECT_SYSTEM_ERROR(SerialPort(kUnused, true), EIO, serialtext::kSaveFailed);
}

TEST_F(Serial, ADeviceThatRefusesTerminalAttributesRefusesTheFlushWithoutThem) {
  EXPECT_SYSTEM_ERROR(SerialPort(kUnused, false), EIO, serialtext::kFlushFailed);
}

TEST_F(Serial, APortWithoutTerminalAttributesLeavesThoseOfTheDeviceAlone) {
  const termios before = tty.Attributes();
  SerialPort port(kDevice, false);
  port.SetBaudRate(SerialPort::BAUD_38400);
  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_0);
  EXPECT_EQ(tty.Attributes().c_cflag, before.c_cflag);
  port.Close();
  EXPECT_EQ(tty.Attributes().c_cflag, before.c_cflag);
}

TEST_F(Serial, ACustomSpeedThatTheClockAllowsIsSetAndKeptOverClosing) {
  constexpr std::uint32_t kSpeed = 250000;
  tty.SetBase(kBoardBase);
  const unsigned int found = GetExtendedAttributes(tty.Fd()).outputSpeed;
  const auto expectSpeed = [&](std::uint32_t speed) {
    const ExtendedAttributes extended = GetExtendedAttributes(tty.Fd());
    EXPECT_EQ(extended.inputSpeed, speed);
    EXPECT_EQ(extended.outputSpeed, speed);
  };
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_9600);

  port.SetCustomBaudRate(kSpeed);

  EXPECT_EQ(port.GetCustomBaudRate(), kSpeed);
  expectSpeed(kSpeed);
  EXPECT_EQ(GetExtendedAttributes(tty.Fd()).controlFlags & ExtendedAttributes::kSpeedMask,
            ExtendedAttributes::kOtherSpeed);

  // The setters use the ordinary attributes, which cannot hold it.
  port.SetNumOfStopBits(SerialPort::STOP_BITS_2);
  port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE);
  port.SetBaudRate(SerialPort::BAUD_19200);
  expectSpeed(kSpeed);

  port.Close();
  expectSpeed(found);
  port.Open(SerialPort::BAUD_9600, SerialPort::CHAR_SIZE_8, SerialPort::PARITY_NONE, SerialPort::STOP_BITS_1,
            SerialPort::FLOW_CONTROL_NONE);
  expectSpeed(kSpeed);

  port.SetCustomBaudRate(31250);
  expectSpeed(31250);
  port.SetCustomBaudRate(0);
  expectSpeed(9600);
  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_9600);
}

TEST_F(Serial, ACustomSpeedBeyondTheUartIsTakenInSilenceAndTheOldOneStays) {
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_9600);

  port.SetCustomBaudRate(250000);

  EXPECT_EQ(port.GetCustomBaudRate(), 250000U);
  EXPECT_EQ(GetExtendedAttributes(tty.Fd()).outputSpeed, 9600U);
  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_9600);
}

/// The only one that sends anything to the other end, which sends each chunk back when it is whole. On the virtual
/// board, BOARD_SENT names a file for what was sent: the machine outside compares it with what has arrived.
/// BOARD_RX_TRIGGER names the driver's number of bytes for which it takes an interrupt.
TEST_F(Serial, AMebibyteReachesTheOtherEndAndComesBackUnchanged) {
  SerialPort port(kDevice, true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  if (const char* const trigger = std::getenv("BOARD_RX_TRIGGER")) {
    // After a speed below 2400 it is 1, with which this many bytes take a minute.
    File(trigger, O_WRONLY, 0).PutString("14");
  }
  constexpr std::size_t kSize = 1048576;
  const std::string sent = Pattern(kSize);

  const std::string received = WriteAndReadBack(port, sent);

  EXPECT_SAME_BYTES(received, sent);
  EXPECT_EQ(port.AvailableBytesToRead(), 0);
  if (const char* const file = std::getenv("BOARD_SENT")) {
    std::ofstream(file, std::ios::binary) << sent;
  }
}

}  // namespace
