#include "BusError.h"

#include <SystemCalls.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "Catalogue.h"
#include "Status.h"
#include "Tty.h"

namespace {

// A handler may not compose them.
const std::string* textOfBusError = nullptr;
const Tty* tty = nullptr;

void End(int /*number*/, siginfo_t* /*information*/, void* /*context*/) {
  if (tty != nullptr) {
    tty->PutBack();
  }
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, textOfBusError->data(), textOfBusError->size());
  ::_exit(kStatusFailed);
}

}  // namespace

void TellBusErrors(const char* verb, const Tty* line) {
  static const std::string kWords = catalogue::FailureInWords(verb, "Bus error") + '\n';
  textOfBusError = &kWords;
  tty = line;
  InstallSignalHandler(SIGBUS, End);
}
