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
#include "sandbox/Namespaces.h"
#include "sandbox/Rights.h"

namespace {

/// The first process must not keep open what it inherited from the simulator, such as the ends of connections.
void CloseAllBut(int one, int other) {
  const int highest = std::max(one, other);
  for (int fd = STDERR_FILENO + 1; fd < highest; ++fd) {
    if (fd != one && fd != other) {
      ::close(fd);
    }
  }
  ::syscall(SYS_close_range, highest + 1, ~0U, 0);
}

/// Reports why there will be no board.
[[noreturn]] void GiveUp(const Channel& channel, const std::exception& error) {
  const bool isForbidden = dynamic_cast<const NamespacesForbidden*>(&error) != nullptr;
  channel.Send(Message(isForbidden ? Message::Kind::kForbidden : Message::Kind::kFailed, error.what()));
  ::_exit(kStatusNotSetUp);
}

/// The simulator, or the first process, has gone where there is none.
void Await(const Channel& go) {
  if (!go.AwaitGo()) {
    ::_exit(kStatusNotSetUp);
  }
}

/// Prepares the application's process.
/// @returns where its supervised system calls arrive.
Descriptor Prepare(const Plan& plan, bool hasUsers, const Channel& firstProcess) {
  if (plan.namespaces) {
    LeaveOuterNamespaces(plan, hasUsers);
    firstProcess.SendGo();
    Await(firstProcess);
    EnterInnerNamespaces(hasUsers);
  }
  Descriptor listener = InstallFilter(plan.requests, plan.namespaces);
  if (!listener) {
    throw errno == EBUSY ? SetupError("System calls are supervised here already, by another simulator perhaps.")
                         : SetupError("System calls can't be supervised", errno);
  }
  if (!hasUsers && ::geteuid() == 0) {
    DropRightsOverMachine(plan.net == Net::kHost);
  }
  return listener;
}

/// Becomes the application, once the simulator is ready.
[[noreturn]] void RunApplication(const Plan& plan, bool hasUsers, mode_t creation, const Channel& channel,
                                 const Channel& firstProcess, const Signals::State& signals) {
  try {
    const Descriptor listener = Prepare(plan, hasUsers, firstProcess);
    channel.Send(Message(Message::Kind::kListener), listener.Get());
  } catch (const std::exception& error) {
    GiveUp(channel, error);
  }
  ::umask(creation);
  Await(channel);
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

/// What the first process does: it waits for the application and ends with it, and all others end with that.
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

void RunFirstProcess(const Plan& plan, bool hasUsers, const Channel& channel, const Signals::State& signals) {
  const pid_t simulator = ::getppid();
  pid_t application = -1;
  try {
    // When the simulator ends, everything ends.
    ::prctl(PR_SET_PDEATHSIG, plan.namespaces ? SIGKILL : SIGTERM);
    Await(channel);
    const mode_t creation = ::umask(0);
    if (plan.namespaces) {
      MakeFiles(plan, channel);
    } else {
      ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    auto ends = Channel::MakePair();
    application = ::fork();
    Require(application != -1, "no process can be started");
    if (application == 0) {
      ends.first.Close();
      RunApplication(plan, hasUsers, creation, channel, ends.second, signals);
    }
    ends.second.Close();
    Descriptor peers;
    if (plan.namespaces) {
      // If the application's process gives up, it says why.
      if (ends.first.AwaitGo()) {
        peers = MakeInnerNamespaces(plan, hasUsers, application, channel);
      }
      ends.first.SendGo();
    }
    ends.first.Close();
    CloseAllBut(channel.Get(), peers.Release());
  } catch (const std::exception& error) {
    GiveUp(channel, error);
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
