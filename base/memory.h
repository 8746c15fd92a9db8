// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_MEMORY_H_
#define BASE_MEMORY_H_

namespace base {

// Memory that C++ code gives back is erased: this library replaces operator new
// and delete of the whole program. Tokens pass through many strings on their
// way, and each that grows leaves a copy behind; here none can be forgotten. A
// lack of memory ends the process.

// The same for memory from malloc(). Null is allowed.
void EraseAndFree(void* memory);

}  // namespace base

#endif  // BASE_MEMORY_H_
