#include <ostream>
#include <string>

#include "Board.h"
#include "ExpectText.h"
#include "Probes.h"

namespace {

/// The ways in which a program can meet the board.
struct Variant {
  const char* build;
  bool namespaces;
  User user;
};

std::string NameOf(const Variant& variant) {
  const std::string build = variant.build == kProbe         ? "Dynamic"
                            : variant.build == kStaticProbe ? "Static"
                                                            : "Sanitized";
  return build + (variant.user == User::kOneself ? "" : "AsAnOrdinaryUser") +
         (variant.namespaces ? "" : "WithoutNamespaces");
}

void PrintTo(const Variant& variant, std::ostream* stream) {
  *stream << NameOf(variant);
}

class Probe : public BoardTest, public testing::WithParamInterface<Variant> {
 protected:
  void SetUp() override {
    BoardTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    if (GetParam().user == User::kOrdinary && GetParam().namespaces && !AreUserNamespacesAllowed()) {
      GTEST_SKIP() << kNoUserNamespaces;
    }
  }
  Start Steps(const Words& options, const Words& steps) const {
    Start start;
    start.options = (GetParam().namespaces ? Words{"--net", "none"} : kWithoutNamespaces) + options;
    start.command = Words{GetParam().build} + steps;
    start.user = GetParam().user;
    return start;
  }
  void ExpectPassed(const Words& options, const Words& steps) {
    const Outcome outcome = Run(Steps(options, steps));
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, "");
  }
};

TEST_P(Probe, TheModemLinesAreThoseOfA16550) {
  ExpectPassed({}, {"modem", "mirror", "modem"});
}

TEST_P(Probe, BytesComeBackFromTheEchoAndInTheLoop) {
  ExpectPassed({}, {"echo", "raw", "flush", "echo"});
  ExpectPassed({"--tty", "/dev/ttyS1=none"}, {"nobody", "short-loop"});
}

TEST_P(Probe, SettingsAreKeptAndProgramTheUart) {
  ExpectPassed({}, {"fresh", "line-control", "divisors", "impossible-speeds", "speed-zero", "custom-speed", "kept",
                    "info", "greatest-speed"});
}

TEST_P(Probe, SettingsThatWaitForTheOutputGetThroughWhileAnotherThreadWrites) {
  ExpectPassed({"--tty", "/dev/ttyS1=none"}, {"drained"});
}

TEST_P(Probe, ThePortIsKnownHoweverItWasCalledAndItsDescriptorCame) {
  ExpectPassed({}, {"descriptors", "names", "executed"});
}

TEST_P(Probe, AfterTheLastCloseThePortStartsAnew) {
  ExpectPassed({}, {"last-close"});
}

TEST_P(Probe, ByALoopBackPlugThePortHearsItselfAndItsFlowControlWorks) {
  ExpectPassed({"--tty", "/dev/ttyS1=plug"}, {"plug-lines", "hardware-flow", "software-flow", "modem-wait", "breaks"});
}

TEST_P(Probe, OnALineThatIsPacedOutputWaits) {
  ExpectPassed({"--pace", "--tty", "/dev/ttyS1=plug"}, {"slow"});
}

TEST_P(Probe, WrongRequestsFailAsTheKernelsOwnDo) {
  ExpectPassed({}, {"bad-pointers", "wide-requests", "strangers"});
}

TEST_P(Probe, TheWatchdogHasOneOwnerAndAnswersItsRequests) {
  ExpectPassed({}, {"one-owner", "timeouts", "requests", "shared", "unreadable"});
}

TEST_P(Probe, AProgramWhoseMemoryNobodyMayReadOpensItsFiles) {
  ExpectPassed({}, {"secretive"});
}

TEST_P(Probe, MemoryReachesBehindTheLastAddress) {
  ExpectPassed({}, {"memory"});
}

TEST_P(Probe, TheWatchdogIsStoppedByTheMagicByteWhereverItStandsAndHasTwoNames) {
  ExpectPassed({}, {"magic-inside", "numbered"});
}

TEST_P(Probe, AStarvedWatchdogEndsTheProgramAndItsDaemonsWithStatus86) {
  const Outcome outcome = Run(Steps({}, {"starve"}));
  EXPECT_EQ(outcome.status, 86) << outcome.errors;
  EXPECT_EQ(outcome.output, "");
  EXPECT_BEGINS(outcome.errors, "boardsim: /dev/watchdog has reset the board: time-out 1 s, last fed ");
}

std::string VariantName(const testing::TestParamInfo<Variant>& info) {
  return NameOf(info.param);
}

INSTANTIATE_TEST_SUITE_P(
    Every, Probe,
    testing::Values(Variant{kProbe, true, User::kOneself}, Variant{kProbe, true, User::kOrdinary},
                    Variant{kProbe, false, User::kOneself}, Variant{kProbe, false, User::kOrdinary},
                    Variant{kStaticProbe, true, User::kOneself}, Variant{kStaticProbe, true, User::kOrdinary},
                    Variant{kStaticProbe, false, User::kOneself}, Variant{kStaticProbe, false, User::kOrdinary},
                    Variant{kSanitizedProbe, true, User::kOneself}, Variant{kSanitizedProbe, true, User::kOrdinary},
                    Variant{kSanitizedProbe, false, User::kOneself}, Variant{kSanitizedProbe, false, User::kOrdinary}),
    VariantName);

}  // namespace
