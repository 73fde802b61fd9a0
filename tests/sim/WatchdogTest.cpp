#include <chrono>
#include <csignal>
#include <regex>
#include <string>

#include "Board.h"
#include "ExpectText.h"
#include "Probes.h"
#include "Sockets.h"

namespace {

using Watchdog = BoardTest;

/// Expects the reset that a starved watchdog brings, not before its second is over.
void ExpectBite(const Outcome& outcome, std::chrono::steady_clock::time_point start) {
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(outcome.status, 86) << outcome.errors;
  EXPECT_EQ(outcome.output, "");
  const std::regex pattern(
      "boardsim: /dev/watchdog has reset the board: time-out 1 s, last fed (\\d+\\.\\d{3}) s ago\n");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(outcome.errors, match, pattern)) << outcome.errors;
  EXPECT_GE(std::stod(match[1]), 1.0);
}

class StarvedWatchdog : public BoardTest {
 protected:
  void ExpectBitten(const Words& options, const std::string& step) {
    const auto start = std::chrono::steady_clock::now();
    ExpectBite(Run(options, {kProbe, step}), start);
  }
};

TEST_F(StarvedWatchdog, EndsAllProcessesWithStatus86AndALineWithDeviceAndTimes) {
  ExpectBitten({}, "starve");
}

TEST_F(StarvedWatchdog, BitesWhenTheMagicByteWasNotTheLastWrite) {
  ExpectBitten({}, "starve-magic-first");
}

TEST_F(StarvedWatchdog, BitesAlsoAfterTheMagicByteWhereThereIsNoWayOut) {
  ExpectBitten({"--nowayout"}, "no-way-out");
}

TEST_F(StarvedWatchdog, BitesAfterACloseWithoutTheMagicByte) {
  ExpectBitten({}, "starve-closed");
}

TEST_F(StarvedWatchdog, BitesAfterACloseWithoutTheMagicByteAlsoWithoutNamespaces) {
  ExpectBitten(kWithoutNamespaces, "starve-closed");
}

TEST_F(StarvedWatchdog, BitesWhenTheMagicByteBelongedToAnEarlierOpening) {
  ExpectBitten({}, "starve-reopened");
}

TEST_F(StarvedWatchdog, BitesAgainOnceItIsStartedByRequest) {
  ExpectBitten({}, "starve-enabled");
}

TEST_F(Watchdog, FedByRequestsAndWritesItHasItsWholeTimeAgainAndStoppedItDoesNotBite) {
  ExpectSteps({}, {kProbe, "fed"});
}

TEST_F(Watchdog, FedByRequestsAndWritesItHasItsWholeTimeAgainWithoutNamespacesToo) {
  ExpectSteps(kWithoutNamespaces, {kProbe, "fed"});
}

TEST_F(Watchdog, ALongerOrShorterTimeBeginsWhenItIsSet) {
  ExpectSteps({}, {kProbe, "retimed"});
}

TEST_F(Watchdog, StoppedByRequestItDoesNotBite) {
  ExpectSteps({}, {kProbe, "disabled"});
}

TEST_F(Watchdog, OpenedAnewAfterACloseItGoesOnAndCanBeStopped) {
  ExpectSteps({}, {kProbe, "reopened"});
}

TEST_F(Watchdog, OneThatCountsIsNotFedByAnOpenNorByAStart) {
  ExpectSteps({}, {kProbe, "reopened-late"});
}

TEST_F(Watchdog, OpenedAsAFileIsMadeItIsArmedByTheFirstRequest) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    const auto start = std::chrono::steady_clock::now();
    ExpectBite(Run(options, {kProbe, "starve-created"}), start);
  }
}

TEST_F(Watchdog, OpenedAsAFileIsMadeAndClosedItCounts) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    const Outcome outcome = Run(options, {"sh", "-c", ": >/dev/watchdog"});
    EXPECT_EQ(outcome.status, 86) << outcome.errors;
    EXPECT_BEGINS(outcome.errors, "boardsim: /dev/watchdog, not stopped by the application, has reset the board: ");
  }
}

TEST_F(Watchdog, AProgramThatEndsWithItCountingResetsTheBoardAtOnce) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = Run(options, {kProbe, "abandon"});
    EXPECT_EQ(outcome.status, 86) << outcome.errors;
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(std::regex_match(
        outcome.errors, std::regex("boardsim: /dev/watchdog, not stopped by the application, has reset the board: "
                                   "time-out 60 s, last fed \\d+\\.\\d{3} s ago\n")))
        << outcome.errors;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  }
}

TEST_F(Watchdog, AProgramThatIsKilledWithItCountingResetsTheBoard) {
  const Outcome outcome = Run({}, {"sh", "-c", "exec 5>/dev/watchdog; echo >&5; kill -KILL $$"});
  EXPECT_EQ(outcome.status, 86) << outcome.errors;
  EXPECT_CONTAINS(outcome.errors, "/dev/watchdog, not stopped by the application,");
}

TEST_F(Watchdog, AnOpenThatTheRightsOfTheNodeRefuseStartsNothing) {
  ExpectSteps({"--log", Path("log")}, {kProbe, "refused"});
  EXPECT_LACKS(Contents(Path("log")), " open");
}

TEST_F(Watchdog, TheRightsOfTheNodeSayWhoMayOpenIt) {
  ExpectStepsOfEachUser({kProbe, "allowed"});
}

TEST_F(Watchdog, AnOpenForWhichNoDescriptorIsLeftStartsNothing) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    ExpectSteps(options + Words{"--log", Path("log")}, {kProbe, "unnumbered"});
    EXPECT_CONTAINS(Contents(Path("log")), " /dev/watchdog open failed\n");
  }
}

TEST_F(StarvedWatchdog, BitesAlsoIfAnotherOpenFailed) {
  ExpectBitten({}, "starve-unnumbered");
}

TEST_F(Watchdog, AShellCanFeedAndStopIt) {
  EXPECT_EQ(Run({}, {"sh", "-c", "printf x >/dev/watchdog; printf V >/dev/watchdog; exit 5"}).status, 5);
  EXPECT_EQ(Run({}, {"sh", "-c", "echo V >/dev/watchdog; exit 5"}).status, 5);
}

TEST_F(Watchdog, TheMagicByteCountsAlsoAtTheBeginningOfALongWrite) {
  EXPECT_EQ(Run({}, {"sh", "-c",
                     "{ printf V; head -c 9999 /dev/zero; } >\"$0\"; "
                     "dd if=\"$0\" of=/dev/watchdog bs=10000 count=1 conv=notrunc,nocreat 2>/dev/null; exit 5",
                     Path("long")})
                .status,
            5);
}

TEST_F(Watchdog, OpenedByWhoWouldCreateItItCountsAsOpenedWithTheFirstByte) {
  const auto board = Boot({"--control", Path("control")}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("open rwc /dev/watchdog"), "3");
  Connection client(Path("control"));
  EXPECT_EQ(client.Ask("watchdog"), "ok stopped closed timeout=60");
  EXPECT_EQ(board->Ask("write 3 x"), "ok");
  EXPECT_BEGINS(client.Ask("watchdog"), "ok armed open timeout=60 left=");
  EXPECT_EQ(board->Ask("write 3 V"), "ok");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(Watchdog, AfterAResetTheProgramIsStartedAnewAndToldOfIt) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    const Outcome outcome = Run(options + Words{"--restart", "1", "--log", Path("log")}, {kProbe, "restarted"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_CONTAINS(Contents(Path("log")), " board restart\n");
  }
}

TEST_F(Watchdog, AProgramIsStartedAnewNoMoreOftenThanTheOptionSays) {
  const Outcome outcome = Run({"--restart", "2"}, {"sh", "-c", "echo started; : >/dev/watchdog"});
  EXPECT_EQ(outcome.status, 86);
  EXPECT_EQ(outcome.output, "started\nstarted\nstarted\n");
}

TEST_F(Watchdog, APretimeoutIsLoggedBeforeTheReset) {
  const auto board =
      Boot({"--log", Path("log")}, {"sh", "-c", "exec 3>/dev/watchdog; \"$0\" pretimeout; sleep 300", kProbe});
  EXPECT_EQ(board->Finish().status, 86);
  const std::string log = Contents(Path("log"));
  EXPECT_TRUE(std::regex_search(log, std::regex("/dev/watchdog pretimeout\n.*/dev/watchdog reset"))) << log;
}

TEST_F(Watchdog, ThePortAndMemoryAreNoneOfIt) {
  // A watchdog's requests on a port go to the kernel, which does not know them there.
  const auto board = Boot({}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_EQ(board->Ask("timeout 3"), Failed(ENOTTY));
  EXPECT_EQ(board->Ask("open rw /dev/mem"), "4");
  EXPECT_EQ(board->Ask("timeout 4"), Failed(ENOTTY));
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(Watchdog, ItLiesUnderTheNameOfTheOption) {
  for (const Words& options :
       {Words{"--watchdog", "/dev/misc/dog"}, kWithoutNamespaces + Words{"--watchdog", "/dev/misc/dog"}}) {
    SCOPED_TRACE(testing::PrintToString(options));
    const auto board = Boot(options, {kProbe, "talk"});
    EXPECT_EQ(board->Ask("open rw /dev/misc/dog"), "3");
    EXPECT_EQ(board->Ask("open w /dev/misc/dog"), Failed(EBUSY));
    EXPECT_EQ(board->Ask("timeout 3"), "60");
    const Outcome outcome = board->Finish();
    EXPECT_EQ(outcome.status, 86) << outcome.errors;
    EXPECT_BEGINS(outcome.errors, "boardsim: /dev/misc/dog, ");
  }
}

TEST_F(Watchdog, WithNoneThereIsNone) {
  const auto board = Boot({"--watchdog", "none"}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("open rw /dev/watchdog"), Failed(ENOENT));
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(Watchdog, TheLogTellsOfItsLife) {
  const auto board = Boot({"--log", Path("log")}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("open rw /dev/watchdog"), "3");
  EXPECT_EQ(board->Ask("open rw /dev/watchdog"), Failed(EBUSY));
  EXPECT_EQ(board->Ask("set-timeout 3 30"), "ok");
  EXPECT_EQ(board->Ask("set-timeout 3 65536"), Failed(EINVAL));
  EXPECT_EQ(board->Ask("feed 3"), "ok");
  EXPECT_EQ(board->Ask("write 3 xV"), "ok");
  EXPECT_EQ(board->Ask("close 3"), "ok");
  EXPECT_EQ(board->Ask("open w /dev/watchdog"), "3");
  EXPECT_EQ(board->Finish().status, 86);
  const std::string log = Contents(Path("log"));
  std::size_t at = 0;
  for (const char* event :
       {" /dev/watchdog open\n", " /dev/watchdog open refused: busy\n", " /dev/watchdog timeout 30\n",
        " /dev/watchdog timeout refused: 65536\n", " /dev/watchdog feed\n", " /dev/watchdog write magic\n",
        " /dev/watchdog close: stopped\n", " /dev/watchdog open\n", " /dev/watchdog close: not stopped\n",
        " /dev/watchdog reset time-out 30 s, last fed "}) {
    at = log.find(event, at);
    ASSERT_NE(at, std::string::npos) << event << "is missing, or late:\n" << log;
  }
}

}  // namespace
