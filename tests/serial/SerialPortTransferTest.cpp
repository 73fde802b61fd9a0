#include <cerrno>
#include <climits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Allocations.h"
#include "PtyLine.h"
#include "SerialPort.h"
#include "SerialPortFixture.h"
#include "SerialTexts.h"

namespace {

using Bytes = std::vector<unsigned char>;

class Writing : public SerialTtyTest {};
class Reading : public SerialTtyTest {};
class Waiting : public SerialTtyTest {};
class Buffered : public SerialTtyTest {};

// --- Writing ---------------------------------------------------------------------------------------------------------

TEST_F(Writing, NothingMakesNoCall) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  port.Write(nullptr, 0);
  port.Write("");
  port.Write(std::string());

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
}

TEST_F(Writing, AClosedPortIsRefusedEvenForNothing) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();

  EXPECT_NOT_OPEN(port.Write("x", 1));
  EXPECT_NOT_OPEN(port.Write(nullptr, 0));
  EXPECT_NOT_OPEN(port.Write(std::string("x")));
  EXPECT_NOT_OPEN(port.Write(std::string()));

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
}

TEST_F(Writing, AWholeWriteIsOneCall) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  port.Write("0123456789", 10);
  port.Write(std::string("abc"));

  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"write(70, \"0123456789\")", "write(70, \"abc\")"}));
}

TEST_F(Writing, ATextIsWrittenWithItsNulBytes) {
  SerialPort port(SerialTty::kDevice, true);

  port.Write(std::string("a\0b\0", 4));

  EXPECT_EQ(m_tty.sent, std::string("a\0b\0", 4));
}

TEST_F(Writing, PartialWritesAreContinuedBehindWhatWasWritten) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("write", {Returns(3), Returns(1), Returns(6)});

  port.Write("0123456789", 10);

  EXPECT_EQ(m_tty.kernel.SeenNow(),
            (Calls{"write(70, \"0123456789\")", "write(70, \"3456789\")", "write(70, \"456789\")"}));
}

TEST_F(Writing, EintrAndEagainAtEveryPositionRepeatTheSameCall) {
  SerialPort port(SerialTty::kDevice, true);
  for (const int error : {EINTR, EAGAIN}) {
    for (std::size_t position = 0; position < 4; ++position) {
      SCOPED_TRACE(std::to_string(error) + " at byte " + std::to_string(position));
      std::vector<Answer> answers(4, Returns(1));
      answers.insert(answers.begin() + static_cast<std::ptrdiff_t>(position), 3, Fails(error));
      m_tty.kernel.SeenNow();
      m_tty.kernel.Script("write", answers);

      port.Write("abcd", 4);

      Calls expected = {"write(70, \"abcd\")", "write(70, \"bcd\")", "write(70, \"cd\")", "write(70, \"d\")"};
      expected.insert(expected.begin() + static_cast<std::ptrdiff_t>(position), 3, expected[position]);
      EXPECT_EQ(m_tty.kernel.SeenNow(), expected);
    }
  }
}

TEST_F(Writing, TriesHaveNoLimit) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.Script("write", std::vector<Answer>(10000, Fails(EAGAIN)));

  port.Write("ab", 2);

  EXPECT_EQ(m_tty.sent, "ab");
}

TEST_F(Writing, AnyOtherErrorThrowsAtOnceWithTwoColonsAndWhatWasWrittenStays) {
  SerialPort port(SerialTty::kDevice, true);
  for (const int error : {EIO, ENOSPC, EBADF, EPIPE, EINVAL}) {
    SCOPED_TRACE(ErrorName(error));
    m_tty.kernel.SeenNow();
    m_tty.kernel.Script("write", {Returns(2), Fails(error)});

    EXPECT_SYSTEM_ERROR(port.Write("abcd", 4), error, serialtext::kWriteError);

    EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"write(70, \"abcd\")", "write(70, \"cd\")"}));
    EXPECT_TRUE(port.IsOpen());
  }
  m_tty.kernel.Script("write", {Fails(EIO)});
  EXPECT_EXACT_THROW(port.Write("abcd"), std::system_error, serialtext::kWriteError + ": Input/output error");
}

TEST_F(Writing, ZeroBytesWrittenThrowWithTheCurrentErrno) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  for (const int current : {0, EXDEV, EINTR, EAGAIN}) {
    SCOPED_TRACE(ErrorName(current));
    m_tty.kernel.Script("write", {Returns(2), Answer{0, current, {}, false}});

    EXPECT_SYSTEM_ERROR(port.Write("abcd", 4), current, serialtext::kWriteStuck);

    EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"write(70, \"abcd\")", "write(70, \"cd\")"}));
  }
}

TEST_F(Writing, ANegativeResultOtherThanMinusOneStepsBack) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("write", {Returns(3), Returns(-2), Returns(3)});

  port.Write("abcd", 4);

  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"write(70, \"abcd\")", "write(70, \"d\")", "write(70, \"bcd\")"}));
}

// --- Reading from the device -----------------------------------------------------------------------------------------

TEST_F(Reading, NothingReturnsAtOnceEvenOnAClosedPort) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  port.Read(nullptr, 0);
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});

  port.Close();
  m_tty.kernel.SeenNow();
  port.Read(nullptr, 0);
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
}

TEST_F(Reading, AClosedPortFailsInTheCallAndForOneByteIsRefused) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();
  char byte = '.';

  EXPECT_SYSTEM_ERROR(port.Read(&byte, 1), EBADF, serialtext::kReadError);
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"read(-1, 1)"});

  EXPECT_NOT_OPEN(port.ReadOneByte());
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
}

TEST_F(Reading, AWholeReadIsOneCallAndNothingBehindItIsTouched) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  m_tty.received = "01234";
  std::string buffer = "......";

  port.Read(buffer.data(), 4);

  EXPECT_EQ(buffer, "0123..");
  EXPECT_EQ(m_tty.received, "4");
  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"read(70, 4)"});
}

TEST_F(Reading, ABufferThatIsSaidToBeConstantIsFilled) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.received = "ab";
  std::string buffer = "..";
  const void* const constant = buffer.data();

  port.Read(constant, 2);

  EXPECT_EQ(buffer, "ab");
}

TEST_F(Reading, PartialReadsAreContinuedBehindWhatWasRead) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("read", {Gives("012"), Gives("3"), Gives("456789")});
  std::string buffer(10, '.');

  port.Read(buffer.data(), 10);

  EXPECT_EQ(buffer, "0123456789");
  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"read(70, 10)", "read(70, 7)", "read(70, 6)"}));
}

TEST_F(Reading, EintrAndEagainAtEveryPositionRepeatTheSameCall) {
  SerialPort port(SerialTty::kDevice, true);
  for (const int error : {EINTR, EAGAIN}) {
    for (std::size_t position = 0; position < 4; ++position) {
      SCOPED_TRACE(std::to_string(error) + " at byte " + std::to_string(position));
      std::vector<Answer> answers = {Gives("a"), Gives("b"), Gives("c"), Gives("d")};
      answers.insert(answers.begin() + static_cast<std::ptrdiff_t>(position), 3, Fails(error));
      m_tty.kernel.SeenNow();
      m_tty.kernel.Script("read", answers);
      std::string buffer(4, '.');

      port.Read(buffer.data(), 4);

      EXPECT_EQ(buffer, "abcd");
      Calls expected = {"read(70, 4)", "read(70, 3)", "read(70, 2)", "read(70, 1)"};
      expected.insert(expected.begin() + static_cast<std::ptrdiff_t>(position), 3, expected[position]);
      EXPECT_EQ(m_tty.kernel.SeenNow(), expected);
    }
  }
}

TEST_F(Reading, AnyOtherErrorThrowsAtOnceWithTwoColonsAndWhatWasReadStays) {
  SerialPort port(SerialTty::kDevice, true);
  for (const int error : {EIO, EBADF, EFAULT, EINVAL}) {
    SCOPED_TRACE(ErrorName(error));
    m_tty.kernel.SeenNow();
    m_tty.kernel.Script("read", {Gives("ab"), Fails(error)});
    std::string buffer = "....";

    EXPECT_SYSTEM_ERROR(port.Read(buffer.data(), 4), error, serialtext::kReadError);

    EXPECT_EQ(buffer, "ab..");
    EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"read(70, 4)", "read(70, 2)"}));
  }
  m_tty.kernel.Script("read", {Fails(EIO)});
  EXPECT_EXACT_THROW(port.ReadOneByte(), std::system_error, serialtext::kReadError + ": Input/output error");
}

TEST_F(Reading, TheEndOfFileThrowsWithTheCurrentErrnoAndWhatWasReadStays) {
  SerialPort port(SerialTty::kDevice, true);
  for (const int current : {0, EXDEV, EINTR, EAGAIN}) {
    SCOPED_TRACE(ErrorName(current));
    m_tty.kernel.Script("read", {Gives("abc"), Answer{0, current, {}, false}, Answer{0, current, {}, false}});
    std::string buffer = ".....";

    EXPECT_SYSTEM_ERROR(port.Read(buffer.data(), 5), current, serialtext::kReadEnd);
    EXPECT_SYSTEM_ERROR(port.ReadOneByte(), current, serialtext::kReadEnd);

    EXPECT_EQ(buffer, "abc..");
  }
}

TEST_F(Reading, ANegativeResultOtherThanMinusOneStepsBack) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  m_tty.kernel.Script("read", {Gives("abc"), Returns(-2), Gives("xyz")});
  std::string buffer = "....";

  port.Read(buffer.data(), 4);

  EXPECT_EQ(buffer, "axyz");
  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"read(70, 4)", "read(70, 1)", "read(70, 3)"}));
}

TEST_F(Reading, OneByteIsReadInOneCallAndEveryValueArrives) {
  SerialPort port(SerialTty::kDevice, true);
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    m_tty.kernel.SeenNow();
    m_tty.received = std::string(1, static_cast<char>(value)) + "z";

    EXPECT_EQ(port.ReadOneByte(), value);

    EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"read(70, 1)"});
    EXPECT_EQ(m_tty.received, "z");
  }
}

TEST_F(Reading, OneByteIsRetriedToo) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.Script("read", {Fails(EINTR), Fails(EAGAIN), Gives("q")});

  EXPECT_EQ(port.ReadOneByte(), 'q');
}

TEST_F(Reading, FromTheDevicePassesTheReceiveBufferBy) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.received = "ab";
  port.ReadAllAvailableData();
  m_tty.received = "xyz";
  std::string buffer = "..";

  EXPECT_EQ(port.ReadOneByte(), 'x');
  port.Read(buffer.data(), 2);

  EXPECT_EQ(buffer, "yz");
  Bytes out;
  port.Read(out, 0);
  EXPECT_EQ(out, (Bytes{'a', 'b'}));
}

// --- Waiting ---------------------------------------------------------------------------------------------------------

TEST_F(Waiting, IsOnePollForInputAndReadsNothing) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  EXPECT_FALSE(port.IsDataReceived(100));
  m_tty.received = "a";
  EXPECT_TRUE(port.IsDataReceived(0));
  EXPECT_TRUE(port.IsDataReceived(-1));

  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"poll(70, POLLIN, 100)", "poll(70, POLLIN, 0)", "poll(70, POLLIN, -1)"}));
  EXPECT_EQ(m_tty.received, "a");
  EXPECT_FALSE(port.IsDataAvailable());
}

TEST_F(Waiting, HandsOnEveryTimeOut) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();

  port.IsDataReceived(INT_MAX);
  port.IsDataReceived(INT_MIN);

  EXPECT_EQ(m_tty.kernel.SeenNow(), (Calls{"poll(70, POLLIN, 2147483647)", "poll(70, POLLIN, -2147483648)"}));
}

TEST_F(Waiting, OnAClosedPortIsFalseWithoutACall) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  m_tty.kernel.SeenNow();

  EXPECT_FALSE(port.IsDataReceived(0));
  EXPECT_FALSE(port.IsDataReceived(-1));

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
}

TEST_F(Waiting, AnyNegativeResultThrowsAndEintrIsNotRepeated) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.kernel.SeenNow();
  for (const Answer& answer : {Fails(EINTR), Fails(EAGAIN), Fails(ENOMEM), Answer{-2, EIO, {}, false}}) {
    SCOPED_TRACE(answer);
    m_tty.kernel.Script("poll", {answer});
    EXPECT_SYSTEM_ERROR(port.IsDataReceived(100), answer.error, serialtext::kPollFailed);
    EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{"poll(70, POLLIN, 100)"});
  }
}

// --- The receive buffer ----------------------------------------------------------------------------------------------

TEST_F(Buffered, AClosedPortIsRefusedAndTheVectorStays) {
  SerialPort port(SerialTty::kDevice, true);
  port.Close();
  Bytes out = {'o', 'l', 'd'};

  EXPECT_NOT_OPEN(port.IsDataAvailable());
  EXPECT_NOT_OPEN(port.Read(out, 0));
  EXPECT_NOT_OPEN(port.Read(out, 1));

  EXPECT_EQ(out, (Bytes{'o', 'l', 'd'}));
}

TEST_F(Buffered, AnEmptyBufferGivesAnEmptyVector) {
  SerialPort port(SerialTty::kDevice, true);
  Bytes out = {'o', 'l', 'd'};

  port.Read(out, 0);

  EXPECT_TRUE(out.empty());
}

TEST_F(Buffered, ZeroTakesAllInOrderAndReplacesTheOldContent) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.received = std::string(
      "a\0\xFF"
      "de",
      5);
  port.ReadAllAvailableData();
  EXPECT_TRUE(port.IsDataAvailable());
  Bytes out = {'o', 'l', 'd'};

  port.Read(out, 0);

  EXPECT_EQ(out, (Bytes{'a', 0, 0xFF, 'd', 'e'}));
  EXPECT_FALSE(port.IsDataAvailable());
}

TEST_F(Buffered, ACountTakesSoManyFromTheFront) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.received = "abcde";
  port.ReadAllAvailableData();
  Bytes out;

  port.Read(out, 2);
  EXPECT_EQ(out, (Bytes{'a', 'b'}));
  EXPECT_TRUE(port.IsDataAvailable());
  port.Read(out, 3);
  EXPECT_EQ(out, (Bytes{'c', 'd', 'e'}));
  EXPECT_FALSE(port.IsDataAvailable());
}

TEST_F(Buffered, WhatIsReadLaterFollowsBehind) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.received = "abc";
  port.ReadAllAvailableData();
  Bytes out;
  port.Read(out, 1);
  m_tty.received = "de";
  port.ReadAllAvailableData();

  port.Read(out, 0);

  EXPECT_EQ(out, (Bytes{'b', 'c', 'd', 'e'}));
}

TEST_F(Buffered, MoreThanIsThereThrowsAndTheBufferStaysAndTheVectorIsEmpty) {
  SerialPort port(SerialTty::kDevice, true);
  Bytes out = {'o', 'l', 'd'};
  EXPECT_EXACT_THROW(port.Read(out, 1), std::invalid_argument, serialtext::kTooFewBuffered);
  EXPECT_TRUE(out.empty());

  m_tty.received = "abc";
  port.ReadAllAvailableData();
  out = {'o', 'l', 'd'};
  EXPECT_EXACT_THROW(port.Read(out, 4), std::invalid_argument, serialtext::kTooFewBuffered);
  EXPECT_TRUE(out.empty());
  EXPECT_EXACT_THROW(port.Read(out, UINT_MAX), std::invalid_argument, serialtext::kTooFewBuffered);

  port.Read(out, 3);
  EXPECT_EQ(out, (Bytes{'a', 'b', 'c'}));
}

TEST_F(Buffered, TheVectorIsAllocatedOnce) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.received = std::string(200, 'x');
  port.ReadAllAvailableData();
  for (const unsigned int count : {150U, 0U}) {
    Bytes out;
    const CountedAllocations allocations;
    port.Read(out, count);
    EXPECT_EQ(allocations.Count(), 1U) << count;
  }
}

TEST_F(Buffered, TheDeviceIsNotAsked) {
  SerialPort port(SerialTty::kDevice, true);
  m_tty.received = "abc";
  port.ReadAllAvailableData();
  m_tty.received = "more";
  m_tty.kernel.SeenNow();
  Bytes out;

  port.IsDataAvailable();
  port.Read(out, 1);
  EXPECT_EXACT_THROW(port.Read(out, 5), std::invalid_argument, serialtext::kTooFewBuffered);
  port.Read(out, 0);
  port.IsDataAvailable();

  EXPECT_EQ(m_tty.kernel.SeenNow(), Calls{});
  EXPECT_EQ(m_tty.received, "more");
}

// --- Cost ------------------------------------------------------------------------------------------------------------

TEST(TransferCost, WritingAndReadingFromTheDeviceAllocateNothing) {
  const PtyLine line;
  SerialPort port(line.Device(), true);
  const std::string text(1000, 'x');
  std::string buffer(1000, '\0');
  line.Send(text + "y");

  const CountedAllocations allocations;
  port.Write(text);
  port.Write(text.data(), 1000);
  const bool received = port.IsDataReceived(-1);
  port.Read(buffer.data(), 1000);
  const unsigned char last = port.ReadOneByte();
  const std::size_t counted = allocations.Count();

  EXPECT_EQ(counted, 0U);
  EXPECT_TRUE(received);
  EXPECT_EQ(buffer, text);
  EXPECT_EQ(last, 'y');
  PtyModem modem;
  port.Close();
}

}  // namespace
