// Shows its own stack: tracebacks
#include <linuxutils.h>

#include <iostream>

// A function has a name in the traceback if the program exports it: not static, in no unnamed namespace, and linked
// with -rdynamic (boardkit::traceback does that).
namespace station {

[[gnu::noinline]] void Measure() {
  // [use]
  std::cout << "here:" << linuxutils::Traceback();
  // [use]
}

}  // namespace station

int main() {
  station::Measure();
  std::cout << "done\n";
  return 0;
}
