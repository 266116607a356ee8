// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/device/source_guard.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <utility>

#include "core/device/system_tables.h"

namespace brenlow {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t MostRanges = 4096;  // of one ground; ends a walk in a circle
constexpr int MostLinks = 40;             // that lead from one to the next, as the kernel has it

bool IsBlockDevice(const TFileIdentity& identity) { return identity.FileSystem == 0; }
dev_t NumberOf(const TFileIdentity& device) { return static_cast<dev_t>(device.Node); }

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> parts(1);
  for (std::size_t i = 0; i < text.size(); ++i) {
    // Overlay file systems write a separator that belongs to a name after a backslash.
    if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == separator) {
      parts.back() += text[++i];
    } else if (text[i] == separator) {
      parts.emplace_back();
    } else {
      parts.back() += text[i];
    }
  }
  return parts;
}

class TGroundWalk {
 public:
  explicit TGroundWalk(const std::string& systemRoot) : FRoot(systemRoot), FMounts(ReadMounts(systemRoot)) {}

  TGround Walk(const TFileIdentity& identity) {
    Add({identity});
    FGround.Own = FGround.All;
    for (std::size_t i = 0; i < FGround.All.size() && FGround.All.size() < MostRanges; ++i) {
      const TFileIdentity base = FGround.All[i].Base;
      if (IsBlockDevice(base)) {
        AddMembers(base);
      } else {
        AddFileSystem(base);
      }
    }
    return std::move(FGround);
  }

 private:
  void Add(TGroundRange range) {
    range = Resolved(range);
    if (std::find(FGround.All.begin(), FGround.All.end(), range) == FGround.All.end()) FGround.All.push_back(range);
  }

  /// A range of a partition as one of its disk, a range of a loop device as one of its file.
  TGroundRange Resolved(TGroundRange range) const {
    for (int depth = 0; depth < MostLinks && IsBlockDevice(range.Base); ++depth) {
      const fs::path folder = SysfsFolder(NumberOf(range.Base), FRoot);
      if (folder.empty()) break;
      std::error_code error;
      if (fs::exists(folder / "partition", error)) {
        const std::int64_t start = ReadInteger(folder / "start") * SysfsUnit;
        const std::int64_t size = ReadInteger(folder / "size") * SysfsUnit;
        Move(range, start, size);
        range.Base = {0, DeviceNumber(ReadLine(folder.parent_path() / "dev"))};
      } else if (const auto file = BackingFile(folder); file) {
        Move(range, ReadInteger(folder / "loop/offset"), ReadInteger(folder / "loop/sizelimit"));
        range.Base = *file;
      } else {
        break;
      }
    }
    return range;
  }

  /// Takes a range of a part to the whole that the part begins in at `start`; `size` 0 is up to the end.
  static void Move(TGroundRange& range, std::int64_t start, std::int64_t size) {
    if (size > 0) range.End = std::min(range.End, size);
    range.Start += start;
    if (range.End < INT64_MAX - start) range.End += start;
  }

  /// The file below a loop device.
  std::optional<TFileIdentity> BackingFile(const fs::path& folder) const {
    const std::string path = ReadLine(folder / "loop/backing_file");
    if (path.empty()) return std::nullopt;
    std::optional<TFileIdentity> file = IdentityOf(FRoot + path);
    // A path says little once the file was moved, or mounted in another name space: the kernel knows better.
    loop_info64 info{};
    const int handle =
        FRoot.empty() ? ::open(("/dev/" + folder.filename().string()).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1;
    if (handle < 0) return file;
    if (::ioctl(handle, LOOP_GET_STATUS64, &info) == 0 && info.lo_inode != 0) {
      const TFileIdentity told{info.lo_device, info.lo_inode};
      if (!file || *file != told) file = told;
    }
    ::close(handle);
    return file;
  }

  /// The devices that a device-mapper or RAID device consists of.
  void AddMembers(const TFileIdentity& device) {
    const fs::path folder = SysfsFolder(NumberOf(device), FRoot);
    if (folder.empty()) return;
    std::error_code error;
    for (const auto& member : fs::directory_iterator(folder / "slaves", error)) {
      if (const dev_t number = DeviceNumber(ReadLine(member.path() / "dev")); number != 0) Add({{0, number}});
    }
  }

  const TMount* MountOf(const TFileIdentity& file) const {
    const auto by = [&](auto&& fits) {
      const auto found = std::find_if(FMounts.begin(), FMounts.end(), fits);
      return found == FMounts.end() ? nullptr : &*found;
    };
    const TMount* mount = by([&](const TMount& m) { return file.Mount >= 0 && m.Id == file.Mount; });
    return mount != nullptr ? mount : by([&](const TMount& m) { return m.Device == file.FileSystem; });
  }

  /// What the file system of a file lies on.
  void AddFileSystem(const TFileIdentity& file) {
    // Numbers below major 1 do not belong to a device; btrfs and overlay file systems have such numbers.
    if (major(static_cast<dev_t>(file.FileSystem)) != 0) {
      Add({{0, file.FileSystem}});
      return;
    }
    const TMount* mount = MountOf(file);
    if (mount == nullptr) return;
    // A device, an image file or a folder; several where the file system spans them.
    if (!AddPath(mount->Source)) {
      for (const std::string& part : Split(mount->Source, ':')) AddPath(part);
    }
    if (mount->Type == "btrfs") AddBtrfsDevices(mount->Source);
    if (mount->Type == "overlay") AddOverlaySides(mount->Options, file);
  }

  bool AddPath(const std::string& path) {
    const auto node = NodeOf(path);
    if (node) Add({*node});
    return node.has_value();
  }

  /// What a path of the kernel's tables leads to. Device files may be missing in containers; sysfs then
  /// has their numbers.
  std::optional<TFileIdentity> NodeOf(const std::string& path) const {
    if (!path.starts_with('/')) return std::nullopt;
    if (const auto identity = IdentityOf(FRoot + path)) return identity;
    const std::string name = path.substr(path.rfind('/') + 1);
    const dev_t number = DeviceNumber(ReadLine(FRoot + "/sys/class/block/" + name + "/dev"));
    return number == 0 ? std::nullopt : std::optional(TFileIdentity{0, number});
  }

  /// The mount names one device of the file system only; sysfs has all of them in a folder.
  void AddBtrfsDevices(const std::string& source) {
    const auto first = NodeOf(source);
    if (!first) return;
    std::error_code error;
    for (const auto& system : fs::directory_iterator(FRoot + "/sys/fs/btrfs", error)) {
      std::vector<TFileIdentity> devices;
      std::error_code none;
      for (const auto& device : fs::directory_iterator(system.path() / "devices", none)) {
        if (const dev_t number = DeviceNumber(ReadLine(device.path() / "dev"))) devices.push_back({0, number});
      }
      if (std::find(devices.begin(), devices.end(), *first) == devices.end()) continue;
      for (const TFileIdentity& device : devices) Add({device});
    }
  }

  /// The folders that an overlay is made of. A file that only one of them has keeps its inode number, so the
  /// files of that number on their file systems may be the same file.
  void AddOverlaySides(const std::string& options, const TFileIdentity& file) {
    for (const std::string& option : Split(options, ',')) {
      const std::size_t equals = option.find('=');
      const bool isSide = option.starts_with("lowerdir") || option.starts_with("upperdir");
      if (equals == std::string::npos || !isSide) continue;
      for (const std::string& path : Split(WithoutOctalEscapes(option.substr(equals + 1)), ':')) {
        const auto side = NodeOf(path);
        if (!side) continue;
        Add({*side});
        Add({{side->FileSystem, file.Node, side->Mount}});
      }
    }
  }

  std::string FRoot;
  std::vector<TMount> FMounts;
  TGround FGround;
};

bool Overlap(const std::vector<TGroundRange>& a, const std::vector<TGroundRange>& b) {
  return std::any_of(a.begin(), a.end(), [&](const TGroundRange& range) {
    return std::any_of(b.begin(), b.end(), [&](const TGroundRange& other) { return range.Overlaps(other); });
  });
}

/// The nearest thing that is there: the path itself, what its links lead to, or a folder above that.
fs::path NearestThere(const std::string& path) {
  std::error_code error;
  fs::path at = fs::absolute(path, error);
  for (int links = 0; !at.empty();) {
    if (fs::exists(at, error)) return at;
    if (fs::is_symlink(fs::symlink_status(at, error)) && ++links < MostLinks) {
      at = at.parent_path() / fs::read_symlink(at, error);
    } else if (at.has_relative_path()) {
      at = at.parent_path();
    } else {
      break;
    }
  }
  return {};
}

}  // namespace

TGround GroundOf(const TFileIdentity& identity, const std::string& systemRoot) {
  return TGroundWalk(systemRoot).Walk(identity);
}

void TSourceGuard::Add(const IDevice& device, bool withFileSystems) {
  std::vector<TFileIdentity> origins;
  device.AddOrigins(origins);
  for (const TFileIdentity& origin : origins) Add(origin, withFileSystems);
}

void TSourceGuard::Add(const TFileIdentity& origin, bool withFileSystems) {
  const TGround ground = GroundOf(origin, FSystemRoot);
  if (withFileSystems) FOwn.insert(FOwn.end(), ground.Own.begin(), ground.Own.end());
  FAll.insert(FAll.end(), ground.All.begin(), ground.All.end());
}

/// True when its bytes are bytes of a source, or of what a source is stored on.
bool TSourceGuard::IsSource(const TFileIdentity& identity) const {
  if (IsBlockDevice(identity)) return Overlap(GroundOf(identity, FSystemRoot).Own, FAll);
  return Overlap({{identity}}, FAll);
}

bool TSourceGuard::IsSource(const std::string& path) const {
  const auto identity = IdentityOf(path);
  return identity && IsSource(*identity);
}

bool TSourceGuard::IsSource(int folder, const std::string& name) const {
  if (FAll.empty()) return false;
  struct stat status {};
  for (const int flags : {AT_SYMLINK_NOFOLLOW, 0}) {
    if (::fstatat(folder, name.c_str(), &status, flags) != 0) return false;
    const bool isDevice = S_ISBLK(status.st_mode);
    const TFileIdentity identity{isDevice ? 0 : status.st_dev, isDevice ? status.st_rdev : status.st_ino};
    if (IsSource(identity)) return true;
    if (!S_ISLNK(status.st_mode)) break;
  }
  return false;
}

bool TSourceGuard::LiesOnSource(const std::string& path) const {
  const auto identity = IdentityOf(NearestThere(path).string());
  return identity && LiesOnSource(*identity);
}

bool TSourceGuard::LiesOnSource(const TFileIdentity& there) const {
  return !FOwn.empty() && Overlap(GroundOf(there, FSystemRoot).All, FOwn);
}

}  // namespace brenlow
