// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/message.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/test_message.h"

namespace dbus {
namespace {

using namespace std::string_literals;

class MessageTest : public testing::Test {
 protected:
  // The text that an error reply carries for `text`.
  std::string SendAsErrorText(const std::string& text) {
    Message call = bench_.NewReadableCall("");
    Message reply = call.CreateErrorReply("some.Error", text);
    if (!reply) return "no reply";
    bench_.Seal(&reply);
    std::string sent;
    EXPECT_TRUE(MessageReader(&reply).PopString(&sent));
    return sent;
  }

  test::MessageBench bench_;
};

TEST_F(MessageTest, IsNoneByDefault) {
  EXPECT_FALSE(Message());
  EXPECT_TRUE(bench_.NewCall());
}

TEST_F(MessageTest, MovesItsReference) {
  Message first = bench_.NewCall();
  Message second = std::move(first);
  EXPECT_TRUE(second);
  Message third;
  third = std::move(second);
  EXPECT_TRUE(third);
}

TEST_F(MessageTest, ShareAddsAReference) {
  Message first = bench_.NewCall();
  {
    const Message second = Message::Share(first.get());
    EXPECT_EQ(first.get(), second.get());
  }
  EXPECT_EQ("/path", first.GetPath());
}

TEST_F(MessageTest, TellsItsFields) {
  const Message call = bench_.NewReadableCall("sa{sv}", "a", 0);
  EXPECT_EQ("/path", call.GetPath());
  EXPECT_EQ("sa{sv}", call.GetSignature());
  EXPECT_EQ("", call.GetSender());
  EXPECT_FALSE(call.GetError().is_set());
}

TEST_F(MessageTest, ACallIsNoErrorAndAnErrorReplyIsOne) {
  Message call = bench_.NewReadableCall("");
  Message reply = call.CreateErrorReply("some.Error", "text");
  ASSERT_TRUE(reply);
  EXPECT_EQ("some.Error", reply.GetError().name);
}

// What D-Bus does not carry in a string.

TEST_F(MessageTest, SendsValidErrorTextsAsTheyAre) {
  for (const std::string text :
       {"", "text", "a\nb\t\x01\x7f", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80",
        "\xc2\x80 \xdf\xbf \xe0\xa0\x80 \xed\x9f\xbf \xee\x80\x80",
        "\xef\xb7\x8f\xef\xb7\xb0\xef\xbf\xbd", "\xf0\x90\x80\x80",
        "\xf4\x8f\xbf\xbd"}) {
    EXPECT_EQ(text, SendAsErrorText(text));
  }
}

TEST_F(MessageTest, ReplacesNulInErrorTexts) {
  EXPECT_EQ("a?b", SendAsErrorText("a\0b"s));
  EXPECT_EQ("?", SendAsErrorText("\0"s));
}

TEST_F(MessageTest, ReplacesInvalidUtf8InErrorTexts) {
  EXPECT_EQ("a?b", SendAsErrorText("a\xff"
                                   "b"));
  EXPECT_EQ("?", SendAsErrorText("\x80"));
  EXPECT_EQ("a?", SendAsErrorText("a\xc3"));
  EXPECT_EQ("??", SendAsErrorText("\xe2\x82"));
  EXPECT_EQ("???x", SendAsErrorText("\xf0\x9f\x98x"));
  EXPECT_EQ("?\xc3\xa4", SendAsErrorText("\xc3\xc3\xa4"));
  EXPECT_EQ("??", SendAsErrorText("\xc0\x80"));       // Overlong.
  EXPECT_EQ("??", SendAsErrorText("\xc1\xbf"));       //
  EXPECT_EQ("???", SendAsErrorText("\xe0\x9f\xbf"));  //
  EXPECT_EQ("????", SendAsErrorText("\xf0\x8f\xbf\xbf"));
  EXPECT_EQ("???", SendAsErrorText("\xed\xa0\x80"));       // A surrogate.
  EXPECT_EQ("????", SendAsErrorText("\xf4\x90\x80\x80"));  // Above U+10FFFF.
  EXPECT_EQ("????", SendAsErrorText("\xf8\x88\x80\x80"));
}

TEST_F(MessageTest, ReplacesNoncharactersInErrorTexts) {
  for (const std::string text :
       {"\xef\xb7\x90", "\xef\xb7\xaf", "\xef\xbf\xbe", "\xef\xbf\xbf"}) {
    EXPECT_EQ("a?b", SendAsErrorText("a" + text + "b"));
  }
  for (const std::string text : {"\xf0\x9f\xbf\xbe", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ("a?b", SendAsErrorText("a" + text + "b"));
  }
}

// Reading.

TEST_F(MessageTest, ReadsBasicValuesInOrder) {
  Message call = bench_.NewReadableCall("soiub", "text", "/a/b", -5, 7u, 1);
  MessageReader reader(&call);
  std::string text, path;
  int32_t integer = 0;
  uint32_t count = 0;
  bool boolean = false;
  EXPECT_TRUE(reader.PopString(&text));
  EXPECT_TRUE(reader.PopObjectPath(&path));
  EXPECT_TRUE(reader.PopInt32(&integer));
  EXPECT_TRUE(reader.PopUint32(&count));
  EXPECT_TRUE(reader.PopBool(&boolean));
  EXPECT_EQ("text", text);
  EXPECT_EQ("/a/b", path);
  EXPECT_EQ(-5, integer);
  EXPECT_EQ(7u, count);
  EXPECT_TRUE(boolean);
  EXPECT_FALSE(reader.HasMoreData());
}

TEST_F(MessageTest, StaysWhereItIsAtAValueOfAnotherType) {
  Message call = bench_.NewReadableCall("s", "text");
  MessageReader reader(&call);
  std::string text;
  int32_t integer = 99;
  uint32_t count = 99;
  bool boolean = true;
  EXPECT_FALSE(reader.PopInt32(&integer));
  EXPECT_FALSE(reader.PopUint32(&count));
  EXPECT_FALSE(reader.PopBool(&boolean));
  EXPECT_FALSE(reader.PopObjectPath(&text));
  EXPECT_FALSE(reader.OpenArray("s"));
  EXPECT_FALSE(reader.OpenVariant("s"));
  EXPECT_EQ(99, integer);
  EXPECT_EQ(99u, count);
  EXPECT_TRUE(boolean);
  EXPECT_TRUE(reader.PopString(&text));
  EXPECT_EQ("text", text);
}

TEST_F(MessageTest, TellsTypesOfOneShapeApart) {
  const struct {
    const char* types;
    Message message;
  } kCases[] = {
      {"o", bench_.NewReadableCall("o", "/a")},
      {"g", bench_.NewReadableCall("g", "s")},
      {"i", bench_.NewReadableCall("i", 1)},
      {"u", bench_.NewReadableCall("u", 1u)},
      {"b", bench_.NewReadableCall("b", 1)},
      {"x", bench_.NewReadableCall("x", int64_t{1})},
  };
  for (const auto& [types, message] : kCases) {
    Message shared = Message::Share(message.get());
    MessageReader reader(&shared);
    const char type = types[0];
    std::string text;
    int32_t integer = 0;
    uint32_t count = 0;
    bool boolean = false;
    EXPECT_FALSE(reader.PopString(&text)) << types;
    EXPECT_EQ(type == 'o', reader.PopObjectPath(&text)) << types;
    EXPECT_EQ(type == 'i', reader.PopInt32(&integer)) << types;
    EXPECT_EQ(type == 'u', reader.PopUint32(&count)) << types;
    EXPECT_EQ(type == 'b', reader.PopBool(&boolean)) << types;
  }
}

TEST_F(MessageTest, ReadsNothingAtTheEnd) {
  Message call = bench_.NewReadableCall("");
  MessageReader reader(&call);
  std::string text, contents;
  EXPECT_FALSE(reader.HasMoreData());
  EXPECT_EQ(0, reader.PeekType(&contents));
  EXPECT_FALSE(reader.PopString(&text));
  EXPECT_FALSE(reader.OpenArray("s"));
  EXPECT_FALSE(reader.Skip());
}

TEST_F(MessageTest, TellsTheTypeOfTheNextValue) {
  Message call = bench_.NewReadableCall("asva{sv}s", 1, "a", "i", 1, 0, "text");
  MessageReader reader(&call);
  std::string contents;
  EXPECT_EQ('a', reader.PeekType(&contents));
  EXPECT_EQ("s", contents);
  EXPECT_TRUE(reader.Skip());
  EXPECT_EQ('v', reader.PeekType(&contents));
  EXPECT_EQ("i", contents);
  EXPECT_TRUE(reader.Skip());
  EXPECT_EQ('a', reader.PeekType(&contents));
  EXPECT_EQ("{sv}", contents);
  EXPECT_TRUE(reader.Skip());
  EXPECT_EQ('s', reader.PeekType(&contents));
  EXPECT_EQ("", contents);
}

TEST_F(MessageTest, OpensContainersOfTheRightContentOnly) {
  Message call = bench_.NewReadableCall("as", 2, "a", "b");
  MessageReader reader(&call);
  EXPECT_FALSE(reader.OpenArray("i"));
  EXPECT_FALSE(reader.OpenArray("o"));
  EXPECT_FALSE(reader.OpenDictEntry("ss"));
  EXPECT_TRUE(reader.OpenArray("s"));
  std::string text;
  EXPECT_TRUE(reader.PopString(&text));
  EXPECT_TRUE(reader.PopString(&text));
  EXPECT_EQ("b", text);
  EXPECT_FALSE(reader.HasMoreData());
  EXPECT_TRUE(reader.Close());
  EXPECT_FALSE(reader.HasMoreData());
}

TEST_F(MessageTest, SkipsTheRestOfAContainerThatIsClosed) {
  Message call = bench_.NewReadableCall("a{sv}s", 2, "a", "i", 1, "b", "as", 2,
                                        "x", "y", "text");
  MessageReader reader(&call);
  ASSERT_TRUE(reader.OpenArray("{sv}"));
  ASSERT_TRUE(reader.OpenDictEntry("sv"));
  EXPECT_TRUE(reader.Close());
  EXPECT_TRUE(reader.Close());
  std::string text;
  EXPECT_TRUE(reader.PopString(&text));
  EXPECT_EQ("text", text);
}

// Writing.

TEST_F(MessageTest, WritesWhatItReads) {
  Message call = bench_.NewCall();
  MessageWriter writer(&call);
  EXPECT_TRUE(writer.AppendString("text"));
  EXPECT_TRUE(writer.AppendInt32(-5));
  EXPECT_TRUE(writer.AppendBool(true));
  EXPECT_TRUE(writer.OpenArray("{sv}"));
  EXPECT_TRUE(writer.OpenDictEntry("sv"));
  EXPECT_TRUE(writer.AppendString("key"));
  EXPECT_TRUE(writer.OpenVariant("b"));
  EXPECT_TRUE(writer.AppendBool(false));
  EXPECT_TRUE(writer.Close());
  EXPECT_TRUE(writer.Close());
  EXPECT_TRUE(writer.Close());
  bench_.Seal(&call);
  EXPECT_EQ("siba{sv}", call.GetSignature());
  MessageReader reader(&call);
  std::string text;
  int32_t integer = 0;
  bool boolean = false;
  EXPECT_TRUE(reader.PopString(&text));
  EXPECT_EQ("text", text);
  EXPECT_TRUE(reader.PopInt32(&integer));
  EXPECT_EQ(-5, integer);
  EXPECT_TRUE(reader.PopBool(&boolean));
  EXPECT_TRUE(boolean);
  EXPECT_TRUE(reader.OpenArray("{sv}"));
  EXPECT_TRUE(reader.OpenDictEntry("sv"));
  EXPECT_TRUE(reader.PopString(&text));
  EXPECT_EQ("key", text);
  EXPECT_TRUE(reader.OpenVariant("b"));
  EXPECT_TRUE(reader.PopBool(&boolean));
  EXPECT_FALSE(boolean);
}

TEST_F(MessageTest, RefusesStringsThatDBusDoesNotCarry) {
  for (const std::string& text :
       {"a\0b"s, "\0"s, "\xff"s, "\xc3"s, "\xed\xa0\x80"s, "\xef\xbf\xbe"s,
        "\xef\xb7\x90"s, "\xf4\x90\x80\x80"s}) {
    Message call = bench_.NewCall();
    EXPECT_FALSE(MessageWriter(&call).AppendString(text));
  }
}

TEST_F(MessageTest, RefusesAValueOfAnotherTypeThanTheContainer) {
  Message call = bench_.NewCall();
  MessageWriter writer(&call);
  ASSERT_TRUE(writer.OpenVariant("b"));
  EXPECT_FALSE(writer.AppendString("text"));
}

TEST_F(MessageTest, RefusesToCloseAnIncompleteContainer) {
  Message call = bench_.NewCall();
  MessageWriter writer(&call);
  ASSERT_TRUE(writer.OpenVariant("b"));
  EXPECT_FALSE(writer.Close());
}

}  // namespace
}  // namespace dbus
