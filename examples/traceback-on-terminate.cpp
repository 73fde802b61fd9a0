// Ends with an exception that nobody catches, and says where it was thrown.
//
// The stack is recorded at the throw, by a __cxa_throw in front of the C++ library's own, since the terminate handler
// is too late: from there, the unwinder of 32-bit ARM gets no further than the C++ library.
#include <linuxutils.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>

namespace {

// Of the thread's last throw. It has no destructor, so that it outlives every object that may throw.
thread_local char last_throw[4096];
thread_local bool recording = false;

[[noreturn]] void TellAndAbort() {
  std::cerr << "terminate called:";
  if (const std::exception_ptr current = std::current_exception()) {
    try {
      std::rethrow_exception(current);
    } catch (const std::exception& e) {
      std::cerr << ' ' << e.what();
    } catch (...) {
      std::cerr << " something that is no std::exception";
    }
  }
  std::cerr << "\nThis thread's last throw:" << last_throw;
  std::abort();
}

}  // namespace

// Every throw of the program and its shared libraries comes here.
// NOLINTNEXTLINE(bugprone-reserved-identifier): it is the language's own.
extern "C" [[noreturn]] void __cxa_throw(void* exception, void* type, void (*destroy)(void*)) {
  if (!recording) {  // else memory has run out for the traceback itself
    recording = true;
    try {
      std::snprintf(last_throw, sizeof last_throw, "%s", linuxutils::Traceback(1).c_str());
    } catch (...) {
      last_throw[0] = '\0';
    }
    recording = false;
  }
  static const auto next = reinterpret_cast<decltype(&__cxa_throw)>(::dlsym(RTLD_NEXT, "__cxa_throw"));
  next(exception, type, destroy);
  std::abort();
}

// Names are found for functions that the program exports, so these are not in an unnamed namespace; and only for those
// that the compiler has left as functions.
namespace station {

[[gnu::noinline]] void ReadSensor() {
  throw std::runtime_error("the sensor does not answer");
}

[[gnu::noinline]] void Measure() {
  std::cerr << "measuring\n";
  ReadSensor();
}

}  // namespace station

int main() {  // NOLINT(bugprone-exception-escape): this is what it is about
  std::set_terminate(TellAndAbort);
  station::Measure();
  return 0;
}
