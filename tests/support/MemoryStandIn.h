#ifndef BOARDKIT_TESTS_MEMORYSTANDIN_H
#define BOARDKIT_TESTS_MEMORYSTANDIN_H

#include <cstdint>

#include "ScriptedKernel.h"

/// All physical memory that 32 bits reach, and some pages after it: a sparse file to be opened in the place of
/// /dev/mem.
class MemoryStandIn {
 public:
  static constexpr int kFd = 71;  // its descriptor, which nothing else gets

  MemoryStandIn();
  ~MemoryStandIn();
  MemoryStandIn(const MemoryStandIn&) = delete;
  MemoryStandIn& operator=(const MemoryStandIn&) = delete;

  /// Opens it, for the simulation of open().
  Answer Open(int fd = kFd) const;

  std::uint32_t Get(std::uint32_t address) const;
  void Set(std::uint32_t address, std::uint32_t value) const;

  /// The calls for one access: those of a mapping of @p length bytes from @p start on.
  static ScriptedKernel::Calls CallsFor(std::uint32_t start, std::uint32_t length);

 private:
  int m_file;
};

#endif
