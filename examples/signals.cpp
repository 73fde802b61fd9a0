// Handles one signal and blocks another: signals
#include <SystemCalls.h>

#include <signal.h>
#include <unistd.h>

#include <iostream>

// [use]
namespace {

volatile sig_atomic_t stop = 0;

void RequestStop(int, siginfo_t*, void*) {
  stop = 1;  // nothing but a flag: hardly any function is safe here
}

}  // namespace

int main() {
  DeactivateSignalP(SIGUSR1);  // before there are threads
  InstallSignalHandler(SIGTERM, RequestStop);
  // [use]
  ::raise(SIGUSR1);
  ::raise(SIGTERM);

  sigset_t pending;
  ::sigpending(&pending);
  std::cout << "stop: " << stop << ", SIGUSR1 is " << (::sigismember(&pending, SIGUSR1) == 1 ? "waiting" : "gone")
            << '\n'
            << "policy: " << GetProcSchedPolicyName(0) << '\n'
            << "the first thread has the process's id: " << (LinuxGetThreadId() == ::getpid() ? "yes" : "no") << '\n';
  return 0;
}
