// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/memory.h"

#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <new>

namespace base {

void EraseAndFree(void* memory) {
  if (!memory) return;
  explicit_bzero(memory, malloc_usable_size(memory));
  free(memory);
}

}  // namespace base

// The standard library's array forms call these.

void* operator new(size_t size) {
  if (void* memory = malloc(size > 0 ? size : 1)) return memory;
  // Logging would need memory.
  constexpr char kMessage[] = "[FATAL] Out of memory\n";
  [[maybe_unused]] const ssize_t written =
      write(STDERR_FILENO, kMessage, sizeof(kMessage) - 1);
  abort();
}

// A sanitizer brings a form of its own, whose memory our operator delete could
// not take back.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return malloc(size > 0 ? size : 1);
}

void operator delete(void* memory) noexcept { base::EraseAndFree(memory); }

void operator delete(void* memory, size_t) noexcept {
  base::EraseAndFree(memory);
}
