// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_KEY_VALUE_STORE_H_
#define KESTRIX_KEY_VALUE_STORE_H_

#include <map>
#include <string>

#include "base/files.h"

namespace kestrix {

// A configuration file of KEY=VALUE lines. White space around the key and
// around the value is not part of them. A value may stand in single or double
// quotes, which are taken off and keep the white space within; there are no
// escapes and no continued lines. Empty lines and lines that start with # or ;
// are passed over, lines without = are ignored. The last of several lines with
// the same key counts.
class KeyValueStore {
 public:
  // Replaces the content with that of the file. False, with nothing changed, if
  // the file cannot be read.
  bool Load(const base::FilePath& path);

  // True, and `value` set, if the key is present, also with an empty value.
  // Otherwise `value` is untouched.
  bool GetString(const std::string& key, std::string* value) const;

 private:
  std::map<std::string, std::string> values_;
};

}  // namespace kestrix

#endif  // KESTRIX_KEY_VALUE_STORE_H_
