// SPDX-License-Identifier: GPL-3.0-or-later
// Blocks, extents and directories of one volume, by the inode that leads to them.
#pragma once

#include <cstdint>
#include <functional>

#include "core/drive_records.h"
#include "fs/xfs/xfs_directory.h"
#include "fs/xfs/xfs_inode.h"

namespace brenlow {
class TEngine;
}

namespace brenlow::xfs {

class TReader {
 public:
  TReader(TEngine& engine, const TDriveInfo& drive) : FEngine(engine), FDrive(drive), FInfo(XFSInfo(drive)) {}

  /// Fills the buffer from a byte of the volume on; zeros, and false, for what cannot be read.
  bool Read(std::int64_t place, std::span<std::uint8_t> buffer) const;
  /// A block by its number; empty when that leads nowhere.
  TByteDynArray Block(std::int64_t block) const;
  /// As `ReadExtents`.
  bool Extents(TBytes inode, const TInodeCore& core, TExtents& extents) const;

  /// The entries of a directory in use, with those deleted from it. False when the sink ended it.
  bool WalkDirectory(TBytes inode, const TInodeCore& core, const TEntrySink& sink) const;
  /// The directory blocks among the extents, in file order. `block` gets each with its place (a byte of the
  /// volume), and ends the walk with false.
  using TBlockSink = std::function<bool(std::int64_t place, TBytes block)>;
  void WalkDirectoryBlocks(const TExtents& extents, const TBlockSink& block) const;

 private:
  TEngine& FEngine;
  const TDriveInfo& FDrive;
  const TXFSInfo& FInfo;
};

}  // namespace brenlow::xfs
