// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/xfs/xfs_reader.h"

#include <algorithm>

#include "core/engine.h"
#include "core/extent_reader.h"

namespace brenlow::xfs {

bool TReader::Read(std::int64_t place, std::span<std::uint8_t> buffer) const {
  return FEngine.Content().ReadPlace(FDrive, place, buffer);
}

TByteDynArray TReader::Block(std::int64_t block) const {
  const std::int64_t linear = LinearBlock(FInfo, block);
  if (linear < 0) return {};
  TByteDynArray bytes(FInfo.BlockSize);
  Read(linear * FInfo.BlockSize, bytes);
  return bytes;
}

bool TReader::Extents(TBytes inode, const TInodeCore& core, TExtents& extents) const {
  return ReadExtents(
      FInfo, inode, core, [this](std::int64_t block) { return Block(block); }, extents);
}

void TReader::WalkDirectoryBlocks(const TExtents& extents, const TBlockSink& block) const {
  constexpr std::int64_t readSize = 1 << 18;  // bytes
  const std::int64_t unit = FInfo.DirectoryBlocks;
  const std::int64_t end = LeafSpace / FInfo.BlockSize;
  const std::int64_t most = std::max<std::int64_t>(readSize / FInfo.BlockSize, unit);
  TByteDynArray bytes;  // from the block `start` of the file on
  std::int64_t start = 0;
  std::int64_t place = 0;  // of its first byte on the volume
  for (const TExtent& extent : extents) {
    for (std::int64_t done = 0; done < extent.Count && extent.Offset + done < end;) {
      const std::int64_t count = std::min<std::int64_t>(extent.Count - done, most);
      const std::int64_t at = extent.Offset + done;
      const std::int64_t from = LinearBlock(FInfo, extent.Block + done) * FInfo.BlockSize;
      const auto kept = static_cast<std::int64_t>(bytes.size()) / FInfo.BlockSize;
      if (kept == 0 || at != start + kept) {
        bytes.clear();
        start = at;
        place = from;
      }
      const std::size_t before = bytes.size();
      bytes.resize(before + static_cast<std::size_t>(count * FInfo.BlockSize));
      Read(from, std::span(bytes).subspan(before));
      done += count;
      // What is left of a block of the directory waits for the extent in which it goes on.
      std::int64_t whole = (static_cast<std::int64_t>(bytes.size()) / FInfo.BlockSize) / unit * unit;
      for (std::int64_t i = 0; i < whole; i += unit) {
        const auto offset = static_cast<std::size_t>(i * FInfo.BlockSize);
        if (!block(place + i * FInfo.BlockSize,
                   TBytes(bytes).subspan(offset, static_cast<std::size_t>(unit * FInfo.BlockSize))))
          return;
      }
      bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(whole * FInfo.BlockSize));
      start += whole;
      place += whole * FInfo.BlockSize;
    }
  }
}

bool TReader::WalkDirectory(TBytes inode, const TInodeCore& core, const TEntrySink& sink) const {
  bool goesOn = true;
  const auto pass = [&](const TFileEntry& entry) {
    goesOn = sink(entry);
    return goesOn;
  };
  if (core.DataForkFormat == XFS_DINODE_FMT_LOCAL) {
    std::int64_t parent = NoInode;
    std::int64_t size = 0;
    WalkShortDirectory(FInfo, DataFork(inode), parent, size, pass);
    return goesOn;
  }
  TExtents extents;
  Extents(inode, core, extents);
  WalkDirectoryBlocks(extents, [&](std::int64_t, TBytes block) {
    const TDirectoryBlock head = ReadDirectoryBlock(FInfo, block);
    const bool others = core.InodeNumber != NoInode && head.Owner != NoInode && head.Owner != core.InodeNumber;
    if (!others) WalkDirectoryBlock(FInfo, block, pass);
    FEngine.Pump();
    return goesOn;
  });
  return goesOn;
}

}  // namespace brenlow::xfs
