// What BusyBox's tool does in its own way.
#include <string>

#include <gtest/gtest.h>

#include "RealIp.h"
#include "SystemCalls.h"

namespace {

class RealIpBusyBox : public RealIpTest {
 protected:
  RealIpBusyBox() : RealIpTest(Tool::BusyBox) {}
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

TEST_F(RealIpBusyBox, TheMulticastRoutesOfIpV6AreListedSoThatThereIsADevWithoutAnyRouteThroughAGateway) {
  // The kernel makes the routes when it sees the link come up, a moment after the command.
  Record record = net.GetGwInfo(kIpV6);
  for (int attempts = 100; record.empty() && attempts > 0; --attempts) {
    DebugSleep(20);
    record = net.GetGwInfo(kIpV6);
  }

  EXPECT_EQ(record.size(), 1U);
  EXPECT_EQ(record.count("dev"), 1U);
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
