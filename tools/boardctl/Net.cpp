#include <IpNet.h>
#include <OpSystem.h>
#include <net/if.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <vector>

#include "Check.h"
#include "Groups.h"
#include "Interfaces.h"
#include "Program.h"
#include "Signals.h"
#include "Status.h"

namespace {

struct NetArguments {
  std::string interface;
  check::Network network;
  check::Address gateway;
  std::string what;
  bool isIpv6 = false;
  bool isFlushed = false;
  bool asksForChange = false;
};

/// What a value was, is or shall be: "192.0.2.10/24", "192.0.2.1 on eth0"; nothing for none.
using Value = std::optional<std::string>;

/// A change of an address or a gateway: what it is about, and what the library will run for it.
struct Change {
  const char* what;  // "address" or "gateway"
  std::string interface;
  bool ipv6 = false;
  Value before;
  Value wanted;
  std::vector<std::string> commands;  // none: nothing has to be changed
};

const char* FamilyOf(bool ipv6) {
  return ipv6 ? "ipv6" : "ipv4";
}

std::string OptionOf(bool ipv6) {
  return ipv6 ? "-6" : "-4";
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    if (end != begin) {
      lines.push_back(text.substr(begin, end - begin));
    }
    begin = end + 1;
  }
  return lines;
}

// --- What ip reports

/// The address of a family in the library's record. What ip reports goes into the next command.
/// @throws std::runtime_error if it is not an address.
Value AddressIn(const IpNet::Record& record, bool ipv6) {
  const std::string key = FamilyOf(ipv6);
  const auto address = record.find(key);
  const auto length = record.find(key + "pflen");
  if (address == record.end() || length == record.end()) {
    return std::nullopt;
  }
  const std::string text = address->second + '/' + length->second;
  try {
    check::IpNetwork(text);
  } catch (const std::invalid_argument&) {
    throw std::runtime_error("ip reports the address \"" + text + "\", which is not an address: nothing was changed");
  }
  return text;
}

struct Route {
  std::string gateway;
  std::string interface;

  std::string InWords() const {
    return gateway + " on " + interface;
  }
};

/// The default route in the library's record, if it goes through a gateway.
/// @throws std::runtime_error if it has none, or if what ip reports must not go into the next command.
std::optional<Route> RouteIn(const IpNet::Record& record, bool ipv6) {
  const auto way = record.find("default");
  const auto gateway = record.find("via");
  const auto interface = record.find("dev");
  if (way == record.end()) {
    return std::nullopt;
  }
  if (way->second != "via" || gateway == record.end() || interface == record.end()) {
    throw std::runtime_error(
        "the default route does not have exactly one gateway, and only such a route can be changed: see ip " +
        OptionOf(ipv6) + " route show, remove it with ip " + OptionOf(ipv6) + " route del default, and try again");
  }
  try {
    check::IpAddress(gateway->second);
    check::Interface(interface->second);
  } catch (const std::invalid_argument&) {
    throw std::runtime_error("ip reports a default route via \"" + gateway->second + "\" on \"" + interface->second +
                             "\", which a shell could misunderstand: nothing was changed");
  }
  return Route{gateway->second, interface->second};
}

/// The addresses of a family as the kernel lists them, without the library.
std::vector<Interface::Address> AddressesOf(const std::string& name, bool ipv6) {
  std::vector<Interface::Address> addresses;
  for (const Interface& interface : Interfaces()) {
    if (interface.name == name) {
      std::copy_if(interface.addresses.begin(), interface.addresses.end(), std::back_inserter(addresses),
                   [&](const Interface::Address& address) { return address.ipv6 == ipv6; });
    }
  }
  return addresses;
}

/// Refuses a name that is not an interface's own. ip takes others too, but lists routes and labels by its own.
void CheckIsOwnName(const std::string& name, IpNet& net) {
  const auto interfaces = Interfaces();
  if (std::any_of(interfaces.begin(), interfaces.end(),
                  [&](const Interface& interface) { return interface.name == name; })) {
    return;
  }
  char own[IF_NAMESIZE] = "";
  if (::if_indextoname(::if_nametoindex(name.c_str()), own) != nullptr) {
    throw std::runtime_error(name + " is another name of " + Printable(own) + ": use that one");
  }
  net.GetIfaceInfo(name);  // ip says that there is none; iproute2 takes "if2" for the second one
  throw std::runtime_error(name + " is not the name of an interface: see boardctl net show");
}

/// Whether removing the first IPv4 address removes them all: the kernel also removes the others of its network.
bool TakesAllAlong(const std::string& interface) {
  const auto addresses = AddressesOf(interface, false);
  return std::all_of(addresses.begin(), addresses.end(), [&](const Interface::Address& address) {
    const Interface::Address& first = addresses.front();
    return address.prefixLength == first.prefixLength && IpNet::GetIpV4NetAddr(address.text, address.prefixLength) ==
                                                             IpNet::GetIpV4NetAddr(first.text, first.prefixLength);
  });
}

// --- show

/// @p name as the library sees it.
void ShowInterface(const Interface& look, IpNet& net, Output& out) {
  const IpNet::Record record = net.GetIfaceInfo(look.name);
  const auto text = [&](const char* key) {
    const auto found = record.find(key);
    return found == record.end() ? Value() : Value(Printable(found->second));
  };
  const auto number = [&](const char* key) {
    const Value told = text(key);
    return told ? Json(std::strtoul(told->c_str(), nullptr, 10)) : Json();
  };
  Json addresses = Json::array();
  std::string words;
  for (const Interface::Address& address : look.addresses) {
    addresses.push_back(address.InWords());
    words += (words.empty() ? "" : ", ") + address.InWords();
  }
  out.Line(look.name + "  " + (look.isUp ? "up" : "down") + ", hardware address " + text("link").value_or("unknown"));
  out.Line("  " + (words.empty() ? "no address" : words));
  out.Object("net_interface", {{"interface", look.name},
                               {"up", look.isUp},
                               {"link", OrNull(text("link"))},
                               {"ipv4", OrNull(text("ipv4"))},
                               {"ipv4_prefix_length", number("ipv4pflen")},
                               {"ipv6", OrNull(text("ipv6"))},
                               {"ipv6_prefix_length", number("ipv6pflen")},
                               {"addresses", addresses}});
}

Value InWords(const Gateway& gateway) {
  return !gateway.address.empty() ? gateway.address + " on " + gateway.interface
                                  : gateway.isOther ? Value("none, but a default route") : std::nullopt;
}

void ShowGateway(bool ipv6, IpNet& net, Output& out) {
  const Gateway gateway = DefaultGateway(net, ipv6);
  const bool isThere = !gateway.address.empty();
  out.Line("gateway " + std::string(FamilyOf(ipv6)) + "  " + InWords(gateway).value_or("none"));
  out.Object("net_gateway", {{"family", FamilyOf(ipv6)},
                             {"gateway", isThere ? Json(gateway.address) : Json()},
                             {"interface", isThere ? Json(gateway.interface) : Json()}});
}

int Show(const NetArguments& arguments, Call& call) {
  OpSystem runner;
  IpNet net(runner);
  int status = kStatusDone;
  if (!arguments.interface.empty()) {
    CheckIsOwnName(arguments.interface, net);
  }
  for (const Interface& interface : Interfaces()) {
    if (!arguments.interface.empty() && interface.name != arguments.interface) {
      continue;
    }
    if (interface.isClean) {
      ShowInterface(interface, net, call.out);
    } else {
      call.out.Warn("boardctl: the interface \"" + interface.name +
                    "\" is skipped: a shell could misunderstand its name. Rename it with ip link set.");
      status = kStatusFailed;
    }
  }
  ShowGateway(false, net, call.out);
  ShowGateway(true, net, call.out);
  return status;
}

// --- Changes

/// The network of a verb that changes something. It notes the commands.
class Network {
 public:
  /// For a verb that names @p interface, or none.
  explicit Network(const std::string& interface) : m_net(m_runner) {
    if (!interface.empty()) {
      CheckIsOwnName(interface, m_net);
    }
    m_net.SetDebugState(true);
  }

  IpNet* operator->() {
    return &m_net;
  }
  IpNet& Get() {
    return m_net;
  }

  /// The commands run since the last time.
  std::vector<std::string> TakeCommands() {
    const auto commands = LinesOf(m_net.GetDebugOutput());
    m_net.ClearDebug();
    return commands;
  }

 private:
  OpSystem m_runner;
  IpNet m_net;
};

std::string NothingThere(const Change& change) {
  const std::string family = change.ipv6 ? "IPv6" : "IPv4";
  return change.what == std::string("gateway") ? "there is no " + family + " default route"
                                               : change.interface + " has no " + family + " address";
}

void Tell(const Change& change, const std::vector<std::string>& asked, const Value& after, bool isDry, Output& out) {
  const bool isChanged = !change.commands.empty();
  const std::string none = "none";
  if (isDry) {
    const char* head = "asked      ";
    for (const std::string& command : asked) {
      out.Line(head + command);
      head = "           ";
    }
    head = "would run  ";
    for (const std::string& command : change.commands) {
      out.Line(head + command);
      head = "           ";
    }
    if (!isChanged) {
      out.Line("nothing has to be changed");
    }
  } else {
    const std::string front = change.interface.empty() ? "" : change.interface + "  ";
    out.Line(isChanged ? front + "was " + change.before.value_or(none) + ", now " + after.value_or(none) + ": changed"
                       : (after ? front + "is " + *after : NothingThere(change)) + ": nothing had to be changed");
  }
  out.Object("net_change", {{"what", change.what},
                            {"interface", change.interface.empty() ? Json() : Json(change.interface)},
                            {"family", FamilyOf(change.ipv6)},
                            {"before", OrNull(change.before)},
                            {"wanted", OrNull(change.wanted)},
                            {"after", OrNull(after)},
                            {"changed", isChanged && !isDry},
                            {"dry_run", isDry},
                            {"commands", change.commands}});
}

/// Makes the change by @p apply, or only shows it. @p look asks what there is.
int Make(Change& change, Network& net, const std::function<void()>& apply, const std::function<Value()>& look,
         const NetArguments& arguments, Call& call) {
  const std::vector<std::string> asked = net.TakeCommands();
  const bool isChanged = !change.commands.empty();
  Value after = change.before;
  if (isChanged && !call.dryRun) {
    // Between removing and adding, there is none: a signal must not end this program or its ip there.
    const signals::Held held(signals::kForItsCommandsToo);
    try {
      apply();
    } catch (const std::exception&) {
      const Value left = look();
      call.out.Warn("boardctl: that failed: " + (left == change.before ? "nothing has changed."
                                                                       : "it was " + change.before.value_or("none") +
                                                                             ", now " + left.value_or("none") + '.'));
      throw;
    }
    // The library asks once more, then runs what was composed.
    change.commands = net.TakeCommands();
    change.commands.erase(change.commands.begin());
    after = look();
  }
  Tell(change, asked, after, call.dryRun, call.out);
  return !isChanged && arguments.asksForChange ? kStatusUnchanged : kStatusDone;
}

/// The first address of a family that the kernel lists.
Value FirstAddress(const std::string& interface, bool ipv6) {
  const auto addresses = AddressesOf(interface, ipv6);
  return addresses.empty() ? Value() : addresses.front().InWords();
}

/// Notes the address that the change is to replace, and returns what ip reports.
/// @throws std::runtime_error if there is one that the library does not read, and so would leave.
IpNet::Record Look(Change& change, Network& net, const NetArguments& arguments) {
  // Before ip is asked: the kernel may add a link-local address meanwhile.
  const Value first = FirstAddress(change.interface, change.ipv6);
  IpNet::Record record = net->GetIfaceInfo(change.interface);
  change.before = AddressIn(record, change.ipv6);
  if (!change.before && first) {
    if (!arguments.isFlushed) {
      throw std::runtime_error(change.interface + " has " + *first +
                               " first, which can't be replaced or removed alone because ip does not list it as usual "
                               "(it may have a peer): nothing is changed; --flush removes all");
    }
    change.before = first;
  }
  return record;
}

/// Makes a change of an address, and warns of a default route that goes with it.
int MakeAddress(Change& change, Network& net, const std::string& address, int length, const NetArguments& arguments,
                Call& call) {
  // The one of the family that the interface has now; other ways out of the board stay.
  const IpNet::Record record = net->GetGwInfo(change.ipv6);
  const auto route = [&](const IpNet::Record& now) {
    return now.count("default") != 0 && now.count("dev") != 0 && now.at("dev") == arguments.interface;
  };
  const bool hadRoute = !change.commands.empty() && change.before && route(record);
  const std::string remedy =
      "boardctl net gateway " + arguments.interface + ' ' + (record.count("via") != 0 ? record.at("via") : "ADDRESS");
  if (hadRoute && call.dryRun && !change.ipv6 && (arguments.isFlushed || TakesAllAlong(arguments.interface))) {
    call.out.Warn("boardctl: the default route will be removed too; set it again then with: " + remedy);
  }
  const auto apply = [&] { net->SetAddr(arguments.interface, address, length, change.ipv6, arguments.isFlushed); };
  const auto look = [&] { return FirstAddress(arguments.interface, change.ipv6); };
  const int status = Make(change, net, apply, look, arguments, call);
  if (hadRoute && !call.dryRun && !route(net->GetGwInfo(change.ipv6))) {
    call.out.Warn("boardctl: the default route was removed too; set it again with: " + remedy);
  }
  return status;
}

/// The commands with which the library replaces an address.
std::vector<std::string> CommandsFor(const Change& change, const NetArguments& arguments) {
  const std::string ip = "ip " + OptionOf(change.ipv6) + " addr ";
  const std::string device = " dev " + arguments.interface;
  std::vector<std::string> commands;
  if (arguments.isFlushed) {
    commands.push_back(ip + "flush" + device);
  } else if (change.before) {
    commands.push_back(ip + "del " + *change.before + device);
  }
  if (change.wanted) {
    commands.push_back(ip + "add " + *change.wanted + (change.ipv6 ? "" : " brd +") + device);
  }
  return commands;
}

/// An address that the interface already has, but not first, could not be added once the first one is removed.
void RefuseFurther(const Change& change, const std::string& address, const NetArguments& arguments) {
  if (arguments.isFlushed) {
    return;
  }
  for (const Interface::Address& there : AddressesOf(arguments.interface, change.ipv6)) {
    if (change.ipv6 ? there.text == address : there.InWords() == change.wanted) {
      throw std::runtime_error(arguments.interface + " has " + there.InWords() +
                               " already, but not as its first address, and only that is replaced: nothing is changed; "
                               "--flush makes it the only one");
    }
  }
}

int SetAddress(const NetArguments& arguments, Call& call) {
  const check::Address& address = arguments.network.address;
  Network net(arguments.interface);
  Change change{"address", arguments.interface, address.ipv6, {}, {}, {}};
  const Value read = AddressIn(Look(change, net, arguments), change.ipv6);
  change.wanted = address.text + '/' + std::to_string(arguments.network.prefixLength);
  if (read != change.wanted) {
    // With IPv6, replacing an address by itself with another length works.
    if (read.value_or("").rfind(address.text + '/', 0) != 0) {
      RefuseFurther(change, address.text, arguments);
    }
    change.commands = CommandsFor(change, arguments);
  }
  return MakeAddress(change, net, address.text, arguments.network.prefixLength, arguments, call);
}

/// Whether it is six bytes with colons between them, and not the zeros of an interface without one, like lo.
bool IsHardwareAddress(const std::string& text) {
  constexpr std::size_t kLength = sizeof "00:11:22:33:44:55" - 1;
  constexpr std::size_t kStep = 3;
  if (text.size() != kLength || text == "00:00:00:00:00:00") {
    return false;
  }
  for (std::size_t i = 0; i < kLength; ++i) {
    const bool isRight = i % kStep == 2 ? text[i] == ':' : std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
    if (!isRight) {
      return false;
    }
  }
  return true;
}

int SetLinkLocal(const NetArguments& arguments, Call& call) {
  Network net(arguments.interface);
  Change change{"address", arguments.interface, true, {}, {}, {}};
  const IpNet::Record record = Look(change, net, arguments);
  const auto hardware = record.find("link");
  if (hardware == record.end() || !IsHardwareAddress(hardware->second)) {
    throw std::runtime_error(arguments.interface + " has no usable hardware address");
  }
  const std::string address = IpNet::GetLinkLocalAddr(hardware->second);
  change.wanted = address + "/64";
  const std::string canonical = check::IpAddress(address).text;
  if (AddressIn(record, true) != canonical + "/64") {
    RefuseFurther(change, canonical, arguments);
    change.commands = CommandsFor(change, arguments);
  }
  return MakeAddress(change, net, "::", 0, arguments, call);
}

Value InWords(const std::optional<Route>& route) {
  return route ? Value(route->InWords()) : std::nullopt;
}

/// Sets the default route to @p wanted, or removes it.
int SetRoute(const std::optional<Route>& wanted, bool ipv6, const NetArguments& arguments, Call& call) {
  Network net(arguments.interface);
  const std::optional<Route> before = RouteIn(net->GetGwInfo(ipv6), ipv6);
  Change change{"gateway", arguments.interface, ipv6, InWords(before), InWords(wanted), {}};
  if (!wanted && before && !arguments.interface.empty() && before->interface != arguments.interface) {
    throw std::runtime_error("the default route goes via " + before->InWords() + ", not via " + arguments.interface +
                             ": nothing is changed");
  }
  if (change.before != change.wanted) {
    const std::string ip = "ip " + OptionOf(ipv6) + " route ";
    if (before) {
      change.commands.push_back(ip + "del default via " + before->gateway + " dev " + before->interface);
    }
    if (wanted) {
      change.commands.push_back(ip + "add default via " + wanted->gateway + " dev " + wanted->interface);
    }
  }
  const auto apply = [&] { net->SetGw(arguments.interface, wanted ? wanted->gateway : "", ipv6, false); };
  Value after;
  const auto look = [&] { return after = InWords(DefaultGateway(net.Get(), ipv6)); };
  const int status = Make(change, net, apply, look, arguments, call);
  if (!wanted && after) {
    call.out.Warn("boardctl: another default route remains: see ip " + OptionOf(ipv6) + " route show default");
  }
  return status;
}

int SetGateway(const NetArguments& arguments, Call& call) {
  return SetRoute(Route{arguments.gateway.text, arguments.interface}, arguments.gateway.ipv6, arguments, call);
}

int Clear(const NetArguments& arguments, Call& call) {
  if (arguments.what == "gateway") {
    if (arguments.isFlushed) {
      throw UsageError("--flush is for addresses");
    }
    return SetRoute(std::nullopt, arguments.isIpv6, arguments, call);
  }
  if (arguments.interface.empty()) {
    throw UsageError("IFACE is required for an address");
  }
  Network net(arguments.interface);
  Change change{"address", arguments.interface, arguments.isIpv6, {}, {}, {}};
  Look(change, net, arguments);
  if (change.before) {
    change.commands = CommandsFor(change, arguments);
  }
  return MakeAddress(change, net, "", 0, arguments, call);
}

// --- The command line

CLI::App& AddNetVerb(Program& program, CLI::App& group, const Verb& verb, int (*run)(const NetArguments&, Call&),
                     NetArguments*& arguments) {
  const auto kept = std::make_shared<NetArguments>();
  arguments = kept.get();
  CLI::App& app = program.AddVerb(&group, verb, [kept, run](Call& call) { return run(*kept, call); });
  if (verb.hasChanged) {
    AddFlag(app, "--changed", kept->asksForChange, "status 3 if nothing had to be changed");
  }
  return app;
}

void AddInterface(CLI::App& app, NetArguments& arguments, const char* description, Presence presence = kOptional) {
  AddArgument(app, "IFACE", "", arguments.interface, check::Interface, description, presence);
}

}  // namespace

void AddNet(Program& program) {
  constexpr const char* kInterface = "1 to 15 characters of A-Z a-z 0-9 _ - . : @";
  constexpr const char* kFlush = "remove all addresses of the family, not only the first one";
  constexpr const char* kRemains =
      "the change, until a reboot or until a DHCP client or network manager changes it. No file is written. It needs "
      "CAP_NET_ADMIN.";
  CLI::App& group = program.AddGroup("net", "IP addresses and gateways: show, change, clear");
  NetArguments* arguments = nullptr;

  CLI::App& show =
      AddNetVerb(program, group,
                 {"show", "Shows interfaces, their addresses, and the default gateways", "[IFACE] [OPTION]...", "",
                  "It runs the board's ip, which only queries.", "net show eth0", "nothing."},
                 Show, arguments);
  AddInterface(show, *arguments, "only this one; 1 to 15 characters of A-Z a-z 0-9 _ - . : @");

  CLI::App& address =
      AddNetVerb(program, group,
                 {"address", "Gives IFACE an address", "IFACE ADDRESS/LENGTH [OPTION]...",
                  "IFACE's first address of ADDRESS's family is REPLACED: the old one is removed first.",
                  "Over ssh, beware: removing an interface's last IPv4 address also removes its default route. If "
                  "adding fails, the old address is gone already. --dry-run prints the ip commands; runs only those "
                  "that query.",
                  "net address eth0 192.0.2.10/24 --dry-run", kRemains, true, true, false, true},
                 SetAddress, arguments);
  AddInterface(address, *arguments, kInterface, kRequired);
  AddArgument(address, "ADDRESS/LENGTH", "", arguments->network, check::HostNetwork,
              "192.0.2.10/24, 2001:db8::10/64; to remove one: boardctl net clear", kRequired);
  AddFlag(address, "--flush", arguments->isFlushed, kFlush);

  CLI::App& local = AddNetVerb(
      program, group,
      {"link-local", "Gives IFACE the IPv6 link-local address of its hardware address", "IFACE [OPTION]...",
       "IFACE's first IPv6 address is REPLACED.", "--dry-run prints the ip commands; runs only those that query.",
       "net link-local eth0", kRemains, true, true, false, true},
      SetLinkLocal, arguments);
  AddInterface(local, *arguments, kInterface, kRequired);
  AddFlag(local, "--flush", arguments->isFlushed, kFlush);

  CLI::App& gateway = AddNetVerb(
      program, group,
      {"gateway", "Sets the default gateway", "IFACE ADDRESS [OPTION]...",
       "The default route of ADDRESS's family is REPLACED: the old one is removed first, and stays removed if "
       "adding fails.",
       "--dry-run prints the ip commands; runs only those that query.", "net gateway eth0 192.0.2.1", kRemains, true,
       true, false, true},
      SetGateway, arguments);
  AddInterface(gateway, *arguments, kInterface, kRequired);
  AddArgument(gateway, "ADDRESS", "", arguments->gateway, check::HostAddress, "192.0.2.1, 2001:db8::1", kRequired);

  CLI::App& clear = AddNetVerb(
      program, group,
      {"clear", "Removes an address of IFACE, or the default route",
       "address IFACE [OPTION]...\n"
       "       boardctl net clear gateway [IFACE] [OPTION]...",
       "Over ssh, this may cut the connection: removing an interface's last IPv4 address also removes its default "
       "route.",
       "With IFACE, a default route via another interface stays. Of several default routes, only the first one is "
       "removed, and it is reported that another remains. --dry-run prints the ip commands; runs only "
       "those that query.",
       "net clear address eth0 --ipv6", kRemains, true, true, false, true},
      Clear, arguments);
  static const std::map<std::string, std::string> kWhat = {{"address", "address"}, {"gateway", "gateway"}};
  AddArgument(
      clear, "WHAT", "", arguments->what, [](const std::string& text) { return check::OneOf(text, kWhat); },
      "address or gateway", kRequired);
  AddInterface(clear, *arguments, kInterface);
  AddFlag(clear, "--ipv6", arguments->isIpv6, "the first IPv6 address, or the IPv6 route, not that of IPv4");
  AddFlag(clear, "--flush", arguments->isFlushed, kFlush);
}
