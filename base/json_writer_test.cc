// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/json_writer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "base/json_reader.h"

namespace base {
namespace {

using namespace std::string_view_literals;

std::string WriteString(std::string_view string) {
  std::string output = "before";
  EXPECT_TRUE(JSONWriter::Write(Value(std::string(string)), &output));
  return output;
}

TEST(JSONWriterTest, WritesCompactly) {
  const std::unique_ptr<Value> value = JSONReader::Read(
      " { \"a\" : [ 1 , 2.50 , \"x y\" , null , true , false ] , \"b\" : { } ,"
      " \"c\" : [ ] } ");
  std::string output = "before";
  ASSERT_TRUE(JSONWriter::Write(*value, &output));
  EXPECT_EQ(R"({"a":[1,2.50,"x y",null,true,false],"b":{},"c":[]})", output);
}

TEST(JSONWriterTest, EscapesOnlyWhatMustBe) {
  EXPECT_EQ(R"("\"\\/")", WriteString("\"\\/"));
  EXPECT_EQ("\"<>&'\x7f\xc3\xa4\xe2\x80\xa8\"",
            WriteString("<>&'\x7f\xc3\xa4\xe2\x80\xa8"));
}

TEST(JSONWriterTest, EscapesControlCharacters) {
  EXPECT_EQ(R"("\b\t\n\f\r")", WriteString("\b\t\n\f\r"));
  EXPECT_EQ(R"("\u0000\u0001\u000b\u001f")", WriteString("\0\x01\v\x1f"sv));
}

TEST(JSONWriterTest, EscapesTheNamesOfMembers) {
  Value::Members members;
  members.emplace_back("a\"\n\xef\xbf\xbf", Value(true));
  std::string output;
  ASSERT_TRUE(JSONWriter::Write(Value(std::move(members)), &output));
  EXPECT_EQ(R"({"a\"\n\uffff":true})", output);
}

// The bus library refuses strings that hold them.
TEST(JSONWriterTest, EscapesNoncharacters) {
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
    const std::string text(bytes);
    EXPECT_EQ("\"a" + std::string(escaped) + "b\"",
              WriteString("a" + text + "b"));
    EXPECT_EQ("\"" + std::string(escaped) + escaped + "\"",
              WriteString(text + text));
  }
}

TEST(JSONWriterTest, WritesTheirNeighboursAsTheyAre) {
  for (const char* bytes :
       {"\xef\xb7\x8f", "\xef\xb7\xb0", "\xef\xbf\xbd", "\xf0\x9f\xbf\xbd",
        "\xf0\xa0\x80\x80", "\xf4\x8f\xbf\xbd", "\xee\xbf\xbe"}) {
    EXPECT_EQ("\"" + std::string(bytes) + "\"", WriteString(bytes));
  }
}

TEST(JSONWriterTest, IsReadBackAsTheSameValue) {
  std::string all;
  for (int byte = 0; byte < 128; ++byte) all += static_cast<char>(byte);
  all += "\xc3\xa4\xef\xb7\x90\xef\xbf\xbf\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf";
  const std::unique_ptr<Value> read = JSONReader::Read(WriteString(all));
  ASSERT_NE(nullptr, read);
  EXPECT_EQ(all, *read->GetIfString());
}

TEST(JSONWriterTest, WritesAsMuchAsABusMessageHolds) {
  // The two quotes count.
  const std::string text(JSONWriter::kMaxSize - 2, 'x');
  std::string output;
  EXPECT_TRUE(JSONWriter::Write(Value(text), &output));
  EXPECT_EQ(JSONWriter::kMaxSize, output.size());
  EXPECT_FALSE(JSONWriter::Write(Value(text + "x"), &output));
}

TEST(JSONWriterTest, StopsEarlyWhenEscapesMakeTheTextTooLong) {
  Value::List list;
  // Each of these grows sixfold.
  for (int i = 0; i < 8; ++i) {
    list.emplace_back(std::string(1u << 20, '\x01'));
  }
  std::string output;
  EXPECT_FALSE(JSONWriter::Write(Value(std::move(list)), &output));
  EXPECT_LT(output.size(), JSONWriter::kMaxSize + (7u << 20));
}

}  // namespace
}  // namespace base
