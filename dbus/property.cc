// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/property.h"

#include "base/logging.h"

namespace dbus {

bool PropertySet::UpdateFromReader(MessageReader* reader) {
  if (!reader->OpenArray("{sv}")) return false;
  std::string name;
  while (reader->OpenDictEntry("sv")) {
    std::string type;
    if (!reader->PopString(&name) || reader->PeekType(&type) != 'v') {
      return false;
    }
    PropertyBase* property = Find(name);
    if (!property) {
      if (!reader->Skip()) return false;
    } else {
      if (!reader->OpenVariant(type.c_str())) return false;
      const bool usable = property->PopValueFromReader(reader);
      if (!reader->Close()) return false;
      if (usable) {
        changed_.push_back(name);
      } else {
        LOG(WARNING) << "Ignoring the property " << interface_name_ << "."
                     << name << " of " << object_path_ << ": it has the type \""
                     << type << "\"";
      }
    }
    if (!reader->Close()) return false;
  }
  return reader->Close();
}

bool PropertySet::InvalidateFromReader(MessageReader* reader) {
  if (!reader->OpenArray("s")) return false;
  std::string name;
  while (reader->PopString(&name)) {
    if (PropertyBase* property = Find(name)) {
      property->Clear();
      changed_.push_back(name);
    }
  }
  return reader->Close();
}

void PropertySet::NotifyChanged() {
  // Copies: the callback may destroy this set.
  const std::vector<std::string> changed = std::exchange(changed_, {});
  const PropertyChangedCallback callback = callback_;
  if (!callback) return;
  for (const std::string& name : changed) callback.Run(name);
}

PropertyBase* PropertySet::Find(const std::string& name) const {
  for (const auto& [known_name, property] : properties_) {
    if (known_name == name) return property;
  }
  return nullptr;
}

}  // namespace dbus
