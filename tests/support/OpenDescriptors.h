#ifndef BOARDKIT_TESTS_OPENDESCRIPTORS_H
#define BOARDKIT_TESTS_OPENDESCRIPTORS_H

#include <fcntl.h>
#include <unistd.h>

#include <set>

/// The descriptors that the process has open now: compared before and after, they show leaks.
inline std::set<int> OpenDescriptors() {
  constexpr int kEnough = 256;
  std::set<int> descriptors;
  for (int fd = 0; fd < kEnough; ++fd) {
    if (::fcntl(fd, F_GETFD, 0) != -1) {
      descriptors.insert(fd);
    }
  }
  return descriptors;
}

/// The number of the descriptor that the next open gives: the lowest one that is free.
inline int NextDescriptor() {
  const int fd = ::dup(0);
  ::close(fd);
  return fd;
}

#endif
