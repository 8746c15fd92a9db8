// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/property.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/test_message.h"

namespace dbus {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

bool PopText(MessageReader* reader, std::string* output) {
  return reader->PopString(output);
}
bool PopNumber(MessageReader* reader, int32_t* output) {
  return reader->PopInt32(output);
}

class TestProperties : public PropertySet {
 public:
  explicit TestProperties(PropertyChangedCallback callback)
      : PropertySet("/path", "some.Interface", std::move(callback)) {
    RegisterProperty("Text", &text);
    RegisterProperty("Number", &number);
  }

  Property<std::string, PopText> text;
  Property<int32_t, PopNumber> number;
};

class PropertySetTest : public testing::Test {
 protected:
  template <typename... Arguments>
  bool Update(const char* types, Arguments... arguments) {
    Message message = bench_.NewReadableCall(types, arguments...);
    MessageReader reader(&message);
    return properties_->UpdateFromReader(&reader);
  }
  template <typename... Arguments>
  bool Invalidate(const char* types, Arguments... arguments) {
    Message message = bench_.NewReadableCall(types, arguments...);
    MessageReader reader(&message);
    return properties_->InvalidateFromReader(&reader);
  }

  test::LogCapture log_;
  test::MessageBench bench_;
  std::vector<std::string> changed_;
  std::unique_ptr<TestProperties> properties_ =
      std::make_unique<TestProperties>(
          [this](const std::string& name) { changed_.push_back(name); });
};

TEST_F(PropertySetTest, IsEmptyAtFirst) {
  EXPECT_EQ("", properties_->text.value());
  EXPECT_EQ(0, properties_->number.value());
}

TEST_F(PropertySetTest, TakesValues) {
  EXPECT_TRUE(Update("a{sv}", 2, "Text", "s", "a", "Number", "i", 7));
  EXPECT_EQ("a", properties_->text.value());
  EXPECT_EQ(7, properties_->number.value());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PropertySetTest, LeavesAloneWhatIsNotMentioned) {
  Update("a{sv}", 2, "Text", "s", "a", "Number", "i", 7);
  EXPECT_TRUE(Update("a{sv}", 1, "Text", "s", "b"));
  EXPECT_EQ("b", properties_->text.value());
  EXPECT_EQ(7, properties_->number.value());
}

TEST_F(PropertySetTest, PassesOverUnknownNames) {
  EXPECT_TRUE(Update("a{sv}", 3, "Other", "as", 1, "x", "text", "s", "x",
                     "Text", "s", "a"));
  EXPECT_EQ("a", properties_->text.value());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(PropertySetTest, LogsAValueOfAnotherTypeAndKeepsTheOldOne) {
  Update("a{sv}", 1, "Text", "s", "a");
  EXPECT_TRUE(Update("a{sv}", 2, "Text", "as", 1, "b", "Number", "i", 7));
  EXPECT_EQ("a", properties_->text.value());
  EXPECT_EQ(7, properties_->number.value());
  EXPECT_THAT(log_.lines(),
              ElementsAre(test::WarningLine(
                  "Ignoring the property some.Interface.Text of /path: it has "
                  "the type \"as\"")));
}

TEST_F(PropertySetTest, LogsAVariantInAVariant) {
  EXPECT_TRUE(Update("a{sv}", 1, "Text", "v", "s", "a"));
  EXPECT_EQ("", properties_->text.value());
  EXPECT_THAT(log_.lines(),
              ElementsAre(test::WarningLine(
                  "Ignoring the property some.Interface.Text of /path: it has "
                  "the type \"v\"")));
}

TEST_F(PropertySetTest, RefusesWhatIsNoDictionary) {
  EXPECT_FALSE(Update("s", "Text"));
  EXPECT_FALSE(Update("a{ss}", 1, "Text", "a"));
  EXPECT_EQ("", properties_->text.value());
}

TEST_F(PropertySetTest, ClearsWhatIsInvalidated) {
  Update("a{sv}", 2, "Text", "s", "a", "Number", "i", 7);
  EXPECT_TRUE(Invalidate("as", 2, "Text", "Other"));
  EXPECT_EQ("", properties_->text.value());
  EXPECT_EQ(7, properties_->number.value());
}

TEST_F(PropertySetTest, RefusesToInvalidateWhatIsNoList) {
  EXPECT_FALSE(Invalidate("s", "Text"));
}

TEST_F(PropertySetTest, ReportsChangesTogetherAndOnce) {
  Update("a{sv}", 3, "Number", "i", 7, "Other", "s", "x", "Text", "s", "a");
  Invalidate("as", 1, "Number");
  EXPECT_THAT(changed_, IsEmpty());
  properties_->NotifyChanged();
  EXPECT_THAT(changed_, ElementsAre("Number", "Text", "Number"));
  properties_->NotifyChanged();
  EXPECT_EQ(3u, changed_.size());
}

TEST_F(PropertySetTest, ReportsNoValueThatItDidNotTake) {
  Update("a{sv}", 1, "Text", "i", 1);
  properties_->NotifyChanged();
  EXPECT_THAT(changed_, IsEmpty());
}

TEST_F(PropertySetTest, MayBeDestroyedByTheCallback) {
  properties_ = std::make_unique<TestProperties>([this](const std::string& n) {
    changed_.push_back(n);
    properties_.reset();
  });
  Update("a{sv}", 2, "Text", "s", "a", "Number", "i", 7);
  properties_->NotifyChanged();
  EXPECT_THAT(changed_, ElementsAre("Text", "Number"));
}

TEST_F(PropertySetTest, NeedsNoCallback) {
  properties_ =
      std::make_unique<TestProperties>(PropertySet::PropertyChangedCallback());
  Update("a{sv}", 1, "Text", "s", "a");
  properties_->NotifyChanged();
  EXPECT_EQ("a", properties_->text.value());
}

}  // namespace
}  // namespace dbus
