// What BusyBox's tool does differently.
#include <cstring>
#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "ExpectThrow.h"
#include "RealIp.h"
#include "SystemCalls.h"

namespace {

class RealIpBusyBox : public RealIpTest {
 protected:
  RealIpBusyBox() : RealIpTest(Tool::kBusyBox) {}

  /// That of the tool, which begins its help with "BusyBox v1.35.0 ".
  std::pair<int, int> Version() {
    std::istringstream help(system.ExecCmd("busybox", false));
    std::pair<int, int> version;
    char dot = '\0';
    EXPECT_TRUE(help.ignore(std::strlen("BusyBox v")) >> version.first >> dot >> version.second) << help.str();
    return version;
  }
};

TEST_F(RealIpBusyBox, FlushingAPrimaryWithASecondaryIpV4AddressFailsAlthoughBothAreGone) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("addr add 192.0.2.20/24 dev eth0");

  const std::string thrown = LogicErrorOf([&] { net.SetAddr("eth0", "", 24, kIpV4, kFlush); });

  EXPECT_EQ(thrown, "ip: can't send flush request: Cannot assign requested address\n");
  EXPECT_EQ(Addresses("eth0", kIpV4), Lines{});
}

TEST_F(RealIpBusyBox, TheFailureOfSuchAFlushGoesUnreportedWhereAnAddressIsSet) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("addr add 192.0.2.20/24 dev eth0");

  testing::internal::CaptureStderr();
  EXPECT_TRUE(net.SetAddr("eth0", "192.0.2.30", 24, kIpV4, kFlush));

  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ip: can't send flush request: Cannot assign requested address\n");
  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"192.0.2.30/24 brd 192.0.2.255"}));
}

TEST_F(RealIpBusyBox, AMultipathDefaultRouteIsListedWithoutItsGateways) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("route add default nexthop via 192.0.2.1 dev eth0 nexthop via 192.0.2.2 dev eth0");

  EXPECT_EQ(net.GetGwInfo(kIpV4), (Record{{"default", "\n192.0.2.0/24"}, {"dev", "eth0"}}));
}

TEST_F(RealIpBusyBox, ANexthopObjectIsNotNamedSoThatTheSameGatewayIsNoChange) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("nexthop add id 7 via 192.0.2.1 dev eth0");
  Ip("-4 route add default nhid 7");

  EXPECT_FALSE(net.SetGw("eth0", "192.0.2.1", kIpV4, kNoFlush));
}

TEST_F(RealIpBusyBox, BeforeVersion137TheMulticastRoutesOfIpV6AreListedSoThatThereIsADevWithoutAnyGateway) {
  // The kernel makes the routes when it sees the link come up, a moment after the command.
  for (int attempts = 100; Ip("-6 route show table local type multicast dev eth0").empty() && attempts > 0;
       --attempts) {
    DebugSleep(20);
  }

  const Record record = net.GetGwInfo(kIpV6);

  const bool areListed = Version() < std::make_pair(1, 37);
  EXPECT_EQ(record.size(), areListed ? 1U : 0U);
  EXPECT_EQ(record.count("dev"), record.size());
}

TEST_F(RealIpBusyBox, AnIpV6AddressWithAPeerIsReportedAsIfItHadNone) {
  Ip("addr add 2001:db8::10 peer 2001:db8::1/128 dev eth0");

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "128"}}));
}

TEST_F(RealIpBusyBox, FailuresBeginWithTheToolsName) {
  EXPECT_EQ(Complaint("addr show dev nope0"), "ip: can't find device 'nope0'\n");
  EXPECT_EQ(Complaint("-4 addr add 192.0.2.10/99 dev eth0"),
            "ip: an inet prefix is expected rather than \"192.0.2.10\"\n");
  EXPECT_EQ(Complaint("-4 route add default via 203.0.113.1 dev eth0"),
            "ip: RTNETLINK answers: Network is unreachable\n");
}

}  // namespace
