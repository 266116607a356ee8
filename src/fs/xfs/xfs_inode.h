// SPDX-License-Identifier: GPL-3.0-or-later
// One inode: its core, and where its fork says that the content lies.
//
// Format facts: "XFS Algorithms & Data Structures" (On-disk Inode, Data Fork, B+tree Extent List).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "core/datetime.h"
#include "fs/file_type.h"
#include "fs/xfs/xfs_layout.h"

namespace brenlow::xfs {

enum TInodeFormat : std::uint8_t {
  XFS_DINODE_FMT_DEV,
  XFS_DINODE_FMT_LOCAL,
  XFS_DINODE_FMT_EXTENTS,
  XFS_DINODE_FMT_BTREE,
  XFS_DINODE_FMT_UUID,
  XFS_DINODE_FMT_RMAP,
};

struct TInodeCore {
  std::int64_t SectorNumber = -1;  ///< from the volume's start
  std::uint8_t Version = 0;
  std::int64_t InodeNumber = NoInode;  ///< stated from version 3 on
  TFileType FileType = TFileType::ftUnknown;
  std::int64_t Size = 0;    ///< bytes
  TDateTime dtCreated = 0;  ///< before version 3 there is none: the last change of the inode
  TDateTime dtModified = 0;
  TDateTime dtAccessed = 0;
  TDateTime dtMetadataModified = 0;
  TInodeFormat DataForkFormat = XFS_DINODE_FMT_DEV;
  std::int64_t DataForkCount = 0;  ///< blocks of the file, those of its trees included
  std::uint32_t DataExtentCount = 0;
  std::array<std::uint8_t, 16> UUID{};
  std::uint16_t Mode = 0;  ///< 0 for a free inode
  std::uint32_t Links = 0;
  std::uint32_t Generation = 0;  ///< differs between the files that had a number one after the other
  bool RealTime = false;         ///< the content lies on the real-time device
  bool HasAttributes = false;    ///< part of `DataForkCount` may be theirs
};

/// Reads the core at the start of the bytes. False when there is none.
bool ReadInodeCore(TBytes inode, TInodeCore& core);

/// The fork of the content: from the end of the core to the fork of the attributes, or the end of the bytes.
TBytes DataFork(TBytes inode);

/// A run of blocks of a file.
struct TExtent {
  std::int64_t Offset = 0;  ///< blocks of the file before it
  std::int64_t Block = 0;   ///< block number of the file system
  std::uint32_t Count = 0;
  bool Unwritten = false;  ///< reads as zeros
};
using TExtents = std::vector<TExtent>;

/// Unpacks a record of 16 bytes.
TExtent UnpackExtent(TBytes record);
/// True for an extent that lies in the volume, in one group.
bool IsPlausible(const TXFSInfo& info, const TExtent& extent);
/// The records at the start of a free inode's fork that can be extents one after the other: freeing leaves them
/// there, but not their count.
TExtents LeftoverExtents(const TXFSInfo& info, TBytes fork);

/// Reads a block of the file system by its number; empty when that leads nowhere.
using TReadBlock = std::function<TByteDynArray(std::int64_t block)>;

/// The extents of a fork, in file order. False when some of them could not be had: a block of the tree is gone,
/// or belongs to another file.
bool ReadExtents(const TXFSInfo& info, TBytes inode, const TInodeCore& core, const TReadBlock& readBlock,
                 TExtents& extents);

}  // namespace brenlow::xfs
