// SPDX-License-Identifier: GPL-3.0-or-later
// The disks and mounted volumes that the operating system knows.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace brenlow {

struct TSystemDisk {
  std::string Path;   ///< "/dev/sda"
  std::string Model;  ///< empty when not known
  std::string Serial;
  std::int64_t Size = 0;  ///< bytes
  int SectorSize = 512;   ///< logical, bytes
  bool Removable = false;
  std::uint64_t Sequence = 0;  ///< differs after the device was gone in between; 0 when not known
};

/// Whole disks of the machine, by name; loop, RAM and empty devices are left out.
std::vector<TSystemDisk> ListSystemDisks();

struct TMountedVolume {
  std::string DiskPath;    ///< the whole disk, or the device itself when it is not a partition
  std::string DevicePath;  ///< the mounted device
  std::string MountPoint;
  std::int64_t StartByte = 0;  ///< of the volume on its disk
  std::int64_t Size = 0;       ///< bytes
  bool Removable = false;
};

/// Mounted file systems that lie on block devices, each device once.
std::vector<TMountedVolume> ListMountedVolumes();

/// Where the registry of drives learns of the system's devices. Tests put lists of their own in.
struct TSystemLists {
  std::function<std::vector<TSystemDisk>()> Disks = ListSystemDisks;
  std::function<std::vector<TMountedVolume>()> MountedVolumes = ListMountedVolumes;
};

}  // namespace brenlow
