#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "Board.h"
#include "ExpectText.h"
#include "Probes.h"

namespace {

using Sandbox = BoardTest;

/// These tests run in both ways.
class EitherWay : public BoardTest, public testing::WithParamInterface<bool> {
 protected:
  static Words Way() {
    return GetParam() ? Words{} : kWithoutNamespaces;
  }
};

INSTANTIATE_TEST_SUITE_P(Running, EitherWay, testing::Bool(), [](const testing::TestParamInfo<bool>& info) {
  return std::string(info.param ? "InNamespaces" : "WithoutNamespaces");
});

TEST_P(EitherWay, TheStatusIsTheProgramsOwnOrTellsOfItsSignal) {
  EXPECT_EQ(Run(Way(), {"true"}).status, 0);
  EXPECT_EQ(Run(Way(), {"sh", "-c", "exit 3"}).status, 3);
  EXPECT_EQ(Run(Way(), {"sh", "-c", "exit 255"}).status, 255);
  for (const int signal : {SIGKILL, SIGTERM, SIGSEGV, SIGPIPE}) {
    SCOPED_TRACE(signal);
    EXPECT_EQ(Run(Way(), {"sh", "-c", "kill -" + std::to_string(signal) + " $$"}).status, 128 + signal);
  }
}

TEST_P(EitherWay, TheStatusIsNotLostWhereTheEndsOfChildrenAreIgnored) {
  Start start;
  start.options = Way() + Words{"--tty", "/dev/ttyS1=exec:cat"};
  start.command = {"sh", "-c", "exit 3"};
  start.prepare = [] { ::signal(SIGCHLD, SIG_IGN); };
  EXPECT_EQ(Run(start).status, 3);
}

TEST_P(EitherWay, StandardDescriptorsThatAreClosedAreNobodysElse) {
  for (int first = STDIN_FILENO; first <= STDERR_FILENO; ++first) {
    SCOPED_TRACE(first);
    Start start;
    start.options = Way() + Words{"--tty", "/dev/ttyS1=exec:cat", "--log", Path("log")};
    start.command = {kProbe, "raw", "abandon"};
    start.prepare = [first] {
      for (int fd = first; fd <= STDERR_FILENO; ++fd) {
        ::close(fd);
      }
    };
    EXPECT_EQ(Run(start).status, 86);
    // Messages to standard error are lost then, and must not end up in files that were opened later.
    EXPECT_LACKS(Contents(Path("log")), "boardsim: ");
  }
}

TEST_P(EitherWay, InputAndOutputAreTheProgramsOwn) {
  const auto board = Boot(Way(), {"sh", "-c", "cat; echo wrong >&2"});
  board->Tell("first");
  EXPECT_EQ(board->Listen(), "first");
  board->Tell("second");
  const Outcome outcome = board->Finish();
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, "second\n");
  EXPECT_EQ(outcome.errors, "wrong\n");
}

TEST_P(EitherWay, FolderMasksEnvironmentAndDescriptorsAreThoseOfOutside) {
  const std::string folder = Folder();
  Start start;
  start.options = Way();
  start.command = {kProbe, "surroundings"};
  start.environment = {"BOARD=a board"};
  start.prepare = [folder] {
    ::umask(027);
    [[maybe_unused]] const int result = ::chdir(folder.c_str());
    ::signal(SIGHUP, SIG_IGN);
    ::signal(SIGUSR2, SIG_IGN);
    ::signal(SIGCHLD, SIG_IGN);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR1);
    ::sigaddset(&blocked, SIGWINCH);
    ::sigprocmask(SIG_SETMASK, &blocked, nullptr);
    ::dup2(STDIN_FILENO, 17);
  };
  const Outcome inside = Run(start);
  start.bare = true;
  const Outcome outside = Run(start);
  EXPECT_EQ(outside.status, 0) << outside.errors;
  EXPECT_CONTAINS(outside.output, "descriptor 17\n");
  EXPECT_CONTAINS(outside.output, "umask 027\nBOARD a board\n");
  EXPECT_EQ(inside.status, 0) << inside.errors;
  EXPECT_EQ(inside.output, outside.output);
  EXPECT_EQ(inside.errors, "");
}

TEST_P(EitherWay, WhatAShellWritesGoesToTheDeviceAndMakesNoFile) {
  const Outcome outcome =
      Run(Way() + Words{"--tty", "/dev/ttyS1=exec:cat >" + Path("sent")}, {"sh", "-c", "echo hello >/dev/ttyS1"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
  // A port that has not been set up yet treats ends of lines as a terminal does.
  EXPECT_EQ(Contents(Path("sent")), "hello\r\n");
}

TEST_F(Sandbox, AWorkingFolderInDevIsTheBoards) {
  for (const char* folder : {"/dev", "/dev/.", "/dev/pts"}) {
    SCOPED_TRACE(folder);
    Start start;
    start.command = {"/bin/sh", "-c", "cd /dev; ls -d ttyS1 watchdog mem; cd - >/dev/null; ls"};
    start.prepare = [folder] { [[maybe_unused]] const int result = ::chdir(folder); };
    const Outcome outcome = Run(start);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    const std::string listed = outcome.output.substr(std::string("mem\nttyS1\nwatchdog\n").size());
    EXPECT_EQ(outcome.output.substr(0, outcome.output.size() - listed.size()), "mem\nttyS1\nwatchdog\n");
    if (std::string(folder) == "/dev/pts") {
      EXPECT_EQ(listed, "0\nptmx\n");
    } else {
      EXPECT_CONTAINS(listed, "\nttyS1\n");
    }
  }
}

TEST_P(EitherWay, SignalsAreHandedOnAndTheBoardEndsWhenTheProgramDoes) {
  const auto board = Boot(Way(), {kProbe, "listen-to-signals"});
  ASSERT_EQ(board->Listen(), "ready");
  for (const int signal : {SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM}) {
    SCOPED_TRACE(signal);
    EXPECT_EQ(::kill(board->Process(), signal), 0);
    EXPECT_EQ(board->Listen(), std::to_string(signal));
  }
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_P(EitherWay, AKeyOnTheTerminalInterruptsTheProgramOnce) {
  const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_NE(terminal, -1);
  ASSERT_EQ(::grantpt(terminal), 0);
  ASSERT_EQ(::unlockpt(terminal), 0);
  const std::string name = ::ptsname(terminal);
  Start start;
  start.options = Way();
  start.command = {kProbe, "listen-to-signals"};
  start.prepare = [name] {
    ::setsid();
    // The first terminal that is opened becomes that of the session.
    ::open(name.c_str(), O_RDWR);
  };
  const auto board = Boot(start);
  ASSERT_EQ(board->Listen(), "ready");
  const char key = 'C' - '@';
  EXPECT_EQ(::write(terminal, &key, 1), 1);
  EXPECT_EQ(board->Listen(), std::to_string(SIGINT));
  EXPECT_EQ(::kill(board->Process(), SIGTERM), 0);
  EXPECT_EQ(board->Listen(), std::to_string(SIGTERM));
  EXPECT_EQ(board->Finish().status, 0);
  ::close(terminal);
}

TEST_P(EitherWay, AProgramThatASignalEndsGivesItsStatus) {
  const auto board = Boot(Way(), {kProbe, "daemons"});
  ASSERT_EQ(board->Listen(), "ready");
  EXPECT_EQ(::kill(board->Process(), SIGTERM), 0);
  EXPECT_EQ(board->Finish().status, 128 + SIGTERM);
}

TEST_P(EitherWay, ADaemonThatIsLeftBehindEndsWithTheProgram) {
  const Outcome outcome = Run(Way(), {"sh", "-c", "setsid sleep 300 & (setsid sh -c 'sleep 300 & wait' &) ; exit 5"});
  EXPECT_EQ(outcome.status, 5) << outcome.errors;
}

/// The processes below one: the first process of the sandbox, and the program.
struct Family {
  explicit Family(pid_t simulator) {
    Eventually([&] {
      const std::vector<pid_t> inits = ChildrenOf(simulator);
      const std::vector<pid_t> programs = inits.empty() ? inits : ChildrenOf(inits.front());
      if (!programs.empty()) {
        init = inits.front();
        program = programs.front();
      }
      return !programs.empty();
    });
  }
  pid_t init = 0;
  pid_t program = 0;
};

TEST_P(EitherWay, TheLaunchersDeathIsThatOfTheProgramAndItsDaemons) {
  const auto board = Boot(Way() + Words{"--tty", "/dev/ttyS1=exec:sleep 300"}, {kProbe, "daemons"});
  ASSERT_EQ(board->Listen(), "ready");
  EXPECT_EQ(::kill(board->Process(), SIGKILL), 0);
  EXPECT_EQ(board->Finish().status, 128 + SIGKILL);
  // TearDown() sees that none is left.
}

TEST_P(EitherWay, TheLaunchersDeathDuringRequestsIsThatOfTheProgram) {
  const auto board = Boot(Way(), {kProbe, "busy"});
  ASSERT_EQ(board->Listen(), "ready");
  EXPECT_EQ(::kill(board->Process(), SIGKILL), 0);
  EXPECT_EQ(board->Finish().status, 128 + SIGKILL);
}

TEST_P(EitherWay, TheProgramsDeathDuringRequestsEndsTheBoard) {
  const auto board = Boot(Way(), {kProbe, "busy"});
  ASSERT_EQ(board->Listen(), "ready");
  const Family family(board->Process());
  ASSERT_GT(family.program, 0);
  EXPECT_EQ(::kill(family.program, SIGKILL), 0);
  EXPECT_EQ(board->Finish().status, 128 + SIGKILL);
}

TEST_P(EitherWay, TheFirstProcesssDeathIsThatOfTheProgramAndItsDaemons) {
  const auto board = Boot(Way(), {kProbe, "daemons"});
  ASSERT_EQ(board->Listen(), "ready");
  const Family family(board->Process());
  ASSERT_GT(family.init, 0);
  EXPECT_EQ(::kill(family.init, SIGKILL), 0);
  EXPECT_EQ(board->Finish().status, 128 + SIGKILL);
}

TEST_P(EitherWay, OneInsideAnotherIsRefusedInWords) {
  const Outcome outcome = Run(Way(), Words{kSimulator} + Way() + Words{"--", "true"});
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.errors, "boardsim: System calls are supervised here already, by another simulator perhaps.\n");
}

TEST_P(EitherWay, ADebuggerStopsTheProgramInsideAndItsRequestsAreAnswered) {
  if (Shell("command -v gdb").empty()) {
    GTEST_SKIP() << "There is no gdb here.";
  }
  const Outcome outcome = Run(Way(), {"gdb",
                                      "-nx",
                                      "-batch",
                                      "-ex",
                                      "set debuginfod enabled off",
                                      "-ex",
                                      "set confirm off",
                                      "-ex",
                                      "break modem",
                                      "-ex",
                                      "run",
                                      "-ex",
                                      "break ioctl",
                                      "-ex",
                                      "continue",
                                      "-ex",
                                      "finish",
                                      "-ex",
                                      "delete",
                                      "-ex",
                                      "continue",
                                      "--args",
                                      kProbe,
                                      "modem",
                                      "echo"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_CONTAINS(outcome.output, "Breakpoint 1, ") << outcome.errors;
  // The request returns to where it was called, which optimisation may have moved.
  EXPECT_TRUE(
      std::regex_search(outcome.output, std::regex("\nBreakpoint 2, [^]*\n0x[0-9a-f]+ in (modem|lines|make_raw) \\(")))
      << outcome.output << outcome.errors;
  EXPECT_CONTAINS(outcome.output, "exited normally]") << outcome.errors;
}

TEST_F(Sandbox, AHundredSideBySideAllEndWithTheirOwnStatusAndLeaveNothing) {
  const std::string network = Shell("ip -o link | sed 's/ qlen .*//'; ip -o address | sed 's/ valid_lft .*//'");
  std::vector<std::unique_ptr<Board>> boards;
  constexpr int kCount = 100;
  for (int i = 0; i < kCount; ++i) {
    boards.push_back(Boot({}, {"sh", "-c", "read line; \"$0\" echo && exit " + std::to_string(i), kStaticProbe}));
  }
  // All of them run before the first one may end.
  for (int i = 0; i < kCount; ++i) {
    boards[static_cast<std::size_t>(i)]->Tell("go");
  }
  for (int i = 0; i < kCount; ++i) {
    const Outcome outcome = boards[static_cast<std::size_t>(i)]->Finish();
    EXPECT_EQ(outcome.status, i) << outcome.errors;
  }
  EXPECT_EQ(Shell("ip -o link | sed 's/ qlen .*//'; ip -o address | sed 's/ valid_lft .*//'"), network);
}

TEST_F(Sandbox, TheUserIsRootAndSeesOnlyTheBoardsProcesses) {
  ExpectSteps({}, {kProbe, "user"});
  EXPECT_EQ(Run({}, {"sh", "-c", "set -- /proc/[0-9]*; echo $#"}).output, "2\n");
}

TEST_F(Sandbox, DevHasWhatEveryProgramNeedsAndNothingOfTheMachines) {
  const Outcome outcome = Run({}, {"sh", "-c", "ls /dev | tr '\\n' ' '"});
  for (const char* name : {"fd", "full", "mem", "null", "ptmx", "pts", "random", "stderr", "stdin", "stdout", "tty",
                           "ttyS1", "urandom", "watchdog", "zero"}) {
    EXPECT_CONTAINS(' ' + outcome.output, std::string(" ") + name + ' ');
  }
  EXPECT_LACKS(' ' + outcome.output, " ttyS0 ");
  const Outcome use = Run({}, {"sh", "-c",
                               "head -c 3 /dev/zero | wc -c; echo x >/dev/null; head -c 2 /dev/urandom | wc -c; "
                               "echo x >/dev/full"});
  EXPECT_EQ(use.output, "3\n2\n");
  EXPECT_NE(use.errors, "");
}

TEST_F(Sandbox, WhereUserNamespacesAreForbiddenRootsOwnRightsDoAndNoMountGetsOut) {
  if (!AreUserNamespacesAllowed()) {
    GTEST_SKIP() << kNoUserNamespaces;
  }
  Start start;
  start.bare = true;
  const std::string script =
      "exec unshare --user --map-root-user --mount --propagation shared sh -c 'echo 0 "
      ">/proc/sys/user/max_user_namespaces; cat /proc/self/mountinfo >\"$1/before\"; "
      "\"$2\" -- sh -c \"! mount -t tmpfs inside /mnt 2>/dev/null && ls /dev/ttyS1\"; "
      "cat /proc/self/mountinfo >\"$1/after\"' sh \"$0\" \"$1\"";
  start.command = {"/bin/sh", "-c", script, Folder(), kSimulator};
  const Outcome outcome = Run(start);
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, "/dev/ttyS1\n");
  EXPECT_EQ(outcome.errors, "");
  EXPECT_NE(Contents(Path("before")), "");
  EXPECT_EQ(Contents(Path("after")), Contents(Path("before")));
}

}  // namespace
