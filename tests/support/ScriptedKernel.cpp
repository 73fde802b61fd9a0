#include "ScriptedKernel.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/watchdog.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include "ExpectThrow.h"
#include "Hexadecimal.h"
#include "SerialExtended.h"

namespace {

// One a thread: the tests' other threads keep the real functions.
thread_local ScriptedKernel* activeKernel = nullptr;

/// A function of the C library itself, looked up when it is first needed.
///
/// Made at compile time: the thread sanitizer's runtime maps memory by a function below before it can bear with the
/// guard of a variable that is made at the first call. For the same reason this source is compiled without that
/// sanitizer.
template <typename Function>
class RealFunction {
 public:
  explicit constexpr RealFunction(const char* name) : m_name(name) {}

  Function* Get() {
    Function* function = m_function.load(std::memory_order_acquire);
    if (function == nullptr) {
      function = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, m_name));
      m_function.store(function, std::memory_order_release);
    }
    return function;
  }

 private:
  const char* m_name;
  std::atomic<Function*> m_function{nullptr};
};

std::string Quoted(const std::string& text) {
  return '"' + text + '"';
}

/// The name of @p number in @p names, or the number.
template <typename Names>
std::string NameOf(unsigned long number, const Names& names) {
  for (const auto& [value, name] : names) {
    if (static_cast<unsigned long>(value) == number) {
      return name;
    }
  }
  return Hexadecimal(number);
}

/// Hands a scripted answer on: its bytes go to @p out, if there is one.
template <typename Result>
Result Give(const Answer& answer, void* out = nullptr) {
  if (out != nullptr) {
    std::memcpy(out, answer.bytes.data(), answer.bytes.size());
  }
  errno = answer.error;
  return static_cast<Result>(answer.result);
}

}  // namespace

Answer Returns(long result) {
  return {result, 0, {}, false};
}

Answer Fails(int error) {
  return {-1, error, {}, false};
}

Answer Gives(const std::string& bytes) {
  return {static_cast<long>(bytes.size()), 0, bytes, false};
}

Answer Real() {
  return {0, 0, {}, true};
}

std::ostream& operator<<(std::ostream& stream, const Answer& answer) {
  if (answer.real) {
    return stream << "the C library's own answer";
  }
  if (!answer.bytes.empty()) {
    return stream << "gives " << testing::PrintToString(answer.bytes);
  }
  stream << "returns " << answer.result;
  return answer.error == 0 ? stream : stream << " with " << ErrorName(answer.error);
}

ScriptedKernel::ScriptedKernel() : m_outer(activeKernel) {
  activeKernel = this;
}

ScriptedKernel::~ScriptedKernel() {
  activeKernel = m_outer;
  for (const auto& [function, answers] : m_scripts) {
    EXPECT_EQ(answers.size(), 0U) << "answers of " << function << "() that nobody asked for";
  }
}

ScriptedKernel& ScriptedKernel::Script(const std::string& function, const std::vector<Answer>& answers) {
  for (const Answer& answer : answers) {
    m_scripts[function].push(answer);
  }
  return *this;
}

ScriptedKernel& ScriptedKernel::Watch(const std::string& function) {
  m_watched[function] = true;
  return *this;
}

ScriptedKernel& ScriptedKernel::Simulate(const std::string& function, const Simulation& simulation) {
  m_simulations[function] = simulation;
  return Watch(function);
}

const ScriptedKernel::Calls& ScriptedKernel::Seen() const {
  return m_seen;
}

ScriptedKernel::Calls ScriptedKernel::SeenNow() {
  Calls calls(m_seen.begin() + static_cast<std::ptrdiff_t>(m_seenBefore), m_seen.end());
  m_seenBefore = m_seen.size();
  return calls;
}

Answer ScriptedKernel::Next(const std::string& function, const std::string& arguments, const Question& question) {
  // The tests' own bookkeeping below must not reach the script.
  ScriptedKernel* const kernel = activeKernel;
  if (kernel == nullptr) {
    return Real();
  }
  activeKernel = nullptr;
  Answer answer = Real();
  const auto script = kernel->m_scripts.find(function);
  const auto simulation = kernel->m_simulations.find(function);
  const bool isScripted = script != kernel->m_scripts.end();
  const bool isSimulated = simulation != kernel->m_simulations.end();
  if (isScripted || kernel->m_watched.count(function) != 0) {
    kernel->m_seen.push_back(function + '(' + arguments + ')');
  }
  if (isScripted && !script->second.empty()) {
    answer = script->second.front();
    script->second.pop();
  } else if (isScripted && !isSimulated) {
    ADD_FAILURE() << "one call too many: " << kernel->m_seen.back();
    answer = Fails(EIO);
  }
  if (answer.real && isSimulated) {
    answer = simulation->second(question);
  }
  activeKernel = kernel;
  return answer;
}

// --- The functions themselves ----------------------------------------------------------------------------------------
//
// Arguments are written down only while a kernel is active: without one, a call costs one thread-local read more.

extern "C" {

ssize_t write(int fd, const void* data, size_t count) {
  static RealFunction<ssize_t(int, const void*, size_t)> library("write");
  auto* const real = library.Get();
  if (activeKernel == nullptr) {
    return real(fd, data, count);
  }
  // Enormous counts test the count alone: there is no such buffer.
  constexpr size_t kMostShown = 1U << 24U;
  const bool isShown = count <= kMostShown;
  const std::string bytes(static_cast<const char*>(data), isShown ? count : 0);
  const Answer answer = ScriptedKernel::Next(
      "write", std::to_string(fd) + ", " + (isShown ? Quoted(bytes) : std::to_string(count) + " bytes"), {fd, bytes});
  if (answer.real) {
    return real(fd, data, count);
  }
  errno = answer.error;
  return answer.result;
}

ssize_t read(int fd, void* buffer, size_t count) {
  static RealFunction<ssize_t(int, void*, size_t)> library("read");
  auto* const real = library.Get();
  if (activeKernel == nullptr) {
    return real(fd, buffer, count);
  }
  const Answer answer =
      ScriptedKernel::Next("read", std::to_string(fd) + ", " + std::to_string(count), {fd, {}, count});
  return answer.real ? real(fd, buffer, count) : Give<ssize_t>(answer, buffer);
}

int nanosleep(const timespec* request, timespec* remaining) {
  // Where times may have either size, the header gives the function the name of the build's size, but not this text.
  static constexpr const char* kSpelling = sizeof(time_t) > sizeof(long) ? "__nanosleep64" : "nanosleep";
  static RealFunction<int(const timespec*, timespec*)> library(kSpelling);
  auto* const real = library.Get();
  if (activeKernel == nullptr) {
    return real(request, remaining);
  }
  const Answer answer = ScriptedKernel::Next(
      "nanosleep", std::to_string(request->tv_sec) + " s, " + std::to_string(request->tv_nsec) + " ns");
  if (answer.real) {
    return real(request, remaining);
  }
  if (answer.error == EINTR) {
    // A scripted interruption comes after half of every field.
    *remaining = {request->tv_sec / 2, request->tv_nsec / 2};
  }
  errno = answer.error;
  return static_cast<int>(answer.result);
}

FILE* popen(const char* command, const char* mode) {
  static RealFunction<FILE*(const char*, const char*)> library("popen");
  auto* const real = library.Get();
  const Answer answer =
      activeKernel == nullptr ? Real() : ScriptedKernel::Next("popen", Quoted(command) + ", " + Quoted(mode));
  if (answer.real) {
    return real(command, mode);
  }
  errno = answer.error;
  return nullptr;
}

int pclose(FILE* pipe) {
  static RealFunction<int(FILE*)> library("pclose");
  auto* const real = library.Get();
  const Answer answer = activeKernel == nullptr ? Real() : ScriptedKernel::Next("pclose", "");
  // The pipe is closed in any case: only the status is scripted.
  const int status = real(pipe);
  if (answer.real) {
    return status;
  }
  errno = answer.error;
  return static_cast<int>(answer.result);
}

const char* inet_ntop(int family, const void* address, char* text, socklen_t size) {
  static RealFunction<const char*(int, const void*, char*, socklen_t)> library("inet_ntop");
  auto* const real = library.Get();
  const Answer answer = activeKernel == nullptr ? Real() : ScriptedKernel::Next("inet_ntop", std::to_string(size));
  if (answer.real) {
    return real(family, address, text, size);
  }
  errno = answer.error;
  return nullptr;
}

}  // extern "C"

// --- Those of descriptors, terminals and mappings
// ---------------------------------------------------------------------
//
// One function of the C library may have several names: that of 64-bit offsets or times, that of a checked build. They
// are given as such below, for a header may have renamed or defined the function itself.

namespace {

using OpenFunction = int(const char*, int, ...);
using FcntlFunction = int(int, int, ...);
using IoctlFunction = int(int, unsigned long, ...);
using SyscallFunction = long(long, ...);
template <typename Offset>
using MmapFunction = void*(void*, std::size_t, int, int, int, Offset);

struct IoctlRequest {
  unsigned long number;
  const char* name;
  std::size_t in;      // bytes that it hands over
  const char* format;  // of the number that they are; null if they are none
};

constexpr IoctlRequest kIoctlRequests[] = {
    {FIONREAD, "FIONREAD", 0, nullptr},
    {TIOCMGET, "TIOCMGET", 0, nullptr},
    {TIOCMSET, "TIOCMSET", sizeof(int), ", 0x%x"},
    {TIOCGSERIAL, "TIOCGSERIAL", 0, nullptr},
    {ExtendedAttributes::kGet, "TCGETS2", 0, nullptr},
    {ExtendedAttributes::kSet, "TCSETS2", sizeof(ExtendedAttributes), nullptr},
    {WDIOC_KEEPALIVE, "WDIOC_KEEPALIVE", 0, nullptr},
    {WDIOC_GETTIMEOUT, "WDIOC_GETTIMEOUT", 0, nullptr},
    {WDIOC_SETTIMEOUT, "WDIOC_SETTIMEOUT", sizeof(int), ", %d"},
};

int OpenAs(OpenFunction* real, const char* path, int flags, mode_t mode) {
  if (activeKernel == nullptr) {
    return real(path, flags, mode);
  }
  const auto given = static_cast<unsigned int>(flags);
  const Answer answer = ScriptedKernel::Next("open", Quoted(path) + ", " + Hexadecimal(given), {-1, path});
  return answer.real ? real(path, flags, mode) : Give<int>(answer);
}

int FcntlAs(FcntlFunction* real, int fd, int command, void* argument) {
  if (activeKernel == nullptr) {
    return real(fd, command, argument);
  }
  static constexpr std::pair<int, const char*> kCommands[] = {
      {F_GETFD, "F_GETFD"}, {F_SETFD, "F_SETFD"}, {F_GETFL, "F_GETFL"}, {F_SETFL, "F_SETFL"}};
  const Answer answer =
      ScriptedKernel::Next("fcntl",
                           std::to_string(fd) + ", " + NameOf(static_cast<unsigned long>(command), kCommands) + ", " +
                               std::to_string(reinterpret_cast<std::intptr_t>(argument)),
                           {fd, {}});
  return answer.real ? real(fd, command, argument) : Give<int>(answer);
}

int IoctlAs(IoctlFunction* real, int fd, unsigned long request, void* argument) {
  if (activeKernel == nullptr) {
    return real(fd, request, argument);
  }
  IoctlRequest known{request, nullptr, 0, nullptr};
  for (const IoctlRequest& candidate : kIoctlRequests) {
    if (candidate.number == request) {
      known = candidate;
    }
  }
  if (known.name == nullptr) {
    const Answer answer = ScriptedKernel::Next("ioctl", std::to_string(fd) + ", " + Hexadecimal(request), {fd, {}});
    return answer.real ? real(fd, request, argument) : Give<int>(answer);
  }
  const std::string in(static_cast<const char*>(argument), known.in);
  std::string arguments = std::to_string(fd);
  if (known.format != nullptr) {
    int number = 0;
    std::memcpy(&number, in.data(), sizeof(number));
    char text[32];
    std::snprintf(text, sizeof(text), known.format, number);
    arguments += text;
  } else if (argument == nullptr) {
    arguments += ", 0";
  }
  const Answer answer = ScriptedKernel::Next(known.name, arguments, {fd, in});
  return answer.real ? real(fd, request, argument) : Give<int>(answer, argument);
}

/// @p Offset is the off_t of the spelling.
template <typename Offset>
void* MmapAs(MmapFunction<Offset>* real, void* address, std::size_t length, int protection, int flags, int fd,
             Offset offset) {
  if (activeKernel == nullptr) {
    return real(address, length, protection, flags, fd, offset);
  }
  const bool readsAndWrites = protection == (PROT_READ | PROT_WRITE);
  const Answer answer = ScriptedKernel::Next(
      "mmap",
      (address == nullptr ? "anywhere, " : "at an address, ") + Hexadecimal(length) + ", " +
          (readsAndWrites ? "PROT_READ | PROT_WRITE" : std::to_string(protection)) + ", " +
          (flags == MAP_SHARED ? "MAP_SHARED" : std::to_string(flags)) + ", " + std::to_string(fd) + ", " +
          Hexadecimal(static_cast<std::make_unsigned_t<Offset>>(offset)),
      {fd, {}});
  return answer.real ? real(address, length, protection, flags, fd, offset)
                     // NOLINTNEXTLINE(performance-no-int-to-ptr): only MAP_FAILED is scripted, which is a number
                     : reinterpret_cast<void*>(Give<std::intptr_t>(answer));
}

int PollAs(pollfd* descriptors, nfds_t count, int timeoutMs) {
  static RealFunction<int(pollfd*, nfds_t, int)> library("poll");
  auto* const real = library.Get();
  if (activeKernel == nullptr) {
    return real(descriptors, count, timeoutMs);
  }
  std::string arguments;
  for (nfds_t i = 0; i < count; ++i) {
    const auto events = static_cast<unsigned long>(descriptors[i].events);
    static constexpr std::pair<int, const char*> kEvents[] = {{POLLIN, "POLLIN"}};
    arguments += std::to_string(descriptors[i].fd) + ", " + NameOf(events, kEvents) + ", ";
  }
  const Answer answer = ScriptedKernel::Next("poll", arguments + std::to_string(timeoutMs), {descriptors[0].fd, {}});
  return answer.real ? real(descriptors, count, timeoutMs) : Give<int>(answer);
}

/// A mode is given only with flags that make a file.
mode_t ModeOf(int flags, va_list arguments) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

extern "C" {

// NOLINTBEGIN(cert-dcl50-cpp): variadic is what the C library's functions are
#define BOARDKIT_DEFINE_OPEN(function, spelling)                \
  int function(const char* path, int flags, ...) asm(spelling); \
  int function(const char* path, int flags, ...) {              \
    static RealFunction<OpenFunction> library(spelling);        \
    auto* const real = library.Get();                           \
    va_list arguments;                                          \
    va_start(arguments, flags);                                 \
    const mode_t mode = ModeOf(flags, arguments);               \
    va_end(arguments);                                          \
    return OpenAs(real, path, flags, mode);                     \
  }
#define BOARDKIT_DEFINE_FCNTL(function, spelling)         \
  int function(int fd, int command, ...) asm(spelling);   \
  int function(int fd, int command, ...) {                \
    static RealFunction<FcntlFunction> library(spelling); \
    auto* const real = library.Get();                     \
    va_list arguments;                                    \
    va_start(arguments, command);                         \
    void* const argument = va_arg(arguments, void*);      \
    va_end(arguments);                                    \
    return FcntlAs(real, fd, command, argument);          \
  }
#define BOARDKIT_DEFINE_IOCTL(function, spelling)                 \
  int function(int fd, unsigned long request, ...) asm(spelling); \
  int function(int fd, unsigned long request, ...) {              \
    static RealFunction<IoctlFunction> library(spelling);         \
    auto* const real = library.Get();                             \
    va_list arguments;                                            \
    va_start(arguments, request);                                 \
    void* const argument = va_arg(arguments, void*);              \
    va_end(arguments);                                            \
    return IoctlAs(real, fd, request, argument);                  \
  }
BOARDKIT_DEFINE_OPEN(ScriptedOpen, "open")
BOARDKIT_DEFINE_OPEN(ScriptedOpen64, "open64")
BOARDKIT_DEFINE_FCNTL(ScriptedFcntl, "fcntl")
BOARDKIT_DEFINE_FCNTL(ScriptedFcntl64, "fcntl64")
BOARDKIT_DEFINE_IOCTL(ScriptedIoctl, "ioctl")
#if __SIZEOF_LONG__ == 4 && defined(__GLIBC__)
BOARDKIT_DEFINE_FCNTL(ScriptedFcntlTime64, "__fcntl_time64")
BOARDKIT_DEFINE_IOCTL(ScriptedIoctlTime64, "__ioctl_time64")
#endif

// With as many arguments as any system call has: what the caller leaves out is handed on unread.
long syscall(long number, ...) noexcept {
  static RealFunction<SyscallFunction> library("syscall");
  auto* const real = library.Get();
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long& argument : arguments) {
    argument = va_arg(list, long);
  }
  va_end(list);
  const Answer answer = activeKernel == nullptr ? Real() : ScriptedKernel::Next("syscall", std::to_string(number));
  return answer.real ? real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5])
                     : Give<long>(answer);
}
// NOLINTEND(cert-dcl50-cpp)

int ScriptedOpen2(const char* path, int flags) asm("__open_2");
int ScriptedOpen2(const char* path, int flags) {
  static RealFunction<OpenFunction> library("open");
  auto* const real = library.Get();
  return OpenAs(real, path, flags, 0);
}

int ScriptedOpen642(const char* path, int flags) asm("__open64_2");
int ScriptedOpen642(const char* path, int flags) {
  static RealFunction<OpenFunction> library("open64");
  auto* const real = library.Get();
  return OpenAs(real, path, flags, 0);
}

ssize_t ScriptedReadChk(int fd, void* buffer, size_t count, size_t room) asm("__read_chk");
ssize_t ScriptedReadChk(int fd, void* buffer, size_t count, size_t room) {
  if (count > room) {
    ADD_FAILURE() << "a read of " << count << " bytes into " << room;
    return -1;
  }
  return ::read(fd, buffer, count);
}

int ScriptedPoll(pollfd* descriptors, nfds_t count, int timeoutMs) asm("poll");
int ScriptedPoll(pollfd* descriptors, nfds_t count, int timeoutMs) {
  return PollAs(descriptors, count, timeoutMs);
}

int ScriptedPollChk(pollfd* descriptors, nfds_t count, int timeoutMs, size_t room) asm("__poll_chk");
int ScriptedPollChk(pollfd* descriptors, nfds_t count, int timeoutMs, size_t /*room*/) {
  return PollAs(descriptors, count, timeoutMs);
}

void* ScriptedMmap(void* address, size_t length, int protection, int flags, int fd, long offset) asm("mmap");
void* ScriptedMmap(void* address, size_t length, int protection, int flags, int fd, long offset) {
  static RealFunction<MmapFunction<long>> library("mmap");
  auto* const real = library.Get();
  return MmapAs(real, address, length, protection, flags, fd, offset);
}

void* ScriptedMmap64(void* address, size_t length, int protection, int flags, int fd,
                     std::int64_t offset) asm("mmap64");
void* ScriptedMmap64(void* address, size_t length, int protection, int flags, int fd, std::int64_t offset) {
  static RealFunction<MmapFunction<std::int64_t>> library("mmap64");
  auto* const real = library.Get();
  return MmapAs(real, address, length, protection, flags, fd, offset);
}

int munmap(void* address, size_t length) noexcept {
  static RealFunction<int(void*, size_t)> library("munmap");
  auto* const real = library.Get();
  const Answer answer = activeKernel == nullptr ? Real() : ScriptedKernel::Next("munmap", Hexadecimal(length));
  return answer.real ? real(address, length) : Give<int>(answer);
}

int close(int fd) {
  static RealFunction<int(int)> library("close");
  auto* const real = library.Get();
  const Answer answer = activeKernel == nullptr ? Real() : ScriptedKernel::Next("close", std::to_string(fd), {fd, {}});
  return answer.real ? real(fd) : Give<int>(answer);
}

int tcgetattr(int fd, termios* attributes) noexcept {
  static RealFunction<int(int, termios*)> library("tcgetattr");
  auto* const real = library.Get();
  const Answer answer =
      activeKernel == nullptr ? Real() : ScriptedKernel::Next("tcgetattr", std::to_string(fd), {fd, {}});
  return answer.real ? real(fd, attributes) : Give<int>(answer, attributes);
}

int tcsetattr(int fd, int when, const termios* attributes) noexcept {
  static RealFunction<int(int, int, const termios*)> library("tcsetattr");
  auto* const real = library.Get();
  if (activeKernel == nullptr) {
    return real(fd, when, attributes);
  }
  static constexpr std::pair<int, const char*> kTimes[] = {
      {TCSANOW, "TCSANOW"}, {TCSADRAIN, "TCSADRAIN"}, {TCSAFLUSH, "TCSAFLUSH"}};
  const Answer answer =
      ScriptedKernel::Next("tcsetattr", std::to_string(fd) + ", " + NameOf(static_cast<unsigned long>(when), kTimes),
                           {fd, BytesOf(*attributes)});
  return answer.real ? real(fd, when, attributes) : Give<int>(answer);
}

int tcflush(int fd, int queue) noexcept {
  static RealFunction<int(int, int)> library("tcflush");
  auto* const real = library.Get();
  if (activeKernel == nullptr) {
    return real(fd, queue);
  }
  static constexpr std::pair<int, const char*> kQueues[] = {
      {TCIFLUSH, "TCIFLUSH"}, {TCOFLUSH, "TCOFLUSH"}, {TCIOFLUSH, "TCIOFLUSH"}};
  const std::string name = NameOf(static_cast<unsigned long>(queue), kQueues);
  const Answer answer = ScriptedKernel::Next("tcflush", std::to_string(fd) + ", " + name, {fd, name});
  return answer.real ? real(fd, queue) : Give<int>(answer);
}

int cfsetispeed(termios* attributes, speed_t speed) noexcept {
  static RealFunction<int(termios*, speed_t)> library("cfsetispeed");
  auto* const real = library.Get();
  const Answer answer = activeKernel == nullptr ? Real() : ScriptedKernel::Next("cfsetispeed", std::to_string(speed));
  return answer.real ? real(attributes, speed) : Give<int>(answer);
}

int cfsetospeed(termios* attributes, speed_t speed) noexcept {
  static RealFunction<int(termios*, speed_t)> library("cfsetospeed");
  auto* const real = library.Get();
  const Answer answer = activeKernel == nullptr ? Real() : ScriptedKernel::Next("cfsetospeed", std::to_string(speed));
  return answer.real ? real(attributes, speed) : Give<int>(answer);
}

int sysinfo(struct sysinfo* info) noexcept {
  static RealFunction<int(struct sysinfo*)> library("sysinfo");
  auto* const real = library.Get();
  const Answer answer = activeKernel == nullptr ? Real() : ScriptedKernel::Next("sysinfo", "");
  return answer.real ? real(info) : Give<int>(answer, info);
}

}  // extern "C"
