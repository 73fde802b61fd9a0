#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Board.h"
#include "ExpectText.h"
#include "Probes.h"
#include "Sockets.h"

namespace {

/// The processor time that a process has had.
long TicksOf(pid_t process) {
  const std::string text = Contents("/proc/" + std::to_string(process) + "/stat");
  std::istringstream fields(text.substr(text.rfind(')')));
  constexpr int kBefore = 12;  // the bracket, the state and others
  std::string skipped;
  for (int i = 0; i < kBefore; ++i) {
    fields >> skipped;
  }
  long user = 0;
  long system = 0;
  fields >> user >> system;
  return user + system;
}

class FarEnd : public BoardTest {
 protected:
  /// A far end that is a UNIX socket, and a program that has the port open as descriptor 3, unless it has other things
  /// to do first.
  void Connect(const Words& options, const Words& steps = {}) {
    const Listener listener(Path("far-end"));
    board = Boot(options + Words{"--tty", "/dev/ttyS1=unix:" + Path("far-end"), "--log", Path("log")},
                 Words{kProbe} + steps + Words{"talk"});
    peer = std::make_unique<Connection>(listener.Accept());
    ::unlink(Path("far-end").c_str());
    if (steps.empty()) {
      ASSERT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
    }
  }
  /// One word in each direction.
  static void ExpectConversation(Board& board, const Connection& peer) {
    EXPECT_EQ(board.Ask("open rw /dev/ttyS1"), "3");
    EXPECT_EQ(board.Ask("lines 3"), "0x4166");
    EXPECT_EQ(board.Ask("write 3 question"), "ok");
    EXPECT_EQ(peer.Read(8), "question");
    peer.Write("answer");
    EXPECT_EQ(board.Ask("read 3"), "got answer");
    EXPECT_EQ(board.Ask("close 3"), "ok");
  }
  /// Whether the simulator takes all that the far end has sent.
  bool IsTaken() const {
    return Eventually([this] {
      int waiting = -1;
      return ::ioctl(peer->Get(), SIOCOUTQ, &waiting) == 0 && waiting == 0;
    });
  }
  /// Whether the simulator is busy all the time. On a loaded machine it gets only a share of that time.
  bool IsBusy() const {
    const long before = TicksOf(board->Process());
    ::usleep(1000000);
    return TicksOf(board->Process()) - before > ::sysconf(_SC_CLK_TCK) / 10;
  }
  /// Reads all of a flood, and expects no byte to be missing.
  void ExpectFlood() const {
    EXPECT_EQ(peer->Read(kFlood).size(), kFlood);
    EXPECT_LACKS(Contents(Path("log")), "lost");
    EXPECT_LACKS(Contents(Path("log")), "overrun");
  }
  static constexpr std::size_t kFlood = 1048576;  // bytes

  std::unique_ptr<Board> board;
  std::unique_ptr<Connection> peer;
};

TEST_F(FarEnd, ATcpServerIsReachedByAddressesOfBothVersionsAndByName) {
  for (const std::string& host : {std::string("127.0.0.1"), std::string("localhost")}) {
    SCOPED_TRACE(host);
    const Listener listener(AF_INET);
    ASSERT_TRUE(listener.Works());
    const auto talking = Boot({"--tty", "/dev/ttyS1=tcp:" + host + ':' + listener.Port()}, {kProbe, "talk"});
    const Connection server(listener.Accept());
    ExpectConversation(*talking, server);
    EXPECT_EQ(talking->Finish().status, 0);
  }
  const Listener listener(AF_INET6);
  if (!listener.Works()) {
    GTEST_SKIP() << "There is no IPv6 here.";
  }
  const auto talking = Boot({"--tty", "/dev/ttyS1=tcp:[::1]:" + listener.Port()}, {kProbe, "talk"});
  const Connection server(listener.Accept());
  ExpectConversation(*talking, server);
  EXPECT_EQ(talking->Finish().status, 0);
}

TEST_F(FarEnd, AUnixServerIsReachedAlsoWithoutNamespaces) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    Connect(options);
    EXPECT_EQ(board->Ask("close 3"), "ok");
    ExpectConversation(*board, *peer);
    EXPECT_EQ(board->Finish().status, 0);
  }
}

TEST_F(FarEnd, ACommandIsTalkedToByItsInputAndOutput) {
  ExpectSteps({"--tty", "/dev/ttyS1=exec:cat"}, {kProbe, "echo", "raw", "paced"});
}

TEST_F(FarEnd, ACommandEndsWithTheBoardAndAllThatItHasStarted) {
  ExpectSteps({"--tty", "/dev/ttyS1=exec:sleep 300 & sleep 300; :"}, {"true"});
}

TEST_F(FarEnd, ACommandHasTimeToFinishAfterTheLastWords) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    const std::string file = Path("heard");
    const std::string command = "cat >" + file + "; sleep 0.05; echo ' and the end' >>" + file;
    board = Boot(options + Words{"--tty", "/dev/ttyS1=exec:" + command}, {kProbe, "talk"});
    EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
    EXPECT_EQ(board->Ask("write 3 last words"), "ok");
    EXPECT_EQ(board->Finish().status, 0);
    EXPECT_EQ(Contents(file), "last words and the end\n");
  }
}

TEST_F(FarEnd, ItsTerminalIsPrintedAndUsersOfItComeAndGo) {
  board = Boot({"--tty", "/dev/ttyS1=pty"}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("what"), "what?");
  std::smatch match;
  const std::string errors = board->Errors();
  ASSERT_TRUE(std::regex_match(errors, match, std::regex("boardsim: the far end of /dev/ttyS1 is (/dev/pts/\\d+)\n")))
      << errors;
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    const Connection user(::open(match[1].str().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ExpectConversation(*board, user);
  }
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, ItsTerminalIsRawFromTheStart) {
  board = Boot({"--tty", "/dev/ttyS1=pty:" + Path("link")}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  const Connection user(::open(Path("link").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios settings{};
  ASSERT_EQ(::tcgetattr(user.Get(), &settings), 0);
  EXPECT_EQ(settings.c_lflag & (ECHO | ICANON | ISIG), 0U);
  // An echo at the far end would come back.
  EXPECT_EQ(board->Ask("write 3 one"), "ok");
  EXPECT_EQ(user.Read(3), "one");
  user.Write("two");
  EXPECT_EQ(board->Ask("read 3"), "got two");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, ItsTerminalIsLinkedForAsLongAsTheBoardRunsAndAStaleLinkIsReplaced) {
  const std::string link = Path("link");
  ASSERT_EQ(::symlink("/no/such/terminal", link.c_str()), 0);
  board = Boot({"--tty", "/dev/ttyS1=pty:" + link}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("what"), "what?");
  EXPECT_EQ(board->Errors(), "");
  {
    const Connection user(::open(link.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ExpectConversation(*board, user);
  }
  EXPECT_EQ(board->Finish().status, 0);
  struct stat status {};
  EXPECT_EQ(::lstat(link.c_str(), &status), -1);
}

TEST_F(FarEnd, ItsTerminalIsNotLinkedWhereAFileIs) {
  const std::string link = Path("file");
  Shell("echo mine >" + link);
  const Outcome outcome = Run({"--tty", "/dev/ttyS1=pty:" + link}, {"true"});
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.errors, "boardsim: the far end of /dev/ttyS1 can't be linked as " + link + ": File exists\n");
  EXPECT_EQ(Contents(link), "mine\n");
  const std::string used = Path("used");
  ASSERT_EQ(::symlink(link.c_str(), used.c_str()), 0);
  EXPECT_EQ(Run({"--tty", "/dev/ttyS1=pty:" + used}, {"true"}).status, 125);
  EXPECT_EQ(Contents(used), "mine\n");
}

TEST_F(FarEnd, OneThatGoesTakesItsModemLinesWithIt) {
  Connect({});
  EXPECT_EQ(board->Ask("lines 3"), "0x4166");
  peer->Write("last words");
  peer->Close();
  EXPECT_EQ(board->Ask("read 3"), "got last words");
  EXPECT_TRUE(Eventually([this] { return board->Ask("lines 3") == "0x4006"; }));
  // Nobody receives it, and nothing fails.
  EXPECT_EQ(board->Ask("write 3 hello"), "ok");
  EXPECT_EQ(board->Ask("lines 3"), "0x4006");
  EXPECT_EQ(board->Finish().status, 0);
  EXPECT_CONTAINS(Contents(Path("log")), " /dev/ttyS1 far-end gone\n");
  EXPECT_CONTAINS(Contents(Path("log")), " /dev/ttyS1 inputs none\n");
}

TEST_F(FarEnd, ACommandThatEndsTakesItsModemLinesWithIt) {
  board = Boot({"--tty", "/dev/ttyS1=exec:exit 3"}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_TRUE(Eventually([this] { return board->Ask("lines 3") == "0x4006"; }));
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, OneThatDoesNotReadHoldsTheProgramUpAndNothingIsLost) {
  Connect({}, {"flood"});
  ExpectFlood();
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  // Then it receives again.
  EXPECT_EQ(board->Ask("write 3 again"), "ok");
  EXPECT_EQ(peer->Read(5), "again");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, OneThatIsSlowHearsAllThatIsOnItsWayWhenTheProgramEnds) {
  Connect({}, {"flood"});
  board->EndInput();
  ExpectFlood();
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, OneOnASlowLineHearsAllThatIsOnItsWayHoweverLongThatTakes) {
  // At 30 bytes a second.
  ExpectSteps({"--pace", "--log", Path("log"), "--tty", "/dev/ttyS1=exec:cat >" + Path("heard")},
              {"sh", "-c", "exec >/dev/ttyS1; stty 300 raw -echo <&1; printf %200s all"});
  EXPECT_EQ(Contents(Path("heard")), Shell("printf %200s all"));
  EXPECT_LACKS(Contents(Path("log")), "lost");
}

TEST_F(FarEnd, AKeyEndsTheBoardThatStillSendsWhatIsLeft) {
  const auto board =
      Boot({"--pace", "--tty", "/dev/ttyS1=exec:cat >" + Path("heard")},
           {"sh", "-c", "exec 3>/dev/ttyS1; stty 300 raw -echo <&3; printf %9000s all >&3; echo over; exit 5"});
  EXPECT_EQ(board->Listen(), "over");
  // The first process has ended, and the command listens.
  ASSERT_TRUE(Eventually([&board] { return ChildrenOf(board->Process()).size() == 1; }));
  EXPECT_EQ(::kill(board->Process(), SIGINT), 0);
  EXPECT_EQ(board->Finish().status, 5);
  EXPECT_LT(Contents(Path("heard")).size(), 9000U);
}

TEST_F(FarEnd, OneThatNeverReadsDoesNotKeepTheBoardFromEndingAndWhatItMissesIsLogged) {
  // It ends once its writer has been held up for a second.
  const Outcome outcome = Run({"--tty", "/dev/ttyS1=exec:exec sleep 300", "--log", Path("log")},
                              {"sh", "-c",
                               "head -c 1000000 /dev/zero >/dev/ttyS1 & "
                               "written() { sed -n 's/^wchar: //p' /proc/$!/io; }; "
                               "until test \"$(written)\" -ge 65536 && before=$(written) && sleep 1 && "
                               "test \"$(written)\" = \"$before\"; do sleep 0.1; done 2>/dev/null; exit 5"});
  EXPECT_EQ(outcome.status, 5);
  const std::string log = Contents(Path("log"));
  EXPECT_TRUE(std::regex_search(log, std::regex(" /dev/ttyS1 lost bytes=\\d{4,5}\n"))) << log;
}

TEST_F(FarEnd, ACommandIsSentFiveMebibytesWithoutTheLossOfAByte) {
  Shell("head -c 5242880 /dev/urandom >" + Path("sent"));
  for (const std::string flow : {"-crtscts", "crtscts"}) {
    SCOPED_TRACE(flow);
    ExpectSteps({"--tty", "/dev/ttyS1=exec:sleep 0.2; sha256sum >" + Path("sum")},
                {"sh", "-c", "stty -F /dev/ttyS1 raw -echo " + flow + "; cat " + Path("sent") + " >/dev/ttyS1"});
    EXPECT_EQ(Contents(Path("sum")), Shell("sha256sum <" + Path("sent")));
  }
}

TEST_F(FarEnd, OneThatGoesBeforeItHasHeardAllHoldsNobodyUp) {
  Connect({}, {"flood"});
  peer->Close();
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_TRUE(Eventually([this] { return board->Ask("lines 3") == "0x4006"; }));
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, WhatComesWhileThePortIsHungUpIsTakenAndLost) {
  Connect({"--control", Path("control")});
  Connection client(Path("control"));
  EXPECT_EQ(client.Ask("hangup /dev/ttyS1"), "ok");
  peer->Write("lost");
  EXPECT_TRUE(IsTaken());
  EXPECT_EQ(client.Ask("plug /dev/ttyS1"), "ok");
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "4");
  peer->Write("heard");
  EXPECT_EQ(board->Ask("read 4"), "got heard");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, WhereNothingCanMoveNoTimeIsSpent) {
  Connect({"--control", Path("control")});
  Connection client(Path("control"));
  // The program does not read, and the far end has sent as much as it can.
  const std::string piece(4096, 'x');
  EXPECT_TRUE(Eventually([&] {
    while (::send(peer->Get(), piece.data(), piece.size(), MSG_DONTWAIT) > 0) {
    }
    return !IsBusy() && ::send(peer->Get(), piece.data(), piece.size(), MSG_DONTWAIT) == -1;
  }));
  EXPECT_EQ(client.Ask("hangup /dev/ttyS1"), "ok");
  EXPECT_TRUE(IsTaken());
  EXPECT_FALSE(IsBusy());
  EXPECT_EQ(client.Ask("plug /dev/ttyS1"), "ok");
  peer->Close();
  WaitForText(Path("log"), " /dev/ttyS1 far-end gone\n");
  EXPECT_FALSE(IsBusy());
  EXPECT_EQ(board->Ask("open rw /dev/watchdog"), "4");
  EXPECT_EQ(board->Ask("close 4"), "ok");
  WaitForText(Path("log"), " /dev/watchdog close: not stopped\n");
  EXPECT_FALSE(IsBusy());
  EXPECT_EQ(board->Finish().status, 86);
}

TEST_F(FarEnd, OneThatSendsFasterThanTheProgramReadsIsMadeToWaitAndLosesNothing) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    ExpectSteps(options + Words{"--tty", "/dev/ttyS1=exec:seq -f %07.0f 1 40000; sleep 300"}, {kProbe, "late"});
  }
}

TEST_F(FarEnd, ItIsNotHeardWhileThePortIsInTheLoopNorDoesItHear) {
  Connect({});
  EXPECT_EQ(board->Ask("set-lines 3 0x8000"), "ok");
  peer->Write("line");
  EXPECT_TRUE(IsTaken());
  EXPECT_EQ(board->Ask("write 3 own"), "ok");
  EXPECT_EQ(board->Ask("read 3"), "got own");
  EXPECT_EQ(board->Ask("set-lines 3 0"), "ok");
  EXPECT_EQ(peer->ReadSome(100), "");
  peer->Write("heard");
  EXPECT_EQ(board->Ask("read 3"), "got heard");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, TwoBoardsAreJoinedByASocketAndOneMayComeBack) {
  const auto first = Boot({"--tty", "/dev/ttyS1=unix-listen:" + Path("joint")}, {kProbe, "talk"});
  EXPECT_EQ(first->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_EQ(first->Ask("lines 3"), "0x4006");
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    const auto second = Boot({"--tty", "/dev/ttyS1=unix:" + Path("joint")}, {kProbe, "talk"});
    EXPECT_EQ(second->Ask("open rw /dev/ttyS1"), "3");
    EXPECT_TRUE(Eventually([&] { return first->Ask("lines 3") == "0x4166"; }));
    EXPECT_EQ(first->Ask("write 3 question"), "ok");
    EXPECT_EQ(second->Ask("read 3"), "got question");
    EXPECT_EQ(second->Ask("write 3 answer"), "ok");
    EXPECT_EQ(first->Ask("read 3"), "got answer");
    EXPECT_EQ(second->Finish().status, 0);
    EXPECT_TRUE(Eventually([&] { return first->Ask("lines 3") == "0x4006"; }));
  }
  EXPECT_EQ(first->Finish().status, 0);
  struct stat status {};
  EXPECT_EQ(::stat(Path("joint").c_str(), &status), -1);
}

TEST_F(FarEnd, AServerThatCameBackIsFoundAgain) {
  const Listener listener(Path("far-end"));
  board = Boot({"--tty", "/dev/ttyS1=unix:" + Path("far-end"), "--log", Path("log")}, {kProbe, "talk"});
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    const Connection server(listener.Accept());
    EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
    EXPECT_TRUE(Eventually([&] { return board->Ask("lines 3") == "0x4166"; }));
    EXPECT_EQ(board->Ask("write 3 hello"), "ok");
    EXPECT_EQ(server.Read(5), "hello");
    EXPECT_EQ(board->Ask("close 3"), "ok");
  }
  EXPECT_EQ(board->Finish().status, 0);
  EXPECT_CONTAINS(Contents(Path("log")), " /dev/ttyS1 far-end here\n");
}

TEST_F(FarEnd, AListeningTcpPortIsOneOfTheLoopbackAddress) {
  std::string port;
  {
    // A port that was free a moment ago.
    const Listener closed(AF_INET);
    ASSERT_TRUE(closed.Works());
    port = closed.Port();
  }
  board = Boot({"--tty", "/dev/ttyS1=tcp-listen:" + port, "--tty", "/dev/ttyS2=none"}, {kProbe, "talk"});
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  const auto other = Boot({"--tty", "/dev/ttyS1=tcp:127.0.0.1:" + port}, {kProbe, "talk"});
  EXPECT_EQ(other->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_EQ(other->Ask("write 3 hello"), "ok");
  EXPECT_EQ(board->Ask("read 3"), "got hello");
  EXPECT_EQ(other->Finish().status, 0);
  const Outcome taken = Run({"--tty", "/dev/ttyS1=tcp-listen:" + port}, {"true"});
  EXPECT_EQ(taken.status, 125);
  EXPECT_EQ(taken.errors,
            "boardsim: the far end of /dev/ttyS1 can't listen at port " + port + ": Address already in use\n");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, ItIsAskedToWaitWhenTheProgramDoesNotRead) {
  Connect({});
  EXPECT_EQ(board->Ask("run stty -F /dev/ttyS1 ixoff"), "0");
  const std::string piece(6000, 'x');
  peer->Write(piece);
  EXPECT_EQ(peer->Read(1), "\023");
  for (std::size_t got = 0; got < piece.size();) {
    const std::string answer = board->Ask("read 3");
    ASSERT_PRED_FORMAT2(BeginsWithText, answer, "got ");
    got += answer.size() - 4;
  }
  EXPECT_EQ(peer->Read(1), "\021");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, RtsFallsWhenTheProgramDoesNotReadAndRisesWhenItHas) {
  Connect({});
  EXPECT_EQ(board->Ask("run stty -F /dev/ttyS1 crtscts"), "0");
  EXPECT_EQ(board->Ask("lines 3"), "0x4166");
  const std::string piece(6000, 'x');
  peer->Write(piece);
  EXPECT_TRUE(Eventually([this] { return board->Ask("lines 3") == "0x4162"; }));
  for (std::size_t got = 0; got < piece.size();) {
    const std::string answer = board->Ask("read 3");
    ASSERT_PRED_FORMAT2(BeginsWithText, answer, "got ");
    got += answer.size() - 4;
  }
  EXPECT_TRUE(Eventually([this] { return board->Ask("lines 3") == "0x4166"; }));
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(FarEnd, NobodyIsThereWithNone) {
  ExpectSteps({"--tty", "/dev/ttyS1=none"}, {kProbe, "nobody"});
}

TEST_F(FarEnd, OneThatCannotBeReachedIsToldInASentence) {
  std::string port;
  {
    // One that was free a moment ago.
    const Listener closed(AF_INET);
    port = closed.Port();
  }
  const Outcome refused = Run({"--tty", "/dev/ttyS1=tcp:127.0.0.1:" + port}, {"true"});
  EXPECT_EQ(refused.status, 125) << refused.errors;
  EXPECT_EQ(refused.errors,
            "boardsim: the far end of /dev/ttyS1, 127.0.0.1:" + port + ", can't be reached: Connection refused\n");
  const Outcome missing = Run({"--tty", "/dev/ttyS1=unix:/no/such/socket"}, {"true"});
  EXPECT_EQ(missing.status, 125) << missing.errors;
  EXPECT_EQ(missing.errors,
            "boardsim: the far end of /dev/ttyS1, /no/such/socket, can't be reached: No such file or directory\n");
  const Outcome longest = Run({"--tty", "/dev/ttyS1=unix:/" + std::string(200, 'x')}, {"true"});
  EXPECT_EQ(longest.status, 125) << longest.errors;
  EXPECT_CONTAINS(longest.errors, "can't be reached: File name too long\n");
  const Outcome unknown = Run({"--tty", "/dev/ttyS1=tcp:host.invalid:7000"}, {"true"});
  EXPECT_EQ(unknown.status, 125) << unknown.errors;
  EXPECT_BEGINS(unknown.errors, "boardsim: the far end of /dev/ttyS1, host.invalid:7000, can't be reached: ");
}

}  // namespace
