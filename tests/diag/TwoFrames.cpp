// Prints the tracebacks of a function by both forms; two-frames.sh builds it in many ways.

#include <linuxutils.h>

#include <iostream>

namespace frames {

[[gnu::noinline]] void Both() {
  std::cout << linuxutils::Traceback();
  std::cout << linuxutils::Traceback(0);
  std::cout << "end\n";
}

}  // namespace frames

int main() {
  frames::Both();
  return 0;
}
