#include "devices/Device.h"

#include "devices/Memory.h"
#include "devices/Watchdog.h"
#include "devices/line/SerialLine.h"

std::vector<std::unique_ptr<DeviceKind>> AllDeviceKinds() {
  std::vector<std::unique_ptr<DeviceKind>> kinds;
  kinds.push_back(MakeSerialLineKind());
  kinds.push_back(MakeWatchdogKind());
  kinds.push_back(MakeMemoryKind());
  return kinds;
}
