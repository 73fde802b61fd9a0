#ifndef BOARDKIT_SIM_SANDBOX_NODE_H
#define BOARDKIT_SIM_SANDBOX_NODE_H

#include <cstdint>
#include <optional>
#include <string>

#include "Descriptor.h"

/// What /sys shows of a device: /sys/class/SUBSYSTEM/NAME.
struct SystemEntry {
  std::string subsystem;
  std::string name;
  std::string parent;  // the part of the board that it is on
  std::string driver;
};

/// A file of the application's, whose other side is a simulated device.
struct Node {
  enum class Kind {
    kTerminal,  // the other side is the master
    kFifo,      // a reading end that does not block
    kFile       // the same file
  };

  std::string path;
  Kind kind = Kind::kFile;
  std::int64_t size = 0;       // of a file
  std::string otherName = {};  // of a FIFO; may be empty
  std::optional<SystemEntry> entry = std::nullopt;
};

/// Makes it under its name, in a /dev of its own.
/// @returns the other side.
/// @throws SetupError
Descriptor MakeNode(const Node& node);
/// Makes the terminal of a node that has been hung up anew, and puts it in its place.
Descriptor RenewNode(const std::string& path);
/// Makes it without a name.
/// @returns the other side.
/// @throws SetupError
Descriptor MakeNamelessNode(const Node& node);

#endif
