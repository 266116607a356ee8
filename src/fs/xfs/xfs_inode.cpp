// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/xfs/xfs_inode.h"

#include <algorithm>
#include <unordered_set>

namespace brenlow::xfs {
namespace {

constexpr std::size_t ForkOfVersion2 = 100;
constexpr std::size_t ForkOfVersion3 = 176;
constexpr std::uint64_t BigTime = 8;       // of the second flags: one number of nanoseconds
constexpr std::uint64_t LargeCounts = 16;  // the extents are counted in 64 bits
constexpr std::uint16_t OnRealTime = 1;    // of the first flags
constexpr std::size_t RecordSize = 16;     // bytes, of an extent
constexpr int DeepestTree = 16;            // levels; real ones have at most 9
constexpr std::size_t MostTreeBlocks = 1 << 22;

constexpr std::uint32_t TreeMark = Mark("BMAP");
constexpr std::uint32_t TreeMark5 = Mark("BMA3");

/// Local time of seconds and nanoseconds since 1970.
TDateTime TimeOf(std::int64_t seconds, std::uint32_t nanoseconds) {
  constexpr double dayZero = 25'569;  // days from 1899-12-30 to 1970
  if (seconds == 0 && nanoseconds == 0) return 0;
  const double milliseconds = nanoseconds < 1'000'000'000 ? nanoseconds / 1'000'000 : 0;
  return FromUtc(dayZero + (static_cast<double>(seconds) * 1000 + milliseconds) / 86'400'000.0);
}

/// A time of the core. With large times it counts from the earliest that 32 bits of seconds can say.
TDateTime ReadTime(TBytes inode, std::size_t at, bool bigTime) {
  constexpr std::uint64_t perSecond = 1'000'000'000;
  constexpr std::int64_t earliest = INT32_MIN;
  if (!bigTime) {
    return TimeOf(static_cast<std::int32_t>(ReadBe32(inode, at)), ReadBe32(inode, at + 4));
  }
  const std::uint64_t time = ReadBe64(inode, at);
  return TimeOf(static_cast<std::int64_t>(time / perSecond) + earliest, static_cast<std::uint32_t>(time % perSecond));
}

}  // namespace

bool ReadInodeCore(TBytes inode, TInodeCore& core) {
  if (ReadBe16(inode, 0) != InodeMark || inode.size() < ForkOfVersion2) return false;
  core.Version = inode[4];
  if (core.Version > 3 || (core.Version == 3 && inode.size() < ForkOfVersion3)) return false;
  core.Mode = ReadBe16(inode, 2);
  core.FileType = TypeOfMode(core.Mode);
  core.DataForkFormat = static_cast<TInodeFormat>(inode[5]);
  core.Links = core.Version < 2 ? ReadBe16(inode, 6) : ReadBe32(inode, 16);
  core.Size = static_cast<std::int64_t>(ReadBe64(inode, 0x38));
  core.DataForkCount = static_cast<std::int64_t>(ReadBe64(inode, 0x40));
  core.HasAttributes = inode[0x52] != 0;
  core.RealTime = (ReadBe16(inode, 0x5A) & OnRealTime) != 0;
  core.Generation = ReadBe32(inode, 0x5C);
  const std::uint64_t flags = core.Version < 3 ? 0 : ReadBe64(inode, 0x78);
  const bool bigTime = (flags & BigTime) != 0;
  const std::uint64_t extents = (flags & LargeCounts) != 0 ? ReadBe64(inode, 0x18) : ReadBe32(inode, 0x4C);
  core.DataExtentCount = static_cast<std::uint32_t>(std::min<std::uint64_t>(extents, UINT32_MAX));
  core.dtAccessed = ReadTime(inode, 0x20, bigTime);
  core.dtModified = ReadTime(inode, 0x28, bigTime);
  const TDateTime changed = ReadTime(inode, 0x30, bigTime);
  core.dtCreated = core.Version < 3 ? changed : ReadTime(inode, 0x90, bigTime);
  core.dtMetadataModified = changed;
  core.InodeNumber = core.Version < 3 ? NoInode : static_cast<std::int64_t>(ReadBe64(inode, 0x98));
  if (core.Version == 3) std::copy_n(inode.begin() + 0xA0, core.UUID.size(), core.UUID.begin());
  return true;
}

TBytes DataFork(TBytes inode) {
  const std::size_t start = inode.size() > 4 && inode[4] == 3 ? ForkOfVersion3 : ForkOfVersion2;
  if (inode.size() <= start) return {};
  const std::size_t room = inode.size() - start;
  const std::size_t stated = std::size_t{inode[0x52]} * 8;
  return inode.subspan(start, stated == 0 ? room : std::min(stated, room));
}

TExtent UnpackExtent(TBytes record) {
  const std::uint64_t high = ReadBe64(record, 0);
  const std::uint64_t low = ReadBe64(record, 8);
  TExtent extent;
  extent.Unwritten = high >> 63 != 0;
  extent.Offset = static_cast<std::int64_t>(high >> 9 & ((std::uint64_t{1} << 54) - 1));
  extent.Block = static_cast<std::int64_t>((high & 0x1FF) << 43 | low >> 21);
  extent.Count = static_cast<std::uint32_t>(low & 0x1FFFFF);
  return extent;
}

bool IsPlausible(const TXFSInfo& info, const TExtent& extent) {
  if (extent.Count == 0 || LinearBlock(info, extent.Block) < 0) return false;
  const std::int64_t last = extent.Block + extent.Count - 1;
  return last >> info.BlockRelativePart == extent.Block >> info.BlockRelativePart && LinearBlock(info, last) >= 0;
}

TExtents LeftoverExtents(const TXFSInfo& info, TBytes fork) {
  TExtents extents;
  for (std::size_t at = 0; at + RecordSize <= fork.size(); at += RecordSize) {
    const TExtent extent = UnpackExtent(fork.subspan(at, RecordSize));
    // One that goes back in the file is left over from a file before.
    const std::int64_t end = extents.empty() ? 0 : extents.back().Offset + extents.back().Count;
    if (!IsPlausible(info, extent) || extent.Offset < end) break;
    const bool twice = std::any_of(extents.begin(), extents.end(), [&](const TExtent& other) {
      return extent.Block < other.Block + other.Count && other.Block < extent.Block + extent.Count;
    });
    if (twice) break;
    extents.push_back(extent);
  }
  return extents;
}

namespace {

/// Walks the tree of extents of one file.
class TExtentTree {
 public:
  TExtentTree(const TXFSInfo& info, std::int64_t owner, const TReadBlock& readBlock, TExtents& extents)
      : FInfo(info), FOwner(owner), FReadBlock(readBlock), FExtents(extents) {}

  bool WalkRoot(TBytes fork) {
    const int level = ReadBe16(fork, 0);
    if (fork.size() < 4 || level < 1 || level > DeepestTree) return false;
    const std::size_t room = (fork.size() - 4) / 16;
    return WalkChildren(fork, 4 + room * 8, std::min<std::size_t>(ReadBe16(fork, 2), room), level - 1) &&
           ReadBe16(fork, 2) <= room;
  }

 private:
  bool WalkChildren(TBytes node, std::size_t pointers, std::size_t count, int level) {
    bool whole = true;
    for (std::size_t i = 0; i < count; ++i) {
      whole = WalkBlock(static_cast<std::int64_t>(ReadBe64(node, pointers + 8 * i)), level) && whole;
    }
    return whole;
  }

  bool WalkBlock(std::int64_t number, int level) {
    if (FVisited.size() > MostTreeBlocks || !FVisited.insert(number).second) return false;
    const TByteDynArray block = FReadBlock(number);
    const std::uint32_t mark = ReadBe32(block, 0);
    if ((mark != TreeMark && mark != TreeMark5) || ReadBe16(block, 4) != level) return false;
    const bool wide = mark == TreeMark5;
    if (wide && FOwner != NoInode && static_cast<std::int64_t>(ReadBe64(block, 0x38)) != FOwner) return false;
    const std::size_t header = wide ? 72 : 24;
    const std::size_t room = (block.size() - header) / 16;
    const std::size_t count = std::min<std::size_t>(ReadBe16(block, 6), room);
    if (level > 0) return WalkChildren(block, header + room * 8, count, level - 1);
    bool whole = true;
    for (std::size_t i = 0; i < count; ++i) {
      const TExtent extent = UnpackExtent(TBytes(block).subspan(header + i * RecordSize, RecordSize));
      whole = IsPlausible(FInfo, extent) && whole;
      FExtents.push_back(extent);
    }
    return whole;
  }

  const TXFSInfo& FInfo;
  std::int64_t FOwner;
  const TReadBlock& FReadBlock;
  TExtents& FExtents;
  std::unordered_set<std::int64_t> FVisited;
};

/// Puts the extents in file order and drops what no file can have twice.
bool Tidy(const TXFSInfo& info, TExtents& extents) {
  const auto before = [](const TExtent& a, const TExtent& b) { return a.Offset < b.Offset; };
  if (!std::is_sorted(extents.begin(), extents.end(), before)) std::stable_sort(extents.begin(), extents.end(), before);
  const std::size_t count = extents.size();
  std::int64_t end = 0;
  std::erase_if(extents, [&](const TExtent& extent) {
    if (!IsPlausible(info, extent) || extent.Offset < end) return true;
    end = extent.Offset + extent.Count;
    return false;
  });
  return extents.size() == count;
}

}  // namespace

bool ReadExtents(const TXFSInfo& info, TBytes inode, const TInodeCore& core, const TReadBlock& readBlock,
                 TExtents& extents) {
  extents.clear();
  const TBytes fork = DataFork(inode);
  bool whole = false;
  if (core.DataForkFormat == XFS_DINODE_FMT_EXTENTS) {
    const std::size_t room = fork.size() / RecordSize;
    const std::size_t count = std::min<std::size_t>(core.DataExtentCount, room);
    for (std::size_t i = 0; i < count; ++i) {
      extents.push_back(UnpackExtent(fork.subspan(i * RecordSize, RecordSize)));
    }
    whole = core.DataExtentCount <= room;
  } else if (core.DataForkFormat == XFS_DINODE_FMT_BTREE) {
    whole = TExtentTree(info, core.InodeNumber, readBlock, extents).WalkRoot(fork) &&
            extents.size() == core.DataExtentCount;
  }
  return Tidy(info, extents) && whole;
}

}  // namespace brenlow::xfs
