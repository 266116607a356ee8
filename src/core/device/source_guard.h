// SPDX-License-Identifier: GPL-3.0-or-later
// Sources are never written. Whoever creates, replaces, renames over, truncates or opens something for
// writing asks here first.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "core/device/device.h"

namespace brenlow {

/// Bytes of a file or of a device that is not stored on anything else.
struct TGroundRange {
  TFileIdentity Base;
  std::int64_t Start = 0;
  std::int64_t End = INT64_MAX;
  bool operator==(const TGroundRange&) const = default;
  bool Overlaps(const TGroundRange& other) const {
    return Base == other.Base && Start < other.End && other.Start < End;
  }
};

/// What a file or device is stored on, all the way down: loop devices on files, files on the devices of their
/// file systems, partitions on disks, device-mapper and RAID devices on their members.
struct TGround {
  std::vector<TGroundRange> Own;  ///< its own bytes, all of them
  std::vector<TGroundRange> All;  ///< these, and everything that some of its bytes lie within
};

/// Follows `identity` down by what the kernel reports. `systemRoot`: the folder above /proc and /sys, empty for
/// the system itself.
TGround GroundOf(const TFileIdentity& identity, const std::string& systemRoot = "");

/// Knows what the sources of a run read from, and says of any path whether writing there would change it.
/// A value: it stays as it was when the sources change.
class TSourceGuard {
 public:
  /// The errno with which writers refuse.
  static constexpr int Refused = ETXTBSY;

  explicit TSourceGuard(std::string systemRoot = "") : FSystemRoot(std::move(systemRoot)) {}

  /// Another source. Without `withFileSystems` it is guarded itself, while files may be written to file
  /// systems on it.
  void Add(const IDevice& device, bool withFileSystems = true);
  void Add(const TFileIdentity& origin, bool withFileSystems = true);

  /// True when the path leads, through links, to something that a source reads from, or to a device below
  /// it: opening that for writing or replacing it would destroy the source.
  bool IsSource(const std::string& path) const;
  /// The same for a name in an open folder, where the link itself counts as well as what it leads to.
  bool IsSource(int folder, const std::string& name) const;
  /// True when what is written at the path would end up on a source: the file system there is on it, however
  /// far down. What does not exist yet is judged by the nearest folder above it.
  bool LiesOnSource(const std::string& path) const;
  /// The same questions of something that is there.
  bool LiesOnSource(const TFileIdentity& there) const;
  bool IsSource(const TFileIdentity& there) const;
  /// Either of the two.
  bool Forbids(const std::string& path) const { return IsSource(path) || LiesOnSource(path); }

 private:
  std::string FSystemRoot;
  std::vector<TGroundRange> FOwn;  // of all sources
  std::vector<TGroundRange> FAll;
};

}  // namespace brenlow
