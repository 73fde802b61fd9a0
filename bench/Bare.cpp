#include "Bare.h"

#include <cxxabi.h>
#include <execinfo.h>
#include <fcntl.h>
#include <linux/watchdog.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

bool BareWrite(int fd, const void* data, std::size_t length) {
  return ::write(fd, data, length) == static_cast<ssize_t>(length);
}

bool BareRead(int fd, void* buffer, std::size_t length) {
  return ::read(fd, buffer, length) == static_cast<ssize_t>(length);
}

bool BareReadAvailable(int fd, std::vector<unsigned char>& bytes) {
  bytes.clear();
  int count = 0;
  if (::ioctl(fd, FIONREAD, &count) == -1) {
    return false;
  }

  for (; count > 0; --count) {
    unsigned char byte = 0;
    if (::read(fd, &byte, 1) != 1) {
      return false;
    }
    bytes.push_back(byte);
  }
  return true;
}

bool BarePoll(int fd, int timeoutMs) {
  pollfd wanted{fd, POLLIN, 0};
  const int ready = ::poll(&wanted, 1, timeoutMs);
  if (ready == -1) {
    throw std::runtime_error("the bare poll failed");
  }
  return ready == 1;
}

bool BareFeed(int fd) {
  return ::ioctl(fd, WDIOC_KEEPALIVE, 0) != -1;
}

unsigned int BareReadPhysicalMemory(unsigned int address) {
  const int fd = ::open("/dev/mem", O_RDWR);
  if (fd == -1) {
    throw std::runtime_error("the bare open failed");
  }

  const auto pageSize = static_cast<unsigned int>(::getpagesize());
  const unsigned int offset = address % pageSize;
  void* const page =
      ::mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(address - offset));
  if (page == MAP_FAILED) {
    ::close(fd);
    throw std::runtime_error("the bare mmap failed");
  }

  const std::uint32_t value = *reinterpret_cast<volatile std::uint32_t*>(static_cast<char*>(page) + offset);
  ::munmap(page, pageSize);
  ::close(fd);
  return value;
}

std::string BareTraceback() {
  constexpr int kMostFrames = 20;
  void* addresses[kMostFrames];
  const int count = ::backtrace(addresses, kMostFrames);
  char** const lines = ::backtrace_symbols(addresses, count);
  if (lines == nullptr) {
    throw std::runtime_error("the bare backtrace_symbols failed");
  }

  // A line reads "program(mangled+0x1f) [0x55d0]".
  std::string text;
  for (int i = 1; i < count; ++i) {
    char* const mangled = std::strchr(lines[i], '(');
    char* const end = mangled == nullptr ? nullptr : std::strchr(mangled, '+');
    char* name = nullptr;
    if (end != nullptr) {
      *end = '\0';
      int status = 0;
      name = abi::__cxa_demangle(mangled + 1, nullptr, nullptr, &status);
    }
    text += name == nullptr ? lines[i] : name;
    text += '\n';
    std::free(name);
  }
  std::free(lines);
  return text;
}

std::string BareExec(const char* command) {
  std::FILE* const pipe = ::popen(command, "r");
  if (pipe == nullptr) {
    throw std::runtime_error("the bare popen failed");
  }

  std::string output;
  char piece[512];
  while (std::fgets(piece, sizeof piece, pipe) != nullptr) {
    output += piece;
  }

  if (::pclose(pipe) != 0) {
    throw std::runtime_error("the bare command failed: " + output);
  }
  return output;
}

std::size_t BareFind(std::string text, std::string_view key) {
  return std::string_view(text).find(key);
}
