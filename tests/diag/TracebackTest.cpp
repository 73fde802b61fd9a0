#include <dlfcn.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <list>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Allocations.h"
#include "ExpectText.h"
#include "JoiningThread.h"
#include "NaiveDemangling.h"
#include "ScriptedKernel.h"
#include "linuxutils.h"

// --- Functions with a name to show -----------------------------------------------------------------------------------
//
// In a namespace and without a result, so that their names are read in one way whatever the addresses are. Each does
// something after its call: a jump would leave no frame.

namespace tracing {

std::string seen;
volatile int depthReached = 0;

[[gnu::noinline]] void Plain();
[[gnu::noinline]] void WithZero();
[[gnu::noinline]] void WithOne();
[[gnu::noinline]] void Calling();
[[gnu::noinline]] void Leaf(int depth);
[[gnu::noinline]] void LeafWithZero(int depth);
[[gnu::noinline]] void Recurse(int depth);
[[gnu::noinline]] void InDestructor();
[[gnu::noinline]] void InThread();

// Read anew every time, so that no function is specialised for what it calls: such a copy has no name.
void (*volatile called)() = Plain;
void (*volatile leaf)(int) = Leaf;

void Plain() {
  seen = linuxutils::Traceback();
}

void WithZero() {
  seen = linuxutils::Traceback(0);
}

void WithOne() {
  seen = linuxutils::Traceback(1);
}

void Calling() {
  called();
  depthReached = 0;
}

void Leaf(int) {
  seen = linuxutils::Traceback();
}

void LeafWithZero(int) {
  seen = linuxutils::Traceback(0);
}

/// Goes down to the leaf, which is called from the same place as every other call.
void Recurse(int depth) {
  void (*volatile next)(int) = depth == 1 ? leaf : Recurse;
  next(depth - 1);
  depthReached = depth;
}

void InDestructor() {
  seen = linuxutils::Traceback();
}

void InThread() {
  seen = linuxutils::Traceback();
}

}  // namespace tracing

namespace {

using Calls = ScriptedKernel::Calls;

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + '\n';
  }
  return text;
}

/// The traceback of a stack with these symbol lines; the first is Traceback's own.
std::string TracebackOf(const std::vector<std::string>& lines, int skip) {
  ScriptedKernel kernel;
  const auto count = static_cast<long>(lines.size());
  kernel.Script("backtrace", {Returns(count)});
  kernel.Script("backtrace_symbols", {{0, 0, Joined(lines), false}});
  std::string text = linuxutils::Traceback(skip);
  EXPECT_EQ(kernel.Seen(), (Calls{"backtrace(20)", "backtrace_symbols(" + std::to_string(count) + ")"}));
  return text;
}

std::string Listing(const std::vector<std::string>& lines) {
  std::vector<std::string> all = {"own"};
  all.insert(all.end(), lines.begin(), lines.end());
  return TracebackOf(all, 0);
}

// --- Scripted stacks -------------------------------------------------------------------------------------------------

TEST(ScriptedStack, EveryFrameIsALineAndTheTextEndsWithANewline) {
  EXPECT_EQ(Listing({"A", "B", "C"}), "\nTraceback:\nA\nB\nC\n");
  EXPECT_EQ(Listing({"A"}), "\nTraceback:\nA\n");
  EXPECT_EQ(Listing({}), "\nTraceback:\n");
}

TEST(ScriptedStack, LinesAreMadeReadable) {
  EXPECT_EQ(Listing({"./p(_ZN3one3twoEv+0x1c) [0xa]", "./p(_Z9WriteLoopiPKvj+0xa) [0xb]", "./p(main+a) [x]"}),
            "\nTraceback:\none::two\nWriteLoop(int, void const*, unsigned int)\n./p(main+a)\n");
}

TEST(ScriptedStack, FramesThatAreAlikeAreCountedBehindTheFirst) {
  EXPECT_EQ(Listing({"A", "B", "B", "B", "C"}), "\nTraceback:\nA\nB repeats 2 times!\nC\n");
  EXPECT_EQ(Listing({"A", "A", "B"}), "\nTraceback:\nA repeats 1 times!\nB\n");
  EXPECT_EQ(Listing({"A", "B", "B"}), "\nTraceback:\nA\nB repeats 1 times!\n");
  EXPECT_EQ(Listing({"A", "A", "A", "A"}), "\nTraceback:\nA repeats 3 times!\n");
  EXPECT_EQ(Listing({"A", "A", "B", "B", "B", "A", "A"}),
            "\nTraceback:\nA repeats 1 times!\nB repeats 2 times!\nA repeats 1 times!\n");
  EXPECT_EQ(Listing({"A", "B", "A", "B"}), "\nTraceback:\nA\nB\nA\nB\n");
}

TEST(ScriptedStack, OnlyTheSameCallSiteIsAlike) {
  EXPECT_EQ(Listing({"./p(_ZN1a1bEv+0x1) [0xa]", "./p(_ZN1a1bEv+0x2) [0xb]", "./p(_ZN1a1bEv+0x2) [0xb]"}),
            "\nTraceback:\na::b\na::b repeats 1 times!\n");
}

TEST(ScriptedStack, TwoHundredCharactersTellLinesApart) {
  const std::string common(199, 'x');
  const std::string shown = std::string(127, 'x');
  EXPECT_EQ(Listing({common + "ab", common + "ac"}), "\nTraceback:\n" + shown + " repeats 1 times!\n");
  EXPECT_EQ(Listing({common + "a", common + "b"}), "\nTraceback:\n" + shown + '\n' + shown + '\n');
  EXPECT_EQ(Listing({common, common + "a"}), "\nTraceback:\n" + shown + '\n' + shown + '\n');
  EXPECT_EQ(Listing({common + "a", common + "abc"}), "\nTraceback:\n" + shown + " repeats 1 times!\n");
}

TEST(ScriptedStack, TheFirstShownFrameIsNeverComparedWithASkippedOne) {
  EXPECT_EQ(TracebackOf({"A", "A", "A", "B"}, 0), "\nTraceback:\nA repeats 1 times!\nB\n");
  EXPECT_EQ(TracebackOf({"A", "A", "A", "B"}, 1), "\nTraceback:\nA\nB\n");
  EXPECT_EQ(TracebackOf({"A", "A", "A", "B"}, 2), "\nTraceback:\nB\n");
}

TEST(ScriptedStack, SkippingAllFramesOrMoreLeavesTheHeader) {
  const std::vector<std::string> twenty(20, "A");
  for (const int skip : {19, 20, 21, 100, INT_MAX - 1, INT_MAX}) {
    SCOPED_TRACE(skip);
    EXPECT_EQ(TracebackOf(twenty, skip), "\nTraceback:\n");
  }
  EXPECT_EQ(TracebackOf(twenty, 18), "\nTraceback:\nA\n");
  EXPECT_EQ(TracebackOf(twenty, 17), "\nTraceback:\nA repeats 1 times!\n");
  EXPECT_EQ(TracebackOf({"A", "B"}, 1), "\nTraceback:\n");
  EXPECT_EQ(TracebackOf({}, 0), "\nTraceback:\n");
  EXPECT_EQ(TracebackOf({}, -1), "\nTraceback:\n");
}

TEST(ScriptedStack, ANegativeSkipShowsTheTracebackItself) {
  for (const int skip : {-1, -2, INT_MIN}) {
    SCOPED_TRACE(skip);
    EXPECT_EQ(TracebackOf({"own", "A", "B"}, skip), "\nTraceback:\nown\nA\nB\n");
  }
}

TEST(ScriptedStack, WithoutArgumentOneMoreFrameIsSkipped) {
  ScriptedKernel kernel;
  kernel.Script("backtrace", {Returns(4)});
  kernel.Script("backtrace_symbols", {{0, 0, "own\nwithout\nA\nB\n", false}});

  EXPECT_EQ(linuxutils::Traceback(), "\nTraceback:\nA\nB\n");
}

TEST(ScriptedStack, WithoutMemoryForTheLinesTheHeaderIsAll) {
  ScriptedKernel kernel;
  kernel.Script("backtrace", {Returns(5), Returns(5)});
  kernel.Script("backtrace_symbols", {Fails(ENOMEM), Fails(ENOMEM)});

  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\n");
  EXPECT_EQ(linuxutils::Traceback(-1), "\nTraceback:\n");
}

TEST(ScriptedStack, TheLinesAreFreed) {
  // A scripted block has some megabytes.
  const long long before = AllocatedBytes();

  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(Listing({"A"}), "\nTraceback:\nA\n");
    EXPECT_EQ(TracebackOf({"A"}, 100), "\nTraceback:\n");
  }

  EXPECT_LT(AllocatedBytes() - before, 1000000);
}

TEST(ScriptedStack, TheLinesAreFreedTooWhenMemoryRunsOut) {
  // What is made of a line has more than 600 characters: too many with the first limit, with the second one in the
  // listing of two.
  const std::string line = "p(_Z1f" + std::string(123, 'i') + '+';
  const std::vector<std::string> lines = {"own", line + "1", line + "2"};
  const std::string text = Joined(lines);
  const long long before = AllocatedBytes();

  for (const std::size_t limit : {500U, 1000U}) {
    ScriptedKernel kernel;
    kernel.Script("backtrace", {Returns(3)}).Script("backtrace_symbols", {{0, 0, text, false}});
    const LimitedAllocations limited(limit);
    EXPECT_THROW(linuxutils::Traceback(0), std::bad_alloc) << limit;
  }

  EXPECT_LT(AllocatedBytes() - before, 1000000);
}

TEST(ScriptedStack, AgreesWithTheNaiveRulesOnGeneratedStacks) {
  constexpr int kCases = 3000;
  const std::vector<std::string> frames = {"A", "B", "./p(_ZN1a1bEv+0x1) [0xa]", "./p(_ZN1a1bEv+0x2) [0xb]"};
  std::mt19937 engine(20260104);
  for (int i = 0; i < kCases; ++i) {
    std::vector<std::string> lines;
    for (auto count = engine() % 21; count > 0; --count) {
      lines.push_back(!lines.empty() && engine() % 2 == 0 ? lines.back() : frames[engine() % frames.size()]);
    }
    const int skip = static_cast<int>(engine() % 24) - 2;
    ASSERT_EQ(TracebackOf(lines, skip), naive::Traceback(lines, skip)) << Joined(lines) << skip;
  }
}

// --- Real stacks -----------------------------------------------------------------------------------------------------

/// Expects that @p text begins with these names, a line each.
void ExpectBeginning(const std::string& text, const std::string& names) {
  const std::string begin = "\nTraceback:\n" + names + '\n';
  EXPECT_EQ(text.substr(0, begin.size()), begin);
  EXPECT_EQ(text.back(), '\n') << text;
}

TEST(RealStack, BeginsWithTheFunctionThatAsks) {
  tracing::called = tracing::Plain;
  tracing::Calling();
  ExpectBeginning(tracing::seen, "tracing::Plain\ntracing::Calling");
  tracing::called = tracing::WithZero;
  tracing::Calling();
  ExpectBeginning(tracing::seen, "tracing::WithZero\ntracing::Calling");
}

TEST(RealStack, SkippingOneBeginsWithItsCaller) {
  tracing::called = tracing::WithOne;
  tracing::Calling();
  ExpectBeginning(tracing::seen, "tracing::Calling");
}

TEST(RealStack, SkippingMoreThanIsCapturedLeavesTheHeader) {
  EXPECT_EQ(linuxutils::Traceback(100), "\nTraceback:\n");
  EXPECT_EQ(linuxutils::Traceback(INT_MAX), "\nTraceback:\n");
}

TEST(RealStack, ARecursionIsOneLineWithTheNumberOfFurtherFrames) {
  // Twenty frames: the traceback's two, the leaf, and seventeen of the recursion; one of the traceback's with
  // Traceback(0).
  tracing::leaf = tracing::Leaf;
  tracing::Recurse(30);
  EXPECT_EQ(tracing::seen, "\nTraceback:\ntracing::Leaf\ntracing::Recurse repeats 16 times!\n");

  tracing::leaf = tracing::LeafWithZero;
  tracing::Recurse(30);
  EXPECT_EQ(tracing::seen, "\nTraceback:\ntracing::LeafWithZero\ntracing::Recurse repeats 17 times!\n");
}

TEST(RealStack, AShortRecursionIsFollowedByItsCaller) {
  tracing::leaf = tracing::Leaf;
  tracing::called = [] {
    tracing::Recurse(3);
    tracing::depthReached = 0;
  };
  tracing::Calling();
  const std::string begin = "\nTraceback:\ntracing::Leaf\ntracing::Recurse repeats 2 times!\n";
  EXPECT_EQ(tracing::seen.substr(0, begin.size()), begin);
  EXPECT_CONTAINS(tracing::seen, "\ntracing::Calling\n");
}

TEST(RealStack, AThreadHasItsOwn) {
  JoiningThread(tracing::InThread).Join();
  ExpectBeginning(tracing::seen, "tracing::InThread");
  EXPECT_LACKS(tracing::seen, "RealStack");
}

TEST(RealStack, ThreadsMayAskAtTheSameTime) {
  std::vector<std::string> texts(4);
  std::list<JoiningThread> threads;
  for (std::string& text : texts) {
    threads.emplace_back([&text] {
      for (int i = 0; i < 50; ++i) {
        text = linuxutils::Traceback();
      }
    });
  }
  for (JoiningThread& thread : threads) {
    thread.Join();
  }
  EXPECT_EQ(texts, std::vector<std::string>(texts.size(), texts[0]));
}

TEST(RealStack, IsThereWhileAnExceptionUnwindsIt) {
  struct Tracer {
    ~Tracer() {
      tracing::InDestructor();
    }
  };
  try {
    const Tracer tracer;
    throw std::runtime_error("unwinds");
  } catch (const std::runtime_error&) {
    ExpectBeginning(tracing::seen, "tracing::InDestructor");
  }
}

TEST(RealStack, ASharedObjectsFunctionIsShown) {
  // By a path without digits, wherever this was built.
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(std::filesystem::canonical("/proc/self/exe").parent_path());
  void* const handle = ::dlopen("./libdiag-test-object.so", RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << ::dlerror();
  auto* const show =
      reinterpret_cast<void (*)(std::string&)>(::dlsym(handle,
                                                       "_ZN13shared_object4ShowERNSt7__cxx1112basic_stringIcSt11"
                                                       "char_traitsIcESaIcEEE"));
  ASSERT_NE(show, nullptr) << ::dlerror();

  show(tracing::seen);

  ExpectBeginning(tracing::seen, "shared_object::Show");
  ::dlclose(handle);
  std::filesystem::current_path(before);
}

}  // namespace

/// The lines of this program's frames begin with its name, whose digits would count: so it gets one without digits.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  std::string name = "diag-tests";
  argv[0] = name.data();
  return RUN_ALL_TESTS();
}
