// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/values.h"

#include <gtest/gtest.h>

#include <memory>
#include <string_view>

#include "base/json_reader.h"

namespace base {
namespace {

using namespace std::string_view_literals;

DictionaryValue ReadDictionary(std::string_view text) {
  return DictionaryValue(std::move(*JSONReader::Read(text)));
}

TEST(DictionaryValueTest, GetsAString) {
  std::string text;
  EXPECT_TRUE(ReadDictionary(R"({"a":1,"b":"text"})").GetString("b", &text));
  EXPECT_EQ("text", text);
}

TEST(DictionaryValueTest, GetsAStringWithoutItsEscapes) {
  std::string text;
  EXPECT_TRUE(ReadDictionary(R"({"a\"\u0000":"\n\u00e4\uD83D\uDE00\uffff"})")
                  .GetString("a\"\0"sv, &text));
  EXPECT_EQ("\n\xc3\xa4\xf0\x9f\x98\x80\xef\xbf\xbf", text);
}

TEST(DictionaryValueTest, GetsAnEmptyString) {
  std::string text = "before";
  EXPECT_TRUE(ReadDictionary(R"({"b":""})").GetString("b", &text));
  EXPECT_EQ("", text);
}

TEST(DictionaryValueTest, LeavesTheOutputAloneIfTheMemberIsMissing) {
  std::string text = "before";
  EXPECT_FALSE(ReadDictionary(R"({"a":"x"})").GetString("b", &text));
  EXPECT_EQ("before", text);
}

TEST(DictionaryValueTest, LeavesTheOutputAloneIfTheMemberIsNoString) {
  const DictionaryValue dictionary = ReadDictionary(
      R"({"n":null,"b":true,"i":1,"l":["x"],"d":{"n":"x","d":"y"}})");
  std::string text = "before";
  for (const char* key : {"n", "b", "i", "l", "d"}) {
    EXPECT_FALSE(dictionary.GetString(key, &text)) << key;
  }
  EXPECT_EQ("before", text);
}

TEST(DictionaryValueTest, ComparesKeysExactly) {
  std::string text;
  EXPECT_FALSE(ReadDictionary(R"({"Key":"x"})").GetString("key", &text));
  EXPECT_FALSE(ReadDictionary(R"({"a.b":"x"})").GetString("a", &text));
  EXPECT_TRUE(ReadDictionary(R"({"a.b":"x"})").GetString("a.b", &text));
}

TEST(DictionaryValueTest, SeesTheOutermostMembersOnly) {
  std::string text = "before";
  const DictionaryValue dictionary =
      ReadDictionary(R"({"a":{"k":"inner"},"b":[{"k":"inner"}],"c":"k"})");
  EXPECT_FALSE(dictionary.GetString("k", &text));
  EXPECT_EQ("before", text);
  EXPECT_TRUE(ReadDictionary(R"({"a":{"k":"inner"},"k":"outer","b":{"k":"x"}})")
                  .GetString("k", &text));
  EXPECT_EQ("outer", text);
}

TEST(DictionaryValueTest, OfDuplicateMembersTheLastOneCounts) {
  std::string text = "before";
  EXPECT_FALSE(ReadDictionary(R"({"k":"x","k":1})").GetString("k", &text));
  EXPECT_EQ("before", text);
  EXPECT_TRUE(ReadDictionary(R"({"k":"x","k":"y"})").GetString("k", &text));
  EXPECT_EQ("y", text);
}

TEST(DictionaryValueDeathTest, DiesOnAValueThatIsNoDictionary) {
  EXPECT_DEATH(ReadDictionary("[]"), "Not a dictionary");
  EXPECT_DEATH(ReadDictionary("\"{\""), "Not a dictionary");
}

}  // namespace
}  // namespace base
