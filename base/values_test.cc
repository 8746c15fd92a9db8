// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/values.h"

#include <gtest/gtest.h>

#include <memory>

#include "base/json_reader.h"

namespace base {
namespace {

DictionaryValue ReadDictionary(std::string_view text) {
  return DictionaryValue(std::move(*JSONReader::Read(text)));
}

TEST(DictionaryValueTest, GetsAString) {
  std::string text;
  EXPECT_TRUE(ReadDictionary(R"({"a":1,"b":"text"})").GetString("b", &text));
  EXPECT_EQ("text", text);
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
  const DictionaryValue dictionary =
      ReadDictionary(R"({"n":null,"b":true,"i":1,"l":["x"],"d":{"n":"x"}})");
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

TEST(DictionaryValueDeathTest, DiesOnAValueThatIsNoDictionary) {
  EXPECT_DEATH(ReadDictionary("[]"), "Not a dictionary");
}

}  // namespace
}  // namespace base
