#ifndef BOARDKIT_SIM_OPTIONS_H
#define BOARDKIT_SIM_OPTIONS_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "devices/Device.h"
#include "sandbox/Network.h"

struct Options {
  bool check = false;
  std::vector<std::unique_ptr<DeviceKind>> devices;  // with what the options say of them
  std::optional<Net> net;                            // none: the user did not say
  bool namespaces = true;
  unsigned int restarts = 0;  // after resets
  std::string log;            // empty: none
  std::string control;        // empty: none
  std::vector<std::string> command;
};

/// Reads the command line.
/// @returns nothing if it has been answered already (--help, --version).
/// @throws SetupError with a sentence on what is wrong.
std::optional<Options> ParseOptions(int argc, const char* const* argv);

#endif
