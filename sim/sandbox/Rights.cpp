#include "sandbox/Rights.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "sandbox/Errors.h"

namespace {

// Newer than some kernel headers.
constexpr unsigned int kPerfmon = 38;
constexpr unsigned int kBpf = 39;
constexpr unsigned int kCheckpointRestore = 40;

constexpr unsigned int kOverMachine[] = {
    CAP_SYS_ADMIN,  CAP_SYS_MODULE,    CAP_SYS_RAWIO,     CAP_SYS_BOOT,        CAP_SYS_TIME,   CAP_MKNOD,
    CAP_MAC_ADMIN,  CAP_SYSLOG,        CAP_MAC_OVERRIDE,  CAP_DAC_READ_SEARCH, CAP_SYS_PTRACE, CAP_LINUX_IMMUTABLE,
    CAP_AUDIT_READ, CAP_WAKE_ALARM,    CAP_BLOCK_SUSPEND, CAP_AUDIT_CONTROL,   CAP_SYS_PACCT,  kPerfmon,
    kBpf,           kCheckpointRestore};

void Drop(unsigned int right) {
  // Fails for a right that the kernel does not know, which nobody has.
  if (::prctl(PR_CAPBSET_READ, right, 0, 0, 0) == 1) {
    Require(::prctl(PR_CAPBSET_DROP, right, 0, 0, 0) == 0, "root's rights over the machine can't be dropped");
  }
}

}  // namespace

void RaiseLimits() {
  struct Limit {
    __rlimit_resource_t resource;
    rlim_t greatest;
  };
  for (const Limit& limit : {Limit{RLIMIT_RTPRIO, 99}, {RLIMIT_NICE, 40}, {RLIMIT_MEMLOCK, RLIM_INFINITY}}) {
    rlimit wanted{limit.greatest, limit.greatest};
    if (::setrlimit(limit.resource, &wanted) == -1 && ::getrlimit(limit.resource, &wanted) == 0) {
      wanted.rlim_cur = wanted.rlim_max;
      ::setrlimit(limit.resource, &wanted);
    }
  }
}

void DropRightsOverMachine(bool network) {
  for (const unsigned int right : kOverMachine) {
    Drop(right);
  }
  if (network) {
    Drop(CAP_NET_ADMIN);
  }
  // Inheritable rights count for root as well, besides the bounding set.
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3] = {};
  Require(::syscall(SYS_capget, &header, rights) == 0, "root's rights can't be read");
  for (__user_cap_data_struct& part : rights) {
    part.inheritable = 0;
  }
  Require(
      ::syscall(SYS_capset, &header, rights) == 0 && ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0,
      "root's rights over the machine can't be dropped");
}
