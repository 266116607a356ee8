// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/device/caller.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>

namespace brenlow {
namespace {

struct TCaller {
  uid_t User;
  gid_t Group;
};

std::optional<unsigned> NumberOf(const char* variable) {
  const char* value = std::getenv(variable);
  if (value == nullptr) return std::nullopt;
  const std::string_view text(value);
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  // The largest number means "no change" to the system.
  const bool isWhole = error == std::errc() && end == text.data() + text.size() && number != ~0U;
  return isWhole ? std::optional(number) : std::nullopt;
}

/// Nobody where the program does not run as root under sudo.
std::optional<TCaller> Caller() {
  if (::geteuid() != 0) return std::nullopt;
  const std::optional<unsigned> user = NumberOf("SUDO_UID");
  const std::optional<unsigned> group = NumberOf("SUDO_GID");
  if (!user || !group) return std::nullopt;
  return TCaller{*user, *group};
}

bool IsEmptyFolder(int handle) {
  const int again = ::openat(handle, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* entries = again < 0 ? nullptr : ::fdopendir(again);
  if (entries == nullptr) {
    if (again >= 0) ::close(again);
    return false;
  }
  int count = 0;  // "." and ".." are two
  while (count <= 2 && ::readdir(entries) != nullptr) ++count;
  ::closedir(entries);
  return count <= 2;
}

}  // namespace

void GiveToCaller(int handle) {
  const std::optional<TCaller> caller = Caller();
  if (!caller) return;
  // Where it cannot be given away (FAT, some network folders) it stays root's, as without sudo.
  [[maybe_unused]] const int ignored = ::fchownat(handle, "", caller->User, caller->Group, AT_EMPTY_PATH);
}

void GiveNewFolderToCaller(int handle) {
  struct stat status {};
  if (!Caller() || ::fstat(handle, &status) != 0 || status.st_uid != ::geteuid()) return;
  if (IsEmptyFolder(handle)) GiveToCaller(handle);
}

int OpenOrCreate(int folder, const char* path, int flags, mode_t mode) {
  const int made = ::openat(folder, path, flags | O_CREAT | O_EXCL, mode);
  if (made >= 0) {
    GiveToCaller(made);
    return made;
  }
  return errno == EEXIST ? ::openat(folder, path, flags | O_CREAT, mode) : -1;
}

int CreateFolders(const std::string& path) {
  std::error_code ignored;
  std::filesystem::path folder;
  for (const std::filesystem::path& part : std::filesystem::path(path)) {
    folder /= part;
    if (std::filesystem::is_directory(folder, ignored)) continue;
    if (::mkdir(folder.c_str(), 0777) != 0) return errno == EEXIST ? ENOTDIR : errno;
    const int handle = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (handle < 0) continue;
    GiveNewFolderToCaller(handle);
    ::close(handle);
  }
  return 0;
}

bool LiesWithCaller(const std::string& path) {
  const std::optional<TCaller> caller = Caller();
  if (!caller) return false;
  std::error_code ignored;
  std::filesystem::path folder = std::filesystem::absolute(path, ignored).parent_path();
  while (!std::filesystem::is_directory(folder, ignored) && folder.has_relative_path()) folder = folder.parent_path();
  struct stat status {};
  return ::stat(folder.c_str(), &status) == 0 && status.st_uid == caller->User;
}

}  // namespace brenlow
