// Arms a watchdog for three rounds of work: watchdog /dev/watchdog
//
// Needs write access to the device. If this program is killed, the board resets (unless the driver has no magic close).
// Try it on a simulated one first:
// boardsim -- watchdog /dev/watchdog
#include <SystemCalls.h>
#include <WatchDog.h>

#include <exception>
#include <iostream>

namespace {

void DoOneRound() {
  DebugSleep(100);
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "Usage: watchdog DEVICE\n";
    return 2;
  }
  try {
    // [use]
    WatchDog dog(30, argv[1]);  // seconds, device
    dog.Activate();             // now the board resets unless it is fed
    for (int round = 0; round < 3; ++round) {
      DoOneRound();
      dog.Feed();
    }
    dog.Deactivate();
    // [use]
    std::cout << "disarmed\n";
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "watchdog:" << e.what() << '\n';
    return 1;
  }
}
