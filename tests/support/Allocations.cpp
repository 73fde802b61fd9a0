#include "Allocations.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> allocations{0};
constexpr long kNone = -1;
std::atomic<long> untilFailing{kNone};  // how many succeed before the one that fails
std::atomic<bool> hasFailed{false};
std::atomic<std::size_t> largestAllocation{SIZE_MAX};
std::atomic<bool> allocationsChangeErrno{false};

}  // namespace

// Not inlined: the compiler would see malloc() in a new, free() in a delete, and warn of the mixture.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  bool fails = size > largestAllocation;
  if (untilFailing != kNone && untilFailing-- == 0) {
    hasFailed = true;
    fails = true;
  }
  void* const memory = fails ? nullptr : std::malloc(size);
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

FailingAllocation::FailingAllocation(std::size_t which) {
  hasFailed = false;
  untilFailing = static_cast<long>(which);
}

FailingAllocation::~FailingAllocation() {
  untilFailing = kNone;
}

bool FailingAllocation::HasFailed() const {
  return hasFailed;
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
