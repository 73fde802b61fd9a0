// Prints the 32-bit word at a physical address: read-register 0x80011000
//
// Needs root, because it uses /dev/mem. Without a board: boardsim -- read-register 0x80011000
#include <SystemCalls.h>

#include <cstdlib>
#include <exception>
#include <iostream>

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "Usage: read-register ADDRESS\n";
    return 2;
  }
  const auto address = static_cast<unsigned int>(std::strtoul(argv[1], nullptr, 0));
  try {
    // [use]
    const unsigned int word = ReadFromPhysicalMemoryAddress(address);
    // [use]
    std::cout << "0x" << std::hex << word << '\n';
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "read-register: " << e.what() << '\n';
    return 1;
  }
}
