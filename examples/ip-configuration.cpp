// Shows the addresses of an interface, or of lo: ip-configuration eth0
// Needs no special privileges.
#include <IpNet.h>
#include <OpSystem.h>

#include <exception>
#include <iostream>

int main(int argc, char* argv[]) {
  try {
    const char* const iface = argc > 1 ? argv[1] : "lo";
    // [use]
    OpSystem system;
    IpNet net(system);
    for (const auto& entry : net.GetIfaceInfo(iface)) {
      std::cout << entry.first << " = " << entry.second << '\n';
    }
    // [use]
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "ip-configuration: " << e.what() << '\n';
    return 1;
  }
}
