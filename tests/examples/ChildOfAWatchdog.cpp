// Arms a watchdog, starts a child by fork, and disarms: child-of-a-watchdog DEVICE [closefrom]
// The child lives until something is written to the FIFO "end".
#include <WatchDog.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

int main(int argc, char* argv[]) {
  WatchDog dog(30, argv[1]);
  dog.Activate();
  const pid_t child = ::fork();
  if (child == 0) {
    if (argc > 2) {
      ::closefrom(STDERR_FILENO + 1);
    }
    char byte = 0;
    const int end = ::open("end", O_RDONLY);
    ::_exit(::read(end, &byte, 1) == 1 ? 0 : 1);
  }
  dog.Deactivate();
  int status = 0;
  return ::waitpid(child, &status, 0) == child ? status : 1;
}
