#include <fcntl.h>
#include <unistd.h>

#include "Groups.h"
#include "Program.h"

int main(int argc, char** argv) {
  // A device must not take the place of a standard descriptor that is closed, and using one fails, as it should.
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) == -1) {
      ::open("/dev/null", (fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
    }
  }

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
