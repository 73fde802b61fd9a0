#include <unistd.h>

#include <string>

#include "Board.h"
#include "ExpectText.h"
#include "Probes.h"

namespace {

/// What could change on the machine.
std::string MachinesNetwork() {
  return Shell("ip -o link | sed 's/ qlen .*//'; ip -o address | sed 's/ valid_lft .*//'; ip route; ip -6 route");
}

class Network : public BoardTest {
 protected:
  Network() : m_before(MachinesNetwork()) {}
  void TearDown() override {
    EXPECT_EQ(MachinesNetwork(), m_before) << "the machine's network has changed";
    BoardTest::TearDown();
  }

  const std::string m_before;
};

TEST_F(Network, ItHasLoAndTwoInterfacesWithFixedAddressesAndOnlyTheFirstIsUp) {
  EXPECT_EQ(InShell({}, "ls /sys/class/net; cat /sys/class/net/*/address"),
            "eth0\neth1\nlo\n02:00:00:00:00:01\n02:00:00:00:00:02\n00:00:00:00:00:00\n");
  EXPECT_EQ(InShell({}, "ip -o link show up | cut -d ' ' -f 2 | cut -d @ -f 1 | tr -d :"), "lo\neth0\n");
  EXPECT_EQ(InShell({}, "ip -o -4 address | cut -d ' ' -f 2,7"), "lo 127.0.0.1/8\n");
  EXPECT_EQ(InShell({"--net", "private"}, "ls /sys/class/net"), "eth0\neth1\nlo\n");
}

TEST_F(Network, ItsSettingsInSysCanBeReadAndNotWritten) {
  for (const char* kind : {"private", "none"}) {
    SCOPED_TRACE(kind);
    const Outcome outcome =
        Run({"--net", kind}, {"sh", "-c", "cat /sys/class/net/lo/mtu; echo 1280 >/sys/class/net/lo/mtu"});
    EXPECT_NE(outcome.status, 0);
    EXPECT_EQ(outcome.output, "65536\n");
    EXPECT_CONTAINS(outcome.errors, "Read-only file system");
  }
}

TEST_F(Network, TheEndsOfACableHaveDifferentNumbers) {
  // Those with the same ones may wait a second for their carrier.
  EXPECT_EQ(InShell({},
                    "for name in eth0 eth1; do cmp -s /sys/class/net/$name/ifindex /sys/class/net/$name/iflink; "
                    "echo $?; done"),
            "1\n1\n");
}

TEST_F(Network, NoAddressIsTentativeDirectlyAfterTheStart) {
  // The link's own address comes with the carrier.
  EXPECT_EQ(InShell({}, "ip -o -6 address show tentative; ip -o -6 address show dev eth0 scope link | cut -d ' ' -f 7"),
            "fe80::ff:fe00:1/64\n");
}

TEST_F(Network, ItsPeersAnswerAtOnceOnceTheBoardHasAddresses) {
  ExpectSteps({}, {kProbe, "peers"});
}

TEST_F(Network, TheRealIpWorksOnIt) {
  ExpectSteps({}, {kProbe, "administration"});
}

TEST_F(Network, AnOrdinaryUserHasTheSame) {
  if (!AreUserNamespacesAllowed()) {
    GTEST_SKIP() << kNoUserNamespaces;
  }
  for (const char* step : {"peers", "administration", "user"}) {
    SCOPED_TRACE(step);
    Start start;
    start.command = {kProbe, step};
    start.user = User::kOrdinary;
    const Outcome outcome = Run(start);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, "");
  }
}

TEST_F(Network, WithNoneThereIsNothingButLoWhichIsUp) {
  EXPECT_EQ(InShell({"--net", "none"}, "ls /sys/class/net; ip -o link | wc -l; ip -o -4 address | cut -d ' ' -f 2,7"),
            "lo\n1\nlo 127.0.0.1/8\n");
}

TEST_F(Network, WithHostItIsTheMachines) {
  EXPECT_EQ(InShell({"--net", "host"}, "ip -o link | cut -d ' ' -f 2"), Shell("ip -o link | cut -d ' ' -f 2"));
  EXPECT_EQ(InShell(kWithoutNamespaces, "ip -o link | cut -d ' ' -f 2"), Shell("ip -o link | cut -d ' ' -f 2"));
  // But nobody in there may change it, not even its owner, who is another user in there.
  EXPECT_NE(Run({"--net", "host"}, {"ip", "link", "set", "lo", "mtu", "1280"}).status, 0);
}

TEST_F(Network, WithoutNamespacesRootHasToAskForTheMachinesInWords) {
  const Outcome outcome = Run({}, {"true"});
  ASSERT_EQ(outcome.status, 0);
  if (::geteuid() == 0) {
    for (const Words& options : {Words{"--no-namespaces"}}) {
      SCOPED_TRACE(testing::PrintToString(options));
      const Outcome refused = Run(options, {"touch", Path("ran")});
      EXPECT_EQ(refused.status, 125) << refused.errors;
      EXPECT_EQ(refused.errors,
                "boardsim: As root, and without namespaces, the application could change this machine's network: use "
                "--net host if that is intended.\n");
    }
  }
  Start start;
  start.options = {"--no-namespaces"};
  start.command = {"true"};
  start.user = User::kOrdinary;
  const Outcome ordinary = Run(start);
  EXPECT_EQ(ordinary.status, 0);
  EXPECT_EQ(ordinary.errors, "");
  EXPECT_NE(::access(Path("ran").c_str(), F_OK), 0);
}

TEST_F(Network, WithoutNamespacesThereIsNoneOfItsOwn) {
  for (const char* kind : {"private", "none"}) {
    SCOPED_TRACE(kind);
    const Outcome outcome = Run({"--no-namespaces", "--net", kind}, {"touch", Path("ran")});
    EXPECT_EQ(outcome.status, 125) << outcome.errors;
    EXPECT_EQ(outcome.errors, "boardsim: Without namespaces there is only --net host.\n");
  }
  EXPECT_NE(::access(Path("ran").c_str(), F_OK), 0);
}

/// The folders that could have an `ip` are empty or not in PATH.
Start WithoutIp(const Words& options) {
  Start start;
  start.options = options;
  start.command = {kStaticProbe, "echo"};
  start.environment = {"PATH=/no/such/folder"};
  start.prepare = [] {
    HideFolder("/usr/sbin");
    HideFolder("/sbin");
  };
  return start;
}

TEST_F(Network, WithoutIpThereIsASentence) {
  const Outcome outcome = Run(WithoutIp({}));
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.errors,
            "boardsim: There is no `ip` to make the network with: install iproute2, or use --net none.\n");
}

TEST_F(Network, TheAdviceToGiveNoneWorksWithoutIp) {
  const Outcome outcome = Run(WithoutIp({"--net", "none"}));
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
}

TEST_F(Network, AnIpThatFailsIsQuoted) {
  Shell("printf '#!/bin/sh\\necho out of order >&2\\nexit 1\\n' >" + Path("ip") + "; chmod +x " + Path("ip"));
  Start start;
  start.command = {"true"};
  start.environment = {"PATH=" + Path("") + ":/usr/bin:/bin"};
  const Outcome outcome = Run(start);
  EXPECT_EQ(outcome.status, 125) << outcome.errors;
  EXPECT_EQ(outcome.errors, "boardsim: `ip` could not make the network: out of order\n");
}

}  // namespace
