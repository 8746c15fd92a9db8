// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#ifdef __GLIBCXX__

namespace base {
namespace {

// Not known to the compiler.
size_t Huge() {
  volatile size_t huge = SIZE_MAX / 2 + 2;
  return huge;
}

TEST(NoExceptionsDeathTest, DiesOfALengthError) {
  std::string text;
  EXPECT_DEATH(text.reserve(Huge()),
               "\\[FATAL\\] C\\+\\+ library: basic_string::_M_create");
}

TEST(NoExceptionsDeathTest, DiesOfAnIndexOutOfRange) {
  std::string text = "abc";
  EXPECT_DEATH(text.substr(Huge()),
               "\\[FATAL\\] C\\+\\+ library: .*__pos \\(which is");
}

TEST(NoExceptionsDeathTest, DiesOfTooManyElements) {
  std::vector<int> numbers;
  EXPECT_DEATH(numbers.resize(Huge()),
               "\\[FATAL\\] C\\+\\+ library: vector::_M_default_append");
}

}  // namespace
}  // namespace base

#endif  // __GLIBCXX__
