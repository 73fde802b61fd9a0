// Shows what a forked child does to commands that run beside it: fork-beside-commands
//
// One thread forks children that live 200 ms and do not call exec; the other one runs commands. A child that is forked
// at the wrong moment holds the writing end of a command's pipe, and the command's output has no end until it is gone.
#include <OpSystem.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <iostream>
#include <thread>

namespace {

constexpr int kChildLivesUs = 200000;
std::atomic<bool> stop{false};
std::atomic<bool> childFailed{false};

void ForkOnAndOn() {
  while (!stop) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::usleep(kChildLivesUs);
      ::_exit(0);
    }
    childFailed = childFailed || child == -1;
    ::usleep(2000);
  }
}

}  // namespace

int main() {
  using Clock = std::chrono::steady_clock;
  int commands = 0;
  int late = 0;
  std::thread forking(ForkOnAndOn);
  try {
    OpSystem system;
    const auto end = Clock::now() + std::chrono::seconds(3);
    while (Clock::now() < end) {
      const auto begin = Clock::now();
      system.ExecCmd("true", false);
      ++commands;
      if (Clock::now() - begin >= std::chrono::microseconds(kChildLivesUs * 3 / 4)) {
        ++late;
      }
    }
  } catch (const std::exception& e) {
    std::cerr << "fork-beside-commands: " << e.what() << '\n';
  }
  stop = true;
  forking.join();
  while (::wait(nullptr) > 0) {
  }
  std::cout << late << " of " << commands << " commands waited for a child that was not theirs\n";
  return childFailed ? 1 : 0;
}
