// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/utf8.h"

#include <gtest/gtest.h>

#include <string_view>

namespace base {
namespace {

using std::string_view_literals::operator""sv;

constexpr uint32_t kUntouched = 0xdead;

struct Sequence {
  std::string_view text;
  size_t length;
  uint32_t code_point;
};

void ExpectDecoded(const Sequence& sequence) {
  SCOPED_TRACE(testing::PrintToString(sequence.text));
  uint32_t code_point = kUntouched;
  EXPECT_EQ(DecodeUtf8(sequence.text, &code_point), sequence.length);
  EXPECT_EQ(code_point, sequence.code_point);
}

TEST(Utf8Test, DecodesTheFirstAndLastSequenceOfEachLength) {
  for (const Sequence& sequence : {
           Sequence{"\0"sv, 1, 0x0},
           Sequence{"\x7f"sv, 1, 0x7f},
           Sequence{"\xc2\x80"sv, 2, 0x80},
           Sequence{"\xdf\xbf"sv, 2, 0x7ff},
           Sequence{"\xe0\xa0\x80"sv, 3, 0x800},
           Sequence{"\xef\xbf\xbf"sv, 3, 0xffff},
           Sequence{"\xf0\x90\x80\x80"sv, 4, 0x10000},
           Sequence{"\xf4\x8f\xbf\xbf"sv, 4, 0x10ffff},
       }) {
    ExpectDecoded(sequence);
  }
}

TEST(Utf8Test, DecodesNoMoreThanTheFirstSequence) {
  ExpectDecoded({"\xc3\xa4\xff"sv, 2, 0xe4});
}

TEST(Utf8Test, RefusesWhatIsCutShort) {
  for (const std::string_view text :
       {""sv, "\xc3"sv, "\xe2\x82"sv, "\xf0\x90\x80"sv}) {
    ExpectDecoded({text, 0, kUntouched});
  }
}

TEST(Utf8Test, RefusesOverlongSequences) {
  for (const std::string_view text :
       {"\xc0\x80"sv, "\xc1\xbf"sv, "\xe0\x9f\xbf"sv, "\xf0\x8f\xbf\xbf"sv}) {
    ExpectDecoded({text, 0, kUntouched});
  }
}

TEST(Utf8Test, RefusesSurrogatesAndWhatIsBeyondUnicode) {
  for (const std::string_view text :
       {"\xed\xa0\x80"sv, "\xed\xbf\xbf"sv, "\xf4\x90\x80\x80"sv,
        "\xf8\x88\x80\x80\x80"sv}) {
    ExpectDecoded({text, 0, kUntouched});
  }
}

TEST(Utf8Test, RefusesBytesThatBeginNothingOrContinueNothing) {
  for (const std::string_view text :
       {"\x80"sv, "\xbf"sv, "\xff"sv, "\xc3("sv, "\xe2\x82("sv}) {
    ExpectDecoded({text, 0, kUntouched});
  }
}

TEST(Utf8Test, KnowsTheNoncharacters) {
  for (const uint32_t code_point :
       {0xfdd0u, 0xfdefu, 0xfffeu, 0xffffu, 0x1fffeu, 0x10ffffu}) {
    EXPECT_TRUE(IsNoncharacter(code_point)) << std::hex << code_point;
  }
  for (const uint32_t code_point :
       {0x0u, 0xfdcfu, 0xfdf0u, 0xfffdu, 0x10000u, 0x1fffdu}) {
    EXPECT_FALSE(IsNoncharacter(code_point)) << std::hex << code_point;
  }
}

}  // namespace
}  // namespace base
