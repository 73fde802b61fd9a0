#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "Board.h"
#include "Probes.h"

namespace {

using Serial = BoardTest;

TEST_F(Serial, NotOneByteOfTenThousandIsMisroutedWhileTheLoopGoesOnAndOff) {
  ExpectSteps({"--tty", "/dev/ttyS1=none"}, {kProbe, "loop"});
}

TEST_F(Serial, NotOneByteOfTenThousandIsMisroutedWithoutNamespacesEither) {
  ExpectSteps(kWithoutNamespaces + Words{"--tty", "/dev/ttyS1=none"}, {kProbe, "loop"});
}

TEST_F(Serial, AThousandSignalsASecondInterruptNoCallThatIsRestarted) {
  ExpectSteps({}, {kProbe, "signals-restart"});
  ExpectSteps(kWithoutNamespaces, {kProbe, "signals-restart"});
}

TEST_F(Serial, AThousandSignalsASecondLeaveEveryAnswerRightWhereNoneIsRestarted) {
  ExpectSteps({}, {kProbe, "signals-interrupt"});
  ExpectSteps(kWithoutNamespaces, {kProbe, "signals-interrupt"});
}

TEST_F(Serial, ASignalDoesNotInterruptARequestThatHasReachedTheSimulator) {
  if (Shell(Quoted(kSimulator) + " --check").find("  yes  to keep signals from") == std::string::npos) {
    GTEST_SKIP() << "This kernel lets signals interrupt requests.";
  }
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    // A log that nobody reads blocks the simulator in the middle of a request.
    ASSERT_EQ(::mkfifo(Path("log").c_str(), 0666), 0);
    const int log = ::open(Path("log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const auto board = Boot(options + Words{"--log", Path("log")}, {kProbe, "held-up"});
    const std::string call = "/proc/" + std::to_string(board->Process()) + "/syscall";
    const std::string writing = std::to_string(SYS_write) + ' ';
    EXPECT_TRUE(Eventually([&] { return Contents(call).rfind(writing, 0) == 0; }));
    const std::vector<pid_t> inits = ChildrenOf(board->Process());
    const std::vector<pid_t> programs = inits.empty() ? inits : ChildrenOf(inits.front());
    ASSERT_EQ(programs.size(), 1U);
    EXPECT_EQ(::kill(programs.front(), SIGUSR1), 0);
    ::usleep(50000);
    pollfd wait{log, POLLIN, 0};
    char piece[4096];
    while (::poll(&wait, 1, 20000) == 1 && ::read(log, piece, sizeof piece) > 0) {
    }
    const Outcome outcome = board->Finish();
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    ::close(log);
    ::unlink(Path("log").c_str());
  }
}

TEST_F(Serial, AMebibyteThatIsPacedComesBackWhole) {
  ExpectSteps({}, {kProbe, "paced"});
}

/// Of a mebibyte, what did not come back is what the log counts.
void ExpectAllCounted(const Outcome& outcome, const std::string& log) {
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
  const std::regex pattern("/dev/ttyS1 overrun dropped=(\\d+)\n");
  std::string dropped;
  for (std::sregex_iterator match(log.begin(), log.end(), pattern), end; match != end; ++match) {
    dropped = (*match)[1];
  }
  ASSERT_NE(dropped, "");
  ASSERT_NE(outcome.output, "");
  EXPECT_EQ(std::stoul(outcome.output) + std::stoul(dropped), 1048576U);
}

TEST_F(Serial, AnEchoThatIsNotReadIsDroppedAndCountedAndBlocksNobody) {
  const Outcome outcome = Run({"--log", Path("log")}, {kProbe, "overrun"});
  ExpectAllCounted(outcome, Contents(Path("log")));
}

TEST_F(Serial, ALoopThatIsNotReadIsDroppedAndCountedAndBlocksNobody) {
  const Outcome outcome = Run({"--tty", "/dev/ttyS1=none", "--log", Path("log")}, {kProbe, "loop-overrun"});
  // The last word is sent in the loop, too.
  ExpectAllCounted(outcome, Contents(Path("log")));
}

TEST_F(Serial, ItLiesInDevUnderItsNameAndIsATerminal) {
  ExpectSteps({}, {kProbe, "nodes"});
  const Outcome outcome = Run({}, {"sh", "-c", "stat -c '%F %a' /dev/ttyS1 /dev/watchdog /dev/mem"});
  EXPECT_EQ(outcome.output, "character special file 660\nfifo 600\nregular file 600\n") << outcome.errors;
}

TEST_F(Serial, OpenedForReadingAloneItIsOpenWhenTheFirstRequestComes) {
  ExpectSteps({}, {kProbe, "read-only"});
}

TEST_F(Serial, TheShellsToolsWorkOnIt) {
  const Outcome outcome =
      Run({}, {"sh", "-c",
               "stty -F /dev/ttyS1 115200 cs7 parenb cstopb && stty -F /dev/ttyS1 -a | tr ' ' '\\n' "
               "| grep -xE '115200|cs.|-?parenb|-?cstopb'"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, "115200\nparenb\ncs7\ncstopb\n");
  EXPECT_EQ(outcome.errors, "");
}

TEST_F(Serial, ADescriptorThatAShellHasOpenedIsThePort) {
  ExpectSteps({}, {"sh", "-c", "exec 3<>/dev/ttyS1; \"$0\" inherited", kProbe});
}

TEST_F(Serial, WhatIsToldOfItIsThatOfTheOptionOrTheDefault) {
  const auto plain = Boot({}, {kProbe, "talk"});
  EXPECT_EQ(plain->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_EQ(plain->Ask("info 3"), "3906250,64,0x10000040,42,0");
  EXPECT_EQ(plain->Finish().status, 0);

  const auto special = Boot({"--serial-info", "115200,16,0x30,4,0xff"}, {kProbe, "talk"});
  EXPECT_EQ(special->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_EQ(special->Ask("info 3"), "115200,16,0x30,4,255");
  EXPECT_EQ(special->Finish().status, 0);
}

TEST_F(Serial, ASpeedOfAHundredthAboveTheFastestIsTakenForIt) {
  const Words command = {"sh", "-c", "stty -F /dev/ttyS1 115200 2>/dev/null; stty -F /dev/ttyS1 speed"};
  EXPECT_EQ(Run({"--serial-info", "114500,64,0,42,0"}, command).output, "115200\n");
  EXPECT_EQ(Run({"--serial-info", "114000,64,0,42,0"}, command).output, "9600\n");
}

TEST_F(Serial, SeveralPortsHaveLinesAndFarEndsOfTheirOwnAndTheFirstHasTheUart) {
  const auto board = Boot({"--tty", "/dev/ttyAMA0=none", "--tty", "/dev/bus/serial/1"}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("open rw /dev/ttyAMA0"), "3");
  EXPECT_EQ(board->Ask("open rw /dev/bus/serial/1"), "4");
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), Failed(ENOENT));
  EXPECT_EQ(board->Ask("lines 3"), "0x4006");
  EXPECT_EQ(board->Ask("lines 4"), "0x4166");
  EXPECT_EQ(board->Ask("set-lines 3 0x4"), "ok");
  EXPECT_EQ(board->Ask("lines 4"), "0x4166");
  EXPECT_EQ(board->Ask("write 4 hello"), "ok");
  EXPECT_EQ(board->Ask("read 4"), "got hello");
  EXPECT_EQ(board->Ask("peek 0x80011000"), "0x197");
  EXPECT_EQ(board->Ask("run stty -F /dev/bus/serial/1 115200"), "0");
  EXPECT_EQ(board->Ask("peek 0x80011000"), "0x197");
  EXPECT_EQ(board->Ask("run stty -F /dev/ttyAMA0 115200"), "0");
  EXPECT_EQ(board->Ask("peek 0x80011000"), "0x22");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(Serial, TheDivisorComesFromThePortsOwnBase) {
  const auto board = Boot({"--serial-info", "3000000,64,0x10000040,42,0"}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("run stty -F /dev/ttyS1 115200"), "0");
  EXPECT_EQ(board->Ask("peek 0x80011000"), "0x1a");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(Serial, TheRegistersLieWhereTheOptionSays) {
  const auto board =
      Boot({"--uart", "0x40000100:1", "--reg", "0x40000200=0xdeadbeef", "--reg", "16=17"}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("peek 0x80011000"), "0x0");
  EXPECT_EQ(board->Ask("peek 0x8001100c"), "0x0");
  EXPECT_EQ(board->Ask("peek 0x40000103"), "0x13");
  EXPECT_EQ(board->Ask("peek 0x40000200"), "0xdeadbeef");
  EXPECT_EQ(board->Ask("peek 16"), "0x11");
  EXPECT_EQ(board->Finish().status, 0);

  const auto wide = Boot({"--uart", "0x40000100:16"}, {kProbe, "talk"});
  EXPECT_EQ(wide->Ask("peek 0x40000100"), "0x197");
  EXPECT_EQ(wide->Ask("peek 0x40000130"), "0x13");
  EXPECT_EQ(wide->Finish().status, 0);

  const auto usual = Boot({"--uart", "0x40000100"}, {kProbe, "talk"});
  EXPECT_EQ(usual->Ask("peek 0x4000010c"), "0x13");
  EXPECT_EQ(usual->Finish().status, 0);
}

TEST_F(Serial, MemoryCannotBeTruncated) {
  ExpectStepsOfEachUser({kProbe, "memory-size"});
}

TEST_F(Serial, AllRegistersAreThereWhenTheProgramStarts) {
  Words registers;
  constexpr int kCount = 20000;
  for (int i = 1; i <= kCount; ++i) {
    registers = std::move(registers) + Words{"--reg", std::to_string(4 * i) + "=7"};
  }
  const auto board = Boot(registers + Words{"--net", "none"}, {kStaticProbe, "talk"});
  EXPECT_EQ(board->Ask("peek " + std::to_string(4 * kCount)), "0x7");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(Serial, WithoutMemoryThereIsNoneAndThePortWorksAllTheSame) {
  const auto board = Boot({"--mem", "none"}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("open rw /dev/mem"), Failed(ENOENT));
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_EQ(board->Ask("run stty -F /dev/ttyS1 1200"), "0");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(Serial, TheLogTellsOfItsOpensSettingsAndRequestsInTheirOrder) {
  const auto board = Boot({"--log", Path("log")}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_EQ(board->Ask("set-lines 3 0x8004"), "ok");
  EXPECT_EQ(board->Ask("lines 3"), "0x8024");
  EXPECT_EQ(board->Ask("info 3"), "3906250,64,0x10000040,42,0");
  EXPECT_EQ(board->Ask("run stty -F /dev/ttyS1 19200 cs7"), "0");
  EXPECT_EQ(board->Finish().status, 0);
  const std::string log = Contents(Path("log"));
  std::size_t at = 0;
  for (const char* event :
       {" board start\n", " /dev/ttyS1 open\n", " /dev/ttyS1 TIOCMSET 0x8004\n", " /dev/ttyS1 TIOCMGET 0x8024\n",
        " /dev/ttyS1 TIOCGSERIAL\n", " /dev/ttyS1 settings speed=19200 flags=0x", " board end status=0\n"}) {
    at = log.find(event, at);
    ASSERT_NE(at, std::string::npos) << event << "is missing, or late:\n" << log;
  }
  // Each line begins with the seconds since the start.
  EXPECT_TRUE(std::regex_match(log, std::regex("(\\d+\\.\\d{6} [^\n]+\n)+"))) << log;
}

}  // namespace
