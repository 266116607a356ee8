// SPDX-License-Identifier: GPL-3.0-or-later
// The records of a volume, joined to rows.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/file_records.h"
#include "fs/apfs/apfs_tree.h"

namespace brenlow::apfs {

inline constexpr std::int64_t RootFolder = 2;  // object ID

/// Objects of different volumes have the same numbers: rows name them by number and volume.
constexpr int VolumeShift = 48;
constexpr std::int64_t RowKey(std::size_t volume, std::int64_t id) {
  constexpr std::int64_t mask = (std::int64_t{1} << VolumeShift) - 1;
  return (static_cast<std::int64_t>(volume) << VolumeShift) | (id & mask);
}
constexpr std::size_t VolumeOfKey(std::int64_t key) { return static_cast<std::size_t>(key >> VolumeShift); }
constexpr std::int64_t ObjectOfKey(std::int64_t key) { return key & ((std::int64_t{1} << VolumeShift) - 1); }

/// Gets every row; false ends the walk.
using TRowSink = std::function<bool(const TFileInfo&, std::int64_t parentCluster)>;

class TWalk {
 public:
  TWalk(TEngine& engine, const TDriveInfo& drive, int driveNumber, TRowSink rows)
      : FEngine(engine), FDrive(drive), FDriveNumber(driveNumber), FRows(std::move(rows)) {}

  /// The volume's folder, and what is in it. `noted` is called for each inode. False when it was stopped.
  bool WalkVolume(std::size_t volume, bool rootOnly, const std::function<bool()>& noted);

 private:
  struct TDirEntry {
    std::int64_t ID = 0;
    std::int64_t ParentID = 0;
    std::int64_t Place = 0;
    std::string Name;
    TFileType FileType = TFileType::ftUnknown;
  };
  struct TKnown {
    TInode Inode;
    std::int64_t Place = 0;
    bool Reached = false;
  };
  bool EnterRoot(std::size_t volume);
  bool Collect(std::size_t volume, const std::function<bool()>& noted);
  bool EnterFolder(std::size_t volume, std::int64_t folder);
  bool EnterUnreached(std::size_t volume);
  bool Enter(std::size_t volume, std::int64_t id, std::int64_t parent, std::string_view name, std::int64_t place,
             const TInode* inode, TFileType type, bool deleted);

  TEngine& FEngine;
  const TDriveInfo& FDrive;
  int FDriveNumber;
  TRowSink FRows;
  std::vector<TDirEntry> FEntries;  // by parent: so the tree has them
  std::unordered_map<std::int64_t, TKnown> FInodes;
  std::deque<std::int64_t> FWaiting;
  bool FRootOnly = false;  // then what lies in the root folders of the volumes is the root of the listing
};

/// The bytes of an attribute in its record or, when they are few, in a stream of its own; empty where they cannot
/// be had.
TByteDynArray AttributeBytes(const TTrees& trees, const TAPFSVolume& volume, std::int64_t inode, std::string_view name);

}  // namespace brenlow::apfs
