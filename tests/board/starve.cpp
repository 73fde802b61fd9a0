// Arms a watchdog and never feeds it: board-starve starve|die DEVICE TIMEOUT_IN_SECONDS
//
// The process waits for the reset, or dies without disarming.
#include <SystemCalls.h>
#include <WatchDog.h>

#include <signal.h>

#include <cstring>
#include <iostream>
#include <string>

int main(int argc, char* argv[]) {
  if (argc != 4) {
    std::cerr << "Usage: board-starve starve|die DEVICE TIMEOUT_IN_SECONDS\n";
    return 2;
  }
  WatchDog dog(std::stoi(argv[3]), argv[2]);
  dog.Activate();
  std::cout << "armed: " << dog.GetInterval() << " seconds" << std::endl;
  if (std::strcmp(argv[1], "die") == 0) {
    ::raise(SIGKILL);
  }
  constexpr int kLongEnough = 60000;  // ms
  DebugSleep(kLongEnough);
  return 1;
}
