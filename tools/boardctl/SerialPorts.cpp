#include "SerialPorts.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

namespace {

namespace fs = std::filesystem;

std::string LineOf(const std::string& path) {
  std::string line;
  std::ifstream file(path);
  std::getline(file, line);
  return line;
}

/// ttyS1, ttyUSB0, ttymxc2, rfcomm0; not tty, tty1 or ttyprintk.
bool IsSerial(const std::string& name) {
  const bool isTty = name.rfind("tty", 0) == 0 && name.size() > 4 && (name[3] < '0' || name[3] > '9');
  const bool isRadio = name.rfind("rfcomm", 0) == 0;
  return (isTty || isRadio) && name.back() >= '0' && name.back() <= '9';
}

std::string NameOfTarget(const fs::path& link) {
  std::error_code none;
  return fs::read_symlink(link, none).filename();
}

/// The driver of a port's device. From Linux 6.5 on, two devices of the bus serial-base stand between.
std::string DriverOf(const std::string& link) {
  std::error_code none;
  fs::path device = fs::canonical(link, none);
  while (NameOfTarget(device / "subsystem") == "serial-base") {
    device = device.parent_path();
  }
  return NameOfTarget(device / "driver");
}

/// ttyS2 before ttyS10.
bool IsBefore(const SerialDevice& left, const SerialDevice& right) {
  return left.path.size() != right.path.size() ? left.path.size() < right.path.size() : left.path < right.path;
}

}  // namespace

std::vector<SerialDevice> SerialDevices() {
  std::vector<SerialDevice> devices;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/dev"), ::closedir);
  for (const dirent* entry = folder ? ::readdir(folder.get()) : nullptr; entry != nullptr;
       entry = ::readdir(folder.get())) {
    const std::string name = entry->d_name;
    SerialDevice device{"/dev/" + name, "", std::nullopt};
    struct stat node {};
    if (!IsSerial(name) || ::stat(device.path.c_str(), &node) != 0 || !S_ISCHR(node.st_mode)) {
      continue;
    }
    // A node may be another device than the one of its name.
    const std::string told = "/sys/class/tty/" + name;
    if (LineOf(told + "/dev") == std::to_string(major(node.st_rdev)) + ':' + std::to_string(minor(node.st_rdev))) {
      device.driver = DriverOf(told + "/device");
      const std::string type = LineOf(told + "/type");
      if (!type.empty()) {
        device.hasUart = type != "0";
      }
    }
    devices.push_back(device);
  }
  std::sort(devices.begin(), devices.end(), IsBefore);
  return devices;
}
