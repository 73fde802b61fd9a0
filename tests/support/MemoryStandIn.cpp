#include "MemoryStandIn.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "Hexadecimal.h"

MemoryStandIn::MemoryStandIn() : m_file(::memfd_create("physical-memory", MFD_CLOEXEC)) {
  EXPECT_NE(m_file, -1) << std::strerror(errno);
  EXPECT_EQ(::ftruncate64(m_file, (1LL << 32U) + 2LL * ::getpagesize()), 0) << std::strerror(errno);
}

MemoryStandIn::~MemoryStandIn() {
  ::close(m_file);
}

Answer MemoryStandIn::Open(int fd) const {
  return Returns(::dup3(m_file, fd, 0));
}

std::uint32_t MemoryStandIn::Get(std::uint32_t address) const {
  std::uint32_t value = 0;
  EXPECT_EQ(::pread64(m_file, &value, sizeof(value), address), static_cast<ssize_t>(sizeof(value)));
  return value;
}

void MemoryStandIn::Set(std::uint32_t address, std::uint32_t value) const {
  EXPECT_EQ(::pwrite64(m_file, &value, sizeof(value), address), static_cast<ssize_t>(sizeof(value)));
}

ScriptedKernel::Calls MemoryStandIn::CallsFor(std::uint32_t start, std::uint32_t length) {
  return {"open(\"/dev/mem\", 0x2)",
          "mmap(anywhere, " + Hexadecimal(length) + ", PROT_READ | PROT_WRITE, MAP_SHARED, " + std::to_string(kFd) +
              ", " + Hexadecimal(start) + ")",
          "munmap(" + Hexadecimal(length) + ")", "close(" + std::to_string(kFd) + ")"};
}
