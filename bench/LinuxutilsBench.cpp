#include "linuxutils.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>

#include "Bare.h"
#include "Benches.h"
#include "Contest.h"

using Taker = std::string (*)();

/// Two classes that call each other, so that no two neighbouring frames of the stack are equal. Their names are seen by
/// the dynamic linker, as those of any program that wants names in its tracebacks.
class Ping {
 public:
  static std::size_t Call(int depth, Taker take, std::string& text);
};

class Pong {
 public:
  static std::size_t Call(int depth, Taker take, std::string& text);
};

// Something is left to do after each call, so that it is no jump.
// NOLINTBEGIN(misc-no-recursion): a deep stack is what is wanted
[[gnu::noinline]] std::size_t Ping::Call(int depth, Taker take, std::string& text) {
  if (depth == 0) {
    text = take();
    return text.size();
  }
  return Pong::Call(depth - 1, take, text) + 1;
}

[[gnu::noinline]] std::size_t Pong::Call(int depth, Taker take, std::string& text) {
  if (depth == 0) {
    text = take();
    return text.size();
  }
  return Ping::Call(depth - 1, take, text) + 1;
}
// NOLINTEND(misc-no-recursion)

namespace {

constexpr double kLimit = 1.25;
constexpr long kTurns = 300;
constexpr int kDepth = 20;
constexpr std::ptrdiff_t kShownFrames = 19;  // one belongs to what takes the traceback

std::string TakeTraceback() {
  return linuxutils::Traceback(0);
}

template <std::string (*take)(), std::ptrdiff_t expectedLines>
Seconds TakeOne() {
  std::string text;
  const Seconds time = TimeCalls(1, [&text] { Ping::Call(kDepth, take, text); });
  if (std::count(text.begin(), text.end(), '\n') != expectedLines || text.find("Pong::Call") == std::string::npos) {
    throw std::runtime_error("a traceback does not show what it should:\n" + text);
  }
  return time;
}

Contest MakeContest() {
  // The library's text begins with a line break and a title.
  return {1, kTurns, kLimit, TakeOne<BareTraceback, kShownFrames>, TakeOne<TakeTraceback, kShownFrames + 2>};
}

}  // namespace

void RegisterLinuxutilsBench(Effort effort) {
  RegisterContest("Traceback/20", effort, MakeContest);
}
