#ifndef BOARDKIT_TESTS_ALLOCATIONS_H
#define BOARDKIT_TESTS_ALLOCATIONS_H

#include <cstddef>

/// Guards that look at, or meddle with, what operator new does in the whole process while they live. A test executable
/// that uses them is built with Allocations.cpp, which replaces it.

/// The bytes that the C library has allocated and that are not freed yet; 0 where it does not count them, as under
/// sanitizers and memcheck, which look for leaks themselves.
long long AllocatedBytes();

/// Counts the allocations.
class CountedAllocations {
 public:
  CountedAllocations();
  std::size_t Count() const;

 private:
  std::size_t m_before;
};

/// Lets one allocation fail: of those that follow, the one with the number @p which, counted from 0.
class FailingAllocation {
 public:
  explicit FailingAllocation(std::size_t which);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  /// Whether that many allocations happened, so that one failed.
  bool HasFailed() const;
};

/// Lets allocations of more than @p largest bytes fail.
class LimitedAllocations {
 public:
  explicit LimitedAllocations(std::size_t largest);
  ~LimitedAllocations();
  LimitedAllocations(const LimitedAllocations&) = delete;
  LimitedAllocations& operator=(const LimitedAllocations&) = delete;
};

/// Lets every allocation change errno, as it may.
class ErrnoChangingAllocations {
 public:
  ErrnoChangingAllocations();
  ~ErrnoChangingAllocations();
  ErrnoChangingAllocations(const ErrnoChangingAllocations&) = delete;
  ErrnoChangingAllocations& operator=(const ErrnoChangingAllocations&) = delete;
};

#endif
