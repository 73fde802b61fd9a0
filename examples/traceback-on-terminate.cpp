// Ends with an exception that nobody catches, and tells where: a terminate handler prints the traceback.
#include <linuxutils.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>

namespace {

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
  std::cerr << linuxutils::Traceback();
  std::abort();
}

}  // namespace

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
