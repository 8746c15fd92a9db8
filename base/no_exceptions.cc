// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// What the C++ library calls in place of a throw expression, for a program that
// throws nothing: each is a mistake of ours, and ends the process with a line
// that says which. Its own definitions would bring in all that it takes to
// throw, a hundred kilobytes of it, where the library is linked in.
//
// They are weak: another version of the library may need more of its own, and
// then has all of them.

#include <stdlib.h>

#include <string>
#include <typeinfo>

#include "base/logging.h"

#ifdef __GLIBCXX__

namespace {

[[noreturn]] void Die(const char* what) {
  LOG(FATAL) << "C++ library: " << what;
  abort();
}

}  // namespace

namespace std {

[[gnu::weak]] void __throw_bad_alloc() { Die("bad_alloc"); }
[[gnu::weak]] void __throw_bad_array_new_length() {
  Die("bad_array_new_length");
}
[[gnu::weak]] void __throw_length_error(const char* what) { Die(what); }
[[gnu::weak]] void __throw_logic_error(const char* what) { Die(what); }
[[gnu::weak]] void __throw_out_of_range(const char* what) { Die(what); }
[[gnu::weak]] void __throw_out_of_range_fmt(const char* format, ...) {
  Die(format);
}
// With _GLIBCXX_ASSERTIONS.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the library names it.
[[gnu::weak]] void __glibcxx_assert_fail(const char*, int, const char*,
                                         const char* condition) noexcept {
  Die(condition);
}

}  // namespace std

// How make_shared() is told from another's without the type information that is
// switched off here (std::_Sp_make_shared_tag::_S_eq). Both are always ours.
// Declared by its symbol, since not every version of the library has it.
[[gnu::weak]] bool IsMakeSharedTag(const std::type_info&) noexcept
    asm("_ZNSt19_Sp_make_shared_tag5_S_eqERKSt9type_info");
bool IsMakeSharedTag(const std::type_info&) noexcept { return false; }

#endif  // __GLIBCXX__
