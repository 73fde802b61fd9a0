#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "Board.h"
#include "ExpectText.h"
#include "Probes.h"

namespace {

// What is answered before anything is set up.
using Options = SimulatorTest;
using OptionsOfABoard = BoardTest;

struct Mistake {
  const char* name;
  Words options;
  const char* sentence;
};

void PrintTo(const Mistake& mistake, std::ostream* stream) {
  *stream << mistake.name;
}

class WrongOption : public SimulatorTest, public testing::WithParamInterface<Mistake> {};

TEST_P(WrongOption, IsToldInOneSentenceWithStatus125AndNothingRuns) {
  const Outcome outcome = Run(GetParam().options, {"touch", Path("ran")});
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors, std::string("boardsim: ") + GetParam().sentence + '\n');
  EXPECT_NE(::access(Path("ran").c_str(), F_OK), 0);
}

constexpr const char* kFarEnds =
    "The far end of a --tty is echo, plug, none, pty[:LINK], tcp:HOST:PORT, tcp-listen:PORT, unix:PATH, "
    "unix-listen:PATH or exec:COMMAND, not ";

INSTANTIATE_TEST_SUITE_P(
    Each, WrongOption,
    testing::Values(
        Mistake{"Unknown", {"--no-such-option"}, "There is no option --no-such-option. Try --help."},
        Mistake{"UnknownShort", {"-x"}, "There is no option -x. Try --help."},
        Mistake{"NodeElsewhere", {"--tty", "/tmp/x=echo"}, "--tty needs a path below /dev, not \"/tmp/x\"."},
        Mistake{"NodeOutByDots", {"--tty", "/dev/../x"}, "--tty needs a path below /dev, not \"/dev/../x\"."},
        Mistake{"NodeRelative", {"--tty", "dev/ttyS1"}, "--tty needs a path below /dev, not \"dev/ttyS1\"."},
        Mistake{"NodeDevItself", {"--tty", "/dev/"}, "--tty needs a path below /dev, not \"/dev/\"."},
        Mistake{"NodeEmpty", {"--tty", "=echo"}, "--tty needs a path below /dev, not \"\"."},
        Mistake{
            "NodeTaken", {"--tty", "/dev/null"}, "--tty can't be /dev/null: every program needs that one as it is."},
        Mistake{"NodeInsideTaken",
                {"--tty", "/dev/pts/7"},
                "--tty can't be /dev/pts/7: every program needs that one as it is."},
        Mistake{
            "WatchdogElsewhere", {"--watchdog", "/tmp/dog"}, "--watchdog needs a path below /dev, not \"/tmp/dog\"."},
        Mistake{"WatchdogIsMemory",
                {"--watchdog", "/dev/mem"},
                "The devices /dev/mem and /dev/mem conflict: their paths overlap."},
        Mistake{"TtyTwice",
                {"--tty", "/dev/ttyS1", "--tty", "/dev/ttyS1=none"},
                "The devices /dev/ttyS1 and /dev/ttyS1 conflict: their paths overlap."},
        Mistake{"MemoryOther", {"--mem", "some"}, "--mem can only be none, not \"some\"."},
        Mistake{"UartTooBig", {"--uart", "0x100000000"}, "--uart needs a 32-bit number, not \"0x100000000\"."},
        Mistake{"UartStride", {"--uart", "0x1000:"}, "--uart needs a 32-bit number, not \"\"."},
        Mistake{"RegisterNegative", {"--reg", "1=-1"}, "--reg needs a 32-bit number, not \"-1\"."},
        Mistake{"RegisterNoValue", {"--reg", "1"}, "--reg needs a 32-bit number, not \"\"."},
        Mistake{"RegisterRubbish", {"--reg", "1=2x"}, "--reg needs a 32-bit number, not \"2x\"."},
        Mistake{"Network", {"--net", "sometimes"}, "--net is private, none or host, not \"sometimes\"."},
        Mistake{"SerialInfoTooFew",
                {"--serial-info", "1,2"},
                "--serial-info needs five numbers: BAUD_BASE,FIFO_SIZE,FLAGS,IRQ,DIVISOR."},
        Mistake{"SerialInfoRubbish",
                {"--serial-info", "1,2,3,4,five"},
                "--serial-info needs a 32-bit number, not \"five\"."},
        Mistake{"LogFolder",
                {"--log", "/no/such/folder/log"},
                "the log /no/such/folder/log can't be written: No such file or directory"},
        Mistake{"ControlFolder",
                {"--control", "/no/such/folder/socket"},
                "the control socket /no/such/folder/socket can't be made: No such file or directory"}),
    [](const testing::TestParamInfo<Mistake>& info) { return std::string(info.param.name); });

TEST_F(Options, AFarEndOfNoKnownKindIsToldWithTheKnownOnes) {
  for (const char* farEnd : {"modem", "", "echo:x", "none:", "tcp", "tcp:", "tcp:host", "unix", "exec:", "ECHO"}) {
    SCOPED_TRACE(farEnd);
    const Outcome outcome = Run({"--tty", std::string("/dev/ttyS1=") + farEnd}, {"true"});
    EXPECT_EQ(outcome.status, 125) << outcome.errors;
    EXPECT_EQ(outcome.errors, std::string("boardsim: ") + kFarEnds + '"' + farEnd + "\".\n");
  }
}

TEST_F(Options, WithoutACommandThereIsASentence) {
  Start start;
  start.bare = true;
  start.command = {kSimulator};
  const Outcome outcome = Run(start);
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.errors, "boardsim: No command was given. Try --help.\n");
}

TEST_F(OptionsOfABoard, TheCommandsOwnOptionsAreItsOwn) {
  EXPECT_EQ(Run({}, {"echo", "--version", "--", "-x"}).output, "--version -- -x\n");
  Start start;
  start.bare = true;
  start.command = {kSimulator, "--net", "none", "echo", "--net", "x"};
  EXPECT_EQ(Run(start).output, "--net x\n");
}

TEST_F(Options, HelpAndVersionAreAnsweredWithStatus0) {
  Start start;
  start.bare = true;
  for (const char* option : {"--help", "-h", "--version"}) {
    SCOPED_TRACE(option);
    start.command = {kSimulator, option};
    const Outcome outcome = Run(start);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    EXPECT_CONTAINS(outcome.output, "boardsim");
  }
  const std::string version = Run(start).output;
  EXPECT_TRUE(std::regex_match(version, std::regex("boardsim \\d+\\.\\d+\\.\\d+\n"))) << version;
}

TEST_F(Options, TheManualPageHasEveryOptionOfTheHelp) {
  Start start;
  start.bare = true;
  start.command = {kSimulator, "--help"};
  const std::string help = Run(start).output;
  std::string page;
  for (const char character : Contents(BOARDKIT_BOARDSIM_PAGE)) {
    page += character == '\\' ? "" : std::string(1, character);
  }
  const std::regex pattern("--[a-z-]+");
  int options = 0;
  for (std::sregex_iterator match(help.begin(), help.end(), pattern), end; match != end; ++match, ++options) {
    EXPECT_CONTAINS(page, match->str());
  }
  EXPECT_GE(options, 12);
}

TEST_F(OptionsOfABoard, AProgramThatDoesNotExistGives127) {
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    const Outcome outcome = Run(options, {"./no-such-program"});
    EXPECT_EQ(outcome.status, 127) << outcome.errors;
    EXPECT_EQ(outcome.errors, "boardsim: ./no-such-program can't be executed: No such file or directory\n");
    Start start;
    start.options = options;
    start.command = {"no-such-program"};
    start.environment = {"PATH=/usr/bin:/bin"};  // folders that everybody may look into
    EXPECT_EQ(Run(start).status, 127);
  }
}

TEST_F(OptionsOfABoard, AProgramThatCannotBeExecutedGives126) {
  Shell("echo text >" + Path("text"));
  Shell("printf '\\177ELF nonsense' >" + Path("nonsense") + "; chmod +x " + Path("nonsense"));
  for (const Words& options : {Words{}, kWithoutNamespaces}) {
    SCOPED_TRACE(testing::PrintToString(options));
    const Outcome plain = Run(options, {Path("text")});
    EXPECT_EQ(plain.status, 126) << plain.errors;
    EXPECT_EQ(plain.errors, "boardsim: " + Path("text") + " can't be executed: Permission denied\n");
    const Outcome folder = Run(options, {Folder()});
    EXPECT_EQ(folder.status, 126);
    EXPECT_EQ(folder.errors, "boardsim: " + Folder() + " can't be executed: Permission denied\n");
  }
}

TEST_F(Options, AFullDiskIsFoundBeforeTheProgramStarts) {
  const Outcome outcome = Run({"--log", "/dev/full"}, {"touch", Path("ran")});
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.errors, "boardsim: the log /dev/full can't be written: No space left on device\n");
  EXPECT_NE(::access(Path("ran").c_str(), F_OK), 0);
}

TEST_F(OptionsOfABoard, ADiskThatFillsUpEndsTheLogInASentenceAndNotTheProgram) {
  ASSERT_EQ(::mkdir(Path("disk").c_str(), 0777), 0);
  Start start;
  const std::string disk = Path("disk");
  start.bare = true;
  start.prepare = [disk] { HideFolder(disk.c_str(), "size=8k"); };
  // All but a page of it is taken.
  const std::string script =
      "head -c 4096 /dev/zero >\"$1/other\"; \"$0\" --log \"$1/log\" -- \"$2\" modem mirror modem mirror modem mirror "
      "modem mirror modem mirror; echo $?";
  start.command = {"/bin/sh", "-c", script, kSimulator, disk, kProbe};
  const Outcome outcome = Run(start);
  EXPECT_EQ(outcome.errors, "boardsim: the log " + disk + "/log ends here: No space left on device\n");
  EXPECT_EQ(outcome.output, "0\n");
}

/// Standard error comes with the output, for files may not become longer than that.
Start WithFilesUpTo(rlim_t size, const Words& options, const Words& command) {
  Start start;
  start.options = options;
  start.command = command;
  start.prepare = [size] {
    ::dup2(STDOUT_FILENO, STDERR_FILENO);
    const rlimit limit{size, size};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  };
  return start;
}

TEST_F(OptionsOfABoard, ALogThatMayNotGrowIsAsGoodAsAFullDisk) {
  const Words options = {"--net", "none", "--mem", "none", "--log", Path("log")};
  const Outcome none = Run(WithFilesUpTo(0, options, {"echo", "ran"}));
  EXPECT_EQ(none.status, 125) << none.errors;
  EXPECT_EQ(none.output, "boardsim: the log " + Path("log") + " can't be written: File too large\n");
  const Outcome some = Run(WithFilesUpTo(512, options, {kProbe, "modem", "mirror", "modem", "mirror"}));
  EXPECT_EQ(some.status, 0) << some.errors;
  EXPECT_EQ(some.output, "boardsim: the log " + Path("log") + " ends here: File too large\n");
}

TEST_F(OptionsOfABoard, TheLogCanBeStandardError) {
  const Outcome outcome = Run({"--log", "-"}, {"true"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_TRUE(
      std::regex_match(outcome.errors, std::regex("\\d+\\.\\d{6} board start\n\\d+\\.\\d{6} board end status=0\n")))
      << outcome.errors;
}

TEST_F(OptionsOfABoard, ALogOfBeforeIsReplaced) {
  Shell("echo old >" + Path("log"));
  EXPECT_EQ(Run({"--log", Path("log")}, {"true"}).status, 0);
  EXPECT_LACKS(Contents(Path("log")), "old");
}

}  // namespace
