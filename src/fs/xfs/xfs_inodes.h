// SPDX-License-Identifier: GPL-3.0-or-later
// All inodes of a volume, read once, in the order of their places: those of the trees of the groups, and those
// that lie in free blocks or in groups whose tree is gone.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <unordered_map>
#include <vector>

#include "core/drive_records.h"
#include "fs/xfs/xfs_groups.h"
#include "fs/xfs/xfs_inode.h"

namespace brenlow::xfs {

/// What a listing needs of an inode in use.
struct TInodeRow {
  std::int64_t Size = 0;
  TTimeStamp TimeStamp;
  std::uint32_t Generation = 0;
  TFileType FileType = TFileType::ftUnknown;
  bool InUse = false;
  bool Unlinked = false;  ///< has no name any more, but was still open
  bool Reached = false;   ///< a directory entry led to it
  bool Walked = false;    ///< a directory whose entries were entered
};

class TInodeTable {
 public:
  TInodeTable(TEngine& engine, const TDriveInfo& drive) : FEngine(engine), FDrive(drive), FInfo(XFSInfo(drive)) {}

  /// An inode that is not in use, or was not when its chunk was freed, with its bytes and its place (a byte of
  /// the volume).
  using TOldSink = std::function<void(std::int64_t inode, std::int64_t place, TBytes bytes, const TInodeCore& core)>;
  /// A directory block in a place where no directory in use has one.
  using TBlockSink = std::function<void(std::int64_t place, TBytes block)>;

  /// Reads the inodes that the trees of the groups have. `progress` gets 0 to 1. False when it was stopped.
  bool ReadTrees(const TOldSink& old, const std::function<void(double)>& progress);
  /// Reads every block that no tree has as inodes: the free ones of sound groups with `freeBlocks`, and all of
  /// those without an inode tree. False when it was stopped.
  bool SearchBlocks(bool freeBlocks, const TOldSink& old, const TBlockSink& block,
                    const std::function<void(double)>& progress);
  /// Bytes that a search through free blocks would read.
  std::int64_t FreeBytes() const;

  /// True for an inode whose group has no sound tree to say that it is in use.
  bool IsUncertain(std::int64_t inode) const;
  /// Null for an inode that is not in use.
  TInodeRow* Find(std::int64_t inode);
  /// Calls `callable(number, row)` for each inode in use, ascending.
  template <typename TCallable>
  void ForEach(TCallable&& callable) {
    for (const TRows& rows : FRows) {
      for (std::int64_t i = 0; i < rows.Count; ++i) {
        TInodeRow& row = FList[static_cast<std::size_t>(rows.Index + i)];
        if (row.InUse) callable(rows.FirstInode + i, row);
      }
    }
  }
  /// The same, from the disk when its chunk was not met yet.
  TInodeRow* FindOrRead(std::int64_t inode);
  /// The bytes of an inode on the disk; empty when it cannot be had.
  TByteDynArray Read(std::int64_t inode);

 private:
  /// Inodes with numbers one after the other.
  struct TRows {
    std::int64_t FirstInode = 0;
    std::int64_t Count = 0;
    std::int64_t Index = 0;  // of its first row
  };
  void ReadChunk(const TInodeChunk& chunk, TBytes bytes, const TOldSink& old);
  void AddInode(std::int64_t inode, std::int64_t place, TBytes bytes, bool free, const TOldSink& old);
  TInodeRow* RowFor(std::int64_t inode);
  void SortRows();
  void SearchPiece(std::int64_t place, TBytes bytes, std::size_t starts, bool free, const TOldSink& old,
                   const TBlockSink& block);
  bool SearchLostGroups(const TOldSink& old);
  bool SearchRange(const TBlockRange& range, bool free, const TOldSink& old, const TBlockSink& block);

  TEngine& FEngine;
  const TDriveInfo& FDrive;
  const TXFSInfo& FInfo;
  std::vector<TRows> FRows;  // ascending by number
  std::deque<TInodeRow> FList;
  std::vector<std::uint32_t> FLostTrees;  // groups, ascending
  std::vector<TBlockRange> FChunkBlocks;  // blocks of chunks in use, ascending
  TByteDynArray FBuffer;
  std::int64_t FLastChunk = -1;                         // index into `FRows`
  std::unordered_map<std::int64_t, TInodeRow> FSingle;  // inodes read one by one
};

/// Bytes of the volume that the device has.
std::int64_t BytesThere(TEngine& engine, const TDriveInfo& drive);
/// Groups of the volume that begin on the device.
std::uint32_t GroupsThere(TEngine& engine, const TDriveInfo& drive);

}  // namespace brenlow::xfs
