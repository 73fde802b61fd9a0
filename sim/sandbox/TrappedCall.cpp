#include "sandbox/TrappedCall.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fstream>
#include <limits>

#include "sandbox/Filter.h"

bool TrappedCall::IsIoctl() const {
  return IsForeign() || m_call.data.nr == SYS_ioctl;
}

bool TrappedCall::IsForeign() const {
  return m_call.data.arch != SupervisedArchitecture();
}

bool TrappedCall::IsTruncate() const {
  return m_call.data.nr == SYS_truncate;
}

bool TrappedCall::IsFtruncate() const {
  return m_call.data.nr == SYS_ftruncate;
}

int TrappedCall::CalledDescriptor() const {
  return static_cast<int>(m_call.data.args[0]);
}

unsigned int TrappedCall::IoctlRequest() const {
  // Some callers sign-extend a request; the kernel, too, looks only at the low word.
  return static_cast<unsigned int>(m_call.data.args[1]);
}

TrappedCall::Opening TrappedCall::Open() const {
  const auto& arguments = m_call.data.args;
  const auto number = [&arguments](std::size_t index) { return static_cast<int>(arguments[index]); };
  switch (m_call.data.nr) {
    case SYS_openat:
      return {number(0), number(2), arguments[1], 0};
    case SYS_openat2: {
      // Later versions are longer; the kernel knows their meaning.
      open_how how{};
      ReadMemory(arguments[2], &how, std::min<std::uint64_t>(arguments[3], sizeof how));
      return {number(0), static_cast<int>(how.flags), arguments[1], how.resolve};
    }
#ifdef SYS_open
    case SYS_open:
      return {AT_FDCWD, number(1), arguments[0], 0};
#endif
    default:
      return {AT_FDCWD, O_WRONLY | O_CREAT | O_TRUNC, arguments[0], 0};  // creat(), truncate()
  }
}

std::string TrappedCall::PathOf(const Opening& opening) const {
  const std::uint64_t address = opening.path;
  std::string path;
  constexpr std::uint64_t kPiece = 256;
  // Piece by piece up to the next boundary: there may be no memory after the text.
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

bool TrappedCall::HasSignal() const {
  std::ifstream status("/proc/" + std::to_string(Thread()) + "/status");
  std::uint64_t pending = 0;
  std::uint64_t held = 0;
  for (std::string name; status >> name; status.ignore(std::numeric_limits<std::streamsize>::max(), '\n')) {
    const bool isPending = name == "SigPnd:" || name == "ShdPnd:";
    if (isPending || name == "SigBlk:" || name == "SigIgn:") {
      std::uint64_t signals = 0;
      status >> std::hex >> signals;
      (isPending ? pending : held) |= signals;
    }
  }
  return (pending & ~held) != 0;
}

void TrappedCall::Return(std::int64_t value) const {
  Answer(value, 0, 0);
}

void TrappedCall::Fail(int error) const {
  Answer(0, -error, 0);
}

void TrappedCall::Restart() const {
  constexpr int kRestart = 512;  // the kernel's ERESTARTSYS, which no header has
  Answer(0, -kRestart, 0);
}

void TrappedCall::Continue() const {
  Answer(0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE);
}

int TrappedCall::ReturnDescriptor(const Descriptor& descriptor, const Opening& opening) const {
  seccomp_notif_addfd addition{};
  addition.id = m_call.id;
  addition.flags = SECCOMP_ADDFD_FLAG_SEND;
  addition.srcfd = static_cast<std::uint32_t>(descriptor.Get());
  addition.newfd_flags = static_cast<std::uint32_t>(opening.flags & O_CLOEXEC);
  return ::ioctl(m_listener, SECCOMP_IOCTL_NOTIF_ADDFD, &addition) == -1 ? errno : 0;
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
  // Fails only if the caller has gone: then nobody needs the answer.
  ::ioctl(m_listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
}
