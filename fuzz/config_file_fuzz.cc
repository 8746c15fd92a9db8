// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The input is the content of a configuration file.

#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <string>
#include <string_view>

#include "base/files.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/url_model.h"
#include "kestrix/key_value_store.h"

namespace {

// A file in memory, by the path that it can be opened with.
class MemoryFile {
 public:
  MemoryFile() : fd_(memfd_create("input", MFD_CLOEXEC)) {
    CHECK(fd_ >= 0) << "Cannot make a file";
  }
  ~MemoryFile() { close(fd_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  base::FilePath Put(std::string_view contents) {
    CHECK(ftruncate(fd_, 0) == 0 &&
          pwrite(fd_, contents.data(), contents.size(), 0) ==
              static_cast<ssize_t>(contents.size()))
        << "Cannot write the file";
    return base::FilePath("/proc/self/fd/" + std::to_string(fd_));
  }

 private:
  int fd_;
};

// The grammar once more.
std::map<std::string, std::string> Read(std::string_view contents) {
  std::map<std::string, std::string> values;
  for (const std::string_view whole_line : fuzz::Split(contents, '\n')) {
    const std::string_view line = fuzz::Trim(whole_line);
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || line[0] == '#' || line[0] == ';') {
      continue;
    }
    std::string_view value = fuzz::Trim(line.substr(equals + 1));
    const char quote = value.empty() ? '\0' : value[0];
    if ((quote == '"' || quote == '\'') && value.size() > 1 &&
        value.ends_with(quote)) {
      value = value.substr(1, value.size() - 2);
    }
    values[std::string(fuzz::Trim(line.substr(0, equals)))] = value;
  }
  return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFile file;
  const std::string contents = fuzz::Script(data, size).TakeRest();
  kestrix::KeyValueStore store;
  CHECK(store.Load(file.Put(contents))) << "Not loaded";
  auto expected = Read(contents);
  for (const auto& [key, value] : expected) {
    std::string found;
    CHECK(store.GetString(key, &found) && found == value)
        << "Another value of " << key << ": " << found;
  }
  // Pieces of the text that are no keys.
  for (const std::string_view line : fuzz::Split(contents, '\n')) {
    for (const std::string_view piece : fuzz::Split(line, '=')) {
      for (const std::string_view text : {piece, fuzz::Trim(piece)}) {
        const std::string key(text);
        if (expected.contains(key)) continue;
        std::string found = "untouched";
        CHECK(!store.GetString(key, &found) && found == "untouched")
            << "A value of " << key;
      }
    }
  }
  return 0;
}
