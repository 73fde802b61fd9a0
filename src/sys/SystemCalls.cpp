#include "SystemCalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <stdexcept>
#include <string>

#include "DataPath.h"
#include "Join.h"
#include "Retry.h"
#include "SystemError.h"

using boardkit::IsTemporary;
using boardkit::ThrowSystemError;

namespace {

// By contract: the working set of DeactivateSignalP is the whole process's, filled anew at every call.
sigset_t deactivatedSignals;

static_assert(SCHED_OTHER == 0 && SCHED_FIFO == 1 && SCHED_RR == 2 && SCHED_BATCH == 3, "indices of the names");
constexpr const char* kPolicyNames[] = {"other", "fifo", "rrobin", "batch"};

/// One word of physical memory, mapped while the object lives. By contract: opened for writing even if it is only read,
/// without O_SYNC, and for children to inherit.
class PhysicalWord {
 public:
  explicit PhysicalWord(unsigned int address)
      : m_offset(address % static_cast<unsigned int>(::getpagesize())), m_fd(::open("/dev/mem", O_RDWR)) {
    if (m_fd == -1) {
      // By contract: a write reports the text of a read.
      ThrowSystemError("ReadFromMemory Open /dev/mem failed");
    }

    try {
      m_mapping =
          mmap_e(nullptr, Length(), PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, static_cast<long>(address - m_offset));
    } catch (...) {
      ::close(m_fd);
      throw;
    }
  }

  ~PhysicalWord() {
    // By contract: failures of both are ignored.
    munmap_a(m_mapping, Length());
    ::close(m_fd);
  }

  PhysicalWord(const PhysicalWord&) = delete;
  PhysicalWord& operator=(const PhysicalWord&) = delete;

  /// The word itself: every use of it is one access to the device.
  volatile std::uint32_t* Get() const {
    return reinterpret_cast<volatile std::uint32_t*>(static_cast<char*>(m_mapping) + m_offset);
  }

 private:
  unsigned int Length() const {
    // By contract: longer than the word, so near the end of a page the next one is mapped, too.
    constexpr unsigned int kBehind = 32;  // bytes mapped from the word on
    return m_offset + kBehind;
  }

  unsigned int m_offset;
  int m_fd;
  void* m_mapping = nullptr;
};

}  // namespace

void WriteLoop(int fd, const void* data, unsigned int length) {
  const auto* position = static_cast<const char*>(data);
  std::size_t remaining = length;

  while (remaining != 0) {
    const ssize_t written = ::write(fd, position, remaining);
    if (written == -1) {
      if (IsTemporary(errno)) {
        continue;
      }
      // By contract: the colon at the end, here and in texts below, although another one follows.
      ThrowSystemError("Error writing to file descriptor:");
    }
    // By contract: any negative result other than -1 counts as no progress, too.
    if (written <= 0) {
      throw std::logic_error("Error writing to file descriptor. No bytes written:");
    }

    position += written;
    remaining -= static_cast<std::size_t>(written);
  }
}

void ReadLoop(int fd, void* buffer, unsigned int length) {
  auto* position = static_cast<char*>(buffer);
  std::size_t remaining = length;

  while (remaining != 0) {
    const ssize_t got = ::read(fd, position, remaining);
    if (got == -1) {
      if (IsTemporary(errno)) {
        continue;
      }
      ThrowSystemError("Error reading from file descriptor:");
    }
    // By contract: only the end of the file counts as no progress here; any negative result other than -1 steps back.
    if (got == 0) {
      throw std::logic_error("Error reading from file descriptor. No bytes read:");
    }

    position += got;
    remaining -= static_cast<std::size_t>(got);
  }
}

void DebugSleep(int milliseconds) {
  // A negative time makes negative fields, which nanosleep refuses.
  timespec request{};
  request.tv_sec = milliseconds / 1000;
  request.tv_nsec = (milliseconds % 1000) * 1'000'000L;

  timespec remaining{};
  while (::nanosleep(&request, &remaining) != 0) {
    if (errno != EINTR) {
      ThrowSystemError("Error sleeping: ");
    }
    request = remaining;
  }
}

void InstallSignalHandler(int signal, void (*handler)(int, siginfo_t*, void*)) {
  struct sigaction action {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  if (::sigemptyset(&action.sa_mask) != 0) {
    throw std::runtime_error("Error setting signal mask.");
  }

  if (::sigaction(signal, &action, nullptr) != 0) {
    ThrowSystemError("Error setting signal handler: ");
  }

  // By contract: this deprecated call, although SA_RESTART has the same effect.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  if (::siginterrupt(signal, 0) != 0) {
    ThrowSystemError("Error setting signal interrupt: ");
  }
#pragma GCC diagnostic pop
}

void DeactivateSignalP(int signal) {
  if (::sigemptyset(&deactivatedSignals) != 0) {
    throw std::runtime_error("Error setting deactivation signal mask.");
  }

  if (::sigaddset(&deactivatedSignals, signal) != 0) {
    // By contract: the text says "terminate" for any signal.
    throw std::runtime_error("Error adding to terminate signal mask.");
  }

  if (::sigprocmask(SIG_BLOCK, &deactivatedSignals, nullptr) != 0) {
    // By contract: this failure has no message of its own.
    ThrowSystemError("");
  }
}

const char* GetProcSchedPolicyName(int policy) {
  const auto index = static_cast<unsigned int>(policy);
  return index < std::size(kPolicyNames) ? kPolicyNames[index] : "<ukwn>";
}

int LinuxGetThreadId() {
  return static_cast<int>(::syscall(SYS_gettid));
}

// By contract: an address that is not a multiple of 4 is used as it is. The hardware decides, not the sanitizer.
__attribute__((no_sanitize("alignment"))) unsigned int ReadFromPhysicalMemoryAddress(unsigned int address) {
  const PhysicalWord word(address);
  return *word.Get();
}

__attribute__((no_sanitize("alignment"))) void WriteToPhysicalMemoryAddress(unsigned int address, unsigned int value) {
  const PhysicalWord word(address);
  *word.Get() = value;
}

void sysinfo_e(struct sysinfo* info) {
  if (::sysinfo(info) != 0) {
    ThrowSystemError("Cannot retrieve sysinfo");
  }
}

void* mmap_e(void* address, unsigned int length, int protection, int flags, int fd, long offset) {
  // Widened as a bit pattern: the device registers of 32-bit boards lie where a 32-bit long is negative, and a 64-bit
  // off_t must not be.
  const auto position = static_cast<off_t>(static_cast<unsigned long>(offset));
  void* const mapping = ::mmap(address, length, protection, flags, fd, position);
  if (mapping == MAP_FAILED) {
    ThrowSystemError("Error from mmap");
  }
  return mapping;
}

int munmap_a(void* address, unsigned int length) {
  return ::munmap(address, length);
}

void* dlsym_e(void* handle, const char* symbol) {
  // By contract: the null handle, which stands for the default search order, is refused, too.
  if (handle == nullptr) {
    throw std::invalid_argument("dlsym_e: handle");
  }
  if (symbol == nullptr) {
    throw std::invalid_argument("dlsym_e: symbol");
  }

  // A null address need not be an error, so the loader's text decides: an older one is cleared first.
  ::dlerror();
  void* const address = ::dlsym(handle, symbol);
  if (const char* const text = ::dlerror(); text != nullptr) {
    throw std::logic_error(boardkit::Join({"Error looking up symbol \"", symbol, "\": ", text}));
  }
  if (address == nullptr) {
    // By contract: no call has failed, so the error number is whatever errno happens to hold.
    ThrowSystemError({"Cannot find symbol \"", symbol, "\"."});
  }
  return address;
}
