// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_FILES_H_
#define BASE_FILES_H_

#include <cstddef>
#include <string>

namespace base {

// The path of a file, as the system takes it.
class FilePath {
 public:
  explicit FilePath(std::string path) : value_(std::move(path)) {}
  const std::string& value() const { return value_; }

 private:
  std::string value_;
};

// All of these block, and are meant for small files on local storage. After a
// failure `errno` tells the reason.

// Whether something exists at `path`; a link that leads nowhere does not.
bool PathExists(const FilePath& path);

// Reads the whole file into `contents`. On failure `contents` is empty. Only a
// regular file of 32 MiB or less can be read.
bool ReadFileToString(const FilePath& path, std::string* contents);

// Replaces the file at `path` with `length` bytes, readable by its owner only.
// The replacement is atomic: whatever happens, also a power cut, `path` holds
// the old content or the new, never a part. Returns the number of bytes
// written, 0 if the system took none of them, or -1 after an error; unless
// `length` is returned, the old file is as it was.
int WriteFile(const FilePath& path, const char* data, size_t length);

// Removes the temporary files that a WriteFile() to `path` left when the
// process was killed in its middle.
void DeleteStaleTemporaries(const FilePath& path);

// Deletes the file at `path`, for good once this returns. True also if there is
// none. A directory is deleted only if `recursive` is true, which nothing here
// needs: it must be false.
bool DeleteFile(const FilePath& path, bool recursive);

}  // namespace base

#endif  // BASE_FILES_H_
