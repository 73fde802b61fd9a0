// Part of the board's tests where they are built for the developer's machine, whose network and watchdog they must not
// use.
#include <sys/stat.h>

#include <cstdlib>
#include <iostream>

#include <gtest/gtest.h>

namespace {

class OnSimulatorOnly : public testing::Environment {
  void SetUp() override {
    // Physical memory is a device on every real machine.
    struct stat memory {};
    if (::stat("/dev/mem", &memory) != 0 || !S_ISREG(memory.st_mode)) {
      std::cerr << "These tests are for a board: run them with boardsim, as tests/board/simulated.sh does.\n";
      std::exit(EXIT_FAILURE);
    }
  }
};

[[maybe_unused]] const testing::Environment* const added = testing::AddGlobalTestEnvironment(new OnSimulatorOnly);

}  // namespace
