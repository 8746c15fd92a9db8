// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_TEMP_DIRECTORY_H_
#define TESTS_SUPPORT_TEMP_DIRECTORY_H_

#include <string>
#include <vector>

namespace test {

// An empty directory that goes, with its content, at the end.
class TempDirectory {
 public:
  TempDirectory();
  ~TempDirectory();
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::string& path() const { return path_; }
  // The path of `name` in the directory.
  std::string Path(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Plain file access, apart from the library under test. The process ends if one
// of these fails.
void PutFile(const std::string& path, const std::string& contents);
std::string GetFile(const std::string& path);
// The permission bits of a file.
int GetMode(const std::string& path);
bool Exists(const std::string& path);
void MakeDirectory(const std::string& path);
// The names in a directory, sorted.
std::vector<std::string> ListDirectory(const std::string& path);

}  // namespace test

#endif  // TESTS_SUPPORT_TEMP_DIRECTORY_H_
