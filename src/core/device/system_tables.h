// SPDX-License-Identifier: GPL-3.0-or-later
// What the kernel reports of mounts and block devices in /proc and /sys. `root` is the folder above both:
// empty for the system itself, another one in tests.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace brenlow {

/// A line of /proc/self/mountinfo (proc(5)), its escapes undone.
struct TMount {
  int Id = -1;
  dev_t Device = 0;    ///< st_dev of its files, but for file systems with numbers of their own
  std::string Point;   ///< where it is mounted
  std::string Type;    ///< "ext4"
  std::string Source;  ///< "/dev/sda1", or whatever the file system calls it
  /// Options of the file system itself, separated by commas. Escapes are left in, as values may hold commas.
  std::string Options;
};

std::vector<TMount> ReadMounts(const std::string& root = "");

/// Undoes octal escapes ("\040" for a blank).
std::string WithoutOctalEscapes(const std::string& text);

/// "8:1" as a device number; 0 when it is none.
dev_t DeviceNumber(const std::string& text);

/// The folder of a block device in sysfs; empty when there is none.
std::filesystem::path SysfsFolder(dev_t device, const std::string& root = "");

/// First line of a small system file, without blanks at its ends; empty when it cannot be read.
std::string ReadLine(const std::filesystem::path& path);
/// The number in it; 0 when there is none.
std::int64_t ReadInteger(const std::filesystem::path& path);

/// The kernel counts sizes and starts of block devices in units of 512 bytes, whatever the sector size.
inline constexpr std::int64_t SysfsUnit = 512;

}  // namespace brenlow
