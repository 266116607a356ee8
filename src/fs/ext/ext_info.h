// SPDX-License-Identifier: GPL-3.0-or-later
// What the Ext2/3/4 driver keeps of one drive.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "core/datetime.h"
#include "core/drive_records.h"
#include "core/types.h"

namespace brenlow {

/// One block group. Locations are block numbers, 0 for what its descriptor does not tell.
struct TExtXGroup {
  bool HasSuperBlockCopy = false;
  bool BlockBitmapUnused = false;  ///< BLOCK_UNINIT: the bitmap on the disk was never written
  std::uint32_t BlankInodes = 0;   ///< at the end of its table, never used since the table was zeroed
  std::int64_t BlockBitmapLocation = 0;
  std::int64_t InodeBitmapLocation = 0;
  std::int64_t InodesLocation = 0;
  std::int64_t DataLocation = 0;  ///< the block at which the search for lost folders begins
  std::int64_t DataBlocks = 0;    ///< blocks that it covers there; 0 for a group that is wholly free
  TByteDynArray InodeBitmap;      ///< of this group; loaded on first use
  TByteDynArray BlockBitmap;      ///< of this group; loaded on first use
  bool InodeBitmapAsked = false;
  bool BlockBitmapAsked = false;
};
using TExtXGroups = std::vector<TExtXGroup>;

/// A block of the file system that the journal holds a copy of.
struct TExtXLoggedBlock {
  std::int64_t Block = 0;
  std::uint32_t Sequence = 0;      ///< of the transaction
  std::uint32_t JournalBlock = 0;  ///< where in the journal the copy lies
  bool Escaped = false;            ///< its first four bytes were the journal's mark and are zeros in the copy
};

struct TExtXJournal {
  std::uint32_t Inode = 0;      ///< 0: none, or on another device
  std::int64_t Size = 0;        ///< bytes
  std::uint32_t BlockSize = 0;  ///< bytes
  std::uint32_t BlocksCount = 0;
  bool JBD2_FEATURE_INCOMPAT_64BIT = false;
  bool JBD2_FEATURE_INCOMPAT_CSUM_V2 = false;
  bool JBD2_FEATURE_INCOMPAT_CSUM_V3 = false;
  bool IsExternal = false;             ///< the volume has a journal, on another device
  std::uint32_t FastCommitBlocks = 0;  ///< at the end of the journal
  std::uint32_t FirstBlock = 1;        ///< of the log
  std::uint32_t StartBlock = 0;        ///< of the oldest transaction that is not on the volume yet; 0: all are
  std::uint32_t StartSequence = 0;     ///< of that transaction, or of the next one to come
  TByteDynArray InodeBackup;           ///< what the superblock keeps of its inode; may be empty
  /// The blocks of the volume that the journal lies in, in order; 0 for a hole.
  std::vector<std::int64_t> Blocks;
  /// All copies in it, by block and then sequence. Filled in an analysis.
  std::vector<TExtXLoggedBlock> Logged;
  /// For each journal block the sequence of its transaction; 0 for one that is no copy.
  std::vector<std::uint32_t> Sequences;

  /// Sequences in order of time: they wrap round.
  std::uint32_t Order(std::uint32_t sequence) const { return sequence - (StartSequence + 0x80000000U); }
};

/// Where the newest state of a block lies that the journal has and the volume does not.
struct TExtXReplayed {
  std::int64_t VolumeBlock = 0;
  bool Escaped = false;
};

struct TExtXInfo {
  std::int64_t SuperBlockSector = 0;  ///< of the superblock used, from the volume's start
  std::uint32_t TotalInodeCount = 0;
  std::int64_t TotalBlockCount = 0;
  std::int64_t FreeBlockCount = 0;
  std::uint32_t BlockSize = 0;  ///< bytes
  std::uint32_t BlocksPerGroup = 0;
  std::uint32_t InodesPerGroup = 0;
  TDateTime LastMountTime = 0;
  TString LastMountPath;
  std::uint16_t InodeSize = 0;  ///< bytes
  std::uint32_t FlexibleBlockGroupsSize = 0;
  std::uint16_t GroupDescriptorsRecordSize = 0;  ///< bytes
  bool InodesExtendedAttributes = false;
  std::uint32_t FirstDataBlock = 0;   ///< 1 where blocks have 1 KiB: block 0 is the boot block
  std::uint32_t ClusterRatio = 1;     ///< blocks that one bit of a block bitmap stands for
  std::uint32_t FirstMetaGroup = 0;   ///< from this descriptor block on each lies in its own groups
  std::uint32_t ReservedInodes = 10;  ///< inodes up to here are the file system's own
  std::uint32_t OrphanFile = 0;       ///< inode of the file system's own list of orphans, 0 for none
  std::uint32_t ChecksumSeed = 0;
  bool HasMetaGroups = false;
  bool HasChecksums = false;   ///< metadata_csum
  bool NeedsRecovery = false;  ///< was not unmounted: the journal is newer than the volume
  bool IsCreatorHurd = false;  ///< other fields in inodes
  std::uint32_t FeatureCompat = 0;
  std::uint32_t FeatureIncompat = 0;
  std::uint32_t FeatureReadOnly = 0;
  TExtXJournal Journal;
  TExtXGroups Groups;
  bool IsAnalysedAsWhole = false;  ///< in a partition search
  std::int64_t TotalFolders = 0;   ///< that the group descriptors count
  /// Blocks whose newest state lies in the journal of a volume that was not unmounted.
  std::unordered_map<std::int64_t, TExtXReplayed> Replayed;
  /// Blocks as the fast commits after those leave them, with some of the journal's own in which new ones were put.
  std::unordered_map<std::int64_t, TByteDynArray> Rebuilt;
};

inline TExtXInfo& ExtXInfo(TDriveInfo& drive) { return drive.Systems.Get<TExtXInfo>(); }
inline const TExtXInfo& ExtXInfo(const TDriveInfo& drive) { return drive.Systems.Get<TExtXInfo>(); }

}  // namespace brenlow
