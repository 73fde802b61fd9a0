#include "sandbox/SystemEntries.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include "sandbox/Errors.h"
#include "sandbox/Mounts.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kClasses = "/sys/class";
constexpr const char* kDevices = "/sys/devices/platform";
constexpr const char* kFolderOptions = "mode=755";

/// The path from the board's devices to what /sys shows of one.
fs::path PlaceOf(const SystemEntry& entry) {
  return fs::path(entry.parent) / entry.subsystem / entry.name;
}

/// What a folder shows.
struct Shown {
  fs::path name;
  fs::path target;  // of a link
  bool isFolder = false;
};

std::vector<Shown> EntriesOf(const fs::path& folder) {
  std::vector<Shown> entries;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    const bool isLink = entry.is_symlink();
    entries.push_back(
        {entry.path().filename(), isLink ? fs::read_symlink(entry.path()) : fs::path(), entry.is_directory()});
  }
  return entries;
}

/// Puts a folder in the place of one of the kernel's, in which nobody can make anything. It shows what that one shows,
/// and besides it what is made in it now.
/// @returns the folder, which can be changed through this alone.
Descriptor MakeRoomIn(const fs::path& folder, const std::function<void()>& make) {
  const Descriptor kernels(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  Require<NamespacesForbidden>(static_cast<bool>(kernels), folder.string() + " can't be opened");
  const std::vector<Shown> entries = EntriesOf(folder);
  MountEmptyFolder(folder, kFolderOptions);
  for (const Shown& entry : entries) {
    const fs::path path = folder / entry.name;
    if (!entry.target.empty()) {
      fs::create_symlink(entry.target, path);
    } else if (entry.isFolder) {
      MakeFoldersFor(path / "");
    } else {
      MakeEmptyFile(path);
    }
  }
  make();
  Descriptor changeable(::open_tree(AT_FDCWD, folder.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC));
  Require<NamespacesForbidden>(changeable && MakeReadOnly(folder), folder.string() + " can't be protected");
  for (const Shown& entry : entries) {
    Require<NamespacesForbidden>(!entry.target.empty() || Bind(PathOf(kernels.Get()) / entry.name, folder / entry.name),
                                 (folder / entry.name).string() + " can't be mounted");
  }
  return changeable;
}

/// One that this kernel may not have.
void MakeFolder(const fs::path& path) {
  fs::path there = path;
  while (!fs::exists(there)) {
    there = there.parent_path();
  }
  if (there != path) {
    MakeRoomIn(there, [&path] { MakeFoldersFor(path / ""); });
  }
}

/// One device of the board, and what belongs to it.
void MakeEntry(const SystemEntry& entry) {
  const fs::path device = fs::path(kDevices) / entry.parent;
  const fs::path folder = kDevices / PlaceOf(entry);
  MakeFoldersFor(folder / "");
  fs::create_symlink(fs::path("../../../bus/platform/drivers") / entry.driver, device / "driver");
  fs::create_symlink("../../../bus/platform", device / "subsystem");
  std::ofstream(device / "uevent") << "DRIVER=" << entry.driver << '\n';
  fs::permissions(device / "uevent", fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  fs::create_symlink("../../../" + entry.parent, folder / "device");
  fs::create_symlink("../../../../../class/" + entry.subsystem, folder / "subsystem");
}

/// All devices of a class, the board's instead of the machine's.
void MakeClass(const std::string& name, const std::vector<const SystemEntry*>& entries) {
  const fs::path folder = fs::path(kClasses) / name;
  MakeFolder(folder);
  MountEmptyFolder(folder, kFolderOptions);
  for (const SystemEntry* entry : entries) {
    fs::create_symlink("../../devices/platform" / PlaceOf(*entry), folder / entry->name);
  }
  Require<NamespacesForbidden>(MakeReadOnly(folder), folder.string() + " can't be protected");
}

}  // namespace

std::vector<std::pair<std::string, Descriptor>> MakeSystemEntries(const std::vector<Node>& nodes,
                                                                  const std::vector<std::string>& classes) {
  std::map<std::string, std::vector<const SystemEntry*>> members;
  for (const std::string& name : classes) {
    // A kernel has only the classes of its drivers.
    if (fs::is_directory(fs::path(kClasses) / name)) {
      members[name];
    }
  }
  for (const Node& node : nodes) {
    if (node.entry) {
      members[node.entry->subsystem].push_back(&*node.entry);
    }
  }
  std::vector<std::pair<std::string, Descriptor>> folders;
  if (members.empty() || !fs::is_directory("/sys")) {
    return folders;
  }

  for (const auto& [name, entries] : members) {
    MakeClass(name, entries);
  }
  MakeFolder(kDevices);
  const Descriptor devices = MakeRoomIn(kDevices, [&nodes] {
    for (const Node& node : nodes) {
      if (node.entry) {
        MakeEntry(*node.entry);
      }
    }
  });
  for (const Node& node : nodes) {
    if (node.entry) {
      folders.emplace_back(node.path,
                           ::openat(devices.Get(), PlaceOf(*node.entry).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
  }
  return folders;
}
