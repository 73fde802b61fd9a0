#include "board/Answers.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kMostNames = 41;  // as many links as the kernel follows, and the first one

std::string ProcessFolder(const TrappedCall& call) {
  return "/proc/" + std::to_string(call.Thread()) + '/';
}

/// The path that the application means, from its root on: it may begin at its folder, or at one that it has open.
std::filesystem::path AbsolutePath(const TrappedCall& call, int folder, const std::string& path) {
  if (path.front() == '/') {
    return path;
  }
  const std::string base = folder == AT_FDCWD ? "cwd" : "fd/" + std::to_string(folder);
  std::error_code error;
  return std::filesystem::read_symlink(ProcessFolder(call) + base, error) / path;
}

/// The file that the application means, as it sees it: its links lead through its own /dev.
/// @returns no file's identity if it is not there, or only for the application itself.
FileId FileOf(const TrappedCall& call, const std::filesystem::path& path) {
  const Descriptor root(::open((ProcessFolder(call) + "root").c_str(), O_PATH | O_CLOEXEC));
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_IN_ROOT;
  const Descriptor file(static_cast<int>(::syscall(SYS_openat2, root.Get(), path.c_str(), &how, sizeof how)));
  return file ? FileId::Of(file) : FileId();
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

/// Programs that take a file's name for that of a file would give up at an error.
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
Device* Answers::DeviceBehind(const TrappedCall& call) const {
  // Whichever way the descriptor came to the application, it is known by the file behind it.
  struct stat status {};
  const std::string name = ProcessFolder(call) + "fd/" + std::to_string(call.CalledDescriptor());
  if (::stat(name.c_str(), &status) != 0 || !call.IsWaiting()) {
    return nullptr;
  }
  const FileId file = FileId::Of(status);
  const auto device = std::find_if(m_devices.begin(), m_devices.end(),
                                   [&](const std::unique_ptr<Device>& candidate) { return candidate->Is(file); });
  return device == m_devices.end() ? nullptr : device->get();
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

void Answers::GiveFtruncate(const TrappedCall& call) const {
  const Device* device = DeviceBehind(call);
  ResizeUnlessFixed(call, device);
}

/// Once: it may be a terminal program, which asks often.
void Answers::TellOfForeignProgram(const TrappedCall& call) {
  if (m_hasTold) {
    return;
  }
  m_hasTold = true;
  std::string program;
  std::getline(std::ifstream(ProcessFolder(call) + "comm"), program);
  std::fprintf(stderr,
               "boardsim: %s is a program of 32 bits, which can't be supervised: its requests to the devices fail.\n",
               program.c_str());
}

/// What openat2() asks for, the filter could not see.
bool Answers::MayBeOfDevice(const TrappedCall::Opening& opening) const {
  if ((opening.flags & (O_PATH | O_DIRECTORY)) != 0 || opening.resolve != 0) {
    return false;
  }
  const bool isFile = m_namespaces && (opening.flags & O_CREAT) != 0;
  return (opening.flags & O_TRUNC) != 0 || ((opening.flags & O_ACCMODE) != O_RDONLY && !isFile);
}

void Answers::GiveOpen(const TrappedCall& call) const {
  TrappedCall::Opening opening{};
  std::string path;
  try {
    opening = call.Open();
    path = call.PathOf(opening);
  } catch (const RequestError&) {
    // Left empty: it can't be one of the devices, as far as anybody here can tell.
  }
  if (path.empty() || !MayBeOfDevice(opening)) {
    call.Continue();
    return;
  }

  const std::filesystem::path absolute = AbsolutePath(call, opening.folder, path);
  // A name that nobody has made: there is only the text to go by.
  const std::vector<std::string> names = m_namespaces ? std::vector<std::string>() : NamesOf(absolute);
  const FileId file = m_namespaces ? FileOf(call, absolute) : FileId();
  const auto isMeant = [&](const std::unique_ptr<Device>& device) {
    return m_namespaces ? device->Is(file) : std::any_of(names.begin(), names.end(), [&](const std::string& name) {
      return device->IsCalled(name);
    });
  };
  const auto device = std::find_if(m_devices.begin(), m_devices.end(), isMeant);
  if (!call.IsWaiting()) {
    return;
  }
  if (device == m_devices.end()) {
    call.Continue();
    return;
  }
  if (call.IsTruncate()) {
    ResizeUnlessFixed(call, device->get());
    return;
  }
  (*device)->Opened();
  const bool isHandedOut = !m_namespaces || (*device)->HandsOut(opening.flags);
  if (isHandedOut && call.ReturnDescriptor((*device)->Open(opening.flags), opening)) {
    return;
  }
  m_namespaces ? call.Continue() : call.Fail(EINVAL);
}
