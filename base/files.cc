// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>
#include <utility>

#include "base/logging.h"
#include "base/strings.h"

namespace base {
namespace {

constexpr std::string_view kTemporaryInfix = ".tmp.";

// No message of the bus brings a longer list or token. A file beyond that is
// damaged, and would cost a small device all its memory.
constexpr size_t kMaxFileSize = 32u << 20;

class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ~ScopedFd() {
    const int saved_errno = errno;
    if (fd_ >= 0) close(fd_);
    errno = saved_errno;
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  bool is_valid() const { return fd_ >= 0; }
  int get() const { return fd_; }

 private:
  int fd_;
};

// Splits into the directory (with its final slash, or empty) and the name.
std::pair<std::string, std::string> SplitPath(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t name_start = slash == std::string::npos ? 0 : slash + 1;
  return {path.substr(0, name_start), path.substr(name_start)};
}

// Makes what was renamed or deleted in `directory` survive a power cut.
void SyncDirectory(const std::string& directory) {
  const ScopedFd fd(open(directory.empty() ? "." : directory.c_str(),
                         O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.is_valid()) fsync(fd.get());
}

// Writes everything and puts it onto the disk. Returns as WriteFile() does.
int WriteAndSync(int fd, const char* data, size_t length) {
  size_t written = 0;
  while (written < length) {
    const ssize_t count = write(fd, data + written, length - written);
    if (count < 0 && errno == EINTR) continue;
    if (count == 0) {
      errno = EIO;
      return written == 0 ? 0 : -1;
    }
    if (count < 0) return -1;
    written += static_cast<size_t>(count);
  }
  if (fsync(fd) != 0) return -1;
  return static_cast<int>(written);
}

}  // namespace

bool PathExists(const FilePath& path) {
  return access(path.value().c_str(), F_OK) == 0;
}

bool ReadFileToString(const FilePath& path, std::string* contents) {
  contents->clear();
  // O_NONBLOCK: a pipe in place of the file must not stall the start.
  const ScopedFd fd(
      open(path.value().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd.is_valid()) return false;
  struct stat info {};
  if (fstat(fd.get(), &info) != 0) return false;
  if (!S_ISREG(info.st_mode)) {
    errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    return false;
  }
  if (info.st_size > static_cast<off_t>(kMaxFileSize)) {
    errno = EFBIG;
    return false;
  }
  constexpr size_t kStep = 4096;
  size_t size = 0;
  for (;;) {
    contents->resize(size + kStep);
    const ssize_t count = read(fd.get(), contents->data() + size, kStep);
    if (count < 0 && errno == EINTR) continue;
    if (count > 0) size += static_cast<size_t>(count);
    if (size > kMaxFileSize) errno = EFBIG;
    if (count < 0 || size > kMaxFileSize) {
      EraseString(contents);
      return false;
    }
    contents->resize(size);
    if (count == 0) return true;
  }
}

int WriteFile(const FilePath& path, const char* data, size_t length) {
  if (length > INT_MAX) {
    errno = EFBIG;
    return -1;
  }
  const auto [directory, name] = SplitPath(path.value());
  std::string temporary = path.value();
  temporary.append(kTemporaryInfix).append("XXXXXX");
  const ScopedFd fd(mkostemp(temporary.data(), O_CLOEXEC));
  if (!fd.is_valid()) return -1;
  // It has been created with mode 0600, less what the umask takes away.
  const int written = fchmod(fd.get(), S_IRUSR | S_IWUSR) == 0
                          ? WriteAndSync(fd.get(), data, length)
                          : -1;
  const bool complete = written >= 0 && static_cast<size_t>(written) == length;
  if (!complete || rename(temporary.c_str(), path.value().c_str()) != 0) {
    const int saved_errno = errno;
    unlink(temporary.c_str());
    errno = saved_errno;
    return complete ? -1 : written;
  }
  // The new content is in place already, so a failure here is no failure to
  // write.
  SyncDirectory(directory);
  return written;
}

void DeleteStaleTemporaries(const FilePath& path) {
  auto [directory, prefix] = SplitPath(path.value());
  if (directory.empty()) directory = "./";
  prefix.append(kTemporaryInfix);
  DIR* entries = opendir(directory.c_str());
  if (!entries) return;
  while (const dirent* entry = readdir(entries)) {
    if (std::string_view(entry->d_name).starts_with(prefix)) {
      unlink((directory + entry->d_name).c_str());
    }
  }
  closedir(entries);
}

bool DeleteFile(const FilePath& path, bool recursive) {
  CHECK(!recursive) << "Only files are deleted";
  if (unlink(path.value().c_str()) != 0) {
    return errno == ENOENT || errno == ENOTDIR;
  }
  SyncDirectory(SplitPath(path.value()).first);
  return true;
}

}  // namespace base
