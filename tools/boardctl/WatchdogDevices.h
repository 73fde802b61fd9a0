#ifndef BOARDKIT_CTL_WATCHDOGDEVICES_H
#define BOARDKIT_CTL_WATCHDOGDEVICES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Output.h"
#include "Processes.h"

/// A watchdog looked at from outside: opening it would arm it.
struct WatchdogLook {
  std::string device;
  std::string name;  // in /sys/class/watchdog; empty if the kernel shows nothing without opening
  std::optional<std::string> identity;
  std::optional<std::string> state;  // "active" or "inactive"
  std::optional<std::uint64_t> timeoutS;
  std::optional<std::uint64_t> timeLeftS;
  std::optional<std::uint64_t> shortestS;  // 0: no limit
  std::optional<std::uint64_t> longestS;
  std::optional<bool> nowayout;
  std::optional<bool> hasReset;  // it has reset the board
  std::vector<processes::Holder> holders;

  bool IsActive() const {
    return state == "active";
  }
};

/// What the kernel shows of @p device in /sys, and who has it open.
/// @throws std::system_error with the library's text for a device that can't be opened, if there is none of that name;
/// std::runtime_error if it is something else.
WatchdogLook LookAtWatchdog(const std::string& device);

/// The watchdogs of the board, each once.
std::vector<std::string> WatchdogPaths();

struct Remark {
  std::string what;
  std::string remedy;
};
/// What is unusual about it.
std::vector<Remark> RemarksOn(const WatchdogLook& look);

/// The members of its JSON object.
Json InJson(const WatchdogLook& look);

#endif
