// A signal handled, one blocked, and a sleep that signals do not shorten.
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <SystemCalls.h>

#include <stdexcept>
#include <string>

#include "Chapters.h"
#include "Clock.h"
#include "Page.h"

namespace {

volatile sig_atomic_t received = 0;
volatile sig_atomic_t sender = 0;

void Note(int signal, siginfo_t* information, void*) {
  received = signal;
  sender = information->si_pid;
}

}  // namespace

void ShowSignals() {
  page::Step("Handle a signal, which this process sends to itself");
  page::Call("InstallSignalHandler(SIGUSR1, Note)");
  page::Call("kill(" + std::to_string(::getpid()) + ", SIGUSR1)");
  InstallSignalHandler(SIGUSR1, Note);
  ::kill(::getpid(), SIGUSR1);
  page::Row("handler", "got signal " + std::to_string(received) + " (SIGUSR1 is " + std::to_string(SIGUSR1) +
                           ") from process " + std::to_string(sender));
  if (received != SIGUSR1) {
    throw std::runtime_error("The handler was not called.");
  }

  page::Step("Block a signal: it waits instead of ending the process");
  page::Call("DeactivateSignalP(SIGUSR2); raise(SIGUSR2)");
  DeactivateSignalP(SIGUSR2);
  ::raise(SIGUSR2);
  sigset_t pending;
  ::sigpending(&pending);
  page::Row("pending", ::sigismember(&pending, SIGUSR2) == 1 ? "SIGUSR2" : "nothing");

  page::Step("Sleep; a signal on the way does not shorten it");
  constexpr int kSleepMs = 200;
  received = 0;
  InstallSignalHandler(SIGALRM, Note);
  itimerval alarm{};
  alarm.it_value.tv_usec = kSleepMs * 1000 / 4;
  page::Call("InstallSignalHandler(SIGALRM, Note), and an alarm in 50 ms");
  page::Call("DebugSleep(200)");
  const Clock clock;
  ::setitimer(ITIMER_REAL, &alarm, nullptr);
  DebugSleep(kSleepMs);
  page::Row("slept", std::to_string(clock.Milliseconds()) + " ms, with " + (received == SIGALRM ? "a" : "no") +
                         " signal on the way");
}
