// A function of a shared object that shows its stack.

#include <string>

#include "linuxutils.h"

namespace shared_object {

[[gnu::noinline, gnu::visibility("default")]] void Show(std::string& text);

void Show(std::string& text) {
  text = linuxutils::Traceback();
}

}  // namespace shared_object
