// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_PRIVATE_BUS_H_
#define TESTS_SUPPORT_PRIVATE_BUS_H_

#include <memory>
#include <string>

#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace test {

// A message bus of the test's own, which lets everybody do everything. It takes
// the place of the system bus in this process and in those that it starts.
class PrivateBus {
 public:
  // Returns when the bus takes connections.
  PrivateBus();
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  // Ends the bus: every client loses its connection.
  void Stop() { daemon_.reset(); }

  // Makes the bus stand still: its clients stay connected.
  void Pause();
  void Resume();

 private:
  TempDirectory folder_;
  std::unique_ptr<Process> daemon_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_PRIVATE_BUS_H_
