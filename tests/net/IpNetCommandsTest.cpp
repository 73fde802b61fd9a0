// What IpNet runs, byte for byte, and how it reads the answers: with a scripted `ip` first in PATH.

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "../os/OsTexts.h"
#include "Allocations.h"
#include "ExpectText.h"
#include "ExpectThrow.h"
#include "IpNet.h"
#include "OpSystem.h"
#include "ScriptedIp.h"
#include "ScriptedKernel.h"

namespace {

using Calls = ScriptedKernel::Calls;
using Record = IpNet::Record;

constexpr const char* kQuery = "ip addr show dev eth0";
constexpr const char* kMac = "02:00:00:00:00:01";
const std::string kLink =
    "2: eth0: <BROADCAST,MULTICAST,UP,LOWER_UP> mtu 1500 qdisc noqueue state UP group default qlen 1000\n"
    "    link/ether 02:00:00:00:00:01 brd ff:ff:ff:ff:ff:ff\n";
const std::string kIpV4 =
    "    inet 192.0.2.10/24 brd 192.0.2.255 scope global eth0\n"
    "       valid_lft forever preferred_lft forever\n";
const std::string kIpV6 =
    "    inet6 2001:db8::10/64 scope global \n"
    "       valid_lft forever preferred_lft forever\n";

class IpNetCommands : public testing::Test {
 protected:
  IpNetCommands() {
    m_kernel.Watch("popen");
  }

  /// The texts that went to the shell, in order.
  Calls Texts() const {
    const std::string before = "popen(\"";
    const std::string after = " 2>&1\", \"r\")";
    Calls texts;
    for (const std::string& call : m_kernel.Seen()) {
      EXPECT_BEGINS(call, before);
      EXPECT_EQ(call.compare(call.size() - after.size(), after.size(), after), 0) << call;
      texts.push_back(call.substr(before.size(), call.size() - before.size() - after.size()));
    }
    return texts;
  }

  ScriptedIp m_ip;
  ScriptedKernel m_kernel;
  OpSystem m_os;
  IpNet m_net{m_os};
};

// --- The object ------------------------------------------------------------------------------------------------------

TEST(IpNet, IsNeitherCopiedNorMoved) {
  EXPECT_FALSE(std::is_copy_constructible_v<IpNet>);
  EXPECT_FALSE(std::is_copy_assignable_v<IpNet>);
  EXPECT_FALSE(std::is_move_constructible_v<IpNet>);
  EXPECT_FALSE(std::is_move_assignable_v<IpNet>);
  EXPECT_FALSE((std::is_convertible_v<OpSystem&, IpNet>));
}

TEST(IpNet, HasAVirtualDestructorAndLeavesTheCommandRunnerAlone) {
  EXPECT_TRUE(std::has_virtual_destructor_v<IpNet>);
  OpSystem os;
  const IpNet* const net = new IpNet(os);
  delete net;
  EXPECT_EQ(os.ExecCmd("echo alive", false), "alive\n");
}

TEST_F(IpNetCommands, AnOverriddenCommandRunnerIsNotCalled) {
  struct Overriding : OpSystem {
    std::string ExecCmd(std::string, bool) override {
      ++m_calls;
      return "link/ether overridden ";
    }
    int m_calls = 0;
  };
  Overriding os;
  IpNet net(os);
  m_ip.Answer("addr show dev eth0", kLink);

  EXPECT_EQ(net.GetIfaceInfo("eth0"), (Record{{"link", kMac}}));
  net.GetGwInfo(false);
  EXPECT_TRUE(net.SetAddr("eth0", "192.0.2.1", 24, false, false));
  EXPECT_TRUE(net.SetGw("eth0", "192.0.2.1", false, false));

  EXPECT_EQ(os.m_calls, 0);
  EXPECT_EQ(m_ip.Calls().size(), 6U);
}

// --- The debug trace -------------------------------------------------------------------------------------------------

TEST_F(IpNetCommands, TheTraceIsOffAndEmptyAtFirst) {
  EXPECT_FALSE(m_net.IsDebugActive());
  EXPECT_EQ(m_net.GetDebugOutput(), "");
  m_net.SetDebugState(true);
  EXPECT_TRUE(m_net.IsDebugActive());
  EXPECT_EQ(m_net.GetDebugOutput(), "");
}

TEST_F(IpNetCommands, WhileTheTraceIsOffNothingIsAppended) {
  m_net.GetIfaceInfo("eth0");
  m_net.SetAddr("eth0", "192.0.2.1", 24, false, true);
  m_net.SetDebugState(true);
  EXPECT_EQ(m_net.GetDebugOutput(), "");
}

TEST_F(IpNetCommands, QueriesAppendTheirCommandAndANewline) {
  m_net.SetDebugState(true);
  m_net.GetIfaceInfo("eth0");
  m_net.GetGwInfo(false);
  m_net.GetGwInfo(true);
  EXPECT_EQ(m_net.GetDebugOutput(), "ip addr show dev eth0\nip -4 route show\nip -6 route show\n");
}

TEST_F(IpNetCommands, AQueryThatFailsIsInTheTraceToo) {
  m_ip.Answer("addr show dev nope0", "Device \"nope0\" does not exist.\n", 1);
  m_ip.Answer("-6 route show", "no\n", 2);
  m_net.SetDebugState(true);
  EXPECT_EXACT_THROW(m_net.GetIfaceInfo("nope0"), std::logic_error, "Device \"nope0\" does not exist.\n");
  EXPECT_EXACT_THROW(m_net.GetGwInfo(true), std::logic_error, "no\n");
  EXPECT_EQ(m_net.GetDebugOutput(), "ip addr show dev nope0\nip -6 route show\n");
}

TEST_F(IpNetCommands, AChangeAppendsItsQueryAndItsWholeText) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV4);
  m_net.SetDebugState(true);
  EXPECT_TRUE(m_net.SetAddr("eth0", "192.0.2.20", 24, false, false));
  EXPECT_EQ(m_net.GetDebugOutput(),
            "ip addr show dev eth0\n"
            "ip -4 addr del 192.0.2.10/24 dev eth0\n"
            "ip -4 addr add 192.0.2.20/24 brd + dev eth0\n");
}

TEST_F(IpNetCommands, AnEmptyChangeAppendsANewline) {
  m_net.SetDebugState(true);
  EXPECT_TRUE(m_net.SetAddr("eth0", "", 0, false, false));
  EXPECT_TRUE(m_net.SetGw("eth0", "", true, false));
  EXPECT_EQ(m_net.GetDebugOutput(), "ip addr show dev eth0\n\nip -6 route show\n\n");
}

TEST_F(IpNetCommands, AChangeThatFailsIsInTheTraceToo) {
  m_ip.Answer("-4 addr add 192.0.2.20/99 brd + dev eth0", "bad prefix\n", 1);
  m_net.SetDebugState(true);
  EXPECT_EXACT_THROW(m_net.SetAddr("eth0", "192.0.2.20", 99, false, false), std::logic_error, "bad prefix\n");
  EXPECT_EQ(m_net.GetDebugOutput(), "ip addr show dev eth0\n\nip -4 addr add 192.0.2.20/99 brd + dev eth0\n");
}

TEST_F(IpNetCommands, WhenNothingNeedsChangingOnlyTheQueryIsInTheTrace) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV4);
  m_ip.Answer("-4 route show", "default via 192.0.2.1 dev eth0 \n");
  m_net.SetDebugState(true);
  EXPECT_FALSE(m_net.SetAddr("eth0", "192.0.2.10", 24, false, true));
  EXPECT_FALSE(m_net.SetGw("eth0", "192.0.2.1", false, true));
  EXPECT_EQ(m_net.GetDebugOutput(), "ip addr show dev eth0\nip -4 route show\n");
}

TEST_F(IpNetCommands, SwitchingTheTraceOffHidesItsTextAndSwitchingItOnShowsItAgain) {
  m_net.SetDebugState(true);
  m_net.GetGwInfo(false);
  m_net.SetDebugState(false);
  EXPECT_EQ(m_net.GetDebugOutput(), "");
  m_net.GetIfaceInfo("eth0");
  m_net.SetDebugState(true);
  EXPECT_EQ(m_net.GetDebugOutput(), "ip -4 route show\n");
  m_net.GetGwInfo(true);
  EXPECT_EQ(m_net.GetDebugOutput(), "ip -4 route show\nip -6 route show\n");
}

TEST_F(IpNetCommands, ClearingTheTraceLeavesItOn) {
  m_net.SetDebugState(true);
  m_net.GetGwInfo(false);
  m_net.ClearDebug();
  EXPECT_TRUE(m_net.IsDebugActive());
  EXPECT_EQ(m_net.GetDebugOutput(), "");
  m_net.GetGwInfo(true);
  EXPECT_EQ(m_net.GetDebugOutput(), "ip -6 route show\n");
}

TEST_F(IpNetCommands, ClearingTheTraceWhileItIsOffLeavesItOffAndEmpty) {
  m_net.SetDebugState(true);
  m_net.GetGwInfo(false);
  m_net.SetDebugState(false);
  m_net.ClearDebug();
  EXPECT_FALSE(m_net.IsDebugActive());
  m_net.SetDebugState(true);
  EXPECT_EQ(m_net.GetDebugOutput(), "");
}

TEST_F(IpNetCommands, ClearingTheTraceRevivesATraceThatMemoryRanOutFor) {
  const std::string longName(100000, 'x');
  m_net.SetDebugState(true);
  {
    const LimitedAllocations limited(110000);  // enough for the command, not for the trace that grows by doubling
    EXPECT_THROW(m_net.GetIfaceInfo(longName), std::bad_alloc);
  }
  m_net.ClearDebug();
  m_net.GetGwInfo(false);
  EXPECT_EQ(m_net.GetDebugOutput(), "ip -4 route show\n");
}

// --- GetIfaceInfo ----------------------------------------------------------------------------------------------------

TEST_F(IpNetCommands, TheInterfaceQueryIsOneCommandWithoutFamily) {
  m_net.GetIfaceInfo("eth0");
  EXPECT_EQ(Texts(), Calls{kQuery});
}

TEST_F(IpNetCommands, TheInterfaceNameGoesIntoTheCommandAsItStands) {
  m_net.GetIfaceInfo(" a  'b c' ");
  EXPECT_EQ(Texts(), Calls{"ip addr show dev  a  'b c' "});
  EXPECT_EQ(m_ip.Calls(), Calls{"addr show dev a b c"});
}

TEST_F(IpNetCommands, AllFiveKeysAreReadFromAUsualListing) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV4 + kIpV6);
  EXPECT_EQ(
      m_net.GetIfaceInfo("eth0"),
      (Record{
          {"link", kMac}, {"ipv4", "192.0.2.10"}, {"ipv4pflen", "24"}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "64"}}));
}

TEST_F(IpNetCommands, AnInterfaceWithoutAddressesHasOnlyItsLink) {
  m_ip.Answer("addr show dev eth0", kLink);
  EXPECT_EQ(m_net.GetIfaceInfo("eth0"), (Record{{"link", kMac}}));
}

TEST_F(IpNetCommands, AnInterfaceWithIPv6AloneHasNoIPv4Keys) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV6);
  EXPECT_EQ(m_net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "64"}}));
}

TEST_F(IpNetCommands, IPv6ListedBeforeIPv4HidesTheIPv4Keys) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV6 + kIpV4);
  EXPECT_EQ(m_net.GetIfaceInfo("eth0"), (Record{{"link", kMac}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "64"}}));
}

TEST_F(IpNetCommands, OfSeveralAddressesTheFirstOneCounts) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV4 + "    inet 192.0.2.99/25 scope global secondary eth0\n" +
                                        "    inet6 fe80::1/64 scope link \n" + kIpV6);
  EXPECT_EQ(
      m_net.GetIfaceInfo("eth0"),
      (Record{{"link", kMac}, {"ipv4", "192.0.2.10"}, {"ipv4pflen", "24"}, {"ipv6", "fe80::1"}, {"ipv6pflen", "64"}}));
}

TEST_F(IpNetCommands, InetInsideALongerWordHidesTheIPv4Keys) {
  m_ip.Answer("addr show dev inet0",
              "2: inet0: <UP> mtu 1500\n    link/ether " + std::string(kMac) + " brd x\n" + kIpV4);
  EXPECT_EQ(m_net.GetIfaceInfo("inet0"), (Record{{"link", kMac}}));
}

TEST_F(IpNetCommands, Inet6InsideALongerWordHidesTheIPv6Keys) {
  m_ip.Answer("addr show dev my-inet6", "2: my-inet6: <UP> mtu 1500\n" + kIpV6);
  EXPECT_EQ(m_net.GetIfaceInfo("my-inet6"), Record{});
}

TEST_F(IpNetCommands, TheLinkMayBeOfAnyType) {
  m_ip.Answer("addr show dev lo", "1: lo: <UP> mtu 65536\n    link/loopback 00:00:00:00:00:00 brd 00:00:00:00:00:00\n");
  m_ip.Answer("addr show dev tun0", "2: tun0: <UP> mtu 1500\n    link/none \n" + kIpV4);
  EXPECT_EQ(m_net.GetIfaceInfo("lo"), (Record{{"link", "00:00:00:00:00:00"}}));
  EXPECT_EQ(m_net.GetIfaceInfo("tun0"), (Record{{"link", "\n"}, {"ipv4", "192.0.2.10"}, {"ipv4pflen", "24"}}));
}

TEST_F(IpNetCommands, AnAddressWithoutASlashGivesNoKeys) {
  m_ip.Answer("addr show dev eth0", kLink + "    inet 192.0.2.10 peer 192.0.2.11/32 scope global eth0\n" +
                                        "    inet6 fe80::1 peer fe80::2/64 scope link \n");
  EXPECT_EQ(m_net.GetIfaceInfo("eth0"), (Record{{"link", kMac}}));
}

TEST_F(IpNetCommands, AWordThatEndsInASlashGivesAnEmptyPrefixLength) {
  m_ip.Answer("addr show dev eth0", "    inet 192.0.2.10/ x inet6 fe80::1/ x\n");
  EXPECT_EQ(m_net.GetIfaceInfo("eth0"),
            (Record{{"ipv4", "192.0.2.10"}, {"ipv4pflen", ""}, {"ipv6", "fe80::1"}, {"ipv6pflen", ""}}));
}

TEST_F(IpNetCommands, OnlyTheFirstSlashSeparates) {
  m_ip.Answer("addr show dev eth0", "    inet /a/b inet6 x//y \n");
  EXPECT_EQ(m_net.GetIfaceInfo("eth0"),
            (Record{{"ipv4", ""}, {"ipv4pflen", "a/b"}, {"ipv6", "x"}, {"ipv6pflen", "/y"}}));
}

TEST_F(IpNetCommands, AWordThatEndsTheOutputKeepsTheNewline) {
  m_ip.Answer("addr show dev eth0", "    inet 192.0.2.10/24\n");
  EXPECT_EQ(m_net.GetIfaceInfo("eth0"), (Record{{"ipv4", "192.0.2.10"}, {"ipv4pflen", "24\n"}}));
}

TEST_F(IpNetCommands, OutputWithoutAnyKeyGivesAnEmptyRecord) {
  m_ip.Answer("addr show dev eth0", "nothing to see here\n");
  EXPECT_EQ(m_net.GetIfaceInfo("eth0"), Record{});
}

TEST_F(IpNetCommands, EmptyOutputGivesAnEmptyRecord) {
  EXPECT_EQ(m_net.GetIfaceInfo("eth0"), Record{});
}

TEST_F(IpNetCommands, AFailingInterfaceQueryThrowsTheToolsWords) {
  m_ip.Answer("addr show dev nope0", "Device \"nope0\" does not exist.\n", 1);
  EXPECT_EXACT_THROW(m_net.GetIfaceInfo("nope0"), std::logic_error, "Device \"nope0\" does not exist.\n");
}

// --- GetGwInfo -------------------------------------------------------------------------------------------------------

TEST_F(IpNetCommands, TheGatewayQueryNamesItsFamily) {
  m_net.GetGwInfo(true);
  m_net.GetGwInfo(false);
  EXPECT_EQ(Texts(), (Calls{"ip -6 route show", "ip -4 route show"}));
}

TEST_F(IpNetCommands, ADefaultRouteGivesAllThreeKeys) {
  m_ip.Answer("-4 route show", "default via 192.0.2.1 dev eth0 proto static \n192.0.2.0/24 dev eth0 scope link \n");
  EXPECT_EQ(m_net.GetGwInfo(false), (Record{{"default", "via"}, {"via", "192.0.2.1"}, {"dev", "eth0"}}));
}

TEST_F(IpNetCommands, RoutesBeforeTheDefaultRouteDoNotMatter) {
  m_ip.Answer("-6 route show",
              "2001:db8:1::/64 via fe80::9 dev eth1 metric 1024 \ndefault via fe80::1 dev eth0 metric 1024 \n");
  EXPECT_EQ(m_net.GetGwInfo(true), (Record{{"default", "via"}, {"via", "fe80::1"}, {"dev", "eth0"}}));
}

TEST_F(IpNetCommands, OfSeveralDefaultRoutesTheFirstOneCounts) {
  m_ip.Answer("-4 route show", "default via 192.0.2.1 dev eth0 \ndefault via 192.0.2.2 dev eth1 metric 100 \n");
  EXPECT_EQ(m_net.GetGwInfo(false), (Record{{"default", "via"}, {"via", "192.0.2.1"}, {"dev", "eth0"}}));
}

TEST_F(IpNetCommands, NoRoutesGiveAnEmptyRecord) {
  EXPECT_EQ(m_net.GetGwInfo(false), Record{});
}

TEST_F(IpNetCommands, WithoutADefaultRouteAnotherRoutesGatewayIsReported) {
  m_ip.Answer("-4 route show", "192.0.2.0/24 dev eth1 scope link \n198.51.100.0/24 via 192.0.2.9 dev eth0 \n");
  EXPECT_EQ(m_net.GetGwInfo(false), (Record{{"via", "192.0.2.9"}, {"dev", "eth0"}}));
}

TEST_F(IpNetCommands, WithoutAnyGatewayTheFirstInterfaceIsReported) {
  m_ip.Answer("-4 route show", "192.0.2.0/24 dev eth1 scope link \n");
  EXPECT_EQ(m_net.GetGwInfo(false), (Record{{"dev", "eth1"}}));
}

TEST_F(IpNetCommands, ADefaultRouteWithoutGatewayReportsItsInterface) {
  m_ip.Answer("-4 route show", "default dev ppp0 scope link \n192.0.2.0/24 dev eth0 scope link \n");
  EXPECT_EQ(m_net.GetGwInfo(false), (Record{{"default", "dev"}, {"dev", "ppp0"}}));
}

TEST_F(IpNetCommands, ADefaultRouteWithoutGatewayTakesTheGatewayOfALaterLine) {
  m_ip.Answer("-4 route show", "default dev ppp0 scope link \n198.51.100.0/24 via 192.0.2.9 dev eth0 \n");
  EXPECT_EQ(m_net.GetGwInfo(false), (Record{{"default", "dev"}, {"via", "192.0.2.9"}, {"dev", "eth0"}}));
}

TEST_F(IpNetCommands, KeysAreFoundInsideLongerWordsEvenAnInterfacesName) {
  m_ip.Answer("-4 route show", "192.0.2.0/24 dev via1 scope link \n");
  EXPECT_EQ(m_net.GetGwInfo(false), (Record{{"via", "scope"}}));
}

TEST_F(IpNetCommands, AFailingGatewayQueryThrowsTheToolsWords) {
  m_ip.Answer("-6 route show", "RTNETLINK answers: Address family not supported by protocol\n", 2);
  EXPECT_EXACT_THROW(m_net.GetGwInfo(true), std::logic_error,
                     "RTNETLINK answers: Address family not supported by protocol\n");
}

// --- SetAddr: the composed text for every combination ----------------------------------------------------------------

struct AddrCase {
  bool ipv6;
  bool flush;
  bool hasAddress;  // the interface already has another address of the family
  const char* addr;
  const char* text;
};

const std::vector<AddrCase> kAddrCases = {
    // IPv4
    {false, false, false, "192.0.2.20", "\nip -4 addr add 192.0.2.20/25 brd + dev eth0"},
    {false, false, false, "", ""},
    {false, false, false, "0.0.0.0", ""},
    {false, false, false, "::", "\nip -4 addr add ::/25 brd + dev eth0"},
    {false, false, true, "192.0.2.20",
     "ip -4 addr del 192.0.2.10/24 dev eth0\nip -4 addr add 192.0.2.20/25 brd + dev eth0"},
    {false, false, true, "", "ip -4 addr del 192.0.2.10/24 dev eth0"},
    {false, false, true, "0.0.0.0", "ip -4 addr del 192.0.2.10/24 dev eth0"},
    {false, false, true, "::", "ip -4 addr del 192.0.2.10/24 dev eth0\nip -4 addr add ::/25 brd + dev eth0"},
    {false, true, false, "192.0.2.20", "ip -4 addr flush dev eth0\nip -4 addr add 192.0.2.20/25 brd + dev eth0"},
    {false, true, false, "", "ip -4 addr flush dev eth0"},
    {false, true, false, "0.0.0.0", "ip -4 addr flush dev eth0"},
    {false, true, false, "::", "ip -4 addr flush dev eth0\nip -4 addr add ::/25 brd + dev eth0"},
    {false, true, true, "192.0.2.20", "ip -4 addr flush dev eth0\nip -4 addr add 192.0.2.20/25 brd + dev eth0"},
    {false, true, true, "", "ip -4 addr flush dev eth0"},
    {false, true, true, "0.0.0.0", "ip -4 addr flush dev eth0"},
    {false, true, true, "::", "ip -4 addr flush dev eth0\nip -4 addr add ::/25 brd + dev eth0"},
    // IPv6
    {true, false, false, "2001:db8::20", "\nip -6 addr add 2001:db8::20/25 dev eth0"},
    {true, false, false, "", ""},
    {true, false, false, "0.0.0.0", "\nip -6 addr add 0.0.0.0/25 dev eth0"},
    {true, false, false, "::", "\nip -6 addr add fe80::0000:00ff:fe00:0001/64 dev eth0"},
    {true, false, true, "2001:db8::20",
     "ip -6 addr del 2001:db8::10/64 dev eth0\nip -6 addr add 2001:db8::20/25 dev eth0"},
    {true, false, true, "", "ip -6 addr del 2001:db8::10/64 dev eth0"},
    {true, false, true, "0.0.0.0", "ip -6 addr del 2001:db8::10/64 dev eth0\nip -6 addr add 0.0.0.0/25 dev eth0"},
    {true, false, true,
     "::", "ip -6 addr del 2001:db8::10/64 dev eth0\nip -6 addr add fe80::0000:00ff:fe00:0001/64 dev eth0"},
    {true, true, false, "2001:db8::20", "ip -6 addr flush dev eth0\nip -6 addr add 2001:db8::20/25 dev eth0"},
    {true, true, false, "", "ip -6 addr flush dev eth0"},
    {true, true, false, "0.0.0.0", "ip -6 addr flush dev eth0\nip -6 addr add 0.0.0.0/25 dev eth0"},
    {true, true, false, "::", "ip -6 addr flush dev eth0\nip -6 addr add fe80::0000:00ff:fe00:0001/64 dev eth0"},
    {true, true, true, "2001:db8::20", "ip -6 addr flush dev eth0\nip -6 addr add 2001:db8::20/25 dev eth0"},
    {true, true, true, "", "ip -6 addr flush dev eth0"},
    {true, true, true, "0.0.0.0", "ip -6 addr flush dev eth0\nip -6 addr add 0.0.0.0/25 dev eth0"},
    {true, true, true, "::", "ip -6 addr flush dev eth0\nip -6 addr add fe80::0000:00ff:fe00:0001/64 dev eth0"},
};

TEST(SetAddr, ComposesTheExactTextForEveryCombination) {
  for (const AddrCase& c : kAddrCases) {
    SCOPED_TRACE(std::string(c.ipv6 ? "-6" : "-4") + (c.flush ? " flush" : "") + (c.hasAddress ? " has" : "") + " '" +
                 c.addr + "'");
    ScriptedIp ip;
    // The other family's address is always there, and never matters.
    ip.Answer("addr show dev eth0",
              kLink + (c.hasAddress || c.ipv6 ? kIpV4 : "") + (c.hasAddress || !c.ipv6 ? kIpV6 : ""));
    ScriptedKernel kernel;
    kernel.Watch("popen");
    OpSystem os;
    IpNet net(os);

    EXPECT_TRUE(net.SetAddr("eth0", c.addr, 25, c.ipv6, c.flush));

    EXPECT_EQ(kernel.Seen(), (Calls{std::string("popen(\"") + kQuery + " 2>&1\", \"r\")",
                                    std::string("popen(\"") + c.text + " 2>&1\", \"r\")"}));
  }
}

TEST_F(IpNetCommands, TheSameAddressAndPrefixLengthChangeNothing) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV4 + kIpV6);
  for (const bool flush : {false, true}) {
    SCOPED_TRACE(flush ? "with flush" : "without flush");
    EXPECT_FALSE(m_net.SetAddr("eth0", "192.0.2.10", 24, false, flush));
    EXPECT_FALSE(m_net.SetAddr("eth0", "2001:db8::10", 64, true, flush));
  }
  EXPECT_EQ(Texts(), (Calls{kQuery, kQuery, kQuery, kQuery}));
}

TEST_F(IpNetCommands, AnotherPrefixLengthOfTheSameAddressIsAChange) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV4);
  EXPECT_TRUE(m_net.SetAddr("eth0", "192.0.2.10", 25, false, false));
  EXPECT_EQ(Texts(),
            (Calls{kQuery, "ip -4 addr del 192.0.2.10/24 dev eth0\nip -4 addr add 192.0.2.10/25 brd + dev eth0"}));
}

TEST_F(IpNetCommands, AddressesAreComparedAsText) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV6);
  EXPECT_TRUE(m_net.SetAddr("eth0", "2001:0db8::10", 64, true, false));
  EXPECT_TRUE(m_net.SetAddr("eth0", "2001:DB8::10", 64, true, false));
}

TEST_F(IpNetCommands, PrefixLengthsAreWrittenInDecimalWhateverTheirValue) {
  for (const auto& [length, text] : std::vector<std::pair<int, std::string>>{
           {0, "0"}, {-1, "-1"}, {1000, "1000"}, {INT_MAX, "2147483647"}, {INT_MIN, "-2147483648"}}) {
    SCOPED_TRACE(length);
    EXPECT_TRUE(m_net.SetAddr("eth0", "192.0.2.20", length, false, false));
    EXPECT_EQ(Texts().back(), "\nip -4 addr add 192.0.2.20/" + text + " brd + dev eth0");
  }
}

TEST_F(IpNetCommands, AnEmptyPrefixLengthInTheRecordGoesIntoTheRemoval) {
  m_ip.Answer("addr show dev eth0", "    inet 192.0.2.10/ x\n");
  EXPECT_TRUE(m_net.SetAddr("eth0", "", 0, false, false));
  EXPECT_EQ(Texts(), (Calls{kQuery, "ip -4 addr del 192.0.2.10/ dev eth0"}));
}

TEST_F(IpNetCommands, TheLinkLocalAddressIsAlwaysSetAnew) {
  m_ip.Answer("addr show dev eth0", kLink + "    inet6 fe80::ff:fe00:1/64 scope link \n");
  EXPECT_TRUE(m_net.SetAddr("eth0", "::", 64, true, false));
  EXPECT_EQ(Texts(), (Calls{kQuery,
                            "ip -6 addr del fe80::ff:fe00:1/64 dev eth0\n"
                            "ip -6 addr add fe80::0000:00ff:fe00:0001/64 dev eth0"}));
}

TEST_F(IpNetCommands, WithoutALinkTheLinkLocalAddressIsThatOfAnEmptyHardwareAddress) {
  m_ip.Answer("addr show dev eth0", kIpV6);
  EXPECT_TRUE(m_net.SetAddr("eth0", "::", 10, true, true));
  EXPECT_EQ(Texts(),
            (Calls{kQuery, "ip -6 addr flush dev eth0\nip -6 addr add fe80::0200:00ff:fe00:0000/64 dev eth0"}));
}

TEST_F(IpNetCommands, ALinkThatIsNoHardwareAddressCountsAsZeros) {
  m_ip.Answer("addr show dev tun0", "2: tun0: <UP> mtu 1500\n    link/none \n" + kIpV4);
  EXPECT_TRUE(m_net.SetAddr("tun0", "::", 64, true, false));
  EXPECT_EQ(Texts().back(), "\nip -6 addr add fe80::0200:00ff:fe00:0000/64 dev tun0");
}

TEST_F(IpNetCommands, SpecialAddressesAreComparedLikeAnyOther) {
  m_ip.Answer("addr show dev empty", "    inet /24 inet6 ::/10 x\n");
  m_ip.Answer("addr show dev zero", "    inet 0.0.0.0/0 x\n");
  for (const bool flush : {false, true}) {
    SCOPED_TRACE(flush ? "with flush" : "without flush");
    EXPECT_FALSE(m_net.SetAddr("empty", "", 24, false, flush));
    EXPECT_FALSE(m_net.SetAddr("empty", "::", 10, true, flush));
    EXPECT_FALSE(m_net.SetAddr("zero", "0.0.0.0", 0, false, flush));
  }
  EXPECT_TRUE(m_net.SetAddr("empty", "::", 64, true, false));
}

TEST_F(IpNetCommands, ANewlineInTheRecordGoesIntoTheRemoval) {
  m_ip.Answer("addr show dev eth0", "    inet 192.0.2.10/24\n");
  m_ip.Answer("-4 route show", "default via 192.0.2.1 dev eth1\n");
  EXPECT_CONTAINS(LogicErrorOf([&] { m_net.SetAddr("eth0", "", 0, false, false); }), "dev: not found");
  EXPECT_EQ(Texts().back(), "ip -4 addr del 192.0.2.10/24\n dev eth0");
  EXPECT_TRUE(m_net.SetGw("eth0", "", false, false));
  EXPECT_EQ(Texts().back(), "ip -4 route del default via 192.0.2.1 dev eth1\n");
}

TEST_F(IpNetCommands, ArgumentsGoIntoTheChangeAsTheyStand) {
  EXPECT_TRUE(m_net.SetAddr("a b", "c  d", 24, false, true));
  EXPECT_EQ(Texts(), (Calls{"ip addr show dev a b", "ip -4 addr flush dev a b\nip -4 addr add c  d/24 brd + dev a b"}));
}

TEST_F(IpNetCommands, RemovalAndAdditionRunInOneShell) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV4);
  EXPECT_TRUE(m_net.SetAddr("eth0", "192.0.2.20", 24, false, false));
  EXPECT_EQ(m_ip.Calls(), (Calls{"addr show dev eth0", "-4 addr del 192.0.2.10/24 dev eth0",
                                 "-4 addr add 192.0.2.20/24 brd + dev eth0"}));
}

TEST_F(IpNetCommands, WhenTheInterfaceQueryFailsNothingIsChanged) {
  m_ip.Answer("addr show dev nope0", "Device \"nope0\" does not exist.\n", 1);
  EXPECT_EXACT_THROW(m_net.SetAddr("nope0", "192.0.2.20", 24, false, true), std::logic_error,
                     "Device \"nope0\" does not exist.\n");
  EXPECT_EQ(m_ip.Calls(), Calls{"addr show dev nope0"});
}

TEST_F(IpNetCommands, AFailingRemovalBeforeASucceedingAdditionGoesUnreported) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV4);
  m_ip.Answer("-4 addr del 192.0.2.10/24 dev eth0", "on standard output\n", 2);
  EXPECT_TRUE(m_net.SetAddr("eth0", "192.0.2.20", 24, false, false));
}

TEST_F(IpNetCommands, AFailingAdditionThrowsTheWholeOutputAndTheRemovalHasRun) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV4);
  m_ip.Answer("-4 addr del 192.0.2.10/24 dev eth0", "removed\n", 2);
  m_ip.Answer("-4 addr add 192.0.2.20/24 brd + dev eth0", "refused\n", 2);
  EXPECT_EXACT_THROW(m_net.SetAddr("eth0", "192.0.2.20", 24, false, false), std::logic_error, "removed\nrefused\n");
  EXPECT_EQ(m_ip.Calls().size(), 3U);
}

TEST_F(IpNetCommands, AFailingLoneRemovalThrows) {
  m_ip.Answer("addr show dev eth0", kLink + kIpV4);
  m_ip.Answer("-4 addr del 192.0.2.10/24 dev eth0", "refused\n", 2);
  EXPECT_EXACT_THROW(m_net.SetAddr("eth0", "", 0, false, false), std::logic_error, "refused\n");
}

// --- SetGw -----------------------------------------------------------------------------------------------------------

constexpr const char* kNoRoute = "";
constexpr const char* kOtherRoute = "198.51.100.0/24 via 192.0.2.9 dev eth7 \n";
constexpr const char* kDefaultRoute = "default via 192.0.2.1 dev eth1 proto static \n";
constexpr const char* kDefaultRoute6 = "default via fe80::1 dev eth1 metric 1024 pref medium\n";
constexpr const char* kDefaultWithoutGateway = "default dev ppp0 scope link \n";
constexpr const char* kDefaultWithoutGatewayAndOther =
    "default dev ppp0 scope link \n198.51.100.0/24 via 192.0.2.9 dev eth7 \n";

struct GwCase {
  bool ipv6;
  bool flush;
  const char* routes;
  const char* gw;
  const char* text;
};

const std::vector<GwCase> kGwCases = {
    // IPv4
    {false, false, kNoRoute, "192.0.2.2", "\nip -4 route add default via 192.0.2.2 dev eth0"},
    {false, false, kNoRoute, "", ""},
    {false, false, kNoRoute, "0.0.0.0", ""},
    {false, false, kNoRoute, "::", "\nip -4 route add default via :: dev eth0"},
    {false, false, kOtherRoute, "192.0.2.2", "\nip -4 route add default via 192.0.2.2 dev eth0"},
    {false, false, kOtherRoute, "", ""},
    {false, false, kOtherRoute, "0.0.0.0", ""},
    {false, false, kDefaultRoute, "192.0.2.2",
     "ip -4 route del default via 192.0.2.1 dev eth1\nip -4 route add default via 192.0.2.2 dev eth0"},
    {false, false, kDefaultRoute, "192.0.2.1",
     "ip -4 route del default via 192.0.2.1 dev eth1\nip -4 route add default via 192.0.2.1 dev eth0"},
    {false, false, kDefaultRoute, "", "ip -4 route del default via 192.0.2.1 dev eth1"},
    {false, false, kDefaultRoute, "0.0.0.0", "ip -4 route del default via 192.0.2.1 dev eth1"},
    {false, false, kDefaultWithoutGateway, "192.0.2.2", "\nip -4 route add default via 192.0.2.2 dev eth0"},
    {false, false, kDefaultWithoutGateway, "", ""},
    {false, false, kDefaultWithoutGatewayAndOther, "192.0.2.2",
     "ip -4 route del default via 192.0.2.9 dev eth7\nip -4 route add default via 192.0.2.2 dev eth0"},
    {false, false, kDefaultWithoutGatewayAndOther, "", "ip -4 route del default via 192.0.2.9 dev eth7"},
    {false, true, kNoRoute, "192.0.2.2", "ip -4 route flush all\nip -4 route add default via 192.0.2.2 dev eth0"},
    {false, true, kNoRoute, "", "ip -4 route flush all"},
    {false, true, kOtherRoute, "0.0.0.0", "ip -4 route flush all"},
    {false, true, kDefaultRoute, "192.0.2.2", "ip -4 route flush all\nip -4 route add default via 192.0.2.2 dev eth0"},
    {false, true, kDefaultRoute, "::", "ip -4 route flush all\nip -4 route add default via :: dev eth0"},
    {false, true, kDefaultRoute, "", "ip -4 route flush all"},
    {false, true, kDefaultRoute, "0.0.0.0", "ip -4 route flush all"},
    {false, true, kDefaultWithoutGatewayAndOther, "0.0.0.0", "ip -4 route flush all"},
    // IPv6
    {true, false, kNoRoute, "fe80::2", "\nip -6 route add default via fe80::2 dev eth0"},
    {true, false, kNoRoute, "", ""},
    {true, false, kNoRoute, "::", ""},
    {true, false, kNoRoute, "0.0.0.0", "\nip -6 route add default via 0.0.0.0 dev eth0"},
    {true, false, kDefaultRoute6, "fe80::2",
     "ip -6 route del default via fe80::1 dev eth1\nip -6 route add default via fe80::2 dev eth0"},
    {true, false, kDefaultRoute6, "fe80::1",
     "ip -6 route del default via fe80::1 dev eth1\nip -6 route add default via fe80::1 dev eth0"},
    {true, false, kDefaultRoute6, "", "ip -6 route del default via fe80::1 dev eth1"},
    {true, false, kDefaultRoute6, "::", "ip -6 route del default via fe80::1 dev eth1"},
    {true, true, kNoRoute, "fe80::2", "ip -6 route flush all\nip -6 route add default via fe80::2 dev eth0"},
    {true, true, kDefaultRoute6, "fe80::2", "ip -6 route flush all\nip -6 route add default via fe80::2 dev eth0"},
    {true, true, kDefaultRoute6, "0.0.0.0", "ip -6 route flush all\nip -6 route add default via 0.0.0.0 dev eth0"},
    {true, true, kDefaultRoute6, "", "ip -6 route flush all"},
    {true, true, kDefaultRoute6, "::", "ip -6 route flush all"},
};

TEST(SetGw, ComposesTheExactTextForEveryCombination) {
  for (const GwCase& c : kGwCases) {
    SCOPED_TRACE(std::string(c.ipv6 ? "-6" : "-4") + (c.flush ? " flush" : "") + " '" + c.gw + "' on '" + c.routes +
                 "'");
    const std::string query = c.ipv6 ? "-6 route show" : "-4 route show";
    ScriptedIp ip;
    ip.Answer(query, c.routes);
    ScriptedKernel kernel;
    kernel.Watch("popen");
    OpSystem os;
    IpNet net(os);

    EXPECT_TRUE(net.SetGw("eth0", c.gw, c.ipv6, c.flush));

    EXPECT_EQ(kernel.Seen(),
              (Calls{"popen(\"ip " + query + " 2>&1\", \"r\")", std::string("popen(\"") + c.text + " 2>&1\", \"r\")"}));
  }
}

TEST_F(IpNetCommands, TheSameGatewayThroughTheSameInterfaceChangesNothing) {
  m_ip.Answer("-4 route show", kDefaultRoute);
  m_ip.Answer("-6 route show", kDefaultRoute6);
  for (const bool flush : {false, true}) {
    SCOPED_TRACE(flush ? "with flush" : "without flush");
    EXPECT_FALSE(m_net.SetGw("eth1", "192.0.2.1", false, flush));
    EXPECT_FALSE(m_net.SetGw("eth1", "fe80::1", true, flush));
  }
  EXPECT_EQ(Texts(), (Calls{"ip -4 route show", "ip -6 route show", "ip -4 route show", "ip -6 route show"}));
}

TEST_F(IpNetCommands, TheGatewayOfAnotherRouteIsNoDefaultGateway) {
  m_ip.Answer("-4 route show", kOtherRoute);
  EXPECT_TRUE(m_net.SetGw("eth7", "192.0.2.9", false, false));
  EXPECT_EQ(Texts().back(), "\nip -4 route add default via 192.0.2.9 dev eth7");
}

TEST_F(IpNetCommands, TheGatewayOfARouteBehindADefaultRouteWithoutOneIsNoDefaultGateway) {
  m_ip.Answer("-4 route show", kDefaultWithoutGatewayAndOther);
  EXPECT_TRUE(m_net.SetGw("eth7", "192.0.2.9", false, false));
  EXPECT_EQ(Texts().back(),
            "ip -4 route del default via 192.0.2.9 dev eth7\nip -4 route add default via 192.0.2.9 dev eth7");
}

TEST_F(IpNetCommands, WhenTheGatewayQueryFailsNothingIsChanged) {
  m_ip.Answer("-4 route show", "no\n", 2);
  EXPECT_EXACT_THROW(m_net.SetGw("eth0", "192.0.2.1", false, true), std::logic_error, "no\n");
  EXPECT_EQ(m_ip.Calls(), Calls{"-4 route show"});
}

TEST_F(IpNetCommands, AFailingRouteRemovalBeforeASucceedingAdditionGoesUnreported) {
  m_ip.Answer("-4 route show", kDefaultRoute);
  m_ip.Answer("-4 route del default via 192.0.2.1 dev eth1", "", 2);
  EXPECT_TRUE(m_net.SetGw("eth0", "192.0.2.2", false, false));
}

TEST_F(IpNetCommands, AFailingRouteAdditionThrowsAndTheRemovalHasRun) {
  m_ip.Answer("-4 route show", kDefaultRoute);
  m_ip.Answer("-4 route add default via 192.0.2.2 dev eth0", "Error: Nexthop has invalid gateway.\n", 2);
  EXPECT_EXACT_THROW(m_net.SetGw("eth0", "192.0.2.2", false, false), std::logic_error,
                     "Error: Nexthop has invalid gateway.\n");
  EXPECT_EQ(m_ip.Calls(), (Calls{"-4 route show", "-4 route del default via 192.0.2.1 dev eth1",
                                 "-4 route add default via 192.0.2.2 dev eth0"}));
}

// --- What every query and change passes on ---------------------------------------------------------------------------

TEST(IpNetFailures, PopenAndPcloseFailuresPassThrough) {
  OpSystem os;
  IpNet net(os);
  const std::map<std::string, void (*)(IpNet&)> calls = {
      {"GetIfaceInfo", [](IpNet& n) { n.GetIfaceInfo("lo"); }},
      {"GetGwInfo", [](IpNet& n) { n.GetGwInfo(false); }},
      {"SetAddr", [](IpNet& n) { n.SetAddr("lo", "192.0.2.1", 24, false, false); }},
      {"SetGw", [](IpNet& n) { n.SetGw("lo", "192.0.2.1", false, false); }},
  };
  const ScriptedIp ip;
  for (const auto& entry : calls) {
    SCOPED_TRACE(entry.first);
    const auto call = entry.second;
    {
      ScriptedKernel kernel;
      kernel.Script("popen", {Fails(ENOMEM)});
      EXPECT_SYSTEM_ERROR(call(net), ENOMEM, ostext::kPopenFailed);
    }
    {
      ScriptedKernel kernel;
      kernel.Script("pclose", {Fails(ECHILD)});
      EXPECT_SYSTEM_ERROR(call(net), ECHILD, ostext::kPcloseFailed);
    }
  }
}

TEST(IpNetFailures, TheChangesOwnPopenAndPcloseFailuresPassThrough) {
  OpSystem os;
  IpNet net(os);
  const ScriptedIp ip;
  for (const bool gateway : {false, true}) {
    SCOPED_TRACE(gateway ? "SetGw" : "SetAddr");
    const auto change = [&] {
      gateway ? net.SetGw("lo", "192.0.2.1", false, false) : net.SetAddr("lo", "192.0.2.1", 24, false, false);
    };
    {
      ScriptedKernel kernel;
      kernel.Script("popen", {Real(), Fails(ENOMEM)});
      EXPECT_SYSTEM_ERROR(change(), ENOMEM, ostext::kPopenFailed);
    }
    {
      ScriptedKernel kernel;
      kernel.Script("pclose", {Real(), Fails(ECHILD)});
      EXPECT_SYSTEM_ERROR(change(), ECHILD, ostext::kPcloseFailed);
    }
  }
}

TEST(IpNetFailures, AMissingIpToolIsReportedInTheShellsWords) {
  const ScriptedIp ip;  // puts PATH back
  ::setenv("PATH", "/no-such-folder", 1);
  OpSystem os;
  IpNet net(os);
  EXPECT_CONTAINS(LogicErrorOf([&] { net.GetIfaceInfo("lo"); }), "ip: not found");
}

}  // namespace
