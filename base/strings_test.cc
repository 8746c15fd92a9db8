// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/strings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace base {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string Replace(std::string text, size_t start, std::string_view find,
                    std::string_view replacement) {
  ReplaceSubstringsAfterOffset(&text, start, find, replacement);
  return text;
}

TEST(SplitStringTest, KeepsEmptyPiecesIfAsked) {
  EXPECT_THAT(
      SplitString(":a::b:", ":", WhitespaceHandling::kKeep, SplitResult::kAll),
      ElementsAre("", "a", "", "b", ""));
}

TEST(SplitStringTest, DropsEmptyPiecesIfAsked) {
  EXPECT_THAT(SplitString(":a::b:", ":", WhitespaceHandling::kKeep,
                          SplitResult::kNonEmpty),
              ElementsAre("a", "b"));
}

TEST(SplitStringTest, HasNoPiecesForAnEmptyText) {
  EXPECT_THAT(
      SplitString("", ":", WhitespaceHandling::kKeep, SplitResult::kAll),
      IsEmpty());
}

TEST(SplitStringTest, TrimsBeforeItDropsEmptyPieces) {
  EXPECT_THAT(SplitString(" a ,\t,\n b\v\f\r", ",", WhitespaceHandling::kTrim,
                          SplitResult::kNonEmpty),
              ElementsAre("a", "b"));
}

TEST(SplitStringTest, KeepsBlanksWithinAPiece) {
  EXPECT_THAT(
      SplitString(" a b ", ",", WhitespaceHandling::kTrim, SplitResult::kAll),
      ElementsAre("a b"));
}

TEST(SplitStringTest, DoesNotTrimUnlessAsked) {
  EXPECT_THAT(
      SplitString(" a ,b", ",", WhitespaceHandling::kKeep, SplitResult::kAll),
      ElementsAre(" a ", "b"));
}

TEST(SplitStringTest, SplitsAtEachOfSeveralSeparators) {
  EXPECT_THAT(
      SplitString("a,b;c", ",;", WhitespaceHandling::kKeep, SplitResult::kAll),
      ElementsAre("a", "b", "c"));
}

TEST(JoinStringTest, PutsTheSeparatorBetweenThePieces) {
  EXPECT_EQ("", JoinString({}, ","));
  EXPECT_EQ("a", JoinString({"a"}, ","));
  EXPECT_EQ("a,,b", JoinString({"a", "", "b"}, ","));
}

TEST(TrimWhitespaceASCIITest, TakesAllSixBlanksOffBothEnds) {
  EXPECT_EQ("a b", TrimWhitespaceASCII(" \t\n\v\f\ra b\r\f\v\n\t "));
  EXPECT_EQ("", TrimWhitespaceASCII(" \t"));
  EXPECT_EQ("", TrimWhitespaceASCII(""));
}

TEST(TrimWhitespaceASCIITest, LeavesOtherBytesAlone) {
  const std::string text("\0x\xc2\xa0", 4);
  EXPECT_EQ(text, TrimWhitespaceASCII(text));
}

TEST(ToLowerASCIITest, ChangesOnlyASCIICapitals) {
  EXPECT_EQ("az@[`{09", ToLowerASCII("AZ@[`{09"));
  EXPECT_EQ("\xc3\x84", ToLowerASCII("\xc3\x84"));
}

TEST(StartsWithTest, ComparesWithoutCase) {
  EXPECT_TRUE(StartsWith("/API/things", "/api/"));
  EXPECT_TRUE(StartsWith("/api", "/API"));
  EXPECT_TRUE(StartsWith("x", ""));
}

TEST(StartsWithTest, RefusesAShorterTextAndAnotherPrefix) {
  EXPECT_FALSE(StartsWith("/ap", "/api"));
  EXPECT_FALSE(StartsWith("/apx", "/api"));
  EXPECT_FALSE(StartsWith("\xc3\xa4", "\xc3\x84"));
}

TEST(CompareCaseInsensitiveASCIITest, OrdersTexts) {
  EXPECT_EQ(0, CompareCaseInsensitiveASCII("PoSt", "pOsT"));
  EXPECT_LT(CompareCaseInsensitiveASCII("GET", "post"), 0);
  EXPECT_GT(CompareCaseInsensitiveASCII("post", "GET"), 0);
  EXPECT_LT(CompareCaseInsensitiveASCII("pos", "POST"), 0);
  EXPECT_GT(CompareCaseInsensitiveASCII("posts", "POST"), 0);
  EXPECT_EQ(0, CompareCaseInsensitiveASCII("", ""));
}

TEST(CompareCaseInsensitiveASCIITest, FoldsLettersOnly) {
  // These differ by the bit that tells a capital from a small letter.
  EXPECT_NE(0, CompareCaseInsensitiveASCII("@", "`"));
  EXPECT_NE(0, CompareCaseInsensitiveASCII("[", "{"));
  EXPECT_GT(CompareCaseInsensitiveASCII("\xff", "a"), 0);
}

TEST(ReplaceSubstringsAfterOffsetTest, ReplacesEveryOccurrence) {
  EXPECT_EQ("a.b..c", Replace("a%2eb%2e%2ec", 0, "%2e", "."));
}

TEST(ReplaceSubstringsAfterOffsetTest, LeavesWhatIsBeforeTheOffset) {
  EXPECT_EQ("xxyy", Replace("xxxx", 2, "x", "y"));
  EXPECT_EQ("aa", Replace("aa", 2, "a", "b"));
}

TEST(ReplaceSubstringsAfterOffsetTest, DoesNotLookAtWhatItHasPutIn) {
  EXPECT_EQ("%2e2e", Replace("%2e2e", 0, "%%", ""));
  EXPECT_EQ("%2e", Replace("%%2e2e", 0, "%2e", ""));
  EXPECT_EQ("aaaa", Replace("aa", 0, "a", "aa"));
}

TEST(ReplaceSubstringsAfterOffsetTest, GoesFromLeftToRight) {
  EXPECT_EQ("ba", Replace("aaa", 0, "aa", "b"));
}

TEST(ReplaceSubstringsAfterOffsetDeathTest, DiesWithNothingToLookFor) {
  EXPECT_DEATH(Replace("a", 0, "", "b"), "Nothing to look for");
}

TEST(EraseStringTest, LeavesNothingBehind) {
  for (const size_t size : {0u, 5u, 500u}) {
    std::string text(size, 'x');
    const char* const data = text.data();
    EraseString(&text);
    EXPECT_EQ("", text);
    // The string keeps its memory, short or long.
    ASSERT_EQ(data, text.data());
    for (size_t i = 0; i < size; ++i) EXPECT_EQ(0, data[i]) << i;
  }
}

TEST(StringToIntTest, ReadsSignedIntegers) {
  const struct {
    const char* text;
    int value;
  } kCases[] = {
      {"0", 0},      {"443", 443},
      {"+443", 443}, {"-1", -1},
      {"007", 7},    {"2147483647", 2147483647},
      {"-0", 0},     {"-2147483648", -2147483647 - 1},
      {"+0", 0},     {"00000000000000000000001", 1},
  };
  for (const auto& [text, value] : kCases) {
    int output = 99;
    EXPECT_TRUE(StringToInt(text, &output)) << text;
    EXPECT_EQ(value, output) << text;
  }
}

TEST(StringToIntTest, RefusesAnythingElse) {
  for (const char* text :
       {"", "+", "-", "+-1", "-+1", "++1", "--1", " 1", "1 ", "1x", "x1", "0x1",
        "1.0", "1e3", "http", "2147483648", "-2147483649",
        "99999999999999999999", "\xd9\xa1"}) {
    int output = 99;
    EXPECT_FALSE(StringToInt(text, &output)) << text;
    EXPECT_EQ(99, output) << text;
  }
}

TEST(StringToIntTest, RefusesNul) {
  int output = 99;
  EXPECT_FALSE(StringToInt(std::string_view("1\0", 2), &output));
}

TEST(CutLongTextTest, LeavesATextOfTheLargestSizeAlone) {
  std::string text = "12345";
  CutLongText(&text, 5);
  EXPECT_EQ(text, "12345");
}

TEST(CutLongTextTest, CutsALongerTextAndTellsItsLength) {
  std::string text = "123456";
  CutLongText(&text, 5);
  EXPECT_EQ(text, "12345... (6 bytes)");
}

}  // namespace
}  // namespace base
