#ifndef BOARDKIT_SIM_SANDBOX_TRAPPEDCALL_H
#define BOARDKIT_SIM_SANDBOX_TRAPPEDCALL_H

#include <linux/seccomp.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "Descriptor.h"

/// A request that ends with this error number in the application.
struct RequestError {
  int error;
};

/// A system call of the application that waits for its answer. It gets exactly one.
class TrappedCall {
 public:
  bool IsIoctl() const;
  /// Whether it comes from a program of another architecture, which can't be answered. It can only be continued.
  bool IsForeign() const;
  bool IsTruncate() const;
  bool IsFtruncate() const;
  /// The thread that called, in the numbering of this process.
  pid_t Thread() const {
    return static_cast<pid_t>(m_call.pid);
  }

  /// Of an ioctl or ftruncate.
  int CalledDescriptor() const;

  // Of an ioctl:
  unsigned int IoctlRequest() const;
  std::uint64_t IoctlArgument() const {
    return m_call.data.args[2];
  }

  /// What an open, or truncate(), asks for.
  struct Opening {
    int folder;
    int flags;
    std::uint64_t path;
    std::uint64_t resolve;  // of openat2()
  };
  /// @throws RequestError if it can't be read: the kernel may be able to, or gives the error itself.
  Opening Open() const;
  /// @throws RequestError likewise.
  std::string PathOf(const Opening& opening) const;

  /// Reads what the ioctl's argument points to.
  /// @throws RequestError EFAULT.
  template <typename T>
  T Read() const {
    T value{};
    ReadMemory(IoctlArgument(), &value, sizeof value);
    return value;
  }
  /// Writes to where the ioctl's argument points.
  /// @throws RequestError EFAULT.
  template <typename T>
  void Write(const T& value) const {
    WriteMemory(IoctlArgument(), &value, sizeof value);
  }

  /// Whether the thread still waits. If it was killed, its number may mean another one by now.
  bool IsWaiting() const;
  /// Whether a signal waits for the thread that its own handling or end would follow.
  bool HasSignal() const;

  void Return(std::int64_t value) const;
  void Fail(int error) const;
  /// A signal comes first: then the call is made anew, or interrupted, as the signal's handler wants it.
  void Restart() const;
  /// The kernel does what it would have done.
  void Continue() const;
  /// The call is an open, and its result a duplicate of this descriptor.
  /// @returns 0, or the error number, and the call has no answer yet. EINVAL: this kernel can't do it.
  int ReturnDescriptor(const Descriptor& descriptor, const Opening& opening) const;

 private:
  friend class Supervisor;
  TrappedCall(int listener, const seccomp_notif& call) : m_listener(listener), m_call(call) {}
  void ReadMemory(std::uint64_t address, void* to, std::size_t size) const;
  void WriteMemory(std::uint64_t address, const void* from, std::size_t size) const;
  void Answer(std::int64_t value, int error, std::uint32_t flags) const;

  int m_listener;
  seccomp_notif m_call;
};

#endif
