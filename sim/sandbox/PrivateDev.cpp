#include "sandbox/PrivateDev.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "Descriptor.h"
#include "sandbox/Errors.h"
#include "sandbox/Mounts.h"

namespace {

/// What every program needs in /dev.
struct Entry {
  const char* path;
  const char* link;  // where it leads; null: it is the machine's own
};
constexpr Entry kEntries[] = {{"/dev/null", nullptr},
                              {"/dev/zero", nullptr},
                              {"/dev/full", nullptr},
                              {"/dev/random", nullptr},
                              {"/dev/urandom", nullptr},
                              {"/dev/tty", nullptr},
                              {"/dev/mqueue", nullptr},
                              {"/dev/log", nullptr},
                              {"/dev/ptmx", "pts/ptmx"},
                              {"/dev/fd", "/proc/self/fd"},
                              {"/dev/stdin", "/proc/self/fd/0"},
                              {"/dev/stdout", "/proc/self/fd/1"},
                              {"/dev/stderr", "/proc/self/fd/2"}};
// Its own.
constexpr const char* kTerminals = "/dev/pts";
constexpr const char* kSharedMemory = "/dev/shm";

/// Shows a file or folder of the machine in the new /dev, where there is one.
void TakeOver(const Descriptor& source, const std::string& target) {
  if (!source) {
    return;
  }
  struct stat status {};
  ::fstat(source.Get(), &status);
  const bool isFolder = S_ISDIR(status.st_mode);
  if (isFolder) {
    ::mkdir(target.c_str(), kFolderMode);
  } else {
    MakeEmptyFile(target);
  }
  // Root on the board may be root of the machine: the node's owner and rights are not the board's to change.
  Require<NamespacesForbidden>(Bind(PathOf(source.Get()), target) && (isFolder || MakeReadOnly(target)),
                               target + " can't be mounted");
}

bool IsIn(const std::string& path, const std::string& place) {
  return path == place || path.rfind(place + '/', 0) == 0;
}

}  // namespace

void MountPrivateDev() {
  // What is taken over is held open, as the new /dev covers it.
  std::vector<std::pair<Descriptor, std::string>> taken;
  for (const Entry& entry : kEntries) {
    if (entry.link == nullptr) {
      taken.emplace_back(::open(entry.path, O_PATH | O_CLOEXEC), entry.path);
    }
  }
  Require<NamespacesForbidden>(::mount("boardsim", "/dev", "tmpfs", MS_NOSUID, "mode=755") == 0,
                               "a private /dev can't be mounted");
  for (const auto& [source, target] : taken) {
    TakeOver(source, target);
  }

  ::mkdir(kSharedMemory, kSharedFolderMode);
  MountEmptyFolder(kSharedMemory, "mode=1777");
  ::mkdir(kTerminals, kFolderMode);
  Require<NamespacesForbidden>(
      ::mount("boardsim", kTerminals, "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=620") == 0,
      "private terminals can't be mounted");
  for (const Entry& entry : kEntries) {
    if (entry.link != nullptr) {
      Require<NamespacesForbidden>(::symlink(entry.link, entry.path) == 0, std::string(entry.path) + " can't be made");
    }
  }
}

std::string CheckedNode(const std::string& option, const std::string& path) {
  const std::string inside = path + '/';
  const bool clean = path.rfind("/dev/", 0) == 0 && path.find("//") == std::string::npos &&
                     inside.find("/./") == std::string::npos && inside.find("/../") == std::string::npos &&
                     path.back() != '/';
  if (!clean) {
    throw SetupError(option + " needs a path below /dev, not \"" + path + "\".");
  }
  bool isNeeded = IsIn(path, kTerminals) || IsIn(path, kSharedMemory);
  for (const Entry& entry : kEntries) {
    isNeeded = isNeeded || IsIn(path, entry.path);
  }
  if (isNeeded) {
    throw SetupError(option + " can't be " + path + ": every program needs that one as it is.");
  }
  return path;
}
