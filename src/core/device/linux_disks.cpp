// SPDX-License-Identifier: GPL-3.0-or-later
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "core/device/system_disks.h"

namespace brenlow {
namespace {

namespace fs = std::filesystem;

/// First line of a small system file, without blanks at its ends; empty when it cannot be read.
std::string ReadLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  const std::size_t first = line.find_first_not_of(" \t");
  const std::size_t last = line.find_last_not_of(" \t");
  return first == std::string::npos ? std::string() : line.substr(first, last - first + 1);
}

std::int64_t ReadInteger(const fs::path& path) {
  const std::string line = ReadLine(path);
  std::int64_t value = 0;
  std::from_chars(line.data(), line.data() + line.size(), value);
  return value;
}

// The kernel counts sizes and starts of block devices in 512-byte units, whatever the sector size.
constexpr std::int64_t SysfsUnit = 512;

/// The folder of a block device in sysfs, by device number; empty when there is none.
fs::path SysfsFolder(dev_t device) {
  std::error_code error;
  const fs::path link = "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
  return fs::canonical(link, error);
}

/// "sda" for both /sys/.../sda and /sys/.../sda/sda1; empty for an empty folder.
std::string WholeDiskName(const fs::path& folder) {
  return fs::exists(folder / "partition") ? folder.parent_path().filename().string() : folder.filename().string();
}

/// Undoes the octal escapes of /proc/self/mountinfo.
std::string Unescape(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      out += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace

std::vector<TSystemDisk> ListSystemDisks() {
  std::vector<TSystemDisk> disks;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/sys/block", error)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with("loop") || name.starts_with("ram") || name.starts_with("zram")) continue;
    TSystemDisk disk;
    disk.Size = ReadInteger(entry.path() / "size") * SysfsUnit;
    if (disk.Size == 0) continue;
    disk.Path = "/dev/" + name;
    std::replace(disk.Path.begin(), disk.Path.end(), '!', '/');  // sysfs writes cciss/c0d0 with '!'
    disk.Model = ReadLine(entry.path() / "device/model");
    if (disk.Model.empty()) disk.Model = ReadLine(entry.path() / "device/name");
    disk.Serial = ReadLine(entry.path() / "device/serial");
    if (disk.Serial.empty()) disk.Serial = ReadLine(entry.path() / "serial");
    const auto sectorSize = ReadInteger(entry.path() / "queue/logical_block_size");
    disk.SectorSize = sectorSize > 0 ? static_cast<int>(sectorSize) : 512;
    disk.Removable = ReadInteger(entry.path() / "removable") != 0;
    disks.push_back(std::move(disk));
  }
  std::sort(disks.begin(), disks.end(), [](const TSystemDisk& a, const TSystemDisk& b) { return a.Path < b.Path; });
  return disks;
}

std::vector<TMountedVolume> ListMountedVolumes() {
  std::vector<TMountedVolume> volumes;
  std::set<std::string> seen;
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    // proc(5): id, parent, major:minor, root, mount point, options, tags ... "-", type, source
    std::istringstream fields(line);
    std::string id, parent, device, root, point, word;
    fields >> id >> parent >> device >> root >> point;
    while (fields >> word && word != "-") {
    }
    std::string type, source;
    fields >> type >> source;
    if (!source.starts_with("/dev/") || !seen.insert(device).second) continue;
    std::error_code error;
    const fs::path folder = fs::canonical("/sys/dev/block/" + device, error);
    if (error) continue;
    TMountedVolume volume;
    volume.DiskPath = "/dev/" + WholeDiskName(folder);
    volume.DevicePath = "/dev/" + folder.filename().string();
    volume.MountPoint = Unescape(point);
    volume.StartByte = ReadInteger(folder / "start") * SysfsUnit;
    volume.Size = ReadInteger(folder / "size") * SysfsUnit;
    volume.Removable = ReadInteger(fs::path("/sys/block") / WholeDiskName(folder) / "removable") != 0;
    volumes.push_back(std::move(volume));
  }
  return volumes;
}

bool LiesOnSource(const std::string& folder, const std::string& source) {
  struct stat target {};
  struct stat origin {};
  if (::stat(folder.c_str(), &target) != 0 || ::stat(source.c_str(), &origin) != 0) return false;
  const fs::path targetFolder = SysfsFolder(target.st_dev);
  if (!S_ISBLK(origin.st_mode)) {
    // An image file may be mounted through a loop device.
    std::error_code error;
    const std::string backing = ReadLine(fs::path("/sys/block") / WholeDiskName(targetFolder) / "loop/backing_file");
    return !backing.empty() && fs::equivalent(backing, source, error);
  }
  if (target.st_dev == origin.st_rdev) return true;
  const fs::path originFolder = SysfsFolder(origin.st_rdev);
  if (targetFolder.empty() || originFolder.empty()) return false;
  // A partition and its disk overlap; two partitions of one disk do not.
  const bool bothPartitions = fs::exists(targetFolder / "partition") && fs::exists(originFolder / "partition");
  return !bothPartitions && WholeDiskName(targetFolder) == WholeDiskName(originFolder);
}

}  // namespace brenlow
