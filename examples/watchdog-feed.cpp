// Arms a watchdog, feeds it once a second, and disarms it at SIGTERM or SIGINT: watchdog-feed /dev/watchdog 30
//
// If it ends in any other way, the watchdog stays armed and the board resets: that is what a watchdog is for. (A driver
// without the magic close stops at any close.) So nothing but SIGTERM and SIGINT may run the destructor, which disarms.
#include <SystemCalls.h>
#include <WatchDog.h>

#include <signal.h>

#include <cstdlib>
#include <exception>
#include <iostream>

namespace {

volatile sig_atomic_t stopRequested = 0;

void RequestStop(int, siginfo_t*, void*) {
  stopRequested = 1;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 3) {
    std::cerr << "Usage: watchdog-feed DEVICE TIMEOUT_IN_SECONDS\n";
    return 2;
  }
  const int timeout = static_cast<int>(std::strtol(argv[2], nullptr, 10));
  if (timeout < 1) {
    // Checked before the device is opened, which starts the timer.
    std::cerr << "watchdog-feed: " << argv[2] << " is no time-out in seconds\n";
    return 2;
  }
  // [loop]
  WatchDog dog(timeout, argv[1]);
  try {
    InstallSignalHandler(SIGTERM, RequestStop);  // sets stopRequested
    InstallSignalHandler(SIGINT, RequestStop);
    dog.Activate();
    std::cout << "armed: " << dog.GetInterval() << " seconds" << std::endl;
    while (stopRequested == 0) {
      dog.Feed();
      DebugSleep(1000);
    }
    dog.Deactivate();
    std::cout << "disarmed" << std::endl;
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "watchdog-feed:" << e.what() << '\n';
    std::_Exit(1);  // not return: the destructor of dog would disarm
  }
  // [loop]
}
