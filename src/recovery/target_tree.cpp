// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/target_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string_view>
#include <utility>

#include "core/device/caller.h"
#include "core/text.h"
#include "recovery/safe_name.h"

namespace brenlow {
namespace {

constexpr int MaxNumbers = 1'000'000;  // of one name in one folder
constexpr int MaxAttempts = 100;       // at names that others may take or remove meanwhile

// File system types as statfs reports them (linux/magic.h; exFAT and ntfs3 from their drivers).
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

std::string UniqueName() {
  static std::random_device random;
  char number[32];
  std::snprintf(number, sizeof number, "-%d-%08x", static_cast<int>(::getpid()), static_cast<unsigned>(random()));
  return TTargetTree::PartialPrefix + std::string(number);
}

/// True for a name that `UniqueName` gives, and for the one name of older versions.
bool IsNameOfPartial(std::string_view name) {
  if (!name.starts_with(TTargetTree::PartialPrefix)) return false;
  name.remove_prefix(std::string_view(TTargetTree::PartialPrefix).size());
  if (name.empty()) return true;
  const std::size_t digits = name.find_first_not_of("0123456789", 1);
  if (name.front() != '-' || digits == std::string_view::npos || digits == 1 || name[digits] != '-') return false;
  const std::string_view random = name.substr(digits + 1);
  return !random.empty() && random.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

/// The folders on the way to a path that are not there yet, the innermost first.
std::vector<std::string> MissingFolders(const std::string& path) {
  std::vector<std::string> missing;
  std::error_code error;
  std::filesystem::path at = std::filesystem::absolute(path, error).lexically_normal();
  if (!at.has_filename()) at = at.parent_path();
  for (; !std::filesystem::exists(at, error) && at.has_relative_path(); at = at.parent_path()) {
    missing.push_back(at.string());
  }
  return missing;
}

/// The path that a file without a name can be linked from.
std::string LinkPath(const THandle& file) { return "/proc/self/fd/" + std::to_string(file.Get()); }

/// True when the name in the folder still means the open file.
bool HasName(int folder, const std::string& name, const THandle& file) {
  struct stat named {
  }, open{};
  return ::fstatat(folder, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 && ::fstat(file.Get(), &open) == 0 &&
         named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

/// Removes what killed runs have left in a folder: files of our names that no living run has locked.
void RemoveLeftovers(int folder, const TSourceGuard& guard) {
  const int again = OpenFolder(folder, ".");
  DIR* entries = again < 0 ? nullptr : ::fdopendir(again);
  if (entries == nullptr) {
    if (again >= 0) ::close(again);
    return;
  }
  while (const dirent* entry = ::readdir(entries)) {
    const std::string name = entry->d_name;
    if (!IsNameOfPartial(name) || guard.IsSource(folder, name)) continue;
    struct stat status {};
    // A link cannot be locked; it has such a name only for the moment before it takes the place of another.
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode)) {
      ::unlinkat(folder, name.c_str(), 0);
      continue;
    }
    const THandle file(::openat(folder, name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const bool isFile = file.Valid() && ::fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode);
    if (isFile && ::flock(file.Get(), LOCK_EX | LOCK_NB) == 0) ::unlinkat(folder, name.c_str(), 0);
  }
  ::closedir(entries);
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

/// The same of a link in a folder, not of what it leads to.
void SetLinkTimes(int folder, const std::string& name, const TTimeStamp& times) {
  const std::timespec both[2] = {SystemTime(times.dtAccessed), SystemTime(times.dtModified)};
  ::utimensat(folder, name.c_str(), both, AT_SYMLINK_NOFOLLOW);
}

void SetTimes(int handle, const TTimeStamp& times) {
  const std::timespec both[2] = {SystemTime(times.dtAccessed), SystemTime(times.dtModified)};
  if (both[0].tv_nsec != UTIME_OMIT || both[1].tv_nsec != UTIME_OMIT) ::futimens(handle, both);
}

int TTargetTree::Open(const std::string& path, TSourceGuard guard, bool mayLieOnSource) {
  std::error_code error;
  Close();
  FGuard = std::move(guard);
  FMayLieOnSource = mayLieOnSource;
  if (!mayLieOnSource && FGuard.LiesOnSource(path)) return TSourceGuard::Refused;
  FMade = MissingFolders(path);
  if (const int missing = CreateFolders(path); missing != 0) return missing;
  // The user named this path: links in it are the user's own.
  THandle handle(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!handle.Valid()) return errno;
  if (::faccessat(handle.Get(), ".", W_OK, 0) != 0) return errno;
  const std::filesystem::path full = std::filesystem::canonical(path, error);
  FPath = error ? path : full.string();
  FRoot = std::move(handle);
  if (const int busy = TakeLock(); busy != 0) return busy;
  RemoveLeftovers(FRoot.Get(), FGuard);
  FFolders.assign(1, TFolder());
  FFolders[Root].ComesAgain = true;
  FClaimed.clear();
  FTaken.clear();
  FKeptClaims.clear();
  FSiblings.clear();
  LookAtFileSystem();
  return 0;
}

/// 0, also where the file system has no locks; EWOULDBLOCK when another run has it.
int TTargetTree::TakeLock() {
  if (FGuard.IsSource(FRoot.Get(), LockName)) return 0;
  for (int attempt = 0; attempt < MaxAttempts; ++attempt) {
    THandle lock(OpenOrCreate(FRoot.Get(), LockName, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
    if (!lock.Valid()) return 0;
    if (::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return EWOULDBLOCK;
    // A run that has just ended removed its lock file: then this is no longer the one that counts.
    if (!HasName(FRoot.Get(), LockName, lock)) continue;
    FLock = std::move(lock);
    return 0;
  }
  return 0;  // the file system's answers are of no use
}

void TTargetTree::Close() {
  DropPartial();
  struct stat status {};
  const bool isOurs = FLock.Valid() && ::fstat(FLock.Get(), &status) == 0 && S_ISREG(status.st_mode) &&
                      status.st_size == 0 && HasName(FRoot.Get(), LockName, FLock);
  if (isOurs) ::unlinkat(FRoot.Get(), LockName, 0);
  FLock.Close();
  FCurrent = TOpenFolder();
  FAbove = TOpenFolder();
  FRoot.Close();
  // What holds something stays.
  for (const std::string& folder : FMade) {
    if (::rmdir(folder.c_str()) != 0) break;
  }
  FMade.clear();
}

void TTargetTree::LookAtFileSystem() {
  const THandle file(::openat(FRoot.Get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  FHasUnnamedFiles = file.Valid() && ::access(LinkPath(file).c_str(), F_OK) == 0;
  struct statfs status {};
  const auto type = ::fstatfs(FRoot.Get(), &status) == 0 ? static_cast<long>(status.f_type) : 0L;
  // Both NTFS drivers show the attributes of Windows under this name; ntfs-3g is one of many
  // file systems of the type "fuse".
  FIsNTFS = type == NtfsType || type == Ntfs3Type || ::fgetxattr(FRoot.Get(), "system.ntfs_attrib", nullptr, 0) >= 0;
  FIsOfWindows = FIsNTFS || type == FatType || type == ExfatType;
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
  const auto [place, isNew] = FSiblings.try_emplace(Key(folder.Name), static_cast<TPlace>(FFolders.size()));
  if (isNew) {
    FFolders.push_back(std::move(folder));
  } else {
    FFolders[place->second].ComesAgain = true;
  }
  return place->second;
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
    if (handle.Valid() && !forbidden) {
      if (folder.IsNew && !folder.Entered) GiveNewFolderToCaller(handle.Get());
      break;
    }
    // Something else has the name (a file, a link, a source mounted there): another name is tried.
    const int error = forbidden ? TSourceGuard::Refused : errno;
    const bool isOther = forbidden || error == ENOTDIR || error == ELOOP;
    if (folder.Entered || !isOther || number >= MaxNumbers) return error;
  }
  if (!folder.Entered && !folder.IsNew) RemoveLeftovers(handle.Get(), FGuard);
  folder.Entered = true;
  return 0;
}

/// True for a folder on a different file system from the target's, where that one is on a source.
bool TTargetTree::IsForbidden(const THandle& folder) const {
  const auto here = IdentityOf(folder.Get());
  const auto root = IdentityOf(FRoot.Get());
  const bool isElsewhere = here && (!root || here->FileSystem != root->FileSystem || here->Mount != root->Mount);
  return isElsewhere && !FMayLieOnSource && FGuard.LiesOnSource(*here);
}

void TTargetTree::Leave() {
  DropPartial();
  if (FFolders[FCurrent.Place].ComesAgain) {
    FKeptClaims[FCurrent.Place] = std::move(FClaimed);
  }
  FClaimed.clear();
  FTaken.clear();
}

int TTargetTree::Enter(TPlace place) {
  if (place == FCurrent.Place) return 0;
  Leave();
  // Up to a folder that is open already, then down again.
  std::vector<TPlace> steps;
  TPlace at = place;
  while (at != Root && at != FCurrent.Place && at != FAbove.Place) {
    steps.push_back(at);
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
  for (; !steps.empty(); steps.pop_back()) {
    TOpenFolder next{steps.back(), THandle()};
    const int error =
        OpenBelow(above.Handle.Valid() ? above.Handle.Get() : FRoot.Get(), FFolders[next.Place], next.Handle);
    if (error != 0) return error;  // the root stays current
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
    if (isFree || number >= MaxNumbers) {
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
    if (number >= MaxNumbers || FClaimed.try_emplace(Key(numbered), 1).second) {
      FClaimed[Key(name)] = number;
      return numbered;
    }
  }
}

/// What was begun and never got a name.
void TTargetTree::DropPartial() {
  if (!FPartial.Name.empty()) ::unlinkat(Here(), FPartial.Name.c_str(), 0);
  FPartial = TPartial();
}

int TTargetTree::CreatePartial(THandle& handle) {
  DropPartial();
  if (FHasUnnamedFiles) {
    FPartial.Handle = THandle(::openat(Here(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666));
  }
  // Folders below the target may be other file systems.
  if (!FPartial.Handle.Valid()) {
    if (const int error = CreateNamed(); error != 0) return error;
  }
  GiveToCaller(FPartial.Handle.Get());
  // The caller closes its own descriptor, as some file systems report only then that they are full.
  handle = THandle(::fcntl(FPartial.Handle.Get(), F_DUPFD_CLOEXEC, 0));
  return handle.Valid() ? 0 : errno;
}

int TTargetTree::CreateNamed() {
  for (int attempt = 0; attempt < MaxAttempts; ++attempt) {
    const std::string name = UniqueName();
    THandle file(::openat(Here(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!file.Valid() && errno == EEXIST) continue;
    if (!file.Valid()) return errno;
    // Whoever cleans up leaves it alone from now on, and may have been there before.
    ::flock(file.Get(), LOCK_EX | LOCK_NB);
    if (!IsThere(Here(), name)) continue;
    FPartial = {std::move(file), name};
    return 0;
  }
  return EEXIST;
}

/// Puts the file that has no name yet under a unique one. 0, or the errno.
int TTargetTree::LinkBeside() {
  ::flock(FPartial.Handle.Get(), LOCK_EX | LOCK_NB);
  for (int attempt = 0; attempt < MaxAttempts; ++attempt) {
    const std::string name = UniqueName();
    const std::string path = LinkPath(FPartial.Handle);
    if (::linkat(AT_FDCWD, path.c_str(), Here(), name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      FPartial.Name = name;
      return 0;
    }
    if (errno != EEXIST) return errno;
  }
  return EEXIST;
}

/// Gives the file being written a name that nothing has. 0, or the errno.
int TTargetTree::GiveName(const std::string& name) {
  int error = 0;
  if (!FPartial.Name.empty()) {
    error = MoveToFreeName(Here(), FPartial.Name.c_str(), name.c_str());
  } else if (::linkat(AT_FDCWD, LinkPath(FPartial.Handle).c_str(), Here(), name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
    error = errno;
  }
  if (error == 0) FPartial = TPartial();
  return error;
}

int TTargetTree::Finish(const std::string& name, bool replace) {
  if (!replace) return GiveName(name);
  if (IsSource(name)) return EEXIST;
  // A link cannot take the place of what is there, a renaming can.
  if (FPartial.Name.empty()) {
    if (const int error = LinkBeside(); error != 0) return error;
  }
  if (::renameat(Here(), FPartial.Name.c_str(), Here(), name.c_str()) != 0) return errno;
  FPartial = TPartial();
  return 0;
}

int TTargetTree::MakeLink(const std::string& name, const std::string& leadsTo, bool replace, const TTimeStamp& times) {
  DropPartial();
  const bool takesPlace = replace && Exists(name);
  if (takesPlace && IsSource(name)) return EEXIST;
  const std::string made = takesPlace ? UniqueName() : name;
  if (::symlinkat(leadsTo.c_str(), Here(), made.c_str()) != 0) return errno;
  const THandle link(::openat(Here(), made.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  GiveToCaller(link.Get());
  SetLinkTimes(Here(), made, times);
  if (!takesPlace || ::renameat(Here(), made.c_str(), Here(), name.c_str()) == 0) return 0;
  const int error = errno;
  ::unlinkat(Here(), made.c_str(), 0);
  return error;
}

std::string TTargetTree::KeepPartial(const std::string& name) {
  struct stat status {};
  if (::fstat(FPartial.Handle.Get(), &status) == 0 && status.st_size == 0) {
    DropPartial();
    return name;
  }
  // A target that refuses the name has room for a plain one, which no later run takes for its own leftover.
  for (const std::string& wanted : {WithSuffix(name, ".partial"), std::string("unfinished.partial")}) {
    std::string given = wanted;
    for (int number = 2; number < MaxNumbers; ++number) {
      const int error = GiveName(given);
      if (error == 0) return given;
      if (error != EEXIST) break;
      given = NumberedName(wanted, number);
    }
  }
  const std::string own = FPartial.Name;
  FPartial = TPartial();
  return own.empty() ? name : own;
}

THandle TTargetTree::OpenFile(const std::string& name) const {
  return THandle(::openat(Here(), name.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace brenlow
