// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/error.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace kestrix {
namespace {

constexpr base::Location kInner{"Inner", "some/inner", 1};
constexpr base::Location kOuter{"Outer", "some/outer", 22};

TEST(ErrorTest, HoldsWhatItIsMadeOf) {
  const std::unique_ptr<Error> error =
      Error::Create(kInner, "domain", "code", "message");
  EXPECT_EQ("domain", error->GetDomain());
  EXPECT_EQ("code", error->GetCode());
  EXPECT_EQ("message", error->GetMessage());
  EXPECT_STREQ("Inner", error->GetLocation().function);
  EXPECT_STREQ("some/inner", error->GetLocation().file);
  EXPECT_EQ(1, error->GetLocation().line);
  EXPECT_EQ(nullptr, error->GetInnerError());
}

TEST(ErrorTest, TakesAnyText) {
  const std::string text("a\0%s\xff\n", 6);
  const std::unique_ptr<Error> error = Error::Create(kInner, text, text, text);
  EXPECT_EQ(text, error->GetDomain());
  EXPECT_EQ(text, error->GetCode());
  EXPECT_EQ(text, error->GetMessage());
}

TEST(ErrorTest, IsAddedWhereThereIsNone) {
  std::unique_ptr<Error> error;
  Error::AddTo(&error, kInner, "domain", "code", "message");
  ASSERT_NE(nullptr, error);
  EXPECT_EQ("domain", error->GetDomain());
  EXPECT_EQ("code", error->GetCode());
  EXPECT_EQ("message", error->GetMessage());
  EXPECT_EQ(1, error->GetLocation().line);
  EXPECT_EQ(nullptr, error->GetInnerError());
}

TEST(ErrorTest, IsAddedInFrontOfAnEarlierOne) {
  std::unique_ptr<Error> error;
  Error::AddTo(&error, kInner, "first", "1", "one");
  Error::AddTo(&error, kOuter, "second", "2", "two");
  Error::AddTo(&error, kOuter, "third", "3", "three");
  EXPECT_EQ("third", error->GetDomain());
  const Error* inner = error->GetInnerError();
  ASSERT_NE(nullptr, inner);
  EXPECT_EQ("second", inner->GetDomain());
  EXPECT_STREQ("Outer", inner->GetLocation().function);
  inner = inner->GetInnerError();
  ASSERT_NE(nullptr, inner);
  EXPECT_EQ("first", inner->GetDomain());
  EXPECT_EQ("1", inner->GetCode());
  EXPECT_EQ("one", inner->GetMessage());
  EXPECT_STREQ("Inner", inner->GetLocation().function);
  EXPECT_EQ(nullptr, inner->GetInnerError());
}

TEST(ErrorTest, IsDroppedIfNobodyAsked) {
  Error::AddTo(nullptr, kInner, "domain", "code", "message");
  Error::AddToPrintf(nullptr, kInner, "domain", "code", "%d", 1);
}

TEST(ErrorTest, FormatsItsMessage) {
  std::unique_ptr<Error> error;
  Error::AddToPrintf(&error, kOuter, "domain", "code", "%s is %d%%", "it", 7);
  ASSERT_NE(nullptr, error);
  EXPECT_EQ("domain", error->GetDomain());
  EXPECT_EQ("code", error->GetCode());
  EXPECT_EQ("it is 7%", error->GetMessage());
  EXPECT_STREQ("Outer", error->GetLocation().function);
  EXPECT_STREQ("some/outer", error->GetLocation().file);
  EXPECT_EQ(22, error->GetLocation().line);
}

TEST(ErrorTest, FormatsAMessageOfAnyLength) {
  const std::string text(100'000, 'x');
  std::unique_ptr<Error> error;
  Error::AddToPrintf(&error, kInner, "domain", "code", "<%s>", text.c_str());
  EXPECT_EQ("<" + text + ">", error->GetMessage());
}

TEST(ErrorTest, FormatsAnEmptyMessage) {
  std::unique_ptr<Error> error;
  Error::AddToPrintf(&error, kInner, "domain", "code", "%s", "");
  EXPECT_EQ("", error->GetMessage());
}

TEST(ErrorTest, IsAddedInFrontWhenFormatted) {
  std::unique_ptr<Error> error = Error::Create(kInner, "first", "1", "one");
  Error::AddToPrintf(&error, kOuter, "second", "2", "two");
  EXPECT_EQ("second", error->GetDomain());
  ASSERT_NE(nullptr, error->GetInnerError());
  EXPECT_EQ("first", error->GetInnerError()->GetDomain());
}

}  // namespace
}  // namespace kestrix
