#include "Devices.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/watchdog.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace {

constexpr std::chrono::seconds kPatience{10};  // after which a terminal counts as broken

/// What is opened in the place of /dev/mem; null if nothing is.
const char* physicalMemoryFile = nullptr;

template <typename Function>
Function* RealFunction(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

// A last argument that the caller leaves out is handed on unread.
using OpenFunction = int(const char* path, int flags, mode_t mode);
using IoctlFunction = int(int fd, unsigned long request, void* argument);

int OpenAs(OpenFunction* real, const char* path, int flags, mode_t mode) {
  const bool isReplaced = physicalMemoryFile != nullptr && std::strcmp(path, "/dev/mem") == 0;
  return real(isReplaced ? physicalMemoryFile : path, flags, mode);
}

// None of these requests is meant for anything but the devices here, so the descriptor is not looked at.
int IoctlAs(IoctlFunction* real, int fd, unsigned long request, void* argument) {
  switch (request) {
    case TIOCMGET:
      *static_cast<int*>(argument) = 0;
      return 0;
    case TIOCMSET:
    case WDIOC_SETTIMEOUT:
      return 0;
    case WDIOC_KEEPALIVE: {
      int waiting = 0;
      return real(fd, FIONREAD, &waiting);
    }
    default:
      return real(fd, request, argument);
  }
}

[[noreturn]] void ThrowSystemError(const char* message) {
  throw std::system_error(errno, std::system_category(), message);
}

int OpenFarEnd() {
  const int fd = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd == -1 || ::grantpt(fd) == -1 || ::unlockpt(fd) == -1) {
    ThrowSystemError("no pseudo-terminal to measure with");
  }
  return fd;
}

}  // namespace

// In every spelling that the library may have been built with.
extern "C" {

int StandInOpen(const char* path, int flags, mode_t mode) asm("open");
int StandInOpen(const char* path, int flags, mode_t mode) {
  static auto* const real = RealFunction<OpenFunction>("open");
  return OpenAs(real, path, flags, mode);
}

int StandInOpen64(const char* path, int flags, mode_t mode) asm("open64");
int StandInOpen64(const char* path, int flags, mode_t mode) {
  static auto* const real = RealFunction<OpenFunction>("open64");
  return OpenAs(real, path, flags, mode);
}

int StandInIoctl(int fd, unsigned long request, void* argument) asm("ioctl");
int StandInIoctl(int fd, unsigned long request, void* argument) {
  static auto* const real = RealFunction<IoctlFunction>("ioctl");
  return IoctlAs(real, fd, request, argument);
}

#if __SIZEOF_LONG__ == 4 && defined(__GLIBC__)
int StandInIoctlTime64(int fd, unsigned long request, void* argument) asm("__ioctl_time64");
int StandInIoctlTime64(int fd, unsigned long request, void* argument) {
  static auto* const real = RealFunction<IoctlFunction>("__ioctl_time64");
  return IoctlAs(real, fd, request, argument);
}
#endif

}  // extern "C"

Terminal::Terminal() : m_farEnd(OpenFarEnd()) {
  std::array<char, 128> name{};
  if (::ptsname_r(m_farEnd.Get(), name.data(), name.size()) != 0) {
    ThrowSystemError("the pseudo-terminal to measure with has no name");
  }
  m_name = name.data();
}

const std::string& Terminal::Name() const {
  return m_name;
}

void Terminal::Fill(int nearEnd, std::size_t count) const {
  const std::vector<char> bytes(count, '.');
  if (::write(m_farEnd.Get(), bytes.data(), count) != static_cast<ssize_t>(count)) {
    ThrowSystemError("the far end of the pseudo-terminal does not take everything");
  }

  // The kernel hands the bytes over in the background.
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  int waiting = 0;
  while (::ioctl(nearEnd, FIONREAD, &waiting) == 0 && static_cast<std::size_t>(waiting) < count) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("not all bytes arrive at the near end of the pseudo-terminal");
    }
    ::sched_yield();
  }
}

void Terminal::Drain(std::size_t count) const {
  std::array<char, 4096> bytes{};
  while (count != 0) {
    pollfd wanted{m_farEnd.Get(), POLLIN, 0};
    constexpr auto kPatienceMs = std::chrono::milliseconds(kPatience).count();
    if (::poll(&wanted, 1, static_cast<int>(kPatienceMs)) != 1) {
      throw std::runtime_error("not all bytes arrive at the far end of the pseudo-terminal");
    }
    const ssize_t got = ::read(m_farEnd.Get(), bytes.data(), bytes.size());
    if (got <= 0 || static_cast<std::size_t>(got) > count) {
      throw std::runtime_error("wrong bytes arrive at the far end of the pseudo-terminal");
    }
    count -= static_cast<std::size_t>(got);
  }
}

WatchDogDevice::WatchDogDevice() : m_input(::pipe2(m_ends, O_CLOEXEC) == 0 ? m_ends[0] : -1), m_output(m_ends[1]) {}

std::string WatchDogDevice::Name() const {
  return "/proc/self/fd/" + std::to_string(m_input.Get());
}

PhysicalMemory::PhysicalMemory(unsigned int address, std::uint32_t value)
    : m_path(std::filesystem::temp_directory_path() / "boardkit-bench-XXXXXX") {
  const Descriptor file(::mkstemp(m_path.data()));
  const off_t size = static_cast<off_t>(address) + ::getpagesize();
  if (::ftruncate(file.Get(), size) == -1 ||
      ::pwrite(file.Get(), &value, sizeof value, static_cast<off_t>(address)) != sizeof value) {
    const int error = errno;
    ::unlink(m_path.c_str());
    throw std::system_error(error, std::system_category(), "could not write a temporary file to measure with");
  }
  physicalMemoryFile = m_path.c_str();
}

PhysicalMemory::~PhysicalMemory() {
  physicalMemoryFile = nullptr;
  ::unlink(m_path.c_str());
}
