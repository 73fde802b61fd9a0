#include "IpNet.h"

#include <cstddef>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "Bare.h"
#include "Benches.h"
#include "Contest.h"

namespace {

constexpr double kLimit = 1.2;
constexpr long kTurns = 20;
constexpr unsigned int kLines = 1'000'000;

constexpr char kKey[] = "default";

/// What `ip route show` lists on a router that learns its routes, except that the default route comes last.
std::string MakeRoutes() {
  std::string routes;
  for (unsigned int i = 1; i < kLines; ++i) {
    char line[160];
    std::snprintf(line, sizeof line, "10.%u.%u.%u via 192.168.%u.1 dev eth%u proto bgp src 192.168.%u.10 metric 100 \n",
                  i >> 16 & 0xFF, i >> 8 & 0xFF, i & 0xFF, i % 4, i % 4, i % 4);
    routes += line;
  }
  return routes + "default via 192.168.0.1 dev eth0 proto dhcp src 192.168.0.10 metric 100 \n";
}

void Check(bool found) {
  if (!found) {
    throw std::runtime_error("the default route was not found");
  }
}

/// @p measured is called with the routes and has to find the default one.
template <typename Measured>
Contest MakeContest(Measured measured) {
  const auto routes = std::make_shared<const std::string>(MakeRoutes());
  const std::size_t position = routes->rfind(kKey);
  return {1, kTurns, kLimit, [=] { return TimeCalls(1, [&] { Check(BareFind(*routes, kKey) == position); }); },
          [=] { return TimeCalls(1, [&] { Check(measured(*routes)); }); }};
}

bool FindValue(const std::string& routes) {
  std::string value;
  return IpNet::GetValue(routes, kKey, 0, value, false) != IpNet::npos && value == "via";
}

bool FindValues(const std::string& routes) {
  const IpNet::Record values = IpNet::GetValues(routes, {kKey, "via", "dev"}, {});
  return values == IpNet::Record{{kKey, "via"}, {"via", "192.168.0.1"}, {"dev", "eth0"}};
}

}  // namespace

void RegisterIpNetBench(Effort effort) {
  RegisterContest("IpNet/GetValue/1M-lines", effort, [] { return MakeContest(FindValue); });
  RegisterContest("IpNet/GetValues/1M-lines", effort, [] { return MakeContest(FindValues); });
}
