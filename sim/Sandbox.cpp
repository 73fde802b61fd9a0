#include "Sandbox.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include "ExitStatus.h"
#include "Memory.h"
#include "Network.h"
#include "Supervisor.h"

namespace {

constexpr mode_t kNodeMode = 0666;
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kSharedFolderMode = 01777;

/// What the processes inside tell the simulator.
struct Message {
  enum class Kind : char { kNothing, kTerminal, kWatchdog, kMemory, kNetwork, kListener, kForbidden, kFailed, kEnded };

  Kind kind = Kind::kNothing;
  int status = 0;
  char text[PATH_MAX + 256] = {};  // with a path in it
};

void Send(int socket, Message message, int descriptor = -1) {
  iovec part{&message, sizeof message};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
  if (descriptor != -1) {
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
  }
  ::sendmsg(socket, &header, MSG_NOSIGNAL);
}

/// Receives one message, or none, and the descriptor that comes with it.
/// @param sender may be null.
Descriptor Receive(int socket, Message& message, ucred* sender) {
  message = Message();
  iovec part{&message, sizeof message};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(ucred))] = {};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof control;
  ssize_t size = 0;
  while ((size = ::recvmsg(socket, &header, MSG_CMSG_CLOEXEC)) == -1 && errno == EINTR) {
  }

  int descriptor = -1;
  for (cmsghdr* extra = CMSG_FIRSTHDR(&header); size > 0 && extra != nullptr; extra = CMSG_NXTHDR(&header, extra)) {
    if (extra->cmsg_type == SCM_RIGHTS) {
      std::memcpy(&descriptor, CMSG_DATA(extra), sizeof descriptor);
    } else if (extra->cmsg_type == SCM_CREDENTIALS && sender != nullptr) {
      std::memcpy(sender, CMSG_DATA(extra), sizeof *sender);
    }
  }
  return Descriptor(descriptor);
}

void SendText(int socket, Message::Kind kind, const std::string& text) {
  Message message{kind};
  text.copy(message.text, sizeof message.text - 1);
  Send(socket, message);
}

template <typename Error>
void Require(bool success, const std::string& what) {
  if (!success) {
    throw Error(what, errno);
  }
}

void RequireAllowed(bool success, const std::string& what) {
  Require<NamespacesForbidden>(success, what);
}

void WriteFile(const char* path, const std::string& text) {
  const Descriptor file(::open(path, O_WRONLY | O_CLOEXEC));
  RequireAllowed(file && ::write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()),
                 std::string(path) + " can't be written");
}

/// The user is root in there, as on a board, and nobody else exists.
void MapUser(uid_t user, gid_t group) {
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
  WriteFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

void MakeFoldersFor(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    ::mkdir(path.substr(0, slash).c_str(), kFolderMode);
  }
}

void MakeEmptyFile(const std::string& path) {
  MakeFoldersFor(path);
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kNodeMode));
  Require<SetupError>(static_cast<bool>(file), path + " can't be made");
}

bool Bind(const std::string& source, const std::string& target) {
  return ::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

/// A master whose slave can be opened.
Descriptor OpenMaster(const char* ptmx) {
  Descriptor master(::open(ptmx, O_RDWR | O_NOCTTY | O_CLOEXEC));
  int unlocked = 0;
  if (!master || ::ioctl(master.Get(), TIOCSPTLCK, &unlocked) == -1) {
    return Descriptor();
  }
  return master;
}

/// A terminal of the private /dev, under a name there.
Descriptor MakeTerminal(const std::string& path) {
  Descriptor master = OpenMaster("/dev/pts/ptmx");
  Require<SetupError>(static_cast<bool>(master), "the terminal for " + path + " can't be opened");
  unsigned int number = 0;
  ::ioctl(master.Get(), TIOCGPTN, &number);
  Require<SetupError>(Bind("/dev/pts/" + std::to_string(number), path), path + " can't be mounted");
  return master;
}

/// A /dev with what every program needs, and the simulated devices.
void MakeDevices(const Options& options, int socket) {
  // What is taken over is held, for the new /dev covers it.
  static constexpr const char* kTaken[] = {"null", "zero", "full", "random", "urandom", "tty", "shm", "mqueue", "log"};
  std::vector<Descriptor> taken;
  for (const std::string name : kTaken) {
    taken.emplace_back(::open(("/dev/" + name).c_str(), O_PATH | O_CLOEXEC));
  }
  RequireAllowed(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mounts can't be made private");
  RequireAllowed(::mount("boardsim", "/dev", "tmpfs", MS_NOSUID, "mode=755") == 0, "a private /dev can't be mounted");

  std::size_t index = 0;
  for (const std::string name : kTaken) {
    const Descriptor& source = taken[index++];
    if (!source) {
      continue;
    }
    const std::string target = "/dev/" + name;
    struct stat status {};
    ::fstat(source.Get(), &status);
    if (S_ISDIR(status.st_mode)) {
      ::mkdir(target.c_str(), kFolderMode);
    } else {
      MakeEmptyFile(target);
    }
    RequireAllowed(Bind(PathOf(source.Get()), target), target + " can't be mounted");
  }

  // Where the machine has none, the board has one all the same.
  ::mkdir("/dev/shm", kSharedFolderMode);
  ::mkdir("/dev/pts", kFolderMode);
  RequireAllowed(
      ::mount("boardsim", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=620") == 0,
      "private terminals can't be mounted");
  ::symlink("pts/ptmx", "/dev/ptmx");
  ::symlink("/proc/self/fd", "/dev/fd");
  ::symlink("/proc/self/fd/0", "/dev/stdin");
  ::symlink("/proc/self/fd/1", "/dev/stdout");
  ::symlink("/proc/self/fd/2", "/dev/stderr");

  for (const TtyOptions& tty : options.ttys) {
    MakeEmptyFile(tty.path);
    Send(socket, {Message::Kind::kTerminal}, MakeTerminal(tty.path).Get());
  }
  if (!options.watchdog.empty()) {
    MakeFoldersFor(options.watchdog);
    Require<SetupError>(::mkfifo(options.watchdog.c_str(), kNodeMode) == 0, options.watchdog + " can't be made");
    const Descriptor fifo(::open(options.watchdog.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    Send(socket, {Message::Kind::kWatchdog}, fifo.Get());
  }
  if (options.memory) {
    const Descriptor memory(::open(kMemoryPath, O_RDWR | O_CREAT | O_CLOEXEC, kNodeMode));
    Require<SetupError>(memory && ::ftruncate(memory.Get(), Memory::kSize) == 0, "/dev/mem can't be made");
    Send(socket, {Message::Kind::kMemory}, memory.Get());
  }
}

/// A FIFO without a name. (Not a pipe: only a FIFO tells a reader of each time that the last writer has gone.)
Descriptor MakeNamelessFifo() {
  const char* folder = std::getenv("TMPDIR");
  std::string place = std::string(folder == nullptr ? "/tmp" : folder) + "/boardsim-XXXXXX";
  Require<SetupError>(::mkdtemp(place.data()) != nullptr, place + " can't be made");
  const std::string name = place + "/watchdog";
  const bool made = ::mkfifo(name.c_str(), kNodeMode) == 0;
  Descriptor fifo(::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const int error = errno;
  ::unlink(name.c_str());
  ::rmdir(place.c_str());
  errno = error;
  Require<SetupError>(made && fifo, name + " can't be made");
  return fifo;
}

/// Shows the interfaces of the board in /sys, not those of the machine. Everything else there is the machine's, and not
/// to be written, not even by root. Where the mount is refused, `ip` does not mind.
void MountSystemFiles() {
  ::mount("sysfs", "/sys", "sysfs", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
}

/// Goes to the working folder by its name: what it was may be covered now.
void EnterFolder(const std::filesystem::path& folder) {
  if (!folder.empty() && ::chdir(folder.c_str()) == -1 && folder.string().rfind("/dev/", 0) == 0) {
    // Nothing but the board's devices is to be had.
    [[maybe_unused]] const int result = ::chdir("/dev");
  }
}

/// @returns what has to stay open as long as the board lives.
Descriptor EnterNamespaces(const Options& options, int socket, uid_t user, gid_t group, bool mapped) {
  if (mapped) {
    MapUser(user, group);
  }
  ::umask(0);
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::current_path(error);
  MakeDevices(options, socket);
  RequireAllowed(::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
                 "a private /proc can't be mounted");
  Descriptor peers;
  if (NetworkOf(options) == Net::kPrivate) {
    peers = MakePrivateNetwork();
    Send(socket, {Message::Kind::kNetwork}, peers.Get());
  } else if (NetworkOf(options) == Net::kNone) {
    MakeEmptyNetwork();
  }
  if (NetworkOf(options) != Net::kHost) {
    MountSystemFiles();
  }
  EnterFolder(folder);
  return peers;
}

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
[[noreturn]] void RunApplication(const std::vector<std::string>& command, bool namespaces, int socket,
                                 const Signals::State& signals) {
  const Descriptor listener = Supervisor::Install(namespaces);
  if (!listener) {
    SendText(socket, Message::Kind::kFailed,
             errno == EBUSY ? "System calls are supervised here already, by another simulator perhaps."
                            : SetupError("System calls can't be supervised", errno).what());
    ::_exit(kStatusNotSetUp);
  }
  Send(socket, {Message::Kind::kListener}, listener.Get());

  char go = 0;
  if (::recv(socket, &go, sizeof go, 0) != sizeof go) {
    ::_exit(kStatusNotSetUp);  // the simulator has gone
  }
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) {
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

/// Ends every process below this one. Those whose parents die become children of this one.
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

/// The life of the first process: it waits for the application and ends with it, and all others with that.
[[noreturn]] void Wait(pid_t application, int socket, bool namespaces, pid_t simulator) {
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
        Send(socket, {Message::Kind::kEnded, status});
      }
    }
  }
  if (!namespaces) {
    EndDescendants();
  }
  ::_exit(0);
}

/// The first process inside.
[[noreturn]] void RunInit(const Options& options, bool namespaces, bool mapped, int socket, uid_t user, gid_t group,
                          const Signals::State& signals) {
  const pid_t simulator = ::getppid();
  pid_t application = -1;
  try {
    // The end of the simulator is the end of all.
    ::prctl(PR_SET_PDEATHSIG, namespaces ? SIGKILL : SIGTERM);
    const mode_t creation = ::umask(0);
    Descriptor peers;
    if (namespaces) {
      peers = EnterNamespaces(options, socket, user, group, mapped);
    } else {
      ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    ::umask(creation);
    application = ::fork();
    Require<SetupError>(application != -1, "no process can be started");
    if (application == 0) {
      RunApplication(options.command, namespaces, socket, signals);
    }
    CloseAllBut(socket, peers.Release());
  } catch (const NamespacesForbidden& error) {
    SendText(socket, Message::Kind::kForbidden, error.what());
    ::_exit(kStatusNotSetUp);
  } catch (const std::exception& error) {
    SendText(socket, Message::Kind::kFailed, error.what());
    ::_exit(kStatusNotSetUp);
  }
  Wait(application, socket, namespaces, simulator);
}

/// Like fork(), into new namespaces.
pid_t Clone(unsigned long namespaces) {
  return static_cast<pid_t>(::syscall(SYS_clone, namespaces | SIGCHLD, 0, 0, 0, 0));
}

/// Does something in a process of its own and waits for it.
/// @returns the exit status.
int InChild(const std::function<int()>& action) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(action());
  }
  int status = -1;
  while (child != -1 && ::waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Sandbox::Sandbox(const Options& options, bool namespaces, const Signals::State& signals) : m_namespaces(namespaces) {
  int ends[2];
  Require<SetupError>(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "no socket can be had");
  m_socket = Descriptor(ends[0]);
  Descriptor theirs(ends[1]);
  // Tells the process of the application in this process's numbering.
  const int on = 1;
  ::setsockopt(m_socket.Get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);

  if (!namespaces) {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    for (const TtyOptions& tty : options.ttys) {
      m_devices.terminals.push_back(OpenMaster("/dev/ptmx"));
      Require<SetupError>(static_cast<bool>(m_devices.terminals.back()),
                          "the terminal for " + tty.path + " can't be opened");
    }
    if (!options.watchdog.empty()) {
      m_devices.watchdog = MakeNamelessFifo();
    }
    if (options.memory) {
      m_devices.memory = Descriptor(::memfd_create("mem", MFD_CLOEXEC));
      Require<SetupError>(m_devices.memory && ::ftruncate(m_devices.memory.Get(), Memory::kSize) == 0,
                          "/dev/mem can't be made");
    }
  }

  const uid_t user = ::geteuid();
  const gid_t group = ::getegid();
  bool mapped = namespaces;
  unsigned long flags = 0;
  if (namespaces) {
    flags = CLONE_NEWNS | CLONE_NEWPID | (NetworkOf(options) == Net::kHost ? 0UL : CLONE_NEWNET);
  }
  m_init = Clone(mapped ? flags | CLONE_NEWUSER : flags);
  if (m_init == -1 && mapped && user == 0) {
    // Where user namespaces are forbidden, root's own rights may do.
    mapped = false;
    m_init = Clone(flags);
  }
  if (m_init == 0) {
    m_socket.Close();
    RunInit(options, namespaces, mapped, theirs.Get(), user, group, signals);
  }
  if (errno == EAGAIN || errno == ENOMEM || !namespaces) {
    Require<SetupError>(m_init != -1, "no process can be started");
  }
  RequireAllowed(m_init != -1, "namespaces can't be made");
  theirs.Close();

  try {
    while (!m_devices.listener) {
      if (!ReceiveMessage()) {
        throw SetupError("The first process has ended before the application began.");
      }
    }
  } catch (const SetupError&) {
    Kill();
    Reap(0);
    throw;
  }
}

Sandbox::~Sandbox() {
  if (m_init != -1) {
    Kill();
    Reap(0);
  }
}

void Sandbox::Go() {
  const char go = 1;
  ::send(m_socket.Get(), &go, sizeof go, MSG_NOSIGNAL);
}

void Sandbox::Signal(int signal) const {
  // Likewise never without a process.
  if (m_application > 0) {
    ::kill(m_application, signal);
  }
}

void Sandbox::Kill() {
  // Never without a process: -1 would mean every process of the machine.
  if (m_init != -1) {
    // Without namespaces the first process has to end the others before itself.
    ::kill(m_init, m_namespaces ? SIGKILL : SIGTERM);
  }
}

bool Sandbox::HasEnded() {
  if (m_init != -1) {
    Reap(WNOHANG);
  }
  return m_init == -1;
}

Descriptor Sandbox::Replug(const std::string& path) const {
  if (!m_namespaces) {
    Descriptor master = OpenMaster("/dev/ptmx");
    Require<SetupError>(static_cast<bool>(master), "no terminal can be opened");
    return master;
  }
  int ends[2];
  Require<SetupError>(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "no socket can be had");
  const Descriptor ours(ends[0]);
  const Descriptor theirs(ends[1]);
  const int status = InChild([&] {
    Join("mnt");
    ::umount2(path.c_str(), MNT_DETACH);
    try {
      Send(theirs.Get(), {Message::Kind::kTerminal}, MakeTerminal(path).Get());
    } catch (const SetupError&) {
      return 1;
    }
    return 0;
  });
  if (status != 0) {
    throw SetupError(path + " can't be mounted again");
  }
  Message message;
  return Receive(ours.Get(), message, nullptr);
}

void Sandbox::SetLink(const std::string& interface, bool up) const {
  const std::string peer = PeerOf(interface);
  if (peer.empty() || !m_peers) {
    throw SetupError("there is no simulated interface " + interface);
  }
  const int status = InChild([&] {
    Join("user");
    if (::setns(m_peers.Get(), CLONE_NEWNET) == -1) {
      return 1;
    }
    try {
      RunIp("link set " + peer + (up ? " up\n" : " down\n"));
    } catch (const SetupError&) {
      return 1;
    }
    return 0;
  });
  if (status != 0) {
    throw SetupError("the cable of " + interface + " can't be moved");
  }
}

bool Sandbox::ReceiveMessage() {
  Message message;
  ucred sender{};
  Descriptor descriptor = Receive(m_socket.Get(), message, &sender);
  switch (message.kind) {
    case Message::Kind::kTerminal:
      m_devices.terminals.push_back(std::move(descriptor));
      return true;
    case Message::Kind::kWatchdog:
      m_devices.watchdog = std::move(descriptor);
      return true;
    case Message::Kind::kMemory:
      m_devices.memory = std::move(descriptor);
      return true;
    case Message::Kind::kNetwork:
      m_peers = std::move(descriptor);
      return true;
    case Message::Kind::kListener:
      m_devices.listener = std::move(descriptor);
      m_application = sender.pid;
      return true;
    case Message::Kind::kEnded:
      m_status = message.status;
      return true;
    case Message::Kind::kForbidden:
      throw NamespacesForbidden(message.text);
    case Message::Kind::kFailed:
      throw SetupError(message.text);
    case Message::Kind::kNothing:
      break;
  }
  return false;
}

void Sandbox::Reap(int options) {
  pid_t ended = 0;
  int status = 0;
  while ((ended = ::waitpid(m_init, &status, options)) == -1 && errno == EINTR) {
  }
  if (ended != m_init) {
    return;
  }
  if (!m_namespaces && WIFSIGNALED(status)) {
    // Killed, it could not end the others: they are this process's children now.
    EndDescendants();
  }
  m_init = -1;
  try {
    while (ReceiveMessage()) {
    }
  } catch (const SetupError&) {
    // It has ended in any case.
  }
}

/// For a process of its own: enters namespaces of the board.
void Sandbox::Join(const std::string& kind) const {
  const std::string folder = "/proc/" + std::to_string(m_init) + "/ns/";
  const Descriptor user(::open((folder + "user").c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor other(::open((folder + kind).c_str(), O_RDONLY | O_CLOEXEC));
  // Fails where there is no user namespace: then root's own rights do.
  ::setns(user.Get(), CLONE_NEWUSER);
  ::setns(other.Get(), 0);
}
