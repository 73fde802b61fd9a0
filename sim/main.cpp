#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "Check.h"
#include "ExitStatus.h"
#include "Options.h"
#include "board/Board.h"
#include "board/Signals.h"

int main(int argc, char** argv) {
  // Its own descriptors must not take the places of standard ones that are closed.
  int fd = STDIN_FILENO;
  while (fd >= 0 && fd <= STDERR_FILENO) {
    fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  }
  ::close(fd);

  try {
    const std::optional<Options> options = ParseOptions(argc, argv);
    if (!options) {
      return 0;
    }
    if (options->check) {
      return PrintCheck(Signals().Before()) ? 0 : kStatusNotSetUp;
    }
    return Board(*options).Run();
  } catch (const std::exception& error) {
    // An interrupt key that ends what was being started, or part of it, is not an error.
    if (Signals::IsInterruptPending()) {
      return kStatusSignal + SIGINT;
    }
    std::fprintf(stderr, "boardsim: %s\n", error.what());
    return kStatusNotSetUp;
  }
}
