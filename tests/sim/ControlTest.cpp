#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <string>

#include "Board.h"
#include "ExpectText.h"
#include "Probes.h"
#include "Sockets.h"

namespace {

class Control : public BoardTest {
 protected:
  /// A program that has the port open as descriptor 3.
  void Start(const Words& options) {
    board = Boot(options + Words{"--control", Path("control"), "--log", Path("log")}, {kProbe, "talk"});
    ASSERT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
    client = std::make_unique<Connection>(Path("control"));
  }
  void ExpectEnd() {
    EXPECT_EQ(board->Finish().status, 0);
    EXPECT_NE(::access(Path("control").c_str(), F_OK), 0);
  }

  std::unique_ptr<Board> board;
  std::unique_ptr<Connection> client;
};

TEST_F(Control, AHangUpEndsThePortForTheProgramUntilItIsPluggedInAndOpenedAgain) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    Start(options);
    EXPECT_EQ(client->Ask("hangup /dev/ttyS1"), "ok");
    EXPECT_EQ(board->Ask("read 3"), "end");
    EXPECT_EQ(board->Ask("write 3 x"), Failed(EIO));
    EXPECT_EQ(board->Ask("attributes 3"), Failed(EIO));
    EXPECT_EQ(board->Ask("lines 3"), Failed(EIO));
    EXPECT_BEGINS(board->Ask("open rw /dev/ttyS1"), "error: ");
    EXPECT_EQ(client->Ask("plug /dev/ttyS1"), "ok");
    EXPECT_EQ(client->Ask("plug /dev/ttyS1"), "error /dev/ttyS1 is plugged in");
    EXPECT_EQ(client->Ask("lines /dev/ttyS1"), "ok CTS DSR CD");
    // The old descriptor stays dead.
    EXPECT_EQ(board->Ask("write 3 x"), Failed(EIO));
    EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "4");
    EXPECT_EQ(board->Ask("attributes 4"), "ok");
    EXPECT_EQ(board->Ask("lines 4"), "0x4166");
    EXPECT_EQ(board->Ask("write 4 hello"), "ok");
    EXPECT_EQ(board->Ask("read 4"), "got hello");
    ExpectEnd();
    EXPECT_CONTAINS(Contents(Path("log")), " /dev/ttyS1 hang-up\n");
  }
}

TEST_F(Control, AHangUpCanComeTwiceAndAPlugAgain) {
  Start({});
  for (int i = 0; i < 5; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(client->Ask("hangup /dev/ttyS1"), "ok");
    EXPECT_EQ(client->Ask("plug /dev/ttyS1"), "ok");
  }
  EXPECT_EQ(client->Ask("hangup /dev/ttyS1"), "ok");
  client->Ask("hangup /dev/ttyS1");
  client->Ask("feed /dev/ttyS1 61");
  EXPECT_EQ(client->Ask("plug /dev/ttyS1"), "ok");
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "4");
  EXPECT_EQ(board->Ask("write 4 hello"), "ok");
  // What was fed while nothing was plugged in is lost.
  EXPECT_EQ(board->Ask("read 4"), "got hello");
  ExpectEnd();
}

TEST_F(Control, BytesThatAreFedReachTheProgram) {
  Start({});
  EXPECT_EQ(client->Ask("feed /dev/ttyS1 48654c6C6f"), "ok");
  EXPECT_EQ(board->Ask("read 3"), "got HeLlo");
  EXPECT_EQ(client->Ask("feed /dev/ttyS1 0g"), "error bytes are pairs of hexadecimal digits, not \"0g\"");
  EXPECT_EQ(client->Ask("feed /dev/ttyS1 123"), "error bytes are pairs of hexadecimal digits, not \"123\"");
  EXPECT_EQ(client->Ask("feed /dev/ttyS2 12"), "error there is no simulated port /dev/ttyS2");
  ExpectEnd();
}

TEST_F(Control, BytesThatComeInTakeTheirTimeOnALineThatIsPaced) {
  Start({"--pace", "--tty", "/dev/ttyS1=none"});
  const auto start = std::chrono::steady_clock::now();
  // 96 of the 960 that come in a second.
  EXPECT_EQ(client->Ask("feed /dev/ttyS1 " + std::string(2 * 96, '1')), "ok");
  std::size_t got = 0;
  while (got < 96) {
    const std::string answer = board->Ask("read 3");
    ASSERT_PRED_FORMAT2(BeginsWithText, answer, "got ");
    got += answer.size() - 4;
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(99));
  ExpectEnd();
}

TEST_F(Control, BytesThatAreFedBeyondWhatIsKeptAreCounted) {
  Start({});
  const std::string bytes(30000, '0');
  for (int i = 0; i < 7; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(client->Ask("feed /dev/ttyS1 " + bytes), "ok");
  }
  const std::string log = WaitForText(Path("log"), " /dev/ttyS1 overrun dropped=");
  ExpectEnd();
}

TEST_F(Control, AnOpenOfAPortForWhichNoDescriptorIsLeftLeavesItsLinesDown) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    board = Boot(options + Words{"--control", Path("control")}, {kProbe, "unnumbered-port", "talk"});
    EXPECT_EQ(board->Ask("open rw /dev/mem"), "3");
    Connection technician(Path("control"));
    EXPECT_TRUE(Eventually([&] { return technician.Ask("lines /dev/ttyS1") == "ok CTS DSR CD"; }));
    EXPECT_EQ(board->Finish().status, 0);
  }
}

TEST_F(Control, InputsAreSetAndClearedAndTheProgramCannotAlterThem) {
  Start({});
  EXPECT_EQ(client->Ask("lines /dev/ttyS1"), "ok RTS DTR CTS DSR CD OUT2");
  EXPECT_EQ(client->Ask("clear /dev/ttyS1 CTS CD"), "ok");
  EXPECT_EQ(board->Ask("lines 3"), "0x4106");
  EXPECT_EQ(client->Ask("set /dev/ttyS1 RI"), "ok");
  EXPECT_EQ(board->Ask("lines 3"), "0x4186");
  EXPECT_EQ(board->Ask("set-lines 3 0x62"), "ok");
  EXPECT_EQ(board->Ask("lines 3"), "0x182");
  EXPECT_EQ(client->Ask("lines /dev/ttyS1"), "ok DTR DSR RI");
  // In the loop the outputs are what the inputs show; afterwards they are as before.
  EXPECT_EQ(board->Ask("set-lines 3 0x8004"), "ok");
  EXPECT_EQ(client->Ask("lines /dev/ttyS1"), "ok RTS CTS LOOP");
  EXPECT_EQ(client->Ask("set /dev/ttyS1 CD"), "ok");
  EXPECT_EQ(board->Ask("lines 3"), "0x8024");
  EXPECT_EQ(board->Ask("set-lines 3 0"), "ok");
  EXPECT_EQ(board->Ask("lines 3"), "0x1c0");
  EXPECT_EQ(client->Ask("clear /dev/ttyS1 CTS DSR CD RI"), "ok");
  EXPECT_EQ(client->Ask("lines /dev/ttyS1"), "ok none");
  EXPECT_EQ(client->Ask("set /dev/ttyS1 RTS"), "error the inputs are CTS, DSR, CD and RI, not \"RTS\"");
  EXPECT_EQ(client->Ask("set /dev/ttyS1 CTS XYZ"), "error the inputs are CTS, DSR, CD and RI, not \"XYZ\"");
  EXPECT_EQ(client->Ask("lines /dev/ttyS1"), "ok none");
  ExpectEnd();
  EXPECT_CONTAINS(Contents(Path("log")), " /dev/ttyS1 inputs DSR RI\n");
}

TEST_F(Control, RegistersAreReadAndWrittenFromBothSides) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    Start(options);
    EXPECT_EQ(client->Ask("write 0x1000 0xcafe"), "ok");
    EXPECT_EQ(board->Ask("peek 0x1000"), "0xcafe");
    EXPECT_EQ(board->Ask("poke 0x80011008 0xc1"), "0xc1");
    EXPECT_EQ(client->Ask("read 0x80011008"), "ok 0xc1");
    EXPECT_EQ(client->Ask("read 0x8001100c"), "ok 0x13");
    EXPECT_EQ(client->Ask("write 0xfffffffc 1"), "ok");
    EXPECT_EQ(board->Ask("peek 0xfffffffc"), "0x1");
    EXPECT_EQ(client->Ask("read 0x1000x"), "error \"0x1000x\" is not a 32-bit number");
    EXPECT_EQ(client->Ask("read 0x100000000"), "error \"0x100000000\" is not a 32-bit number");
    EXPECT_EQ(client->Ask("write 1 -1"), "error \"-1\" is not a 32-bit number");
    ExpectEnd();
  }
}

TEST_F(Control, ACableThatIsPulledTakesTheCarrierAndBringsItBack) {
  Start({});
  const auto becomes = [this](const std::string& name, const std::string& state) {
    return Eventually([&] { return board->Ask("carrier " + name) == state; });
  };
  EXPECT_TRUE(becomes("eth0", "up running"));
  EXPECT_EQ(client->Ask("link eth0 down"), "ok");
  EXPECT_TRUE(becomes("eth0", "up without a carrier"));
  EXPECT_EQ(board->Ask("run grep -qx 0 /sys/class/net/eth0/carrier"), "0");
  EXPECT_EQ(client->Ask("link eth0 up"), "ok");
  EXPECT_TRUE(becomes("eth0", "up running"));
  EXPECT_EQ(board->Ask("run ip link set eth1 up"), "0");
  EXPECT_TRUE(becomes("eth1", "up running"));
  EXPECT_EQ(client->Ask("link eth1 down"), "ok");
  EXPECT_TRUE(becomes("eth1", "up without a carrier"));
  EXPECT_EQ(board->Ask("carrier eth0"), "up running");
  EXPECT_EQ(client->Ask("link lo down"), "error there is no simulated interface lo");
  EXPECT_EQ(client->Ask("link peer0 down"), "error there is no simulated interface peer0");
  EXPECT_BEGINS(client->Ask("link eth0 sideways"), "error the commands are: ");
  ExpectEnd();
  EXPECT_CONTAINS(Contents(Path("log")), " eth0 link down\n");
}

TEST_F(Control, WhatTheBoardLacksCannotBeMoved) {
  Start({"--net", "none", "--mem", "none", "--watchdog", "none"});
  EXPECT_EQ(client->Ask("link eth0 down"), "error there is no simulated interface eth0");
  EXPECT_BEGINS(client->Ask("read 0"), "error ");
  EXPECT_BEGINS(client->Ask("write 0 0"), "error ");
  EXPECT_BEGINS(client->Ask("watchdog"), "error ");
  ExpectEnd();
}

TEST_F(Control, TheWatchdogsStateIsTold) {
  Start({});
  EXPECT_EQ(client->Ask("watchdog"), "ok stopped closed timeout=60");
  EXPECT_EQ(board->Ask("open rw /dev/watchdog"), "4");
  EXPECT_EQ(board->Ask("set-timeout 4 1000"), "ok");
  const std::string armed = client->Ask("watchdog");
  EXPECT_TRUE(std::regex_match(armed, std::regex("ok armed open timeout=1000 left=(9\\d\\d\\.\\d|1000\\.0)\\d\\d")))
      << armed;
  EXPECT_EQ(board->Ask("write 4 V"), "ok");
  EXPECT_EQ(board->Ask("close 4"), "ok");
  EXPECT_EQ(client->Ask("watchdog"), "ok stopped closed timeout=1000");
  EXPECT_EQ(board->Ask("open rw /dev/watchdog"), "4");
  EXPECT_EQ(board->Ask("close 4"), "ok");
  EXPECT_BEGINS(client->Ask("watchdog"), "ok armed closed timeout=1000 left=");
  EXPECT_EQ(board->Finish().status, 86);
}

TEST_F(Control, CommandsComeInPiecesOrTogetherAndFromSeveral) {
  Start({});
  client->Write("lin");
  Connection second(Path("control"));
  EXPECT_EQ(second.Ask("read 0x8001100c"), "ok 0x13");
  client->Write("es /dev/ttyS1\nread 0x8001100c\nread");
  EXPECT_EQ(client->ReadLine(), "ok RTS DTR CTS DSR CD OUT2");
  EXPECT_EQ(client->ReadLine(), "ok 0x13");
  {
    // One client leaves in the middle of a word, another one does not wait for the answer.
    const Connection third(Path("control"));
    third.Write("lines /dev/tty");
    const Connection fourth(Path("control"));
    fourth.Write("help\nhelp\nhelp\n");
  }
  EXPECT_EQ(client->Ask(" 0x8001100c"), "ok 0x13");
  EXPECT_EQ(second.Ask("lines   /dev/ttyS1 "), "ok RTS DTR CTS DSR CD OUT2");
  ExpectEnd();
}

TEST_F(Control, RtsAndDtrFallAtTheLastCloseUnlessTheProgramSaysOtherwise) {
  const auto board = Boot({"--control", Path("control")}, {kProbe, "talk"});
  Connection client(Path("control"));
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_EQ(board->Ask("close 3"), "ok");
  EXPECT_TRUE(Eventually([&] { return client.Ask("lines /dev/ttyS1") == "ok CTS DSR CD"; }));
  EXPECT_EQ(board->Ask("run stty -F /dev/ttyS1 -hupcl"), "0");
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_EQ(board->Ask("close 3"), "ok");
  EXPECT_TRUE(Eventually([&] { return client.Ask("lines /dev/ttyS1") == "ok RTS DTR CTS DSR CD"; }));
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(Control, ABreakComesInAsAZeroByte) {
  const auto board = Boot({"--control", Path("control")}, {kProbe, "talk"});
  Connection client(Path("control"));
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  EXPECT_EQ(client.Ask("break /dev/ttyS1"), "ok");
  EXPECT_EQ(client.Ask("feed /dev/ttyS1 41"), "ok");
  EXPECT_EQ(board->Ask("read 3"), "got ");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(Control, GarbageIsAnsweredByAnErrorThatNamesTheCommands) {
  Start({});
  const std::string commands =
      "feed TTY HEX | break TTY | hangup TTY | plug TTY | set TTY INPUT... | clear TTY INPUT... | lines TTY | watchdog "
      "| "
      "read ADDRESS | write ADDRESS VALUE | link INTERFACE up|down | help";
  EXPECT_EQ(client->Ask("help"), "ok " + commands);
  for (const char* garbage : {"", "dance", "lines", "lines a b", "read", "write 1", "hangup", "\xff\xfe\x01", "Lines x",
                              "set /dev/ttyS1", "watchdog now"}) {
    EXPECT_EQ(client->Ask(garbage), "error the commands are: " + commands) << garbage;
  }
  EXPECT_EQ(client->Ask("lines /dev/ttyS1"), "ok RTS DTR CTS DSR CD OUT2");
  ExpectEnd();
}

TEST_F(Control, ALineWithoutEndIsCutOffAndOthersAreServedStill) {
  Start({});
  {
    const Connection endless(Path("control"));
    const std::string piece(4096, 'x');
    EXPECT_TRUE(Eventually([&] { return ::send(endless.Get(), piece.data(), piece.size(), MSG_NOSIGNAL) == -1; }));
  }
  EXPECT_EQ(client->Ask("read 0x8001100c"), "ok 0x13");
  ExpectEnd();
}

TEST_F(Control, ASocketThatAKilledOneHasLeftIsReplacedAndOneInUseIsNot) {
  const std::string path = Path("control");
  { const Listener dead(path); }
  Start({});
  const Outcome second = Run({"--control", path}, {"true"});
  EXPECT_EQ(second.status, 125) << second.errors;
  EXPECT_EQ(second.errors, "boardsim: the control socket " + path + " can't be made: Address already in use\n");
  EXPECT_EQ(client->Ask("read 0x8001100c"), "ok 0x13");
  Connection late(path);
  EXPECT_EQ(late.Ask("read 0x8001100c"), "ok 0x13");
  ExpectEnd();
}

TEST_F(Control, AFileIsNotReplaced) {
  Shell("echo mine >" + Path("file"));
  const Outcome outcome = Run({"--control", Path("file")}, {"true"});
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.errors,
            "boardsim: the control socket " + Path("file") + " can't be made: Address already in use\n");
  EXPECT_EQ(Contents(Path("file")), "mine\n");
}

}  // namespace
