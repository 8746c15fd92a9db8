// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/data_serialization.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/test_message.h"

namespace kestrix::dbus_utils {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Strings = std::vector<std::string>;

class DataSerializationTest : public testing::Test {
 protected:
  // Writes `value`, and returns a message with it to be read.
  template <typename T>
  dbus::Message Written(const T& value) {
    dbus::Message message = bench_.NewCall();
    dbus::MessageWriter writer(&message);
    EXPECT_TRUE(AppendValueToWriter(&writer, value));
    bench_.Seal(&message);
    return message;
  }
  template <typename T>
  bool CanWrite(const T& value) {
    dbus::Message message = bench_.NewCall();
    dbus::MessageWriter writer(&message);
    return AppendValueToWriter(&writer, value);
  }

  // Reads the only value of `message`.
  static VariantDictionary Read(dbus::Message message) {
    VariantDictionary dictionary;
    dbus::MessageReader reader(&message);
    EXPECT_TRUE(PopValueFromReader(&reader, &dictionary));
    EXPECT_FALSE(reader.HasMoreData());
    return dictionary;
  }
  // Whether the first value of `message` is none of type T, in which case an
  // output is left as it was.
  template <typename T>
  static bool IsRefused(dbus::Message message, T output) {
    const T before = output;
    dbus::MessageReader reader(&message);
    const bool read = PopValueFromReader(&reader, &output);
    EXPECT_TRUE(read || output == before);
    return !read;
  }
  static bool IsRefusedAsDictionary(dbus::Message message) {
    VariantDictionary dictionary;
    dictionary.emplace("before", Any(true));
    dbus::MessageReader reader(&message);
    const bool read = PopValueFromReader(&reader, &dictionary);
    EXPECT_TRUE(read || (dictionary.size() == 1 &&
                         GetVariantValueOrDefault<bool>(dictionary, "before")));
    return !read;
  }

  test::MessageBench bench_;
};

using StringSerializationTest = DataSerializationTest;
using IntSerializationTest = DataSerializationTest;
using DictionarySerializationTest = DataSerializationTest;

TEST_F(StringSerializationTest, WritesAString) {
  EXPECT_EQ("s", Written(std::string("text")).GetSignature());
}

TEST_F(StringSerializationTest, ReadsAString) {
  for (const std::string text :
       {"", "text", "\xc3\xa4\xf0\x9f\x98\x80", "\n"}) {
    dbus::Message message = Written(text);
    dbus::MessageReader reader(&message);
    std::string value = "before";
    EXPECT_TRUE(PopValueFromReader(&reader, &value));
    EXPECT_EQ(text, value);
    EXPECT_FALSE(reader.HasMoreData());
  }
}

TEST_F(StringSerializationTest, RefusesToWriteWhatDBusDoesNotCarry) {
  for (const std::string& text :
       {std::string("\xff"), std::string("a\0b", 3), std::string("\xc3"),
        std::string("\xed\xa0\x80"), std::string("\xef\xbf\xbe")}) {
    EXPECT_FALSE(CanWrite(text)) << testing::PrintToString(text);
  }
}

TEST_F(StringSerializationTest, RefusesToReadOtherTypes) {
  const std::string before = "before";
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("i", 1), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("o", "/path"), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("g", "s"), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("v", "s", "text"), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("as", 1, "text"), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall(""), before));
}

TEST_F(IntSerializationTest, WritesAnInt) {
  EXPECT_EQ("i", Written(int32_t{7}).GetSignature());
}

TEST_F(IntSerializationTest, ReadsAnInt) {
  for (const int32_t number : {0, -1, std::numeric_limits<int32_t>::min(),
                               std::numeric_limits<int32_t>::max()}) {
    dbus::Message message = Written(number);
    dbus::MessageReader reader(&message);
    int32_t value = 5;
    EXPECT_TRUE(PopValueFromReader(&reader, &value));
    EXPECT_EQ(number, value);
    EXPECT_FALSE(reader.HasMoreData());
  }
}

TEST_F(IntSerializationTest, RefusesToReadOtherTypes) {
  const int32_t before = 5;
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("s", "1"), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("u", 1u), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("b", 1), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("n", 1), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("x", int64_t{1}), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall("v", "i", 1), before));
  EXPECT_TRUE(IsRefused(bench_.NewReadableCall(""), before));
}

TEST_F(DictionarySerializationTest, ReadsEachTypeThatItKnows) {
  const VariantDictionary dictionary =
      Read(bench_.NewReadableCall("a{sv}", 5,                                //
                                  "boolean", "b", 1,                         //
                                  "integer", "i", -7,                        //
                                  "string", "s", "text",                     //
                                  "strings", "as", 2, "a", "b",              //
                                  "dictionary", "a{sv}", 1, "in", "i", 9));  //
  EXPECT_EQ(5u, dictionary.size());
  EXPECT_TRUE(GetVariantValueOrDefault<bool>(dictionary, "boolean"));
  EXPECT_EQ(-7, GetVariantValueOrDefault<int32_t>(dictionary, "integer"));
  EXPECT_EQ("text",
            GetVariantValueOrDefault<std::string>(dictionary, "string"));
  EXPECT_THAT(GetVariantValueOrDefault<Strings>(dictionary, "strings"),
              ElementsAre("a", "b"));
  const auto nested =
      GetVariantValueOrDefault<VariantDictionary>(dictionary, "dictionary");
  EXPECT_EQ(1u, nested.size());
  EXPECT_EQ(9, GetVariantValueOrDefault<int32_t>(nested, "in"));
}

TEST_F(DictionarySerializationTest, ReadsEmptyContainers) {
  EXPECT_TRUE(Read(bench_.NewReadableCall("a{sv}", 0)).empty());
  const VariantDictionary dictionary = Read(bench_.NewReadableCall(
      "a{sv}", 2, "strings", "as", 0, "dictionary", "a{sv}", 0));
  ASSERT_NE(nullptr, dictionary.at("strings").GetIf<Strings>());
  EXPECT_THAT(*dictionary.at("strings").GetIf<Strings>(), IsEmpty());
  ASSERT_NE(nullptr, dictionary.at("dictionary").GetIf<VariantDictionary>());
  EXPECT_TRUE(dictionary.at("dictionary").GetIf<VariantDictionary>()->empty());
}

TEST_F(DictionarySerializationTest, ReadsOtherTypesAsEmptyValues) {
  const VariantDictionary dictionary =
      Read(bench_.NewReadableCall("a{sv}", 11,                  //
                                  "u", "u", 1u,                 //
                                  "x", "x", int64_t{1},         //
                                  "d", "d", 1.5,                //
                                  "o", "o", "/path",            //
                                  "ay", "ay", 2, 1, 2,          //
                                  "ai", "ai", 1, 1,             //
                                  "v", "v", "s", "text",        //
                                  "st", "(sb)", "text", 1,      //
                                  "ss", "a{ss}", 1, "k", "v",   //
                                  "av", "av", 1, "s", "text",   //
                                  "last", "s", "still read"));  //
  EXPECT_EQ(11u, dictionary.size());
  for (const auto& [key, value] : dictionary) {
    EXPECT_EQ(key != "last", value.is_empty()) << key;
  }
  EXPECT_EQ("still read",
            GetVariantValueOrDefault<std::string>(dictionary, "last"));
}

TEST_F(DictionarySerializationTest, ReadsOtherTypesWithinAsEmptyValues) {
  const VariantDictionary dictionary =
      Read(bench_.NewReadableCall("a{sv}", 1, "outer", "a{sv}", 2,  //
                                  "u", "u", 1u, "s", "s", "text"));
  const auto nested =
      GetVariantValueOrDefault<VariantDictionary>(dictionary, "outer");
  EXPECT_EQ(2u, nested.size());
  EXPECT_TRUE(nested.at("u").is_empty());
  EXPECT_EQ("text", GetVariantValueOrDefault<std::string>(nested, "s"));
}

TEST_F(DictionarySerializationTest, TakesTheLastOfSeveralEntriesWithOneKey) {
  const VariantDictionary dictionary = Read(bench_.NewReadableCall(
      "a{sv}", 3, "k", "s", "one", "other", "b", 1, "k", "i", 2));
  EXPECT_EQ(2u, dictionary.size());
  EXPECT_EQ(2, GetVariantValueOrDefault<int32_t>(dictionary, "k"));
}

TEST_F(DictionarySerializationTest, ReadsOnWithTheNextValue) {
  dbus::Message message =
      bench_.NewReadableCall("a{sv}s", 1, "k", "u", 1u, "next");
  dbus::MessageReader reader(&message);
  VariantDictionary dictionary;
  EXPECT_TRUE(PopValueFromReader(&reader, &dictionary));
  std::string next;
  EXPECT_TRUE(PopValueFromReader(&reader, &next));
  EXPECT_EQ("next", next);
}

TEST_F(DictionarySerializationTest, ReplacesWhatTheOutputHeld) {
  dbus::Message message = bench_.NewReadableCall("a{sv}", 1, "new", "b", 1);
  dbus::MessageReader reader(&message);
  VariantDictionary dictionary;
  dictionary.emplace("old", Any(true));
  EXPECT_TRUE(PopValueFromReader(&reader, &dictionary));
  EXPECT_EQ(1u, dictionary.size());
  EXPECT_EQ(1u, dictionary.count("new"));
}

TEST_F(DictionarySerializationTest, RefusesToReadOtherTypes) {
  EXPECT_TRUE(IsRefusedAsDictionary(bench_.NewReadableCall("s", "text")));
  EXPECT_TRUE(
      IsRefusedAsDictionary(bench_.NewReadableCall("a{ss}", 1, "k", "v")));
  EXPECT_TRUE(
      IsRefusedAsDictionary(bench_.NewReadableCall("a{iv}", 1, 1, "b", 1)));
  EXPECT_TRUE(
      IsRefusedAsDictionary(bench_.NewReadableCall("a(sv)", 1, "k", "b", 1)));
  EXPECT_TRUE(IsRefusedAsDictionary(bench_.NewReadableCall("v", "a{sv}", 0)));
  EXPECT_TRUE(IsRefusedAsDictionary(bench_.NewReadableCall("as", 0)));
  EXPECT_TRUE(IsRefusedAsDictionary(bench_.NewReadableCall("")));
}

TEST_F(DictionarySerializationTest, WritesEachTypeByItsSignature) {
  VariantDictionary dictionary;
  dictionary.emplace("a", Any(true));
  dictionary.emplace("b", Any(int32_t{-7}));
  dictionary.emplace("c", Any(std::string("text")));
  dictionary.emplace("d", Any(Strings{"x", "y"}));
  VariantDictionary nested;
  nested.emplace("in", Any(false));
  dictionary.emplace("e", Any(nested));

  dbus::Message message = Written(dictionary);
  EXPECT_EQ("a{sv}", message.GetSignature());
  dbus::MessageReader reader(&message);
  ASSERT_TRUE(reader.OpenArray("{sv}"));
  std::vector<std::string> entries;
  while (reader.OpenDictEntry("sv")) {
    std::string key, type;
    EXPECT_TRUE(reader.PopString(&key));
    EXPECT_EQ('v', reader.PeekType(&type));
    entries.push_back(key + ":" + type);
    EXPECT_TRUE(reader.Close());
  }
  EXPECT_THAT(entries, ElementsAre("a:b", "b:i", "c:s", "d:as", "e:a{sv}"));
}

TEST_F(DictionarySerializationTest, ReadsWhatItHasWritten) {
  VariantDictionary inner;
  inner.emplace("deep", Any(true));
  VariantDictionary nested;
  nested.emplace("dictionary", Any(inner));
  nested.emplace("number", Any(int32_t{-7}));
  VariantDictionary dictionary;
  dictionary.emplace("nested", Any(nested));
  dictionary.emplace("", Any(std::string("no key")));
  dictionary.emplace("strings", Any(Strings{"", "\xc3\xa4"}));
  dictionary.emplace("none", Any(Strings{}));
  dictionary.emplace("no", Any(false));

  const VariantDictionary read = Read(Written(dictionary));
  EXPECT_EQ(5u, read.size());
  EXPECT_EQ("no key", GetVariantValueOrDefault<std::string>(read, ""));
  EXPECT_THAT(GetVariantValueOrDefault<Strings>(read, "strings"),
              ElementsAre("", "\xc3\xa4"));
  ASSERT_NE(nullptr, read.at("none").GetIf<Strings>());
  EXPECT_THAT(*read.at("none").GetIf<Strings>(), IsEmpty());
  ASSERT_NE(nullptr, read.at("no").GetIf<bool>());
  EXPECT_FALSE(*read.at("no").GetIf<bool>());
  const auto read_nested =
      GetVariantValueOrDefault<VariantDictionary>(read, "nested");
  EXPECT_EQ(-7, GetVariantValueOrDefault<int32_t>(read_nested, "number"));
  EXPECT_TRUE(GetVariantValueOrDefault<bool>(
      GetVariantValueOrDefault<VariantDictionary>(read_nested, "dictionary"),
      "deep"));
}

TEST_F(DictionarySerializationTest, WritesAnEmptyDictionary) {
  EXPECT_TRUE(Read(Written(VariantDictionary())).empty());
}

TEST_F(DictionarySerializationTest, LeavesEmptyValuesOut) {
  VariantDictionary dictionary;
  dictionary.emplace("a", Any());
  dictionary.emplace("b", Any(true));
  dictionary.emplace("c", Any());
  const VariantDictionary read = Read(Written(dictionary));
  EXPECT_EQ(1u, read.size());
  EXPECT_EQ(1u, read.count("b"));
}

TEST_F(DictionarySerializationTest, RefusesToWriteWhatDBusDoesNotCarry) {
  const std::string bad("a\0b", 3);
  const auto can_write = [this](const std::string& key, const Any& value) {
    VariantDictionary dictionary;
    dictionary.emplace(key, value);
    return CanWrite(dictionary);
  };
  EXPECT_TRUE(can_write("k", Any(true)));
  EXPECT_FALSE(can_write(bad, Any(true)));
  EXPECT_FALSE(can_write("k", Any(bad)));
  EXPECT_FALSE(can_write("k", Any(Strings{"good", bad})));
  VariantDictionary nested;
  nested.emplace(bad, Any(true));
  EXPECT_FALSE(can_write("k", Any(nested)));
}

// A bus lets 64 containers nest, and each level is three.
TEST_F(DictionarySerializationTest, ReadsWhatNestsAsDeepAsABusAllows) {
  constexpr int kLevels = 21;
  VariantDictionary dictionary;
  dictionary.emplace("k", Any(true));
  for (int i = 1; i < kLevels; ++i) {
    VariantDictionary outer;
    outer.emplace("k", Any(std::move(dictionary)));
    dictionary = std::move(outer);
  }
  VariantDictionary read = Read(Written(dictionary));
  for (int i = 1; i < kLevels; ++i) {
    read = GetVariantValueOrDefault<VariantDictionary>(read, "k");
  }
  EXPECT_TRUE(GetVariantValueOrDefault<bool>(read, "k"));
}

}  // namespace
}  // namespace kestrix::dbus_utils
