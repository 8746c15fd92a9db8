// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/json_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "base/json_writer.h"

namespace base {
namespace {

using namespace std::string_view_literals;

// What the reader takes `text` for, in the writer's words; "refused" if it does
// not take it.
std::string ReadBack(std::string_view text) {
  const std::unique_ptr<Value> value = JSONReader::Read(text);
  std::string output;
  if (!value || !JSONWriter::Write(*value, &output)) return "refused";
  return output;
}

std::string Repeat(std::string_view text, size_t count) {
  std::string repeated;
  for (size_t i = 0; i < count; ++i) repeated += text;
  return repeated;
}

TEST(JSONReaderTest, TakesAnyValueForAText) {
  for (const char* text : {"null", "true", "false", "0", "-1", "\"\"", "\"x\"",
                           "[]", "{}", "[null,[true],{\"a\":{\"b\":[]}}]"}) {
    EXPECT_EQ(text, ReadBack(text));
  }
}

TEST(JSONReaderTest, PassesOverBlanks) {
  EXPECT_EQ(R"({"a":[1,2]})", ReadBack(" \t\r\n{ \"a\"\n:\t[ 1 ,\r2 ] } \n\t"));
}

TEST(JSONReaderTest, RefusesATextThatIsNoJson) {
  for (const char* text : {
           "",
           " ",
           "{",
           "}",
           "[",
           "]",
           "[1",
           "{\"a\"",
           "{\"a\":",
           "{\"a\":1",
           "[1,]",
           "[,1]",
           "[1,,2]",
           "{,}",
           "{\"a\":1,}",
           "{a:1}",
           "{'a':1}",
           "{1:1}",
           "{\"a\" 1}",
           "{\"a\":1 \"b\":2}",
           "[1 2]",
           "1 2",
           "{}{}",
           "{} x",
           "nul",
           "nulll",
           "True",
           "NULL",
           "undefined",
           "NaN",
           "Infinity",
           "-Infinity",
           "-",
           "+1",
           ".5",
           "1.",
           "01",
           "-01",
           "1e",
           "1e+",
           "0x1",
           "1_0",
           "\"",
           "\"a",
           "a\"",
           "'a'",
           "\"\\x\"",
           "\"\\u12\"",
           "\"\\u12g4\"",
           "\"\\",
           "\"a\nb\"",
           "\"a\tb\"",
           "/*c*/1",
           "1//c",
           "# c\n1",
           "<html></html>",
       }) {
    EXPECT_EQ("refused", ReadBack(text)) << text;
  }
}

TEST(JSONReaderTest, RefusesAByteOrderMark) {
  EXPECT_EQ("refused", ReadBack("\xef\xbb\xbf{}"));
}

TEST(JSONReaderTest, RefusesNulOutsideAString) {
  EXPECT_EQ("refused", ReadBack("{}\0"sv));
  EXPECT_EQ("refused", ReadBack("\0{}"sv));
  EXPECT_EQ("refused", ReadBack("1\0"sv));
  EXPECT_EQ("refused", ReadBack("\"\0\""sv));
}

TEST(JSONReaderTest, KeepsTheTextOfANumber) {
  for (const char* text : {
           "0",
           "-0",
           "0.0",
           "-0.0",
           "1.10",
           "1E5",
           "1e5",
           "1e+5",
           "1E-05",
           "9007199254740993",
           "9223372036854775807",
           "-9223372036854775808",
           "18446744073709551615",
           "18446744073709551616",
           "123456789012345678901234567890",
           "1e400",
           "-1e400",
           "1e-400",
           "0.1000000000000000055511151231257827",
           "1e99999999",
           "3.141592653589793238462643383279502884197169399375105820974944",
       }) {
    EXPECT_EQ(text, ReadBack(text));
    EXPECT_EQ("[" + std::string(text) + "]",
              ReadBack("[" + std::string(text) + "]"));
  }
}

TEST(JSONReaderTest, KeepsTheTextOfAVeryLongNumber) {
  const std::string text = Repeat("1234567890", 2'000);
  EXPECT_EQ(text, ReadBack(text));
  EXPECT_EQ("0." + text, ReadBack("0." + text));
}

// The parser counts the exponent in 32 bits.
TEST(JSONReaderTest, RefusesAnExponentOfMoreThan32Bits) {
  for (const char* text : {"1e99999999999", "1e-99999999999", "[1E+9999999999]",
                           "{\"a\":1e2147483648}"}) {
    EXPECT_EQ("refused", ReadBack(text)) << text;
  }
}

TEST(JSONReaderTest, UnescapesStrings) {
  const std::unique_ptr<Value> value = JSONReader::Read(
      R"("\"\\\/\b\f\n\r\t\u0041\u00e4\u20AC\uD83D\uDE00\u0000x")");
  ASSERT_NE(nullptr, value);
  ASSERT_NE(nullptr, value->GetIfString());
  EXPECT_EQ("\"\\/\b\f\n\r\tA\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\0x"sv,
            *value->GetIfString());
}

TEST(JSONReaderTest, RefusesLoneSurrogates) {
  for (const char* text :
       {R"("\ud83d")", R"("\ude00")", R"("\ud83dx")", R"("\ud83d\n")",
        R"("\ud83d\ud83d")", R"("\ude00\ud83d")", R"({"\ud83d":1})"}) {
    EXPECT_EQ("refused", ReadBack(text)) << text;
  }
}

TEST(JSONReaderTest, RefusesInvalidUtf8) {
  for (const char* bytes : {
           "\xff",
           "\xfe",
           "\x80",
           "\xbf",  // No lead byte.
           "\xc3",
           "\xe2\x82",
           "\xf0\x9f\x98",  // Cut short.
           "\xc3x",
           "\xe2x\xac",
           "\xe2\x82x",  // No continuation.
           "\xc0\x80",
           "\xc1\xbf",
           "\xe0\x80\x80",  // Overlong.
           "\xe0\x9f\xbf",
           "\xf0\x80\x80\x80",  //
           "\xed\xa0\x80",
           "\xed\xbf\xbf",  // Surrogates.
           "\xf4\x90\x80\x80",
           "\xf5\x80\x80\x80",      // Above U+10FFFF.
           "\xf8\x88\x80\x80\x80",  // Five bytes.
       }) {
    EXPECT_EQ("refused", ReadBack("\"" + std::string(bytes) + "\""));
    EXPECT_EQ("refused", ReadBack("{\"" + std::string(bytes) + "\":1}"));
  }
}

TEST(JSONReaderTest, TakesUtf8AtTheEdges) {
  for (const char* bytes :
       {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
        "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbd", "\x7f"}) {
    const std::string text = "\"" + std::string(bytes) + "\"";
    EXPECT_EQ(text, ReadBack(text));
  }
}

TEST(JSONReaderTest, KeepsTheOrderOfMembers) {
  EXPECT_EQ(R"({"b":1,"a":2,"":3,"B":4})",
            ReadBack(R"({"b":1,"a":2,"":3,"B":4})"));
}

TEST(JSONReaderTest, TakesTheLastOfDuplicateMembersInThePlaceOfTheFirst) {
  EXPECT_EQ(R"({"a":3,"b":2})", ReadBack(R"({"a":1,"b":2,"a":3})"));
  EXPECT_EQ(R"({"a":{"x":2}})", ReadBack(R"({"a":{"y":1},"a":{"x":2}})"));
  EXPECT_EQ(R"({"a":2})", ReadBack(R"({"a":1,"\u0061":2})"));
}

// Large objects are searched in another way than small ones.
TEST(JSONReaderTest, TakesTheLastOfDuplicateMembersInALargeObject) {
  for (const int size : {15, 16, 17, 100}) {
    std::string text = "{", merged = "{";
    for (int i = 0; i < size; ++i) {
      const std::string name = "\"a member with number " + std::to_string(i);
      text += name + "\":0,";
      merged += name + "\":" + (i == 3 ? "7" : "0") + ",";
    }
    text += "\"a member with number 3\":6,\"a member with number 3\":7}";
    merged.back() = '}';
    EXPECT_EQ(merged, ReadBack(text)) << size;
  }
}

TEST(JSONReaderTest, TakesHundredThousandMembersOfOneName) {
  EXPECT_EQ(R"({"a":1,"z":2})",
            ReadBack("{" + Repeat("\"a\":1,", 100'000) + "\"z\":2}"));
}

TEST(JSONReaderTest, TakesNestingUpToTheLimit) {
  const size_t limit = JSONReader::kMaxDepth;
  ASSERT_EQ(512u, limit);
  const std::string arrays = Repeat("[", limit) + Repeat("]", limit);
  EXPECT_EQ(arrays, ReadBack(arrays));
  const std::string objects =
      Repeat("{\"a\":", limit) + "1" + Repeat("}", limit);
  EXPECT_EQ(objects, ReadBack(objects));
}

TEST(JSONReaderTest, RefusesDeeperNesting) {
  const size_t depth = JSONReader::kMaxDepth + 1;
  EXPECT_EQ("refused", ReadBack(Repeat("[", depth) + Repeat("]", depth)));
  EXPECT_EQ("refused",
            ReadBack(Repeat("{\"a\":", depth) + "1" + Repeat("}", depth)));
  EXPECT_EQ("refused", ReadBack(Repeat("[", 1'000'000)));
}

TEST(JSONReaderTest, TellsTheTypesApart) {
  const auto read = [](std::string_view text) {
    return JSONReader::Read(text);
  };
  EXPECT_TRUE(*read("true")->GetIfBoolean());
  EXPECT_FALSE(*read("false")->GetIfBoolean());
  EXPECT_EQ("12", read("12")->GetIfNumber()->text);
  EXPECT_EQ("12", *read("\"12\"")->GetIfString());
  EXPECT_EQ(2u, read("[1,2]")->GetIfList()->size());
  EXPECT_EQ("a", read("{\"a\":1}")->GetIfMembers()->front().first);
  const std::unique_ptr<Value> null = read("null");
  EXPECT_EQ(nullptr, null->GetIfBoolean());
  EXPECT_EQ(nullptr, null->GetIfNumber());
  EXPECT_EQ(nullptr, null->GetIfString());
  EXPECT_EQ(nullptr, null->GetIfList());
  EXPECT_EQ(nullptr, null->GetIfMembers());
}

}  // namespace
}  // namespace base
