// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/files.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/support/system_calls.h"
#include "tests/support/temp_directory.h"

namespace base {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

class FilesTest : public testing::Test {
 protected:
  int Write(const std::string& contents) {
    return WriteFile(FilePath(path_), contents.data(), contents.size());
  }
  // The old content is there, and nothing else.
  void ExpectUntouched() {
    EXPECT_EQ("old", test::GetFile(path_));
    EXPECT_THAT(test::ListDirectory(folder_.path()), ElementsAre("file"));
  }

  test::TempDirectory folder_;
  const std::string path_ = folder_.Path("file");
};

TEST_F(FilesTest, PathExistsForAFileAndADirectory) {
  EXPECT_FALSE(PathExists(FilePath(path_)));
  test::PutFile(path_, "");
  EXPECT_TRUE(PathExists(FilePath(path_)));
  EXPECT_TRUE(PathExists(FilePath(folder_.path())));
}

TEST_F(FilesTest, PathDoesNotExistForALinkThatLeadsNowhere) {
  ASSERT_EQ(0, symlink("nowhere", path_.c_str()));
  EXPECT_FALSE(PathExists(FilePath(path_)));
}

TEST_F(FilesTest, ReadsAWholeFileByteForByte) {
  // Longer than one read, with every byte in it.
  std::string contents;
  for (int i = 0; i < 10'000; ++i) contents += static_cast<char>(i % 256);
  test::PutFile(path_, contents);
  std::string read = "before";
  EXPECT_TRUE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ(contents, read);
}

TEST_F(FilesTest, ReadsAnEmptyFile) {
  test::PutFile(path_, "");
  std::string read = "before";
  EXPECT_TRUE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ("", read);
}

TEST_F(FilesTest, ReadsThroughALink) {
  test::PutFile(folder_.Path("target"), "text");
  ASSERT_EQ(0, symlink("target", path_.c_str()));
  std::string read;
  EXPECT_TRUE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ("text", read);
}

TEST_F(FilesTest, CannotReadAMissingFile) {
  std::string read = "before";
  EXPECT_FALSE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ("", read);
}

TEST_F(FilesTest, CannotReadADirectory) {
  test::MakeDirectory(path_);
  std::string read = "before";
  EXPECT_FALSE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ(EISDIR, errno);
  EXPECT_EQ("", read);
}

TEST_F(FilesTest, DoesNotWaitForAPipe) {
  ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
  std::string read = "before";
  EXPECT_FALSE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ("", read);
}

TEST_F(FilesTest, ForgetsWhatItHasReadWhenAReadFails) {
  test::PutFile(path_, std::string(10'000, 'x'));
  int reads = 0;
  const test::ScopedSystemCalls calls(
      {.read = [&](int fd, void* data, size_t length) -> ssize_t {
        if (++reads == 1) return test::RealRead(fd, data, length);
        errno = EIO;
        return -1;
      }});
  std::string read;
  EXPECT_FALSE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ(EIO, errno);
  EXPECT_EQ("", read);
}

TEST_F(FilesTest, ReadsAFileOf32MiB) {
  test::PutFile(path_, "x");
  ASSERT_EQ(0, truncate(path_.c_str(), 32 << 20));
  std::string read;
  EXPECT_TRUE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ(32u << 20, read.size());
}

TEST_F(FilesTest, DoesNotReadALargerFile) {
  test::PutFile(path_, "x");
  ASSERT_EQ(0, truncate(path_.c_str(), (32 << 20) + 1));
  int reads = 0;
  const test::ScopedSystemCalls calls(
      {.read = [&](int fd, void* data, size_t length) -> ssize_t {
        ++reads;
        return test::RealRead(fd, data, length);
      }});
  std::string read = "before";
  EXPECT_FALSE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ(EFBIG, errno);
  EXPECT_EQ("", read);
  EXPECT_EQ(0, reads);
}

TEST_F(FilesTest, StopsReadingAFileThatGrowsWithoutEnd) {
  test::PutFile(path_, "x");
  const test::ScopedSystemCalls calls(
      {.read = [&](int, void*, size_t length) -> ssize_t {
        return static_cast<ssize_t>(length);
      }});
  std::string read;
  EXPECT_FALSE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ(EFBIG, errno);
  EXPECT_EQ("", read);
}

TEST_F(FilesTest, GoesOnReadingAfterAnInterruption) {
  test::PutFile(path_, "text");
  int reads = 0;
  const test::ScopedSystemCalls calls(
      {.read = [&](int fd, void* data, size_t length) -> ssize_t {
        if (++reads != 1) return test::RealRead(fd, data, length);
        errno = EINTR;
        return -1;
      }});
  std::string read;
  EXPECT_TRUE(ReadFileToString(FilePath(path_), &read));
  EXPECT_EQ("text", read);
}

TEST_F(FilesTest, WritesANewFileForItsOwnerOnly) {
  const mode_t old_mask = umask(0);
  EXPECT_EQ(4, Write("text"));
  umask(old_mask);
  EXPECT_EQ("text", test::GetFile(path_));
  EXPECT_EQ(0600, test::GetMode(path_));
  EXPECT_THAT(test::ListDirectory(folder_.path()), ElementsAre("file"));
}

TEST_F(FilesTest, WritesAFileThatItsOwnerCanReadWhateverTheMask) {
  const mode_t old_mask = umask(0777);
  EXPECT_EQ(4, Write("text"));
  umask(old_mask);
  EXPECT_EQ(0600, test::GetMode(path_));
}

TEST_F(FilesTest, ReplacesAFileAndItsMode) {
  test::PutFile(path_, "an older and longer text");
  ASSERT_EQ(0, chmod(path_.c_str(), 0644));
  EXPECT_EQ(3, Write("new"));
  EXPECT_EQ("new", test::GetFile(path_));
  EXPECT_EQ(0600, test::GetMode(path_));
}

TEST_F(FilesTest, WritesBytesAsTheyAre) {
  const std::string contents("a\0\r\n\xff", 5);
  EXPECT_EQ(5, Write(contents));
  EXPECT_EQ(contents, test::GetFile(path_));
}

TEST_F(FilesTest, WritesAnEmptyFile) {
  test::PutFile(path_, "old");
  EXPECT_EQ(0, Write(""));
  EXPECT_EQ("", test::GetFile(path_));
}

TEST_F(FilesTest, CannotWriteIntoAMissingDirectory) {
  EXPECT_EQ(-1, WriteFile(FilePath(folder_.Path("none/file")), "new", 3));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_THAT(test::ListDirectory(folder_.path()), IsEmpty());
}

// The count of what was written could not be returned.
TEST_F(FilesTest, WritesNothingThatIsLargerThanAnInt) {
  test::PutFile(path_, "old");
  EXPECT_EQ(-1, WriteFile(FilePath(path_), "new", size_t{INT_MAX} + 1));
  EXPECT_EQ(EFBIG, errno);
  ExpectUntouched();
}

TEST_F(FilesTest, CannotWriteOverADirectory) {
  test::MakeDirectory(path_);
  EXPECT_EQ(-1, Write("new"));
  EXPECT_EQ(EISDIR, errno);
  EXPECT_THAT(test::ListDirectory(folder_.path()), ElementsAre("file"));
  EXPECT_THAT(test::ListDirectory(path_), IsEmpty());
}

TEST_F(FilesTest, KeepsTheOldContentWhenAWriteFails) {
  test::PutFile(path_, "old");
  const test::ScopedSystemCalls calls(
      {.write = [](int, const void*, size_t) -> ssize_t {
        errno = ENOSPC;
        return -1;
      }});
  EXPECT_EQ(-1, Write("new"));
  EXPECT_EQ(ENOSPC, errno);
  ExpectUntouched();
}

TEST_F(FilesTest, KeepsTheOldContentWhenALaterWriteFails) {
  test::PutFile(path_, "old");
  int writes = 0;
  const test::ScopedSystemCalls calls(
      {.write = [&](int fd, const void* data, size_t) -> ssize_t {
        if (++writes == 1) return test::RealWrite(fd, data, 1);
        errno = ENOSPC;
        return -1;
      }});
  EXPECT_EQ(-1, Write("new"));
  EXPECT_EQ(ENOSPC, errno);
  ExpectUntouched();
}

TEST_F(FilesTest, ReportsZeroWhenTheSystemTakesNothing) {
  test::PutFile(path_, "old");
  const test::ScopedSystemCalls calls(
      {.write = [](int, const void*, size_t) -> ssize_t { return 0; }});
  EXPECT_EQ(0, Write("new"));
  ExpectUntouched();
}

TEST_F(FilesTest, ReportsAnErrorWhenTheSystemStopsTaking) {
  test::PutFile(path_, "old");
  int writes = 0;
  const test::ScopedSystemCalls calls(
      {.write = [&](int fd, const void* data, size_t) -> ssize_t {
        return ++writes == 1 ? test::RealWrite(fd, data, 1) : 0;
      }});
  EXPECT_EQ(-1, Write("new"));
  EXPECT_EQ(EIO, errno);
  ExpectUntouched();
}

TEST_F(FilesTest, GoesOnWritingAfterAnInterruptionAndAShortWrite) {
  int writes = 0;
  const test::ScopedSystemCalls calls(
      {.write = [&](int fd, const void* data, size_t length) -> ssize_t {
        ++writes;
        if (writes == 2) {
          errno = EINTR;
          return -1;
        }
        return test::RealWrite(fd, data, writes == 1 ? 2 : length);
      }});
  EXPECT_EQ(5, Write("hello"));
  EXPECT_EQ("hello", test::GetFile(path_));
}

TEST_F(FilesTest, KeepsTheOldContentWhenTheDiskFails) {
  test::PutFile(path_, "old");
  const test::ScopedSystemCalls calls({.fsync = [](int) {
    errno = EIO;
    return -1;
  }});
  EXPECT_EQ(-1, Write("new"));
  EXPECT_EQ(EIO, errno);
  ExpectUntouched();
}

TEST_F(FilesTest, KeepsTheOldContentWhenTheReplacementFails) {
  test::PutFile(path_, "old");
  const test::ScopedSystemCalls calls({.rename = [](const char*, const char*) {
    errno = EACCES;
    return -1;
  }});
  EXPECT_EQ(-1, Write("new"));
  EXPECT_EQ(EACCES, errno);
  ExpectUntouched();
}

// After a power cut there is the old file or the new one, never a part: the
// content is on the disk before it gets its name.
TEST_F(FilesTest, SyncsTheContentBeforeTheRenameAndTheFolderAfterIt) {
  std::vector<std::string> steps;
  std::string from;
  const test::ScopedSystemCalls calls({
      .fsync =
          [&](int fd) {
            struct stat info {};
            fstat(fd, &info);
            steps.push_back(S_ISDIR(info.st_mode) ? "sync folder"
                                                  : "sync file");
            return 0;
          },
      .rename =
          [&](const char* old_name, const char*) {
            steps.push_back("rename");
            from = old_name;
            return unlink(old_name);
          },
  });
  EXPECT_EQ(3, Write("new"));
  EXPECT_THAT(steps, ElementsAre("sync file", "rename", "sync folder"));
  EXPECT_THAT(from, MatchesRegex(".*/file\\.tmp\\..{6}"));
}

TEST_F(FilesTest, DeletesItsStaleTemporariesOnly) {
  for (const char* name : {"file", "file.tmp.AbCdEf", "file.tmp.x", "file2",
                           "other.tmp.AbCdEf", "xfile.tmp.AbCdEf"}) {
    test::PutFile(folder_.Path(name), "");
  }
  DeleteStaleTemporaries(FilePath(path_));
  EXPECT_THAT(
      test::ListDirectory(folder_.path()),
      ElementsAre("file", "file2", "other.tmp.AbCdEf", "xfile.tmp.AbCdEf"));
}

TEST_F(FilesTest, HasNoStaleTemporariesInAMissingDirectory) {
  DeleteStaleTemporaries(FilePath(folder_.Path("none/file")));
  EXPECT_THAT(test::ListDirectory(folder_.path()), IsEmpty());
}

TEST_F(FilesTest, DeletesAFile) {
  test::PutFile(path_, "old");
  EXPECT_TRUE(DeleteFile(FilePath(path_), /*recursive=*/false));
  EXPECT_FALSE(test::Exists(path_));
}

// A credential that was deleted must not come back with the power.
TEST_F(FilesTest, SyncsTheFolderAfterADeletion) {
  test::PutFile(path_, "old");
  bool synced_after = false;
  const test::ScopedSystemCalls calls({.fsync = [&](int fd) {
    struct stat info {};
    fstat(fd, &info);
    synced_after = S_ISDIR(info.st_mode) && !test::Exists(path_);
    return 0;
  }});
  EXPECT_TRUE(DeleteFile(FilePath(path_), /*recursive=*/false));
  EXPECT_TRUE(synced_after);
}

TEST_F(FilesTest, CountsAMissingFileAsDeleted) {
  EXPECT_TRUE(DeleteFile(FilePath(path_), /*recursive=*/false));
  EXPECT_TRUE(
      DeleteFile(FilePath(folder_.Path("none/file")), /*recursive=*/false));
}

TEST_F(FilesTest, CountsAFileBelowAFileAsDeleted) {
  test::PutFile(path_, "old");
  EXPECT_TRUE(DeleteFile(FilePath(path_ + "/file"), /*recursive=*/false));
}

TEST_F(FilesTest, DeletesALinkAndNotWhatItLeadsTo) {
  test::PutFile(folder_.Path("target"), "text");
  ASSERT_EQ(0, symlink("target", path_.c_str()));
  EXPECT_TRUE(DeleteFile(FilePath(path_), /*recursive=*/false));
  EXPECT_THAT(test::ListDirectory(folder_.path()), ElementsAre("target"));
}

TEST_F(FilesTest, CannotDeleteADirectory) {
  test::MakeDirectory(path_);
  EXPECT_FALSE(DeleteFile(FilePath(path_), /*recursive=*/false));
  EXPECT_TRUE(test::Exists(path_));
}

TEST(FilesDeathTest, DiesWhenAskedToDeleteRecursively) {
  EXPECT_DEATH(DeleteFile(FilePath("/nowhere"), /*recursive=*/true),
               "Only files are deleted");
}

}  // namespace
}  // namespace base
