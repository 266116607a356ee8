// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/target_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "recovery/safe_name.h"

namespace brenlow {
namespace {

constexpr int MostNumbers = 100'000;  // of one name in one folder

int OpenFolder(int parent, const std::string& name) {
  return ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

std::timespec SystemTime(TDateTime time) {
  std::timespec result{};
  if (!ToUnixTime(time, result)) result.tv_nsec = UTIME_OMIT;
  return result;
}

}  // namespace

THandle& THandle::operator=(THandle&& other) noexcept {
  if (this != &other) {
    Close();
    FHandle = other.Release();
  }
  return *this;
}

int THandle::Release() { return std::exchange(FHandle, -1); }

void THandle::Close() {
  if (FHandle >= 0) ::close(FHandle);
  FHandle = -1;
}

void SetTimes(int handle, const TTimeStamp& times) {
  const std::timespec both[2] = {SystemTime(times.dtAccessed), SystemTime(times.dtModified)};
  if (both[0].tv_nsec != UTIME_OMIT || both[1].tv_nsec != UTIME_OMIT) ::futimens(handle, both);
}

int TTargetTree::Open(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) return error.value();
  // The user named this path: links in it are the user's own.
  THandle handle(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!handle.Valid()) return errno;
  if (::faccessat(handle.Get(), ".", W_OK, 0) != 0) return errno;
  FLevels.clear();
  FLevels.push_back({path, std::move(handle), {}, {}});
  return 0;
}

void TTargetTree::Push(TStringView name, const TTimeStamp& times) {
  FLevels.push_back({SafeName(name), THandle(), times, {}});
}

int TTargetTree::EnsureCreated() {
  for (std::size_t i = 1; i < std::min(FLevels.size(), MaxDepth); ++i) {
    TLevel& level = FLevels[i];
    if (level.Handle.Valid()) continue;
    TLevel& above = FLevels[i - 1];
    const std::string wanted = level.Name;
    for (int number = 1; !level.Handle.Valid(); ++number) {
      if (number > 1) level.Name = NumberedName(wanted, number);
      if (::mkdirat(above.Handle.Get(), level.Name.c_str(), 0777) != 0 && errno != EEXIST) return errno;
      const int handle = OpenFolder(above.Handle.Get(), level.Name);
      // Something else has the name (a file, a link): another name is tried.
      const bool taken = handle < 0 && (errno == ENOTDIR || errno == ELOOP) && number < MostNumbers;
      if (handle < 0 && !taken) return errno;
      level.Handle = THandle(handle);
    }
  }
  return 0;
}

void TTargetTree::Pop() {
  if (FLevels.size() <= 1) return;
  if (FLevels.back().Handle.Valid()) SetTimes(FLevels.back().Handle.Get(), FLevels.back().Times);
  FLevels.pop_back();
}

int TTargetTree::CreateFile(TStringView name, THandle& handle, std::string& path) {
  const std::string wanted = SafeName(name);
  const int error = EnsureCreated();
  path.clear();
  for (std::size_t i = 1; i < std::min(FLevels.size(), MaxDepth); ++i) path += FLevels[i].Name + "/";
  const std::size_t folderLength = path.size();
  path += wanted;
  if (error != 0) return error;
  TLevel& folder = Current();
  std::string given = wanted;
  for (;;) {
    handle = THandle(
        ::openat(folder.Handle.Get(), given.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (handle.Valid()) break;
    if (errno != EEXIST) return errno;
    int& number = folder.Taken.try_emplace(wanted, 1).first->second;
    if (++number > MostNumbers) return EEXIST;
    given = NumberedName(wanted, number);
  }
  path.resize(folderLength);
  path += given;
  return 0;
}

}  // namespace brenlow
