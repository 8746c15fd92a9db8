// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/variant_dictionary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrix {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Strings = std::vector<std::string>;

// One value of every type.
VariantDictionary AllTypes() {
  VariantDictionary nested;
  nested.emplace("inner", Any(true));
  VariantDictionary dictionary;
  dictionary.emplace("boolean", Any(true));
  dictionary.emplace("integer", Any(int32_t{-7}));
  dictionary.emplace("string", Any(std::string("text")));
  dictionary.emplace("strings", Any(Strings{"a", "b"}));
  dictionary.emplace("dictionary", Any(nested));
  dictionary.emplace("empty", Any());
  return dictionary;
}

TEST(VariantDictionaryTest, GivesAValueOfTheTypeAskedFor) {
  const VariantDictionary all = AllTypes();
  EXPECT_TRUE(GetVariantValueOrDefault<bool>(all, "boolean"));
  EXPECT_EQ(-7, GetVariantValueOrDefault<int32_t>(all, "integer"));
  EXPECT_EQ("text", GetVariantValueOrDefault<std::string>(all, "string"));
  EXPECT_THAT(GetVariantValueOrDefault<Strings>(all, "strings"),
              ElementsAre("a", "b"));
  const auto nested =
      GetVariantValueOrDefault<VariantDictionary>(all, "dictionary");
  EXPECT_EQ(1u, nested.size());
  EXPECT_TRUE(GetVariantValueOrDefault<bool>(nested, "inner"));
}

TEST(VariantDictionaryTest, GivesTheEmptyValueForAnotherType) {
  const VariantDictionary all = AllTypes();
  for (const auto& [key, value] : all) {
    SCOPED_TRACE(key);
    if (key != "boolean") {
      EXPECT_FALSE(GetVariantValueOrDefault<bool>(all, key));
    }
    if (key != "integer") {
      EXPECT_EQ(0, GetVariantValueOrDefault<int32_t>(all, key));
    }
    if (key != "string") {
      EXPECT_EQ("", GetVariantValueOrDefault<std::string>(all, key));
    }
    if (key != "strings") {
      EXPECT_THAT(GetVariantValueOrDefault<Strings>(all, key), IsEmpty());
    }
    if (key != "dictionary") {
      EXPECT_TRUE(
          GetVariantValueOrDefault<VariantDictionary>(all, key).empty());
    }
  }
}

TEST(VariantDictionaryTest, GivesTheEmptyValueForAKeyThatIsMissing) {
  const VariantDictionary all = AllTypes();
  for (const char* key : {"", "Boolean", "boolea", "boolean "}) {
    SCOPED_TRACE(key);
    EXPECT_FALSE(GetVariantValueOrDefault<bool>(all, key));
    EXPECT_EQ(0, GetVariantValueOrDefault<int32_t>(all, key));
    EXPECT_EQ("", GetVariantValueOrDefault<std::string>(all, key));
    EXPECT_THAT(GetVariantValueOrDefault<Strings>(all, key), IsEmpty());
    EXPECT_TRUE(GetVariantValueOrDefault<VariantDictionary>(all, key).empty());
  }
}

TEST(VariantDictionaryTest, IsOrderedByKey) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : AllTypes()) keys.push_back(key);
  EXPECT_THAT(keys, ElementsAre("boolean", "dictionary", "empty", "integer",
                                "string", "strings"));
}

TEST(AnyTest, IsEmptyUnlessAValueIsPutIn) {
  EXPECT_TRUE(Any().is_empty());
  EXPECT_FALSE(Any(false).is_empty());
  EXPECT_FALSE(Any(int32_t{0}).is_empty());
  EXPECT_FALSE(Any(std::string()).is_empty());
  EXPECT_FALSE(Any(Strings()).is_empty());
  EXPECT_FALSE(Any(VariantDictionary()).is_empty());
}

TEST(AnyTest, TellsEmptyValuesOfDifferentTypesApart) {
  EXPECT_NE(nullptr, Any(false).GetIf<bool>());
  EXPECT_EQ(nullptr, Any(false).GetIf<int32_t>());
  EXPECT_NE(nullptr, Any(int32_t{0}).GetIf<int32_t>());
  EXPECT_EQ(nullptr, Any(int32_t{0}).GetIf<bool>());
  EXPECT_NE(nullptr, Any(Strings()).GetIf<Strings>());
  EXPECT_EQ(nullptr, Any(Strings()).GetIf<VariantDictionary>());
}

TEST(AnyTest, CopiesWhatItHolds) {
  Any original(Strings{"a"});
  const Any copy = original;
  original = Any(true);
  ASSERT_NE(nullptr, copy.GetIf<Strings>());
  EXPECT_THAT(*copy.GetIf<Strings>(), ElementsAre("a"));
}

}  // namespace
}  // namespace kestrix
