// IP configuration with the ip that is first in PATH, on a network card and on a pair of virtual ones.
#include <IpNet.h>
#include <OpSystem.h>

#include <string>

#include <gtest/gtest.h>

#include "ExpectThrow.h"

namespace {

constexpr bool kIpV4 = false;
constexpr bool kIpV6 = true;
constexpr bool kNoFlush = false;
constexpr bool kFlush = true;

class Network : public testing::TestWithParam<const char*> {
 protected:
  // The real ip prepares the interface, even where another one is first in PATH; in one call, since each is slow. The
  // kernel would give it a link-local address of its own, some time after it is up.
  Network() {
    system.ExecCmd(
        "printf 'link add veth0 type veth peer name veth1\nlink set veth1 up\nlink set " + iface +
            " addrgenmode none\naddr flush dev eth0\naddr flush dev veth0\nlink set eth0 down\nlink set veth0 down\n"
            "link set " +
            iface + " up\n' | /sbin/ip -force -batch - >/dev/null 2>/dev/null || true",
        false);
  }

  void Ip(const std::string& arguments) {
    system.ExecCmd("/sbin/ip " + arguments, false);
  }

  std::string HardwareAddress() {
    std::string text = system.ExecCmd("cat /sys/class/net/" + iface + "/address", false);
    text.pop_back();
    return text;
  }

  const std::string iface = GetParam();
  OpSystem system;
  IpNet net{system};
};

INSTANTIATE_TEST_SUITE_P(, Network, testing::Values("eth0", "veth0"),
                         [](const auto& info) { return std::string(info.param); });

TEST_P(Network, TheHardwareAddressIsRead) {
  EXPECT_EQ(net.GetIfaceInfo(iface)["link"], HardwareAddress());
}

TEST_P(Network, AnIpV4AddressIsSetReplacedAndRemovedAndARepeatedCallChangesNothing) {
  EXPECT_TRUE(net.SetAddr(iface, "192.0.2.10", 24, kIpV4, kNoFlush));
  EXPECT_FALSE(net.SetAddr(iface, "192.0.2.10", 24, kIpV4, kNoFlush));
  EXPECT_EQ(net.GetIfaceInfo(iface)["ipv4"], "192.0.2.10");
  EXPECT_EQ(net.GetIfaceInfo(iface)["ipv4pflen"], "24");

  EXPECT_TRUE(net.SetAddr(iface, "192.0.2.20", 25, kIpV4, kNoFlush));
  EXPECT_EQ(net.GetIfaceInfo(iface)["ipv4"], "192.0.2.20");
  EXPECT_EQ(net.GetIfaceInfo(iface)["ipv4pflen"], "25");

  EXPECT_TRUE(net.SetAddr(iface, "", 24, kIpV4, kNoFlush));
  EXPECT_EQ(net.GetIfaceInfo(iface).count("ipv4"), 0U);
}

TEST_P(Network, AnIpV6AddressIsSetInTheFamilysPlace) {
  EXPECT_TRUE(net.SetAddr(iface, "2001:db8::10", 64, kIpV6, kFlush));
  EXPECT_FALSE(net.SetAddr(iface, "2001:db8::10", 64, kIpV6, kFlush));
  EXPECT_EQ(net.GetIfaceInfo(iface)["ipv6"], "2001:db8::10");
  EXPECT_EQ(net.GetIfaceInfo(iface)["ipv6pflen"], "64");
}

TEST_P(Network, TheLinkLocalAddressBelongsToTheHardwareAddress) {
  EXPECT_TRUE(net.SetAddr(iface, "::", 48, kIpV6, kFlush));

  // The same address, as the kernel writes it.
  const std::string expected = IpNet::GetLinkLocalAddr(HardwareAddress());
  EXPECT_EQ(net.GetIfaceInfo(iface)["ipv6pflen"], "64");
  EXPECT_NO_THROW(Ip("-6 addr del " + expected + "/64 dev " + iface));
  EXPECT_EQ(net.GetIfaceInfo(iface).count("ipv6"), 0U);
}

TEST_P(Network, AnIpV4GatewayIsSetReplacedAndRemovedAndARepeatedCallChangesNothing) {
  net.SetAddr(iface, "192.0.2.10", 24, kIpV4, kNoFlush);

  EXPECT_TRUE(net.SetGw(iface, "192.0.2.1", kIpV4, kNoFlush));
  EXPECT_FALSE(net.SetGw(iface, "192.0.2.1", kIpV4, kNoFlush));
  EXPECT_EQ(net.GetGwInfo(kIpV4), (IpNet::Record{{"default", "via"}, {"via", "192.0.2.1"}, {"dev", iface}}));

  EXPECT_TRUE(net.SetGw(iface, "192.0.2.2", kIpV4, kNoFlush));
  EXPECT_EQ(net.GetGwInfo(kIpV4)["via"], "192.0.2.2");

  EXPECT_TRUE(net.SetGw(iface, "", kIpV4, kNoFlush));
  EXPECT_EQ(net.GetGwInfo(kIpV4).count("default"), 0U);
}

TEST_P(Network, AnIpV6GatewayIsSetAndARepeatedCallChangesNothing) {
  net.SetAddr(iface, "2001:db8::10", 64, kIpV6, kFlush);

  EXPECT_TRUE(net.SetGw(iface, "2001:db8::1", kIpV6, kNoFlush));
  EXPECT_FALSE(net.SetGw(iface, "2001:db8::1", kIpV6, kNoFlush));
  EXPECT_EQ(net.GetGwInfo(kIpV6)["via"], "2001:db8::1");
  EXPECT_EQ(net.GetGwInfo(kIpV6)["dev"], iface);

  EXPECT_TRUE(net.SetGw(iface, "::", kIpV6, kNoFlush));
}

TEST(NetworkErrors, AnUnknownInterfaceIsReportedInTheToolsWords) {
  OpSystem system;
  IpNet net(system);
  const std::string words = LogicErrorOf([&] { net.SetAddr("nosuch0", "192.0.2.10", 24, kIpV4, kNoFlush); });
  EXPECT_TRUE(words == "Device \"nosuch0\" does not exist.\n" || words == "ip: can't find device 'nosuch0'\n") << words;
}

}  // namespace
