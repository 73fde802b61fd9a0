#include <string>

#include "Board.h"
#include "ExpectText.h"
#include "Probes.h"

namespace {

class Check : public BoardTest {
 protected:
  /// Runs a shell command of the machine.
  Outcome InShell(const std::string& command) {
    Start start;
    start.bare = true;
    start.command = {"/bin/sh", "-c", command};
    return Run(start);
  }
};

constexpr const char* kHeading = "What this machine allows boardsim:\n\n";
constexpr const char* kCallsAndOpens =
    "  yes  to answer system calls that a terminal or a pipe would refuse\n"
    "  yes  to keep signals from interrupting these calls\n"
    "  yes  to answer opens with devices, where it gets no /dev of its own\n";

/// Shell words that run what follows where no further user namespaces can be made, without root's rights.
std::string WhereNamespacesAreForbidden() {
  return "exec unshare --user --map-root-user sh -c 'echo 0 >/proc/sys/user/max_user_namespaces; "
         "exec setpriv --bounding-set=-all --inh-caps=-all \"$@\"' sh ";
}

TEST_F(Check, SaysThatTheWholeBoardCanBeSimulatedAndLeavesNothing) {
  const Outcome outcome = InShell(Quoted(kSimulator) + " --check");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, std::string(kHeading) + kCallsAndOpens +
                                "  yes  devices under their names, in a /dev of its own\n"
                                "  yes  a network of its own\n"
                                "\nThe whole board can be simulated.\n");
  EXPECT_EQ(outcome.errors, "");
}

TEST_F(Check, NamesTheSettingThatForbidsNamespaces) {
  if (!AreUserNamespacesAllowed()) {
    GTEST_SKIP() << kNoUserNamespaces;
  }
  const Outcome outcome = InShell(WhereNamespacesAreForbidden() + Quoted(kSimulator) + " --check");
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  // The error number depends on the user.
  EXPECT_CONTAINS(outcome.output, std::string(kHeading) + kCallsAndOpens +
                                      "  no   devices under their names, in a /dev of its own\n"
                                      "       namespaces can't be made: ");
  EXPECT_CONTAINS(outcome.output,
                  "\n       Remedy: as root, sysctl user.max_user_namespaces=15000\n"
                  "  no   a network of its own\n");
  EXPECT_CONTAINS(outcome.output,
                  "\n       Remedy: the one above\n"
                  "\nThe board can be simulated without a network: see --no-namespaces.\n");
}

TEST_F(Check, SaysThatTwoOfThemAreOneTooMany) {
  const Outcome outcome = Run({}, {kSimulator, "--check"});
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.output,
            std::string(kHeading) +
                "  no   to answer system calls that a terminal or a pipe would refuse\n"
                "       System calls are supervised here already, by another simulator perhaps.\n"
                "       Remedy: Linux 5.5 or newer with CONFIG_SECCOMP_FILTER, and no other supervisor\n"
                "\nThe board can't be simulated here.\n");
}

TEST_F(Check, SaysWhatToInstallWhereThereIsNoIp) {
  Start start;
  start.bare = true;
  start.command = {kSimulator, "--check"};
  start.environment = {"PATH=/no/such/folder"};
  start.prepare = [] {
    HideFolder("/usr/sbin");
    HideFolder("/sbin");
  };
  const Outcome outcome = Run(start);
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.output,
            std::string(kHeading) + kCallsAndOpens +
                "  yes  devices under their names, in a /dev of its own\n"
                "  no   a network of its own\n"
                "       There is no `ip` to make the network with: install iproute2, or use --net none.\n"
                "       Remedy: as root, apt-get install iproute2\n"
                "\nThe board can be simulated without a network: see --net.\n");
}

TEST_F(Check, RunsNoCommand) {
  const Outcome outcome = InShell(Quoted(kSimulator) + " --check -- touch " + Path("ran"));
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.errors, "boardsim: --check runs no command.\n");
}

TEST_F(Check, WhereNamespacesAreForbiddenTheDevicesAreThereWithANotice) {
  if (!AreUserNamespacesAllowed()) {
    GTEST_SKIP() << kNoUserNamespaces;
  }
  const Outcome outcome =
      InShell(WhereNamespacesAreForbidden() + Quoted(kSimulator) + " --net host -- " + Quoted(kProbe) + " echo");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, "");
  EXPECT_BEGINS(outcome.errors, "boardsim: namespaces can't be made: ");
  const std::string rest = ", so no device is visible in /dev, and the network is this machine's. See --check.\n";
  ASSERT_GE(outcome.errors.size(), rest.size());
  EXPECT_EQ(outcome.errors.substr(outcome.errors.size() - rest.size()), rest);
}

TEST_F(Check, WhereNamespacesAreForbiddenAPrivateNetworkIsRefused) {
  if (!AreUserNamespacesAllowed()) {
    GTEST_SKIP() << kNoUserNamespaces;
  }
  const Outcome outcome = InShell(WhereNamespacesAreForbidden() + Quoted(kSimulator) + " --net private -- true");
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_CONTAINS(outcome.errors, ", so there can be no network of its own.\n");
}

}  // namespace
