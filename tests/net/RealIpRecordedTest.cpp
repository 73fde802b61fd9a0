// What the library reads from the outputs of real tools, recorded once: the same on every machine.
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ExpectThrow.h"
#include "IpNet.h"
#include "OpSystem.h"
#include "ScriptedIp.h"

namespace {

using Record = IpNet::Record;

constexpr const char* kMac = "02:00:00:00:00:01";

/// A file of recorded output, named after the query (addr, route4, route6), what it shows, and the tool where the tools
/// differ; and the record that is read from it.
struct Recording {
  std::string name;
  Record record;
};

std::ostream& operator<<(std::ostream& out, const Recording& recording) {
  return out << recording.name;
}

Record Gateway(const std::string& first, const std::string& via, const std::string& dev) {
  return {{"default", first}, {"via", via}, {"dev", dev}};
}

const Record kLo = {
    {"link", "00:00:00:00:00:00"}, {"ipv4", "127.0.0.1"}, {"ipv4pflen", "8"}, {"ipv6", "::1"}, {"ipv6pflen", "128"}};
const Record kLinkOnly = {{"link", kMac}};
const Record kIpV4Only = {{"link", kMac}, {"ipv4", "192.0.2.10"}, {"ipv4pflen", "24"}};
const Record kIpV6Only = {{"link", kMac}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "64"}};
const Record kBoth = {
    {"link", kMac}, {"ipv4", "192.0.2.10"}, {"ipv4pflen", "24"}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "64"}};
const Record kGateway4 = Gateway("via", "192.0.2.1", "eth0");
const Record kGateway6 = Gateway("via", "fe80::1", "eth0");

const std::vector<Recording> kRecordings = {
    {"addr-lo.iproute2", kLo},
    {"addr-lo.busybox", kLo},
    {"addr-without-address.iproute2", kLinkOnly},
    {"addr-without-address.busybox", kLinkOnly},
    {"addr-ipv4.iproute2", kIpV4Only},
    {"addr-ipv4.busybox", kIpV4Only},
    {"addr-dynamic.iproute2", kIpV4Only},
    {"addr-dynamic.busybox", kIpV4Only},
    {"addr-only-ipv6.iproute2", kIpV6Only},
    {"addr-only-ipv6.busybox", kIpV6Only},
    {"addr-tentative.iproute2", kIpV6Only},
    {"addr-tentative.busybox", kIpV6Only},
    {"addr-both.iproute2", kBoth},
    {"addr-both.busybox", kBoth},
    {"addr-secondary.iproute2", kBoth},
    {"addr-secondary.busybox", kBoth},
    // With a peer, the prefix length follows the peer's address: it is not in the word that is looked at.
    {"addr-peer.iproute2", kLinkOnly},
    {"addr-peer.busybox", {{"link", kMac}, {"ipv6", "2001:db8::10"}, {"ipv6pflen", "128"}}},
    // The first "inet" is the one in the name.
    {"addr-inet0.iproute2", kIpV6Only},
    {"addr-inet0.busybox", kIpV6Only},
    // Only blanks separate words, so that the newline is the word after the link's type.
    {"addr-link-none.iproute2", {{"link", "\n"}}},
    {"addr-link-none.busybox", {{"link", "\n"}}},

    {"route4-empty", {}},
    {"route4-default.iproute2", kGateway4},
    {"route4-default.busybox", kGateway4},
    {"route4-several-defaults.iproute2", kGateway4},
    {"route4-several-defaults.busybox", kGateway4},
    {"route4-no-default.iproute2", {{"dev", "eth0"}}},
    {"route4-no-default.busybox", {{"dev", "eth0"}}},
    {"route4-other-gateway.iproute2", {{"via", "192.0.2.1"}, {"dev", "eth0"}}},
    {"route4-other-gateway.busybox", {{"via", "192.0.2.1"}, {"dev", "eth0"}}},
    {"route4-ppp0.iproute2", {{"default", "dev"}, {"dev", "ppp0"}}},
    {"route4-ppp0.busybox", {{"default", "dev"}, {"dev", "ppp0"}}},
    // The gateway and the interface are another route's.
    {"route4-ppp0-other-gateway.iproute2", Gateway("dev", "192.0.2.1", "eth0")},
    {"route4-ppp0-other-gateway.busybox", Gateway("dev", "192.0.2.1", "eth0")},
    {"route4-nhid.iproute2", Gateway("nhid", "192.0.2.1", "eth0")},
    {"route4-nhid.busybox", kGateway4},
    {"route4-multipath.iproute2", Gateway("\n\tnexthop", "192.0.2.1", "eth0")},
    {"route4-multipath.busybox", {{"default", "\n192.0.2.0/24"}, {"dev", "eth0"}}},
    {"route4-unreachable.iproute2", {{"default", "\n192.0.2.0/24"}, {"dev", "eth0"}}},
    {"route4-unreachable.busybox", {{"default", "\n192.0.2.0/24"}, {"dev", "eth0"}}},
    {"route4-via-inet6.iproute2", Gateway("via", "inet6", "eth0")},
    {"route4-via-inet6.busybox", {{"default", "dev"}, {"dev", "eth0"}}},
    // Here "via" is found in the interface's name, and its value is the word after the name.
    {"route4-via1-no-default.iproute2", {{"via", "proto"}}},
    {"route4-via1-no-default.busybox", {{"via", "scope"}}},
    {"route4-via1-no-gateway.iproute2", Gateway("dev", "scope", "via1")},
    {"route4-via1-no-gateway.busybox", Gateway("dev", "scope", "via1")},
    {"route4-via1.iproute2", Gateway("via", "192.0.2.1", "via1")},
    {"route4-via1.busybox", Gateway("via", "192.0.2.1", "via1")},

    {"route6-default.iproute2", kGateway6},
    {"route6-default.busybox", kGateway6},
    {"route6-several-defaults.iproute2", Gateway("via", "2001:db8::1", "eth0")},
    {"route6-several-defaults.busybox", Gateway("via", "2001:db8::1", "eth0")},
    {"route6-other-gateway.iproute2", {{"via", "2001:db8::1"}, {"dev", "eth0"}}},
    {"route6-other-gateway.busybox", {{"via", "2001:db8::1"}, {"dev", "eth0"}}},
    // Without a gateway the interface is the first one of the whole listing, which here begins with another route.
    {"route6-ppp0.iproute2", {{"default", "dev"}, {"dev", "eth0"}}},
    {"route6-ppp0.busybox", {{"default", "dev"}, {"dev", "eth0"}}},
    {"route6-nhid.iproute2", Gateway("nhid", "fe80::1", "eth0")},
    {"route6-nhid.busybox", kGateway6},
};

std::string ReadFixture(const std::string& name) {
  std::ifstream file(std::filesystem::path(BOARDKIT_NET_FIXTURES) / (name + ".txt"), std::ios::binary);
  EXPECT_TRUE(file.is_open()) << name;
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class RealIpRecorded : public testing::TestWithParam<Recording> {};

TEST_P(RealIpRecorded, GivesTheRecord) {
  const std::string& name = GetParam().name;
  const std::string query = name.substr(0, name.find('-'));
  const std::string output = ReadFixture(name);
  ScriptedIp ip;
  ip.Answer("addr show dev eth0", output);
  ip.Answer(query == "route6" ? "-6 route show" : "-4 route show", output);
  OpSystem system;
  IpNet net(system);

  EXPECT_EQ(query == "addr" ? net.GetIfaceInfo("eth0") : net.GetGwInfo(query == "route6"), GetParam().record);
}

INSTANTIATE_TEST_SUITE_P(Of, RealIpRecorded, testing::ValuesIn(kRecordings), [](const auto& test) {
  std::string name = test.param.name;
  for (char& c : name) {
    c = std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
  }
  return name;
});

TEST(RealIpRecordedFailure, OfAnUnknownInterfaceThrowsTheToolsWords) {
  for (const char* const name : {"addr-unknown.iproute2", "addr-unknown.busybox"}) {
    SCOPED_TRACE(name);
    const std::string output = ReadFixture(name);
    ScriptedIp ip;
    ip.Answer("addr show dev nope0", output, 1);
    OpSystem system;
    IpNet net(system);

    EXPECT_EXACT_THROW(net.GetIfaceInfo("nope0"), std::logic_error, output);
  }
}

TEST(RealIpRecordedFiles, AreAllTested) {
  std::set<std::string> tested = {"addr-unknown.iproute2", "addr-unknown.busybox"};
  for (const Recording& recording : kRecordings) {
    tested.insert(recording.name);
  }

  std::set<std::string> present;
  for (const auto& file : std::filesystem::directory_iterator(BOARDKIT_NET_FIXTURES)) {
    present.insert(file.path().stem().string());
  }
  EXPECT_EQ(tested, present);
}

}  // namespace
