// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// Runs a fuzz target on each file of the folders that are given. Takes the
// place of libFuzzer, so that what was found once stays mended under every
// compiler.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "fuzz/fuzz_target.h"

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<std::string> paths;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(argv[i], error)) {
      paths.push_back(entry.path().string());
    }
    if (!error) continue;
    fprintf(stderr, "Cannot list %s\n", argv[i]);
    return 1;
  }
  std::sort(paths.begin(), paths.end());
  for (const std::string& path : paths) {
    // Tells which file it was if the target ends the process.
    printf("%s\n", path.c_str());
    fflush(stdout);
    std::ifstream file(path, std::ios::binary);
    if (!file.good()) {
      fprintf(stderr, "Cannot read %s\n", path.c_str());
      return 1;
    }
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()),
                           input.size());
  }
  if (paths.empty()) {
    fprintf(stderr, "There is no input\n");
    return 1;
  }
  printf("%zu inputs\n", paths.size());
  return 0;
}
