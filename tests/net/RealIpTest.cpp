// The library on the real kernel, with both tools that boards have: what it returns, and the kernel's state afterwards.
#include <unistd.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "ExpectText.h"
#include "ExpectThrow.h"
#include "NetworkNamespace.h"
#include "RealIp.h"

namespace {

/// With either tool.
class RealIp : public RealIpTest, public testing::WithParamInterface<Tool> {
 protected:
  RealIp() : RealIpTest(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(With, RealIp, testing::Values(Tool::kIpRoute2, Tool::kBusyBox),
                         testing::PrintToStringParamName());

/// With either tool, in either family.
class RealIpFamily : public RealIpTest, public testing::WithParamInterface<std::tuple<Tool, Family>> {
 protected:
  RealIpFamily() : RealIpTest(std::get<Tool>(GetParam())) {}

  bool SetAddr(const std::string& addr, bool flush = kNoFlush) {
    return net.SetAddr("eth0", addr, family.prefixLength, family.ipv6, flush);
  }
  bool SetGw(const std::string& gw, bool flush = kNoFlush) {
    return net.SetGw("eth0", gw, family.ipv6, flush);
  }
  /// With the prefix length.
  std::string Long(const std::string& addr) const {
    return addr + "/" + std::to_string(family.prefixLength);
  }
  std::string IpFamily(const std::string& arguments) {
    return Ip(std::string(family.option) + " " + arguments);
  }
  Lines Addresses() {
    return RealIpTest::Addresses("eth0", family.ipv6);
  }
  Lines DefaultRoutes() {
    return RealIpTest::DefaultRoutes(family.ipv6);
  }
  std::string AddCommand(const std::string& addr) const {
    return "ip " + std::string(family.option) + " addr add " + Long(addr) + (family.ipv6 ? "" : " brd +") + " dev eth0";
  }
  std::string DelCommand(const std::string& addr) const {
    return "ip " + std::string(family.option) + " addr del " + Long(addr) + " dev eth0";
  }
  /// The commands that set and delete a default route, without "ip" and the family.
  static std::string Route(const std::string& verb, const std::string& gw, const std::string& iface = "eth0") {
    return "route " + verb + " default via " + gw + " dev " + iface;
  }
  std::string RouteCommand(const std::string& verb, const std::string& gw, const std::string& iface = "eth0") const {
    return "ip " + std::string(family.option) + " " + Route(verb, gw, iface);
  }
  std::string Default(const std::string& gw, const std::string& iface = "eth0") const {
    return "default via " + gw + " dev " + iface + family.metric;
  }
  std::string ComplaintAbout(const std::string& arguments) {
    return Complaint(std::string(family.option) + " " + arguments);
  }

  const Family& family = std::get<Family>(GetParam());
  const std::string noAddress = family.ipv6 ? "::" : "0.0.0.0";
  const std::string addressQuery = "ip addr show dev eth0";
  const std::string routeQuery = "ip " + std::string(family.option) + " route show";
};

INSTANTIATE_TEST_SUITE_P(With, RealIpFamily,
                         testing::Combine(testing::Values(Tool::kIpRoute2, Tool::kBusyBox),
                                          testing::Values(kFamily4, kFamily6)),
                         [](const auto& test) {
                           return testing::PrintToString(std::get<Tool>(test.param)) + "_" +
                                  testing::PrintToString(std::get<Family>(test.param));
                         });

/// With iproute2's tool alone: what the other one does not show or support.
class RealIpRoute2 : public RealIpTest {
 protected:
  RealIpRoute2() : RealIpTest(Tool::kIpRoute2) {}
};

// --- The network itself ----------------------------------------------------------------------------------------------

TEST_F(RealIpRoute2, EveryTestHasANetworkOfItsOwn) {
  const auto before = std::filesystem::read_symlink("/proc/self/ns/net");

  ASSERT_EQ(EnterFreshNetwork(), "");

  EXPECT_NE(std::filesystem::read_symlink("/proc/self/ns/net"), before);
  EXPECT_EQ(Ip("-br link show").substr(0, 3), "lo ");
  EXPECT_LACKS(Ip("-br link show"), "eth");
}

// --- GetIfaceInfo ----------------------------------------------------------------------------------------------------

TEST_P(RealIp, LoopbackHasAZeroHardwareAddressAndBothFamilies) {
  EXPECT_EQ(net.GetIfaceInfo("lo"), (Record{{"link", "00:00:00:00:00:00"},
                                            {"ipv4", "127.0.0.1"},
                                            {"ipv4pflen", "8"},
                                            {"ipv6", "::1"},
                                            {"ipv6pflen", "128"}}));
}

TEST_P(RealIp, AnInterfaceWithoutAddressesHasItsHardwareAddressAlone) {
  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}}));

  Ip("link set eth0 down");

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}}));
}

TEST_P(RealIp, AnInterfaceWithOnlyIpV4HasNoIpV6Keys) {
  Ip("addr add 192.0.2.10/24 dev eth0");

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv4", "192.0.2.10"}, {"ipv4pflen", "24"}}));
}

TEST_P(RealIp, AnInterfaceWithOnlyIpV6HasNoIpV4Keys) {
  Ip("addr add 2001:db8::10/64 dev eth0");

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "64"}}));
}

TEST_P(RealIp, OfTwoIpV4AddressesTheFirstListedIsReported) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("addr add 198.51.100.30/25 dev eth0");

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv4", "192.0.2.10"}, {"ipv4pflen", "24"}}));
}

TEST_P(RealIp, ASecondaryIpV4AddressIsNotReported) {
  Ip("addr add 192.0.2.20/24 dev eth0");
  Ip("addr add 192.0.2.10/24 dev eth0");

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv4", "192.0.2.20"}, {"ipv4pflen", "24"}}));
}

TEST_P(RealIp, OfTheIpV6AddressesTheFirstListedIsReportedWhateverItsScope) {
  Ip("addr add fe80::5/64 dev eth0");
  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv6", "fe80::5"}, {"ipv6pflen", "64"}}));

  // The kernel lists wider scopes first, and of one scope the newest first.
  Ip("addr add 2001:db8::10/64 dev eth0");
  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "64"}}));

  Ip("addr add 2001:db8::20/60 dev eth0");
  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv6", "2001:db8::20"}, {"ipv6pflen", "60"}}));

  Ip("addr add fe80::6/64 dev eth0");
  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv6", "2001:db8::20"}, {"ipv6pflen", "60"}}));
}

TEST_P(RealIp, AnIpV4AddressWithAPeerHasNoKeysForItIsPrintedWithoutPrefixLength) {
  Ip("addr add 192.0.2.10 peer 192.0.2.1/32 dev eth0");
  Ip("addr add 198.51.100.30/24 dev eth0");

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}}));
}

TEST_F(RealIpRoute2, AnIpV6AddressWithAPeerHasNoKeysEither) {
  Ip("addr add 2001:db8::10 peer 2001:db8::1/128 dev eth0");

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}}));
}

TEST_P(RealIp, AnInterfaceWhoseNameContainsInetHasNoIpV4Keys) {
  Rename("eth0", "inet0");
  Ip("addr add 192.0.2.10/24 dev inet0");
  Ip("addr add 2001:db8::10/64 dev inet0");

  EXPECT_EQ(net.GetIfaceInfo("inet0"), (Record{{"link", kMac}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "64"}}));
}

TEST_P(RealIp, AnInterfaceWhoseNameContainsInet6HasNoAddressKeysAtAll) {
  Rename("eth0", "my-inet6");
  Ip("addr add 192.0.2.10/24 dev my-inet6");
  Ip("addr add 2001:db8::10/64 dev my-inet6");

  EXPECT_EQ(net.GetIfaceInfo("my-inet6"), (Record{{"link", kMac}}));
}

TEST_P(RealIp, AnInterfaceWithoutHardwareAddressHasTheNewlineBehindItsLinkType) {
  if (::access("/dev/net/tun", R_OK | W_OK) != 0) {
    GTEST_SKIP() << "/dev/net/tun cannot be opened";
  }
  Ip("tuntap add dev tun0 mode tun");
  Ip("link set tun0 up");
  EXPECT_EQ(net.GetIfaceInfo("tun0"), (Record{{"link", "\n"}}));

  Ip("addr add 192.0.2.10/24 dev tun0");
  EXPECT_EQ(net.GetIfaceInfo("tun0"), (Record{{"link", "\n"}, {"ipv4", "192.0.2.10"}, {"ipv4pflen", "24"}}));
}

TEST_P(RealIp, ATentativeAddressIsReportedLikeAnyOther) {
  SetKernelVariable("ipv6/conf/eth0/accept_dad", "1");
  SetKernelVariable("ipv6/conf/eth0/dad_transmits", "100");
  Ip("addr add 2001:db8::10/64 dev eth0");
  ASSERT_PRED_FORMAT2(ContainsText, Ip("addr show dev eth0"), " tentative");

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "64"}}));
  EXPECT_FALSE(net.SetAddr("eth0", "2001:db8::10", 64, kIpV6, kNoFlush));
}

TEST_P(RealIp, TheCarrierDoesNotMatterToTheRecord) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("link set peer0 down");

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv4", "192.0.2.10"}, {"ipv4pflen", "24"}}));
}

TEST_P(RealIp, AnUnknownInterfaceThrowsTheToolsWords) {
  const std::string words = Complaint("addr show dev nope0");
  EXPECT_EQ(words,
            GetParam() == Tool::kIpRoute2 ? "Device \"nope0\" does not exist.\n" : "ip: can't find device 'nope0'\n");

  EXPECT_EXACT_THROW(net.GetIfaceInfo("nope0"), std::logic_error, words);
  EXPECT_EXACT_THROW(net.GetIfaceInfo("nope0"), std::logic_error, words);

  EXPECT_EQ(Commands(), (Lines{"ip addr show dev nope0", "ip addr show dev nope0"}));
}

TEST_P(RealIp, AnEmptyInterfaceNameThrowsTheToolsWords) {
  const std::string words = Complaint("addr show dev");
  EXPECT_NE(words, "");

  EXPECT_EXACT_THROW(net.GetIfaceInfo(""), std::logic_error, words);
}

TEST_P(RealIp, EveryQueryIsTracedOnce) {
  net.GetIfaceInfo("lo");
  net.GetGwInfo(kIpV4);
  net.GetGwInfo(kIpV6);

  EXPECT_EQ(net.GetDebugOutput(), "ip addr show dev lo\nip -4 route show\nip -6 route show\n");
}

// --- GetGwInfo -------------------------------------------------------------------------------------------------------

TEST_P(RealIpFamily, NoRoutesGiveAnEmptyGatewayRecord) {
  Ip("link set eth0 down");
  Ip("link set eth1 down");
  Ip("link set peer0 down");
  Ip("link set peer1 down");

  EXPECT_EQ(net.GetGwInfo(family.ipv6), Record{});
}

TEST_P(RealIpFamily, ADefaultRouteGivesItsGatewayAndInterface) {
  Ip("addr add " + Long(family.first) + " dev eth0");
  IpFamily(Route("add", family.gateway));

  EXPECT_EQ(net.GetGwInfo(family.ipv6), (Record{{"default", "via"}, {"via", family.gateway}, {"dev", "eth0"}}));
  EXPECT_EQ(net.GetGwInfo(!family.ipv6).count("default"), 0U);
}

TEST_P(RealIpFamily, OfSeveralDefaultRoutesTheFirstListedIsReported) {
  Ip("addr add " + Long(family.first) + " dev eth0");
  Ip("addr add " + Long(family.third) + " dev eth1");
  IpFamily(Route("add", family.gateway) + " metric 70");
  IpFamily(Route("add", family.farGateway, "eth1") + " metric 50");

  EXPECT_EQ(net.GetGwInfo(family.ipv6), (Record{{"default", "via"}, {"via", family.farGateway}, {"dev", "eth1"}}));
}

TEST_P(RealIpFamily, WithoutADefaultRouteAnotherRouteGivesViaAndDev) {
  Ip("addr add " + Long(family.first) + " dev eth0");
  IpFamily(std::string("route add ") + family.target + " via " + family.gateway + " dev eth0");

  EXPECT_EQ(net.GetGwInfo(family.ipv6), (Record{{"via", family.gateway}, {"dev", "eth0"}}));
}

TEST_P(RealIpFamily, ADefaultRouteWithoutGatewayGivesDevAsTheDefault) {
  IpFamily("route add default dev eth0");

  const Record record = net.GetGwInfo(family.ipv6);

  EXPECT_EQ(record.at("default"), "dev");
  EXPECT_EQ(record.count("via"), 0U);
  EXPECT_EQ(record.at("dev"), "eth0");
}

TEST_P(RealIpFamily, ADefaultRouteToAnInterfaceCalledViaTakesTheWordAfterTheNameForTheGateway) {
  Rename("eth0", "via1");
  IpFamily("route add default dev via1");

  const Record record = net.GetGwInfo(family.ipv6);

  EXPECT_EQ(record.at("default"), "dev");
  EXPECT_EQ(record.at("via"), family.ipv6 ? "metric" : "scope");
}

TEST_P(RealIpFamily, ADefaultRouteThroughAGatewayIsReadRightOnAnInterfaceCalledVia) {
  Rename("eth0", "via1");
  Ip("addr add " + Long(family.first) + " dev via1");
  IpFamily(Route("add", family.gateway, "via1"));

  EXPECT_EQ(net.GetGwInfo(family.ipv6), (Record{{"default", "via"}, {"via", family.gateway}, {"dev", "via1"}}));
}

TEST_P(RealIpFamily, ADefaultRouteThroughANexthopObjectGivesItsGatewayAndInterface) {
  Ip("addr add " + Long(family.first) + " dev eth0");
  IpFamily(std::string("nexthop add id 7 via ") + family.gateway + " dev eth0");
  IpFamily("route add default nhid 7");

  const Record record = net.GetGwInfo(family.ipv6);

  EXPECT_EQ(record.at("default"), std::get<Tool>(GetParam()) == Tool::kIpRoute2 ? "nhid" : "via");
  EXPECT_EQ(record.at("via"), family.gateway);
  EXPECT_EQ(record.at("dev"), "eth0");
}

TEST_F(RealIpRoute2, AMultipathDefaultRouteGivesTheFirstGatewayUnderAnOddDefault) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("route add default nexthop via 192.0.2.1 dev eth0 nexthop via 192.0.2.2 dev eth0");

  EXPECT_EQ(net.GetGwInfo(kIpV4), (Record{{"default", "\n\tnexthop"}, {"via", "192.0.2.1"}, {"dev", "eth0"}}));
}

TEST_F(RealIpRoute2, AnIpV6GatewayOfAnIpV4RouteIsReadAsTheWordInet6) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("-4 route add default via inet6 fe80::1 dev eth0");

  EXPECT_EQ(net.GetGwInfo(kIpV4), (Record{{"default", "via"}, {"via", "inet6"}, {"dev", "eth0"}}));
}

TEST_F(RealIpRoute2, AnUnreachableDefaultRouteHasNoGateway) {
  Ip("-4 route add unreachable default");

  EXPECT_EQ(net.GetGwInfo(kIpV4), (Record{{"default", "\n"}}));
}

// --- SetAddr ---------------------------------------------------------------------------------------------------------

TEST_P(RealIpFamily, AnAddressIsSetOnceAndTheSecondCallRunsTheQueryAlone) {
  EXPECT_TRUE(SetAddr(family.first));
  EXPECT_EQ(Commands(), (Lines{addressQuery, "", AddCommand(family.first)}));
  EXPECT_EQ(Addresses(), (Lines{Long(family.first) + family.shownSuffix}));

  EXPECT_FALSE(SetAddr(family.first));
  EXPECT_EQ(Commands(), (Lines{addressQuery}));
  EXPECT_EQ(Addresses(), (Lines{Long(family.first) + family.shownSuffix}));
}

TEST_P(RealIpFamily, AnAddressThatIsThereIsNotFlushedEither) {
  SetAddr(family.first);
  Commands();

  EXPECT_FALSE(SetAddr(family.first, kFlush));

  EXPECT_EQ(Commands(), (Lines{addressQuery}));
}

TEST_P(RealIpFamily, AnotherAddressReplacesTheFormerOne) {
  SetAddr(family.first);
  Commands();

  EXPECT_TRUE(SetAddr(family.second));

  EXPECT_EQ(Commands(), (Lines{addressQuery, DelCommand(family.first), AddCommand(family.second)}));
  EXPECT_EQ(Addresses(), (Lines{Long(family.second) + family.shownSuffix}));
}

TEST_P(RealIpFamily, AnotherPrefixLengthAloneIsAChange) {
  SetAddr(family.first);

  EXPECT_TRUE(net.SetAddr("eth0", family.first, family.prefixLength + 4, family.ipv6, kNoFlush));

  EXPECT_EQ(Addresses(), (Lines{std::string(family.first) + "/" + std::to_string(family.prefixLength + 4) +
                                (family.ipv6 ? "" : " brd 192.0.2.15")}));
}

TEST_P(RealIpFamily, AnAddressCanBeSetWhileTheInterfaceIsDown) {
  Ip("link set eth0 down");

  EXPECT_TRUE(SetAddr(family.first));
  EXPECT_FALSE(SetAddr(family.first));

  EXPECT_EQ(Addresses(), (Lines{Long(family.first) + family.shownSuffix}));
}

TEST_P(RealIpFamily, TheOtherFamilyAndTheOtherInterfacesAreLeftAlone) {
  Ip("addr add 192.0.2.77/24 dev eth0");
  Ip("addr add 2001:db8::77/64 dev eth0");
  Ip("addr add 192.0.2.88/24 dev eth1");
  Ip("addr add 2001:db8::88/64 dev eth1");

  SetAddr(family.first);
  SetAddr("", kFlush);

  EXPECT_EQ(Addresses(), Lines{});
  EXPECT_EQ(RealIpTest::Addresses("eth0", !family.ipv6).size(), 1U);
  EXPECT_EQ(RealIpTest::Addresses("eth1", kIpV4), (Lines{"192.0.2.88/24"}));
  EXPECT_EQ(RealIpTest::Addresses("eth1", kIpV6), (Lines{"2001:db8::88/64"}));
}

TEST_P(RealIpFamily, AnEmptyAddressRemovesTheOneThatIsThere) {
  SetAddr(family.first);
  Commands();

  EXPECT_TRUE(SetAddr(""));

  EXPECT_EQ(Commands(), (Lines{addressQuery, DelCommand(family.first)}));
  EXPECT_EQ(Addresses(), Lines{});
}

TEST_P(RealIpFamily, RemovingWhereNothingIsRunsAnEmptyTextAndReturnsTrue) {
  EXPECT_TRUE(SetAddr(""));
  EXPECT_TRUE(SetAddr(""));

  EXPECT_EQ(Commands(), (Lines{addressQuery, "", addressQuery, ""}));
  EXPECT_EQ(Addresses(), Lines{});
}

TEST_P(RealIpFamily, RemovingWithoutFlushTakesTheFirstListedOfSeveralAddresses) {
  Ip("addr add " + Long(family.first) + " dev eth0");
  Ip("addr add " + Long(family.third) + " dev eth0");
  const Lines before = Addresses();
  ASSERT_EQ(before.size(), 2U);

  EXPECT_TRUE(SetAddr(""));

  EXPECT_EQ(Addresses(), (Lines{before[1]}));
}

TEST_P(RealIpFamily, FlushingTakesAllAddressesOfTheFamily) {
  Ip("addr add " + Long(family.first) + " dev eth0");
  Ip("addr add " + Long(family.third) + " dev eth0");

  EXPECT_TRUE(SetAddr("", kFlush));

  EXPECT_EQ(Commands(), (Lines{addressQuery, "ip " + std::string(family.option) + " addr flush dev eth0"}));
  EXPECT_EQ(Addresses(), Lines{});
  EXPECT_TRUE(SetAddr("", kFlush)) << "flushing nothing is no failure";
}

TEST_P(RealIpFamily, FlushingAndSettingLeavesTheNewAddressAlone) {
  Ip("addr add " + Long(family.first) + " dev eth0");
  Ip("addr add " + Long(family.third) + " dev eth0");

  EXPECT_TRUE(SetAddr(family.second, kFlush));

  EXPECT_EQ(Commands(), (Lines{addressQuery, "ip " + std::string(family.option) + " addr flush dev eth0",
                               AddCommand(family.second)}));
  EXPECT_EQ(Addresses(), (Lines{Long(family.second) + family.shownSuffix}));
}

TEST_P(RealIpFamily, AMalformedAddressThrowsTheToolsWordsAfterTheFormerOneWasRemoved) {
  SetAddr(family.first);
  Commands();

  const std::string thrown = LogicErrorOf([&] { SetAddr("nonsense"); });

  EXPECT_EQ(thrown,
            ComplaintAbout(std::string("addr add ") + Long("nonsense") + (family.ipv6 ? "" : " brd +") + " dev eth0"));
  EXPECT_NE(thrown, "");
  EXPECT_EQ(Commands(), (Lines{addressQuery, DelCommand(family.first), AddCommand("nonsense")}));
  EXPECT_EQ(Addresses(), Lines{}) << "there is no way back";
}

TEST_P(RealIpFamily, APrefixLengthOutOfRangeThrowsAfterTheFormerAddressWasRemoved) {
  for (const int prefixLength : {-1, 129}) {
    SCOPED_TRACE(prefixLength);
    SetAddr(family.first);

    const std::string thrown =
        LogicErrorOf([&] { net.SetAddr("eth0", family.second, prefixLength, family.ipv6, kNoFlush); });

    EXPECT_EQ(thrown, ComplaintAbout(std::string("addr add ") + family.second + "/" + std::to_string(prefixLength) +
                                     " dev eth0"));
    EXPECT_CONTAINS(thrown, "prefix is expected");
    EXPECT_EQ(Addresses(), Lines{});
  }
}

TEST_P(RealIpFamily, SettingAnAddressOnAnUnknownInterfaceThrowsAndChangesNothing) {
  SetAddr(family.first);
  Commands();
  const std::string words = Complaint("addr show dev nope0");

  EXPECT_EXACT_THROW(net.SetAddr("nope0", family.second, family.prefixLength, family.ipv6, kFlush), std::logic_error,
                     words);

  EXPECT_EQ(Commands(), (Lines{"ip addr show dev nope0"}));
  EXPECT_EQ(Addresses(), (Lines{Long(family.first) + family.shownSuffix}));
}

TEST_P(RealIpFamily, WithTheTraceOffChangesAreMadeAllTheSameAndNothingIsTraced) {
  net.SetDebugState(false);

  EXPECT_TRUE(SetAddr(family.first));

  net.SetDebugState(true);
  EXPECT_EQ(net.GetDebugOutput(), "");
  EXPECT_EQ(Addresses(), (Lines{Long(family.first) + family.shownSuffix}));
}

TEST_P(RealIp, TheZeroAddressRemovesTheIpV4Address) {
  net.SetAddr("eth0", "192.0.2.10", 24, kIpV4, kNoFlush);

  EXPECT_TRUE(net.SetAddr("eth0", "0.0.0.0", 24, kIpV4, kNoFlush));

  EXPECT_EQ(Addresses("eth0", kIpV4), Lines{});
}

TEST_P(RealIp, TheIpV4BroadcastAddressFollowsThePrefixLength) {
  net.SetAddr("eth0", "192.0.2.10", 28, kIpV4, kNoFlush);
  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"192.0.2.10/28 brd 192.0.2.15"}));

  net.SetAddr("eth0", "192.0.2.10", 30, kIpV4, kNoFlush);
  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"192.0.2.10/30 brd 192.0.2.11"}));

  net.SetAddr("eth0", "192.0.2.10", 32, kIpV4, kNoFlush);
  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"192.0.2.10/32"})) << "a host has no broadcast address";
}

TEST_P(RealIp, ReplacingThePrimaryIpV4AddressTakesItsSecondaryAddressesAway) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("addr add 192.0.2.11/24 dev eth0");

  EXPECT_TRUE(net.SetAddr("eth0", "192.0.2.20", 24, kIpV4, kNoFlush));

  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"192.0.2.20/24 brd 192.0.2.255"}));
}

TEST_P(RealIp, WhereTheKernelPromotesThemSecondaryAddressesStayBeforeTheNewOne) {
  SetKernelVariable("ipv4/conf/eth0/promote_secondaries", "1");
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("addr add 192.0.2.11/24 dev eth0");

  EXPECT_TRUE(net.SetAddr("eth0", "192.0.2.20", 24, kIpV4, kNoFlush));
  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"192.0.2.11/24", "192.0.2.20/24 brd 192.0.2.255"}));

  // So it is not the first one that the next call finds.
  const std::string thrown = LogicErrorOf([&] { net.SetAddr("eth0", "192.0.2.20", 24, kIpV4, kNoFlush); });
  EXPECT_EQ(thrown, Complaint("-4 addr add 192.0.2.20/24 brd + dev eth0"));
  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"192.0.2.20/24 brd 192.0.2.255"}));
}

TEST_P(RealIp, BehindAnotherNetworkTheSecondCallTakesThatAwayAndThrowsForTheAddressExists) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("addr add 198.51.100.30/24 dev eth0");

  EXPECT_TRUE(net.SetAddr("eth0", "192.0.2.20", 24, kIpV4, kNoFlush));
  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"198.51.100.30/24", "192.0.2.20/24 brd 192.0.2.255"}));

  const std::string thrown = LogicErrorOf([&] { net.SetAddr("eth0", "192.0.2.20", 24, kIpV4, kNoFlush); });
  EXPECT_EQ(thrown, Complaint("-4 addr add 192.0.2.20/24 brd + dev eth0"));
  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"192.0.2.20/24 brd 192.0.2.255"}));

  EXPECT_FALSE(net.SetAddr("eth0", "192.0.2.20", 24, kIpV4, kNoFlush));
}

TEST_P(RealIp, OnAnInterfaceCalledInetAnIpV4AddressIsNeitherFoundNorReplaced) {
  Rename("eth0", "inet0");
  EXPECT_TRUE(net.SetAddr("inet0", "192.0.2.10", 24, kIpV4, kNoFlush));

  EXPECT_TRUE(net.SetAddr("inet0", "198.51.100.30", 24, kIpV4, kNoFlush));
  EXPECT_EQ(Addresses("inet0", kIpV4), (Lines{"192.0.2.10/24 brd 192.0.2.255", "198.51.100.30/24 brd 198.51.100.255"}));

  const std::string thrown = LogicErrorOf([&] { net.SetAddr("inet0", "192.0.2.10", 24, kIpV4, kNoFlush); });
  EXPECT_EQ(thrown, Complaint("-4 addr add 192.0.2.10/24 brd + dev inet0"));

  EXPECT_TRUE(net.SetAddr("inet0", "192.0.2.10", 24, kIpV4, kFlush));
  EXPECT_EQ(Addresses("inet0", kIpV4), (Lines{"192.0.2.10/24 brd 192.0.2.255"}));
}

TEST_P(RealIp, APointToPointAddressIsNotReplacedButFlushed) {
  Ip("addr add 192.0.2.10 peer 192.0.2.1/32 dev eth0");

  EXPECT_TRUE(net.SetAddr("eth0", "192.0.2.20", 24, kIpV4, kNoFlush));
  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"192.0.2.10 peer 192.0.2.1/32", "192.0.2.20/24 brd 192.0.2.255"}));

  EXPECT_TRUE(net.SetAddr("eth0", "192.0.2.20", 24, kIpV4, kFlush));
  EXPECT_EQ(Addresses("eth0", kIpV4), (Lines{"192.0.2.20/24 brd 192.0.2.255"}));
}

TEST_P(RealIp, AnIpV6AddressInAnotherSpellingIsSetAnewEveryTime) {
  for (int call = 0; call < 2; ++call) {
    SCOPED_TRACE(call);
    EXPECT_TRUE(net.SetAddr("eth0", "2001:DB8:0::10", 64, kIpV6, kNoFlush));
    EXPECT_EQ(Addresses("eth0", kIpV6), (Lines{"2001:db8::10/64"}));
  }
}

TEST_P(RealIp, AnAddressThatTheKernelRefusesThrowsItsWords) {
  const std::string thrown = LogicErrorOf([&] { net.SetAddr("eth0", "ff02::1", 64, kIpV6, kNoFlush); });

  EXPECT_EQ(thrown, Complaint("-6 addr add ff02::1/64 dev eth0"));
}

TEST_P(RealIp, TheZeroIpV4AddressIsNoWayToRemoveAnIpV6Address) {
  net.SetAddr("eth0", "2001:db8::10", 64, kIpV6, kNoFlush);

  const std::string thrown = LogicErrorOf([&] { net.SetAddr("eth0", "0.0.0.0", 64, kIpV6, kNoFlush); });

  EXPECT_EQ(thrown, Complaint("-6 addr add 0.0.0.0/64 dev eth0"));
}

TEST_P(RealIp, TwoColonsSetTheLinkLocalAddressOfTheHardwareAddressWhateverThePrefixLength) {
  EXPECT_TRUE(net.SetAddr("eth0", "::", 17, kIpV6, kNoFlush));

  EXPECT_EQ(Commands(), (Lines{"ip addr show dev eth0", "", "ip -6 addr add fe80::0000:00ff:fe00:0001/64 dev eth0"}));
  EXPECT_EQ(Addresses("eth0", kIpV6), (Lines{"fe80::ff:fe00:1/64"}));
}

TEST_P(RealIp, TheLinkLocalAddressIsTheOneThatTheKernelWouldDerive) {
  Ip("link set eth1 down");
  Ip("link set eth1 addrgenmode eui64 up");
  Ip("link set eth1 address 02:00:00:00:00:01");
  Ip("link set eth1 down");
  Ip("link set eth1 up");

  net.SetAddr("eth0", "::", 64, kIpV6, kNoFlush);

  EXPECT_EQ(Addresses("eth0", kIpV6), Addresses("eth1", kIpV6));
}

TEST_P(RealIp, TheLinkLocalAddressIsDeletedAndAddedAgainEveryTime) {
  net.SetAddr("eth0", "::", 64, kIpV6, kNoFlush);
  Commands();

  EXPECT_TRUE(net.SetAddr("eth0", "::", 64, kIpV6, kNoFlush));

  EXPECT_EQ(Commands(), (Lines{"ip addr show dev eth0", "ip -6 addr del fe80::ff:fe00:1/64 dev eth0",
                               "ip -6 addr add fe80::0000:00ff:fe00:0001/64 dev eth0"}));
  EXPECT_EQ(Addresses("eth0", kIpV6), (Lines{"fe80::ff:fe00:1/64"}));
}

TEST_P(RealIp, TheLinkLocalAddressReplacesAGlobalOne) {
  Ip("addr add 2001:db8::10/64 dev eth0");

  EXPECT_TRUE(net.SetAddr("eth0", "::", 64, kIpV6, kNoFlush));

  EXPECT_EQ(Addresses("eth0", kIpV6), (Lines{"fe80::ff:fe00:1/64"}));
}

TEST_P(RealIp, BehindAGlobalAddressTheLinkLocalOneExistsSoThatTheGlobalOneIsLostAndTheCallThrows) {
  Ip("addr add fe80::ff:fe00:1/64 dev eth0");
  Ip("addr add 2001:db8::10/64 dev eth0");

  const std::string thrown = LogicErrorOf([&] { net.SetAddr("eth0", "::", 64, kIpV6, kNoFlush); });

  EXPECT_EQ(thrown, Complaint("-6 addr add fe80::0000:00ff:fe00:0001/64 dev eth0"));
  EXPECT_EQ(Addresses("eth0", kIpV6), (Lines{"fe80::ff:fe00:1/64"}));
}

TEST_P(RealIp, FlushingSetsTheLinkLocalAddressWhateverWasThere) {
  Ip("addr add fe80::ff:fe00:1/64 dev eth0");
  Ip("addr add 2001:db8::10/64 dev eth0");

  for (int call = 0; call < 2; ++call) {
    SCOPED_TRACE(call);
    EXPECT_TRUE(net.SetAddr("eth0", "::", 64, kIpV6, kFlush));
    EXPECT_EQ(Addresses("eth0", kIpV6), (Lines{"fe80::ff:fe00:1/64"}));
  }
}

TEST_P(RealIp, AGlobalIpV6AddressReplacesALoneLinkLocalOne) {
  Ip("addr add fe80::ff:fe00:1/64 dev eth0");

  EXPECT_TRUE(net.SetAddr("eth0", "2001:db8::10", 64, kIpV6, kNoFlush));

  EXPECT_EQ(Addresses("eth0", kIpV6), (Lines{"2001:db8::10/64"}));
}

TEST_P(RealIp, WithoutHardwareAddressTheLinkLocalAddressIsThatOfZeros) {
  if (::access("/dev/net/tun", R_OK | W_OK) != 0) {
    GTEST_SKIP() << "/dev/net/tun cannot be opened";
  }
  Ip("tuntap add dev tun0 mode tun");
  Ip("link set tun0 up");

  EXPECT_TRUE(net.SetAddr("tun0", "::", 64, kIpV6, kNoFlush));

  EXPECT_EQ(Addresses("tun0", kIpV6), (Lines{"fe80::200:ff:fe00:0/64"}));
}

// --- SetGw -----------------------------------------------------------------------------------------------------------

/// With eth0 in the first network and eth1 in the second.
class RealIpGateway : public RealIpFamily {
 protected:
  void SetUp() override {
    RealIpFamily::SetUp();
    if (IsSkipped()) {
      return;
    }
    Ip("addr add " + Long(family.first) + " dev eth0");
    Ip("addr add " + Long(family.third) + " dev eth1");
  }
};

INSTANTIATE_TEST_SUITE_P(With, RealIpGateway,
                         testing::Combine(testing::Values(Tool::kIpRoute2, Tool::kBusyBox),
                                          testing::Values(kFamily4, kFamily6)),
                         [](const auto& test) {
                           return testing::PrintToString(std::get<Tool>(test.param)) + "_" +
                                  testing::PrintToString(std::get<Family>(test.param));
                         });

TEST_P(RealIpGateway, IsSetOnceAndTheSecondCallRunsTheQueryAlone) {
  EXPECT_TRUE(SetGw(family.gateway));
  EXPECT_EQ(Commands(), (Lines{routeQuery, "", RouteCommand("add", family.gateway)}));
  EXPECT_EQ(DefaultRoutes(), (Lines{Default(family.gateway)}));

  EXPECT_FALSE(SetGw(family.gateway));
  EXPECT_FALSE(SetGw(family.gateway, kFlush));
  EXPECT_EQ(Commands(), (Lines{routeQuery, routeQuery}));
  EXPECT_EQ(DefaultRoutes(), (Lines{Default(family.gateway)}));
  EXPECT_EQ(RealIpTest::DefaultRoutes(!family.ipv6), Lines{});
}

TEST_P(RealIpGateway, IsReplacedByAnotherGateway) {
  SetGw(family.gateway);
  Commands();

  EXPECT_TRUE(SetGw(family.gateway2));

  EXPECT_EQ(Commands(), (Lines{routeQuery, RouteCommand("del", family.gateway), RouteCommand("add", family.gateway2)}));
  EXPECT_EQ(DefaultRoutes(), (Lines{Default(family.gateway2)}));
}

TEST_P(RealIpGateway, ThatMovesToAnotherInterfaceIsDeletedThroughItsOldOne) {
  // The same network on both interfaces, so that either reaches the gateway.
  Ip("addr add " + Long(family.second) + " dev eth1");
  SetGw(family.gateway);
  Commands();

  EXPECT_TRUE(net.SetGw("eth1", family.gateway, family.ipv6, kNoFlush));

  EXPECT_EQ(Commands(), (Lines{routeQuery, RouteCommand("del", family.gateway, "eth0"),
                               RouteCommand("add", family.gateway, "eth1")}));
  EXPECT_EQ(DefaultRoutes(), (Lines{Default(family.gateway, "eth1")}));
  EXPECT_FALSE(net.SetGw("eth1", family.gateway, family.ipv6, kNoFlush));
}

TEST_P(RealIpGateway, IsRemovedByAnEmptyTextAndByTheZeroAddress) {
  for (const std::string& none : {std::string(), noAddress}) {
    SCOPED_TRACE(testing::PrintToString(none));
    SetGw(family.gateway);
    Commands();

    EXPECT_TRUE(SetGw(none));

    EXPECT_EQ(Commands(), (Lines{routeQuery, RouteCommand("del", family.gateway)}));
    EXPECT_EQ(DefaultRoutes(), Lines{});
  }
}

TEST_P(RealIpGateway, IsRemovedThroughItsOwnInterfaceWhicheverIsNamed) {
  SetGw(family.gateway);

  EXPECT_TRUE(net.SetGw("nope0", "", family.ipv6, kNoFlush));

  EXPECT_EQ(DefaultRoutes(), Lines{});
}

TEST_P(RealIpGateway, RemovingWhereNoneIsRunsAnEmptyTextAndReturnsTrue) {
  EXPECT_TRUE(SetGw(""));
  EXPECT_TRUE(SetGw(noAddress));

  EXPECT_EQ(Commands(), (Lines{routeQuery, "", routeQuery, ""}));
}

TEST_P(RealIpGateway, OfSeveralDefaultRoutesOnlyTheFirstListedIsRemoved) {
  IpFamily(Route("add", family.gateway) + " metric 50");
  IpFamily(Route("add", family.farGateway, "eth1") + " metric 70");

  EXPECT_TRUE(SetGw(""));

  EXPECT_EQ(DefaultRoutes(), (Lines{"default via " + std::string(family.farGateway) + " dev eth1 metric 70"}));
}

TEST_P(RealIpGateway, ThatIsRefusedThrowsTheToolsWordsAfterTheFormerOneWasRemoved) {
  SetGw(family.gateway);
  Commands();

  const std::string thrown = LogicErrorOf([&] { SetGw(family.unreachable); });

  EXPECT_EQ(thrown, ComplaintAbout(Route("add", family.unreachable)));
  EXPECT_NE(thrown, "");
  EXPECT_EQ(Commands(),
            (Lines{routeQuery, RouteCommand("del", family.gateway), RouteCommand("add", family.unreachable)}));
  EXPECT_EQ(DefaultRoutes(), Lines{}) << "there is no way back";
}

TEST_P(RealIpGateway, ThroughAnUnknownInterfaceThrowsTheToolsWordsAfterTheFormerOneWasRemoved) {
  SetGw(family.gateway);

  const std::string thrown = LogicErrorOf([&] { net.SetGw("nope0", family.gateway, family.ipv6, kNoFlush); });

  EXPECT_EQ(thrown, ComplaintAbout(Route("add", family.gateway, "nope0")));
  EXPECT_EQ(DefaultRoutes(), Lines{});
}

TEST_P(RealIpGateway, ThroughAnInterfaceThatIsDownThrowsTheToolsWords) {
  Ip("link set eth0 down");

  const std::string thrown = LogicErrorOf([&] { SetGw(family.gateway); });

  EXPECT_EQ(thrown, ComplaintAbout(Route("add", family.gateway)));
}

TEST_P(RealIpGateway, IsAddedBesideAnotherRouteThroughAGateway) {
  IpFamily(std::string("route add ") + family.target + " via " + family.gateway2 + " dev eth0");

  EXPECT_TRUE(SetGw(family.gateway));

  EXPECT_EQ(Commands(), (Lines{routeQuery, "", RouteCommand("add", family.gateway)}));
  EXPECT_EQ(GatewayRoutes(family.ipv6).size(), 2U);
  EXPECT_FALSE(SetGw(family.gateway));
}

TEST_P(RealIpGateway, OfAnotherRouteIsNotDeletedWhereThereIsNoDefaultRoute) {
  IpFamily(std::string("route add ") + family.target + " via " + family.gateway2 + " dev eth0");
  const Lines before = GatewayRoutes(family.ipv6);

  EXPECT_TRUE(SetGw(""));

  EXPECT_EQ(Commands(), (Lines{routeQuery, ""}));
  EXPECT_EQ(GatewayRoutes(family.ipv6), before);
}

TEST_P(RealIpGateway, DoesNotReplaceADefaultRouteWithoutGateway) {
  IpFamily("route add default dev eth0");

  const std::string thrown = LogicErrorOf([&] { SetGw(family.gateway); });

  EXPECT_EQ(Commands(), (Lines{routeQuery, "", RouteCommand("add", family.gateway)}));
  EXPECT_EQ(thrown, ComplaintAbout(Route("add", family.gateway)));
  EXPECT_CONTAINS(thrown, "File exists");
}

TEST_P(RealIpGateway, FlushesADefaultRouteWithoutGateway) {
  IpFamily("route add default dev eth0");

  EXPECT_TRUE(SetGw(family.gateway, kFlush));

  EXPECT_EQ(DefaultRoutes(), (Lines{Default(family.gateway)}));
}

TEST_P(RealIpGateway, FlushesTheDefaultRoutesOfTheFamilyAndLeavesTheOtherRoutes) {
  IpFamily(Route("add", family.gateway) + " metric 50");
  IpFamily(Route("add", family.farGateway, "eth1") + " metric 70");
  IpFamily(std::string("route add ") + family.target + " via " + family.gateway + " dev eth0");

  EXPECT_TRUE(SetGw(family.gateway2, kFlush));

  EXPECT_EQ(Commands(), (Lines{routeQuery, "ip " + std::string(family.option) + " route flush all",
                               RouteCommand("add", family.gateway2)}));
  EXPECT_EQ(DefaultRoutes(), (Lines{Default(family.gateway2)}));
  EXPECT_EQ(GatewayRoutes(family.ipv6).size(), 2U);
}

TEST_P(RealIpGateway, FlushesWithoutSettingAnother) {
  IpFamily(Route("add", family.gateway));

  EXPECT_TRUE(SetGw(noAddress, kFlush));
  EXPECT_EQ(DefaultRoutes(), Lines{});

  EXPECT_TRUE(SetGw("", kFlush)) << "flushing nothing is no failure";
}

TEST_P(RealIp, ADefaultRouteWithoutGatewayBesideAnotherGatewayIsDeletedByTheWrongWordsAndTheCallThrows) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("addr add 198.51.100.30/24 dev eth1");
  Ip("route add default dev eth0");
  Ip("route add 203.0.113.0/24 via 198.51.100.1 dev eth1");
  EXPECT_EQ(net.GetGwInfo(kIpV4), (Record{{"default", "dev"}, {"via", "198.51.100.1"}, {"dev", "eth1"}}));
  Commands();

  testing::internal::CaptureStderr();
  const std::string thrown = LogicErrorOf([&] { net.SetGw("eth0", "192.0.2.1", kIpV4, kNoFlush); });
  const std::string error = testing::internal::GetCapturedStderr();

  EXPECT_EQ(Commands(), (Lines{"ip -4 route show", "ip -4 route del default via 198.51.100.1 dev eth1",
                               "ip -4 route add default via 192.0.2.1 dev eth0"}));
  EXPECT_EQ(thrown, Complaint("-4 route add default via 192.0.2.1 dev eth0"));
  EXPECT_EQ(error, Complaint("-4 route del default via 198.51.100.1 dev eth1"));
}

TEST_F(RealIpRoute2, AFailingDeletionBeforeASucceedingAdditionGoesUnreportedExceptOnStandardError) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("-4 route add default via inet6 fe80::1 dev eth0 metric 50");

  testing::internal::CaptureStderr();
  EXPECT_TRUE(net.SetGw("eth0", "192.0.2.1", kIpV4, kNoFlush));
  const std::string error = testing::internal::GetCapturedStderr();

  EXPECT_EQ(error, Complaint("-4 route del default via inet6 dev eth0"));
  EXPECT_NE(error, "");
  EXPECT_EQ(DefaultRoutes(kIpV4),
            (Lines{"default via 192.0.2.1 dev eth0", "default via inet6 fe80::1 dev eth0 metric 50"}));
}

TEST_P(RealIp, AnIpV6DefaultRouteOfASmallerMetricHidesTheOneThatIsSet) {
  // One from a router's announcement and one set statically: the announced route is listed first.
  Ip("-6 route add default via fe80::1 dev eth0 metric 50");
  Ip("-6 route add default via fe80::2 dev eth0 metric 1024");

  const std::string thrown = LogicErrorOf([&] { net.SetGw("eth0", "fe80::2", kIpV6, kNoFlush); });

  EXPECT_EQ(thrown, Complaint("-6 route add default via fe80::2 dev eth0"));
  EXPECT_EQ(DefaultRoutes(kIpV6), (Lines{"default via fe80::2 dev eth0 metric 1024"}));
  EXPECT_FALSE(net.SetGw("eth0", "fe80::2", kIpV6, kNoFlush));
}

TEST_P(RealIp, ALinkLocalGatewayNeedsNoAddressOnTheInterface) {
  EXPECT_TRUE(net.SetGw("eth0", "fe80::1", kIpV6, kNoFlush));
  EXPECT_FALSE(net.SetGw("eth0", "fe80::1", kIpV6, kNoFlush));

  EXPECT_TRUE(net.SetGw("eth1", "fe80::1", kIpV6, kNoFlush));

  EXPECT_EQ(DefaultRoutes(kIpV6), (Lines{"default via fe80::1 dev eth1 metric 1024"}));
}

TEST_P(RealIp, AnIpV6GatewayInAnotherSpellingIsSetAnewEveryTime) {
  for (int call = 0; call < 2; ++call) {
    SCOPED_TRACE(call);
    EXPECT_TRUE(net.SetGw("eth0", "FE80:0::1", kIpV6, kNoFlush));
    EXPECT_EQ(DefaultRoutes(kIpV6), (Lines{"default via fe80::1 dev eth0 metric 1024"}));
  }
}

TEST_F(RealIpRoute2, AnIpV4RouteThroughANexthopObjectIsNeitherReplacedNorFlushed) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("nexthop add id 7 via 192.0.2.1 dev eth0");
  Ip("-4 route add default nhid 7");

  for (const auto& [flush, removal] :
       {std::pair(kNoFlush, "-4 route del default via 192.0.2.1 dev eth0"), std::pair(kFlush, "-4 route flush all")}) {
    SCOPED_TRACE(flush ? "with flush" : "without flush");
    testing::internal::CaptureStderr();
    const std::string thrown = LogicErrorOf([&, f = flush] { net.SetGw("eth0", "192.0.2.1", kIpV4, f); });
    const std::string error = testing::internal::GetCapturedStderr();

    EXPECT_EQ(thrown, Complaint("-4 route add default via 192.0.2.1 dev eth0"));
    EXPECT_EQ(error, Complaint(removal));
    EXPECT_EQ(DefaultRoutes(kIpV4), (Lines{"default nhid 7 via 192.0.2.1 dev eth0"}));
  }
}

TEST_F(RealIpRoute2, AnIpV6RouteThroughANexthopObjectIsReplacedByTheSameGatewayOnce) {
  Ip("nexthop add id 7 via fe80::1 dev eth0");
  Ip("-6 route add default nhid 7");

  EXPECT_TRUE(net.SetGw("eth0", "fe80::1", kIpV6, kNoFlush));
  EXPECT_FALSE(net.SetGw("eth0", "fe80::1", kIpV6, kNoFlush));

  EXPECT_EQ(DefaultRoutes(kIpV6), (Lines{"default via fe80::1 dev eth0 metric 1024"}));
}

TEST_F(RealIpRoute2, AMultipathRouteIsReplacedAsAWhole) {
  Ip("addr add 192.0.2.10/24 dev eth0");
  Ip("route add default nexthop via 192.0.2.1 dev eth0 nexthop via 192.0.2.2 dev eth0");

  EXPECT_TRUE(net.SetGw("eth0", "192.0.2.1", kIpV4, kNoFlush));

  EXPECT_EQ(DefaultRoutes(kIpV4), (Lines{"default via 192.0.2.1 dev eth0"}));
}

}  // namespace
