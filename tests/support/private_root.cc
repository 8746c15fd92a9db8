// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/private_root.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/logging.h"
#include "tests/support/temp_directory.h"

namespace test {
namespace {

constexpr char kStash[] = "/mnt";
constexpr const char* kFolders[] = {"/etc/ap", "/var/lib/cloud_action"};

// A file in /proc takes its whole content in one write.
void PutProcFile(const std::string& path, const std::string& contents) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  const ssize_t written = write(fd, contents.data(), contents.size());
  CHECK(written == static_cast<ssize_t>(contents.size()))
      << "Cannot write " << path << ": " << strerror(errno);
  close(fd);
}

void Mount(const char* source, const std::string& target, const char* type,
           unsigned long flags, const char* options) {
  CHECK(mount(source, target.c_str(), type, flags, options) == 0)
      << "Cannot mount " << target << ": " << strerror(errno);
}

void MountTmpfs(const std::string& target, const char* options) {
  Mount("tmpfs", target, "tmpfs", MS_NOSUID | MS_NODEV, options);
}

// Becomes alone on its mounts, as the user that it was.
void EnterNamespaces() {
  const std::string uid = std::to_string(getuid());
  const std::string gid = std::to_string(getgid());
  const bool is_new_user = unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
  // A process with threads, which every process in an emulator is, gets no user
  // namespace. Whoever is root, or has been put into one, does without.
  CHECK(is_new_user || (errno == EINVAL && unshare(CLONE_NEWNS) == 0))
      << "These tests need a folder tree of their own, and the kernel refuses "
         "it: "
      << strerror(errno)
      << ". See user_namespaces(7) and "
         "/proc/sys/user/max_user_namespaces";
  if (is_new_user) {
    PutProcFile("/proc/self/setgroups", "deny");
    PutProcFile("/proc/self/uid_map", uid + " " + uid + " 1");
    PutProcFile("/proc/self/gid_map", gid + " " + gid + " 1");
  }
  Mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
}

// Makes `folder` writable: its place is taken by an empty one in which every
// old entry is a link to where it has gone.
void ShadowFolder(const std::string& folder) {
  std::string name = folder;
  for (char& c : name) c = c == '/' ? '_' : c;
  const std::string stashed = std::string(kStash) + "/" + name;
  MakeDirectory(stashed);
  Mount(folder.c_str(), stashed, nullptr, MS_BIND | MS_REC, nullptr);
  MountTmpfs(folder, "mode=755");
  for (const std::string& entry : ListDirectory(stashed)) {
    std::error_code error;
    const std::filesystem::path old = stashed + "/" + entry;
    // A link that is relative would lead elsewhere from the new place.
    const bool is_link = std::filesystem::is_symlink(old, error);
    std::filesystem::create_symlink(
        is_link ? std::filesystem::read_symlink(old, error) : old,
        folder + "/" + entry, error);
    CHECK(!error) << "Cannot link " << entry << " into " << folder;
  }
}

void MountOwnFolder(const std::string& folder) {
  MountTmpfs(folder, "mode=755,size=1m");
}

}  // namespace

void PrivateRoot::SetUp() {
  EnterNamespaces();
  MountTmpfs(kStash, "mode=755");
  for (const std::string folder : kFolders) {
    if (!Exists(folder)) {
      ShadowFolder(folder.substr(0, folder.rfind('/')));
      MakeDirectory(folder);
    }
    MountOwnFolder(folder);
  }
}

void PrivateRoot::Reset() {
  for (const char* folder : kFolders) {
    CHECK(umount2(folder, MNT_DETACH) == 0)
        << "Cannot empty " << folder << ": " << strerror(errno);
    MountOwnFolder(folder);
  }
}

void PrivateRoot::MakeReadOnly(const std::string& folder) {
  Mount(nullptr, folder, nullptr, MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV,
        nullptr);
}

void PrivateRoot::MakeFull(const std::string& folder) {
  Mount(nullptr, folder, nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV, "size=4k");
  PutFile(folder + "/filler", std::string(4096, 'x'));
}

}  // namespace test
