// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/xfs/xfs_inodes.h"

#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/extent_reader.h"
#include "core/sector_reader.h"
#include "fs/xfs/xfs_directory.h"

namespace brenlow::xfs {
namespace {

constexpr std::int64_t ReadSize = 1 << 20;  // bytes

/// True for bytes that may be an inode of this number: of version 3 with the number in it.
bool IsInode(std::int64_t number, TBytes bytes) {
  if (bytes.size() < 100 || ReadBe16(bytes, 0) != InodeMark || bytes[4] > 3 || bytes[5] > XFS_DINODE_FMT_RMAP)
    return false;
  return bytes[4] < 3 || static_cast<std::int64_t>(ReadBe64(bytes, 0x98)) == number;
}

TInodeRow RowOf(const TInodeCore& core) {
  TInodeRow row;
  row.Size = core.Size;
  row.TimeStamp = {core.dtCreated, core.dtModified, core.dtAccessed, core.dtMetadataModified};
  row.Generation = core.Generation;
  row.FileType = core.FileType;
  row.InUse = true;
  row.Unlinked = core.Links == 0;
  return row;
}

}  // namespace

std::int64_t BytesThere(TEngine& engine, const TDriveInfo& drive) {
  const std::int64_t volume = XFSInfo(drive).TotalBlockCount * XFSInfo(drive).BlockSize;
  const std::int64_t sectors = engine.Reader().DeviceSectors(drive);
  if (sectors == INT64_MAX) return volume;
  const std::int64_t there =
      std::max<std::int64_t>(sectors - drive.FirstSector, 0) * engine.Drives().GetBytesPerSector(drive);
  return std::min(volume, there);
}

std::uint32_t GroupsThere(TEngine& engine, const TDriveInfo& drive) {
  const TXFSInfo& info = XFSInfo(drive);
  if (info.AGSize == 0) return 0;
  return static_cast<std::uint32_t>(CeilDiv(BytesThere(engine, drive), std::int64_t{info.AGSize} * info.BlockSize));
}

// ---- rows -----------------------------------------------------------------------------------

TInodeRow* TInodeTable::Find(std::int64_t inode) {
  const auto holds = [&](const TRows& rows) {
    return inode >= rows.FirstInode && inode < rows.FirstInode + rows.Count;
  };
  // Files of a directory mostly have numbers one after the other.
  if (FLastChunk < 0 || !holds(FRows[static_cast<std::size_t>(FLastChunk)])) {
    const auto after = std::upper_bound(FRows.begin(), FRows.end(), inode,
                                        [](std::int64_t n, const TRows& rows) { return n < rows.FirstInode; });
    if (after == FRows.begin() || !holds(*std::prev(after))) return nullptr;
    FLastChunk = std::prev(after) - FRows.begin();
  }
  const TRows& rows = FRows[static_cast<std::size_t>(FLastChunk)];
  TInodeRow& row = FList[static_cast<std::size_t>(rows.Index + inode - rows.FirstInode)];
  return row.InUse ? &row : nullptr;
}

/// The row of an inode that is to be entered. Rows are made one after the other, as inodes come.
TInodeRow* TInodeTable::RowFor(std::int64_t inode) {
  if (FRows.empty() || inode < FRows.back().FirstInode || inode > FRows.back().FirstInode + FRows.back().Count + 8) {
    FRows.push_back({inode, 0, static_cast<std::int64_t>(FList.size())});
  }
  TRows& rows = FRows.back();
  const std::int64_t at = inode - rows.FirstInode;
  if (at >= rows.Count) {
    rows.Count = at + 1;
    FList.resize(static_cast<std::size_t>(rows.Index + rows.Count));
  }
  return &FList[static_cast<std::size_t>(rows.Index + at)];
}

bool TInodeTable::IsUncertain(std::int64_t inode) const {
  return std::binary_search(FLostTrees.begin(), FLostTrees.end(),
                            static_cast<std::uint32_t>(inode >> FInfo.InodeRelativePart));
}

void TInodeTable::SortRows() {
  const auto before = [](const TRows& a, const TRows& b) { return a.FirstInode < b.FirstInode; };
  if (!std::is_sorted(FRows.begin(), FRows.end(), before)) std::stable_sort(FRows.begin(), FRows.end(), before);
  FLastChunk = -1;
}

TByteDynArray TInodeTable::Read(std::int64_t inode) {
  const std::int64_t place = InodePlace(FInfo, inode);
  TByteDynArray bytes(FInfo.InodeSize);
  if (place < 0 || !FEngine.Content().ReadPlace(FDrive, place, bytes)) return {};
  return bytes;
}

/// `free`: the trees say that it is not in use.
void TInodeTable::AddInode(std::int64_t inode, std::int64_t place, TBytes bytes, bool free, const TOldSink& old) {
  TInodeCore core;
  if (!IsInode(inode, bytes) || !ReadInodeCore(bytes, core)) return;
  if (free || core.Mode == 0) {
    core.SectorNumber = place / std::max(FDrive.BytesPerSector, 1);
    core.InodeNumber = inode;
    old(inode, place, bytes, core);
    return;
  }
  *RowFor(inode) = RowOf(core);
}

TInodeRow* TInodeTable::FindOrRead(std::int64_t inode) {
  const auto [known, isNew] = FSingle.try_emplace(inode);
  if (isNew) {
    const TByteDynArray bytes = Read(inode);
    TInodeCore core;
    if (IsInode(inode, bytes) && ReadInodeCore(bytes, core) && core.Mode != 0) known->second = RowOf(core);
  }
  return known->second.InUse ? &known->second : nullptr;
}

// ---- the trees ------------------------------------------------------------------------------

void TInodeTable::ReadChunk(const TInodeChunk& chunk, TBytes bytes, const TOldSink& old) {
  const std::int64_t start = InodePlace(FInfo, chunk.FirstInode);
  for (std::int64_t i = 0; i < InodesPerChunk; ++i) {
    const auto at = static_cast<std::size_t>(i * FInfo.InodeSize);
    if ((chunk.Absent >> i & 1) != 0 || at + FInfo.InodeSize > bytes.size()) continue;
    const bool free = (chunk.Free >> i & 1) != 0;
    AddInode(chunk.FirstInode + i, start + static_cast<std::int64_t>(at), bytes.subspan(at, FInfo.InodeSize), free,
             old);
  }
}

bool TInodeTable::ReadTrees(const TOldSink& old, const std::function<void(double)>& progress) {
  TGroups groups(FEngine, FDrive);
  const std::uint32_t count = GroupsThere(FEngine, FDrive);
  const std::int64_t chunkSize = InodesPerChunk * FInfo.InodeSize;
  std::vector<TInodeChunk> chunks;
  FBuffer.resize(static_cast<std::size_t>(ReadSize));
  for (std::uint32_t group = 0; group < count; ++group) {
    chunks.clear();
    if (!groups.ReadChunks(group, chunks)) FLostTrees.push_back(group);
    for (std::size_t i = 0; i < chunks.size();) {
      // Chunks often lie one after the other.
      const std::int64_t place = InodePlace(FInfo, chunks[i].FirstInode);
      std::size_t end = i + 1;
      while (end < chunks.size() && static_cast<std::int64_t>(end - i + 1) * chunkSize <= ReadSize &&
             InodePlace(FInfo, chunks[end].FirstInode) == place + static_cast<std::int64_t>(end - i) * chunkSize) {
        ++end;
      }
      const auto bytes = std::span(FBuffer).first((end - i) * static_cast<std::size_t>(chunkSize));
      FEngine.Content().ReadPlace(FDrive, place, bytes);
      FChunkBlocks.push_back(
          {place / FInfo.BlockSize, CeilDiv(place + static_cast<std::int64_t>(bytes.size()), FInfo.BlockSize)});
      for (std::size_t c = i; c < end; ++c) {
        ReadChunk(chunks[c],
                  bytes.subspan((c - i) * static_cast<std::size_t>(chunkSize), static_cast<std::size_t>(chunkSize)),
                  old);
      }
      i = end;
      FEngine.Pump();
      if (!FEngine.Analysing) return false;
    }
    progress(static_cast<double>(group + 1) / count);
  }
  SortRows();
  return true;
}

// ---- blocks that no tree has ----------------------------------------------------------------

std::int64_t TInodeTable::FreeBytes() const {
  std::int64_t blocks = 0;
  for (const TBlockRange& range : FInfo.FreeBlocks) blocks += range.End - range.First;
  return blocks * FInfo.BlockSize;
}

/// Looks at what begins in the first `starts` bytes. `free`: the blocks are, and so is every inode in them.
void TInodeTable::SearchPiece(std::int64_t place, TBytes bytes, std::size_t starts, bool free, const TOldSink& old,
                              const TBlockSink& block) {
  const std::size_t size = FInfo.InodeSize;
  const auto directorySize = static_cast<std::size_t>(DirectoryBlockSize(FInfo));
  for (std::size_t at = 0; at + size <= starts; at += size) {
    if (bytes[at] == 'I' && bytes[at + 1] == 'N') {
      const std::int64_t byte = place + static_cast<std::int64_t>(at);
      AddInode(InodeAt(FInfo, byte), byte, bytes.subspan(at, size), free, old);
    } else if (bytes[at] == 'X' && bytes[at + 1] == 'D' && at % FInfo.BlockSize == 0) {
      const auto rest = bytes.subspan(at, std::min(bytes.size() - at, directorySize));
      if (ReadDirectoryBlock(FInfo, rest).HeaderSize > 0) block(place + static_cast<std::int64_t>(at), rest);
    }
  }
}

bool TInodeTable::SearchRange(const TBlockRange& range, bool free, const TOldSink& old, const TBlockSink& block) {
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(FDrive);
  const std::int64_t end = std::min(range.End * FInfo.BlockSize, BytesThere(FEngine, FDrive));
  for (std::int64_t place = range.First * FInfo.BlockSize; place < end;) {
    const std::int64_t sector = FDrive.FirstSector + place / sectorSize;
    const std::int64_t skipped = std::max<std::int64_t>(FEngine.Reader().NextSectorToScan(FDrive, sector) - sector, 0);
    place += std::min(skipped, (end - place) / sectorSize) * sectorSize / FInfo.BlockSize * FInfo.BlockSize;
    if (place >= end) break;
    // A directory block may reach into the next read.
    const std::int64_t size = std::min(end - place, ReadSize + LargestBlock);
    const auto bytes = std::span(FBuffer).first(static_cast<std::size_t>(size));
    FEngine.Reader().ReadOrZero(FDrive, bytes, FDrive.FirstSector + place / sectorSize, TReadEffort::Scan);
    SearchPiece(place, bytes, static_cast<std::size_t>(std::min(size, ReadSize)), free, old, block);
    place += std::min(size, ReadSize);
    FEngine.PumpSoon();
    FEngine.Pump();
    if (!FEngine.Analysing) return false;
  }
  return true;
}

bool TInodeTable::SearchBlocks(bool freeBlocks, const TOldSink& old, const TBlockSink& block,
                               const std::function<void(double)>& progress) {
  FBuffer.resize(static_cast<std::size_t>(ReadSize + LargestBlock));
  std::size_t done = 0;
  for (const TBlockRange& range : FInfo.FreeBlocks) {
    const auto group = static_cast<std::uint32_t>(range.First / FInfo.AGSize);
    const bool wanted = freeBlocks || std::binary_search(FLostTrees.begin(), FLostTrees.end(), group);
    if (wanted && !SearchRange(range, true, old, block)) return false;
    progress(static_cast<double>(++done) / static_cast<double>(FInfo.FreeBlocks.size()));
  }
  const bool whole = SearchLostGroups(old);
  SortRows();
  return whole;
}

/// The rest of the groups without an inode tree, between free blocks and the chunks that were read: inodes there
/// are in use.
bool TInodeTable::SearchLostGroups(const TOldSink& old) {
  if (FLostTrees.empty()) return true;
  std::vector<TBlockRange> known = FChunkBlocks;
  known.insert(known.end(), FInfo.FreeBlocks.begin(), FInfo.FreeBlocks.end());
  std::sort(known.begin(), known.end(), [](const TBlockRange& a, const TBlockRange& b) { return a.First < b.First; });
  const auto ignore = [](std::int64_t, TBytes) {};
  for (const std::uint32_t group : FLostTrees) {
    std::int64_t at = std::int64_t{group} * FInfo.AGSize;
    const std::int64_t end = at + GroupBlocks(FInfo, group);
    auto next = std::lower_bound(known.begin(), known.end(), at,
                                 [](const TBlockRange& range, std::int64_t block) { return range.First < block; });
    for (; at < end; ++next) {
      const std::int64_t until = next == known.end() ? end : std::min(next->First, end);
      if (until > at && !SearchRange({at, until}, false, old, ignore)) return false;
      if (until == end) break;
      at = std::max(at, next->End);
    }
  }
  return true;
}

}  // namespace brenlow::xfs
