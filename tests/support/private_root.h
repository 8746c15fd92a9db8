// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_PRIVATE_ROOT_H_
#define TESTS_SUPPORT_PRIVATE_ROOT_H_

#include <gtest/gtest.h>

#include <string>

namespace test {

// Gives the process its own, empty /etc/ap and /var/lib/cloud_action, which
// nobody else sees: the daemon's paths are fixed. Needs no privileges, but a
// kernel that lets users make namespaces, and must come before any thread.
// Register it as a global test environment.
class PrivateRoot : public testing::Environment {
 public:
  void SetUp() override;

  // Empties both folders and makes them writable again.
  static void Reset();
  // Makes every change in one of the folders fail, for root too, until Reset().
  static void MakeReadOnly(const std::string& folder);
  // Makes one of the folders take no more data, until Reset().
  static void MakeFull(const std::string& folder);
};

}  // namespace test

#endif  // TESTS_SUPPORT_PRIVATE_ROOT_H_
