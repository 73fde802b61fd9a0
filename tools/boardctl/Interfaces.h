#ifndef BOARDKIT_CTL_INTERFACES_H
#define BOARDKIT_CTL_INTERFACES_H

#include <string>
#include <vector>

class IpNet;

/// A network interface as the kernel lists it; no command is run.
struct Interface {
  struct Address {
    std::string text;
    int prefixLength = 0;
    bool ipv6 = false;

    std::string InWords() const {
      return text + '/' + std::to_string(prefixLength);
    }
  };

  std::string name;
  bool isClean = false;  // nothing in the name means anything to a shell
  bool isUp = false;
  std::vector<Address> addresses;
};

/// The default gateway of a family, as the library reports it.
struct Gateway {
  std::string address;    // empty: there is none
  std::string interface;  // as ip reports it: to be shown, never for a command
  bool isOther = false;   // there is none, but a default route that leads through no gateway, or through several
};
Gateway DefaultGateway(IpNet& net, bool ipv6);

/// All of them, in the kernel's order. @throws std::system_error.
std::vector<Interface> Interfaces();

#endif
