#include "board/Answers.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kMostNames = 41;  // as many links as the kernel follows, and the first one

std::string ProcessFolder(const TrappedCall& call) {
  return "/proc/" + std::to_string(call.Thread()) + '/';
}

/// The path that the application means, from its root on: it may be relative to its folder or to an open one.
std::filesystem::path AbsolutePath(const TrappedCall& call, int folder, const std::string& path) {
  if (path.front() == '/') {
    return path;
  }
  const std::string base = folder == AT_FDCWD ? "cwd" : "fd/" + std::to_string(folder);
  std::error_code error;
  return std::filesystem::read_symlink(ProcessFolder(call) + base, error) / path;
}

/// The file that the application means, as it sees it: its links lead through its own /dev.
/// @returns false if it is not there, or only for the application itself.
bool Resolve(const TrappedCall& call, const std::filesystem::path& path, struct stat& status) {
  const Descriptor root(::open((ProcessFolder(call) + "root").c_str(), O_PATH | O_CLOEXEC));
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_IN_ROOT;
  const Descriptor file(static_cast<int>(::syscall(SYS_openat2, root.Get(), path.c_str(), &how, sizeof how)));
  return file && ::fstat(file.Get(), &status) == 0;
}

/// Whether a thread's user and groups give it a right to a file that not everybody has.
/// @param wanted bits of S_IRWXO.
bool HasRight(const TrappedCall& call, const struct stat& file, mode_t wanted) {
  std::ifstream status(ProcessFolder(call) + "status");
  uid_t user = 0;
  gid_t group = 0;
  bool isInGroup = false;
  std::uint64_t capabilities = 0;
  for (std::string line; std::getline(status, line);) {
    std::istringstream words(line);
    std::string name;
    std::string skipped;
    words >> name;
    if (name == "Uid:") {
      words >> skipped >> skipped >> skipped >> user;  // that for files comes last
    } else if (name == "Gid:") {
      words >> skipped >> skipped >> skipped >> group;
      isInGroup = group == file.st_gid;
    } else if (name == "Groups:") {
      while (words >> group) {
        isInGroup = isInGroup || group == file.st_gid;
      }
    } else if (name == "CapEff:") {
      words >> std::hex >> capabilities;
    }
  }
  constexpr unsigned int kOwnerShift = 6;
  constexpr unsigned int kGroupShift = 3;
  const unsigned int shift = user == file.st_uid ? kOwnerShift : isInGroup ? kGroupShift : 0;
  return (capabilities >> CAP_DAC_OVERRIDE & 1) != 0 || (file.st_mode >> shift & wanted) == wanted;
}

/// The names of a file: the one that was called, and those that it links to.
std::vector<std::string> NamesOf(const std::filesystem::path& path) {
  std::vector<std::string> names;
  std::filesystem::path name = path.lexically_normal();
  std::error_code error;
  while (!error && names.size() < kMostNames) {
    names.push_back(name);
    name = (name.parent_path() / std::filesystem::read_symlink(name, error)).lexically_normal();
  }
  return names;
}

/// @returns null if there is none.
template <typename Condition>
Device* Find(const Devices& devices, const Condition& condition) {
  const auto found = std::find_if(devices.begin(), devices.end(),
                                  [&](const std::unique_ptr<Device>& device) { return condition(*device); });
  return found == devices.end() ? nullptr : found->get();
}

/// No error for a device of fixed size: a program that resizes its output file would give up.
void ResizeUnlessFixed(const TrappedCall& call, const Device* device) {
  device != nullptr && device->HasFixedSize() ? call.Return(0) : call.Continue();
}

}  // namespace

void Answers::Give(const TrappedCall& call) {
  try {
    if (call.IsIoctl()) {
      GiveIoctl(call);
    } else if (call.IsFtruncate()) {
      GiveFtruncate(call);
    } else {
      GiveOpen(call);
    }
  } catch (const RequestError& refused) {
    call.Fail(refused.error);
  }
}

/// The device that the descriptor of a call means; null: none.
Device* Answers::DeviceBehind(const TrappedCall& call) {
  // However the application got the descriptor, its file identifies the device.
  struct stat status {};
  if (!m_caller.StatDescriptor(call, call.CalledDescriptor(), status)) {
    return nullptr;
  }
  return Find(m_devices, [file = FileId::Of(status)](const Device& device) { return device.Is(file); });
}

void Answers::GiveIoctl(const TrappedCall& call) {
  Device* const device = DeviceBehind(call);
  if (device != nullptr && !call.IsForeign()) {
    device->Request(call);
    return;
  }
  if (device != nullptr) {
    TellOfForeignProgram(call);
  }
  call.Continue();
}

void Answers::GiveFtruncate(const TrappedCall& call) {
  const Device* device = DeviceBehind(call);
  ResizeUnlessFixed(call, device);
}

/// Says so once: it may be a terminal program, which makes many requests.
void Answers::TellOfForeignProgram(const TrappedCall& call) {
  if (m_hasTold) {
    return;
  }
  m_hasTold = true;
  std::string program;
  std::getline(std::ifstream(ProcessFolder(call) + "comm"), program);
  std::fprintf(stderr,
               "boardsim: %s is a 32-bit program, which can't be supervised: its requests to the devices fail.\n",
               program.c_str());
}

/// Checks all flags: the filter could not see those of openat2().
bool Answers::MayBeOfDevice(const TrappedCall::Opening& opening) const {
  if ((opening.flags & (O_PATH | O_DIRECTORY)) != 0 || opening.resolve != 0) {
    return false;
  }
  const bool isFile = m_namespaces && (opening.flags & O_CREAT) != 0;
  return (opening.flags & O_TRUNC) != 0 || ((opening.flags & O_ACCMODE) != O_RDONLY && !isFile);
}

/// The device that an open means; null: none.
/// @param status is left as it is where no device lies under its name.
Device* Answers::DeviceMeant(const TrappedCall& call, const std::filesystem::path& path, struct stat& status) {
  if (!m_namespaces) {
    // No such file exists: only the text of the name can be compared.
    const std::vector<std::string> names = NamesOf(path);
    return Find(m_devices, [&names](const Device& device) {
      return std::any_of(names.begin(), names.end(), [&](const std::string& name) { return device.IsCalled(name); });
    });
  }
  const auto isIt = [&status](const Device& device) { return device.Is(FileId::Of(status)); };
  // Usually it is the device's own name, and leads to it. Others may be links, absolute ones too.
  Device* device = Find(m_devices, [&path](const Device& named) { return named.IsCalled(path); });
  if (device != nullptr && m_caller.StatName(call, "root" + path.string(), status) && isIt(*device)) {
    return device;
  }
  return Resolve(call, path, status) ? Find(m_devices, isIt) : nullptr;
}

void Answers::GiveOpen(const TrappedCall& call) {
  TrappedCall::Opening opening{};
  std::string path;
  try {
    opening = call.Open();
    path = call.PathOf(opening);
  } catch (const RequestError&) {
    // Left empty: as far as can be seen here, it is not one of the devices.
  }
  if (path.empty() || !MayBeOfDevice(opening)) {
    call.Continue();
    return;
  }

  struct stat status {};
  status.st_mode = ALLPERMS;
  Device* const device = DeviceMeant(call, AbsolutePath(call, opening.folder, path), status);
  if (!call.IsWaiting()) {
    return;
  }
  if (call.IsTruncate()) {
    ResizeUnlessFixed(call, device);
    return;
  }
  if (device == nullptr || !MayOpen(call, status, opening.flags)) {
    call.Continue();
    return;
  }
  if (m_namespaces && !device->HandsOut(opening.flags)) {
    device->Opened();
    call.Continue();
    return;
  }
  HandOut(call, opening, *device);
}

/// Whether the kernel would let the thread open a device.
bool Answers::MayOpen(const TrappedCall& call, const struct stat& file, int flags) {
  constexpr mode_t kEach = S_IXUSR | S_IXGRP | S_IXOTH;
  const int access = flags & O_ACCMODE;
  const mode_t wanted = (access != O_WRONLY ? S_IROTH : 0U) | (access != O_RDONLY ? S_IWOTH : 0U);
  const auto gives = [&](mode_t who) { return (file.st_mode & wanted * who) == wanted * who; };
  // Usually everybody may open it, or its owner calls.
  struct stat caller {};
  return gives(kEach) || (gives(S_IXUSR) && m_caller.StatName(call, ".", caller) && caller.st_uid == file.st_uid) ||
         HasRight(call, file, wanted);
}

/// Answers with a descriptor of the device.
void Answers::HandOut(const TrappedCall& call, const TrappedCall::Opening& opening, Device& device) const {
  device.Opened();
  int error = 0;
  try {
    error = call.ReturnDescriptor(device.Open(opening.flags), opening);
  } catch (const RequestError& refused) {
    error = refused.error;
  }
  if (error == EINVAL && m_namespaces) {
    call.Continue();
  } else if (error != 0) {
    device.NotOpened();
    call.Fail(error);
  }
}
