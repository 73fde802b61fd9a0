#include "NetworkNamespace.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace {

bool WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text << std::flush;
  return file.good();
}

}  // namespace

std::string EnterUserNamespace() {
  const auto user = std::to_string(::geteuid());
  const auto group = std::to_string(::getegid());
  if (::unshare(CLONE_NEWUSER) == -1) {
    return std::string("no user namespace: ") + std::strerror(errno);
  }
  // The kernel accepts a group map of an unprivileged process only once it has given up changing its groups.
  const bool mapped = WriteFile("/proc/self/setgroups", "deny") &&
                      WriteFile("/proc/self/uid_map", "0 " + user + " 1") &&
                      WriteFile("/proc/self/gid_map", "0 " + group + " 1");
  return mapped ? "" : "no mapping to root in a user namespace";
}

std::string EnterFreshNetwork() {
  // Without a user namespace (there are threads already, or the machine forbids it) root's own rights may do.
  static const std::string whyNoUserNamespace = EnterUserNamespace();
  if (::unshare(CLONE_NEWNET) == 0) {
    return "";
  }
  return std::string("no network namespace: ") + std::strerror(errno) +
         (whyNoUserNamespace.empty() ? "" : ", " + whyNoUserNamespace);
}
