// Runs a command that succeeds and one that fails: commands
#include <OpSystem.h>

#include <exception>
#include <iostream>
#include <stdexcept>

int main() {
  try {
    // [use]
    OpSystem system;
    std::cout << system.ExecCmd("echo hello", false);
    try {
      system.ExecCmd("ls /nowhere", false);
    } catch (const std::logic_error& failure) {  // its status was not 0
      std::cout << "it said: " << failure.what();
    }
    // [use]
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "commands: " << e.what() << '\n';
    return 1;
  }
}
