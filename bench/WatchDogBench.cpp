#include "WatchDog.h"

#include <fcntl.h>

#include <memory>
#include <stdexcept>

#include "Bare.h"
#include "Benches.h"
#include "Contest.h"
#include "Descriptor.h"
#include "Devices.h"

namespace {

constexpr double kLimit = 1.05;
constexpr long kTurns = 2000;
constexpr long kCalls = 200;   // in a batch: some 20 to 50 microseconds
constexpr int kInterval = 10;  // seconds

/// What both contenders work on: one device, opened by each.
struct Stage {
  Stage() : bare(::open(device.Name().c_str(), O_RDWR | O_CLOEXEC)), dog(kInterval, device.Name()) {
    dog.Activate();
  }

  WatchDogDevice device;
  Descriptor bare;
  WatchDog dog;
};

Contest MakeContest() {
  const auto stage = std::make_shared<Stage>();
  const auto feedBare = [stage] {
    return TimeCalls(kCalls, [fd = stage->bare.Get()] {
      if (!BareFeed(fd)) {
        throw std::runtime_error("a bare feeding failed");
      }
    });
  };
  const auto feedDog = [stage] { return TimeCalls(kCalls, [&dog = stage->dog] { dog.Feed(); }); };
  return {kCalls, kTurns, kLimit, feedBare, feedDog};
}

}  // namespace

void RegisterWatchDogBench(Effort effort) {
  RegisterContest("WatchDog/Feed", effort, MakeContest);
}
