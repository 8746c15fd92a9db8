// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/flag_helper.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sysexits.h>

#include <string_view>

namespace kestrix {
namespace {

// The name without the folders, as usage messages show it.
const char* ProgramName(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash ? slash + 1 : path;
}

}  // namespace

void FlagHelper::Init(int argc, char** argv, const char* description) {
  const char* program = argc > 0 ? ProgramName(argv[0]) : "";
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument == "--help" || argument == "-h") {
      printf(
          "%s\n\nUsage: %s [--help]\n\n"
          "  --help, -h  show this text and exit\n",
          description, program);
      // Output that cannot be delivered is a failure the caller must see.
      exit(fflush(stdout) == 0 ? EX_OK : EX_IOERR);
    }
    const char* kind = argument.starts_with("-") ? "flag" : "argument";
    fprintf(stderr, "%s: unknown %s '%s'; try --help\n", program, kind,
            argv[i]);
    exit(EX_USAGE);
  }
}

}  // namespace kestrix
