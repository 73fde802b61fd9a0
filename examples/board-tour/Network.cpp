// Addresses and default gateways of a network interface: what is asked, what the library does, what `ip` says then.
#include <net/if.h>

#include <IpNet.h>
#include <OpSystem.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string>

#include "Chapters.h"
#include "Page.h"
#include "Uninterrupted.h"

namespace {

using page::Lines;
using page::Quoted;

const bool kIpV4 = false;
const bool kIpV6 = true;
const bool kNoFlush = false;
const bool kFlush = true;

/// The line without the blanks at both ends.
std::string Trimmed(const std::string& line) {
  const std::size_t begin = line.find_first_not_of(' ');
  return begin == std::string::npos ? "" : line.substr(begin, line.find_last_not_of(' ') - begin + 1);
}

bool StartsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

std::string Family(bool ipv6) {
  return ipv6 ? "-6" : "-4";
}

std::string Word(bool value) {
  return value ? "true" : "false";
}

Lines Printable(const IpNet::Record& record) {
  Lines lines;
  for (const auto& entry : record) {
    lines.push_back(Quoted(entry.first) + ": " + Quoted(entry.second));
  }
  return lines.empty() ? Lines{"(empty record)"} : lines;
}

/// Of each step: the call and its result; every command that the library ran; and what the tool says afterwards.
class Steps {
 public:
  Steps() : m_net(m_system) {
    m_net.SetDebugState(true);
  }

  /// The addresses and default routes that the tool lists.
  void RowOfTool(const std::string& iface) {
    Lines found = Addresses("", iface, {"inet"});
    for (const bool ipv6 : {kIpV4, kIpV6}) {
      const Lines routes = DefaultRoutes(ipv6);
      found.insert(found.end(), routes.begin(), routes.end());
    }
    page::Row("ip says", found.empty() ? Lines{"(nothing)"} : found);
  }

  OpSystem& System() {
    return m_system;
  }

  IpNet& Net() {
    return m_net;
  }

  void ShowInterface(const std::string& iface) {
    page::Step("What is known of the interface " + iface);
    m_net.ClearDebug();
    const IpNet::Record record = m_net.GetIfaceInfo(iface);
    page::Call("net.GetIfaceInfo(" + Quoted(iface) + ")");
    page::Row("result", Printable(record));
    RowsOfTraceAndTool(Addresses("", iface, {"link/", "inet"}));
  }

  void ShowGateway(bool ipv6) {
    page::Step(std::string("What is known of the default gateway, IPv") + (ipv6 ? "6" : "4"));
    m_net.ClearDebug();
    const IpNet::Record record = m_net.GetGwInfo(ipv6);
    page::Call("net.GetGwInfo(" + Word(ipv6) + ")");
    page::Row("result", Printable(record));
    RowsOfTraceAndTool(DefaultRoutes(ipv6));
  }

  void SetAddr(const std::string& title, const std::string& iface, const std::string& addr, int prefixLength,
               bool ipv6) {
    page::Step(title);
    m_net.ClearDebug();
    page::Call("net.SetAddr(" + Quoted(iface) + ", " + Quoted(addr) + ", " + std::to_string(prefixLength) + ", " +
               Word(ipv6) + ", " + Word(kNoFlush) + ")");
    RowOfChange(m_net.SetAddr(iface, addr, prefixLength, ipv6, kNoFlush));
    RowsOfTraceAndTool(Addresses(Family(ipv6), iface, {"inet"}));
  }

  void SetGw(const std::string& title, const std::string& iface, const std::string& gw, bool ipv6) {
    page::Step(title);
    m_net.ClearDebug();
    page::Call("net.SetGw(" + Quoted(iface) + ", " + Quoted(gw) + ", " + Word(ipv6) + ", " + Word(kNoFlush) + ")");
    RowOfChange(m_net.SetGw(iface, gw, ipv6, kNoFlush));
    RowsOfTraceAndTool(DefaultRoutes(ipv6));
  }

  void ShowMissingInterface() {
    page::Step("An interface that does not exist: the exception has the tool's words");
    page::Call(R"(net.GetIfaceInfo("nope0"))");
    try {
      m_net.GetIfaceInfo("nope0");
    } catch (const std::logic_error& e) {
      page::Row("throws", page::SplitLines(e.what()));
    }
  }

 private:
  static void RowOfChange(bool changed) {
    page::Row("result", changed ? "true: changed" : "false: nothing to change");
  }

  void RowsOfTraceAndTool(const Lines& tool) {
    page::Row("ran", page::SplitLines(m_net.GetDebugOutput()));
    page::Row("ip says", tool.empty() ? Lines{"(nothing)"} : tool);
  }

  Lines Addresses(const std::string& family, const std::string& iface, const Lines& starts) {
    Lines found;
    for (const std::string& line :
         page::SplitLines(m_system.ExecCmd("ip " + family + " addr show dev " + iface, false))) {
      const std::string text = Trimmed(line);
      if (std::any_of(starts.begin(), starts.end(), [&](const std::string& s) { return StartsWith(text, s); })) {
        found.push_back(text);
      }
    }
    return found;
  }

  Lines DefaultRoutes(bool ipv6) {
    Lines found;
    for (const std::string& line : page::SplitLines(m_system.ExecCmd("ip " + Family(ipv6) + " route show", false))) {
      if (StartsWith(line, "default")) {
        found.push_back(Trimmed(line));
      }
    }
    return found;
  }

  OpSystem m_system;
  IpNet m_net;
};

/// The addresses of an interface, and all routes, as the constructor finds them.
class FormerState {
 public:
  FormerState(Steps& steps, const std::string& iface) : m_steps(steps), m_iface(iface) {
    for (const bool ipv6 : {kIpV4, kIpV6}) {
      ReadFamily(ipv6);
    }
    m_putBack.insert(m_putBack.end(), m_routes.begin(), m_routes.end());
  }

  void TakeAway() {
    if (!m_found.empty()) {
      page::Step(m_iface + " is in use: this is taken away now, and put back at the end");
      page::Row("found", m_found);
      Clear();
    }
  }

  /// Removes what was set since, and puts back what was taken away.
  /// @throws std::runtime_error, at the end, with what could not be put back.
  void PutBack() {
    page::Step("Leave " + m_iface + " as it was");
    std::string failures;
    try {
      Clear();
    } catch (const std::exception& e) {
      failures += e.what();
    }
    for (const std::string& command : m_putBack) {
      try {
        m_steps.System().ExecCmd(command, false);
      } catch (const std::exception& e) {
        // A route to the interface's own network has come back with the address already.
        if (std::string(e.what()).find("File exists") == std::string::npos) {
          failures += command + ": " + e.what();
        }
      }
    }
    m_steps.RowOfTool(m_iface);
    if (!failures.empty()) {
      throw std::runtime_error("Not put back:\n" + failures);
    }
  }

 private:
  void Clear() {
    for (const bool ipv6 : {kIpV4, kIpV6}) {
      while (m_steps.Net().GetGwInfo(ipv6)["default"] == "via") {
        m_steps.Net().SetGw(m_iface, "", ipv6, kNoFlush);
      }
      m_steps.Net().SetAddr(m_iface, "", 0, ipv6, kFlush);
    }
  }

  void ReadFamily(bool ipv6) {
    const std::string ip = "ip " + Family(ipv6);
    Lines addresses;
    for (const std::string& line :
         page::SplitLines(m_steps.System().ExecCmd(ip + " -o addr show dev " + m_iface, false))) {
      std::string address;
      if (IpNet::GetValue(line, ipv6 ? "inet6" : "inet", 0, address, true) != IpNet::npos) {
        m_found.push_back(address);
        std::string broadcast;
        const bool hasBroadcast = IpNet::GetValue(line, "brd", 0, broadcast, true) != IpNet::npos;
        addresses.push_back(ip + " addr add " + address + (hasBroadcast ? " brd " + broadcast : "") + " dev " +
                            m_iface);
      }
    }
    if (ipv6) {
      // Of the IPv6 addresses, the kernel lists the newest first.
      std::reverse(addresses.begin(), addresses.end());
    }
    m_putBack.insert(m_putBack.end(), addresses.begin(), addresses.end());

    // Read from the end, since a route through a gateway needs the route to that gateway, which is listed behind it.
    Lines routes = page::SplitLines(m_steps.System().ExecCmd(ip + " -o route show", false));
    std::reverse(routes.begin(), routes.end());
    for (std::string& route : routes) {
      std::replace(route.begin(), route.end(), '\\', ' ');
      m_routes.push_back(ip + " route add " + route);
      if (StartsWith(route, "default")) {
        m_found.push_back(Trimmed(route));
      }
    }
  }

  Steps& m_steps;
  std::string m_iface;
  Lines m_found;
  Lines m_routes;
  Lines m_putBack;
};

void ShowSteps(Steps& steps, const std::string& iface) {
  steps.SetAddr("Set an IPv4 address", iface, "192.0.2.10", 24, kIpV4);
  steps.SetAddr("Set it again: only looks", iface, "192.0.2.10", 24, kIpV4);
  steps.SetAddr("Replace it", iface, "192.0.2.20", 24, kIpV4);
  steps.SetAddr("Set the IPv6 link-local address of the hardware address", iface, "::", 64, kIpV6);
  steps.ShowInterface(iface);

  steps.SetGw("Set the default gateway, IPv4", iface, "192.0.2.1", kIpV4);
  steps.SetGw("Set it again: only looks", iface, "192.0.2.1", kIpV4);
  steps.SetGw("Replace it", iface, "192.0.2.2", kIpV4);
  steps.SetGw("Set the default gateway, IPv6", iface, "fe80::1", kIpV6);
  steps.ShowGateway(kIpV6);

  steps.SetGw("Remove the default gateway, IPv4", iface, "0.0.0.0", kIpV4);
  steps.SetGw("Remove the default gateway, IPv6", iface, "::", kIpV6);
  steps.SetAddr("Remove the IPv4 address", iface, "", 0, kIpV4);
  steps.SetAddr("Remove the IPv6 address", iface, "", 0, kIpV6);
}

void ShowChanges(Steps& steps, const std::string& iface) {
  const Uninterrupted uninterrupted;
  FormerState formerState(steps, iface);
  try {
    formerState.TakeAway();
    ShowSteps(steps, iface);
  } catch (const std::exception& e) {
    page::Failure(e.what());
    formerState.PutBack();
    throw std::runtime_error("The other steps are left out.");
  }
  formerState.PutBack();
}

/// Throws unless the tool can be found.
void RequireIpTool(Steps& steps) {
  try {
    steps.System().ExecCmd("command -v ip", false);
  } catch (const std::logic_error&) {
    throw std::runtime_error("The tool \"ip\" is not in the PATH: install it, or add /sbin and /usr/sbin to the PATH.");
  }
}

}  // namespace

void ShowNetwork(const std::string& interface) {
  Steps steps;
  RequireIpTool(steps);
  // Names go into shell commands as they are, so that only a name that the kernel knows may pass.
  if (!interface.empty() && ::if_nametoindex(interface.c_str()) == 0) {
    throw std::runtime_error("There is no network interface " + Quoted(interface) + ".");
  }
  if (interface.empty()) {
    steps.ShowInterface("lo");
    steps.ShowGateway(kIpV4);
    steps.ShowGateway(kIpV6);
  } else {
    ShowChanges(steps, interface);
  }
  steps.ShowMissingInterface();
}
