// The watchdog's requests under names of their own: "WDIOC_SETTIMEOUT(7, 30)". Tests see the number that is handed
// over, and what they answer with is written back.
//
// ScriptedKernel.cpp defines ioctl() too: an executable that lists this source is linked with
// --allow-multiple-definition, which takes what comes first, and that is this.

#include <dlfcn.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>

#include "ScriptedKernel.h"

namespace {

using IoctlFunction = int(int, unsigned long, ...);

int IoctlAs(const char* spelling, int fd, unsigned long request, void* argument) {
  std::string name;
  Question question{fd, {}};
  std::string arguments = std::to_string(fd);
  switch (request) {
    case WDIOC_KEEPALIVE:
      name = "WDIOC_KEEPALIVE";
      arguments += argument == nullptr ? ", 0" : ", something";
      break;
    case WDIOC_GETTIMEOUT:
      name = "WDIOC_GETTIMEOUT";
      break;
    case WDIOC_SETTIMEOUT: {
      name = "WDIOC_SETTIMEOUT";
      int seconds = 0;
      std::memcpy(&seconds, argument, sizeof(seconds));
      question.bytes = BytesOf(seconds);
      arguments += ", " + std::to_string(seconds);
      break;
    }
    default:
      name = "ioctl";
      break;
  }
  const Answer answer = ScriptedKernel::Next(name, arguments, question);
  if (answer.real) {
    return reinterpret_cast<IoctlFunction*>(::dlsym(RTLD_NEXT, spelling))(fd, request, argument);
  }
  if (!answer.bytes.empty()) {
    std::memcpy(argument, answer.bytes.data(), answer.bytes.size());
  }
  errno = answer.error;
  return static_cast<int>(answer.result);
}

}  // namespace

extern "C" {

// NOLINTBEGIN(cert-dcl50-cpp): variadic is what the C library's functions are
#define BOARDKIT_DEFINE_IOCTL(function, spelling)                 \
  int function(int fd, unsigned long request, ...) asm(spelling); \
  int function(int fd, unsigned long request, ...) {              \
    va_list arguments;                                            \
    va_start(arguments, request);                                 \
    void* const argument = va_arg(arguments, void*);              \
    va_end(arguments);                                            \
    return IoctlAs(spelling, fd, request, argument);              \
  }
BOARDKIT_DEFINE_IOCTL(WatchdogIoctl, "ioctl")
#if __SIZEOF_LONG__ == 4 && defined(__GLIBC__)
BOARDKIT_DEFINE_IOCTL(WatchdogIoctlTime64, "__ioctl_time64")
#endif
// NOLINTEND(cert-dcl50-cpp)

}  // extern "C"
