#include "devices/ends/CommandEnd.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "ExitStatus.h"
#include "SetupError.h"

namespace {

constexpr int kCommandsTime = 500;  // milliseconds

/// What the process between the simulator and a command does: it lives as long as the command and all that this has
/// started, and ends them if the simulator is killed.
[[noreturn]] void Keep(pid_t simulator, const Descriptor& stream, const std::string& command) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGCHLD);
  ::sigaddset(&signals, SIGTERM);
  ::sigprocmask(SIG_SETMASK, &signals, nullptr);
  ::setpgid(0, 0);
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);  // for those that outlive the command itself
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  const pid_t shell = ::getppid() == simulator ? ::fork() : -1;
  if (shell == 0) {
    ::sigemptyset(&signals);
    ::sigprocmask(SIG_SETMASK, &signals, nullptr);
    ::dup2(stream.Get(), STDIN_FILENO);
    ::dup2(stream.Get(), STDOUT_FILENO);
    ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    ::_exit(kStatusNotFound);
  }
  // An end of the connection that stays open here would hide the command's end, and the simulator's.
  ::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0);
  int signal = 0;
  while (shell != -1 && ::sigwait(&signals, &signal) == 0 && signal == SIGCHLD) {
    pid_t ended = 0;
    while ((ended = ::waitpid(-1, nullptr, WNOHANG)) > 0) {
    }
    if (ended == -1) {
      ::_exit(0);  // no children are left
    }
  }
  ::kill(0, SIGKILL);  // the group: this process as well
  ::_exit(0);
}

}  // namespace

CommandEnd::CommandEnd(const std::string& device, const std::string& command, EventLog& log) : StreamEnd(device, log) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) {
    throw SetupError("the far end of " + device + " gets no socket", errno);
  }
  Use(Descriptor(ends[0]));
  const Descriptor theirs(ends[1]);
  const pid_t parent = ::getpid();
  m_command = ::fork();
  if (m_command == -1) {
    throw SetupError("the far end of " + device + " can't be started", errno);
  }
  if (m_command == 0) {
    Keep(parent, theirs, command);
  }
  ::setpgid(m_command, m_command);  // in both: whichever comes first
}

CommandEnd::~CommandEnd() {
  // It may have ended, and its number may be another process's.
  if (m_command > 0 && ::waitpid(m_command, nullptr, WNOHANG) == 0) {
    // The end of its input ends most commands. The others do not take long, with all that they have started.
    Close();
    const Descriptor command(static_cast<int>(::syscall(SYS_pidfd_open, m_command, 0)));
    pollfd ended{command.Get(), POLLIN, 0};
    ::poll(&ended, 1, kCommandsTime);
    ::kill(-m_command, SIGKILL);
    ::waitpid(m_command, nullptr, 0);
  }
}
