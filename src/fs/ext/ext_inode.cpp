// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ext/ext_inode.h"

#include <algorithm>

#include "core/numbers.h"
#include "fs/ext/ext_blocks.h"
#include "fs/ext/ext_superblock.h"

namespace brenlow::ext {
namespace {

constexpr std::size_t BlockArea = 40;      // of an inode: pointers, extents, a short link, inline content
constexpr std::size_t BlockAreaSize = 60;  // bytes
constexpr std::size_t DirectPointers = 12;
constexpr std::size_t NodeHeaderSize = 12;  // of a node of an extent tree
constexpr int DeepestTree = 6;
constexpr std::int64_t LongestExtent = 32768;  // blocks; longer lengths mean that the extent was never written
constexpr std::size_t MostRuns = 1U << 22;

/// Collects the blocks of one file.
class TBlockCollector {
 public:
  TBlockCollector(TVolumeReader& reader, TInode& inode)
      : FReader(reader),
        FInode(inode),
        FBlockSize(reader.BlockSize()),
        FWanted(CeilDiv(std::max<std::int64_t>(inode.Size, 0), reader.BlockSize())) {}

  void Collect(std::span<const std::uint8_t> area) {
    const bool whole = (FInode.Flags & InodeFlag::Extents) != 0 ? WalkNode(area, DeepestTree) : WalkPointers(area);
    FInode.Truncated = !whole;
  }

 private:
  std::int64_t Missing() const { return FWanted - FGathered; }

  /// Appends blocks, cut to what is wanted; `start` 0 is a hole.
  void Add(std::int64_t start, std::int64_t count) {
    count = std::min(count, Missing());
    if (count <= 0) return;
    FGathered += count;
    if (start != 0) FStored += count;
    TDataBlocks& runs = FInode.Blocks;
    if (!runs.empty()) {
      TDataBlock& last = runs.back();
      const bool follows = start == 0 ? last.Start == 0 : last.Start != 0 && last.Start + last.Count == start;
      if (follows) {
        last.Count += count;
        return;
      }
    }
    runs.push_back({start, count});
  }

  /// A file has no more blocks than the volume: crafted trees end here.
  bool IsFull() const { return FStored > FReader.Blocks() || FInode.Blocks.size() >= MostRuns; }

  bool IsInside(std::int64_t block) const { return block >= 0 && block < FReader.Info().TotalBlockCount; }

  /// A block of the list itself; each counts once in a file. Empty when it is bad.
  std::span<const std::uint8_t> ListBlock(std::int64_t block) {
    if (!IsInside(block)) return {};
    for (const TDataBlock& known : FInode.TreeBlocks) {
      if (block >= known.Start && block < known.Start + known.Count) return {};
    }
    if (FInode.TreeBlocks.size() > 65536) return {};
    TDataBlocks& tree = FInode.TreeBlocks;
    if (!tree.empty() && tree.back().Start + tree.back().Count == block) {
      ++tree.back().Count;
    } else {
      tree.push_back({block, 1});
    }
    return FReader.Block(block);
  }

  // ---- pointers ----

  bool AddPointer(std::int64_t pointer) {
    if (!IsInside(pointer) || IsFull()) return false;
    Add(pointer, 1);
    return true;
  }

  /// A block of pointers, `level` steps above those that lead to content.
  bool WalkIndirect(std::int64_t block, int level) {
    const std::int64_t pointers = FBlockSize / 4;
    std::int64_t covered = pointers;
    for (int i = 1; i < level; ++i) covered *= pointers;
    if (block == 0) {
      Add(0, covered);
      return true;
    }
    const auto found = ListBlock(block);
    if (found.empty()) return false;
    const TByteDynArray bytes(found.begin(), found.end());
    for (std::int64_t i = 0; i < pointers && Missing() > 0; ++i) {
      const std::int64_t pointer = ReadLe32(bytes, static_cast<std::size_t>(i) * 4);
      if (level == 1 ? !AddPointer(pointer) : !WalkIndirect(pointer, level - 1)) return false;
    }
    return true;
  }

  bool WalkPointers(std::span<const std::uint8_t> area) {
    for (std::size_t i = 0; i < DirectPointers && Missing() > 0; ++i) {
      if (!AddPointer(ReadLe32(area, i * 4))) return false;
    }
    for (int level = 1; level <= 3 && Missing() > 0; ++level) {
      const std::size_t at = (DirectPointers + static_cast<std::size_t>(level) - 1) * 4;
      if (!WalkIndirect(ReadLe32(area, at), level)) return false;
    }
    return true;
  }

  // ---- extents ----

  bool WalkNode(std::span<const std::uint8_t> node, int depthLimit) {
    if (ReadLe16(node, 0) != ExtentNodeMark) return false;
    const std::size_t count = ReadLe16(node, 2);
    const int depth = ReadLe16(node, 6);
    if (depth >= depthLimit) return false;
    return depth == 0 ? WalkLeaf(node, count) : WalkIndex(node, count, depth);
  }

  bool WalkIndex(std::span<const std::uint8_t> node, std::size_t count, int depth) {
    if (count == 0) return false;
    for (std::size_t i = 0; i < count && Missing() > 0; ++i) {
      const std::size_t at = NodeHeaderSize + i * 12;
      if (at + 12 > node.size()) return false;
      const std::int64_t child = ReadLe32(node, at + 4) | std::int64_t{ReadLe16(node, at + 8)} << 32;
      const auto found = ListBlock(child);
      if (found.empty()) return false;
      const TByteDynArray bytes(found.begin(), found.end());
      if (!WalkNode(bytes, depth)) return false;
    }
    return true;
  }

  bool WalkLeaf(std::span<const std::uint8_t> node, std::size_t count) {
    if (count == 0) Add(0, Missing());
    for (std::size_t i = 0; i < count && Missing() > 0; ++i) {
      const std::size_t at = NodeHeaderSize + i * 12;
      if (at + 12 > node.size() || IsFull()) return false;
      const std::int64_t logical = ReadLe32(node, at);
      const std::int64_t length = ReadLe16(node, at + 4);
      const std::int64_t physical = ReadLe32(node, at + 8) | std::int64_t{ReadLe16(node, at + 6)} << 32;
      if (logical > FGathered) Add(0, logical - FGathered);
      if (length > LongestExtent) {
        Add(0, length - LongestExtent);
        continue;
      }
      if (physical == 0 || !IsInside(physical)) return false;
      Add(physical, std::min(length, FReader.Info().TotalBlockCount - physical));
    }
    return true;
  }

  TVolumeReader& FReader;
  TInode& FInode;
  std::int64_t FBlockSize;
  std::int64_t FWanted;        // blocks that the size asks for
  std::int64_t FGathered = 0;  // blocks found so far, holes too
  std::int64_t FStored = 0;    // of those, blocks of the volume
};

}  // namespace

namespace {

/// The value of the attribute "data" that the file system keeps for itself in the inode: the rest of inline
/// content that does not fit between the pointers.
std::span<const std::uint8_t> InlineRest(std::span<const std::uint8_t> bytes) {
  constexpr std::uint32_t attributeMark = 0xEA020000;
  constexpr std::uint8_t systemAttribute = 7;
  constexpr std::size_t entrySize = 16;
  if (bytes.size() <= 132) return {};
  const std::size_t header = 128 + std::size_t{ReadLe16(bytes, 128)};
  if (header + 4 > bytes.size() || ReadLe32(bytes, header) != attributeMark) return {};
  const std::size_t first = header + 4;
  for (std::size_t at = first; at + entrySize <= bytes.size() && ReadLe32(bytes, at) != 0;) {
    const std::size_t nameSize = bytes[at];
    const std::size_t value = first + ReadLe16(bytes, at + 2);
    const std::size_t size = ReadLe32(bytes, at + 8);
    const bool isData = bytes[at + 1] == systemAttribute && nameSize == 4 && at + entrySize + 4 <= bytes.size() &&
                        std::equal(bytes.begin() + static_cast<std::ptrdiff_t>(at + entrySize),
                                   bytes.begin() + static_cast<std::ptrdiff_t>(at + entrySize + 4), "data");
    if (isData)
      return value <= bytes.size() && size <= bytes.size() - value ? bytes.subspan(value, size)
                                                                   : std::span<const std::uint8_t>();
    at += (entrySize + nameSize + 3) / 4 * 4;
  }
  return {};
}

void ReadInline(std::span<const std::uint8_t> bytes, TInode& inode) {
  const auto area = bytes.subspan(BlockArea, BlockAreaSize);
  inode.IsInline = true;
  inode.Inline.assign(area.begin(), area.end());
  const auto rest = InlineRest(bytes);
  inode.Inline.insert(inode.Inline.end(), rest.begin(), rest.end());
  const auto size = static_cast<std::size_t>(std::clamp<std::int64_t>(inode.Size, 0, 65536));
  inode.Truncated = inode.Inline.size() < size;
  inode.Inline.resize(std::min(inode.Inline.size(), size));
}

/// Blocks of 512 bytes that the inode counts as its own, those of its attributes apart.
bool HasOwnBlocks(std::span<const std::uint8_t> bytes, std::int64_t blockSize) {
  const std::uint32_t counted = ReadLe32(bytes, 28);
  const std::uint32_t attributes = ReadLe32(bytes, 104) != 0 ? static_cast<std::uint32_t>(blockSize / 512) : 0;
  return counted > attributes;
}

void ReadTimes(std::span<const std::uint8_t> bytes, const TExtXInfo& info, TInode& inode) {
  const std::size_t room = info.InodeSize > 128 ? 128 + std::size_t{ReadLe16(bytes, 128)} : 128;
  const auto extra = [&](std::size_t at) { return at + 4 <= room ? ReadLe32(bytes, at) : 0; };
  const std::uint32_t changed = ReadLe32(bytes, 12);
  inode.Born = extra(144);
  inode.TimeStamp.dtAccessed = TimeOf(ReadLe32(bytes, 8), extra(140));
  inode.TimeStamp.dtModified = TimeOf(ReadLe32(bytes, 16), extra(136));
  inode.TimeStamp.dtMetadataModified = TimeOf(changed, extra(132));
  inode.TimeStamp.dtCreated = inode.Born != 0 ? TimeOf(inode.Born, extra(148)) : inode.TimeStamp.dtMetadataModified;
}

}  // namespace

TDateTime TimeOf(std::uint32_t seconds, std::uint32_t extra) {
  if (seconds == 0 && extra == 0) return 0;
  constexpr std::int64_t epochs = 11'644'473'600;  // seconds from 1601 to 1970
  const std::int64_t wide = static_cast<std::int32_t>(seconds) + (std::int64_t{extra & 3} << 32);
  const std::uint32_t nanoseconds = std::min(extra >> 2, 999'999'999U);
  return FromFileTime(static_cast<std::uint64_t>(wide + epochs) * 10'000'000 + nanoseconds / 100);
}

bool HasContent(std::span<const std::uint8_t> bytes) {
  const std::uint32_t size = ReadLe32(bytes, 4) | ReadLe32(bytes, 108);
  if (size == 0) return false;
  const std::uint32_t flags = ReadLe32(bytes, 32);
  if ((flags & InodeFlag::InlineData) != 0) return true;
  if ((flags & InodeFlag::Extents) != 0) return ReadLe16(bytes, BlockArea) == ExtentNodeMark && ReadLe16(bytes, 42) > 0;
  return bytes.size() >= BlockArea + BlockAreaSize && !IsAllZero(bytes.subspan(BlockArea, BlockAreaSize));
}

bool ParseInode(std::span<const std::uint8_t> bytes, TVolumeReader& reader, TBlockList blocks, TInode& inode) {
  inode.Blocks.clear();
  inode.TreeBlocks.clear();
  inode.Inline.clear();
  inode.IsInline = inode.Truncated = false;
  if (bytes.size() < 128) return false;
  inode.Type = TypeOfMode(ReadLe16(bytes, 0));
  if (inode.Type == TFileType::ftUnknown) return false;
  inode.Links = ReadLe16(bytes, 26);
  inode.Flags = ReadLe32(bytes, 32);
  inode.Generation = ReadLe32(bytes, 100);
  inode.DeletedAt = ReadLe32(bytes, 20);
  inode.Size = ReadLe32(bytes, 4);
  const bool hasContent = inode.Type == TFileType::ftRegularFile || inode.Type == TFileType::ftDirectory ||
                          inode.Type == TFileType::ftSymbolicLink;
  // Folders keep another field there, unless the volume is made for very large ones.
  const bool largeFolder = (reader.Info().FeatureIncompat & Feature::IncompatLargeFolders) != 0;
  if (inode.Type == TFileType::ftRegularFile || (inode.Type == TFileType::ftDirectory && largeFolder)) {
    inode.Size |= std::int64_t{ReadLe32(bytes, 108)} << 32;
  }
  if (inode.Size < 0 || !hasContent) inode.Size = 0;
  ReadTimes(bytes, reader.Info(), inode);
  if (blocks == TBlockList::Skip || !hasContent) return true;
  if ((inode.Flags & InodeFlag::InlineData) != 0) {
    ReadInline(bytes, inode);
  } else if (inode.Type == TFileType::ftSymbolicLink && inode.Size < static_cast<std::int64_t>(BlockAreaSize) &&
             !HasOwnBlocks(bytes, reader.BlockSize())) {
    ReadInline(bytes, inode);
  } else {
    const TByteDynArray area(bytes.begin() + BlockArea, bytes.begin() + BlockArea + BlockAreaSize);
    TBlockCollector(reader, inode).Collect(area);
  }
  return true;
}

}  // namespace brenlow::ext
