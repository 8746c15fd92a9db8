// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_FLAG_HELPER_H_
#define KESTRIX_FLAG_HELPER_H_

namespace kestrix {

class FlagHelper {
 public:
  // Handles the standard flags of a daemon that has none of its own. --help
  // prints `description` and the flags to standard output and ends the process
  // with 0. Anything else on the command line ends it with 64 (EX_USAGE) and a
  // message on standard error. Returns if the command line is empty.
  static void Init(int argc, char** argv, const char* description);
};

}  // namespace kestrix

#endif  // KESTRIX_FLAG_HELPER_H_
