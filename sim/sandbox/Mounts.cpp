#include "sandbox/Mounts.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Descriptor.h"
#include "sandbox/Errors.h"

namespace {

constexpr mode_t kCoveredMode = 0666;  // of a file over which something is mounted

}  // namespace

void MakeFoldersFor(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    ::mkdir(path.substr(0, slash).c_str(), kFolderMode);
  }
}

void MakeEmptyFile(const std::string& path) {
  MakeFoldersFor(path);
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kCoveredMode));
  Require(static_cast<bool>(file), path + " can't be made");
}

void MakeMountsPrivate() {
  // The root may be a folder within a mount, in a chroot: from the namespace's own root on, all can be reached.
  const Descriptor own(::open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC));
  const Descriptor root(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  const Descriptor folder(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  const bool isOut = own && root && ::setns(own.Get(), CLONE_NEWNS) == 0;
  Require<NamespacesForbidden>(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
                               "mounts can't be made private");
  Require<NamespacesForbidden>(!isOut || (::fchdir(root.Get()) == 0 && ::chroot(".") == 0),
                               "the root directory can't be entered again");
  if (folder) {
    [[maybe_unused]] const int result = ::fchdir(folder.Get());
  }
}

bool Bind(const std::string& source, const std::string& target) {
  return ::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

bool MakeReadOnly(const std::string& path) {
  mount_attr attributes{};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  if (::syscall(SYS_mount_setattr, AT_FDCWD, path.c_str(), AT_RECURSIVE, &attributes, sizeof attributes) == 0) {
    return true;
  }
  // Before Linux 5.12: without what is mounted below it, and with the attributes that must be kept.
  constexpr unsigned long kKept = MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_RELATIME | MS_NOATIME | MS_NODIRATIME;
  struct statvfs status {};
  return ::statvfs(path.c_str(), &status) == 0 &&
         ::mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | (status.f_flag & kKept), nullptr) ==
             0;
}

bool BindReadOnly(const std::string& path) {
  return Bind(path, path) && MakeReadOnly(path);
}

void MountEmptyFolder(const std::string& path, const char* options) {
  Require<NamespacesForbidden>(::mount("boardsim", path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options) == 0,
                               path + " can't be mounted");
}
