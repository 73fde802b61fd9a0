// A tour of OpSystem and IpNet on a network interface: what is asked, what the library does, what `ip` says then.
#include <net/if.h>

#include <IpNet.h>
#include <OpSystem.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <functional>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* kUsage =
    "Usage: network-tour [IFACE]\n"
    "\n"
    "Shows the network part of the library, step by step. Without IFACE, only steps\n"
    "that change nothing are shown.\n"
    "\n"
    "WARNING: with IFACE, its addresses and the default gateways are taken away for\n"
    "the time of the tour (a second), and set and removed several times. Before that\n"
    "the tour prints what it found, and at its end it puts that back. Connections\n"
    "may break, and lifetimes of addresses are not kept. This needs root's rights,\n"
    "or a network namespace of one's own.\n";

const bool kIpV4 = false;
const bool kIpV6 = true;
const bool kNoFlush = false;
const bool kFlush = true;

using Lines = std::vector<std::string>;

Lines SplitLines(const std::string& text) {
  Lines lines;
  std::istringstream input(text);
  for (std::string line; std::getline(input, line);) {
    lines.push_back(line);
  }
  return lines;
}

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

std::string Quoted(const std::string& text) {
  return '"' + text + '"';
}

std::string Word(bool value) {
  return value ? "true" : "false";
}

// --- Page layout: a heading, then rows with a label
// --------------------------------------------------------------------

void Heading(const std::string& text) {
  static int number = 0;
  ++number;
  std::cout << '\n' << (number < 10 ? " " : "") << number << "  " << text << '\n';
}

void Row(const std::string& label, const Lines& lines) {
  constexpr std::size_t kLabelWidth = 8;
  std::string column = label;
  for (const std::string& line : lines) {
    std::cout << "    " << column << std::string(kLabelWidth - column.size(), ' ') << line << '\n';
    column.clear();
  }
}

Lines Printable(const IpNet::Record& record) {
  Lines lines;
  for (const auto& entry : record) {
    lines.push_back(Quoted(entry.first) + ": " + Quoted(entry.second));
  }
  return lines.empty() ? Lines{"(empty record)"} : lines;
}

// --- The tour
// ----------------------------------------------------------------------------------------------------------

class Tour {
 public:
  Tour() : m_net(m_system) {
    m_net.SetDebugState(true);
  }

  OpSystem& System() {
    return m_system;
  }

  void ShowInterface(const std::string& iface) {
    Heading("What is known of the interface " + iface);
    m_net.ClearDebug();
    const IpNet::Record record = m_net.GetIfaceInfo(iface);
    Row("call", {"GetIfaceInfo(" + Quoted(iface) + ")"});
    Row("result", Printable(record));
    RowsOfTraceAndTool(Addresses("", iface, {"link/", "inet"}));
  }

  void ShowGateway(bool ipv6) {
    Heading(std::string("What is known of the default gateway, IPv") + (ipv6 ? "6" : "4"));
    m_net.ClearDebug();
    const IpNet::Record record = m_net.GetGwInfo(ipv6);
    Row("call", {"GetGwInfo(" + Word(ipv6) + ")"});
    Row("result", Printable(record));
    RowsOfTraceAndTool(DefaultRoutes(ipv6));
  }

  void SetAddr(const std::string& heading, const std::string& iface, const std::string& addr, int prefixLength,
               bool ipv6) {
    Heading(heading);
    m_net.ClearDebug();
    Row("call", {"SetAddr(" + Quoted(iface) + ", " + Quoted(addr) + ", " + std::to_string(prefixLength) + ", " +
                 Word(ipv6) + ", " + Word(kNoFlush) + ")"});
    RowOfChange(m_net.SetAddr(iface, addr, prefixLength, ipv6, kNoFlush));
    RowsOfTraceAndTool(Addresses(Family(ipv6), iface, {"inet"}));
  }

  void SetGw(const std::string& heading, const std::string& iface, const std::string& gw, bool ipv6) {
    Heading(heading);
    m_net.ClearDebug();
    Row("call", {"SetGw(" + Quoted(iface) + ", " + Quoted(gw) + ", " + Word(ipv6) + ", " + Word(kNoFlush) + ")"});
    RowOfChange(m_net.SetGw(iface, gw, ipv6, kNoFlush));
    RowsOfTraceAndTool(DefaultRoutes(ipv6));
  }

  void RunCommand(const std::string& heading, const std::string& command) {
    Heading(heading);
    Row("call", {"ExecCmd(R\"(" + command + ")\", false)"});
    Row("result", SplitLines(m_system.ExecCmd(command, false)));
  }

  void Fail(const std::string& heading, const std::string& call, const std::function<void()>& action) {
    Heading(heading);
    Row("call", {call});
    try {
      action();
      Row("result", {"(no failure)"});
    } catch (const std::logic_error& e) {
      Row("throws", {"std::logic_error, whose what() is the whole output of the command:"});
      Row("", SplitLines(e.what()));
    }
  }

  IpNet& Net() {
    return m_net;
  }

 private:
  static void RowOfChange(bool changed) {
    Row("result", {changed ? "true: changed" : "false: nothing to change"});
  }

  /// The commands that the library ran, which is its debug trace, and what the tool says afterwards.
  void RowsOfTraceAndTool(const Lines& tool) {
    Lines commands = SplitLines(m_net.GetDebugOutput());
    commands.erase(std::remove(commands.begin(), commands.end(), ""), commands.end());
    Row("trace", commands);
    Row("ip says", tool.empty() ? Lines{"(nothing)"} : tool);
  }

  Lines Addresses(const std::string& family, const std::string& iface, const Lines& starts) {
    Lines found;
    for (const std::string& line : SplitLines(m_system.ExecCmd("ip " + family + " addr show dev " + iface, false))) {
      const std::string text = Trimmed(line);
      if (std::any_of(starts.begin(), starts.end(), [&](const std::string& s) { return StartsWith(text, s); })) {
        found.push_back(text);
      }
    }
    return found;
  }

  Lines DefaultRoutes(bool ipv6) {
    Lines found;
    for (const std::string& line : SplitLines(m_system.ExecCmd("ip " + Family(ipv6) + " route show", false))) {
      if (StartsWith(line, "default")) {
        found.push_back(Trimmed(line));
      }
    }
    return found;
  }

  OpSystem m_system;
  IpNet m_net;
};

// --- What was there before -------------------------------------------------------------------------------------------

/// The addresses of an interface, and all routes: read by the constructor, put back by the destructor if taken away.
class FormerState {
 public:
  FormerState(Tour& tour, const std::string& iface) : m_tour(tour), m_iface(iface) {
    for (const bool ipv6 : {kIpV4, kIpV6}) {
      ReadFamily(ipv6);
    }
    m_putBack.insert(m_putBack.end(), m_routes.begin(), m_routes.end());
  }

  ~FormerState() {
    if (!m_taken) {
      return;
    }
    for (const std::string& command : m_putBack) {
      try {
        m_tour.System().ExecCmd(command, false);
      } catch (const std::exception& e) {
        // A route to the interface's own network has come back with the address already.
        if (std::string(e.what()).find("File exists") == std::string::npos) {
          std::cerr << "network-tour: not put back: " << command << ": " << e.what();
        }
      }
    }
    std::cout << "\nThe former addresses and routes of " << m_iface << " are put back.\n";
  }

  FormerState(const FormerState&) = delete;
  FormerState& operator=(const FormerState&) = delete;

  void TakeAway() {
    if (m_found.empty()) {
      return;
    }
    std::cout << '\n' << m_iface << " is in use. These are taken away now and put back at the end:\n\n";
    Row("", m_found);
    m_taken = true;
    for (const bool ipv6 : {kIpV4, kIpV6}) {
      while (m_tour.Net().GetGwInfo(ipv6)["default"] == "via") {
        m_tour.Net().SetGw(m_iface, "", ipv6, kNoFlush);
      }
      m_tour.Net().SetAddr(m_iface, "", 0, ipv6, kFlush);
    }
  }

 private:
  void ReadFamily(bool ipv6) {
    const std::string ip = "ip " + Family(ipv6);
    Lines addresses;
    for (const std::string& line : SplitLines(m_tour.System().ExecCmd(ip + " -o addr show dev " + m_iface, false))) {
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
    Lines routes = SplitLines(m_tour.System().ExecCmd(ip + " -o route show", false));
    std::reverse(routes.begin(), routes.end());
    for (std::string& route : routes) {
      std::replace(route.begin(), route.end(), '\\', ' ');
      m_routes.push_back(ip + " route add " + route);
      if (StartsWith(route, "default")) {
        m_found.push_back(Trimmed(route));
      }
    }
  }

  Tour& m_tour;
  std::string m_iface;
  Lines m_found;
  Lines m_routes;
  Lines m_putBack;
  bool m_taken = false;
};

void ShowChanges(Tour& tour, const std::string& iface) {
  // From here on the tour has to get to its end: it puts back what it found, also when its terminal goes away.
  for (const int signal : {SIGHUP, SIGINT, SIGPIPE, SIGTERM}) {
    std::signal(signal, SIG_IGN);
  }
  FormerState formerState(tour, iface);
  formerState.TakeAway();

  tour.SetAddr("Set an IPv4 address", iface, "192.0.2.10", 24, kIpV4);
  tour.SetAddr("Set it again: only looks", iface, "192.0.2.10", 24, kIpV4);
  tour.SetAddr("Replace it", iface, "192.0.2.20", 24, kIpV4);
  tour.SetAddr("Set the IPv6 link-local address that belongs to the hardware address", iface, "::", 64, kIpV6);
  tour.ShowInterface(iface);

  tour.SetGw("Set the default gateway, IPv4", iface, "192.0.2.1", kIpV4);
  tour.SetGw("Set it again: only looks", iface, "192.0.2.1", kIpV4);
  tour.SetGw("Replace it", iface, "192.0.2.2", kIpV4);
  tour.ShowGateway(kIpV4);
  tour.SetGw("Set the default gateway, IPv6", iface, "fe80::1", kIpV6);
  tour.SetGw("Replace it", iface, "fe80::2", kIpV6);
  tour.ShowGateway(kIpV6);

  tour.SetGw("Remove the default gateway, IPv4", iface, "0.0.0.0", kIpV4);
  tour.SetGw("Remove the default gateway, IPv6", iface, "::", kIpV6);
  tour.SetAddr("Remove the IPv4 address", iface, "", 0, kIpV4);
  tour.SetAddr("Remove the IPv6 address", iface, "", 0, kIpV6);
}

void ShowCommands(Tour& tour) {
  tour.RunCommand("Run a shell command: its standard output and standard error in one text",
                  "{ echo to output; echo to error >&2; }");
  tour.Fail("A command that fails", R"(ExecCmd("ls /no/such/file", false))",
            [&] { tour.System().ExecCmd("ls /no/such/file", false); });
  tour.Fail("An interface that does not exist", R"(GetIfaceInfo("nope0"))", [&] { tour.Net().GetIfaceInfo("nope0"); });
}

/// Throws unless the tool can be found.
void RequireIpTool(Tour& tour) {
  try {
    tour.System().ExecCmd("command -v ip", false);
  } catch (const std::logic_error&) {
    throw std::runtime_error("the tool \"ip\" is not in the PATH: install it, or add /sbin and /usr/sbin to the PATH");
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  const Lines arguments(argv + 1, argv + argc);
  if (arguments == Lines{"--help"} || arguments == Lines{"-h"}) {
    std::cout << kUsage;
    return 0;
  }
  if (arguments.size() > 1 || (arguments.size() == 1 && StartsWith(arguments[0], "-"))) {
    std::cerr << kUsage;
    return 2;
  }

  try {
    Tour tour;
    RequireIpTool(tour);
    // Names go into shell commands as they are, so that only a name that the kernel knows may pass.
    if (!arguments.empty() && ::if_nametoindex(arguments[0].c_str()) == 0) {
      throw std::runtime_error("there is no network interface " + Quoted(arguments[0]));
    }

    std::cout << "Network tour. Of each step: the call and its result; the debug trace (every\n"
                 "command that the library ran); and what the ip tool says afterwards.\n";
    tour.ShowInterface("lo");
    if (arguments.empty()) {
      tour.ShowGateway(kIpV4);
      tour.ShowGateway(kIpV6);
    } else {
      tour.ShowInterface(arguments[0]);
      ShowChanges(tour, arguments[0]);
    }
    ShowCommands(tour);
    return 0;
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << "network-tour: " << Trimmed(e.what()) << '\n';
    return 1;
  }
}
