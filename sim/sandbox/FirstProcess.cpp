#include "sandbox/FirstProcess.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "ExitStatus.h"
#include "sandbox/Errors.h"
#include "sandbox/Filter.h"

namespace {

/// What the first process has inherited from the simulator is not to live on in it: the ends of connections, mostly.
void CloseAllBut(int one, int other) {
  const int highest = std::max(one, other);
  for (int fd = STDERR_FILENO + 1; fd < highest; ++fd) {
    if (fd != one && fd != other) {
      ::close(fd);
    }
  }
  ::syscall(SYS_close_range, highest + 1, ~0U, 0);
}

/// Becomes the application, once the simulator is ready.
[[noreturn]] void RunApplication(const Plan& plan, const Channel& channel, const Signals::State& signals) {
  const Descriptor listener = InstallFilter(plan.requests, plan.namespaces);
  if (!listener) {
    channel.Send(Message(Message::Kind::kFailed,
                         errno == EBUSY ? "System calls are supervised here already, by another simulator perhaps."
                                        : SetupError("System calls can't be supervised", errno).what()));
    ::_exit(kStatusNotSetUp);
  }
  channel.Send(Message(Message::Kind::kListener), listener.Get());

  if (!channel.AwaitGo()) {
    ::_exit(kStatusNotSetUp);
  }
  std::vector<char*> arguments;
  arguments.reserve(plan.command.size() + 1);
  for (const std::string& argument : plan.command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  }
  arguments.push_back(nullptr);
  ::sigaction(SIGCHLD, &signals.child, nullptr);
  ::sigprocmask(SIG_SETMASK, &signals.mask, nullptr);
  ::execvp(arguments.front(), arguments.data());
  const int error = errno;
  std::fprintf(stderr, "boardsim: %s can't be executed: %s\n", arguments.front(), std::strerror(error));
  ::_exit(error == ENOENT ? kStatusNotFound : kStatusNotExecutable);
}

/// The life of the first process: it waits for the application and ends with it, and all others with that.
[[noreturn]] void Wait(pid_t application, const Channel& channel, bool namespaces, pid_t simulator) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGCHLD);
  ::sigaddset(&signals, SIGTERM);
  siginfo_t signal{};
  bool ended = false;
  while (!ended) {
    if (::sigwaitinfo(&signals, &signal) == -1) {
      continue;
    }
    // From the simulator, or on its death. One from elsewhere went to the whole group, and the application has its own.
    ended = signal.si_signo == SIGTERM && !namespaces && signal.si_pid == simulator;
    int status = 0;
    for (pid_t child = 0; !ended && (child = ::waitpid(-1, &status, WNOHANG)) > 0;) {
      if (child == application) {
        ended = true;
        Message message(Message::Kind::kEnded);
        message.status = status;
        channel.Send(message);
      }
    }
  }
  if (!namespaces) {
    EndDescendants();
  }
  ::_exit(0);
}

}  // namespace

void RunFirstProcess(const Plan& plan, const UserMap& users, const Channel& channel, const Signals::State& signals) {
  const pid_t simulator = ::getppid();
  pid_t application = -1;
  try {
    // The end of the simulator is the end of all.
    ::prctl(PR_SET_PDEATHSIG, plan.namespaces ? SIGKILL : SIGTERM);
    const mode_t creation = ::umask(0);
    Descriptor peers;
    if (plan.namespaces) {
      peers = EnterSurroundings(plan, users, channel);
    } else {
      ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    ::umask(creation);
    application = ::fork();
    Require(application != -1, "no process can be started");
    if (application == 0) {
      RunApplication(plan, channel, signals);
    }
    CloseAllBut(channel.Get(), peers.Release());
  } catch (const NamespacesForbidden& error) {
    channel.Send(Message(Message::Kind::kForbidden, error.what()));
    ::_exit(kStatusNotSetUp);
  } catch (const std::exception& error) {
    channel.Send(Message(Message::Kind::kFailed, error.what()));
    ::_exit(kStatusNotSetUp);
  }
  Wait(application, channel, plan.namespaces, simulator);
}

void EndDescendants() {
  const std::string children = "/proc/self/task/" + std::to_string(::getpid()) + "/children";
  while (true) {
    std::ifstream list(children);
    for (pid_t child = 0; list >> child;) {
      ::kill(child, SIGKILL);
    }
    if (::waitpid(-1, nullptr, 0) == -1 && errno == ECHILD) {
      return;
    }
  }
}
