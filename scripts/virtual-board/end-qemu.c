// Ends the emulator with a status of the guest's choice: end-qemu STATUS
//
// A debugger's call, which the emulator answers: 0x20 ends the program, for the reason "application exit" and with a
// status.
#include <stdlib.h>

int main(int argc, char* argv[]) {
  unsigned int block[2] = {0x20026, argc == 2 ? (unsigned int)atoi(argv[1]) : 1};
  register unsigned int operation __asm__("r0") = 0x20;
  register unsigned int* argument __asm__("r1") = block;
  __asm__ volatile("svc 0x123456" ::"r"(operation), "r"(argument) : "memory");
  return 1;
}
