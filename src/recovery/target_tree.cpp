// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/target_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "core/text.h"
#include "recovery/safe_name.h"

namespace brenlow {
namespace {

constexpr int MostNumbers = 1'000'000;  // of one name in one folder

// File system types as statfs tells them (linux/magic.h; exFAT and ntfs3 from their drivers).
constexpr long FatType = 0x4D44;
constexpr long ExfatType = 0x2011BAB0;
constexpr long NtfsType = 0x5346544E;
constexpr long Ntfs3Type = 0x7366746E;

int OpenFolder(int parent, const std::string& name) {
  return ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

std::timespec SystemTime(TDateTime time) {
  std::timespec result{};
  if (!ToUnixTime(time, result)) result.tv_nsec = UTIME_OMIT;
  return result;
}

bool IsThere(int folder, const std::string& name) {
  struct stat status {};
  return ::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

/// Renames within a folder without replacing anything. 0, or the errno.
int MoveToFreeName(int folder, const char* from, const char* to) {
  if (::renameat2(folder, from, folder, to, RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // The file system cannot do it in one step.
  if (IsThere(folder, to)) return EEXIST;
  return ::renameat(folder, from, folder, to) == 0 ? 0 : errno;
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

int TTargetTree::Open(const std::string& path, TSourceGuard guard, bool mayLieOnSource) {
  std::error_code error;
  FGuard = std::move(guard);
  FMayLieOnSource = mayLieOnSource;
  if (!mayLieOnSource && FGuard.LiesOnSource(path)) return TSourceGuard::Refused;
  std::filesystem::create_directories(path, error);
  if (error) return error.value();
  // The user named this path: links in it are the user's own.
  THandle handle(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!handle.Valid()) return errno;
  if (::faccessat(handle.Get(), ".", W_OK, 0) != 0) return errno;
  const std::filesystem::path full = std::filesystem::canonical(path, error);
  FPath = error ? path : full.string();
  FRoot = std::move(handle);
  FCurrent = TOpenFolder();
  FAbove = TOpenFolder();
  FFolders.assign(1, TFolder());
  FFolders[Root].ComesAgain = true;
  FClaimed.clear();
  FTaken.clear();
  FKeptClaims.clear();
  FSiblings.clear();
  LookAtFileSystem();
  return 0;
}

void TTargetTree::LookAtFileSystem() {
  struct statfs status {};
  const auto type = ::fstatfs(FRoot.Get(), &status) == 0 ? static_cast<long>(status.f_type) : 0L;
  // Both NTFS drivers show the attributes of Windows under this name; ntfs-3g is one of many
  // file systems of the type "fuse".
  FIsNTFS = type == NtfsType || type == Ntfs3Type || ::fgetxattr(FRoot.Get(), "system.ntfs_attrib", nullptr, 0) >= 0;
  FIsFAT32 = type == FatType;
  FIsOfWindows = FIsNTFS || FIsFAT32 || type == ExfatType;
}

std::int64_t TTargetTree::FreeBytes() const {
  struct statfs status {};
  if (::fstatfs(FRoot.Get(), &status) != 0) return -1;
  return static_cast<std::int64_t>(status.f_bavail) * static_cast<std::int64_t>(status.f_bsize);
}

// ---- folders --------------------------------------------------------------------------------

TTargetTree::TPlace TTargetTree::Folder(TPlace parent, TStringView name, const TTimeStamp& times, bool comesAgain) {
  if (FFolders[parent].Depth + 1 >= MaxDepth) return parent;
  if (parent != FSiblingsOf) {
    FSiblings.clear();
    FSiblingsOf = parent;
  }
  TFolder folder{parent, FFolders[parent].Depth + 1, SafeName(name), times, false, comesAgain};
  const auto [known, isNew] = FSiblings.try_emplace(Key(folder.Name), static_cast<TPlace>(FFolders.size()));
  if (isNew) {
    FFolders.push_back(std::move(folder));
  } else {
    FFolders[known->second].ComesAgain = true;
  }
  return known->second;
}

/// Creates a folder where needed and opens it. 0, or the errno.
int TTargetTree::OpenBelow(int above, TFolder& folder, THandle& handle) {
  const std::string wanted = folder.Name;
  for (int number = 1;; ++number) {
    if (number > 1) folder.Name = NumberedName(wanted, number);
    if (!folder.Entered) {
      folder.IsNew = ::mkdirat(above, folder.Name.c_str(), 0777) == 0;
      if (!folder.IsNew && errno != EEXIST) return errno;
    }
    handle = THandle(OpenFolder(above, folder.Name));
    const bool forbidden = !folder.IsNew && handle.Valid() && IsForbidden(handle);
    if (handle.Valid() && !forbidden) break;
    // Something else has the name (a file, a link, a source mounted there): another name is tried.
    const int error = forbidden ? TSourceGuard::Refused : errno;
    const bool isOther = forbidden || error == ENOTDIR || error == ELOOP;
    if (folder.Entered || !isOther || number >= MostNumbers) return error;
  }
  folder.Entered = true;
  return 0;
}

/// True for a folder in another file system than the target's, which lies on a source.
bool TTargetTree::IsForbidden(const THandle& folder) const {
  const auto here = IdentityOf(folder.Get());
  const auto root = IdentityOf(FRoot.Get());
  const bool isElsewhere = here && (!root || here->FileSystem != root->FileSystem || here->Mount != root->Mount);
  return isElsewhere && !FMayLieOnSource && FGuard.LiesOnSource(*here);
}

void TTargetTree::Leave() {
  if (FFolders[FCurrent.Place].ComesAgain) {
    FKeptClaims[FCurrent.Place] = std::move(FClaimed);
  }
  FClaimed.clear();
  FTaken.clear();
}

int TTargetTree::Enter(TPlace place) {
  if (place == FCurrent.Place) return 0;
  Leave();
  // The way up to a folder that is open already, then down again.
  std::vector<TPlace> way;
  TPlace at = place;
  while (at != Root && at != FCurrent.Place && at != FAbove.Place) {
    way.push_back(at);
    at = FFolders[at].Above;
  }
  TOpenFolder above;
  if (at == FCurrent.Place && at != Root) {
    above = std::move(FCurrent);
  } else if (at == FAbove.Place && at != Root) {
    above = std::move(FAbove);
  }
  FCurrent = TOpenFolder();
  FAbove = TOpenFolder();
  for (; !way.empty(); way.pop_back()) {
    TOpenFolder next{way.back(), THandle()};
    const int error =
        OpenBelow(above.Handle.Valid() ? above.Handle.Get() : FRoot.Get(), FFolders[next.Place], next.Handle);
    if (error != 0) return error;  // the root stays in hand
    FAbove = std::move(above);
    above = std::move(next);
  }
  FCurrent = std::move(above);
  const auto kept = FKeptClaims.find(FCurrent.Place);
  if (kept != FKeptClaims.end()) {
    FClaimed = std::move(kept->second);
    FKeptClaims.erase(kept);
  }
  return 0;
}

std::string TTargetTree::PathOf(TPlace place) const {
  std::string path;
  for (; place != Root; place = FFolders[place].Above) path.insert(0, FFolders[place].Name + "/");
  return path;
}

void TTargetTree::SetFolderTimes() {
  for (TPlace place = 1; place < FFolders.size(); ++place) {
    if (FFolders[place].Entered && Enter(place) == 0) SetTimes(FCurrent.Handle.Get(), FFolders[place].Times);
  }
}

// ---- files ----------------------------------------------------------------------------------

std::string TTargetTree::Key(const std::string& name) const {
  return FIsOfWindows ? ToUtf8(LowerCase(FromUtf8(name))) : name;
}

bool TTargetTree::Exists(const std::string& name) const { return IsThere(Here(), name); }

std::string TTargetTree::FreeName(const std::string& name) {
  int& number = FTaken.try_emplace(Key(name), 1).first->second;
  for (;;) {
    std::string free = NumberedName(name, ++number);
    const bool isFree = !Exists(free) && !FClaimed.contains(Key(free));
    if (isFree || number >= MostNumbers) {
      --number;  // free still: it is the proposal until it is used
      return free;
    }
  }
}

std::string TTargetTree::Claim(const std::string& name) {
  const auto [first, isNew] = FClaimed.try_emplace(Key(name), 1);
  if (isNew) return name;
  for (int number = first->second + 1;; ++number) {
    std::string numbered = NumberedName(name, number);
    if (number >= MostNumbers || FClaimed.try_emplace(Key(numbered), 1).second) {
      FClaimed[Key(name)] = number;
      return numbered;
    }
  }
}

int TTargetTree::CreatePartial(THandle& handle) {
  for (int attempt = 0;; ++attempt) {
    handle = THandle(::openat(Here(), PartialName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (handle.Valid()) return 0;
    if (errno != EEXIST || attempt > 0) return errno;
    // Left behind by a run that was killed.
    if (::unlinkat(Here(), PartialName, 0) != 0) return errno;
  }
}

int TTargetTree::Finish(const std::string& name, bool replace) {
  if (!replace) return MoveToFreeName(Here(), PartialName, name.c_str());
  if (IsSource(name)) return EEXIST;
  return ::renameat(Here(), PartialName, Here(), name.c_str()) == 0 ? 0 : errno;
}

std::string TTargetTree::KeepPartial(const std::string& name) {
  struct stat status {};
  const bool empty = ::fstatat(Here(), PartialName, &status, AT_SYMLINK_NOFOLLOW) == 0 && status.st_size == 0;
  if (empty) {
    ::unlinkat(Here(), PartialName, 0);
    return name;
  }
  const std::string wanted = WithSuffix(name, ".partial");
  std::string given = wanted;
  for (int number = 2; number < MostNumbers; ++number) {
    const int error = MoveToFreeName(Here(), PartialName, given.c_str());
    if (error == 0) return given;
    if (error != EEXIST) break;
    given = NumberedName(wanted, number);
  }
  return PartialName;
}

THandle TTargetTree::OpenFile(const std::string& name) const {
  return THandle(::openat(Here(), name.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace brenlow
