// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef DBUS_PROPERTY_H_
#define DBUS_PROPERTY_H_

#include <string>
#include <utility>
#include <vector>

#include "base/callback.h"
#include "dbus/message.h"

namespace dbus {

// A cached property of a remote object.
class PropertyBase {
 public:
  virtual ~PropertyBase() = default;

  // Takes the next value of `reader`, which stands inside the variant, as the
  // property's value. False, with the cached value kept, if it is of another
  // type.
  virtual bool PopValueFromReader(MessageReader* reader) = 0;
  // Forgets the value: the object no longer tells it.
  virtual void Clear() = 0;
};

// `kPop` reads a `T`; it returns false if the next value is none.
template <typename T, bool (*kPop)(MessageReader*, T*)>
class Property final : public PropertyBase {
 public:
  // The value last told by the object; the empty value if it told none.
  const T& value() const { return value_; }

  bool PopValueFromReader(MessageReader* reader) override {
    T value{};
    if (!kPop(reader, &value)) return false;
    value_ = std::move(value);
    return true;
  }
  void Clear() override { value_ = T{}; }

 private:
  T value_{};
};

// The cached properties of one interface of one remote object. Derived classes
// hold the properties as members.
class PropertySet {
 public:
  using PropertyChangedCallback =
      base::Callback<void(const std::string& property_name)>;

  // `callback` runs for each property whose value was told, once the whole
  // message has been taken in.
  PropertySet(std::string object_path, std::string interface_name,
              PropertyChangedCallback callback)
      : object_path_(std::move(object_path)),
        interface_name_(std::move(interface_name)),
        callback_(std::move(callback)) {}
  virtual ~PropertySet() = default;
  PropertySet(const PropertySet&) = delete;
  PropertySet& operator=(const PropertySet&) = delete;

  // Reads an a{sv} of property values. Unknown names are passed over; a value
  // of the wrong type is logged and leaves the property as it was. False if
  // the next value is no a{sv} at all.
  bool UpdateFromReader(MessageReader* reader);

  // Reads an array of the names of properties whose values are unknown now.
  bool InvalidateFromReader(MessageReader* reader);

  // Reports the changes that the two calls above have taken in.
  void NotifyChanged();

 protected:
  // `property` is a member of the derived class.
  void RegisterProperty(const std::string& name, PropertyBase* property) {
    properties_.emplace_back(name, property);
  }

 private:
  PropertyBase* Find(const std::string& name) const;

  std::string object_path_;
  std::string interface_name_;
  PropertyChangedCallback callback_;
  std::vector<std::pair<std::string, PropertyBase*>> properties_;
  std::vector<std::string> changed_;
};

}  // namespace dbus

#endif  // DBUS_PROPERTY_H_
