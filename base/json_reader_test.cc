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

TEST(JSONReaderTest, EscapesOnlyWhatMustBe) {
  EXPECT_EQ(R"("\"\\/A)"
            "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80<>&'\x7f\xe2\x80\xa8\"",
            ReadBack(R"("\"\\\/\u0041\u00e4\u20AC\uD83D\uDE00)"
                     "<>&'\x7f\xe2\x80\xa8\""));
}

TEST(JSONReaderTest, EscapesControlCharacters) {
  EXPECT_EQ(R"("\b\t\n\f\r\"")", ReadBack(R"("\b\t\n\f\r\u0022")"));
  EXPECT_EQ(R"("\b\t\n\f\r\\")",
            ReadBack(R"("\u0008\u0009\u000A\u000C\u000D\u005c")"));
  EXPECT_EQ(R"("\u0000\u0001\u000b\u001f x")",
            ReadBack(R"("\u0000\u0001\u000B\u001F\u0020x")"));
}

TEST(JSONReaderTest, EscapesTheNamesOfMembers) {
  EXPECT_EQ(R"({"a\"\n\uffff":true})",
            ReadBack("{\"\\u0061\\\"\\u000a\xef\xbf\xbf\":true}"));
}

// The bus library refuses strings that hold them.
TEST(JSONReaderTest, EscapesNoncharacters) {
  const struct {
    const char* bytes;
    const char* escaped;
  } kCases[] = {
      {"\xef\xb7\x90", "\\ufdd0"},
      {"\xef\xb7\xaf", "\\ufdef"},
      {"\xef\xbf\xbe", "\\ufffe"},
      {"\xef\xbf\xbf", "\\uffff"},
      {"\xf0\x9f\xbf\xbe", "\\ud83f\\udffe"},
      {"\xf0\x9f\xbf\xbf", "\\ud83f\\udfff"},
      {"\xf0\xaf\xbf\xbe", "\\ud87f\\udffe"},
      {"\xf4\x8f\xbf\xbe", "\\udbff\\udffe"},
      {"\xf4\x8f\xbf\xbf", "\\udbff\\udfff"},
  };
  for (const auto& [bytes, escaped] : kCases) {
    const std::string written = "\"a" + std::string(escaped) + escaped + "b\"";
    EXPECT_EQ(written, ReadBack("\"a" + std::string(bytes) + bytes + "b\""));
    EXPECT_EQ(written, ReadBack(written));
  }
}

TEST(JSONReaderTest, KeepsTheirNeighboursAsTheyAre) {
  for (const char* bytes :
       {"\xef\xb7\x8f", "\xef\xb7\xb0", "\xef\xbf\xbd", "\xf0\x9f\xbf\xbd",
        "\xf0\xa0\x80\x80", "\xf4\x8f\xbf\xbd", "\xee\xbf\xbe"}) {
    EXPECT_EQ("\"" + std::string(bytes) + "\"",
              ReadBack("\"" + std::string(bytes) + "\""));
  }
}

// The parser hands on what follows an escape in pieces of a few kilobytes.
TEST(JSONReaderTest, SeesCharactersWholeWhereverTheyStand) {
  for (size_t before = 4'080; before < 4'100; ++before) {
    const std::string padding = "\\n" + std::string(before, 'x');
    EXPECT_EQ(
        "\"" + padding + "\\uffff" + padding + "\xc3\xa4\"",
        ReadBack("\"" + padding + "\xef\xbf\xbf" + padding + "\xc3\xa4\""));
    EXPECT_EQ(
        "{\"" + padding + "\\ud83f\\udffe\":\"" + padding + "\"}",
        ReadBack("{\"" + padding + "\xf0\x9f\xbf\xbe\":\"" + padding + "\"}"));
  }
}

TEST(JSONReaderTest, TakesEachStringForItself) {
  EXPECT_EQ(R"({"a\n":"b\n","c":"d","e\n":"f"})",
            ReadBack(R"({"a\n":"b\n","c":"d","e\n":"f"})"));
  EXPECT_EQ(R"(["[","{",":",","])", ReadBack(R"([ "[" , "{" , ":" , "," ])"));
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

TEST(JSONReaderTest, TakesOnlyTheLastOfDuplicateMembers) {
  EXPECT_EQ(R"({"b":2,"a":3})", ReadBack(R"({"a":1,"b":2,"a":3})"));
  EXPECT_EQ(R"({"b":2,"a":4,"c":5})",
            ReadBack(R"({"a":1,"b":2,"a":3,"a":4,"c":5})"));
  EXPECT_EQ(R"({"c":1,"a":3,"b":4})",
            ReadBack(R"({"b":0,"c":1,"a":2,"a":3,"b":4})"));
  EXPECT_EQ(R"({"a":2})", ReadBack(R"({"a":1,"\u0061":2})"));
  EXPECT_EQ(R"({"":2,"a":1,"aa":3})", ReadBack(R"({"":1,"":2,"a":1,"aa":3})"));
}

TEST(JSONReaderTest, TakesOnlyTheLastOfDuplicateMembersAtEveryDepth) {
  EXPECT_EQ(R"({"a":{"x":2}})", ReadBack(R"({"a":{"y":1},"a":{"x":2}})"));
  // A gap within a gap, and gaps within what is kept.
  EXPECT_EQ(R"([{"b":[{"d":1}],"a":{"c":4}},{"a":1}])",
            ReadBack(R"([{"a":{"c":1,"c":2},"b":[{"d":0,"d":1}],)"
                     R"("a":{"c":3,"c":4}},{"a":1}])"));
  EXPECT_EQ(R"({"a":{"a":{"a":1,"b":2}}})",
            ReadBack(R"({"a":0,"a":{"a":0,"a":{"a":0,"a":1,"b":2}}})"));
}

TEST(JSONReaderTest, TakesOnlyTheLastOfManyDuplicateMembers) {
  EXPECT_EQ(R"({"d":1,"a":4,"c":2,"b":3,"e":5,"f":6,"g":7})",
            ReadBack(R"({"a":0,"a":1,"b":0,"b":1,"a":2,"d":1,"a":4,"c":2,)"
                     R"("b":3,"e":5,"f":6,"g":7})"));
}

// Many members are looked through in another way than few.
TEST(JSONReaderTest, TakesOnlyTheLastOfDuplicateMembersHoweverMany) {
  for (int count = 1; count <= 20; ++count) {
    for (int first = 0; first < count; ++first) {
      for (int second = first + 1; second < count; ++second) {
        std::string text, expected;
        for (int i = 0; i < count; ++i) {
          const std::string name = std::string(
              1, static_cast<char>('a' + (i == first ? second : i)));
          const std::string member =
              "\"" + name + "\":" + std::to_string(i) + ",";
          text += member;
          if (i != first) expected += member;
        }
        text.back() = expected.back() = '}';
        EXPECT_EQ("{" + expected, ReadBack("{" + text));
      }
    }
  }
}

TEST(JSONReaderTest, DoesNotMixUpTheMembersOfDifferentObjects) {
  for (const char* text :
       {R"([{"a":1},{"a":2}])", R"({"a":{"a":{"a":1}}})",
        R"({"a":{"b":1},"b":{"a":1}})", R"({"a":[{"a":1},{"a":2}],"b":1})"}) {
    EXPECT_EQ(text, ReadBack(text));
  }
}

TEST(JSONReaderTest, TakesHundredThousandMembersOfOneName) {
  EXPECT_EQ(R"({"a":1,"z":2})",
            ReadBack("{" + Repeat("\"a\":1,", 100'000) + "\"z\":2}"));
  EXPECT_EQ(R"({"z":2,"a":1})",
            ReadBack("{\"z\":2" + Repeat(",\"a\":1", 100'000) + "}"));
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

TEST(JSONReaderTest, TellsDictionariesFromOtherValues) {
  EXPECT_TRUE(JSONReader::Read(" {} ")->is_dictionary());
  for (const char* text : {"null", "12", "\"{}\"", "[{}]"}) {
    EXPECT_FALSE(JSONReader::Read(text)->is_dictionary()) << text;
  }
}

TEST(JSONReaderTest, FindsAStringMember) {
  std::string text = "before";
  EXPECT_TRUE(JSONReader::ReadStringMember(
      R"( { "a" : "1" , "b" : "2" , "c" : "3" } )", "b", &text));
  EXPECT_EQ("2", text);
}

TEST(JSONReaderTest, FindsNoMemberInWhatIsNoObject) {
  std::string text = "before";
  for (const char* other : {"", "{\"a\":\"1\"", "[{\"a\":\"1\"}]", "\"a\"",
                            "[\"a\",\"1\"]", "{\"a\":\"1\"}x"}) {
    EXPECT_FALSE(JSONReader::ReadStringMember(other, "a", &text)) << other;
  }
  EXPECT_EQ("before", text);
}

}  // namespace
}  // namespace base
