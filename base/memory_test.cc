// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/memory.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <new>
#include <string>

#include "tests/support/system_calls.h"

namespace base {
namespace {

constexpr size_t kSize = 100;

// Looks at blocks of memory at the moment when they are given back.
class MemoryTest : public testing::Test {
 protected:
  // `memory` has to be erased in its first kSize bytes.
  void Watch(void* memory) {
    memset(memory, 'x', kSize);
    watched_ = memory;
  }
  bool WasFreedErased() const { return was_freed_ && was_erased_; }

 private:
  void OnFree(const void* memory) {
    if (!memory || memory != watched_) return;
    was_freed_ = true;
    const auto* bytes = static_cast<const char*>(memory);
    was_erased_ = true;
    for (size_t i = 0; i < kSize; ++i) was_erased_ &= bytes[i] == 0;
  }

  const void* watched_ = nullptr;
  bool was_freed_ = false;
  bool was_erased_ = false;
  test::ScopedSystemCalls calls_{
      {.before_free = [this](const void* memory) { OnFree(memory); }}};
};

TEST_F(MemoryTest, ErasesWhatIsFreed) {
  void* memory = calloc(1, kSize);
  Watch(memory);
  EraseAndFree(memory);
  EXPECT_TRUE(WasFreedErased());
}

TEST_F(MemoryTest, FreesNothing) { EraseAndFree(nullptr); }

TEST_F(MemoryTest, ErasesAString) {
  auto text = std::make_unique<std::string>(kSize, 'x');
  Watch(text->data());
  text.reset();
  EXPECT_TRUE(WasFreedErased());
}

TEST_F(MemoryTest, ErasesWhatAGrowingStringLeavesBehind) {
  std::string text(kSize, 'x');
  Watch(text.data());
  text.append(10 * kSize, 'y');
  EXPECT_TRUE(WasFreedErased());
}

TEST_F(MemoryTest, ErasesAnArray) {
  auto array = std::make_unique<char[]>(kSize);
  Watch(array.get());
  array.reset();
  EXPECT_TRUE(WasFreedErased());
}

TEST_F(MemoryTest, ErasesWhateverTheOperator) {
  void* memory = ::operator new(kSize);
  Watch(memory);
  ::operator delete(memory);
  EXPECT_TRUE(WasFreedErased());
}

TEST_F(MemoryTest, ErasesWhatWasTakenWithoutThrowing) {
  void* memory = ::operator new(kSize, std::nothrow);
  Watch(memory);
  ::operator delete(memory);
  EXPECT_TRUE(WasFreedErased());
}

TEST(MemoryDeathTest, EndsTheProcessForLackOfMemory) {
  // More than half of what can be addressed is never given.
  volatile size_t too_much = size_t(-1) / 2 + 1;
  // The second is said by a memory checker.
  EXPECT_DEATH(::operator delete(::operator new(too_much)),
               "\\[FATAL\\] Out of memory|allocation-size-too-big");
}

}  // namespace
}  // namespace base
