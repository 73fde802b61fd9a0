#include "sandbox/Namespaces.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string_view>

#include "sandbox/Errors.h"
#include "sandbox/Mounts.h"
#include "sandbox/PrivateDev.h"
#include "sandbox/Surroundings.h"
#include "sandbox/SystemEntries.h"
#include "sandbox/Users.h"

namespace {

constexpr std::string_view kHostName = "board";

/// Like fork(), into new namespaces.
pid_t Clone(unsigned long namespaces) {
  return static_cast<pid_t>(::syscall(SYS_clone, namespaces | SIGCHLD, 0, 0, 0, 0));
}

Descriptor OpenNamespace(pid_t process, const char* kind) {
  return Descriptor(::open(("/proc/" + std::to_string(process) + "/ns/" + kind).c_str(), O_RDONLY | O_CLOEXEC));
}

/// Enters the working folder again by its name: the old one may now be covered by a mount.
void EnterFolder(const std::filesystem::path& folder) {
  if (!folder.empty() && ::chdir(folder.c_str()) == -1 && folder.string().rfind("/dev/", 0) == 0) {
    // Nothing but the board's devices is available.
    [[maybe_unused]] const int result = ::chdir("/dev");
  }
}

}  // namespace

pid_t CloneForPlan(const Plan& plan, bool& hasUsers) {
  hasUsers = plan.namespaces;
  if (!plan.namespaces) {
    return Clone(0);
  }
  // With a private network, this one is that of the peers.
  const unsigned long flags = CLONE_NEWNS | CLONE_NEWPID | (plan.net == Net::kPrivate ? CLONE_NEWNET : 0UL);
  pid_t process = Clone(flags | CLONE_NEWUSER);
  if (process == -1 && ::geteuid() == 0) {
    hasUsers = false;
    process = Clone(flags);
  }
  return process;
}

void MakeFiles(const Plan& plan, const Channel& simulator) {
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::current_path(error);
  MakeMountsPrivate();
  MountPrivateDev();
  for (const Node& node : plan.nodes) {
    simulator.Send(Message(Message::Kind::kNode, node.path), MakeNode(node).Get());
  }
  MountPrivateRun();
  MountPrivateProc();
  if (plan.net != Net::kHost) {
    AllowNetworkSettings();
  }
  EnterFolder(folder);
}

void LeaveOuterNamespaces(const Plan& plan, bool hasUsers) {
  const int flags = (hasUsers ? CLONE_NEWUSER : 0) | (plan.net == Net::kHost ? 0 : CLONE_NEWNET);
  Require<NamespacesForbidden>(::unshare(flags) == 0, "the namespaces of the board can't be made");
}

Descriptor MakeInnerNamespaces(const Plan& plan, bool hasUsers, pid_t application, const Channel& simulator) {
  if (hasUsers) {
    MapSameUsers(application);
  }
  Descriptor peers;
  if (plan.net != Net::kHost) {
    peers = Descriptor(::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    const Descriptor own = OpenNamespace(application, "net");
    if (plan.net == Net::kPrivate) {
      MakePrivateNetwork(peers, own);
      simulator.Send(Message(Message::Kind::kNetwork), peers.Get());
    } else {
      MakeEmptyNetwork(own);
    }
  }
  if (plan.net == Net::kHost || !MountSystemFiles()) {
    ProtectSystemFiles();
  }
  for (const auto& [path, folder] : MakeSystemEntries(plan.nodes, plan.classes)) {
    simulator.Send(Message(Message::Kind::kEntry, path), folder.Get());
  }
  if (hasUsers) {
    // What is plugged in here later shows up in the application's copy.
    Require<NamespacesForbidden>(::mount(nullptr, "/", nullptr, MS_REC | MS_SHARED, nullptr) == 0,
                                 "mounts can't be shared");
  }
  return peers;
}

void EnterInnerNamespaces(bool hasUsers) {
  Require<NamespacesForbidden>(::unshare(CLONE_NEWUTS | (hasUsers ? CLONE_NEWNS : 0)) == 0 &&
                                   ::sethostname(kHostName.data(), kHostName.size()) == 0,
                               "the namespaces of the board can't be entered");
}

void JoinUsers(pid_t process) {
  // Fails where there is no user namespace: then root's own rights do.
  ::setns(OpenNamespace(process, "user").Get(), CLONE_NEWUSER);
}

void JoinMounts(pid_t process) {
  // Entering changes the root to that of all mounts, which in a chroot is not the process's.
  const Descriptor root(
      ::open(("/proc/" + std::to_string(process) + "/root").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const Descriptor mounts = OpenNamespace(process, "mnt");
  JoinUsers(process);
  if (::setns(mounts.Get(), CLONE_NEWNS) == 0 && ::fchdir(root.Get()) == 0) {
    [[maybe_unused]] const int result = ::chroot(".");
  }
}
