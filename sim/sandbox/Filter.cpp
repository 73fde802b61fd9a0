#include "sandbox/Filter.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#if defined(__x86_64__)
constexpr unsigned int kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned int kArchitecture = AUDIT_ARCH_AARCH64;
#else
#error "boardsim knows the system calls of amd64 and arm64 only."
#endif
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the filter looks at the low words of arguments");

namespace {

constexpr unsigned int kForeignIoctl = 54;  // on i386 and on ARM with 32 bits

/// Writes a filter: tests one after the other, each followed by its verdict.
class Program {
 public:
  void LoadArchitecture() {
    Load(offsetof(seccomp_data, arch));
  }
  void LoadNumber() {
    Load(offsetof(seccomp_data, nr));
  }
  void LoadArgument(std::size_t index) {
    Load(offsetof(seccomp_data, args) + index * sizeof(std::uint64_t));
  }
  void Return(unsigned int verdict) {
    m_code.push_back(BPF_STMT(BPF_RET | BPF_K, verdict));
  }
  void ReturnIfEqual(unsigned int value, unsigned int verdict) {
    m_code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1));
    Return(verdict);
  }
  void ReturnIfAnySet(unsigned int bits, unsigned int verdict) {
    m_code.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, 0, 1));
    Return(verdict);
  }
  void ReturnIfNoneSet(unsigned int bits, unsigned int verdict) {
    m_code.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, 1, 0));
    Return(verdict);
  }
  /// Ends it. The comparisons halve what is left, as all other values go through them, too.
  void ReturnIfAnyOf(const std::vector<unsigned int>& sorted, unsigned int verdict, unsigned int otherwise) {
    if (sorted.size() <= 1) {
      if (!sorted.empty()) {
        ReturnIfEqual(sorted.front(), verdict);
      }
      Return(otherwise);
      return;
    }
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
    Program lower;
    lower.ReturnIfAnyOf({sorted.begin(), middle}, verdict, otherwise);
    m_code.push_back(BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, *middle, static_cast<unsigned char>(lower.m_code.size()), 0));
    Add(lower);
    ReturnIfAnyOf({middle, sorted.end()}, verdict, otherwise);
  }
  /// The part that follows, for one system call. It must end with Return().
  void Append(int systemCall, const Program& part) {
    m_code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(systemCall), 1, 0));
    m_code.push_back(BPF_STMT(BPF_JMP | BPF_JA, static_cast<unsigned int>(part.m_code.size())));
    Add(part);
  }
  /// The part that follows, for all values but one. It must end with Return().
  void AppendUnlessEqual(unsigned int value, const Program& part) {
    m_code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, static_cast<unsigned char>(part.m_code.size()), 0));
    Add(part);
  }
  sock_fprog Finished() {
    return {static_cast<unsigned short>(m_code.size()), m_code.data()};
  }

 private:
  void Add(const Program& part) {
    m_code.insert(m_code.end(), part.m_code.begin(), part.m_code.end());
  }
  void Load(std::size_t offset) {
    m_code.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned int>(offset)));
  }

  std::vector<sock_filter> m_code;
};

Program IoctlPart(TrappedRequests requests) {
  std::sort(requests.begin(), requests.end());
  Program part;
  part.LoadArgument(1);
  part.ReturnIfAnyOf(requests, SECCOMP_RET_USER_NOTIF, SECCOMP_RET_ALLOW);
  return part;
}

/// Supervises opens for writing without O_CREAT, as devices are opened and little else, and those that would empty a
/// file, as memory must not be. Signals can interrupt supervised calls, which programs expect at most of devices.
Program OpenPart(std::size_t flagsIndex, bool devicesExist) {
  Program part;
  part.LoadArgument(flagsIndex);
  part.ReturnIfNoneSet(O_ACCMODE | O_TRUNC, SECCOMP_RET_ALLOW);
  part.ReturnIfAnySet(O_PATH | O_DIRECTORY, SECCOMP_RET_ALLOW);
  part.ReturnIfAnySet(O_TRUNC, SECCOMP_RET_USER_NOTIF);
  part.ReturnIfAnySet(devicesExist ? O_CREAT : 0, SECCOMP_RET_ALLOW);
  part.Return(SECCOMP_RET_USER_NOTIF);
  return part;
}

/// Requests are supervised only so that the user can be warned.
Program ForeignPart() {
  Program part;
  part.LoadNumber();
  part.ReturnIfEqual(kForeignIoctl, SECCOMP_RET_USER_NOTIF);
  part.Return(SECCOMP_RET_ALLOW);
  return part;
}

Program Filter(const TrappedRequests& requests, bool devicesExist) {
  Program filter;
  filter.LoadArchitecture();
  // Programs for the other architecture are left alone, but their users are warned.
  filter.AppendUnlessEqual(kArchitecture, ForeignPart());
  filter.LoadNumber();
  filter.Append(SYS_ioctl, IoctlPart(requests));
  filter.Append(SYS_openat, OpenPart(2, devicesExist));
  filter.ReturnIfEqual(SYS_truncate, SECCOMP_RET_USER_NOTIF);
  filter.ReturnIfEqual(SYS_ftruncate, SECCOMP_RET_USER_NOTIF);
#ifdef SYS_creat
  filter.ReturnIfEqual(SYS_creat, SECCOMP_RET_USER_NOTIF);
#endif
#ifdef SYS_open
  filter.Append(SYS_open, OpenPart(1, devicesExist));
#endif
  // The flags of this one can't be seen from here.
  filter.ReturnIfEqual(SYS_openat2, SECCOMP_RET_USER_NOTIF);
  if (!devicesExist) {
    // With io_uring the kernel itself opens files. Programs manage without it where it does not exist.
    filter.ReturnIfEqual(SYS_io_uring_setup, SECCOMP_RET_ERRNO | ENOSYS);
  }
  filter.Return(SECCOMP_RET_ALLOW);
  return filter;
}

int Seccomp(unsigned int operation, unsigned long flags, void* argument) {
  return static_cast<int>(::syscall(SYS_seccomp, operation, flags, argument));
}

/// @returns the listener, or -1 with errno.
int Install(sock_fprog& program) {
  // With a new enough kernel, a call that has been received can't be interrupted any more.
  const int listener = Seccomp(SECCOMP_SET_MODE_FILTER,
                               SECCOMP_FILTER_FLAG_NEW_LISTENER | SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV, &program);
  return listener == -1 && errno == EINVAL
             ? Seccomp(SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program)
             : listener;
}

}  // namespace

Descriptor InstallFilter(const TrappedRequests& requests, bool devicesExist) {
  Program filter = Filter(requests, devicesExist);
  sock_fprog program = filter.Finished();
  int listener = Install(program);
  // Without rights of its own, a process has to give up those that set-user-ID programs would give it.
  if (listener == -1 && errno == EACCES && ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0) {
    listener = Install(program);
  }
  return Descriptor(listener);
}

unsigned int SupervisedArchitecture() {
  return kArchitecture;
}

bool CanKeepSignalsBack() {
  // Without a filter nothing is installed: the kernel complains of that, or of the flag before.
  return Seccomp(SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER | SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV,
                 nullptr) == -1 &&
         errno == EFAULT;
}

bool CanHandOverDescriptors(const Descriptor& listener) {
  // For a call that does not wait: the kernel complains of that, or of the flag before.
  seccomp_notif_addfd addition{};
  addition.flags = SECCOMP_ADDFD_FLAG_SEND;
  addition.srcfd = static_cast<std::uint32_t>(listener.Get());
  return ::ioctl(listener.Get(), SECCOMP_IOCTL_NOTIF_ADDFD, &addition) == -1 && errno == ENOENT;
}
