#include <climits>
#include <fstream>
#include <new>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Allocations.h"
#include "ExpectText.h"
#include "NaiveDemangling.h"
#include "linuxutils.h"

namespace {

using linuxutils::Demangle;

/// The first words of the lines of @p path that are no comments.
std::vector<std::string> FirstWords(const char* path) {
  std::vector<std::string> words;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line[0] != '#') {
      words.push_back(line.substr(0, line.find(' ')));
    }
  }
  return words;
}

/// Every symbol that the library exports, mangled.
std::vector<std::string> LibrarySymbols() {
  return FirstWords(BOARDKIT_EXPORTED_SYMBOLS);
}

// --- Nested names ----------------------------------------------------------------------------------------------------

TEST(Demangle, NestedNamesAreReadUpToTheirE) {
  EXPECT_EQ(Demangle("(_ZN10linuxutils9TracebackEi+0x1c)"), "linuxutils::Traceback");
  EXPECT_EQ(Demangle("./program(_ZN8OpSystem7ExecCmdEv+0x5f) [0x55d0c0de]"), "OpSystem::ExecCmd");
  EXPECT_EQ(Demangle("_ZN1a1b1c1dEv"), "a::b::c::d");
  EXPECT_EQ(Demangle("_ZNK4File4SeekEli"), "File::Seek");
  // A constructor's number is a length like any other, and takes the E.
  EXPECT_EQ(Demangle("./program(_ZN4FileC1Ei+a)"), "File::File(int)");
}

TEST(Demangle, AnAbiTagReadsLikeOneMoreName) {
  EXPECT_EQ(Demangle("(_ZN10SerialPort8ToStringB5cxx11Ev+0x1)"), "SerialPort::ToString::cxx11");
}

TEST(Demangle, TheEndOfTheTextEndsAName) {
  EXPECT_EQ(Demangle("3abc"), "abc");
  EXPECT_EQ(Demangle("_Z3abc"), "abc");
  EXPECT_EQ(Demangle("3abc3def"), "abc::def");
  EXPECT_EQ(Demangle("x3abcy3def"), "abc::def");
  EXPECT_EQ(Demangle("5a b c"), "a b c");
}

TEST(Demangle, AnEEndsANameEvenBeforeTheTextGoesOn) {
  EXPECT_EQ(Demangle("3abcE3def"), "abc");
  EXPECT_EQ(Demangle("3abcEE"), "abc");
  EXPECT_EQ(Demangle("3abEE"), "abE");  // inside of a name it is a letter
}

TEST(Demangle, LengthsOfZeroGiveEmptyNames) {
  EXPECT_EQ(Demangle("0"), "");
  EXPECT_EQ(Demangle("0E"), "");
  EXPECT_EQ(Demangle("x0E rest"), "");
  EXPECT_EQ(Demangle("0x3abc"), "::abc");
  EXPECT_EQ(Demangle("3abc0"), "abc::");
  EXPECT_EQ(Demangle("1a_0_1b"), "a::::b");
  EXPECT_EQ(Demangle("003abcE"), "abc");  // a run of digits is one number
}

TEST(Demangle, DigitsOfThePathCount) {
  EXPECT_EQ(Demangle("libc.so.1(_ZN1a1bEv+0x1)"), "(::a::b");
  EXPECT_EQ(Demangle("/usr/lib/libboardkit.so.0(_ZN8WatchDog4FeedEv+0x1)"), "::WatchDog::Feed");
  // A length beyond the text's end: the other ways are tried.
  EXPECT_EQ(Demangle("/build-2024/program(_ZN8WatchDog4FeedEv+0x1)"), "WatchDog::Feed()");
}

TEST(Demangle, ATextThatEndsInsideANameIsReadInTheOtherWays) {
  EXPECT_EQ(Demangle("4abc"), "4abc");
  EXPECT_EQ(Demangle("1"), "1");
  EXPECT_EQ(Demangle("3abc4def"), "3abc4def");
  EXPECT_EQ(Demangle("3abcd"), "3abcd");
  EXPECT_EQ(Demangle("prog(_ZN3abc4"), "prog(_ZN3abc4");
}

TEST(Demangle, NumbersThatAreTooLargeReachBehindTheText) {
  for (const std::string number :
       {"2147483647", "2147483648", "4294967296", "4294967299", "9223372036854775807", "9223372036854775808",
        "18446744073709551616", "18446744073709551619", "99999999999999999999999999999999999999"}) {
    SCOPED_TRACE(number);
    EXPECT_EQ(Demangle((number + "abcE").c_str()), number + "abcE");
    EXPECT_EQ(Demangle(("1a" + number + "abcE").c_str()), "1a" + number + "abcE");
  }
}

// --- Signatures ------------------------------------------------------------------------------------------------------

TEST(Demangle, AFunctionOutsideOfAllNamesGetsItsFullSignature) {
  EXPECT_EQ(Demangle("./program(_Z9WriteLoopiPKvj+0x1c) [0x7f]"), "WriteLoop(int, void const*, unsigned int)");
  EXPECT_EQ(Demangle("./program(_Z9WriteLoopiPKvj)"), "WriteLoop(int, void const*, unsigned int)");
  EXPECT_EQ(Demangle("./program(_Z9WriteLoopiPKvj"), "WriteLoop(int, void const*, unsigned int)");
  EXPECT_EQ(Demangle("p(x_Z9WriteLoopiPKvj+"), "WriteLoop(int, void const*, unsigned int)");
}

TEST(Demangle, WithoutSomethingBeforeTheParenthesisThereIsNoSignature) {
  EXPECT_EQ(Demangle("(_Z9WriteLoopiPKvj+0x1c)"), "(_Z9WriteLoopiPKvj+0x1c)");
  EXPECT_EQ(Demangle("_Z9WriteLoopiPKvj"), "_Z9WriteLoopiPKvj");
}

TEST(Demangle, ANameLongerThan127CharactersIsCut) {
  std::string expected = "f(";
  for (int i = 0; i < 122; ++i) {
    expected += "int, ";
  }
  // Of 127 characters, and of more, of which 127 are read.
  EXPECT_EQ(Demangle(("p(_Z1f" + std::string(123, 'i') + "+").c_str()), expected + "int)");
  EXPECT_EQ(Demangle(("p(_Z1f" + std::string(200, 'i') + "+").c_str()), expected + "int)");
  EXPECT_EQ(Demangle(("p(_Z1f" + std::string(123, 'i') + "?+").c_str()), expected + "int)");
  // Cut off, it is no longer a symbol, and the cut text is taken as a first word.
  EXPECT_EQ(Demangle(("p(_Z1f" + std::string(122, 'i') + "?+").c_str()), "p(_Z1f" + std::string(121, 'i'));
}

TEST(Demangle, MemoryThatRunsOutForASignatureIsNotLost) {
  // Of 127 characters; what is made of them has more than 600. Several thousand of those are some megabytes.
  constexpr int kCases = 4000;
  const std::string line = "p(_Z1f" + std::string(123, 'i') + '+';
  const long long before = AllocatedBytes();
  for (int i = 0; i < kCases; ++i) {
    SCOPED_TRACE(i);
    const LimitedAllocations limited(500);
    EXPECT_THROW(Demangle(line.c_str()), std::bad_alloc);
  }
  EXPECT_LT(AllocatedBytes() - before, 1000000);
}

// --- First words -----------------------------------------------------------------------------------------------------

TEST(Demangle, WhatCannotBeReadIsItsFirstWord) {
  EXPECT_EQ(Demangle("a_word and others"), "a_word");
  EXPECT_EQ(Demangle(" \t\n\v\f\ra_word\tand others"), "a_word");
  EXPECT_EQ(Demangle("./program(main+"), "./program(main+");
  EXPECT_EQ(Demangle("./program(+) [x]"), "./program(+)");
  EXPECT_EQ(Demangle("./program(_no_mangled_name+) [x]"), "./program(_no_mangled_name+)");
}

TEST(Demangle, AFirstWordIsCutBehind127Characters) {
  const std::string word(127, 'w');
  EXPECT_EQ(Demangle(word.c_str()), word);
  EXPECT_EQ(Demangle((word + "x").c_str()), word);
  EXPECT_EQ(Demangle(("  " + word + "xyz other").c_str()), word);
}

TEST(Demangle, AnEmptyOrBlankTextComesBackUnchanged) {
  EXPECT_EQ(Demangle(""), "");
  EXPECT_EQ(Demangle("   "), "   ");
  EXPECT_EQ(Demangle(" \t\n\v\f\r"), " \t\n\v\f\r");
  EXPECT_EQ(Demangle(std::string(300, ' ').c_str()), std::string(300, ' '));
}

// --- Against the naive rules -----------------------------------------------------------------------------------------

TEST(DemangleProperty, AgreesWithTheNaiveRulesOnTheLibrarysOwnSymbols) {
  // Those that stay inside and those that it needs included.
  const auto symbols = FirstWords(BOARDKIT_ALL_SYMBOLS);
  const std::set<std::string> all(symbols.begin(), symbols.end());
  for (const std::string& exported : LibrarySymbols()) {
    ASSERT_EQ(all.count(exported), 1U) << exported;
  }
  ASSERT_GT(all.size(), 2 * LibrarySymbols().size());
  for (const std::string& symbol : symbols) {
    for (const std::string& line : {symbol, "(" + symbol + ")", "./program(" + symbol + "+0x1c) [0x55d0c0de8a1b]",
                                    "/lib/libboardkit.so.0(" + symbol + "+0x4f) [0x7f01]", symbol.substr(1)}) {
      EXPECT_EQ(Demangle(line.c_str()), naive::Demangle(line)) << line;
    }
  }
}

TEST(DemangleProperty, NoSymbolOfTheLibraryStaysMangled) {
  for (const std::string& symbol : LibrarySymbols()) {
    const std::string line = "./libboardkit.so(" + symbol + "+0x12) [0x7f00aa]";
    EXPECT_LACKS(Demangle(line.c_str()), "_Z");
  }
}

TEST(DemangleProperty, AgreesWithTheNaiveRulesOnGeneratedLines) {
  constexpr int kCases = 200000;
  const auto symbols = LibrarySymbols();
  const std::vector<std::string> pieces = {"(",
                                           ")",
                                           "+",
                                           "_",
                                           "_Z",
                                           "_ZN",
                                           "E",
                                           "i",
                                           "::",
                                           " ",
                                           "\t",
                                           "\n",
                                           "0",
                                           "1",
                                           "2",
                                           "12",
                                           "007",
                                           "3abc",
                                           "4File",
                                           "Ev",
                                           "(_Z",
                                           "x(_Z1fi",
                                           "(_ZN1a1bEv+0x1c)",
                                           "9223372036854775807",
                                           "18446744073709551617",
                                           "99999999999999999999",
                                           "4294967297",
                                           "a",
                                           "bc",
                                           "\xE4\xF6",
                                           "[0x7f]",
                                           "./program",
                                           std::string(120, 'w'),
                                           std::string(9, 'i'),
                                           "_Z1f",
                                           "EE"};
  std::mt19937 engine(20260103);
  int read = 0;
  int demangled = 0;
  int words = 0;

  for (int i = 0; i < kCases; ++i) {
    std::string line;
    for (auto count = engine() % 9; count > 0; --count) {
      line += engine() % 20 == 0 ? symbols[engine() % symbols.size()] : pieces[engine() % pieces.size()];
    }
    std::string expected;
    if (naive::NestedName(line, expected)) {
      ++read;
    } else if (naive::Signature(line, expected)) {
      ++demangled;
    } else {
      expected = naive::FirstWord(line);
      ++words;
    }
    ASSERT_EQ(Demangle(line.c_str()), expected) << '"' << line << '"';
  }
  // The generator is of use only if it makes all of them.
  EXPECT_GT(read, kCases / 10);
  EXPECT_GT(demangled, kCases / 100);
  EXPECT_GT(words, kCases / 10);
}

// --- The note --------------------------------------------------------------------------------------------------------

TEST(AppendRecurionNote, AppendsTheCountWithoutASingular) {
  const std::vector<std::pair<int, std::string>> cases = {{0, " repeats 0 times!"},
                                                          {1, " repeats 1 times!"},
                                                          {2, " repeats 2 times!"},
                                                          {-1, " repeats -1 times!"},
                                                          {INT_MAX, " repeats 2147483647 times!"},
                                                          {INT_MIN, " repeats -2147483648 times!"}};
  for (const auto& [count, note] : cases) {
    SCOPED_TRACE(count);
    std::string text;
    linuxutils::AppendRecurionNote(text, count);
    EXPECT_EQ(text, note);

    text = std::string("a\0b", 3);
    linuxutils::AppendRecurionNote(text, count);
    EXPECT_EQ(text, std::string("a\0b", 3) + note);
  }
}

TEST(AppendRecurionNote, WithoutMemoryForItTheTextStaysAsItWas) {
  std::string text(1000, 'x');
  text.shrink_to_fit();
  {
    const LimitedAllocations limited(500);
    EXPECT_THROW(linuxutils::AppendRecurionNote(text, 1), std::bad_alloc);
  }
  EXPECT_EQ(text, std::string(1000, 'x'));
}

}  // namespace
