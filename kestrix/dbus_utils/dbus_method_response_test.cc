// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/dbus_method_response.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/test_message.h"

namespace kestrix::dbus_utils {
namespace {

constexpr base::Location kSomewhere{"Function", "some/file", 42};
constexpr char kFailed[] = "org.freedesktop.DBus.Error.Failed";

class DBusMethodResponseTest : public testing::Test {
 protected:
  using Response = DBusMethodResponse<int, std::string>;

  std::unique_ptr<Response> NewResponse() {
    return std::make_unique<Response>(
        bench_.NewReadableCall("s", "argument"),
        [this](dbus::Message message) { sent_.push_back(std::move(message)); });
  }
  static std::unique_ptr<Error> NewError(const std::string& domain,
                                         const std::string& code,
                                         const std::string& message) {
    return Error::Create(kSomewhere, domain, code, message);
  }

  // The one message that was sent, as "name: text" if it is an error.
  std::string GetSentError() {
    if (sent_.size() != 1 || !sent_[0]) return "not one message";
    const dbus::Error error = sent_[0].GetError();
    return error.is_set() ? error.name + ": " + error.message : "no error";
  }

  test::MessageBench bench_;
  std::vector<dbus::Message> sent_;
};

TEST_F(DBusMethodResponseTest, ReturnsValuesInTheirOrder) {
  NewResponse()->Return(401, "body");
  EXPECT_EQ("no error", GetSentError());
  bench_.Seal(&sent_[0]);
  EXPECT_EQ("is", sent_[0].GetSignature());
  dbus::MessageReader reader(&sent_[0]);
  int32_t number = 0;
  std::string text;
  EXPECT_TRUE(reader.PopInt32(&number));
  EXPECT_TRUE(reader.PopString(&text));
  EXPECT_EQ(401, number);
  EXPECT_EQ("body", text);
}

TEST_F(DBusMethodResponseTest, ReturnsNothing) {
  DBusMethodResponse<>(bench_.NewReadableCall(""), [this](
                                                       dbus::Message message) {
    sent_.push_back(std::move(message));
  }).Return();
  EXPECT_EQ("no error", GetSentError());
  EXPECT_EQ("", sent_[0].GetSignature());
}

TEST_F(DBusMethodResponseTest, SendsWhenItIsTold) {
  const auto response = NewResponse();
  EXPECT_TRUE(sent_.empty());
  response->Return(1, "");
  EXPECT_EQ(1u, sent_.size());
}

TEST_F(DBusMethodResponseTest, SendsNothingMoreWhenItEnds) {
  auto response = NewResponse();
  response->Return(1, "");
  response.reset();
  EXPECT_EQ("no error", GetSentError());
}

TEST_F(DBusMethodResponseTest, TellsTheCallerIfItEndsUnsent) {
  NewResponse().reset();
  EXPECT_EQ(
      "org.freedesktop.DBus.Error.NoReply: The service ended before it had an "
      "answer",
      GetSentError());
}

TEST_F(DBusMethodResponseTest, RepliesWithADBusErrorAsItIs) {
  NewResponse()->ReplyWithError(
      NewError("dbus", "org.some.Error", "What went wrong").get());
  EXPECT_EQ("org.some.Error: What went wrong", GetSentError());
}

TEST_F(DBusMethodResponseTest, RepliesWithAnyOtherErrorAsAFailure) {
  NewResponse()->ReplyWithError(
      NewError("actions", "invalid_arguments", "What went wrong").get());
  EXPECT_EQ(
      std::string(kFailed) + ": actions/invalid_arguments: What went wrong",
      GetSentError());
}

TEST_F(DBusMethodResponseTest, TakesTheDomainByItsWholeName) {
  NewResponse()->ReplyWithError(NewError("dbus2", "org.some.Error", "x").get());
  EXPECT_EQ(std::string(kFailed) + ": dbus2/org.some.Error: x", GetSentError());
}

TEST_F(DBusMethodResponseTest, RepliesWithTheOutermostErrorOfAChain) {
  std::unique_ptr<Error> error = NewError("dbus", "org.some.Inner", "inner");
  Error::AddTo(&error, kSomewhere, "outer", "code", "text");
  NewResponse()->ReplyWithError(error.get());
  EXPECT_EQ(std::string(kFailed) + ": outer/code: text", GetSentError());
}

TEST_F(DBusMethodResponseTest, ReplacesErrorTextThatDBusDoesNotCarry) {
  NewResponse()->ReplyWithError(
      NewError("http", "protocol",
               std::string("a\0b\xff\xef\xbf\xbe \xc3\xa4", 10))
          .get());
  EXPECT_EQ(std::string(kFailed) + ": http/protocol: a?b?? \xc3\xa4",
            GetSentError());
}

TEST_F(DBusMethodResponseTest, CutsAnErrorTextThatIsTooLong) {
  const std::string longest(4096, 'x');
  NewResponse()->ReplyWithError(
      NewError("dbus", "org.some.Error", longest).get());
  EXPECT_EQ("org.some.Error: " + longest, GetSentError());
  sent_.clear();
  NewResponse()->ReplyWithError(
      NewError("dbus", "org.some.Error", longest + "y").get());
  EXPECT_EQ("org.some.Error: " + longest + "... (4097 bytes)", GetSentError());
}

TEST_F(DBusMethodResponseTest, CutsAnErrorTextWithinACharacter) {
  const std::string start(4095, 'x');
  NewResponse()->ReplyWithError(
      NewError("dbus", "org.some.Error", start + "\xc3\xa4").get());
  EXPECT_EQ("org.some.Error: " + start + "?... (4097 bytes)", GetSentError());
}

TEST_F(DBusMethodResponseTest, SaysThatAResultCannotBeSent) {
  for (const std::string& text :
       {std::string("\xff"), std::string("a\0b", 3)}) {
    sent_.clear();
    NewResponse()->Return(200, text);
    EXPECT_EQ(std::string(kFailed) + ": The result cannot be sent over D-Bus",
              GetSentError());
  }
}

TEST_F(DBusMethodResponseTest, SendsAMessageOfTheCallersOwn) {
  const auto response = NewResponse();
  dbus::Message message = response->CreateCustomResponse();
  EXPECT_TRUE(dbus::MessageWriter(&message).AppendBool(true));
  response->SendRawResponse(std::move(message));
  EXPECT_EQ("no error", GetSentError());
  bench_.Seal(&sent_[0]);
  EXPECT_EQ("b", sent_[0].GetSignature());
}

TEST_F(DBusMethodResponseTest, SaysThatThereIsNoMessageToSend) {
  NewResponse()->SendRawResponse(dbus::Message());
  EXPECT_EQ(std::string(kFailed) + ": The result cannot be sent over D-Bus",
            GetSentError());
}

TEST_F(DBusMethodResponseTest, LetsTheSenderEndIt) {
  std::unique_ptr<Response> response;
  response = std::make_unique<Response>(bench_.NewReadableCall(""),
                                        [&](dbus::Message message) {
                                          response.reset();
                                          sent_.push_back(std::move(message));
                                        });
  response->Return(1, "");
  EXPECT_EQ(nullptr, response);
  EXPECT_EQ("no error", GetSentError());
}

using DBusMethodResponseDeathTest = DBusMethodResponseTest;

TEST_F(DBusMethodResponseDeathTest, DiesIfItIsSentTwice) {
  constexpr char kDeath[] =
      "\\[FATAL\\] Check failed: sender_. A method call was answered twice\n";
  const std::unique_ptr<Error> error = NewError("domain", "code", "text");
  const auto response = NewResponse();
  response->ReplyWithError(error.get());
  EXPECT_EXIT(response->Return(1, ""), testing::KilledBySignal(SIGABRT),
              kDeath);
  EXPECT_EXIT(response->ReplyWithError(error.get()),
              testing::KilledBySignal(SIGABRT), kDeath);
  EXPECT_EXIT(response->SendRawResponse(response->CreateCustomResponse()),
              testing::KilledBySignal(SIGABRT), kDeath);
  EXPECT_EQ(1u, sent_.size());
}

}  // namespace
}  // namespace kestrix::dbus_utils
