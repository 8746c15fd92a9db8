// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/dbus_interface_method_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/test_message.h"

namespace kestrix::dbus_utils {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Takes a string and an integer, and returns a string.
class DBusInterfaceMethodHandlerTest : public testing::Test {
 protected:
  using Response = DBusMethodResponse<std::string>;
  using Handler =
      DBusInterfaceMethodHandler<Response, const std::string&, int32_t>;

  void Handle(dbus::Message call) {
    handler_.HandleMethod(std::move(call), [this](dbus::Message message) {
      sent_.push_back(std::move(message));
    });
  }
  // The one error that was sent.
  std::string TakeError() {
    EXPECT_EQ(1u, sent_.size());
    if (sent_.size() != 1) return "";
    const dbus::Error error = std::exchange(sent_, {})[0].GetError();
    return error.name + ": " + error.message;
  }

  test::MessageBench bench_;
  std::vector<dbus::Message> sent_;
  std::vector<std::string> calls_;
  std::vector<std::unique_ptr<Response>> pending_;
  Handler handler_{
      Handler::Callback([this](std::unique_ptr<Response> response,
                               const std::string& text, int32_t number) {
        calls_.push_back(text + " " + std::to_string(number));
        pending_.push_back(std::move(response));
      })};
};

TEST_F(DBusInterfaceMethodHandlerTest, HandsTheArgumentsOver) {
  Handle(bench_.NewReadableCall("si", "text", -7));
  EXPECT_THAT(calls_, ElementsAre("text -7"));
  EXPECT_THAT(sent_, IsEmpty());
}

TEST_F(DBusInterfaceMethodHandlerTest, HandsThePendingReplyOver) {
  Handle(bench_.NewReadableCall("si", "text", -7));
  ASSERT_EQ(1u, pending_.size());
  pending_[0]->Return("answer");
  ASSERT_EQ(1u, sent_.size());
  bench_.Seal(&sent_[0]);
  std::string answer;
  EXPECT_TRUE(dbus::MessageReader(&sent_[0]).PopString(&answer));
  EXPECT_EQ("answer", answer);
}

TEST_F(DBusInterfaceMethodHandlerTest, KeepsTheRepliesOfSeveralCallsApart) {
  Handle(bench_.NewReadableCall("si", "first", 1));
  Handle(bench_.NewReadableCall("si", "second", 2));
  EXPECT_THAT(calls_, ElementsAre("first 1", "second 2"));
  pending_[1]->Return("second");
  pending_[0]->Return("first");
  std::vector<std::string> answers;
  for (dbus::Message& message : sent_) {
    bench_.Seal(&message);
    EXPECT_TRUE(
        dbus::MessageReader(&message).PopString(&answers.emplace_back()));
  }
  EXPECT_THAT(answers, ElementsAre("second", "first"));
}

TEST_F(DBusInterfaceMethodHandlerTest, AnswersWrongArgumentsItself) {
  Handle(bench_.NewReadableCall("s", "text"));
  EXPECT_EQ(
      "org.freedesktop.DBus.Error.InvalidArgs: Too few parameters in a method "
      "call",
      TakeError());
  Handle(bench_.NewReadableCall("ss", "text", "7"));
  EXPECT_EQ(
      "org.freedesktop.DBus.Error.InvalidArgs: Method parameter type mismatch",
      TakeError());
  Handle(bench_.NewReadableCall("sii", "text", 7, 8));
  EXPECT_EQ(
      "org.freedesktop.DBus.Error.InvalidArgs: Too many parameters in a method "
      "call",
      TakeError());
  EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(DBusInterfaceMethodHandlerTest, TakesACallWithoutArguments) {
  int calls = 0;
  using EmptyHandler = DBusInterfaceMethodHandler<DBusMethodResponse<>>;
  EmptyHandler handler(EmptyHandler::Callback(
      [&](std::unique_ptr<DBusMethodResponse<>> response) {
        ++calls;
        response->Return();
      }));
  handler.HandleMethod(bench_.NewReadableCall(""), [&](dbus::Message message) {
    sent_.push_back(std::move(message));
  });
  EXPECT_EQ(1, calls);
  ASSERT_EQ(1u, sent_.size());
  EXPECT_FALSE(sent_[0].GetError().is_set());
}

TEST_F(DBusInterfaceMethodHandlerTest, TellsTheCallerIfNobodyTakesTheReply) {
  Handler handler(Handler::Callback(
      [](std::unique_ptr<Response>, const std::string&, int32_t) {}));
  handler.HandleMethod(
      bench_.NewReadableCall("si", "text", 7),
      [this](dbus::Message message) { sent_.push_back(std::move(message)); });
  EXPECT_THAT(TakeError(),
              testing::StartsWith("org.freedesktop.DBus.Error.NoReply: "));
}

}  // namespace
}  // namespace kestrix::dbus_utils
