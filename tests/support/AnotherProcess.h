#ifndef BOARDKIT_TESTS_ANOTHERPROCESS_H
#define BOARDKIT_TESTS_ANOTHERPROCESS_H

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <iostream>

#include <gtest/gtest.h>

/// The status of a second process that runs @p function, which returns its exit code.
template <typename Function>
int StatusOfAnotherProcess(Function function) {
  constexpr int kThrew = 99;
  const pid_t child = ::fork();
  if (child == 0) {
    try {
      ::_exit(function());
    } catch (const std::exception& e) {
      std::cerr << e.what() << '\n';
      ::_exit(kThrew);
    }
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return status;
}

/// Makes this process an ordinary user's, for good: root may do everything.
inline void BecomeOrdinaryUser() {
  constexpr uid_t kNobody = 65534;
  EXPECT_TRUE(::geteuid() != 0 || (::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0));
}

#endif
