#ifndef BOARDKIT_TESTS_NET_REALIP_H
#define BOARDKIT_TESTS_NET_REALIP_H

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IpNet.h"
#include "OpSystem.h"
#include "TemporaryFolder.h"

using Record = IpNet::Record;
using Lines = std::vector<std::string>;

constexpr bool kIpV4 = false;
constexpr bool kIpV6 = true;
constexpr bool kNoFlush = false;
constexpr bool kFlush = true;

/// Which `ip` the library finds in the PATH.
enum class Tool { kIpRoute2, kBusyBox };
std::ostream& operator<<(std::ostream& out, Tool tool);

/// Two networks of one family, as an interface's addresses and its gateways need them.
struct Family {
  bool ipv6;
  const char* option;
  const char* first;        ///< an address in the first network
  const char* second;       ///< another address in the first network
  const char* third;        ///< an address in the second network
  int prefixLength;         ///< of both networks
  const char* gateway;      ///< in the first network
  const char* gateway2;     ///< in the first network
  const char* farGateway;   ///< in the second network
  const char* target;       ///< a network that is neither of them
  const char* unreachable;  ///< an address that is in none of them
  const char* shownSuffix;  ///< after the prefix length where the kernel lists `first` as the library sets it
  const char* metric;       ///< after a default route that was added without a metric
};
extern const Family kFamily4;
extern const Family kFamily6;
std::ostream& operator<<(std::ostream& out, const Family& family);

/// A test of the library on the real kernel and the real `ip`, in a network of the test's own.
///
/// The network has lo and two pairs of virtual Ethernet interfaces, eth0 with peer0 and eth1 with peer1, all of them up
/// and without addresses; eth0 has the hardware address 02:00:00:00:00:01. Addresses are usable at once: the kernel
/// does not look for duplicates. Whichever tool the library uses, the tests prepare and inspect with iproute2's.
class RealIpTest : public testing::Test {
 protected:
  static constexpr const char* kMac = "02:00:00:00:00:01";

  explicit RealIpTest(Tool tool);
  void SetUp() override;
  void TearDown() override;

  /// Runs iproute2's tool, which must succeed, and returns its output.
  std::string Ip(const std::string& arguments);
  /// What the tool under test prints when it is run with arguments that must make it fail.
  std::string Complaint(const std::string& arguments);
  /// Sets a variable below /proc/sys/net.
  void SetKernelVariable(const std::string& name, const std::string& value);
  void Rename(const std::string& iface, const std::string& name);

  /// The addresses that the kernel has, in its order, each with its prefix length, broadcast address and peer.
  Lines Addresses(const std::string& iface, bool ipv6);
  /// The default routes that the kernel has, in its order.
  Lines DefaultRoutes(bool ipv6);
  /// The routes, default routes or others, that lead through a gateway.
  Lines GatewayRoutes(bool ipv6);

  /// The commands that the library ran since the last call.
  Lines Commands();

  OpSystem system;
  IpNet net{system};

 private:
  void UseBusyBox();

  Tool m_tool;
  std::string m_path;
  std::optional<TemporaryFolder> m_busyBox;
};

#endif
