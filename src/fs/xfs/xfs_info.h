// SPDX-License-Identifier: GPL-3.0-or-later
// What the XFS driver keeps of one drive.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "core/drive_records.h"
#include "core/types.h"

namespace brenlow {

namespace xfs {

/// Blocks from `First` to before `End`, counted through from the volume's start.
struct TBlockRange {
  std::int64_t First = 0;
  std::int64_t End = 0;
};

/// An earlier state of an inode: of a file that was deleted. Rows name it by `TFileInfo::JournalPosition`.
struct TOldInode {
  std::int64_t Inode = 0;
  std::int64_t Place = -1;  ///< byte of the volume where it lies; -1 for one that only the log had
  TByteDynArray Image;      ///< as it was on the disk, put together from the log
  /// Extents that are known to be its own; -1 for as many as the inode says, or as are plausible in a free one.
  std::int32_t Extents = -1;
  bool Superseded = false;  ///< a file that was deleted later had some of its blocks
};

}  // namespace xfs

/// Counts are those of the superblock; block numbers with bits for the allocation group above those for the
/// block in it.
struct TXFSInfo {
  std::int64_t SuperBlockSector = 0;  ///< from the volume's start; above 0 for a copy
  std::uint8_t Version = 0;
  std::int64_t TotalBlockCount = 0;
  std::int64_t FreeBlockCount = 0;
  std::int64_t AllocatedInodes = 0;
  std::uint32_t BlockSize = 0;  ///< bytes
  std::uint32_t AGSize = 0;     ///< blocks
  std::uint32_t AGCount = 0;
  std::uint16_t InodeSize = 0;  ///< bytes
  std::uint16_t InodesPerBlock = 0;
  std::int64_t RootInode = 0;
  std::uint32_t DirectoryBlocks = 0;   ///< blocks of a directory block
  std::uint8_t BlockRelativePart = 0;  ///< bits of a block number within a group
  std::uint8_t InodeRelativePart = 0;  ///< bits of an inode number within a group
  std::int64_t JournalBlock = 0;       ///< 0 for a log on another device
  std::uint32_t JournalSize = 0;       ///< blocks
  std::array<std::uint8_t, 16> MetaUUID{};
  bool FlagInodeTypeInDir = false;

  std::uint32_t SectorSize = 0;            ///< bytes, in which the headers of a group are counted
  bool SparseInodes = false;               ///< chunks may lack some of their inodes
  std::int64_t RealTimeBlocks = 0;         ///< above 0: files may lie on another device
  std::vector<std::int64_t> SystemInodes;  ///< ascending: bitmaps of the real-time device, quotas

  /// Free space as the groups' trees have it, ascending and apart; read when first needed.
  std::vector<xfs::TBlockRange> FreeBlocks;
  std::vector<std::uint32_t> GroupsWithoutFreeBlocks;  ///< whose tree is damaged
  std::uint32_t GroupsRead = 0;  ///< from the first on; those beyond the end of the device are not known
  bool IsFreeFilled = false;
  /// By `TFileInfo::JournalPosition` - 1.
  std::vector<xfs::TOldInode> OldInodes;
};

inline TXFSInfo& XFSInfo(TDriveInfo& drive) { return drive.Systems.Get<TXFSInfo>(); }
inline const TXFSInfo& XFSInfo(const TDriveInfo& drive) { return drive.Systems.Get<TXFSInfo>(); }

}  // namespace brenlow
