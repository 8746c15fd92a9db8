// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/temp_directory.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "base/logging.h"

namespace test {

TempDirectory::TempDirectory()
    : path_((std::filesystem::temp_directory_path() / "test-XXXXXX").string()) {
  CHECK(mkdtemp(path_.data()) != nullptr) << "Cannot make " << path_;
}

TempDirectory::~TempDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void PutFile(const std::string& path, const std::string& contents) {
  std::ofstream file(path, std::ios::binary);
  file << contents;
  file.close();
  CHECK(file.good()) << "Cannot write " << path;
}

std::string GetFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  CHECK(file.good()) << "Cannot read " << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

int GetMode(const std::string& path) {
  struct stat info {};
  CHECK(stat(path.c_str(), &info) == 0) << "There is no " << path;
  return static_cast<int>(info.st_mode & 07777);
}

bool Exists(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(
      std::filesystem::symlink_status(path, ignored));
}

void MakeDirectory(const std::string& path) {
  CHECK(mkdir(path.c_str(), 0755) == 0) << "Cannot make " << path;
}

std::vector<std::string> ListDirectory(const std::string& path) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
    names.push_back(entry.path().filename().string());
  }
  CHECK(!error) << "Cannot list " << path;
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace test
