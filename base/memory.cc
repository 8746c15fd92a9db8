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

// All forms but those for over-aligned types, of which there are none: a
// sanitizer brings forms of its own for those that are left out, whose memory
// ours could not take back.

void* operator new(size_t size) {
  if (void* memory = malloc(size > 0 ? size : 1)) return memory;
  // Logging would need memory.
  constexpr char kMessage[] = "[FATAL] Out of memory\n";
  [[maybe_unused]] const ssize_t written =
      write(STDERR_FILENO, kMessage, sizeof(kMessage) - 1);
  abort();
}

void* operator new[](size_t size) { return operator new(size); }

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return malloc(size > 0 ? size : 1);
}

void* operator new[](size_t size, const std::nothrow_t& nothrow) noexcept {
  return operator new(size, nothrow);
}

void operator delete(void* memory) noexcept { base::EraseAndFree(memory); }
void operator delete[](void* memory) noexcept { base::EraseAndFree(memory); }

void operator delete(void* memory, size_t) noexcept {
  base::EraseAndFree(memory);
}

void operator delete[](void* memory, size_t) noexcept {
  base::EraseAndFree(memory);
}
