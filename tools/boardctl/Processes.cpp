#include "Processes.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

namespace {

/// The names in a folder that are numbers.
std::vector<int> NumbersIn(const std::string& folder) {
  std::vector<int> numbers;
  const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(folder.c_str()), ::closedir);
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
      holders.push_back({number, name});
    }
  }
  return holders;
}

Json InJson(const std::vector<Holder>& holders) {
  Json list = Json::array();
  for (const Holder& holder : holders) {
    list.push_back({{"pid", holder.process}, {"name", holder.name}});
  }
  return list;
}

std::string InWords(const std::vector<Holder>& holders) {
  std::string words;
  for (const Holder& holder : holders) {
    words += (words.empty() ? "" : ", ") + holder.name + " (" + std::to_string(holder.process) + ')';
  }
  return words.empty() ? "nobody" : words;
}

}  // namespace processes
