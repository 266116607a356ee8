// SPDX-License-Identifier: GPL-3.0-or-later
// The log of an XFS volume: inodes and directory blocks as they were written to it, older ones included.
//
// Format facts: "XFS Algorithms & Data Structures" (Journaling Log). Headers are big-endian, items in the byte
// order of the machine that wrote them.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "fs/xfs/xfs_layout.h"

namespace brenlow::xfs {

/// An inode as the log has it: laid out as on the disk.
struct TLoggedInode {
  std::int64_t Inode = 0;
  std::uint64_t Position = 0;  ///< cycle and block of the record: grows with time
  TByteDynArray Image;         ///< of the size of an inode
  bool HasFork = false;        ///< the fork of the content was logged too; else it is zeros
};

/// Part of a block of the volume as the log has it.
struct TLoggedBlock {
  std::uint64_t Position = 0;
  std::int64_t Sector = 0;  ///< in units of 512 bytes, from the volume's start
  std::int64_t Size = 0;    ///< bytes
  struct TPiece {
    std::size_t At = 0;  ///< byte in the block
    TBytes Bytes;
  };
  std::vector<TPiece> Pieces;
};

class ILogSink {
 public:
  virtual ~ILogSink() = default;
  virtual void Inode(TLoggedInode inode) = 0;
  virtual void Block(const TLoggedBlock& block) = 0;
  /// Part of the log that was gone through; false ends the walk.
  virtual bool GoOn(double position) = 0;
};

/// Fills the buffer with bytes of the log; zeros for what cannot be read.
using TReadLog = std::function<void(std::int64_t at, std::span<std::uint8_t> buffer)>;

/// Hands out what the records of a log of `size` bytes hold, older ones first.
void WalkLog(const TXFSInfo& info, std::int64_t size, const TReadLog& read, ILogSink& sink);

}  // namespace brenlow::xfs
