#include "BareSupervisor.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>
#include <system_error>

#include "Descriptor.h"

// Newer than some kernel headers.
#ifndef SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP
#define SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP (1UL << 0)
#define SECCOMP_IOCTL_NOTIF_SET_FLAGS SECCOMP_IOW(4, __u64)
#endif

namespace {

constexpr std::size_t kPathPiece = 256;  // bytes: up to the next multiple, there is memory if there is any

/// @returns the listener.
int InstallFilter() {
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ioctl, 0, 2),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, TIOCMGET, 4, 5),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 4),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
      BPF_STMT(BPF_ALU | BPF_AND | BPF_K, O_ACCMODE),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, O_RDWR, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program{std::size(code), code};
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  return static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
}

class Caller {
 public:
  explicit Caller(pid_t number)
      : m_number(number),
        m_process(static_cast<int>(::syscall(SYS_pidfd_open, number, 0))),
        m_folder(::open(("/proc/" + std::to_string(number)).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

  Descriptor Duplicate(int descriptor) const {
    return Descriptor(static_cast<int>(::syscall(SYS_pidfd_getfd, m_process.Get(), descriptor, 0)));
  }

  void AnswerLines(const seccomp_notif& call) const {
    struct stat status {};
    ::fstat(Duplicate(static_cast<int>(call.data.args[0])).Get(), &status);
    int lines = 0;
    const iovec from{&lines, sizeof lines};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): it comes from the kernel as a number
    const iovec to{reinterpret_cast<void*>(call.data.args[2]), sizeof lines};
    ::process_vm_writev(m_number, &from, 1, &to, 1, 0);
  }

  void LookAtOpen(const Descriptor& listener, const seccomp_notif& call) const {
    std::array<char, kPathPiece> path{};
    const iovec to{path.data(), kPathPiece - call.data.args[1] % kPathPiece};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): it comes from the kernel as a number
    const iovec from{reinterpret_cast<void*>(call.data.args[1]), to.iov_len};
    ::process_vm_readv(m_number, &to, 1, &from, 1, 0);
    struct stat status {};
    ::fstatat(m_folder.Get(), ("root" + std::string(path.data())).c_str(), &status, 0);
    ::ioctl(listener.Get(), SECCOMP_IOCTL_NOTIF_ID_VALID, &call.id);
    ::fstatat(m_folder.Get(), ".", &status, 0);  // whose user is the caller's
  }

 private:
  pid_t m_number;
  Descriptor m_process;
  Descriptor m_folder;
};

void Supervise(const Descriptor& listener, const Caller& caller) {
  ::ioctl(listener.Get(), SECCOMP_IOCTL_NOTIF_SET_FLAGS, SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP);
  pollfd wait{listener.Get(), POLLIN, 0};
  while (::ppoll(&wait, 1, nullptr, nullptr) == 1 && (wait.revents & POLLIN) != 0) {
    seccomp_notif call{};
    seccomp_notif_resp answer{};
    if (::ioctl(listener.Get(), SECCOMP_IOCTL_NOTIF_RECV, &call) == -1) {
      continue;
    }
    answer.id = call.id;
    if (call.data.nr == SYS_ioctl) {
      caller.AnswerLines(call);
    } else {
      caller.LookAtOpen(listener, call);
      answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    }
    ::ioctl(listener.Get(), SECCOMP_IOCTL_NOTIF_SEND, &answer);
  }
}

}  // namespace

void ContinueSupervised() {
  std::array<int, 2> toParent{};
  std::array<int, 2> toChild{};
  if (::pipe2(toParent.data(), O_CLOEXEC) == -1 || ::pipe2(toChild.data(), O_CLOEXEC) == -1) {
    throw std::system_error(errno, std::system_category(), "pipe");
  }
  const pid_t child = ::fork();
  int listener = -1;
  char taken = 0;
  if (child == 0) {
    listener = InstallFilter();
    if (listener == -1 || ::write(toParent[1], &listener, sizeof listener) != sizeof listener ||
        ::read(toChild[0], &taken, sizeof taken) != sizeof taken) {
      throw std::system_error(errno, std::system_category(), "calls can't be supervised");
    }
    ::close(listener);
    return;
  }
  ::close(toParent[1]);
  if (child != -1 && ::read(toParent[0], &listener, sizeof listener) == sizeof listener) {
    const Caller caller(child);
    const Descriptor own = caller.Duplicate(listener);
    if (::write(toChild[1], &taken, sizeof taken) == sizeof taken) {
      Supervise(own, caller);
    }
  }
  int status = EXIT_FAILURE;
  ::waitpid(child, &status, 0);
  std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE);
}
