// Shows the addresses of a network interface: ip-configuration lo
//
// Needs no rights.
#include <IpNet.h>
#include <OpSystem.h>

#include <exception>
#include <iostream>

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "Usage: ip-configuration INTERFACE\n";
    return 2;
  }
  try {
    // [use]
    OpSystem system;
    IpNet net(system);
    for (const auto& entry : net.GetIfaceInfo(argv[1])) {
      std::cout << entry.first << " = " << entry.second << '\n';
    }
    // [use]
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "ip-configuration: " << e.what() << '\n';
    return 1;
  }
}
