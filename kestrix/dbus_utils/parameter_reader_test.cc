// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/parameter_reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/test_message.h"

namespace kestrix::dbus_utils {
namespace {

// Reads a string and an integer.
class ParameterReaderTest : public testing::Test {
 protected:
  bool Read(dbus::Message message) {
    return ReadParameters(&message, &error_, &text_, &number_);
  }
  // The message of the error that was added, which is in order otherwise.
  std::string TakeError() {
    if (!error_) return "none";
    EXPECT_EQ("dbus", error_->GetDomain());
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", error_->GetCode());
    EXPECT_STREQ("ReadParameters", error_->GetLocation().function);
    EXPECT_EQ(nullptr, error_->GetInnerError());
    const std::string message = error_->GetMessage();
    error_.reset();
    return message;
  }

  test::MessageBench bench_;
  std::unique_ptr<Error> error_;
  std::string text_;
  int32_t number_ = 0;
};

TEST_F(ParameterReaderTest, ReadsWhatIsExactlyThere) {
  EXPECT_TRUE(Read(bench_.NewReadableCall("si", "text", 7)));
  EXPECT_EQ("text", text_);
  EXPECT_EQ(7, number_);
  EXPECT_EQ("none", TakeError());
}

TEST_F(ParameterReaderTest, ReadsNothingFromAnEmptyMessage) {
  dbus::Message message = bench_.NewReadableCall("");
  EXPECT_TRUE(ReadParameters(&message, &error_));
  EXPECT_EQ("none", TakeError());
}

TEST_F(ParameterReaderTest, ReadsADictionary) {
  dbus::Message message =
      bench_.NewReadableCall("sa{sv}", "text", 1, "k", "i", 7);
  VariantDictionary dictionary;
  EXPECT_TRUE(ReadParameters(&message, &error_, &text_, &dictionary));
  EXPECT_EQ(7, GetVariantValueOrDefault<int32_t>(dictionary, "k"));
}

TEST_F(ParameterReaderTest, RefusesTooFewValues) {
  EXPECT_FALSE(Read(bench_.NewReadableCall("")));
  EXPECT_EQ("Too few parameters in a method call", TakeError());
  EXPECT_FALSE(Read(bench_.NewReadableCall("s", "text")));
  EXPECT_EQ("Too few parameters in a method call", TakeError());
}

TEST_F(ParameterReaderTest, RefusesTooManyValues) {
  EXPECT_FALSE(Read(bench_.NewReadableCall("sis", "text", 7, "more")));
  EXPECT_EQ("Too many parameters in a method call", TakeError());
  dbus::Message message = bench_.NewReadableCall("v", "s", "text");
  EXPECT_FALSE(ReadParameters(&message, &error_));
  EXPECT_EQ("Too many parameters in a method call", TakeError());
}

TEST_F(ParameterReaderTest, RefusesOtherTypes) {
  EXPECT_FALSE(Read(bench_.NewReadableCall("ii", 1, 7)));
  EXPECT_EQ("Method parameter type mismatch", TakeError());
  EXPECT_FALSE(Read(bench_.NewReadableCall("ss", "text", "7")));
  EXPECT_EQ("Method parameter type mismatch", TakeError());
  EXPECT_FALSE(Read(bench_.NewReadableCall("is", 7, "text")));
  EXPECT_EQ("Method parameter type mismatch", TakeError());
  EXPECT_FALSE(Read(bench_.NewReadableCall("su", "text", 7u)));
  EXPECT_EQ("Method parameter type mismatch", TakeError());
}

// The values are looked at in their order, and their number after that.
TEST_F(ParameterReaderTest, ReportsTheFirstFaultOfSeveral) {
  EXPECT_FALSE(Read(bench_.NewReadableCall("i", 7)));
  EXPECT_EQ("Method parameter type mismatch", TakeError());
  EXPECT_FALSE(Read(bench_.NewReadableCall("sss", "a", "b", "c")));
  EXPECT_EQ("Method parameter type mismatch", TakeError());
}

TEST_F(ParameterReaderTest, AddsItsErrorInFrontOfAnEarlierOne) {
  constexpr base::Location kSomewhere{"Function", "some/file", 42};
  error_ = Error::Create(kSomewhere, "domain", "code", "earlier");
  EXPECT_FALSE(Read(bench_.NewReadableCall("")));
  EXPECT_EQ("Too few parameters in a method call", error_->GetMessage());
  ASSERT_NE(nullptr, error_->GetInnerError());
  EXPECT_EQ("earlier", error_->GetInnerError()->GetMessage());
}

TEST_F(ParameterReaderTest, KeepsTheReasonToItselfIfNobodyAsked) {
  dbus::Message message = bench_.NewReadableCall("");
  EXPECT_FALSE(ReadParameters(&message, nullptr, &text_));
}

}  // namespace
}  // namespace kestrix::dbus_utils
