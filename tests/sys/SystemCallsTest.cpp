#include "SystemCalls.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Allocations.h"
#include "ExpectBytes.h"
#include "ExpectThrow.h"
#include "JoiningThread.h"
#include "ScriptedKernel.h"
#include "SysTexts.h"

namespace {

using Calls = ScriptedKernel::Calls;
using Clock = std::chrono::steady_clock;

constexpr int kFd = 7;                   // never touched: every call on it is scripted
constexpr int kMostAtOnce = 0x7FFFF000;  // bytes: the kernel never transfers more in one call

class Pipe {
 public:
  explicit Pipe(int flags = 0) {
    EXPECT_EQ(::pipe2(m_ends.data(), flags), 0);
  }
  ~Pipe() {
    CloseReader();
    CloseWriter();
  }
  int Reader() const {
    return m_ends[0];
  }
  int Writer() const {
    return m_ends[1];
  }
  void CloseReader() {
    Close(m_ends[0]);
  }
  void CloseWriter() {
    Close(m_ends[1]);
  }

 private:
  static void Close(int& fd) {
    if (fd != -1) {
      ::close(fd);
      fd = -1;
    }
  }
  std::array<int, 2> m_ends = {-1, -1};
};

/// All error numbers but the two that the loops repeat the call for.
std::vector<int> OtherErrors() {
  std::vector<int> errors;
  for (int error = 1; error <= EHWPOISON; ++error) {
    if (error != EINTR && error != EAGAIN) {
      errors.push_back(error);
    }
  }
  return errors;
}

/// Interrupts the constructing thread every millisecond, by a handler that lets system calls fail with EINTR.
class Interrupter {
 public:
  Interrupter() : m_target(::pthread_self()) {
    s_count = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { ++s_count; };
    EXPECT_EQ(::sigaction(SIGUSR1, &action, &m_old), 0);
    m_thread.emplace(
        [this] {
          while (!m_stop) {
            ::pthread_kill(m_target, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
        },
        [this] { m_stop = true; });
  }
  ~Interrupter() {
    m_thread.reset();
    ::sigaction(SIGUSR1, &m_old, nullptr);
  }
  int Count() const {
    return s_count;
  }

 private:
  static std::atomic<int> s_count;
  pthread_t m_target;
  struct sigaction m_old {};
  std::atomic<bool> m_stop{false};
  std::optional<JoiningThread> m_thread;
};

std::atomic<int> Interrupter::s_count{0};

// --- WriteLoop -------------------------------------------------------------------------------------------------------

TEST(WriteLoop, LengthZeroDoesNotTouchEvenAnInvalidDescriptor) {
  ScriptedKernel kernel;
  kernel.Script("write", {});
  kernel.Watch("write");

  WriteLoop(-1, nullptr, 0);

  EXPECT_EQ(kernel.Seen(), Calls{});
}

TEST(WriteLoop, AWholeWriteIsOneCall) {
  ScriptedKernel kernel;
  kernel.Script("write", {Returns(10)});

  WriteLoop(kFd, "0123456789", 10);

  EXPECT_EQ(kernel.Seen(), (Calls{"write(7, \"0123456789\")"}));
}

TEST(WriteLoop, PartialWritesAreContinuedBehindWhatWasWritten) {
  ScriptedKernel kernel;
  kernel.Script("write", {Returns(3), Returns(1), Returns(6)});

  WriteLoop(kFd, "0123456789", 10);

  EXPECT_EQ(kernel.Seen(), (Calls{"write(7, \"0123456789\")", "write(7, \"3456789\")", "write(7, \"456789\")"}));
}

TEST(WriteLoop, EintrAndEagainAtEveryPositionRepeatTheSameCall) {
  for (const int error : {EINTR, EAGAIN}) {
    for (std::size_t position = 0; position < 4; ++position) {
      SCOPED_TRACE(std::to_string(error) + " at byte " + std::to_string(position));
      std::vector<Answer> answers(4, Returns(1));
      answers.insert(answers.begin() + static_cast<std::ptrdiff_t>(position), 3, Fails(error));
      ScriptedKernel kernel;
      kernel.Script("write", answers);

      WriteLoop(kFd, "abcd", 4);

      Calls expected = {"write(7, \"abcd\")", "write(7, \"bcd\")", "write(7, \"cd\")", "write(7, \"d\")"};
      expected.insert(expected.begin() + static_cast<std::ptrdiff_t>(position), 3, expected[position]);
      EXPECT_EQ(kernel.Seen(), expected);
    }
  }
}

TEST(WriteLoop, AnyOtherErrorThrowsWithItsNumberAtOnce) {
  for (const int error : OtherErrors()) {
    SCOPED_TRACE(ErrorName(error));
    ScriptedKernel kernel;
    kernel.Script("write", {Returns(2), Fails(error)});

    EXPECT_SYSTEM_ERROR(WriteLoop(kFd, "abcd", 4), error, systext::kWriteError);

    EXPECT_EQ(kernel.Seen(), (Calls{"write(7, \"abcd\")", "write(7, \"cd\")"}));
  }
}

TEST(WriteLoop, ZeroBytesWrittenThrowsALogicError) {
  ScriptedKernel kernel;
  kernel.Script("write", {Returns(2), Returns(0)});

  EXPECT_EXACT_THROW(WriteLoop(kFd, "abcd", 4), std::logic_error, systext::kWriteStuck);
}

TEST(WriteLoop, ANegativeResultOtherThanMinusOneThrowsALogicError) {
  ScriptedKernel kernel;
  kernel.Script("write", {Returns(-2)});

  EXPECT_EXACT_THROW(WriteLoop(kFd, "abcd", 4), std::logic_error, systext::kWriteStuck);
}

TEST(WriteLoop, CountsAreUnsigned32BitNumbersAndGoToTheCallAsTheyAre) {
  ScriptedKernel kernel;
  kernel.Script("write", {Returns(kMostAtOnce), Returns(kMostAtOnce)});

  WriteLoop(kFd, "", 2U * kMostAtOnce);

  EXPECT_EQ(kernel.Seen(), (Calls{"write(7, 4294959104 bytes)", "write(7, 2147479552 bytes)"}));
}

TEST(WriteLoop, SuccessAllocatesNothing) {
  Pipe pipe;
  const CountedAllocations allocations;
  WriteLoop(pipe.Writer(), "abcd", 4);
  EXPECT_EQ(allocations.Count(), 0U);
}

TEST(WriteLoop, TheErrorNumberIsTheFailedCallsEvenIfAllocatingTheMessageChangesErrno) {
  ScriptedKernel kernel;
  kernel.Script("write", {Fails(EIO)});
  const ErrnoChangingAllocations changing;
  EXPECT_SYSTEM_ERROR(WriteLoop(kFd, "abcd", 4), EIO, systext::kWriteError);
}

TEST(WriteLoop, AClosedDescriptorThrowsEbadfWithTwoColons) {
  EXPECT_SYSTEM_ERROR(WriteLoop(-1, "x", 1), EBADF, systext::kWriteError);
  EXPECT_EXACT_THROW(WriteLoop(-1, "x", 1), std::system_error, systext::kWriteError + ": Bad file descriptor");
}

TEST(WriteLoop, APipeWithoutReaderThrowsEpipe) {
  Pipe pipe;
  pipe.CloseReader();
  ::signal(SIGPIPE, SIG_IGN);

  EXPECT_SYSTEM_ERROR(WriteLoop(pipe.Writer(), "x", 1), EPIPE, systext::kWriteError);

  ::signal(SIGPIPE, SIG_DFL);
}

TEST(WriteLoop, AFullNonBlockingPipeIsRetriedUntilAReaderDrainsIt) {
  Pipe pipe(O_NONBLOCK);
  const std::string data = Pattern(1U << 20U);  // sixteen times what a pipe holds
  std::string drained;
  JoiningThread reader(
      [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::array<char, 4096> piece{};
        ssize_t got = -1;
        while (drained.size() < data.size() && got != 0) {
          got = ::read(pipe.Reader(), piece.data(), piece.size());
          if (got > 0) {
            drained.append(piece.data(), static_cast<std::size_t>(got));
          }
        }
      },
      [&] { pipe.CloseWriter(); });

  WriteLoop(pipe.Writer(), data.data(), static_cast<unsigned int>(data.size()));

  reader.Join();
  EXPECT_SAME_BYTES(drained, data);
}

// --- ReadLoop --------------------------------------------------------------------------------------------------------

TEST(ReadLoop, LengthZeroDoesNotTouchEvenAnInvalidDescriptor) {
  ScriptedKernel kernel;
  kernel.Watch("read");

  ReadLoop(-1, nullptr, 0);

  EXPECT_EQ(kernel.Seen(), Calls{});
}

TEST(ReadLoop, AWholeReadIsOneCallAndNothingBehindItIsTouched) {
  ScriptedKernel kernel;
  kernel.Script("read", {Gives("0123")});
  std::string buffer = "......";

  ReadLoop(kFd, buffer.data(), 4);

  EXPECT_EQ(buffer, "0123..");
  EXPECT_EQ(kernel.Seen(), (Calls{"read(7, 4)"}));
}

TEST(ReadLoop, PartialReadsAreContinuedBehindWhatWasRead) {
  ScriptedKernel kernel;
  kernel.Script("read", {Gives("012"), Gives("3"), Gives("456789")});
  std::string buffer(10, '.');

  ReadLoop(kFd, buffer.data(), 10);

  EXPECT_EQ(buffer, "0123456789");
  EXPECT_EQ(kernel.Seen(), (Calls{"read(7, 10)", "read(7, 7)", "read(7, 6)"}));
}

TEST(ReadLoop, EintrAndEagainAtEveryPositionRepeatTheSameCall) {
  for (const int error : {EINTR, EAGAIN}) {
    for (std::size_t position = 0; position < 4; ++position) {
      SCOPED_TRACE(std::to_string(error) + " at byte " + std::to_string(position));
      std::vector<Answer> answers = {Gives("a"), Gives("b"), Gives("c"), Gives("d")};
      answers.insert(answers.begin() + static_cast<std::ptrdiff_t>(position), 3, Fails(error));
      ScriptedKernel kernel;
      kernel.Script("read", answers);
      std::string buffer(4, '.');

      ReadLoop(kFd, buffer.data(), 4);

      EXPECT_EQ(buffer, "abcd");
      Calls expected = {"read(7, 4)", "read(7, 3)", "read(7, 2)", "read(7, 1)"};
      expected.insert(expected.begin() + static_cast<std::ptrdiff_t>(position), 3, expected[position]);
      EXPECT_EQ(kernel.Seen(), expected);
    }
  }
}

TEST(ReadLoop, AnyOtherErrorThrowsWithItsNumberAndKeepsWhatWasRead) {
  for (const int error : OtherErrors()) {
    SCOPED_TRACE(ErrorName(error));
    ScriptedKernel kernel;
    kernel.Script("read", {Gives("ab"), Fails(error)});
    std::string buffer = "....";

    EXPECT_SYSTEM_ERROR(ReadLoop(kFd, buffer.data(), 4), error, systext::kReadError);

    EXPECT_EQ(buffer, "ab..");
    EXPECT_EQ(kernel.Seen(), (Calls{"read(7, 4)", "read(7, 2)"}));
  }
}

TEST(ReadLoop, ANegativeResultOtherThanMinusOneIsNoEndOfFileAndStepsBack) {
  ScriptedKernel kernel;
  kernel.Script("read", {Gives("abc"), Returns(-2), Gives("xyz")});
  std::string buffer = "....";

  ReadLoop(kFd, buffer.data(), 4);

  EXPECT_EQ(buffer, "axyz");
  EXPECT_EQ(kernel.Seen(), (Calls{"read(7, 4)", "read(7, 1)", "read(7, 3)"}));
}

TEST(ReadLoop, EndOfFileAfterThreeOfTenBytesThrowsAndKeepsTheThree) {
  Pipe pipe;
  ASSERT_EQ(::write(pipe.Writer(), "abc", 3), 3);
  pipe.CloseWriter();
  std::string buffer(10, '.');

  EXPECT_EXACT_THROW(ReadLoop(pipe.Reader(), buffer.data(), 10), std::logic_error, systext::kReadEnd);

  EXPECT_EQ(buffer, "abc.......");
}

TEST(ReadLoop, EndOfFileAtOnceThrowsALogicError) {
  Pipe pipe;
  pipe.CloseWriter();
  char byte = '.';

  EXPECT_EXACT_THROW(ReadLoop(pipe.Reader(), &byte, 1), std::logic_error, systext::kReadEnd);

  EXPECT_EQ(byte, '.');
}

TEST(ReadLoop, CountsAreUnsigned32BitNumbersAndGoToTheCallAsTheyAre) {
  ScriptedKernel kernel;
  kernel.Script("read", {Returns(kMostAtOnce), Returns(kMostAtOnce)});
  char untouched = '.';

  ReadLoop(kFd, &untouched, 2U * kMostAtOnce);

  EXPECT_EQ(kernel.Seen(), (Calls{"read(7, 4294959104)", "read(7, 2147479552)"}));
}

TEST(ReadLoop, SuccessAllocatesNothing) {
  Pipe pipe;
  ASSERT_EQ(::write(pipe.Writer(), "abcd", 4), 4);
  std::array<char, 4> buffer{};
  const CountedAllocations allocations;
  ReadLoop(pipe.Reader(), buffer.data(), 4);
  EXPECT_EQ(allocations.Count(), 0U);
}

TEST(ReadLoop, AClosedDescriptorThrowsEbadfWithTwoColons) {
  char byte = 0;
  EXPECT_SYSTEM_ERROR(ReadLoop(-1, &byte, 1), EBADF, systext::kReadError);
  EXPECT_EXACT_THROW(ReadLoop(-1, &byte, 1), std::system_error, systext::kReadError + ": Bad file descriptor");
}

TEST(ReadLoop, AnEmptyNonBlockingPipeIsRetriedUntilAWriterFillsIt) {
  Pipe pipe(O_NONBLOCK);
  const std::string data = Pattern(1U << 20U);
  std::string buffer(data.size(), '\0');
  JoiningThread writer(
      [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        WriteLoop(pipe.Writer(), data.data(), static_cast<unsigned int>(data.size()));
      },
      [&] { pipe.CloseReader(); });

  ReadLoop(pipe.Reader(), buffer.data(), static_cast<unsigned int>(buffer.size()));

  writer.Join();
  EXPECT_SAME_BYTES(buffer, data);
}

TEST(DescriptorLoops, CarryAMegabyteThroughAPipeWhileRealSignalsInterruptTheReader) {
  Pipe pipe;
  const std::string data = Pattern(1U << 20U);
  std::string buffer(data.size(), '\0');
  const Interrupter interrupter;
  JoiningThread writer(
      [&] {
        // The reader waits, and is interrupted, before each piece.
        for (std::size_t at = 0; at < data.size(); at += data.size() / 16) {
          for (const int before = interrupter.Count(); interrupter.Count() < before + 2;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
          WriteLoop(pipe.Writer(), data.data() + at, static_cast<unsigned int>(data.size() / 16));
        }
      },
      [&] { pipe.CloseReader(); });

  ReadLoop(pipe.Reader(), buffer.data(), static_cast<unsigned int>(buffer.size()));

  writer.Join();
  EXPECT_SAME_BYTES(buffer, data);
}

// --- DebugSleep ------------------------------------------------------------------------------------------------------

TEST(DebugSleep, SplitsTheTimeIntoSecondsAndNanoseconds) {
  const std::vector<std::pair<int, std::string>> cases = {
      {1500, "nanosleep(1 s, 500000000 ns)"},
      {0, "nanosleep(0 s, 0 ns)"},
      {1, "nanosleep(0 s, 1000000 ns)"},
      {999, "nanosleep(0 s, 999000000 ns)"},
      {1000, "nanosleep(1 s, 0 ns)"},
      {INT_MAX, "nanosleep(2147483 s, 647000000 ns)"},
      {-1, "nanosleep(0 s, -1000000 ns)"},
      {-1000, "nanosleep(-1 s, 0 ns)"},
      {-1500, "nanosleep(-1 s, -500000000 ns)"},
      {INT_MIN, "nanosleep(-2147483 s, -648000000 ns)"},
  };
  for (const auto& [milliseconds, call] : cases) {
    SCOPED_TRACE(milliseconds);
    ScriptedKernel kernel;
    kernel.Script("nanosleep", {Returns(0)});

    DebugSleep(milliseconds);

    EXPECT_EQ(kernel.Seen(), Calls{call});
  }
}

TEST(DebugSleep, AnInterruptedSleepGoesOnWithWhatRemained) {
  ScriptedKernel kernel;
  kernel.Script("nanosleep", {Fails(EINTR), Fails(EINTR), Returns(0)});  // half of each field remains every time

  DebugSleep(8800);

  EXPECT_EQ(kernel.Seen(),
            (Calls{"nanosleep(8 s, 800000000 ns)", "nanosleep(4 s, 400000000 ns)", "nanosleep(2 s, 200000000 ns)"}));
}

TEST(DebugSleep, AnyOtherErrorThrowsAlsoAfterAnInterruption) {
  ScriptedKernel kernel;
  kernel.Script("nanosleep", {Fails(EINTR), Fails(EFAULT)});

  EXPECT_SYSTEM_ERROR(DebugSleep(10), EFAULT, systext::kSleepError);
}

TEST(DebugSleep, EagainIsAnErrorLikeAnyOther) {
  ScriptedKernel kernel;
  kernel.Script("nanosleep", {Fails(EAGAIN)});

  EXPECT_SYSTEM_ERROR(DebugSleep(10), EAGAIN, systext::kSleepError);
}

TEST(DebugSleep, NegativeTimesThrowEinvalFromTheRealKernel) {
  for (const int milliseconds : {-1, -999, -1000, -1500, INT_MIN}) {
    SCOPED_TRACE(milliseconds);
    EXPECT_SYSTEM_ERROR(DebugSleep(milliseconds), EINVAL, systext::kSleepError);
  }
  EXPECT_EXACT_THROW(DebugSleep(-1), std::system_error, systext::kSleepError + ": Invalid argument");
}

TEST(DebugSleep, SuccessAllocatesNothing) {
  const CountedAllocations allocations;
  DebugSleep(1);
  EXPECT_EQ(allocations.Count(), 0U);
}

TEST(DebugSleep, RealSignalsDoNotShortenTheSleep) {
  const Interrupter interrupter;

  // A busy machine delivers few in one sleep.
  while (interrupter.Count() <= 10) {
    const auto start = Clock::now();
    DebugSleep(300);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));
  }
}

}  // namespace
