#include "Processes.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

namespace {

bool IsRefusal(int error) {
  return error == EACCES || error == EPERM;
}

/// The names in a folder that are numbers. @p isRefused is set if the user may not look.
std::vector<int> NumbersIn(const std::string& folder, bool* isRefused = nullptr) {
  std::vector<int> numbers;
  const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(folder.c_str()), ::closedir);
  if (!open && IsRefusal(errno) && isRefused != nullptr) {
    *isRefused = true;
  }
  for (const dirent* entry = open ? ::readdir(open.get()) : nullptr; entry != nullptr; entry = ::readdir(open.get())) {
    if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') {
      numbers.push_back(static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
    }
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

/// Device nodes are the same device by their number, wherever they lie; others by themselves.
bool IsSame(const struct stat& left, const struct stat& right) {
  if (S_ISCHR(left.st_mode) && S_ISCHR(right.st_mode)) {
    return left.st_rdev == right.st_rdev;
  }
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

bool HasOpen(const std::string& process, const struct stat& device) {
  for (const int fd : NumbersIn(process + "/fd")) {
    struct stat file {};
    if (::stat((process + "/fd/" + std::to_string(fd)).c_str(), &file) == 0 && IsSame(file, device)) {
      return true;
    }
  }
  return false;
}

/// Whether /proc shows all processes of the board: not those outside of a container, nor with hidepid those of others.
bool ShowsAll() {
  constexpr ino_t kFirst = 0xEFFFFFFC;  // the number of the namespace that the kernel starts with
  struct stat space {};
  struct stat init {};
  const bool isContained = ::stat("/proc/self/ns/pid", &space) == 0 && space.st_ino != kFirst;
  return !isContained && ::stat("/proc/1", &init) == 0;
}

bool LooksIntoAll() {
  bool isRefused = false;
  for (const int number : NumbersIn("/proc")) {
    const std::string files = "/proc/" + std::to_string(number) + "/fd";
    // In a user namespace, the list can be read, but not what it leads to.
    for (const int fd : NumbersIn(files, &isRefused)) {
      struct stat file {};
      isRefused = isRefused || (::stat((files + '/' + std::to_string(fd)).c_str(), &file) == -1 && IsRefusal(errno));
    }
  }
  return !isRefused;
}

}  // namespace

namespace processes {

std::vector<Holder> HoldersOf(const std::string& device) {
  std::vector<Holder> holders;
  struct stat node {};
  if (::stat(device.c_str(), &node) != 0) {
    return holders;
  }
  for (const int number : NumbersIn("/proc")) {
    const std::string process = "/proc/" + std::to_string(number);
    if (number != ::getpid() && HasOpen(process, node)) {
      std::string name;
      std::ifstream comm(process + "/comm");
      std::getline(comm, name);
      holders.push_back({number, Printable(name)});
    }
  }
  return holders;
}

bool SeesAll() {
  static const bool kSeesAll = ShowsAll() && LooksIntoAll();
  return kSeesAll;
}

void AddTo(Json& object, const std::vector<Holder>& holders) {
  Json list = Json::array();
  for (const Holder& holder : holders) {
    list.push_back({{"pid", holder.process}, {"name", holder.name}});
  }
  object["held_by"] = list;
  object["held_by_complete"] = SeesAll();
}

std::string InWords(const std::vector<Holder>& holders) {
  std::string words;
  for (const Holder& holder : holders) {
    words += (words.empty() ? "" : ", ") + holder.name + " (" + std::to_string(holder.process) + ')';
  }
  if (!words.empty()) {
    return words;
  }
  return SeesAll() ? "nobody" : "nobody that this user may see";
}

}  // namespace processes
