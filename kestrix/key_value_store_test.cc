// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/key_value_store.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/support/temp_directory.h"

namespace kestrix {
namespace {

class KeyValueStoreTest : public testing::Test {
 protected:
  bool Load(const std::string& contents) {
    test::PutFile(path_, contents);
    return store_.Load(base::FilePath(path_));
  }

  // None if the key is missing.
  std::optional<std::string> Get(const std::string& key) const {
    std::string value = "untouched";
    if (store_.GetString(key, &value)) return value;
    EXPECT_EQ("untouched", value);
    return std::nullopt;
  }

  // The value that `line` gives to the key K.
  std::optional<std::string> ReadLine(const std::string& line) {
    EXPECT_TRUE(Load(line + "\n"));
    return Get("K");
  }

  test::TempDirectory folder_;
  const std::string path_ = folder_.Path("file");
  KeyValueStore store_;
};

TEST_F(KeyValueStoreTest, ReadsEachLine) {
  ASSERT_TRUE(Load("A=1\nB=two words\nC=3\n"));
  EXPECT_EQ("1", Get("A"));
  EXPECT_EQ("two words", Get("B"));
  EXPECT_EQ("3", Get("C"));
}

TEST_F(KeyValueStoreTest, NeedsNoLineEndAtTheEnd) {
  ASSERT_TRUE(Load("A=1\nB=2"));
  EXPECT_EQ("2", Get("B"));
}

TEST_F(KeyValueStoreTest, ReadsAnEmptyFile) {
  EXPECT_TRUE(Load(""));
  EXPECT_EQ(std::nullopt, Get("A"));
}

TEST_F(KeyValueStoreTest, HasNoKeyThatIsNotThere) {
  ASSERT_TRUE(Load("KEY=1\n"));
  for (const char* key : {"", "KE", "KEYS", "key", " KEY", "KEY="}) {
    EXPECT_EQ(std::nullopt, Get(key)) << key;
  }
}

TEST_F(KeyValueStoreTest, HasAKeyWithAnEmptyValue) {
  EXPECT_EQ("", ReadLine("K="));
  EXPECT_EQ("", ReadLine("K=  \t"));
  EXPECT_EQ("", ReadLine("K=\"\""));
  EXPECT_EQ("", ReadLine("K=''"));
}

TEST_F(KeyValueStoreTest, TakesOffWhiteSpaceAroundKeyAndValue) {
  EXPECT_EQ("v", ReadLine("  K  =  v  "));
  EXPECT_EQ("v", ReadLine("\tK\t=\tv\t"));
  EXPECT_EQ("a  b", ReadLine("K= a  b "));
}

TEST_F(KeyValueStoreTest, ReadsLinesThatEndAsOnOtherSystems) {
  ASSERT_TRUE(Load("A=1\r\n\r\nB=\"2\"\r\n"));
  EXPECT_EQ("1", Get("A"));
  EXPECT_EQ("2", Get("B"));
}

TEST_F(KeyValueStoreTest, KeepsEqualsSignsInAValue) {
  EXPECT_EQ("a=b==", ReadLine("K=a=b=="));
  EXPECT_EQ("=", ReadLine("K=="));
}

TEST_F(KeyValueStoreTest, TakesOffOnePairOfQuotes) {
  EXPECT_EQ("v", ReadLine("K=\"v\""));
  EXPECT_EQ("v", ReadLine("K='v'"));
  EXPECT_EQ("v", ReadLine("K =  \"v\"  "));
  EXPECT_EQ("'v'", ReadLine("K=\"'v'\""));
  EXPECT_EQ("\"v\"", ReadLine("K=\"\"v\"\""));
}

TEST_F(KeyValueStoreTest, KeepsWhiteSpaceWithinQuotes) {
  EXPECT_EQ("  v\t", ReadLine("K=\"  v\t\""));
  EXPECT_EQ(" ", ReadLine("K=' '"));
}

TEST_F(KeyValueStoreTest, KeepsQuotesThatDoNotMatch) {
  EXPECT_EQ("\"v", ReadLine("K=\"v"));
  EXPECT_EQ("v\"", ReadLine("K=v\""));
  EXPECT_EQ("\"v'", ReadLine("K=\"v'"));
  EXPECT_EQ("\"", ReadLine("K=\""));
  EXPECT_EQ("a\"b\"c", ReadLine("K=a\"b\"c"));
}

TEST_F(KeyValueStoreTest, HasNoEscapes) {
  EXPECT_EQ(R"(a\n\\b)", ReadLine(R"(K=a\n\\b)"));
  EXPECT_EQ(R"(a\"b)", ReadLine(R"(K="a\"b")"));
  EXPECT_EQ("$HOME", ReadLine("K=$HOME"));
}

TEST_F(KeyValueStoreTest, HasNoContinuedLines) {
  ASSERT_TRUE(Load("A=1\\\nB=2\n"));
  EXPECT_EQ("1\\", Get("A"));
  EXPECT_EQ("2", Get("B"));
}

TEST_F(KeyValueStoreTest, PassesOverCommentsAndEmptyLines) {
  ASSERT_TRUE(Load("\n#A=1\n  # B=1\n;C=1\n \t;D=1\n   \nE=1\n"));
  for (const char* key : {"A", "#A", "B", "# B", "C", ";C", "D", ";D"}) {
    EXPECT_EQ(std::nullopt, Get(key)) << key;
  }
  EXPECT_EQ("1", Get("E"));
}

TEST_F(KeyValueStoreTest, KnowsNoCommentBehindAValue) {
  EXPECT_EQ("v # w", ReadLine("K=v # w"));
  EXPECT_EQ("#v", ReadLine("K=#v"));
}

TEST_F(KeyValueStoreTest, IgnoresLinesWithoutAnEqualsSign) {
  ASSERT_TRUE(Load("[section]\nA\nB=2\nK: v\n"));
  EXPECT_EQ(std::nullopt, Get("[section]"));
  EXPECT_EQ(std::nullopt, Get("A"));
  EXPECT_EQ(std::nullopt, Get("K"));
  EXPECT_EQ("2", Get("B"));
}

TEST_F(KeyValueStoreTest, GoesOnAfterALineWithoutAKey) {
  ASSERT_TRUE(Load("=1\nA=2\n"));
  EXPECT_EQ("2", Get("A"));
}

TEST_F(KeyValueStoreTest, TakesTheLastOfSeveralLinesWithTheSameKey) {
  ASSERT_TRUE(Load("A=1\nB=x\nA=2\n A = 3\n"));
  EXPECT_EQ("3", Get("A"));
  ASSERT_TRUE(Load("A=1\nA=\n"));
  EXPECT_EQ("", Get("A"));
}

TEST_F(KeyValueStoreTest, KeepsBytesThatAreNoASCII) {
  EXPECT_EQ("\xc3\xa4\xff", ReadLine("K=\xc3\xa4\xff"));
  const std::string with_nul("a\0b", 3);
  EXPECT_EQ(with_nul, ReadLine("K=" + with_nul));
}

TEST_F(KeyValueStoreTest, ForgetsTheFormerContentOnLoading) {
  ASSERT_TRUE(Load("A=1\n"));
  ASSERT_TRUE(Load("B=2\n"));
  EXPECT_EQ(std::nullopt, Get("A"));
  EXPECT_EQ("2", Get("B"));
}

TEST_F(KeyValueStoreTest, KeepsTheFormerContentIfTheFileCannotBeRead) {
  ASSERT_TRUE(Load("A=1\n"));
  EXPECT_FALSE(store_.Load(base::FilePath(folder_.Path("missing"))));
  EXPECT_EQ("1", Get("A"));
  EXPECT_FALSE(store_.Load(base::FilePath(folder_.path())));
  EXPECT_EQ("1", Get("A"));
}

}  // namespace
}  // namespace kestrix
