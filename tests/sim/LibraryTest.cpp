// The library on the simulated board: what it returns, what arrives at the far ends, and the board's whole log in
// order, compared with what was asked for.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Board.h"
#include "ExpectText.h"
#include "Sockets.h"

namespace {

using Lines = Words;

constexpr const char* kSteps = BOARDKIT_LIBRARY_STEPS;
constexpr const char* kStarve = BOARDKIT_BOARD_STARVE;

// The control flags as the kernel has them, and the log.
constexpr unsigned int kRaw = 0x8b0;           // 8 bits, receiving, without regard to the modem lines
constexpr unsigned int kFound = kRaw | 0x40d;  // 9600 baud, hanging up at the last close
constexpr unsigned int k9600 = 0xd;
constexpr unsigned int k115200 = 0x1002;
constexpr unsigned int kOtherSpeed = 0x1000;
constexpr unsigned int kTwoStopBits = 0x40;
constexpr unsigned int kParity = 0x100;
constexpr unsigned int kOdd = 0x200;
constexpr unsigned int kHardware = 0x80000000;
constexpr unsigned int kSevenBitsLess = 0x10;  // 7 instead of 8

std::string Settings(unsigned int speed, unsigned int flags) {
  std::ostringstream line;
  line << "settings speed=" << speed << " flags=0x" << std::hex << flags;
  return line.str();
}

Lines Of(const std::string& device, const Lines& events) {
  Lines lines;
  for (const std::string& event : events) {
    lines.push_back(device + ' ' + event);
  }
  return lines;
}

Lines OfPort(const Lines& events) {
  return Of("/dev/ttyS1", events);
}

Lines OfWatchdog(const Lines& events) {
  return Of("/dev/watchdog", events);
}

const Lines kStart = {"board start"};
const Lines kEnd = {"board end status=0"};
const Lines kFlushes = {"flush input", "flush both", "flush input"};
const Lines kOpening = Lines{"open", Settings(0, kRaw)} + kFlushes;

/// The loop is cleared, whether it was on or not, and the attributes are restored.
Lines Closing(const std::string& lines, const std::string& linesSet = "0x4006") {
  return {"TIOCMGET " + lines, "TIOCMSET " + linesSet, Settings(9600, kFound)};
}

/// As texts, whose differences are shown.
void ExpectSame(const Lines& log, const Lines& expected) {
  const auto text = [](const Lines& lines) {
    std::string joined;
    for (const std::string& line : lines) {
      joined += line + '\n';
    }
    return joined;
  };
  EXPECT_EQ(text(log), text(expected));
}

/// One run of the simulator, by the user who runs the tests or by an ordinary user (who may be the same).
class LibraryOnSim : public BoardTest, public testing::WithParamInterface<User> {
 protected:
  void SetUp() override {
    BoardTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    if (GetParam() == User::kOrdinary && !AreUserNamespacesAllowed()) {
      GTEST_SKIP() << kNoUserNamespaces;
    }
    // Not in an ordinary user's PATH, but some systems have `ip` there.
    ::setenv("PATH", (std::string(std::getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
  }

  /// Begins a run, with a log.
  void Begin(const Lines& options, const Lines& command) {
    Start start;
    start.options = Lines{"--log", Path("log")} + options;
    start.command = command;
    start.user = GetParam();
    if (GetParam() == User::kOrdinary) {
      // This user may not read the build folder.
      for (const auto& file : std::filesystem::directory_iterator(BOARDKIT_LIBRARY_FOLDER)) {
        if (file.path().filename().string().rfind("libboardkit.so.", 0) == 0) {
          Shared(file.path());
        }
      }
      start.environment.push_back("LD_LIBRARY_PATH=" + Folder());
    }
    m_board = Boot(start);
  }

  /// @returns the exit status.
  int Finish() {
    m_outcome = m_board->Finish();
    return m_outcome.status;
  }

  int RunWithLog(const Lines& options, const Lines& command) {
    Begin(options, command);
    return Finish();
  }

  /// A step that succeeds and prints no complaint.
  void RunStep(const Lines& options, const Lines& step) {
    EXPECT_EQ(RunWithLog(options, Lines{kSteps} + step), 0);
    EXPECT_EQ(Errors(), "");
  }

  /// Of the part that has not been listened to.
  const std::string& Output() const {
    return m_outcome.output;
  }
  const std::string& Errors() const {
    return m_outcome.errors;
  }
  Board& Running() const {
    return *m_board;
  }
  /// Without the times, which must not run backwards.
  Lines Log() const {
    std::ifstream file(Path("log"));
    double before = 0;
    double time = 0;
    Lines lines;
    for (std::string line; file >> time && file.get() == ' ' && std::getline(file, line);) {
      EXPECT_GE(time, before) << line;
      before = time;
      lines.push_back(line);
    }
    return lines;
  }
  /// What comes before a reset, which is logged with these words and ends everything.
  Lines LogBeforeReset(const std::string& account) const {
    Lines log = Log();
    if (log.size() < 2) {
      ADD_FAILURE() << "The log is too short.";
      return log;
    }
    EXPECT_EQ(log.back(), "board end status=86");
    log.pop_back();
    EXPECT_BEGINS(log.back(), "/dev/watchdog reset " + account);
    log.pop_back();
    return log;
  }

 private:
  std::unique_ptr<Board> m_board;
  Outcome m_outcome{};
};

INSTANTIATE_TEST_SUITE_P(As, LibraryOnSim, testing::Values(User::kOneself, User::kOrdinary),
                         [](const testing::TestParamInfo<User>& info) {
                           return std::string(info.param == User::kOrdinary ? "AnOrdinaryUser" : "TheUserOfTheTests");
                         });

// --- The serial port -------------------------------------------------------------------------------------------------

TEST_P(LibraryOnSim, EverySettingOfAPortReachesTheDriverInTheOrderOfTheCalls) {
  RunStep({"--tty", "/dev/ttyS1=none"}, {"settings"});

  EXPECT_EQ(Output(), "4098 32 1 1\nopen, closed, open: +1 0 +1 descriptors\nsoftware flow control: 111 2\n");
  constexpr unsigned int kSevenOdd = ((kRaw & ~kSevenBitsLess) | k115200 | kParity | kOdd);
  constexpr unsigned int kAtLast = kRaw | k115200 | kOdd | kTwoStopBits | kHardware;
  ExpectSame(
      Log(),
      kStart +
          OfPort(kOpening +
                 Lines{Settings(115200, kRaw | k115200), Settings(115200, (kRaw & ~kSevenBitsLess) | k115200),
                       Settings(115200, kSevenOdd), Settings(115200, kSevenOdd | kTwoStopBits),
                       Settings(115200, kAtLast), "flush input", "flush output", "flush both", "flush input",
                       Settings(250000, (kAtLast & ~k115200) | kOtherSpeed)} +
                 Closing("0x4006") + kOpening +
                 // A custom speed outlasts the closing, and the last setting makes eight bits without parity again.
                 Lines{Settings(250000, kRaw | kOtherSpeed), Settings(250000, (kRaw & ~kSevenBitsLess) | kOtherSpeed),
                       Settings(250000, (kRaw & ~kSevenBitsLess) | kOtherSpeed | kParity),
                       Settings(250000, (kRaw & ~kSevenBitsLess) | kOtherSpeed | kParity),
                       Settings(250000, kRaw | kOtherSpeed), "open"} +
                 Closing("0x4006")) +
          kEnd);
}

TEST_P(LibraryOnSim, WithoutAttributesAPortIsOpenedFlushedAndTakenOutOfTheLoop) {
  RunStep({"--tty", "/dev/ttyS1=none"}, {"without-attributes"});

  ExpectSame(Log(), kStart + OfPort(Lines{"open"} + kFlushes + Lines{"TIOCMGET 0x4006", "TIOCMSET 0x4006"}) + kEnd);
}

TEST_P(LibraryOnSim, TheLoopGoesOnAndOffAndIsOffAfterClosing) {
  RunStep({"--tty", "/dev/ttyS1=none"}, {"loop"});

  EXPECT_EQ(Output(), "loop\n");
  ExpectSame(Log(), kStart +
                        OfPort(kOpening +
                               Lines{Settings(115200, kRaw | k115200),
                                     // On; in the loop, CTS and DSR are what RTS and DTR are.
                                     "TIOCMGET 0x4006", "TIOCMSET 0xc006",
                                     // RTS off and on.
                                     "TIOCMGET 0xc166", "TIOCMSET 0xc002", "TIOCMGET 0xc142", "TIOCMSET 0xc006",
                                     // Off and on.
                                     "TIOCMGET 0xc166", "TIOCMSET 0x4006", "TIOCMGET 0x4006", "TIOCMSET 0xc006"} +
                               Closing("0xc166")) +
                        kEnd);
}

TEST_P(LibraryOnSim, AConversationWithTheFarEndArrivesByteForByteInBothDirections) {
  const Listener listener(Path("peer"));
  std::string all(256, '\0');
  for (std::size_t i = 0; i < all.size(); ++i) {
    all[i] = static_cast<char>(i);
  }

  Begin({"--tty", "/dev/ttyS1=unix:" + Path("peer")}, {kSteps, "converse"});
  const Connection peer(listener.Accept());
  EXPECT_EQ(peer.Read(9), "question\n");
  // In two pieces, so that the reading has to go on.
  peer.Write(all.substr(0, 100));
  ::usleep(100000);
  peer.Write(all.substr(100));
  EXPECT_EQ(peer.Read(256), all);
  peer.Write("!");

  EXPECT_EQ(Finish(), 0);
  EXPECT_EQ(Errors(), "");
  EXPECT_EQ(Output(), "1 ! 0\n");
  EXPECT_EQ(peer.Read(1), "") << "nothing else";
  // Somebody is at the other end, so CTS, DSR and CD are on.
  ExpectSame(Log(), kStart + OfPort(kOpening + Lines{Settings(115200, kRaw | k115200)} + Closing("0x4166")) + kEnd);
}

TEST_P(LibraryOnSim, AHangUpEndsTheWaitingAndThePortCanNotBeClosedAnyMore) {
  Begin({"--tty", "/dev/ttyS1=none", "--control", Path("control")}, {kSteps, "hang-up"});
  Connection technician(Path("control"));
  EXPECT_EQ(Running().Listen(), "open");
  EXPECT_EQ(technician.Ask("hangup /dev/ttyS1"), "ok");

  EXPECT_EQ(Finish(), 0);
  EXPECT_EQ(Output(),
            "1\n"
            "read: SerialPort ReadCount 0: Success\n"
            "write: Error writing to file descriptor: : Input/output error\n"
            "close:  SetLoopback TIOCMGET failed!: Input/output error\n");
  ExpectSame(Log(), kStart + OfPort(kOpening + Lines{"hang-up"}) + kEnd);
}

// --- The report ------------------------------------------------------------------------------------------------------

constexpr const char* kInfo =
    "\nFlowcontrol: Hardware\nBaud Base:     3906250\nFIFO Size:     64\nFlags:       0x10000040\n";

/// What a report asks for, and how it restores the line.
Lines Reporting(unsigned int speed, unsigned int code) {
  return Lines{"TIOCGSERIAL"} + Closing("0x4006") + kOpening +
         Lines{Settings(speed, kRaw | code), Settings(speed, kRaw | code), Settings(speed, kRaw | code),
               Settings(speed, kRaw | code), Settings(speed, kRaw | code | kHardware)};
}

TEST_P(LibraryOnSim, TheReportTellsWhatTheDriverHasProgrammedAndThePortIsOpenedAnew) {
  struct Row {
    unsigned int speed;
    unsigned int code;
    std::string registers;
  };
  for (const Row& row :
       {Row{115200, k115200, "22\nReal baud rate: 114890\n"}, Row{9600, k9600, "197\nReal baud rate: 9597.67\n"}}) {
    const std::string speed = std::to_string(row.speed);
    SCOPED_TRACE(speed);
    RunStep({"--tty", "/dev/ttyS1=none"}, {"report", speed});

    // The access bit, which reading the divisor needs, is cleared again.
    EXPECT_EQ(Output(),
              "Device:    /dev/ttyS1\nOutput Baudrate: " + speed + "\nInput  Baudrate: " + speed + kInfo +
                  "IRQ:           2a\nDivisor:       0\nLine Register: 0x13\nDivisor Latch: " + row.registers + "13\n");
    ExpectSame(Log(), kStart +
                          OfPort(kOpening +
                                 Lines{Settings(row.speed, kRaw | row.code),
                                       Settings(row.speed, kRaw | row.code | kHardware)} +
                                 Reporting(row.speed, row.code) + Closing("0x4006")) +
                          kEnd);
  }
}

TEST_P(LibraryOnSim, TheReportTellsTheDivisorOfThePortsOwnBase) {
  RunStep({"--tty", "/dev/ttyS1=none", "--serial-info", "3000000,64,0x10000040,42,0"}, {"report", "115200"});

  EXPECT_CONTAINS(Output(), "Baud Base:     3000000\n");
  // What the library calls the real speed is that of the clock that it expects.
  EXPECT_CONTAINS(Output(), "\nDivisor Latch: 1a\nReal baud rate: 150240\n");
}

TEST_P(LibraryOnSim, TheReportReadsTheRegistersThatTheBoardWasGivenAndWritesTheAccessBitAlone) {
  RunStep({"--tty", "/dev/ttyS1=none", "--uart", "0x90000000", "--reg", "0x80011000=0x61", "--reg", "0x80011004=1",
           "--reg", "0x8001100c=0x1b", "--serial-info", "4000000,128,0x123,7,5"},
          {"report", "19200"});

  EXPECT_EQ(Output(),
            "Device:    /dev/ttyS1\nOutput Baudrate: 19200\nInput  Baudrate: 19200\nFlowcontrol: Hardware\n"
            "Baud Base:     4000000\nFIFO Size:     128\nFlags:       0x123\nIRQ:           7\nDivisor:       5\n"
            "Line Register: 0x1b\nDivisor Latch: 100000061\nReal baud rate: 0.000909495\n9b\n");
}

TEST_P(LibraryOnSim, ACustomSpeedStandsInTheReportAndOutlastsIt) {
  RunStep({"--tty", "/dev/ttyS1=none"}, {"custom-report"});

  EXPECT_EQ(Output().substr(0, Output().find("Flowcontrol")),
            "Device:    /dev/ttyS1\nCustom Output Baudrate: 250000\nCustom  Baudrate:       250000\n");
  const std::string custom = Settings(250000, kRaw | kOtherSpeed);
  ExpectSame(Log(), kStart +
                        OfPort(kOpening + Lines{custom, "TIOCGSERIAL"} + Closing("0x4006") + kOpening +
                               Lines{custom, custom, custom, custom, custom} + Closing("0x4006")) +
                        kEnd);
}

// --- The watchdog ----------------------------------------------------------------------------------------------------

TEST_P(LibraryOnSim, TheWatchdogIsArmedFedGivenAnotherTimeAndStoppedByTheMagicClose) {
  RunStep({}, {"watchdog"});

  EXPECT_EQ(Output(), "45\nanother one:  Could not open watchdog device!: Device or resource busy\n");
  ExpectSame(Log(),
             kStart +
                 OfWatchdog({"open", "timeout 30", "timeout 45", "feed", "feed", "open refused: busy", "write magic",
                             "close: stopped", "open", "timeout 20", "write magic", "close: stopped"}) +
                 kEnd);
}

TEST_P(LibraryOnSim, ARefusedTimeIsRememberedAndLeavesTheWatchdogCountingAtTheNextActivation) {
  EXPECT_EQ(RunWithLog({}, {kSteps, "watchdog-refused"}), 86);

  EXPECT_EQ(Output(), "too long: Could not set watchdog interval\n30\nagain: Could not set watchdog interval\n");
  ExpectSame(LogBeforeReset("time-out 30 s, last fed "),
             kStart + OfWatchdog({"open", "timeout 30", "timeout refused: 65536", "feed", "write magic",
                                  "close: stopped", "open", "timeout refused: 65536", "close: not stopped"}));
}

TEST_P(LibraryOnSim, AStarvedWatchdogResetsTheBoard) {
  EXPECT_EQ(RunWithLog({}, {kStarve, "starve", "/dev/watchdog", "3"}), 86);

  EXPECT_EQ(Output(), "armed: 3 seconds\n");
  EXPECT_BEGINS(Errors(), "boardsim: /dev/watchdog has reset the board: time-out 3 s, last fed 3.");
  ExpectSame(LogBeforeReset("time-out 3 s, last fed 3."), kStart + OfWatchdog({"open", "timeout 3"}));
}

TEST_P(LibraryOnSim, AProcessThatDiesWithTheWatchdogArmedTakesTheBoardAlong) {
  EXPECT_EQ(RunWithLog({}, {kStarve, "die", "/dev/watchdog", "30"}), 86);

  ExpectSame(LogBeforeReset("time-out 30 s, last fed "),
             kStart + OfWatchdog({"open", "timeout 30", "close: not stopped"}));
}

// --- The network and the memory --------------------------------------------------------------------------------------

TEST_P(LibraryOnSim, AddressesAndGatewaysAreSetOnceAndThePeersAnswer) {
  if (!std::filesystem::exists("/proc/sys/net/ipv6")) {
    GTEST_SKIP() << "This machine has no IPv6.";
  }
  RunStep({}, {"network"});

  EXPECT_EQ(Output(),
            "02:00:00:00:00:01 0\n"
            "10\n"
            "192.0.2.10/24\n"
            "192.0.2.1 answers: 1\n"
            "198.51.100.1 answers: 0\n"
            // The gateway leads there.
            "10\n"
            "192.0.2.10/24\n"
            "default via 192.0.2.1 dev eth0 \n"
            "198.51.100.1 answers: 1\n"
            "1010\n"
            "2001:db8::10/64\n"
            "default via 2001:db8::1 dev eth0 metric 1024 pref medium\n"
            "2001:db8::1 answers: 1\n"
            "11\n"
            "192.0.2.20/25\n"
            "nosuch0: Device \"nosuch0\" does not exist.\n\n");
  ExpectSame(Log(), kStart + kEnd);
}

TEST_P(LibraryOnSim, AWordInTheMemoryIsSeenFromOutsideAndAnswered) {
  Begin({"--control", Path("control")}, {kSteps, "memory"});
  Connection technician(Path("control"));
  EXPECT_TRUE(Eventually([&] { return technician.Ask("read 0x80020000") == "ok 0x5eed1e55"; }));
  EXPECT_EQ(technician.Ask("write 0x80020004 0x0ddba115"), "ok");

  EXPECT_EQ(Finish(), 0);
  EXPECT_EQ(Output(), "ddba115\n");
}

}  // namespace
