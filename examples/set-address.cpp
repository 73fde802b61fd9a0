// Gives a network interface an IPv4 address: set-address eth0 192.0.2.10 24
//
// Changes the network. Without a board: boardsim -- set-address eth0 192.0.2.10 24
#include <IpNet.h>
#include <OpSystem.h>

#include <exception>
#include <iostream>
#include <string>

int main(int argc, char* argv[]) {
  if (argc != 4) {
    std::cerr << "Usage: set-address IFACE ADDRESS PREFIXLENGTH\n";
    return 2;
  }
  try {
    // [use]
    // Needs root or CAP_NET_ADMIN. Replaces the first IPv4 address that the interface has.
    OpSystem system;
    IpNet net(system);
    const bool changed = net.SetAddr(argv[1], argv[2], std::stoi(argv[3]), /*ipv6=*/false, /*flush=*/false);
    std::cout << (changed ? "Changed.\n" : "Nothing to do: the address was set already.\n");
    // [use]
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "set-address: " << e.what() << '\n';
    return 1;
  }
}
