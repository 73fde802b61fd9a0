#include "board/Signals.h"

#include <sys/signalfd.h>

Signals::Signals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) {
    ::sigaddset(&signals, signal);
  }
  m_descriptor = Descriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  // Writing then fails with an error, which is enough.
  ::sigaddset(&signals, SIGPIPE);
  ::sigaddset(&signals, SIGXFSZ);
  ::sigprocmask(SIG_BLOCK, &signals, &m_before.mask);
  // If SIGCHLD is ignored, the ends of children are not reported.
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  ::sigaction(SIGCHLD, &standard, &m_before.child);
}

bool Signals::IsInterruptPending() {
  sigset_t pending;
  struct sigaction action {};
  return ::sigpending(&pending) == 0 && ::sigismember(&pending, SIGINT) == 1 &&
         ::sigaction(SIGINT, nullptr, &action) == 0 && action.sa_handler != SIG_IGN;
}
