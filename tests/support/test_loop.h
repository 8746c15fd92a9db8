// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_TEST_LOOP_H_
#define TESTS_SUPPORT_TEST_LOOP_H_

#include <chrono>
#include <functional>
#include <string_view>

namespace test {

// How long to wait for what should happen at once: only a failure takes long.
inline constexpr std::chrono::seconds kDeadline{20};

// Serves the event loop of the process until `condition` holds, which is looked
// at after each event. If it does not hold by the deadline, the test fails with
// the name of what was `awaited`, and false is returned.
[[nodiscard]] bool RunUntil(std::string_view awaited,
                            const std::function<bool()>& condition);

// Serves what is due now, and what that makes due, without waiting.
void RunPending();

}  // namespace test

#endif  // TESTS_SUPPORT_TEST_LOOP_H_
