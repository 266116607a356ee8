// SPDX-License-Identifier: GPL-3.0-or-later
// Reading blocks of one volume: the state that counts, which for a volume that was not unmounted may lie in
// its journal, and with the last pieces kept.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/drive_records.h"
#include "fs/ext/ext_info.h"

namespace brenlow {

class TEngine;

namespace ext {

/// A set of blocks of one volume, a bit each.
class TBlockSet {
 public:
  TBlockSet() = default;
  explicit TBlockSet(std::int64_t blocks) : FBits(static_cast<std::size_t>(blocks / 64 + 1), 0), FSize(blocks) {}
  std::int64_t Size() const { return FSize; }
  bool Has(std::int64_t block) const {
    return block >= 0 && block < FSize && (FBits[static_cast<std::size_t>(block / 64)] >> (block % 64) & 1) != 0;
  }
  /// Adds `count` blocks, as far as they lie in the volume. True when one of them was in the set already.
  bool Add(std::int64_t first, std::int64_t count);
  /// The first block at or after `block` that is not in the set; the size of the set when there is none.
  std::int64_t NextAbsent(std::int64_t block) const;
  /// How many blocks from `block` on are not in the set, at most `limit`.
  std::int64_t AbsentRun(std::int64_t block, std::int64_t limit) const;

 private:
  std::vector<std::uint64_t> FBits;
  std::int64_t FSize = 0;
};

class TVolumeReader {
 public:
  /// The drive must not be moved while this is used.
  TVolumeReader(TEngine& engine, const TDriveInfo& drive);

  const TDriveInfo& Drive() const { return FDrive; }
  const TExtXInfo& Info() const { return FInfo; }
  std::int64_t BlockSize() const { return FBlockSize; }
  /// Blocks that the volume has and its device backs.
  std::int64_t Blocks() const { return FBlocks; }
  /// Sector of a block's start, from the volume's start.
  std::int64_t SectorOf(std::int64_t block) const;

  /// Reads adjacent blocks into `place`; zeros for what cannot be read, and then false.
  bool ReadBlocks(std::int64_t first, std::int64_t count, std::uint8_t* place);
  /// The same for any bytes of the volume, as they lie there.
  bool ReadBytes(std::int64_t position, std::span<std::uint8_t> bytes);
  /// One block, good until the next call; empty where it cannot be read or lies outside.
  std::span<const std::uint8_t> Block(std::int64_t block);

  /// Byte position of an inode in the volume, -1 for a number that no group has.
  std::int64_t InodePosition(std::uint32_t inode) const;
  /// The bytes of an inode, good until the next call of anything here; empty where there is none.
  std::span<const std::uint8_t> Inode(std::uint32_t inode);
  /// The first inode of the table that a block belongs to; 0 for a block of no table.
  std::uint32_t FirstInodeOf(std::int64_t block) const;

  /// Reading as of a transaction: copies of the journal up to that one stand for their blocks. 0 ends it.
  void SetSequence(std::uint32_t sequence) { FSequence = sequence; }

 private:
  struct TPiece {
    std::int64_t Number = -1;
    TByteDynArray Bytes;
    std::vector<bool> Unread;  // by block; empty when all were read
  };
  struct TTable {
    std::int64_t First;  // block
    std::int64_t End;
    std::uint32_t FirstInode;
  };
  bool ReadStored(std::int64_t first, std::int64_t count, std::uint8_t* place);
  bool ReadReplayed(std::int64_t block, std::uint8_t* place);
  const TPiece& PieceOf(std::int64_t number);
  std::int64_t CopyAsOf(std::int64_t block, bool& escaped) const;

  TEngine& FEngine;
  const TDriveInfo& FDrive;
  const TExtXInfo& FInfo;
  std::int64_t FBlockSize;
  std::int64_t FBlocks;
  std::int64_t FPieceBlocks;
  std::vector<TPiece> FPieces;
  TByteDynArray FScratch;
  TByteDynArray FSectors;
  mutable std::vector<TTable> FTables;  // by place; made when first asked for
  std::uint32_t FSequence = 0;
};

}  // namespace ext
}  // namespace brenlow
