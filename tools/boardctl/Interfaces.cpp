#include "Interfaces.h"

#include <IpNet.h>
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "Check.h"
#include "Output.h"

namespace {

bool IsClean(const std::string& name) {
  try {
    check::Interface(name);
    return true;
  } catch (const std::invalid_argument&) {
    return false;
  }
}

int BitsIn(const unsigned char* mask, std::size_t size) {
  int bits = 0;
  for (std::size_t i = 0; i < size; ++i) {
    for (unsigned int byte = mask[i]; byte != 0; byte >>= 1U) {
      bits += static_cast<int>(byte & 1U);
    }
  }
  return bits;
}

template <typename Address, typename Bytes>
Interface::Address AddressOf(const ifaddrs& entry, Bytes Address::*bytes, bool ipv6) {
  // Copied as addresses of the family, which is what they are.
  const Bytes& address = reinterpret_cast<const Address*>(entry.ifa_addr)->*bytes;
  char text[INET6_ADDRSTRLEN] = "";
  ::inet_ntop(ipv6 ? AF_INET6 : AF_INET, &address, text, sizeof text);
  int length = 0;
  if (entry.ifa_netmask != nullptr) {
    const Bytes& mask = reinterpret_cast<const Address*>(entry.ifa_netmask)->*bytes;
    length = BitsIn(reinterpret_cast<const unsigned char*>(&mask), sizeof mask);
  }
  return {text, length, ipv6};
}

}  // namespace

std::vector<Interface> Interfaces() {
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) == -1) {
    throw std::system_error(errno, std::generic_category(), "The interfaces can't be listed");
  }
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(first, ::freeifaddrs);

  std::vector<Interface> interfaces;
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    // The label of a further address, "eth0:1", is no interface.
    const std::string label = entry->ifa_name;
    const std::string name = label.substr(0, label.find(':'));
    auto found =
        std::find_if(interfaces.begin(), interfaces.end(), [&](const Interface& known) { return known.name == name; });
    if (found == interfaces.end()) {
      found = interfaces.insert(found, {name, IsClean(name), (entry->ifa_flags & IFF_UP) != 0, {}});
    }
    if (entry->ifa_addr == nullptr) {
      continue;
    }
    if (entry->ifa_addr->sa_family == AF_INET) {
      found->addresses.push_back(AddressOf(*entry, &sockaddr_in::sin_addr, false));
    } else if (entry->ifa_addr->sa_family == AF_INET6) {
      found->addresses.push_back(AddressOf(*entry, &sockaddr_in6::sin6_addr, true));
    }
  }
  return interfaces;
}

Gateway DefaultGateway(IpNet& net, bool ipv6) {
  const IpNet::Record record = net.GetGwInfo(ipv6);
  const auto way = record.find("default");
  const auto address = record.find("via");
  const auto interface = record.find("dev");
  if (way == record.end()) {
    return {};
  }
  if (way->second != "via" || address == record.end() || interface == record.end()) {
    return {"", "", true};
  }
  return {Printable(address->second), Printable(interface->second)};
}
