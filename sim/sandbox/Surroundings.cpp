#include "sandbox/Surroundings.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "Descriptor.h"
#include "sandbox/Errors.h"
#include "sandbox/Mounts.h"

namespace {

// Through these, programs reach others outside, and resolve names of the network.
constexpr const char* kKeptInRun[] = {"/run/dbus", "/run/user", "/run/systemd", "/run/resolvconf",
                                      "/run/NetworkManager"};

// What the kernel shows to root of itself and of everybody's secrets.
constexpr const char* kHiddenInProc[] = {
    "/proc/acpi",        "/proc/asound",      "/proc/kallsyms",   "/proc/kcore",      "/proc/keys",
    "/proc/kmsg",        "/proc/kpagecgroup", "/proc/kpagecount", "/proc/kpageflags", "/proc/latency_stats",
    "/proc/sched_debug", "/proc/scsi",        "/proc/timer_list", "/proc/timer_stats"};

bool IsFolder(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void Hide(const std::string& path) {
  if (::access(path.c_str(), F_OK) == -1) {
    return;  // kernels differ in what they have
  }
  if (IsFolder(path)) {
    MountEmptyFolder(path, "size=4k,mode=555");
    Require<NamespacesForbidden>(MakeReadOnly(path), path + " can't be hidden");
  } else {
    Require<NamespacesForbidden>(Bind("/dev/null", path), path + " can't be hidden");
  }
}

/// Whether an entry of /proc belongs to the machine and may be written by its owner.
bool MustNotBeWritten(const std::filesystem::path& path) {
  const std::string name = path.filename();
  struct stat status {};
  if (std::find(std::begin(kHiddenInProc), std::end(kHiddenInProc), path) != std::end(kHiddenInProc) ||
      std::all_of(name.begin(), name.end(), [](unsigned char character) { return std::isdigit(character) != 0; }) ||
      ::lstat(path.c_str(), &status) == -1) {
    return false;
  }
  return S_ISDIR(status.st_mode) || (S_ISREG(status.st_mode) && (status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) != 0);
}

}  // namespace

void MountPrivateRun() {
  if (!IsFolder("/run")) {
    return;
  }
  // What is kept is held open, as the new /run covers it.
  std::vector<std::pair<Descriptor, std::string>> kept;
  for (const std::string path : kKeptInRun) {
    if (IsFolder(path)) {
      kept.emplace_back(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC), path);
    }
  }
  MountEmptyFolder("/run", "mode=755");
  for (const auto& [source, path] : kept) {
    ::mkdir(path.c_str(), kFolderMode);
    Require<NamespacesForbidden>(source && Bind(PathOf(source.Get()), path), path + " can't be mounted");
  }
  ::mkdir("/run/lock", kSharedFolderMode);
  // Where these are not links into it, they are folders with the same purpose.
  for (const std::string path : {"/var/lock", "/var/run"}) {
    if (IsFolder(path)) {
      MountEmptyFolder(path, path == "/var/lock" ? "mode=1777" : "mode=755");
    }
  }
}

void MountPrivateProc() {
  Require<NamespacesForbidden>(::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
                               "a private /proc can't be mounted");
  for (const char* path : kHiddenInProc) {
    Hide(path);
  }
  std::vector<std::string> protectedOnes;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    if (MustNotBeWritten(entry.path())) {
      protectedOnes.push_back(entry.path());
    }
  }
  for (const std::string& path : protectedOnes) {
    Require<NamespacesForbidden>(BindReadOnly(path), path + " can't be protected");
  }
}

void AllowNetworkSettings() {
  // The mount below a read-only one may be writable: it is taken from what was there before that.
  const char* const settings = "/proc/sys/net";
  if (IsFolder(settings)) {
    Require<NamespacesForbidden>(
        Bind(settings, settings) &&
            ::mount(nullptr, settings, nullptr, MS_REMOUNT | MS_BIND | MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
        std::string(settings) + " can't be mounted");
  }
}

bool MountSystemFiles() {
  return ::mount("sysfs", "/sys", "sysfs", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0;
}

void ProtectSystemFiles() {
  if (IsFolder("/sys")) {
    Require<NamespacesForbidden>(BindReadOnly("/sys"), "/sys can't be protected");
  }
}
