#include <climits>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IpNet.h"
#include "NaiveParsing.h"

namespace {

using Record = IpNet::Record;

// --- Tables of cases: a sentence, what goes in, what comes out -------------------------------------------------------

struct PositionCase {
  const char* name;
  std::string text;
  std::string key;
  unsigned int start;
  bool wholeWord;
  unsigned int position;
};

std::ostream& operator<<(std::ostream& stream, const PositionCase& c) {
  return stream << c.name;
}

const std::vector<PositionCase> kPositionCases = {
    {"TheValueFollowsItsKey", "a b", "a", 0, false, 2},
    {"TheValueFollowsItsWholeWordKey", "a b", "a", 0, true, 2},
    {"AKeyThatEndsTheTextHasNoValue", "a b", "b", 0, false, IpNet::npos},
    {"AWholeWordKeyThatEndsTheTextHasNoValue", "a b", "b", 0, true, IpNet::npos},
    {"AMissingKeyIsAMiss", "a b", "c", 0, false, IpNet::npos},
    {"AnEmptyTextIsAMiss", "", "a", 0, false, IpNet::npos},
    {"AKeyThatIsTheTextIsAMiss", "abc", "abc", 0, false, IpNet::npos},
    {"AKeyLongerThanTheTextIsAMiss", "ab", "abc ", 0, false, IpNet::npos},
    {"SeveralBlanksAreSkipped", "x   y", "x", 0, false, 4},
    {"SeveralBlanksAreSkippedBehindAWholeWord", "x   y", "x", 0, true, 4},
    {"OnlyBlanksBehindTheKeyAreAMiss", "x   ", "x", 0, false, IpNet::npos},
    {"OnlyBlanksBehindAWholeWordAreAMiss", "x   ", "x", 0, true, IpNet::npos},
    {"TheBeginningOfALongerWordStandsForIt", "inet6 fe80::1/64", "inet", 0, false, 6},
    {"TheMiddleOfALongerWordStandsForItsRest", "xinet6 fe80::1/64", "inet", 0, false, 7},
    {"TheBeginningOfALongerWordIsNoWholeWord", "inet6 a inet b", "inet", 0, true, IpNet::npos},
    {"TheEndOfALongerWordIsNoWholeWord", "xinet a inet b", "inet", 0, true, IpNet::npos},
    {"AFirstOccurrenceThatFailsIsFinal", "inet6 fe80::1/64 inet 192.0.2.1/24", "inet", 0, true, IpNet::npos},
    {"AWholeWordInsideTheTextIsFound", "  inet 192.0.2.1/24", "inet", 0, true, 7},
    {"ATabBehindTheKeyEndsNoWholeWord", "inet\ta b", "inet", 0, true, IpNet::npos},
    {"ANewlineBeforeTheKeyBeginsNoWholeWord", "x\ninet a", "inet", 0, true, IpNet::npos},
    {"ATabSeparatesNothing", "inet\ta b", "inet", 0, false, 7},
    {"ANewlineSeparatesNothing", "inet\na b", "inet", 0, false, 7},
    {"AKeyWithABlankEndsAtItsFirstBlank", "brd + dev eth0", "brd +", 0, false, 4},
    {"AKeyThatBeginsWithABlankEndsThere", "a b c", " b", 0, false, 2},
    {"AKeyOfOneBlankGivesTheNextWord", "ab cd", " ", 0, false, 3},
    {"AnEmptyKeyGivesTheSecondWord", "ab cd", "", 0, false, 3},
    {"AnEmptyKeyAtABlankGivesTheNextWord", "ab cd", "", 2, false, 3},
    {"AnEmptyKeyAtTheEndIsAMiss", "ab cd", "", 5, false, IpNet::npos},
    {"AnEmptyKeyBeyondTheEndIsAMiss", "ab cd", "", 6, false, IpNet::npos},
    {"AnEmptyWholeWordNeedsABlankBehindIt", "ab cd", "", 0, true, IpNet::npos},
    {"AnEmptyWholeWordBetweenTwoBlanksIsOne", "a  b", "", 2, true, 3},
    {"AnEmptyWholeWordAtTheEndIsAMiss", "a ", "", 2, true, IpNet::npos},
    {"TheSearchBeginsAtStart", "a b a c", "a", 1, false, 6},
    {"AnOccurrenceAtStartCounts", "a b a c", "a", 4, false, 6},
    {"AStartBeyondTheOnlyOccurrenceIsAMiss", "a b", "a", 1, false, IpNet::npos},
    {"AStartAtTheEndIsAMiss", "a b", "a", 3, false, IpNet::npos},
    {"AStartBeyondTheEndIsAMiss", "a b", "a", 4, false, IpNet::npos},
    {"TheLargestStartIsAMiss", "a b", "a", UINT_MAX, false, IpNet::npos},
    {"TheLargestStartIsAMissForAnEmptyKeyToo", "a b", "", UINT_MAX, false, IpNet::npos},
    {"AWholeWordLooksAtTheBlankBeforeStart", "xa b", "a", 1, true, IpNet::npos},
    {"ANulByteIsAnOrdinaryCharacter", std::string("a\0b c", 5), std::string("a\0", 2), 0, false, 4},
};

class GetPosOfValueTable : public testing::TestWithParam<PositionCase> {};

INSTANTIATE_TEST_SUITE_P(, GetPosOfValueTable, testing::ValuesIn(kPositionCases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(GetPosOfValueTable, Says) {
  const PositionCase& c = GetParam();
  EXPECT_EQ(IpNet::GetPosOfValue(c.text, c.key, c.start, c.wholeWord), c.position);
}

TEST(GetPosOfValue, AMissHasAll32BitsSet) {
  EXPECT_EQ(IpNet::npos, 4294967295U);
  EXPECT_EQ(IpNet::npos, static_cast<unsigned int>(std::string::npos));
}

struct ValueCase {
  const char* name;
  std::string text;
  std::string key;
  unsigned int start;
  bool wholeWord;
  std::string value;
  unsigned int position;
};

std::ostream& operator<<(std::ostream& stream, const ValueCase& c) {
  return stream << c.name;
}

const std::vector<ValueCase> kValueCases = {
    {"AValueEndsAtABlank", "inet 192.0.2.1/24 brd", "inet", 0, true, "192.0.2.1/24", 5},
    {"AValueMayEndTheText", "inet 192.0.2.1/24", "inet", 0, true, "192.0.2.1/24", 5},
    {"AValueAtTheEndKeepsTheLastNewline", "dev eth0\n", "dev", 0, false, "eth0\n", 4},
    {"AValueThatEndsALineRunsToTheNextBlank", "dev eth0\n    inet", "dev", 0, false, "eth0\n", 4},
    {"AValueThatEndsALineTakesTheNextLinesFirstWord", "dev eth0\nvia x", "dev", 0, false, "eth0\nvia", 4},
    {"SeveralBlanksBelongToNoValue", "x   y  z", "x", 0, false, "y", 4},
    {"ATabBelongsToTheValue", "x \ty z", "x", 0, false, "\ty", 2},
    {"TheKeyMayBeTheBeginningOfAWord", "link/ether 02:00:00:00:00:01 brd", "link/", 0, false, "02:00:00:00:00:01", 11},
    {"AMissLeavesTheValueAlone", "a b", "c", 0, false, "as before", IpNet::npos},
    {"AMissingWholeWordLeavesTheValueAlone", "inet6 a inet b", "inet", 0, true, "as before", IpNet::npos},
    {"OnlyBlanksLeaveTheValueAlone", "a   ", "a", 0, false, "as before", IpNet::npos},
};

class GetValueTable : public testing::TestWithParam<ValueCase> {};

INSTANTIATE_TEST_SUITE_P(, GetValueTable, testing::ValuesIn(kValueCases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(GetValueTable, Says) {
  const ValueCase& c = GetParam();
  std::string value = "as before";
  EXPECT_EQ(IpNet::GetValue(c.text, c.key, c.start, value, c.wholeWord), c.position);
  EXPECT_EQ(value, c.value);
}

TEST(GetValue, TextKeyAndValueMayBeTheSameString) {
  std::string text = "a b c";
  EXPECT_EQ(IpNet::GetValue(text, "a", 0, text, false), 2U);
  EXPECT_EQ(text, "b");

  std::string key = "a";
  EXPECT_EQ(IpNet::GetValue("a b c", key, 0, key, false), 2U);
  EXPECT_EQ(key, "b");
}

TEST(GetValues, ARouteLineGivesViaTheGatewayAndTheInterface) {
  EXPECT_EQ(IpNet::GetValues("default via 192.0.2.1 dev eth0 proto static \n", {"default", "via", "dev"}, {}),
            (Record{{"default", "via"}, {"via", "192.0.2.1"}, {"dev", "eth0"}}));
}

TEST(GetValues, TheNextKeyMayBeThePreviousValueItself) {
  EXPECT_EQ(IpNet::GetValues("a b c d", {"a", "b", "c"}, {}), (Record{{"a", "b"}, {"b", "c"}, {"c", "d"}}));
}

TEST(GetValues, AKeyBeforeThePreviousValueIsMissed) {
  EXPECT_EQ(IpNet::GetValues("x 1 y 2", {"y", "x"}, {}), (Record{{"y", "2"}}));
}

TEST(GetValues, InReverseOrderTheFirstIsFoundTheSecondMissedAndTheThirdSearchedFromTheStart) {
  EXPECT_EQ(IpNet::GetValues("x 1 y 2 z 3", {"z", "y", "x"}, {}), (Record{{"z", "3"}, {"x", "1"}}));
}

TEST(GetValues, AMissRestartsTheSearchAtTheStartOfTheText) {
  EXPECT_EQ(IpNet::GetValues("x 1 y 2", {"y", "missing", "x"}, {}), (Record{{"y", "2"}, {"x", "1"}}));
}

TEST(GetValues, OfARepeatedKeyTheFirstValueCounts) {
  EXPECT_EQ(IpNet::GetValues("x 1 x 2", {"x", "x"}, {}), (Record{{"x", "1"}}));
}

TEST(GetValues, ARepeatedKeyStillMovesTheSearchOn) {
  EXPECT_EQ(IpNet::GetValues("x 1 y 2 x 3 y 4", {"x", "x", "y"}, {}), (Record{{"x", "1"}, {"y", "4"}}));
}

TEST(GetValues, MissingKeysHaveNoEntry) {
  EXPECT_EQ(IpNet::GetValues("x 1", {"y", "z"}, {}), Record{});
}

TEST(GetValues, NoKeysGiveNoEntries) {
  EXPECT_EQ(IpNet::GetValues("x 1", {}, {true, true}), Record{});
}

TEST(GetValues, EveryKeyHasItsOwnWholeWordFlag) {
  EXPECT_EQ(IpNet::GetValues("inet6 a inet b", {"inet6", "inet"}, {true, true}),
            (Record{{"inet6", "a"}, {"inet", "b"}}));
  EXPECT_EQ(IpNet::GetValues("inet6 a inet b", {"inet", "inet6"}, {true, true}), (Record{{"inet6", "a"}}));
  EXPECT_EQ(IpNet::GetValues("inet6 a inet b", {"inet", "inet6"}, {false, true}), (Record{{"inet", "a"}}));
}

TEST(GetValues, MissingFlagsCountAsFalse) {
  EXPECT_EQ(IpNet::GetValues("ab 1 cd 2", {"a", "c"}, {true}), (Record{{"c", "2"}}));
  EXPECT_EQ(IpNet::GetValues("ab 1 cd 2", {"a", "c"}, {}), (Record{{"a", "1"}, {"c", "2"}}));
}

TEST(GetValues, SurplusFlagsAreIgnored) {
  EXPECT_EQ(IpNet::GetValues("ab 1", {"a"}, {false, true, true}), (Record{{"a", "1"}}));
}

TEST(FoundInMap, EveryEntryMustBeThereWithItsValue) {
  Record map = {{"a", "1"}, {"b", "2"}, {"c", "3"}};
  Record same = {{"a", "1"}, {"c", "3"}};
  Record otherValue = {{"a", "1"}, {"c", "4"}};
  Record otherKey = {{"a", "1"}, {"d", "3"}};
  EXPECT_TRUE(IpNet::FoundInMap(map, same, false));
  EXPECT_FALSE(IpNet::FoundInMap(map, otherValue, false));
  EXPECT_FALSE(IpNet::FoundInMap(map, otherKey, false));
}

TEST(FoundInMap, WithKeysOnlyTheValuesDoNotMatter) {
  Record map = {{"a", "1"}, {"b", "2"}};
  Record otherValue = {{"a", "9"}};
  Record otherKey = {{"a", "1"}, {"d", "3"}};
  EXPECT_TRUE(IpNet::FoundInMap(map, otherValue, true));
  EXPECT_FALSE(IpNet::FoundInMap(map, otherKey, true));
}

TEST(FoundInMap, NoEntriesAreAlwaysThere) {
  Record map = {{"a", "1"}};
  Record none;
  EXPECT_TRUE(IpNet::FoundInMap(map, none, false));
  EXPECT_TRUE(IpNet::FoundInMap(none, none, false));
  EXPECT_TRUE(IpNet::FoundInMap(none, none, true));
  EXPECT_FALSE(IpNet::FoundInMap(none, map, true));
}

TEST(FoundInMap, ValuesAreComparedByteByByteAndInLength) {
  Record map = {{"a", std::string("1\0x", 3)}};
  Record shorter = {{"a", "1"}};
  Record other = {{"a", std::string("1\0y", 3)}};
  Record same = map;
  EXPECT_FALSE(IpNet::FoundInMap(map, shorter, false));
  EXPECT_FALSE(IpNet::FoundInMap(map, other, false));
  EXPECT_TRUE(IpNet::FoundInMap(map, same, false));
}

TEST(FoundInMap, ChangesNeitherMap) {
  Record map = {{"a", "1"}};
  Record entries = {{"a", "1"}, {"b", "2"}};
  EXPECT_FALSE(IpNet::FoundInMap(map, entries, false));
  EXPECT_EQ(map, (Record{{"a", "1"}}));
  EXPECT_EQ(entries, (Record{{"a", "1"}, {"b", "2"}}));
}

// --- Generated texts against the naive statement of the rules --------------------------------------------------------

/// Texts over few characters, so that keys occur, at word borders and inside words.
class Generator {
 public:
  unsigned int Number(unsigned int below) {
    return std::uniform_int_distribution<unsigned int>(0, below - 1)(m_engine);
  }
  bool Flag() {
    return Number(2) != 0;
  }
  std::string Text(unsigned int longest) {
    static const std::string kCharacters = "aab   \n\t/";
    std::string text;
    for (unsigned int i = Number(longest + 1); i > 0; --i) {
      text += kCharacters[Number(static_cast<unsigned int>(kCharacters.size()))];
    }
    return text;
  }

 private:
  std::mt19937 m_engine{20260101};
};

constexpr int kGeneratedCases = 100000;

TEST(ParsingProperty, PositionsAndValuesAgreeWithTheNaiveRulesOnGeneratedTexts) {
  Generator generate;
  int hits = 0;
  for (int i = 0; i < kGeneratedCases; ++i) {
    const std::string text = generate.Text(24);
    const std::string key = generate.Text(3);
    const unsigned int start = generate.Number(generate.Flag() ? 4 : 28);
    const bool wholeWord = generate.Flag();
    std::string value = "untouched";
    std::string expectedValue = "untouched";
    const unsigned int expected = naive::Value(text, key, start, expectedValue, wholeWord);
    hits += expected == naive::kMiss ? 0 : 1;

    ASSERT_EQ(IpNet::GetPosOfValue(text, key, start, wholeWord), expected)
        << '"' << text << "\" \"" << key << "\" " << start << ' ' << wholeWord;
    ASSERT_EQ(IpNet::GetValue(text, key, start, value, wholeWord), expected)
        << '"' << text << "\" \"" << key << "\" " << start << ' ' << wholeWord;
    ASSERT_EQ(value, expectedValue) << '"' << text << "\" \"" << key << "\" " << start << ' ' << wholeWord;
  }
  // The generator is of use only if it makes both.
  EXPECT_GT(hits, kGeneratedCases / 10);
  EXPECT_LT(hits, kGeneratedCases * 9 / 10);
}

TEST(ParsingProperty, RecordsAgreeWithTheNaiveRulesOnGeneratedTexts) {
  Generator generate;
  std::size_t entries = 0;
  for (int i = 0; i < kGeneratedCases; ++i) {
    const std::string text = generate.Text(40);
    const std::string k1 = generate.Text(2);
    const std::string k2 = generate.Text(2);
    const std::string k3 = generate.Text(2);
    const bool w1 = generate.Flag();
    const bool w2 = generate.Flag();
    const auto expected = naive::Values(text, {k1, k2, k3}, {w1, w2});
    entries += expected.size();

    ASSERT_EQ(IpNet::GetValues(text, {k1, k2, k3}, {w1, w2}), expected)
        << '"' << text << "\" \"" << k1 << "\" " << w1 << " \"" << k2 << "\" " << w2 << " \"" << k3 << '"';
  }
  EXPECT_GT(entries, static_cast<std::size_t>(kGeneratedCases));
}

}  // namespace
