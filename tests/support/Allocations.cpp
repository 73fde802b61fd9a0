#include "Allocations.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> allocations{0};
std::atomic<std::size_t> largestAllocation{SIZE_MAX};
std::atomic<bool> allocationsChangeErrno{false};

}  // namespace

// Not inlined: the compiler would see malloc() behind a new, free() behind a delete, and warn of the mixture.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  void* const memory = size > largestAllocation ? nullptr : std::malloc(size);
  if (allocationsChangeErrno) {
    errno = ENOMEM;
  }
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

long long AllocatedBytes() {
  const auto info = ::mallinfo2();
  return static_cast<long long>(info.uordblks + info.hblkhd);
}

CountedAllocations::CountedAllocations() : m_before(allocations) {}

std::size_t CountedAllocations::Count() const {
  return allocations - m_before;
}

LimitedAllocations::LimitedAllocations(std::size_t largest) {
  largestAllocation = largest;
}

LimitedAllocations::~LimitedAllocations() {
  largestAllocation = SIZE_MAX;
}

ErrnoChangingAllocations::ErrnoChangingAllocations() {
  allocationsChangeErrno = true;
}

ErrnoChangingAllocations::~ErrnoChangingAllocations() {
  allocationsChangeErrno = false;
}
