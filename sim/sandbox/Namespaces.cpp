#include "sandbox/Namespaces.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "sandbox/Errors.h"
#include "sandbox/PrivateDev.h"

namespace {

void WriteFile(const char* path, const std::string& text) {
  const Descriptor file(::open(path, O_WRONLY | O_CLOEXEC));
  Require<NamespacesForbidden>(
      file && ::write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()),
      std::string(path) + " can't be written");
}

/// The user is root in there, as on a board, and nobody else exists.
void MapUser(uid_t user, gid_t group) {
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
  WriteFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
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

/// Like fork(), into new namespaces.
pid_t Clone(unsigned long namespaces) {
  return static_cast<pid_t>(::syscall(SYS_clone, namespaces | SIGCHLD, 0, 0, 0, 0));
}

}  // namespace

pid_t CloneForPlan(const Plan& plan, UserMap& users) {
  unsigned long flags = 0;
  if (plan.namespaces) {
    flags = CLONE_NEWNS | CLONE_NEWPID | (plan.net == Net::kHost ? 0UL : CLONE_NEWNET);
  }
  users.isMapped = plan.namespaces;
  pid_t process = Clone(users.isMapped ? flags | CLONE_NEWUSER : flags);
  if (process == -1 && users.isMapped && users.user == 0) {
    users.isMapped = false;
    process = Clone(flags);
  }
  return process;
}

Descriptor EnterSurroundings(const Plan& plan, const UserMap& users, const Channel& channel) {
  if (users.isMapped) {
    MapUser(users.user, users.group);
  }
  ::umask(0);
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::current_path(error);
  MountPrivateDev();
  for (const Node& node : plan.nodes) {
    channel.Send(Message(Message::Kind::kNode, node.path), MakeNode(node).Get());
  }
  Require<NamespacesForbidden>(::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
                               "a private /proc can't be mounted");
  Descriptor peers;
  if (plan.net == Net::kPrivate) {
    peers = MakePrivateNetwork();
    channel.Send(Message(Message::Kind::kNetwork), peers.Get());
  } else if (plan.net == Net::kNone) {
    MakeEmptyNetwork();
  }
  if (plan.net != Net::kHost) {
    MountSystemFiles();
  }
  EnterFolder(folder);
  return peers;
}

void JoinNamespaces(pid_t process, const std::string& kind) {
  const std::string folder = "/proc/" + std::to_string(process) + "/ns/";
  const Descriptor user(::open((folder + "user").c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor other(::open((folder + kind).c_str(), O_RDONLY | O_CLOEXEC));
  // Fails where there is no user namespace: then root's own rights do.
  ::setns(user.Get(), CLONE_NEWUSER);
  ::setns(other.Get(), 0);
}
