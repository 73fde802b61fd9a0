#include <fcntl.h>
#include <unistd.h>

#include "Groups.h"
#include "Program.h"

int main(int argc, char** argv) {
  // A device must not take the place of a standard descriptor that is closed.
  int fd = STDIN_FILENO;
  while (fd >= 0 && fd <= STDERR_FILENO) {
    fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  }
  ::close(fd);

  Program program;
  AddSerial(program);
  AddMemory(program);
  AddNet(program);
  AddWatchdog(program);
  AddReport(program);
  AddRun(program);
  AddExplain(program);
  AddCompletion(program);
  return program.Main(argc, argv);
}
