// Arms a watchdog and fails: failing-watchdog DEVICE caught|returned|uncaught|exited
#include <WatchDog.h>

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

int FeedUntilItFails(const std::string& device, const std::string& way) {
  WatchDog dog(30, device);
  try {
    dog.Activate();
    dog.Feed();
    throw std::runtime_error("the work has failed");
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
    if (way == "exited") {
      std::_Exit(1);
    }
    if (way == "returned") {
      return 1;
    }
    throw;
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  const std::string way = argc > 2 ? argv[2] : "";
  if (way != "caught") {
    return FeedUntilItFails(argv[1], way);
  }
  try {
    return FeedUntilItFails(argv[1], way);
  } catch (const std::exception&) {
    return 1;
  }
}
