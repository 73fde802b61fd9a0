#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace {

constexpr const char* kSimulator = BOARDKIT_BOARDSIM;
constexpr const char* kProbe = BOARDKIT_PROBE;
constexpr const char* kStaticProbe = BOARDKIT_STATIC_PROBE;

struct Outcome {
  int status;
  std::string output;  // and errors
};

Outcome Simulate(const std::string& arguments) {
  const std::string command = std::string(kSimulator) + ' ' + arguments + " 2>&1 </dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  Outcome outcome{-1, ""};
  std::array<char, 4096> piece{};
  for (std::size_t got = 0; (got = std::fread(piece.data(), 1, piece.size(), pipe)) != 0;) {
    outcome.output.append(piece.data(), got);
  }
  const int status = ::pclose(pipe);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return outcome;
}

class Boardsim : public testing::Test {
 protected:
  void SetUp() override {
    const Outcome probe = Simulate("-- true");
    if (probe.status != 0) {
      GTEST_SKIP() << "The board can't be simulated here: " << probe.output;
    }
  }
};

void ExpectSteps(const std::string& options, const std::string& program, const std::string& step) {
  const Outcome outcome = Simulate(options + " -- " + program + ' ' + step);
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_EQ(outcome.output, "");
}

TEST_F(Boardsim, ModemLinesAreThoseOfThePortAndTheInputsMirrorTheOutputsInTheLoop) {
  ExpectSteps("", kProbe, "modem");
}

TEST_F(Boardsim, NotOneByteOfTenThousandIsMisroutedWhileTheLoopGoesOnAndOff) {
  ExpectSteps("--tty /dev/ttyS1=none", kProbe, "loop");
}

TEST_F(Boardsim, AnEchoingFarEndSendsTheBytesBack) {
  ExpectSteps("", kProbe, "echo");
}

TEST_F(Boardsim, ACommandCanBeTheFarEnd) {
  ExpectSteps("--tty /dev/ttyS1=exec:cat", kProbe, "echo");
}

TEST_F(Boardsim, SizeAndParityAreKeptAndProgramTheUart) {
  ExpectSteps("", kProbe, "settings");
}

TEST_F(Boardsim, MemoryReachesBehindTheLastAddress) {
  ExpectSteps("", kProbe, "memory");
}

TEST_F(Boardsim, TheWatchdogHasOneOwnerTakesSensibleTimesAndIsClosedAndOpenedInQuickSuccession) {
  ExpectSteps("", kProbe, "watchdog");
}

TEST_F(Boardsim, AFedWatchdogDoesNotBiteNorDoesOneThatWasStopped) {
  ExpectSteps("", kProbe, "stopped");
}

TEST_F(Boardsim, AStaticProgramSeesTheSameBoard) {
  for (const char* step : {"modem", "echo", "settings", "memory", "watchdog"}) {
    ExpectSteps("", kStaticProbe, step);
  }
}

TEST_F(Boardsim, WithoutNamespacesTheSameDevicesAnswer) {
  for (const char* step : {"modem", "echo", "settings", "memory", "watchdog", "stopped"}) {
    ExpectSteps("--no-namespaces --net host", kProbe, step);
  }
}

TEST_F(Boardsim, AStarvedWatchdogEndsEveryProcessAtOnceDaemonsIncluded) {
  const auto start = std::chrono::steady_clock::now();
  for (const char* options : {"", "--no-namespaces --net host"}) {
    const Outcome outcome = Simulate(std::string(options) + " -- " + kProbe + " starved");
    EXPECT_EQ(outcome.status, 86);
    EXPECT_EQ(
        outcome.output.find("boardsim: /dev/watchdog: the watchdog has reset the board: time-out 1 s, last fed 1."), 0U)
        << outcome.output;
    EXPECT_EQ(outcome.output.find("daemon"), std::string::npos);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(Boardsim, AnApplicationThatEndsWithTheWatchdogCountingResetsTheBoard) {
  const Outcome outcome = Simulate("-- sh -c 'echo >/dev/watchdog'");
  EXPECT_EQ(outcome.status, 86);
  EXPECT_NE(outcome.output.find("has ended without stopping the watchdog"), std::string::npos) << outcome.output;
}

TEST_F(Boardsim, TheNetworkHasTwoInterfacesOfItsOwnAndTheMachineKeepsIts) {
  const Outcome outcome =
      Simulate("-- sh -c 'cat /sys/class/net/*/address; ls /sys/class/net; ip address add 192.0.2.177/24 dev eth0'");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "02:00:00:00:00:01\n02:00:00:00:00:02\n00:00:00:00:00:00\neth0\neth1\nlo\n");
  EXPECT_NE(std::system("ip -o address | grep -qF 192.0.2.177/"), 0);
}

TEST_F(Boardsim, TheExitStatusIsTheApplicationsOrTellsOfItsSignal) {
  EXPECT_EQ(Simulate("-- sh -c 'exit 3'").status, 3);
  EXPECT_EQ(Simulate("-- sh -c 'kill -KILL $$'").status, 128 + SIGKILL);
  EXPECT_EQ(Simulate("sh -c 'exit 4'").status, 4);
}

TEST_F(Boardsim, WhatCannotBeStartedGivesTheUsualStatuses) {
  const Outcome missing = Simulate("-- ./no-such-program");
  EXPECT_EQ(missing.status, 127);
  EXPECT_EQ(missing.output, "boardsim: ./no-such-program can't be executed: No such file or directory\n");
  const Outcome folder = Simulate("-- /tmp");
  EXPECT_EQ(folder.status, 126);
  EXPECT_EQ(folder.output, "boardsim: /tmp can't be executed: Permission denied\n");
}

TEST(BoardsimOptions, WrongOnesGiveOneSentenceAndStatus125) {
  const char* const kWrong[] = {"--no-such-option -- true",
                                "--tty /tmp/x=echo -- true",
                                "--tty /dev/../x -- true",
                                "--tty /dev/null -- true",
                                "--tty /dev/ttyS1=modem -- true",
                                "--watchdog /dev/mem -- true",
                                "--uart 0x100000000 -- true",
                                "--reg 1=-1 -- true",
                                "--net sometimes -- true",
                                "--serial-info 1,2 -- true",
                                "--log /no/such/folder/log -- true",
                                "--control /no/such/folder/socket -- true",
                                "--tty /dev/ttyS1=tcp:127.0.0.1:1 -- true",
                                "--tty /dev/ttyS1=unix:/no/such/socket -- true",
                                ""};
  for (const char* arguments : kWrong) {
    const Outcome outcome = Simulate(arguments);
    EXPECT_EQ(outcome.status, 125) << arguments;
    EXPECT_EQ(outcome.output.find("boardsim: "), 0U) << arguments << ": " << outcome.output;
    EXPECT_EQ(outcome.output.find('\n'), outcome.output.size() - 1) << arguments << ": " << outcome.output;
  }
}

TEST_F(Boardsim, OneInsideAnotherIsRefusedInWords) {
  const Outcome outcome = Simulate(std::string("-- ") + kSimulator + " -- true");
  EXPECT_EQ(outcome.status, 125);
  EXPECT_NE(outcome.output.find("there can be only one"), std::string::npos) << outcome.output;
}

TEST_F(Boardsim, ADaemonThatTheApplicationLeavesBehindEndsWithIt) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Simulate("-- sh -c 'setsid sleep 60 & exit 5'").status, 5);
  EXPECT_EQ(Simulate("--no-namespaces --net host -- sh -c 'setsid sleep 60 & exit 5'").status, 5);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(Boardsim, TheLogHasALineForEachEvent) {
  const std::string path = testing::TempDir() + "boardsim-log-" + std::to_string(::getpid());
  EXPECT_EQ(Simulate("--log " + path + " -- " + kProbe + " stopped").status, 0);
  std::ifstream file(path);
  const std::string log((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  ::unlink(path.c_str());
  EXPECT_NE(log.find(" /dev/watchdog open\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" /dev/watchdog timeout 1\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" /dev/watchdog feed\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" /dev/watchdog write magic\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" /dev/watchdog close: stopped\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" board end status=0\n"), std::string::npos) << log;
}

/// Gives one command on the control socket.
std::string Command(const std::string& path, const std::string& command) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string answer;
  for (int attempt = 0; attempt < 500; ++attempt) {
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      const std::string line = command + '\n';
      EXPECT_EQ(::send(socket, line.data(), line.size(), MSG_NOSIGNAL), static_cast<ssize_t>(line.size()));
      std::array<char, 512> piece{};
      const ssize_t got = ::recv(socket, piece.data(), piece.size(), 0);
      answer.assign(piece.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
      break;
    }
    ::usleep(10000);
  }
  ::close(socket);
  return answer;
}

TEST_F(Boardsim, TheControlSocketMovesLinesCablesAndRegisters) {
  const std::string path = testing::TempDir() + "boardsim-control-" + std::to_string(::getpid());
  const pid_t simulator = ::fork();
  if (simulator == 0) {
    ::execl(kSimulator, "boardsim", "--control", path.c_str(), "--", "sleep", "60", static_cast<char*>(nullptr));
    ::_exit(1);
  }
  EXPECT_EQ(Command(path, "lines /dev/ttyS1"), "ok CTS DSR CD\n");
  EXPECT_EQ(Command(path, "clear /dev/ttyS1 CTS CD"), "ok\n");
  EXPECT_EQ(Command(path, "set /dev/ttyS1 RI"), "ok\n");
  EXPECT_EQ(Command(path, "lines /dev/ttyS1"), "ok DSR RI\n");
  EXPECT_EQ(Command(path, "write 0x1000 0xcafe"), "ok\n");
  EXPECT_EQ(Command(path, "read 0x1000"), "ok 0xcafe\n");
  EXPECT_EQ(Command(path, "link eth0 down"), "ok\n");
  EXPECT_EQ(Command(path, "hangup /dev/ttyS1"), "ok\n");
  EXPECT_EQ(Command(path, "plug /dev/ttyS1"), "ok\n");
  EXPECT_EQ(Command(path, "plug /dev/ttyS1"), "error /dev/ttyS1 is plugged in\n");
  EXPECT_EQ(Command(path, "feed /dev/ttyS1 0g"), "error bytes are pairs of hexadecimal digits, not \"0g\"\n");
  EXPECT_EQ(Command(path, "watchdog"), "ok stopped closed timeout=60\n");
  EXPECT_EQ(Command(path, "read 0x1000x").find("error "), 0U);

  // What is meant for the application, the simulator hands on.
  ::kill(simulator, SIGTERM);
  int status = 0;
  EXPECT_EQ(::waitpid(simulator, &status, 0), simulator);
  EXPECT_EQ(WEXITSTATUS(status), 128 + SIGTERM);
  EXPECT_NE(::access(path.c_str(), F_OK), 0);
}

}  // namespace
