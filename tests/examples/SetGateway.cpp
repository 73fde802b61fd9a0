// Makes an IPv4 gateway the default one: set-gateway INTERFACE GATEWAY
#include <IpNet.h>
#include <OpSystem.h>

#include <exception>
#include <iostream>

int main(int, char* argv[]) {
  try {
    OpSystem system;
    IpNet(system).SetGw(argv[1], argv[2], false, false);
    return 0;
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
    return 1;
  }
}
