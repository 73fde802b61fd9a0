#include "OpSystem.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <list>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Allocations.h"
#include "ExpectBytes.h"
#include "ExpectText.h"
#include "ExpectThrow.h"
#include "JoiningThread.h"
#include "OpenDescriptors.h"
#include "OsTexts.h"
#include "ScriptedKernel.h"

namespace {

using Calls = ScriptedKernel::Calls;

/// Every test here also checks that no descriptor and no child is left behind.
class ExecCmd : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(OpenDescriptors(), m_descriptors);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }

  OpSystem m_os;

 private:
  std::set<int> m_descriptors = OpenDescriptors();
};

// --- What comes out --------------------------------------------------------------------------------------------------

TEST_F(ExecCmd, ACommandWithoutOutputGivesAnEmptyString) {
  EXPECT_EQ(m_os.ExecCmd("true", false), "");
}

TEST_F(ExecCmd, AnEmptyCommandGivesAnEmptyString) {
  EXPECT_EQ(m_os.ExecCmd("", false), "");
}

TEST_F(ExecCmd, TheLastNewlineIsKept) {
  EXPECT_EQ(m_os.ExecCmd("echo abc", false), "abc\n");
}

TEST_F(ExecCmd, AMissingLastNewlineIsNotAdded) {
  EXPECT_EQ(m_os.ExecCmd("printf abc", false), "abc");
}

TEST_F(ExecCmd, BlanksAndEmptyLinesStayAsTheyAre) {
  EXPECT_EQ(m_os.ExecCmd("printf ' a\\t \\n\\n\\r\\n b\\n\\n'", false), " a\t \n\n\r\n b\n\n");
}

TEST_F(ExecCmd, StandardErrorIsInterleavedWithStandardOutput) {
  EXPECT_EQ(m_os.ExecCmd("{ echo 1; echo 2 >&2; echo 3; echo 4 >&2; }", false), "1\n2\n3\n4\n");
}

TEST_F(ExecCmd, OnlyTheLastCommandsStandardErrorIsCollected) {
  testing::internal::CaptureStderr();

  EXPECT_EQ(m_os.ExecCmd("sh -c 'echo first >&2'; sh -c 'echo second >&2'", false), "second\n");

  EXPECT_EQ(testing::internal::GetCapturedStderr(), "first\n");
}

TEST_F(ExecCmd, OfSeveralLinesOnlyTheLastOnesStandardErrorIsCollected) {
  testing::internal::CaptureStderr();

  EXPECT_EQ(m_os.ExecCmd("sh -c 'echo first >&2'\nsh -c 'echo second >&2'", false), "second\n");

  EXPECT_EQ(testing::internal::GetCapturedStderr(), "first\n");
}

TEST_F(ExecCmd, AnEmptyFirstLineIsSkippedByTheShell) {
  EXPECT_EQ(m_os.ExecCmd("\necho abc", false), "abc\n");
}

TEST_F(ExecCmd, TheSecondArgumentChangesNothing) {
  EXPECT_EQ(m_os.ExecCmd("echo out; sh -c 'echo err >&2'", true),
            m_os.ExecCmd("echo out; sh -c 'echo err >&2'", false));
  EXPECT_EXACT_THROW(m_os.ExecCmd("echo bad; exit 3", true), std::logic_error, "bad\n");
}

TEST_F(ExecCmd, LinesAroundThePieceSizeArriveWhole) {
  for (const int length : {509, 510, 511, 512, 513, 1021, 1022, 1023, 1024, 5000}) {
    SCOPED_TRACE(length);
    const std::string text(static_cast<std::size_t>(length), 'x');
    EXPECT_EQ(m_os.ExecCmd("echo " + text, false), text + "\n");
    EXPECT_EQ(m_os.ExecCmd("printf %s " + text, false), text);
  }
}

TEST_F(ExecCmd, ANulByteCutsTheRestOfItsLine) {
  EXPECT_EQ(m_os.ExecCmd("printf 'ab\\0cd\\nef\\n'", false), "abef\n");
}

TEST_F(ExecCmd, ANulByteAtTheStartOfALineDropsTheWholeLine) {
  EXPECT_EQ(m_os.ExecCmd("printf 'ab\\n\\0cd\\nef\\n'", false), "ab\nef\n");
}

TEST_F(ExecCmd, ANulByteInALongLineCutsOnlyItsPieceOf511Bytes) {
  const std::string before(100, 'a');
  const std::string lost(410, 'b');  // with the NUL and what stands before it, 511 bytes
  const std::string next(511, 'c');
  EXPECT_EQ(m_os.ExecCmd("printf '" + before + "\\0" + lost + next + "d\\n'", false), before + next + "d\n");
}

TEST_F(ExecCmd, SixteenMebibytesArriveByteForByte) {
  const std::string output = m_os.ExecCmd("seq 1 10000000 | head -c 16777216", false);

  std::string expected;
  for (int i = 1; expected.size() < 16777216; ++i) {
    expected += std::to_string(i) + "\n";
  }
  expected.resize(16777216);
  EXPECT_SAME_BYTES(output, expected);
}

TEST_F(ExecCmd, EveryByteButNulArrivesUnchanged) {
  std::string command = "printf '";
  std::string expected;
  for (int byte = 1; byte < 256; ++byte) {
    command += "\\" + std::to_string(byte / 64) + std::to_string(byte / 8 % 8) + std::to_string(byte % 8);
    expected += static_cast<char>(byte);
  }
  EXPECT_EQ(m_os.ExecCmd(command + "'", false), expected);
}

TEST_F(ExecCmd, ATextThatEndsInANewlineHasItsSuffixRunAsACommandOfItsOwn) {
  EXPECT_EQ(m_os.ExecCmd("echo abc; false\n", false), "abc\n");
}

TEST_F(ExecCmd, ANulByteInTheTextCutsOffTheRestAndTheSuffix) {
  testing::internal::CaptureStderr();

  EXPECT_EQ(m_os.ExecCmd(std::string("sh -c 'echo err >&2'\0 nonsense", 30), false), "");

  EXPECT_EQ(testing::internal::GetCapturedStderr(), "err\n");
}

/// While it lives, a handler without SA_RESTART runs every 10 ms, so that reading fails with EINTR again and again.
class SignalsEvery10Ms {
 public:
  SignalsEvery10Ms() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    EXPECT_EQ(::sigaction(SIGALRM, &action, nullptr), 0);
    SetPeriod(10000);
  }

  ~SignalsEvery10Ms() {
    SetPeriod(0);
    // Not back to the default action: on a busy machine a last signal may still arrive, and would end the tests.
    ::signal(SIGALRM, SIG_IGN);
  }

  SignalsEvery10Ms(const SignalsEvery10Ms&) = delete;
  SignalsEvery10Ms& operator=(const SignalsEvery10Ms&) = delete;

 private:
  static void SetPeriod(int microseconds) {
    const itimerval period = {{0, microseconds}, {0, microseconds}};
    EXPECT_EQ(::setitimer(ITIMER_REAL, &period, nullptr), 0);
  }
};

TEST_F(ExecCmd, AnErrorWhileReadingEndsTheOutputLikeItsEnd) {
  const SignalsEvery10Ms signals;

  // On a busy machine the shell starts when the reading has ended: then SIGPIPE must not end it.
  EXPECT_EQ(m_os.ExecCmd("trap '' PIPE; printf lost 2>/dev/null; sleep 0.3; true", false), "");
}

TEST_F(ExecCmd, ACommandThatClosesItsOutputIsWaitedFor) {
  EXPECT_EXACT_THROW(m_os.ExecCmd("exec >&- 2>&-; sleep 0.1; exit 4; true", false), std::logic_error, "");
}

// --- Failures --------------------------------------------------------------------------------------------------------

TEST_F(ExecCmd, ANonZeroExitThrowsTheOutputAndNothingElse) {
  EXPECT_EXACT_THROW(m_os.ExecCmd("echo bad; exit 1", false), std::logic_error, "bad\n");
  EXPECT_EXACT_THROW(m_os.ExecCmd("echo bad; exit 255", false), std::logic_error, "bad\n");
}

TEST_F(ExecCmd, ANonZeroExitWithoutOutputThrowsAnEmptyMessage) {
  EXPECT_EXACT_THROW(m_os.ExecCmd("false", false), std::logic_error, "");
}

TEST_F(ExecCmd, AFailingCommandsStandardErrorIsInTheMessage) {
  EXPECT_EXACT_THROW(m_os.ExecCmd("sh -c 'echo out; echo err >&2; exit 2'", false), std::logic_error, "out\nerr\n");
}

TEST_F(ExecCmd, OnlyTheLastCommandsStatusCounts) {
  EXPECT_EQ(m_os.ExecCmd("false\ntrue", false), "");
  EXPECT_EXACT_THROW(m_os.ExecCmd("true\nfalse", false), std::logic_error, "");
}

TEST_F(ExecCmd, AnUnknownCommandThrowsTheShellsWords) {
  const std::string words = LogicErrorOf([&] { m_os.ExecCmd("no-such-command-anywhere", false); });
  EXPECT_CONTAINS(words, "no-such-command-anywhere");
  EXPECT_CONTAINS(words, "not found");
}

TEST_F(ExecCmd, DeathByASignalThrowsWhatWasPrintedBefore) {
  EXPECT_EXACT_THROW(m_os.ExecCmd("echo dying; kill -KILL $$", false), std::logic_error, "dying\n");
}

TEST_F(ExecCmd, AFailingPopenThrowsItsError) {
  ScriptedKernel kernel;
  kernel.Script("popen", {Fails(EMFILE)}).Watch("pclose");

  EXPECT_SYSTEM_ERROR(m_os.ExecCmd("echo abc", false), EMFILE, ostext::kPopenFailed);

  EXPECT_EQ(kernel.Seen(), (Calls{"popen(\"echo abc 2>&1\", \"r\")"}));
}

TEST_F(ExecCmd, AFailingPcloseThrowsItsError) {
  ScriptedKernel kernel;
  kernel.Script("pclose", {Fails(ECHILD)}).Watch("popen");

  EXPECT_SYSTEM_ERROR(m_os.ExecCmd("echo abc", false), ECHILD, ostext::kPcloseFailed);

  EXPECT_EQ(kernel.Seen(), (Calls{"popen(\"echo abc 2>&1\", \"r\")", "pclose()"}));
}

TEST_F(ExecCmd, AnyNegativeResultOfPcloseIsAFailure) {
  ScriptedKernel kernel;
  kernel.Script("pclose", {{-2, EIO, {}, false}});

  EXPECT_SYSTEM_ERROR(m_os.ExecCmd("echo abc", false), EIO, ostext::kPcloseFailed);
}

TEST_F(ExecCmd, AnyPositiveResultOfPcloseThrowsTheOutput) {
  for (const int status : {1, 9, 256, 127 << 8}) {
    SCOPED_TRACE(status);
    ScriptedKernel kernel;
    kernel.Script("pclose", {Returns(status)});

    EXPECT_EXACT_THROW(m_os.ExecCmd("echo abc", false), std::logic_error, "abc\n");
  }
}

TEST_F(ExecCmd, WithoutFreeDescriptorsPopenReallyFails) {
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
  rlimit none = old;
  none.rlim_cur = 0;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);

  // The limit is restored before the exception is examined, for which some sanitizers need a descriptor.
  const auto call = [&] {
    try {
      m_os.ExecCmd("echo abc", false);
    } catch (...) {
      EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
      throw;
    }
  };
  EXPECT_SYSTEM_ERROR(call(), EMFILE, ostext::kPopenFailed);
}

TEST_F(ExecCmd, WhereChildrenAreNotWaitedForPcloseReallyFails) {
  ::signal(SIGCHLD, SIG_IGN);

  EXPECT_SYSTEM_ERROR(m_os.ExecCmd("echo abc", false), ECHILD, ostext::kPcloseFailed);

  ::signal(SIGCHLD, SIG_DFL);
}

TEST_F(ExecCmd, MemoryExhaustedWhileCollectingLeavesThePipeOpen) {
  const std::set<int> before = OpenDescriptors();

  {
    const LimitedAllocations limited(1 << 20);
    EXPECT_THROW(m_os.ExecCmd("seq 1 1000000", false), std::bad_alloc);
  }

  std::vector<int> left;
  for (const int fd : OpenDescriptors()) {
    if (before.count(fd) == 0) {
      left.push_back(fd);
    }
  }
  ASSERT_EQ(left.size(), 1U);
  // Tidied up by hand: the command ends when its pipe has no reader.
  EXPECT_EQ(::close(left.front()), 0);
  EXPECT_GT(::waitpid(-1, nullptr, 0), 0);
}

// --- The object ------------------------------------------------------------------------------------------------------

TEST_F(ExecCmd, TheCallersTextIsNotChanged) {
  const std::string command = "echo abc";
  m_os.ExecCmd(command, false);
  EXPECT_EQ(command, "echo abc");
}

TEST_F(ExecCmd, CallsFromSeveralThreadsAreIndependent) {
  std::list<JoiningThread> threads;
  std::vector<std::string> outputs(8);
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    threads.emplace_back([&, i] { outputs[i] = m_os.ExecCmd("seq " + std::to_string(i) + " 20", false); });
  }
  for (JoiningThread& thread : threads) {
    thread.Join();
  }
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(outputs[i], m_os.ExecCmd("seq " + std::to_string(i) + " 20", false));
  }
}

TEST(OpSystem, HoldsNoStateAndIsFreelyCopyable) {
  EXPECT_EQ(sizeof(OpSystem), sizeof(void*));
  EXPECT_TRUE(std::is_default_constructible_v<OpSystem>);
  EXPECT_TRUE(std::is_copy_constructible_v<OpSystem>);
  EXPECT_TRUE(std::is_copy_assignable_v<OpSystem>);
  OpSystem one;
  OpSystem other(one);
  one = other;
  EXPECT_EQ(one.ExecCmd("echo abc", false), "abc\n");
}

TEST(OpSystem, ItsCommandRunnerIsTheVirtualFunctionBehindTheDestructor) {
  // A pointer to a virtual member holds its offset in the table, where a destructor takes two slots. (ARM marks virtual
  // members elsewhere, others with the lowest bit.)
  std::string (OpSystem::*const member)(std::string, bool) = &OpSystem::ExecCmd;
  std::size_t offset = 0;
  std::memcpy(&offset, &member, sizeof offset);
  EXPECT_EQ(offset & ~std::size_t{1}, 2 * sizeof(void*));
}

TEST(OpSystem, ADerivedClassMayOverrideTheRunnerAndIsDestroyedThroughItsBase) {
  struct Derived : OpSystem {
    explicit Derived(bool& destroyed) : m_destroyed(destroyed) {}
    ~Derived() override {
      m_destroyed = true;
    }
    std::string ExecCmd(std::string command, bool) override {
      return "not run: " + command;
    }
    bool& m_destroyed;
  };
  bool destroyed = false;
  OpSystem* const os = new Derived(destroyed);
  EXPECT_EQ(os->ExecCmd("echo abc", false), "not run: echo abc");
  delete os;
  EXPECT_TRUE(destroyed);
}

}  // namespace
