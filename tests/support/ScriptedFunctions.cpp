// More functions of the C library that a test can script, for the executables that list this source: those of files,
// of signals, of the loader and of the stack. Scripted in ScriptedKernel's way.

#include <dlfcn.h>
#include <execinfo.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "ScriptedKernel.h"

namespace {

template <typename Function>
Function* RealFunction(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// Hands a scripted answer on that is no more than a number.
template <typename Result>
Result Give(const Answer& answer) {
  errno = answer.error;
  return static_cast<Result>(answer.result);
}

auto* const realDlerror = RealFunction<char*()>("dlerror");

template <typename Offset>
using SeekFunction = Offset(int, Offset, int);

template <typename Offset>
Offset SeekAs(SeekFunction<Offset>* real, int fd, Offset offset, int whence) {
  const Answer answer = ScriptedKernel::Next(
      "lseek", std::to_string(fd) + ", " + std::to_string(offset) + ", " + std::to_string(whence), {fd, {}});
  return answer.real ? real(fd, offset, whence) : Give<Offset>(answer);
}

/// Like the kernel, hands over no more of the scripted target than there is room for.
ssize_t ReadlinkAs(const char* path, char* target, size_t room) {
  static auto* const real = RealFunction<ssize_t(const char*, char*, size_t)>("readlink");
  const Answer answer =
      ScriptedKernel::Next("readlink", '"' + std::string(path) + "\", " + std::to_string(room), {-1, path});
  if (answer.real) {
    return real(path, target, room);
  }
  errno = answer.error;
  const std::size_t length = std::min(answer.bytes.size(), room);
  std::memcpy(target, answer.bytes.data(), length);
  return answer.result == -1 ? -1 : static_cast<ssize_t>(length);
}

/// The numbers of the signals in @p set, or "none".
std::string SignalsIn(const sigset_t& set) {
  std::string text;
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    if (::sigismember(&set, signal) == 1) {
      text += (text.empty() ? "" : " ") + std::to_string(signal);
    }
  }
  return text.empty() ? "none" : text;
}

/// One block, as backtrace_symbols() makes it, of the lines of @p text. It is so large that the C library maps it on
/// its own, so that tests can tell whether it is still there.
char** LinesOf(const std::string& text) {
  constexpr std::size_t kSize = 1U << 22U;  // bytes
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  auto** const block = static_cast<char**>(std::malloc(kSize));
  char* end = reinterpret_cast<char*>(block + lines.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    block[i] = end;
    std::memcpy(end, lines[i].c_str(), lines[i].size() + 1);
    end += lines[i].size() + 1;
  }
  return block;
}

}  // namespace

extern "C" {

// --- Files

off_t ScriptedLseek(int fd, long offset, int whence) asm("lseek");
off_t ScriptedLseek(int fd, long offset, int whence) {
  static auto* const real = RealFunction<SeekFunction<long>>("lseek");
  return SeekAs(real, fd, offset, whence);
}

std::int64_t ScriptedLseek64(int fd, std::int64_t offset, int whence) asm("lseek64");
std::int64_t ScriptedLseek64(int fd, std::int64_t offset, int whence) {
  static auto* const real = RealFunction<SeekFunction<std::int64_t>>("lseek64");
  return SeekAs(real, fd, offset, whence);
}

ssize_t ScriptedReadlink(const char* path, char* target, size_t room) asm("readlink");
ssize_t ScriptedReadlink(const char* path, char* target, size_t room) {
  return ReadlinkAs(path, target, room);
}

ssize_t ScriptedReadlinkChk(const char* path, char* target, size_t room, size_t size) asm("__readlink_chk");
ssize_t ScriptedReadlinkChk(const char* path, char* target, size_t room, size_t /*size*/) {
  return ReadlinkAs(path, target, room);
}

FILE* fdopen(int fd, const char* mode) noexcept {
  static auto* const real = RealFunction<FILE*(int, const char*)>("fdopen");
  const Answer answer = ScriptedKernel::Next("fdopen", std::to_string(fd) + ", \"" + mode + '"', {fd, mode});
  if (answer.real) {
    return real(fd, mode);
  }
  errno = answer.error;
  return nullptr;
}

int fclose(FILE* stream) {
  static auto* const real = RealFunction<int(FILE*)>("fclose");
  const Answer answer = ScriptedKernel::Next("fclose", "");
  // The stream is closed in any case: only the result is scripted.
  const int result = real(stream);
  return answer.real ? result : Give<int>(answer);
}

// --- Signals

int sigemptyset(sigset_t* set) noexcept {
  static auto* const real = RealFunction<int(sigset_t*)>("sigemptyset");
  const Answer answer = ScriptedKernel::Next("sigemptyset", "");
  return answer.real ? real(set) : Give<int>(answer);
}

int sigaddset(sigset_t* set, int signal) noexcept {
  static auto* const real = RealFunction<int(sigset_t*, int)>("sigaddset");
  const Answer answer = ScriptedKernel::Next("sigaddset", SignalsIn(*set) + ", " + std::to_string(signal));
  return answer.real ? real(set, signal) : Give<int>(answer);
}

int sigprocmask(int how, const sigset_t* set, sigset_t* old) noexcept {
  static auto* const real = RealFunction<int(int, const sigset_t*, sigset_t*)>("sigprocmask");
  const Answer answer = ScriptedKernel::Next("sigprocmask", (how == SIG_BLOCK ? "SIG_BLOCK" : std::to_string(how)) +
                                                                ", " + (set == nullptr ? "null" : SignalsIn(*set)) +
                                                                (old == nullptr ? ", null" : ", old"));
  return answer.real ? real(how, set, old) : Give<int>(answer);
}

int sigaction(int signal, const struct sigaction* action, struct sigaction* old) noexcept {
  static auto* const real = RealFunction<int(int, const struct sigaction*, struct sigaction*)>("sigaction");
  std::ostringstream arguments;
  arguments << signal << ", ";
  if (action == nullptr) {
    arguments << "null";
  } else {
    arguments << "flags 0x" << std::hex << action->sa_flags << ", mask " << SignalsIn(action->sa_mask);
  }
  arguments << (old == nullptr ? ", null" : ", old");
  const Answer answer = ScriptedKernel::Next("sigaction", arguments.str());
  return answer.real ? real(signal, action, old) : Give<int>(answer);
}

int siginterrupt(int signal, int interrupt) noexcept {
  static auto* const real = RealFunction<int(int, int)>("siginterrupt");
  const Answer answer = ScriptedKernel::Next("siginterrupt", std::to_string(signal) + ", " + std::to_string(interrupt));
  return answer.real ? real(signal, interrupt) : Give<int>(answer);
}

// --- The loader

/// Can only be watched. Found at the start: finding it now would change what it is asked for. A sanitizer's runtime
/// asks before the start, when there is no error.
char* dlerror() noexcept {
  if (realDlerror == nullptr) {
    return nullptr;
  }
  static_cast<void>(ScriptedKernel::Next("dlerror", ""));
  return realDlerror();
}

// --- The stack

/// The C library's own, whatever a sanitizer puts in its place, and without the frame of this function: tests of real
/// stacks see what they would see without it.
int backtrace(void** addresses, int size) {
  const Answer answer = ScriptedKernel::Next("backtrace", std::to_string(size));
  if (!answer.real) {
    return Give<int>(answer);
  }
  static void* const library = ::dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
  static auto* const real = reinterpret_cast<int (*)(void**, int)>(::dlsym(library, "backtrace"));
  std::vector<void*> all(static_cast<std::size_t>(size) + 1);
  const int count = real(all.data(), size + 1);
  std::copy(all.begin() + 1, all.begin() + count, addresses);
  return count - 1;
}

/// A script gives the lines as one text, or fails.
char** backtrace_symbols(void* const* addresses, int count) noexcept {
  static auto* const real = RealFunction<char**(void* const*, int)>("backtrace_symbols");
  const Answer answer = ScriptedKernel::Next("backtrace_symbols", std::to_string(count));
  if (answer.real) {
    return real(addresses, count);
  }
  errno = answer.error;
  return answer.error == 0 ? LinesOf(answer.bytes) : nullptr;
}

}  // extern "C"
