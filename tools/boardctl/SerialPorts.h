#ifndef BOARDKIT_CTL_SERIALPORTS_H
#define BOARDKIT_CTL_SERIALPORTS_H

#include <optional>
#include <string>
#include <vector>

struct SerialDevice {
  std::string path;
  std::string driver;           // empty if /sys does not have it, or has another device
  std::optional<bool> hasUart;  // false for a node that the kernel keeps for a UART that is not there
};

/// The serial ports in /dev, by their names' numbers; none is opened.
std::vector<SerialDevice> SerialDevices();

#endif
