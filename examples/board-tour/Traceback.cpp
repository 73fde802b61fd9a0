// The calling thread's stack, with a recursion in it.
#include <linuxutils.h>

#include <string>

#include "Chapters.h"
#include "Page.h"

// Names are found for functions that the program exports, so these are not in an unnamed namespace; and only for those
// that the compiler has left as functions.
namespace valley {

void Descend(int depth, std::string& traceback);

// Through a pointer that could change, a compiler can neither inline the recursion nor specialise it.
void (*volatile descend)(int depth, std::string& traceback) = Descend;

[[gnu::noinline]] void LookUp(std::string& traceback) {
  traceback = linuxutils::Traceback();
}

void Descend(int depth, std::string& traceback) {
  if (depth == 1) {
    LookUp(traceback);
  } else {
    descend(depth - 1, traceback);
  }
  // Something to do after the calls, which then are no jumps.
  traceback += '\n';
}

}  // namespace valley

void ShowTraceback() {
  page::Step("Where the program is: in a recursion, whose equal frames are counted");
  page::Call("valley::Descend(5, traceback)");
  page::Call("traceback = linuxutils::Traceback()");
  std::string traceback;
  valley::descend(5, traceback);
  page::Row("result", page::SplitLines(traceback));
}
