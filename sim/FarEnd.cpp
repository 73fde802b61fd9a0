#include "FarEnd.h"

#include <fcntl.h>
#include <netdb.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ExitStatus.h"
#include "PseudoTerminal.h"
#include "SetupError.h"

namespace {

constexpr std::size_t kQueueSize = 65536;  // bytes
constexpr time_t kConnectTime = 5;         // seconds
constexpr int kCommandsTime = 500;         // milliseconds

void SetNonBlocking(const Descriptor& descriptor) {
  ::fcntl(descriptor.Get(), F_SETFL, ::fcntl(descriptor.Get(), F_GETFL) | O_NONBLOCK);
}

/// The life of the process between the simulator and a command: it lives as long as the command and all that this has
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
      ::_exit(0);  // there is no more of them
    }
  }
  ::kill(0, SIGKILL);  // the group: this process as well
  ::_exit(0);
}

}  // namespace

FarEnd::FarEnd(const TtyOptions& options, EventLog& log) : m_device(options.path), m_log(log) {
  const std::string& target = options.farEnd.target;
  switch (options.farEnd.kind) {
    case FarEndOptions::Kind::kNone:
      break;
    case FarEndOptions::Kind::kEcho:
      m_isEcho = true;
      break;
    case FarEndOptions::Kind::kPty:
      OpenPty(target);
      break;
    case FarEndOptions::Kind::kTcp:
      Connect(target.substr(0, target.rfind(':')), target.substr(target.rfind(':') + 1));
      break;
    case FarEndOptions::Kind::kUnix:
      ConnectUnix(target);
      break;
    case FarEndOptions::Kind::kExec:
      Execute(target);
      break;
  }
  if (m_stream) {
    SetNonBlocking(m_stream);
  }
}

FarEnd::~FarEnd() {
  if (!m_link.empty()) {
    ::unlink(m_link.c_str());
  }
  // It may have ended, and its number be somebody else's.
  if (m_command > 0 && ::waitpid(m_command, nullptr, WNOHANG) == 0) {
    // The end of its input ends most commands. The others do not take long, with all that they have started.
    m_stream.Close();
    const Descriptor command(static_cast<int>(::syscall(SYS_pidfd_open, m_command, 0)));
    pollfd ended{command.Get(), POLLIN, 0};
    ::poll(&ended, 1, kCommandsTime);
    ::kill(-m_command, SIGKILL);
    ::waitpid(m_command, nullptr, 0);
  }
}

void FarEnd::Send(std::string_view bytes) {
  if (!m_stream) {
    return;
  }
  const std::size_t room = kQueueSize - m_queue.size();
  m_queue.append(bytes.substr(0, room));
  if (bytes.size() > room) {
    m_dropped += bytes.size() - room;
    m_log.Write(m_device, "overrun far-end dropped=" + std::to_string(m_dropped));
  }
  Flush();
}

void FarEnd::Flush() {
  while (m_stream && !m_queue.empty()) {
    const ssize_t written = ::write(m_stream.Get(), m_queue.data(), m_queue.size());
    if (written == -1) {
      if (errno != EAGAIN && errno != EINTR) {
        // Nobody hears it. Reading tells whether somebody is there still, after his last words.
        m_queue.clear();
      }
      return;
    }
    m_queue.erase(0, static_cast<std::size_t>(written));
  }
}

std::size_t FarEnd::Receive(char* buffer, std::size_t size) {
  const ssize_t got = ::read(m_stream.Get(), buffer, size);
  if (got == 0 || (got == -1 && errno != EAGAIN && errno != EINTR)) {
    Disconnect();
  }
  return got > 0 ? static_cast<std::size_t>(got) : 0;
}

void FarEnd::OpenPty(const std::string& link) {
  m_stream = Descriptor(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!m_stream || ::grantpt(m_stream.Get()) == -1 || ::unlockpt(m_stream.Get()) == -1) {
    throw SetupError("the far end of " + m_device + " gets no pseudo-terminal", errno);
  }
  m_slave = OpenRawSlave(m_stream);
  if (!m_slave) {
    throw SetupError("the far end of " + m_device + " can't be opened", errno);
  }

  char name[64];
  if (const int error = ::ptsname_r(m_stream.Get(), name, sizeof name); error != 0) {
    throw SetupError("the far end of " + m_device + " has no name", error);
  }
  if (link.empty()) {
    std::fprintf(stderr, "boardsim: the far end of %s is %s\n", m_device.c_str(), name);
    return;
  }
  // What a killed simulator has left behind points nowhere.
  if (struct stat status{};
      ::lstat(link.c_str(), &status) == 0 && S_ISLNK(status.st_mode) && ::access(link.c_str(), F_OK) == -1) {
    ::unlink(link.c_str());
  }
  if (::symlink(name, link.c_str()) == -1) {
    throw SetupError("the far end of " + m_device + " can't be linked as " + link, errno);
  }
  m_link = link;
}

void FarEnd::Connect(const std::string& host, const std::string& port) {
  // An address of version 6 stands in brackets.
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  const std::string name = bracketed ? host.substr(1, host.size() - 2) : host;
  const std::string what = "the far end of " + m_device + ", " + host + ':' + port + ", can't be reached";
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int result = ::getaddrinfo(name.c_str(), port.c_str(), &hints, &found); result != 0) {
    throw SetupError(what + ": " + ::gai_strerror(result));
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, ::freeaddrinfo);

  int error = 0;
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
    Descriptor stream(::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol));
    // Bounds the wait for a host that does not answer.
    const timeval wait{kConnectTime, 0};
    ::setsockopt(stream.Get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    if (::connect(stream.Get(), address->ai_addr, address->ai_addrlen) == 0) {
      m_stream = std::move(stream);
      return;
    }
    error = errno == EINPROGRESS ? ETIMEDOUT : errno;
  }
  throw SetupError(what, error);
}

void FarEnd::ConnectUnix(const std::string& path) {
  const std::string what = "the far end of " + m_device + ", " + path + ", can't be reached";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw SetupError(what, ENAMETOOLONG);
  }
  path.copy(address.sun_path, path.size());
  m_stream = Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!m_stream || ::connect(m_stream.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
    throw SetupError(what, errno);
  }
}

void FarEnd::Execute(const std::string& command) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) {
    throw SetupError("the far end of " + m_device + " gets no socket", errno);
  }
  m_stream = Descriptor(ends[0]);
  const Descriptor theirs(ends[1]);
  const pid_t parent = ::getpid();
  m_command = ::fork();
  if (m_command == -1) {
    throw SetupError("the far end of " + m_device + " can't be started", errno);
  }
  if (m_command == 0) {
    Keep(parent, theirs, command);
  }
  ::setpgid(m_command, m_command);  // in both: whichever comes first
}

void FarEnd::Disconnect() {
  m_log.Write(m_device, "far-end gone");
  m_stream.Close();
  m_queue.clear();
}
