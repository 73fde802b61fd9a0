#include "WatchdogDevices.h"

#include <linux/watchdog.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace {

namespace fs = std::filesystem;

constexpr const char* kClass = "/sys/class/watchdog";
constexpr const char* kOldDevice = "/dev/watchdog";  // another name of the first one
constexpr const char* kFirst = "watchdog0";
constexpr unsigned int kMiscMajor = 10;
constexpr unsigned int kOldMinor = 130;

/// The first line of a file of /sys; nothing if the driver has none.
std::optional<std::string> LineOf(const fs::path& file) {
  std::ifstream stream(file);
  std::string line;
  return std::getline(stream, line) ? std::make_optional(line) : std::nullopt;
}

std::optional<std::uint64_t> NumberOf(const fs::path& file) {
  std::ifstream stream(file);
  std::uint64_t number = 0;
  return stream >> number ? std::make_optional(number) : std::nullopt;
}

/// The watchdogs in /sys, in order.
std::vector<std::string> Names() {
  std::vector<std::string> names;
  std::error_code none;
  for (const fs::directory_entry& entry : fs::directory_iterator(kClass, none)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// The node in /dev of a watchdog in /sys.
std::string NodeOf(const std::string& name) {
  constexpr std::string_view kKey = "DEVNAME=";
  std::ifstream told(fs::path(kClass) / name / "uevent");
  for (std::string line; std::getline(told, line);) {
    if (line.rfind(kKey, 0) == 0) {
      return "/dev/" + line.substr(kKey.size());
    }
  }
  return "/dev/" + name;
}

bool IsOld(const struct stat& node) {
  return S_ISCHR(node.st_mode) && major(node.st_rdev) == kMiscMajor && minor(node.st_rdev) == kOldMinor;
}

/// The name in /sys of the device of a node; empty if /sys has none.
std::string NameOf(const struct stat& node) {
  // A simulated one is a pipe: its number is the 0:0 that all pipes have, and the node that /sys names has to be this.
  const dev_t number = S_ISCHR(node.st_mode) ? node.st_rdev : 0;
  const std::string text = std::to_string(major(number)) + ':' + std::to_string(minor(number));
  for (const std::string& name : Names()) {
    const bool hasNumber = LineOf(fs::path(kClass) / name / "dev") == text;
    struct stat named {};
    const bool isNode =
        hasNumber && (S_ISCHR(node.st_mode) || (::stat(NodeOf(name).c_str(), &named) == 0 &&
                                                named.st_dev == node.st_dev && named.st_ino == node.st_ino));
    if (isNode || (name == kFirst && IsOld(node))) {
      return name;
    }
  }
  return {};
}

/// Whoever has the device open by one of its names.
std::vector<processes::Holder> HoldersOf(const WatchdogLook& look) {
  std::vector<processes::Holder> holders = processes::HoldersOf(look.device);
  std::vector<std::string> others;
  if (!look.name.empty()) {
    others.push_back(NodeOf(look.name));
  }
  if (look.name == kFirst) {
    others.emplace_back(kOldDevice);
  }
  for (const std::string& other : others) {
    for (const processes::Holder& holder : processes::HoldersOf(other)) {
      if (std::none_of(holders.begin(), holders.end(),
                       [&](const processes::Holder& known) { return known.process == holder.process; })) {
        holders.push_back(holder);
      }
    }
  }
  return holders;
}

template <typename T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json();
}

}  // namespace

WatchdogLook LookAtWatchdog(const std::string& device) {
  struct stat node {};
  if (::stat(device.c_str(), &node) == -1) {
    throw std::system_error(errno, std::generic_category(), " Could not open watchdog device!");
  }

  WatchdogLook look;
  look.device = device;
  look.name = NameOf(node);
  if (look.name.empty() && !IsOld(node) && !S_ISFIFO(node.st_mode)) {
    throw std::runtime_error(device + " is not a watchdog");
  }

  if (!look.name.empty()) {
    const fs::path told = fs::path(kClass) / look.name;
    look.identity = LineOf(told / "identity");
    look.state = LineOf(told / "state");
    look.timeoutS = NumberOf(told / "timeout");
    look.timeLeftS = NumberOf(told / "timeleft");
    look.shortestS = NumberOf(told / "min_timeout");
    look.longestS = NumberOf(told / "max_timeout");
    if (const auto nowayout = NumberOf(told / "nowayout")) {
      look.nowayout = *nowayout != 0;
    }
    if (const auto status = NumberOf(told / "bootstatus")) {
      look.hasReset = (*status & WDIOF_CARDRESET) != 0;
    }
  }
  look.holders = HoldersOf(look);
  return look;
}

std::vector<std::string> WatchdogPaths() {
  std::vector<std::string> paths;
  for (const std::string& name : Names()) {
    paths.push_back(NodeOf(name));
  }
  // One that is not in /sys has only the old name.
  struct stat node {};
  if (::stat(kOldDevice, &node) == 0 && NameOf(node).empty()) {
    paths.emplace_back(kOldDevice);
  }
  return paths;
}

std::vector<Remark> RemarksOn(const WatchdogLook& look) {
  std::vector<Remark> remarks;
  if (look.IsActive() && look.holders.empty()) {
    remarks.push_back({look.device +
                           " counts, and no program that /proc shows has it open. Unless a hidden one does, it was "
                           "left armed, and THE BOARD WILL RESET.",
                       "Take over at once: boardctl watchdog feed " + look.device + '.'});
  }
  if (look.nowayout == true) {
    remarks.push_back({look.device + " has nowayout set: once armed, nothing disarms it.",
                       "If that is not intended, load its driver with nowayout=0."});
  }
  if (look.hasReset == true) {
    remarks.push_back({"The board was last started by a reset of " + look.device + '.',
                       "Look for what stopped feeding it: the log before that start."});
  }
  return remarks;
}

Json InJson(const WatchdogLook& look) {
  Json object = {{"device", look.device},
                 {"identity", OrNull(look.identity)},
                 {"state", OrNull(look.state)},
                 {"timeout_s", OrNull(look.timeoutS)},
                 {"time_left_s", OrNull(look.timeLeftS)},
                 {"min_timeout_s", OrNull(look.shortestS)},
                 {"max_timeout_s", OrNull(look.longestS)},
                 {"nowayout", OrNull(look.nowayout)},
                 {"reset_the_board", OrNull(look.hasReset)}};
  processes::AddTo(object, look.holders);
  return object;
}
