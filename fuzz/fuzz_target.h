// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef FUZZ_FUZZ_TARGET_H_
#define FUZZ_FUZZ_TARGET_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/logging.h"

// What a fuzz target defines; the names are libFuzzer's. The first is for what
// has to come before the first input, and may be missing.
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// An input that is read as text, from front to back, so that the inputs can be
// written by hand and be understood when one of them fails.
class Script {
 public:
  Script(const uint8_t* data, size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  bool AtEnd() const { return rest_.empty(); }

  // 0 at the end.
  char TakeChar() {
    if (AtEnd()) return 0;
    const char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }

  // Up to the next line end, which is passed over, or the end.
  std::string TakeLine() {
    const std::string line(rest_.substr(0, rest_.find('\n')));
    rest_.remove_prefix(line.size() == rest_.size() ? line.size()
                                                    : line.size() + 1);
    return line;
  }

  std::string TakeRest() {
    const std::string rest(rest_);
    rest_ = {};
    return rest;
  }

 private:
  std::string_view rest_;
};

}  // namespace fuzz

#endif  // FUZZ_FUZZ_TARGET_H_
