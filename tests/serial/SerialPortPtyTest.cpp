#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ExpectBytes.h"
#include "JoiningThread.h"
#include "OpenDescriptors.h"
#include "PtyLine.h"
#include "SerialPort.h"
#include "SerialPortFixture.h"
#include "SerialTexts.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t kMebibyte = std::size_t{1} << 20U;

termios AttributesOf(int fd) {
  termios attributes{};
  EXPECT_EQ(::tcgetattr(fd, &attributes), 0);
  return attributes;
}

void ExpectSame(const termios& one, const termios& other) {
  EXPECT_EQ(one.c_iflag, other.c_iflag);
  EXPECT_EQ(one.c_oflag, other.c_oflag);
  EXPECT_EQ(one.c_cflag, other.c_cflag);
  EXPECT_EQ(one.c_lflag, other.c_lflag);
  EXPECT_EQ(one.c_line, other.c_line);
  EXPECT_EQ(std::memcmp(one.c_cc, other.c_cc, sizeof(one.c_cc)), 0);
  EXPECT_EQ(::cfgetispeed(&one), ::cfgetispeed(&other));
  EXPECT_EQ(::cfgetospeed(&one), ::cfgetospeed(&other));
}

/// On a real line; only the modem bits, which such a line does not have, are stood in for.
class PtyPort : public testing::Test {
 protected:
  PtyLine m_line;
  PtyModem m_modem;
};

TEST_F(PtyPort, TheAttributesAreAfterClosingWhatTheyWereBeforeOpening) {
  termios found = AttributesOf(m_line.NearEnd());
  found.c_iflag |= IXOFF | INLCR;
  found.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  found.c_cc[VMIN] = 7;
  ::cfsetispeed(&found, B1200);
  ::cfsetospeed(&found, B1200);
  ASSERT_EQ(::tcsetattr(m_line.NearEnd(), TCSANOW, &found), 0);
  found = AttributesOf(m_line.NearEnd());

  SerialPort port(m_line.Device(), true);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetNumOfStopBits(SerialPort::STOP_BITS_2);
  port.SetFlowControl(SerialPort::FLOW_CONTROL_SOFTWARE);
  port.Close();
  ExpectSame(AttributesOf(m_line.NearEnd()), found);

  port.Open(SerialPort::BAUD_57600, SerialPort::CHAR_SIZE_8, SerialPort::PARITY_NONE, SerialPort::STOP_BITS_2,
            SerialPort::FLOW_CONTROL_HARDWARE);
  port.Close();
  ExpectSame(AttributesOf(m_line.NearEnd()), found);
}

TEST_F(PtyPort, OpeningMakesTheLineRawWithEightBits) {
  const SerialPort port(m_line.Device(), true);

  const termios raw = AttributesOf(m_line.NearEnd());
  EXPECT_EQ(raw.c_iflag, 0U);
  EXPECT_EQ(raw.c_oflag, 0U);
  EXPECT_EQ(raw.c_lflag, 0U);
  EXPECT_EQ(raw.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS), static_cast<tcflag_t>(CS8));
  EXPECT_EQ(raw.c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
  EXPECT_EQ(raw.c_cc[VMIN], 1);
  EXPECT_EQ(raw.c_cc[VTIME], 0);
}

// A pseudo-terminal accepts only eight bits without parity, and some C libraries check.
TEST_F(PtyPort, OpenAppliesItsSettings) {
  SerialPort port(m_line.Device(), true);
  port.Close();

  port.Open(SerialPort::BAUD_115200, SerialPort::CHAR_SIZE_8, SerialPort::PARITY_NONE, SerialPort::STOP_BITS_2,
            SerialPort::FLOW_CONTROL_HARDWARE);

  const termios set = AttributesOf(m_line.NearEnd());
  EXPECT_EQ(set.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS), static_cast<tcflag_t>(CS8 | CSTOPB | CRTSCTS));
  EXPECT_EQ(port.GetBaudRate(), SerialPort::BAUD_115200);
  EXPECT_EQ(port.GetCharSize(), SerialPort::CHAR_SIZE_8);
  EXPECT_EQ(port.GetParity(), SerialPort::PARITY_NONE);
  EXPECT_EQ(port.GetNumOfStopBits(), SerialPort::STOP_BITS_2);
  EXPECT_EQ(port.GetFlowControl(), SerialPort::FLOW_CONTROL_HARDWARE);
}

TEST_F(PtyPort, WithoutAttributesTheLineStaysAsItIs) {
  const termios found = AttributesOf(m_line.NearEnd());

  SerialPort port(m_line.Device(), false);
  port.SetBaudRate(SerialPort::BAUD_115200);
  port.SetFlowControl(SerialPort::FLOW_CONTROL_HARDWARE);
  ExpectSame(AttributesOf(m_line.NearEnd()), found);
  port.Close();
  ExpectSame(AttributesOf(m_line.NearEnd()), found);
}

TEST_F(PtyPort, TheDescriptorBlocksAndIsInheritedByChildren) {
  const int fd = NextDescriptor();
  const SerialPort port(m_line.Device(), true);

  EXPECT_EQ(::isatty(fd), 1);
  EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK | O_APPEND), O_RDWR);
  EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(PtyPort, TwoPortsMayBeOpenOnOneDevice) {
  const SerialPort one(m_line.Device(), true);
  const SerialPort other(m_line.Device(), true);

  EXPECT_TRUE(one.IsOpen());
  EXPECT_TRUE(other.IsOpen());
}

TEST_F(PtyPort, BytesThatWaitAtOpeningAreDiscarded) {
  m_line.SendAndWait("old bytes\n");

  SerialPort port(m_line.Device(), true);

  EXPECT_EQ(port.AvailableBytesToRead(), 0);
  EXPECT_FALSE(port.IsDataAvailable());
  m_line.Send("new");
  std::string buffer(3, '.');
  port.Read(buffer.data(), 3);
  EXPECT_EQ(buffer, "new");
}

TEST_F(PtyPort, EveryByteValueArrivesInBothDirections) {
  SerialPort port(m_line.Device(), true);
  std::string all(256, '\0');
  for (std::size_t i = 0; i < all.size(); ++i) {
    all[i] = static_cast<char>(i);
  }

  port.Write(all);
  EXPECT_EQ(m_line.Receive(256), all);

  m_line.Send(all);
  std::string buffer(256, '\0');
  port.Read(buffer.data(), 256);
  EXPECT_EQ(buffer, all);
}

TEST_F(PtyPort, AMebibyteIsWrittenByteForByte) {
  SerialPort port(m_line.Device(), true);
  const std::string data = Pattern(kMebibyte);
  std::string arrived;
  JoiningThread farEnd([&] { arrived = m_line.Receive(kMebibyte); }, [&] { m_line.GiveUp(); });

  port.Write(data.data(), kMebibyte);

  farEnd.Join();
  EXPECT_SAME_BYTES(arrived, data);
}

TEST_F(PtyPort, AMebibyteIsReadByteForByte) {
  SerialPort port(m_line.Device(), true);
  const std::string data = Pattern(kMebibyte);
  std::string buffer(kMebibyte, '\0');
  JoiningThread farEnd([&] { m_line.Send(data); }, [&] { m_line.GiveUp(); });

  port.Read(buffer.data(), kMebibyte);

  farEnd.Join();
  EXPECT_SAME_BYTES(buffer, data);
}

TEST_F(PtyPort, BytesAreCountedTakenIntoTheBufferAndHandedOutInParts) {
  SerialPort port(m_line.Device(), true);
  m_line.SendAndWait("abcde");
  EXPECT_EQ(port.AvailableBytesToRead(), 5);
  EXPECT_FALSE(port.IsDataAvailable());

  port.ReadAllAvailableData();
  EXPECT_EQ(port.AvailableBytesToRead(), 0);
  EXPECT_TRUE(port.IsDataAvailable());
  m_line.SendAndWait("fg");

  Bytes out;
  port.Read(out, 2);
  EXPECT_EQ(out, (Bytes{'a', 'b'}));
  EXPECT_EXACT_THROW(port.Read(out, 4), std::invalid_argument, serialtext::kTooFewBuffered);
  EXPECT_TRUE(out.empty());
  port.ReadAllAvailableData();
  port.Read(out, 0);
  EXPECT_EQ(out, (Bytes{'c', 'd', 'e', 'f', 'g'}));
}

TEST_F(PtyPort, ReadingAllThatIsThereDoesNotBlockIfThereIsNothing) {
  SerialPort port(m_line.Device(), true);

  port.ReadAllAvailableData();

  EXPECT_FALSE(port.IsDataAvailable());
}

TEST_F(PtyPort, FlushingTheInputDiscardsWhatWaits) {
  SerialPort port(m_line.Device(), true);
  m_line.SendAndWait("abc");
  port.FlushOutput();
  EXPECT_EQ(port.AvailableBytesToRead(), 3);
  port.FlushInput();
  EXPECT_EQ(port.AvailableBytesToRead(), 0);

  m_line.SendAndWait("abc");
  port.FlushInputAndOutput();
  EXPECT_EQ(port.AvailableBytesToRead(), 0);
}

TEST_F(PtyPort, WaitingEndsAtTheTimeOutOrWithAByte) {
  SerialPort port(m_line.Device(), true);
  EXPECT_FALSE(port.IsDataReceived(0));
  EXPECT_FALSE(port.IsDataReceived(20));

  m_line.Send("a");
  EXPECT_TRUE(port.IsDataReceived(-1));
  EXPECT_TRUE(port.IsDataReceived(0));
  EXPECT_EQ(port.ReadOneByte(), 'a');
  EXPECT_FALSE(port.IsDataReceived(0));
}

TEST_F(PtyPort, WaitingWithoutLimitSeesAByteThatComesLater) {
  SerialPort port(m_line.Device(), true);
  JoiningThread farEnd([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    m_line.Send("b");
  });

  EXPECT_TRUE(port.IsDataReceived(-1));

  farEnd.Join();
  EXPECT_EQ(port.ReadOneByte(), 'b');
}

TEST_F(PtyPort, AHangUpIsSomethingToReadAndReadingItIsTheEndOfFile) {
  SerialPort port(m_line.Device(), true);
  m_line.HangUp();

  EXPECT_TRUE(port.IsDataReceived(-1));
  errno = EXDEV;
  EXPECT_SYSTEM_ERROR(port.ReadOneByte(), EXDEV, serialtext::kReadEnd);
  EXPECT_SYSTEM_ERROR(port.Write("x"), EIO, serialtext::kWriteError);
  EXPECT_SYSTEM_ERROR(port.AvailableBytesToRead(), EIO, serialtext::kFionreadFailed);

  // A line that is gone takes no attributes, so closing needs help, too.
  EXPECT_SYSTEM_ERROR(port.Close(), EIO, serialtext::CloseFailed(m_line.Device()));
  EXPECT_TRUE(port.IsOpen());
  m_modem.kernel.Script("tcsetattr", {Returns(0)});
  port.Close();
  EXPECT_FALSE(port.IsOpen());
}

TEST_F(PtyPort, AHangUpBeforeAllIsReadKeepsWhatCameBefore) {
  SerialPort port(m_line.Device(), false);
  termios raw = AttributesOf(m_line.NearEnd());
  ::cfmakeraw(&raw);
  ASSERT_EQ(::tcsetattr(m_line.NearEnd(), TCSANOW, &raw), 0);
  // A hang-up drops what nobody has read, so it comes before the first call that asks for less than all.
  std::string buffer = ".....";
  m_modem.kernel.Simulate("read", [&](const Question& question) {
    if (question.count < buffer.size()) {
      m_line.HangUp();
    }
    return Real();
  });
  m_line.Send("abc");

  errno = EXDEV;
  EXPECT_SYSTEM_ERROR(port.Read(buffer.data(), 5), EXDEV, serialtext::kReadEnd);

  EXPECT_EQ(buffer, "abc..");
}

TEST_F(PtyPort, WithoutTheStandInsItCannotBeClosed) {
  m_modem.kernel.Script("TIOCMGET", {Fails(ENOTTY)});
  SerialPort port(m_line.Device(), true);

  EXPECT_SYSTEM_ERROR(port.Close(), ENOTTY, serialtext::kLoopbackGetFailed);

  EXPECT_TRUE(port.IsOpen());
}

// --- What is no line -------------------------------------------------------------------------------------------------

TEST(NoLine, APathThatDoesNotExistThrowsEnoent) {
  for (const bool termiosSupported : {false, true}) {
    SCOPED_TRACE(termiosSupported ? "with attributes" : "without attributes");
    EXPECT_SYSTEM_ERROR(SerialPort("/no-such-folder/ttyS1", termiosSupported), ENOENT,
                        serialtext::OpenFailed("/no-such-folder/ttyS1"));
    EXPECT_SYSTEM_ERROR(SerialPort("", termiosSupported), ENOENT, serialtext::OpenFailed(""));
  }
}

TEST(NoLine, ARegularFileIsRejectedAndClosedWithAttributesOrWithout) {
  std::string path = std::filesystem::temp_directory_path() / "no-line-XXXXXX";
  ::close(::mkstemp(path.data()));
  const auto descriptors = OpenDescriptors();

  EXPECT_SYSTEM_ERROR(SerialPort(path, true), ENOTTY, serialtext::kSaveFailed);
  EXPECT_SYSTEM_ERROR(SerialPort(path, false), ENOTTY, serialtext::kFlushFailed);

  EXPECT_EQ(OpenDescriptors(), descriptors);
  std::filesystem::remove(path);
}

TEST(NoLine, ADirectoryCannotBeOpened) {
  EXPECT_SYSTEM_ERROR(SerialPort("/tmp", true), EISDIR, serialtext::OpenFailed("/tmp"));
}

}  // namespace
