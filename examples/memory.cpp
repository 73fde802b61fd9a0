// Sets one bit of a register: memory 0x40000000
//
// Needs root, because it uses /dev/mem. Without a board: boardsim -- memory 0x40000000
#include <SystemCalls.h>

#include <sys/sysinfo.h>

#include <cstdlib>
#include <exception>
#include <iostream>

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "Usage: memory ADDRESS\nSets bit 0 of the 32-bit word there. On a real board, know what it does.\n";
    return 2;
  }
  const auto address = static_cast<unsigned int>(std::strtoul(argv[1], nullptr, 0));
  try {
    // [use]
    // Each call makes one access of 32 bits.
    const unsigned int before = ReadFromPhysicalMemoryAddress(address);
    WriteToPhysicalMemoryAddress(address, before | 0x1U);
    // [use]
    std::cout << std::hex << "0x" << before << " -> 0x" << ReadFromPhysicalMemoryAddress(address) << '\n';

    struct sysinfo info = {};
    sysinfo_e(&info);
    std::cout << (info.totalram > info.freeram ? "some" : "no") << " memory is in use\n";
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "memory: " << e.what() << '\n';
    return 1;
  }
}
