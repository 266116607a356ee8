// SPDX-License-Identifier: GPL-3.0-or-later
#include <algorithm>
#include <filesystem>
#include <set>

#include "core/device/system_disks.h"
#include "core/device/system_tables.h"

namespace brenlow {
namespace {

namespace fs = std::filesystem;

/// "sda" for both /sys/.../sda and /sys/.../sda/sda1; empty for an empty folder.
std::string WholeDiskName(const fs::path& folder) {
  return fs::exists(folder / "partition") ? folder.parent_path().filename().string() : folder.filename().string();
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
    disk.Sequence = static_cast<std::uint64_t>(ReadInteger(entry.path() / "diskseq"));  // Linux 5.15 and later
    disks.push_back(std::move(disk));
  }
  std::sort(disks.begin(), disks.end(), [](const TSystemDisk& a, const TSystemDisk& b) { return a.Path < b.Path; });
  return disks;
}

std::vector<TMountedVolume> ListMountedVolumes() {
  std::vector<TMountedVolume> volumes;
  std::set<dev_t> seen;
  for (const TMount& mount : ReadMounts()) {
    if (!mount.Source.starts_with("/dev/")) continue;
    const fs::path folder = SysfsFolder(mount.Device);
    if (folder.empty() || !seen.insert(mount.Device).second) continue;
    TMountedVolume volume;
    volume.DiskPath = "/dev/" + WholeDiskName(folder);
    volume.DevicePath = "/dev/" + folder.filename().string();
    volume.MountPoint = mount.Point;
    volume.StartByte = ReadInteger(folder / "start") * SysfsUnit;
    volume.Size = ReadInteger(folder / "size") * SysfsUnit;
    volume.Removable = ReadInteger(fs::path("/sys/block") / WholeDiskName(folder) / "removable") != 0;
    volumes.push_back(std::move(volume));
  }
  return volumes;
}

}  // namespace brenlow
