// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/json_writer.h"

#include <gtest/gtest.h>

#include <string>

namespace base {
namespace {

TEST(JSONWriterTest, WritesTheCompactText) {
  std::string output = "before";
  ASSERT_TRUE(JSONWriter::Write(Value("{\"a\":[1,null]}"), &output));
  EXPECT_EQ("{\"a\":[1,null]}", output);
}

TEST(JSONWriterTest, WritesAsMuchAsABusMessageHolds) {
  // The two quotes count.
  const std::string text(JSONWriter::kMaxSize - 2, 'x');
  std::string output;
  EXPECT_TRUE(JSONWriter::Write(Value("\"" + text + "\""), &output));
  EXPECT_EQ(JSONWriter::kMaxSize, output.size());
}

TEST(JSONWriterTest, RefusesMoreThanThatAndLeavesTheOutputAlone) {
  const std::string text(JSONWriter::kMaxSize - 1, 'x');
  std::string output = "before";
  EXPECT_FALSE(JSONWriter::Write(Value("\"" + text + "\""), &output));
  EXPECT_EQ("before", output);
}

}  // namespace
}  // namespace base
