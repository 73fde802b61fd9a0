#include "linuxutils.h"

#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "NaiveDemangling.h"

namespace {

// --- Scripted frames: while they are set, the C library's functions below answer with them --------------------------

std::vector<std::string> scriptedLines;
bool areFramesScripted = false;
bool isMemoryShort = false;
int framesAskedFor = 0;

/// Sets the frames for its life: what backtrace_symbols would say of each, the innermost first.
class ScriptedFrames {
 public:
  explicit ScriptedFrames(const std::vector<std::string>& lines) {
    scriptedLines = lines;
    areFramesScripted = true;
  }
  ~ScriptedFrames() {
    areFramesScripted = false;
    isMemoryShort = false;
  }
};

}  // namespace

extern "C" int backtrace(void** addresses, int size) {
  if (!areFramesScripted) {
    static auto* const real = reinterpret_cast<int (*)(void**, int)>(::dlsym(RTLD_NEXT, "backtrace"));
    // This stand-in has a frame of its own, which nobody is to see.
    std::vector<void*> all(static_cast<std::size_t>(size) + 1);
    const int count = real(all.data(), size + 1) - 1;
    std::copy_n(all.begin() + 1, count, addresses);
    return count;
  }
  framesAskedFor = size;
  const int count = std::min(size, static_cast<int>(scriptedLines.size()));
  for (int i = 0; i < count; ++i) {
    addresses[i] = &scriptedLines[static_cast<std::size_t>(i)];
  }
  return count;
}

/// One block of lines, as the C library makes it: the caller frees it as a whole.
static char** Block(const std::vector<std::string>& lines) {
  std::size_t size = lines.size() * sizeof(char*) + 1;
  for (const std::string& line : lines) {
    size += line.size() + 1;
  }
  auto** const block = static_cast<char**>(std::malloc(size));
  auto* position = reinterpret_cast<char*>(block + lines.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    block[i] = std::strcpy(position, lines[i].c_str());
    position += lines[i].size() + 1;
  }
  return block;
}

extern "C" char** backtrace_symbols(void* const* addresses, int size) {
  std::vector<std::string> lines;
  if (areFramesScripted) {
    if (isMemoryShort) {
      return nullptr;
    }
    for (int i = 0; i < size; ++i) {
      lines.push_back(*static_cast<const std::string*>(addresses[i]));
    }
    return Block(lines);
  }

  // Real lines begin with the module's path, and the path to where this was built may have digits in it.
  static auto* const real = reinterpret_cast<char** (*)(void* const*, int)>(::dlsym(RTLD_NEXT, "backtrace_symbols"));
  char** const found = real(addresses, size);
  for (int i = 0; i < size; ++i) {
    const std::string line = found[i];
    lines.push_back("./module" + line.substr(std::min(line.find('('), line.size())));
  }
  std::free(found);
  return Block(lines);
}

// Real frames. Their names are exported, hence no unnamed namespace.
namespace frames {

// They hand their text out by reference: a result of type std::string would put an ABI tag into their names. Something
// is written behind each call, so that it is no jump.
volatile int sink = 0;

[[gnu::noinline]] void Direct(std::string& text) {
  text = linuxutils::Traceback();
  sink = 1;
}

[[gnu::noinline]] void DirectWithZero(std::string& text) {
  text = linuxutils::Traceback(0);
  sink = 2;
}

[[gnu::noinline]] void OneSkipped(std::string& text) {
  text = linuxutils::Traceback(1);
  sink = 3;
}

[[gnu::noinline]] std::string Caller(void (*function)(std::string&)) {
  std::string text;
  function(text);
  sink = 4;
  return text;
}

[[gnu::noinline]] void Recursive(std::string& text, int depth) {
  if (depth == 0) {
    text = linuxutils::Traceback(0);
  } else {
    Recursive(text, depth - 1);
  }
  sink = depth;
}

struct Unwound {
  explicit Unwound(std::string& text) : m_text(text) {}
  [[gnu::noinline]] ~Unwound() {
    m_text = linuxutils::Traceback(0);
    sink = 5;
  }
  std::string& m_text;
};

}  // namespace frames

namespace {

using linuxutils::Demangle;

/// The lines of a traceback behind its header.
std::vector<std::string> FrameLines(const std::string& traceback) {
  const std::string header = "\nTraceback:\n";
  EXPECT_EQ(traceback.substr(0, header.size()), header);
  EXPECT_EQ(traceback.back(), '\n');
  std::vector<std::string> lines;
  for (std::size_t at = header.size(); at < traceback.size();) {
    const std::size_t end = traceback.find('\n', at);
    lines.push_back(traceback.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

// --- Demangle --------------------------------------------------------------------------------------------------------

struct DemangleCase {
  const char* name;
  std::string symbol;
  std::string text;
};

const std::vector<DemangleCase> kDemangleCases = {
    {"ANestedNameIsReadWithoutParameters", "./app(_ZN10linuxutils9TracebackEi+0x1c) [0x401234]",
     "linuxutils::Traceback"},
    {"ThreeLevels", "(_ZN1a2bb3cccEv+0x1) [0x1]", "a::bb::ccc"},
    {"AFreeFunctionGetsItsFullSignature", "./app(_Z9WriteLoopiPKvj+0x1c) [0xabc]",
     "WriteLoop(int, void const*, unsigned int)"},
    {"AnAbiTagReadsLikeOneMoreName", "(_ZN10SerialPort8ToStringB5cxx11Ev+0x2)", "SerialPort::ToString::cxx11"},
    {"DigitsOfThePathPutStrayTextInFront", "/lib/libx.so.1(_ZN1a1bEv+0x1)", "(::a::b"},
    {"AnEmptyTextStaysEmpty", "", ""},
    {"BlanksStayAsTheyAre", "   ", "   "},
    {"ATextThatEndsWithItsNameIsOne", "3abc", "abc"},
    {"ATextThatGoesOnBehindItsNameIsNone", "3abcd", "3abcd"},
    {"ATextThatEndsInsideItsNameIsNone", "4abc", "4abc"},
    {"ANameOfNoLengthAtTheEnd", "0", ""},
    {"ANameOfNoLengthBeforeTheE", "x0E", ""},
    {"ANameOfNoLengthInside", "0x1aE", "::a"},
    {"ALengthBeyondAllNumbersIsTooLong", "99999999999999999999999999abc", "99999999999999999999999999abc"},
    {"TheFirstWordIsTheLastResort", "  one two", "one"},
    {"AWordIsCutAt127Characters", std::string(200, 'x'), std::string(127, 'x')},
    {"AMangledNameThatIsNoneIsTheFirstWord", "./app(_nothing+0x) [y]", "./app(_nothing+0x)"},
    {"AParenthesisAtTheStartIsNotEnough", "(_Z3foov) x", "(_Z3foov)"},
    {"ALineWithoutNameIsItsFirstWord", "./app(+0xabc) [0xdef]", "./app(+0xabc)"},
};

TEST(Demangle, FollowsItsTableOfCases) {
  for (const DemangleCase& c : kDemangleCases) {
    EXPECT_EQ(Demangle(c.symbol.c_str()), c.text) << c.name;
  }
}

TEST(Demangle, AgreesWithTheNaiveRulesOnGeneratedLines) {
  std::mt19937 engine{20260102};
  const auto below = [&](std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(engine);
  };
  const std::vector<std::string> pieces = {"_Z",
                                           "N",
                                           "E",
                                           "v",
                                           "i",
                                           "PKc",
                                           "3foo",
                                           "1a",
                                           "2bb",
                                           "(",
                                           "+0x",
                                           ")",
                                           " ",
                                           "[",
                                           "/lib",
                                           ".so",
                                           ".6",
                                           "_",
                                           "St",
                                           "0",
                                           "12",
                                           "St6vectorIiSaIiEE",
                                           "x",
                                           "\t",
                                           "10linuxutils",
                                           "99999999999999999999"};
  int nested = 0;
  int demangled = 0;
  constexpr int kLines = 100000;
  for (int i = 0; i < kLines; ++i) {
    std::string line = below(2) == 0 ? "./app(_Z" : "";
    for (std::size_t n = below(9); n > 0; --n) {
      line += pieces[below(pieces.size())];
    }
    std::string text;
    nested += naive::NestedName(line, text) ? 1 : 0;
    demangled += naive::Demangle(line).find("()") != std::string::npos ? 1 : 0;
    ASSERT_EQ(Demangle(line.c_str()), naive::Demangle(line)) << '"' << line << '"';
  }
  // The generator is of use only if it makes all kinds.
  EXPECT_GT(nested, kLines / 100);
  EXPECT_LT(nested, kLines * 9 / 10);
  EXPECT_GT(demangled, 100);
}

TEST(Demangle, ReadsEverySymbolThatTheLibraryExports) {
  std::ifstream list(BOARDKIT_EXPORTED_SYMBOLS);
  int count = 0;
  for (std::string symbol; std::getline(list, symbol);) {
    if (symbol[0] != '#') {
      const std::string line = "./libboardkit.so(" + symbol + "+0x12) [0x7f00aa]";
      EXPECT_EQ(Demangle(line.c_str()), naive::Demangle(line));
      EXPECT_EQ(Demangle(line.c_str()).find("_Z"), std::string::npos) << line;
      ++count;
    }
  }
  EXPECT_GT(count, 80);
}

// --- AppendRecurionNote ----------------------------------------------------------------------------------------------

TEST(AppendRecurionNote, AppendsTheCountWhateverItIs) {
  std::string text = "frame";
  linuxutils::AppendRecurionNote(text, 0);
  linuxutils::AppendRecurionNote(text, 1);
  linuxutils::AppendRecurionNote(text, INT_MAX);
  linuxutils::AppendRecurionNote(text, INT_MIN);
  EXPECT_EQ(text, "frame repeats 0 times! repeats 1 times! repeats 2147483647 times! repeats -2147483648 times!");
}

// --- Traceback of scripted frames ------------------------------------------------------------------------------------

TEST(Traceback, ShowsEachFrameOnALineOfItsOwn) {
  const ScriptedFrames frames({"self", "a", "b", "c"});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\na\nb\nc\n");
}

TEST(Traceback, FoldsARunInTheMiddle) {
  const ScriptedFrames frames({"self", "a", "b", "b", "b", "c"});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\na\nb repeats 2 times!\nc\n");
}

TEST(Traceback, FoldsARunAtTheStart) {
  const ScriptedFrames frames({"self", "a", "a", "b"});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\na repeats 1 times!\nb\n");
}

TEST(Traceback, FoldsARunAtTheEndWithOneNote) {
  const ScriptedFrames frames({"self", "a", "b", "b", "b"});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\na\nb repeats 2 times!\n");
}

TEST(Traceback, FoldsFramesThatAreAllTheSame) {
  const ScriptedFrames frames({"self", "a", "a", "a", "a"});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\na repeats 3 times!\n");
}

TEST(Traceback, FoldsSeveralRuns) {
  const ScriptedFrames frames({"self", "a", "a", "b", "b", "b", "a", "a"});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\na repeats 1 times!\nb repeats 2 times!\na repeats 1 times!\n");
}

TEST(Traceback, TheFirstFrameShownIsNotComparedWithTheSkippedOneBeforeIt) {
  const ScriptedFrames frames({"a", "a", "a", "b"});
  EXPECT_EQ(linuxutils::Traceback(1), "\nTraceback:\na\nb\n");
}

TEST(Traceback, ComparesLinesNotNames) {
  const ScriptedFrames frames({"self", "a [x]", "a [y]"});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\na\na\n");
}

TEST(Traceback, ComparesTheFirst200CharactersOfALine) {
  const std::string same(200, 'x');
  const std::string almost(199, 'x');
  {
    const ScriptedFrames frames({"self", same + "1", same + "2"});
    EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\n" + same.substr(0, 127) + " repeats 1 times!\n");
  }
  const ScriptedFrames frames({"self", almost + "y", almost + "z"});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\n" + same.substr(0, 127) + "\n" + same.substr(0, 127) + "\n");
}

TEST(Traceback, ReadsTheNames) {
  const ScriptedFrames frames({"self", "./app(_ZN1a1bEv+0x1) [0x1]", "./app(_Z3foov+0x1) [0x2]"});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\na::b\nfoo()\n");
}

TEST(Traceback, SkipsCallersAndShowsNothingBeyondTheLast) {
  const ScriptedFrames frames({"self", "a", "b"});
  EXPECT_EQ(linuxutils::Traceback(1), "\nTraceback:\nb\n");
  EXPECT_EQ(linuxutils::Traceback(2), "\nTraceback:\n");
  EXPECT_EQ(linuxutils::Traceback(100), "\nTraceback:\n");
  EXPECT_EQ(linuxutils::Traceback(INT_MAX), "\nTraceback:\n");
}

TEST(Traceback, ANegativeSkipShowsItsOwnFrameToo) {
  const ScriptedFrames frames({"self", "a"});
  EXPECT_EQ(linuxutils::Traceback(-1), "\nTraceback:\nself\na\n");
  EXPECT_EQ(linuxutils::Traceback(-2), "\nTraceback:\nself\na\n");
  EXPECT_EQ(linuxutils::Traceback(INT_MIN), "\nTraceback:\nself\na\n");
}

TEST(Traceback, WithoutArgumentSkipsOne) {
  const ScriptedFrames frames({"self", "a", "b"});
  EXPECT_EQ(linuxutils::Traceback(), "\nTraceback:\nb\n");
}

TEST(Traceback, Captures20Frames) {
  const ScriptedFrames frames(std::vector<std::string>(30, "a"));
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\na repeats 18 times!\n");
  EXPECT_EQ(framesAskedFor, 20);
}

TEST(Traceback, OneFrameAloneIsItsOwn) {
  const ScriptedFrames frames({"self"});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\n");
}

TEST(Traceback, NoFramesAtAllAreAnEmptyListing) {
  const ScriptedFrames frames({});
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\n");
}

TEST(Traceback, WithoutSymbolLinesTheListingIsEmpty) {
  const ScriptedFrames frames({"self", "a", "b"});
  isMemoryShort = true;
  EXPECT_EQ(linuxutils::Traceback(0), "\nTraceback:\n");
}

// --- Traceback of real frames ----------------------------------------------------------------------------------------

TEST(RealTraceback, BothFormsBeginWithTheFunctionThatCalledThem) {
  EXPECT_EQ(FrameLines(frames::Caller(frames::Direct)).at(0), "frames::Direct");
  EXPECT_EQ(FrameLines(frames::Caller(frames::DirectWithZero)).at(0), "frames::DirectWithZero");
}

TEST(RealTraceback, GoesOnWithTheCallersCaller) {
  EXPECT_EQ(FrameLines(frames::Caller(frames::Direct)).at(1).substr(0, 14), "frames::Caller");
}

TEST(RealTraceback, SkipsAsManyCallersAsAsked) {
  EXPECT_EQ(FrameLines(frames::Caller(frames::OneSkipped)).at(0).substr(0, 14), "frames::Caller");
}

TEST(RealTraceback, ARecursionOfDepth30IsFoldedIntoOneLine) {
  // 20 frames: the function's own, the innermost call (from another place than the others), and 18 of the recursion.
  std::string text;
  frames::Recursive(text, 30);
  const std::vector<std::string> lines = FrameLines(text);
  ASSERT_EQ(lines.size(), 2U) << text;
  EXPECT_EQ(lines[0], std::string("frames::Recursive"));
  EXPECT_EQ(lines[1], std::string("frames::Recursive") + " repeats 17 times!");
}

TEST(RealTraceback, WorksInAnyThread) {
  std::string text;
  std::thread thread([&] { frames::Direct(text); });
  thread.join();
  EXPECT_EQ(FrameLines(text).at(0), "frames::Direct");
}

TEST(RealTraceback, WorksInADestructorWhileAnExceptionIsOnItsWay) {
  std::string text;
  EXPECT_THROW(
      {
        const frames::Unwound unwound(text);
        throw 1;
      },
      int);
  EXPECT_EQ(FrameLines(text).at(0), "frames::Unwound::~Unwound()");
}

TEST(RealTraceback, Of100SkippedFramesIsEmpty) {
  EXPECT_EQ(linuxutils::Traceback(100), "\nTraceback:\n");
}

}  // namespace
