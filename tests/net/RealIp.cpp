#include "RealIp.h"

#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ExpectThrow.h"
#include "NetworkNamespace.h"

namespace {

constexpr const char* kSystemPath = "/usr/sbin:/usr/bin:/sbin:/bin";

Lines SplitLines(const std::string& text) {
  Lines lines;
  std::istringstream input(text);
  for (std::string line; std::getline(input, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// The text before @p end, if that occurs in it, without blanks at its end.
std::string Before(const std::string& text, const std::string& end) {
  const std::string before = text.substr(0, text.find(end));
  return before.substr(0, before.find_last_not_of(' ') + 1);
}

/// Where a program is found in the system's own folders; empty if it is not.
std::string PathOf(const std::string& program) {
  std::istringstream folders(kSystemPath);
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (::access((folder + "/" + program).c_str(), X_OK) == 0) {
      return folder + "/" + program;
    }
  }
  return "";
}

}  // namespace

const Family kFamily4 = {
    kIpV4,       "-4",           "192.0.2.10",     "192.0.2.20",  "198.51.100.30",    24, "192.0.2.1",
    "192.0.2.2", "198.51.100.1", "203.0.113.0/24", "203.0.113.1", " brd 192.0.2.255", ""};
const Family kFamily6 = {kIpV6,         "-6",          "2001:db8::10",  "2001:db8::20",    "2001:db8:1::30", 64,
                         "2001:db8::1", "2001:db8::2", "2001:db8:1::1", "2001:db8:2::/64", "2001:db8:3::1",  "",
                         " metric 1024"};

std::ostream& operator<<(std::ostream& out, Tool tool) {
  return out << (tool == Tool::kIpRoute2 ? "iproute2" : "BusyBox");
}

std::ostream& operator<<(std::ostream& out, const Family& family) {
  return out << (family.ipv6 ? "IPv6" : "IPv4");
}

RealIpTest::RealIpTest(Tool tool) : m_tool(tool) {}

void RealIpTest::SetUp() {
  m_path = std::getenv("PATH");
  ::setenv("PATH", kSystemPath, 1);
  if (PathOf("ip").empty()) {
    GTEST_SKIP() << "iproute2's tool ip is not installed";
  }
  if (m_tool == Tool::kBusyBox && PathOf("busybox").empty()) {
    GTEST_SKIP() << "BusyBox is not installed";
  }
  const std::string whyNot = EnterFreshNetwork();
  if (!whyNot.empty()) {
    GTEST_SKIP() << "this machine allows no network of the test's own: " << whyNot;
  }
  if (::access("/proc/sys/net/ipv6/conf/default/disable_ipv6", W_OK) != 0) {
    GTEST_SKIP() << "this machine has no IPv6, or its kernel's variables cannot be written";
  }

  SetKernelVariable("ipv6/conf/all/disable_ipv6", "0");
  SetKernelVariable("ipv6/conf/default/disable_ipv6", "0");
  SetKernelVariable("ipv6/conf/all/accept_dad", "0");
  SetKernelVariable("ipv6/conf/default/accept_dad", "0");
  SetKernelVariable("ipv6/conf/default/addr_gen_mode", "1");  // none
  SetKernelVariable("ipv4/conf/all/promote_secondaries", "0");
  SetKernelVariable("ipv4/conf/default/promote_secondaries", "0");
  system.ExecCmd("{ " + PathOf("ip") + R"( -batch - <<end
link set lo up
link add eth0 address 02:00:00:00:00:01 type veth peer name peer0 address 02:00:00:00:00:02
link add eth1 address 02:00:00:00:00:03 type veth peer name peer1 address 02:00:00:00:00:04
link set eth0 up
link set peer0 up
link set eth1 up
link set peer1 up
end
})",
                 false);
  if (m_tool == Tool::kBusyBox) {
    UseBusyBox();
  }
  net.SetDebugState(true);
}

void RealIpTest::TearDown() {
  ::setenv("PATH", m_path.c_str(), 1);
}

void RealIpTest::UseBusyBox() {
  const std::filesystem::path& folder = m_busyBox.emplace("busybox-ip").Path();
  std::filesystem::create_symlink(PathOf("busybox"), folder / "ip");
  ::setenv("PATH", (folder.string() + ":" + kSystemPath).c_str(), 1);
}

std::string RealIpTest::Ip(const std::string& arguments) {
  try {
    return system.ExecCmd(PathOf("ip") + " " + arguments, false);
  } catch (const std::exception& e) {
    ADD_FAILURE() << "ip " << arguments << ": " << e.what();
    return "";
  }
}

std::string RealIpTest::Complaint(const std::string& arguments) {
  return LogicErrorOf([&] { system.ExecCmd("ip " + arguments, false); });
}

void RealIpTest::SetKernelVariable(const std::string& name, const std::string& value) {
  std::ofstream file("/proc/sys/net/" + name);
  file << value << std::flush;
  EXPECT_TRUE(file.good()) << name;
}

void RealIpTest::Rename(const std::string& iface, const std::string& name) {
  Ip("link set " + iface + " down");
  Ip("link set " + iface + " name " + name);
  Ip("link set " + name + " up");
}

Lines RealIpTest::Addresses(const std::string& iface, bool ipv6) {
  const std::string key = ipv6 ? " inet6 " : " inet ";
  Lines addresses;
  for (const std::string& line : SplitLines(Ip(std::string(ipv6 ? "-6" : "-4") + " -o addr show dev " + iface))) {
    addresses.push_back(Before(line.substr(line.find(key) + key.size()), " scope"));
  }
  return addresses;
}

Lines RealIpTest::DefaultRoutes(bool ipv6) {
  Lines routes;
  for (const std::string& line : SplitLines(Ip(std::string(ipv6 ? "-6" : "-4") + " -o route show default"))) {
    routes.push_back(Before(line, " pref"));
  }
  return routes;
}

Lines RealIpTest::GatewayRoutes(bool ipv6) {
  Lines routes;
  for (const std::string& line : SplitLines(Ip(std::string(ipv6 ? "-6" : "-4") + " -o route show"))) {
    if (line.find(" via ") != std::string::npos) {
      routes.push_back(Before(line, " pref"));
    }
  }
  return routes;
}

Lines RealIpTest::Commands() {
  Lines commands = SplitLines(net.GetDebugOutput());
  net.ClearDebug();
  return commands;
}
