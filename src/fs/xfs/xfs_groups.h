// SPDX-License-Identifier: GPL-3.0-or-later
// The trees of an allocation group: which blocks are free, and where inodes lie.
//
// Format facts: "XFS Algorithms & Data Structures" (Allocation Groups, AG Free Space B+trees, Inode B+trees).
#pragma once

#include <cstdint>
#include <vector>

#include "core/drive_records.h"
#include "fs/xfs/xfs_layout.h"

namespace brenlow {
class TEngine;
}

namespace brenlow::xfs {

/// 64 inodes with numbers one after the other.
struct TInodeChunk {
  std::int64_t FirstInode = 0;
  std::uint64_t Free = 0;    ///< a bit for each inode that is not in use
  std::uint64_t Absent = 0;  ///< a bit for each one that has no room on the disk
};

class TGroups {
 public:
  TGroups(TEngine& engine, const TDriveInfo& drive) : FEngine(engine), FDrive(drive), FInfo(XFSInfo(drive)) {}

  /// Appends the free blocks of a group, ascending. False when some of the tree could not be read.
  bool ReadFreeBlocks(std::uint32_t group, std::vector<TBlockRange>& result);
  /// Appends the chunks of a group, ascending. False when some of the tree could not be read.
  bool ReadChunks(std::uint32_t group, std::vector<TInodeChunk>& result);
  /// Length in blocks that the header of a group states; 0 when there is no header.
  std::int64_t StatedLength(std::uint32_t group);

 private:
  struct TTree;
  template <typename TSink>
  bool WalkTree(const TTree& tree, std::uint32_t root, int level, TSink&& sink);
  TByteDynArray ReadHeader(std::uint32_t group, std::uint32_t sector, std::uint32_t mark);
  TByteDynArray ReadBlock(std::uint32_t group, std::uint32_t block);

  TEngine& FEngine;
  const TDriveInfo& FDrive;
  const TXFSInfo& FInfo;
};

/// Reads the free space of all groups into the drive's record, once.
void FillFreeBlocks(TEngine& engine, TDriveInfo& drive);
/// True when all blocks of the range are free. `known`, when given, tells whether the trees that say so could be read.
bool IsFree(const TXFSInfo& info, const TBlockRange& range, bool* known = nullptr);

}  // namespace brenlow::xfs
