#include "sandbox/Network.h"

#include <fcntl.h>
#include <linux/if_addr.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <thread>

#include "ExitStatus.h"
#include "SetupError.h"

namespace {

constexpr unsigned int kLinkScope = 0x20;  // as the list of addresses gives it

constexpr const char* kSettings = "/proc/sys/net/ipv6/conf";

/// The two ends have different numbers: with the same one, the kernel makes them wait a second for their carrier if
/// any others on the machine have just got theirs.
struct Interface {
  const char* name;
  const char* address;  // of the hardware
  const char* peer;
  const char* peerIndex;
  const char* peerAddress4;
  const char* peerAddress6;
  bool isUp;
};
constexpr Interface kInterfaces[] = {
    {"eth0", "02:00:00:00:00:01", "peer0", "102", "192.0.2.1/24", "2001:db8::1/64", true},
    {"eth1", "02:00:00:00:00:02", "peer1", "103", "198.51.100.1/24", "2001:db8:1::1/64", false}};

bool HasIpV6() {
  return ::access(kSettings, F_OK) == 0;
}

/// Whether an interface gets an address by itself: the machine may switch that off for all new ones.
bool UsesIpV6(const std::string& name) {
  std::ifstream setting(std::string(kSettings) + '/' + name + "/disable_ipv6");
  int isDisabled = 1;
  return setting >> isDisabled && isDisabled == 0;
}

/// Makes addresses valid at once, not only after a second in which nobody else claims them.
void ForgoTentativeAddresses() {
  for (const char* which : {"all", "default"}) {
    const Descriptor setting(
        ::open((std::string(kSettings) + '/' + which + "/accept_dad").c_str(), O_WRONLY | O_CLOEXEC));
    if (setting && ::write(setting.Get(), "0", 1) == -1) {
      throw SetupError("IPv6 can't be set up", errno);
    }
  }
}

/// Whether an interface has a valid link-local address.
bool HasLinkAddress(const std::string& name) {
  std::ifstream list("/proc/self/net/if_inet6");
  unsigned int scope = 0;
  unsigned int flags = 0;
  std::string skipped;
  for (std::string owner; list >> skipped >> skipped >> skipped >> std::hex >> scope >> flags >> owner;) {
    if (owner == name && scope == kLinkScope && (flags & IFA_F_TENTATIVE) == 0) {
      return true;
    }
  }
  return false;
}

/// The kernel assigns them a moment later, even if it need not check whether others have them.
void AwaitLinkAddress(const std::string& name) {
  constexpr int kMost = 500;
  for (int milliseconds = 0; milliseconds < kMost && !HasLinkAddress(name); ++milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

/// Runs `ip` in a process of its own, after some preparation in there.
void RunIp(const std::string& commands, const std::function<bool()>& prepare) {
  const Descriptor input(::memfd_create("ip-commands", MFD_CLOEXEC));
  const Descriptor output(::memfd_create("ip-output", MFD_CLOEXEC));
  if (!input || !output || ::pwrite(input.Get(), commands.data(), commands.size(), 0) == -1) {
    throw SetupError("the commands for `ip` can't be kept", errno);
  }

  const pid_t child = ::fork();
  if (child == -1) {
    throw SetupError("`ip` can't be started", errno);
  }
  if (child == 0) {
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    if (prepare()) {
      ::dup2(input.Get(), STDIN_FILENO);
      ::dup2(output.Get(), STDOUT_FILENO);
      ::dup2(output.Get(), STDERR_FILENO);
      // Some systems keep it where the PATH of ordinary users does not lead.
      const char* path = std::getenv("PATH");
      ::setenv("PATH", (std::string(path == nullptr ? "/usr/bin:/bin" : path) + ":/usr/sbin:/sbin").c_str(), 1);
      ::execlp("ip", "ip", "-batch", "-", static_cast<char*>(nullptr));
    }
    ::_exit(errno == ENOENT ? kStatusNotFound : kStatusNotExecutable);
  }

  int status = 0;
  while (::waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  if (status == 0) {
    return;
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) >= kStatusNotExecutable) {
    throw SetupError("There is no `ip` to make the network with: install iproute2, or use --net none.");
  }
  if (WIFSIGNALED(status)) {
    throw SetupError("`ip` was ended by signal " + std::to_string(WTERMSIG(status)) + '.');
  }
  char text[200] = {};
  const ssize_t size = ::pread(output.Get(), text, sizeof text - 1, 0);
  const std::string complaint(text, size > 0 ? static_cast<std::size_t>(size) : 0);
  throw SetupError("`ip` could not make the network: " + complaint.substr(0, complaint.find('\n')));
}

void SetUp(const char* interface) {
  ifreq request{};
  std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", interface);
  const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  bool isUp = socket && ::ioctl(socket.Get(), SIOCGIFFLAGS, &request) == 0;
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  isUp = isUp && ::ioctl(socket.Get(), SIOCSIFFLAGS, &request) == 0;
  if (!isUp) {
    throw SetupError(std::string(interface) + " can't be set up", errno);
  }
}

void Enter(const Descriptor& network) {
  if (::setns(network.Get(), CLONE_NEWNET) == -1) {
    throw SetupError("the network of the board can't be entered", errno);
  }
}

}  // namespace

void MakePrivateNetwork(const Descriptor& peers, const Descriptor& board) {
  ForgoTentativeAddresses();
  Enter(board);
  ForgoTentativeAddresses();

  std::string farCommands = "link set lo up\n";
  for (const Interface& interface : kInterfaces) {
    const std::string peer = interface.peer;
    farCommands += "link add " + peer + " index " + interface.peerIndex + " type veth peer name " + interface.name +
                   " address " + interface.address + " netns 1\naddress add " + interface.peerAddress4 + " dev " +
                   peer + '\n';
    if (HasIpV6()) {
      farCommands += std::string("address add ") + interface.peerAddress6 + " dev " + peer + " nodad\n";
    }
    farCommands += "link set " + peer + " up\n";
  }
  RunIp(farCommands, [&peers] { return ::setns(peers.Get(), CLONE_NEWNET) == 0; });
  SetUp("lo");
  for (const Interface& interface : kInterfaces) {
    if (interface.isUp) {
      SetUp(interface.name);
    }
  }
  for (const Interface& interface : kInterfaces) {
    if (interface.isUp && UsesIpV6(interface.name)) {
      AwaitLinkAddress(interface.name);
    }
  }
}

void MakeEmptyNetwork(const Descriptor& board) {
  Enter(board);
  SetUp("lo");
}

std::string PeerOf(const std::string& interface) {
  for (const Interface& candidate : kInterfaces) {
    if (interface == candidate.name) {
      return candidate.peer;
    }
  }
  return "";
}

void RunIp(const std::string& commands) {
  RunIp(commands, [] { return true; });
}
