#include "Supervisor.h"

#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include "WatchdogRequests.h"

#if defined(__x86_64__)
constexpr unsigned int kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned int kArchitecture = AUDIT_ARCH_AARCH64;
#else
#error "boardsim knows the system calls of amd64 and arm64 only."
#endif
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the filter looks at the low words of arguments");

namespace {

// Younger than some kernel headers.
#ifndef SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP
#define SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP (1UL << 0)
#define SECCOMP_IOCTL_NOTIF_SET_FLAGS SECCOMP_IOW(4, __u64)
#endif

// What a pseudo-terminal refuses, or forgets. TCFLSH: bytes on their way through the simulator are to go, too.
constexpr unsigned int kTerminalRequests[] = {TCGETS,   TCSETS,   TCSETSW,  TCSETSF,     TCGETS2,
                                              TCSETS2,  TCSETSW2, TCSETSF2, TCFLSH,      TIOCMGET,
                                              TIOCMSET, TIOCMBIS, TIOCMBIC, TIOCGSERIAL, TIOCSSERIAL};

/// Writes a filter: tests one after the other, each with its verdict directly behind it.
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
  void Keep(unsigned int bits) {
    m_code.push_back(BPF_STMT(BPF_ALU | BPF_AND | BPF_K, bits));
  }
  void Return(unsigned int verdict) {
    m_code.push_back(BPF_STMT(BPF_RET | BPF_K, verdict));
  }
  void ReturnIfEqual(unsigned int value, unsigned int verdict) {
    m_code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1));
    Return(verdict);
  }
  void ReturnUnlessEqual(unsigned int value, unsigned int verdict) {
    m_code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 1, 0));
    Return(verdict);
  }
  void ReturnIfAnySet(unsigned int bits, unsigned int verdict) {
    m_code.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, 0, 1));
    Return(verdict);
  }
  /// The part that follows, for one system call. It must end with Return().
  void Append(int systemCall, const Program& part) {
    m_code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(systemCall), 0,
                              static_cast<unsigned char>(part.m_code.size())));
    m_code.insert(m_code.end(), part.m_code.begin(), part.m_code.end());
  }
  sock_fprog Finished() {
    return {static_cast<unsigned short>(m_code.size()), m_code.data()};
  }

 private:
  void Load(std::size_t offset) {
    m_code.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned int>(offset)));
  }

  std::vector<sock_filter> m_code;
};

Program IoctlPart() {
  Program part;
  part.LoadArgument(1);
  for (const unsigned int request : kTerminalRequests) {
    part.ReturnIfEqual(request, SECCOMP_RET_USER_NOTIF);
  }
  part.Keep(kRequestTypeBits);
  part.ReturnIfEqual(kWatchdogType, SECCOMP_RET_USER_NOTIF);
  part.Return(SECCOMP_RET_ALLOW);
  return part;
}

/// Opens for writing without O_CREAT: devices are opened so, and little else. What is kept back can be interrupted by
/// signals, which programs expect of opening a device at most.
Program OpenPart(std::size_t flagsIndex, bool devicesExist) {
  Program part;
  part.LoadArgument(flagsIndex);
  part.ReturnIfAnySet(O_PATH | O_DIRECTORY | (devicesExist ? O_CREAT : 0), SECCOMP_RET_ALLOW);
  part.Keep(O_ACCMODE);
  part.ReturnIfEqual(O_RDONLY, SECCOMP_RET_ALLOW);
  part.Return(SECCOMP_RET_USER_NOTIF);
  return part;
}

Program Filter(bool devicesExist) {
  Program filter;
  filter.LoadArchitecture();
  // Programs for other architectures are left alone.
  filter.ReturnUnlessEqual(kArchitecture, SECCOMP_RET_ALLOW);
  filter.LoadNumber();
  filter.Append(SYS_ioctl, IoctlPart());
  filter.Append(SYS_openat, OpenPart(2, devicesExist));
#ifdef SYS_open
  filter.Append(SYS_open, OpenPart(1, devicesExist));
#endif
  filter.Return(SECCOMP_RET_ALLOW);
  return filter;
}

int Seccomp(unsigned int operation, unsigned long flags, void* argument) {
  return static_cast<int>(::syscall(SYS_seccomp, operation, flags, argument));
}

}  // namespace

bool TrappedCall::IsIoctl() const {
  return m_call.data.nr == SYS_ioctl;
}

int TrappedCall::IoctlDescriptor() const {
  return static_cast<int>(m_call.data.args[0]);
}

unsigned int TrappedCall::IoctlRequest() const {
  // Some callers extend the sign of a request: the kernel looks at the low word only, too.
  return static_cast<unsigned int>(m_call.data.args[1]);
}

int TrappedCall::OpenFolder() const {
  return m_call.data.nr == SYS_openat ? static_cast<int>(m_call.data.args[0]) : AT_FDCWD;
}

int TrappedCall::OpenFlags() const {
  return static_cast<int>(m_call.data.args[m_call.data.nr == SYS_openat ? 2 : 1]);
}

std::string TrappedCall::OpenPath() const {
  const std::uint64_t address = m_call.data.args[m_call.data.nr == SYS_openat ? 1 : 0];
  std::string path;
  constexpr std::uint64_t kPiece = 256;
  // Piece by piece up to the next boundary: behind the text, there need not be any memory.
  while (path.size() < PATH_MAX) {
    char piece[kPiece];
    const std::size_t size = kPiece - (address + path.size()) % kPiece;
    ReadMemory(address + path.size(), piece, size);
    char* const end = std::find(piece, piece + size, '\0');
    path.append(piece, end);
    if (end != piece + size) {
      return path;
    }
  }
  throw RequestError{ENAMETOOLONG};
}

bool TrappedCall::IsWaiting() const {
  return ::ioctl(m_listener, SECCOMP_IOCTL_NOTIF_ID_VALID, &m_call.id) == 0;
}

void TrappedCall::Return(std::int64_t value) const {
  Answer(value, 0, 0);
}

void TrappedCall::Fail(int error) const {
  Answer(0, -error, 0);
}

void TrappedCall::Continue() const {
  Answer(0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE);
}

void TrappedCall::ReturnDescriptor(const Descriptor& descriptor) const {
  seccomp_notif_addfd addition{};
  addition.id = m_call.id;
  addition.flags = SECCOMP_ADDFD_FLAG_SEND;
  addition.srcfd = static_cast<std::uint32_t>(descriptor.Get());
  addition.newfd_flags = static_cast<std::uint32_t>(OpenFlags() & O_CLOEXEC);
  if (::ioctl(m_listener, SECCOMP_IOCTL_NOTIF_ADDFD, &addition) == -1 && errno != ENOENT) {
    Fail(errno);
  }
}

void TrappedCall::ReadMemory(std::uint64_t address, void* to, std::size_t size) const {
  const iovec here{to, size};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): it comes from the kernel as a number
  const iovec there{reinterpret_cast<void*>(address), size};
  if (::process_vm_readv(Thread(), &here, 1, &there, 1, 0) != static_cast<ssize_t>(size)) {
    throw RequestError{EFAULT};
  }
}

void TrappedCall::WriteMemory(std::uint64_t address, const void* from, std::size_t size) const {
  const iovec here{const_cast<void*>(from), size};  // NOLINT(cppcoreguidelines-pro-type-const-cast): only read
  // NOLINTNEXTLINE(performance-no-int-to-ptr): it comes from the kernel as a number
  const iovec there{reinterpret_cast<void*>(address), size};
  if (::process_vm_writev(Thread(), &here, 1, &there, 1, 0) != static_cast<ssize_t>(size)) {
    throw RequestError{EFAULT};
  }
}

void TrappedCall::Answer(std::int64_t value, int error, std::uint32_t flags) const {
  seccomp_notif_resp answer{};
  answer.id = m_call.id;
  answer.val = value;
  answer.error = error;
  answer.flags = flags;
  // Fails only if the caller has gone: nobody is left to be told.
  ::ioctl(m_listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
}

Supervisor::Supervisor(Descriptor listener) : m_listener(std::move(listener)) {
  // Newer kernels then hand the processor over at once, which halves the time of an answer.
  ::ioctl(m_listener.Get(), SECCOMP_IOCTL_NOTIF_SET_FLAGS, SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP);
}

std::optional<TrappedCall> Supervisor::Receive() const {
  seccomp_notif call{};
  if (::ioctl(m_listener.Get(), SECCOMP_IOCTL_NOTIF_RECV, &call) == -1) {
    return std::nullopt;
  }
  return TrappedCall(m_listener.Get(), call);
}

Descriptor Supervisor::Install(bool devicesExist) {
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == -1) {
    return Descriptor();
  }
  Program filter = Filter(devicesExist);
  sock_fprog program = filter.Finished();
  // A call that has been received can't be interrupted any more, where the kernel is new enough for that.
  int listener = Seccomp(SECCOMP_SET_MODE_FILTER,
                         SECCOMP_FILTER_FLAG_NEW_LISTENER | SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV, &program);
  if (listener == -1 && errno == EINVAL) {
    listener = Seccomp(SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program);
  }
  return Descriptor(listener);
}

bool Supervisor::CanKeepSignalsBack() {
  // Without a filter nothing is installed: the kernel complains of that, or of the flag before.
  return Seccomp(SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER | SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV,
                 nullptr) == -1 &&
         errno == EFAULT;
}

bool Supervisor::CanHandOverDescriptors(const Descriptor& listener) {
  // For a call that does not wait: the kernel complains of that, or of the flag before.
  seccomp_notif_addfd addition{};
  addition.flags = SECCOMP_ADDFD_FLAG_SEND;
  addition.srcfd = static_cast<std::uint32_t>(listener.Get());
  return ::ioctl(listener.Get(), SECCOMP_IOCTL_NOTIF_ADDFD, &addition) == -1 && errno == ENOENT;
}
