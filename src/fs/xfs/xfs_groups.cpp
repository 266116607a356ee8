// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/xfs/xfs_groups.h"

#include <algorithm>
#include <unordered_set>

#include "core/engine.h"
#include "core/extent_reader.h"
#include "fs/xfs/xfs_inodes.h"

namespace brenlow::xfs {
namespace {

constexpr std::uint32_t FreeSpaceSector = 1;  // of a group
constexpr std::uint32_t InodeSector = 2;
constexpr std::size_t NarrowHeader = 16;  // bytes, of a tree block
constexpr std::size_t WideHeader = 56;
constexpr int DeepestGroupTree = 12;  // levels

}  // namespace

/// What the trees of a group differ in.
struct TGroups::TTree {
  std::uint32_t Group;
  std::uint32_t NarrowMark;
  std::uint32_t WideMark;
  std::size_t KeySize;     // bytes
  std::size_t RecordSize;  // bytes
};

TByteDynArray TGroups::ReadHeader(std::uint32_t group, std::uint32_t sector, std::uint32_t mark) {
  TByteDynArray header(512);
  const std::int64_t start = std::int64_t{group} * FInfo.AGSize * FInfo.BlockSize;
  FEngine.Content().ReadPlace(FDrive, start + std::int64_t{sector} * FInfo.SectorSize, header);
  if (ReadBe32(header, 0) != mark || ReadBe32(header, 8) != group) header.clear();
  return header;
}

TByteDynArray TGroups::ReadBlock(std::uint32_t group, std::uint32_t block) {
  if (block >= GroupBlocks(FInfo, group)) return {};
  TByteDynArray bytes(FInfo.BlockSize);
  const std::int64_t linear = std::int64_t{group} * FInfo.AGSize + block;
  FEngine.Content().ReadPlace(FDrive, linear * FInfo.BlockSize, bytes);
  return bytes;
}

/// Calls `sink(record)` for the records of a tree, in order. False when a block of it is not what it should be.
template <typename TSink>
bool TGroups::WalkTree(const TTree& tree, std::uint32_t root, int level, TSink&& sink) {
  struct TStep {
    std::uint32_t Block;
    int Level;
  };
  if (level < 1 || level > DeepestGroupTree) return false;
  std::unordered_set<std::uint32_t> visited;
  std::vector<TStep> waiting{{root, level - 1}};
  bool whole = true;
  while (!waiting.empty()) {
    const TStep step = waiting.back();
    waiting.pop_back();
    FEngine.Pump();
    const TByteDynArray block = visited.insert(step.Block).second ? ReadBlock(tree.Group, step.Block) : TByteDynArray();
    const std::uint32_t mark = ReadBe32(block, 0);
    if ((mark != tree.NarrowMark && mark != tree.WideMark) || ReadBe16(block, 4) != step.Level) {
      whole = false;
      continue;
    }
    const std::size_t header = mark == tree.WideMark ? WideHeader : NarrowHeader;
    const bool leaf = step.Level == 0;
    const std::size_t room = (block.size() - header) / (leaf ? tree.RecordSize : tree.KeySize + 4);
    const std::size_t count = std::min<std::size_t>(ReadBe16(block, 6), room);
    whole = whole && ReadBe16(block, 6) <= room;
    for (std::size_t i = 0; leaf && i < count; ++i)
      sink(TBytes(block).subspan(header + i * tree.RecordSize, tree.RecordSize));
    // The first child is to come next.
    for (std::size_t i = count; !leaf && i-- > 0;) {
      waiting.push_back({ReadBe32(block, header + room * tree.KeySize + 4 * i), step.Level - 1});
    }
  }
  return whole;
}

bool TGroups::ReadFreeBlocks(std::uint32_t group, std::vector<TBlockRange>& result) {
  const TByteDynArray header = ReadHeader(group, FreeSpaceSector, FreeSpaceMark);
  if (header.empty()) return false;
  const std::int64_t start = std::int64_t{group} * FInfo.AGSize;
  const std::int64_t blocks = GroupBlocks(FInfo, group);
  std::int64_t end = 0;
  bool sound = true;
  const TTree tree{group, Mark("ABTB"), Mark("AB3B"), 8, 8};
  const bool whole =
      WalkTree(tree, ReadBe32(header, 0x10), static_cast<int>(ReadBe32(header, 0x1C)), [&](TBytes record) {
        const std::int64_t first = ReadBe32(record, 0);
        const std::int64_t count = ReadBe32(record, 4);
        if (first < end || count == 0 || first + count > blocks) {
          sound = false;
          return;
        }
        end = first + count;
        result.push_back({start + first, start + end});
      });
  return whole && sound;
}

bool TGroups::ReadChunks(std::uint32_t group, std::vector<TInodeChunk>& result) {
  constexpr std::uint16_t perBit = 4;  // inodes for which a bit says that they have no room
  const TByteDynArray header = ReadHeader(group, InodeSector, InodeGroupMark);
  if (header.empty()) return false;
  const std::int64_t inodes = GroupBlocks(FInfo, group) * FInfo.InodesPerBlock;
  std::int64_t end = 0;
  bool sound = true;
  const TTree tree{group, Mark("IABT"), Mark("IAB3"), 4, 16};
  const bool whole =
      WalkTree(tree, ReadBe32(header, 0x14), static_cast<int>(ReadBe32(header, 0x18)), [&](TBytes record) {
        TInodeChunk chunk;
        const std::int64_t first = ReadBe32(record, 0);
        if (first < end || first >= inodes) {
          sound = false;
          return;
        }
        end = first + InodesPerChunk;
        chunk.FirstInode = (std::int64_t{group} << FInfo.InodeRelativePart) | first;
        chunk.Free = ReadBe64(record, 8);
        const std::uint16_t holes = FInfo.SparseInodes ? ReadBe16(record, 4) : std::uint16_t{0};
        for (unsigned i = 0; i < InodesPerChunk; ++i) {
          if ((holes >> (i / perBit) & 1) != 0) chunk.Absent |= std::uint64_t{1} << i;
        }
        result.push_back(chunk);
      });
  return whole && sound;
}

std::int64_t TGroups::StatedLength(std::uint32_t group) {
  const TByteDynArray header = ReadHeader(group, FreeSpaceSector, FreeSpaceMark);
  return header.empty() ? 0 : ReadBe32(header, 0x0C);
}

void FillFreeBlocks(TEngine& engine, TDriveInfo& drive) {
  TXFSInfo& info = XFSInfo(drive);
  if (info.IsFreeFilled) return;
  info.IsFreeFilled = true;
  std::vector<TBlockRange> free;
  TGroups groups(engine, drive);
  info.GroupsRead = GroupsThere(engine, drive);
  for (std::uint32_t group = 0; group < info.GroupsRead; ++group) {
    const std::size_t before = free.size();
    if (!groups.ReadFreeBlocks(group, free)) {
      free.resize(before);
      info.GroupsWithoutFreeBlocks.push_back(group);
    }
    engine.Pump();
  }
  info.FreeBlocks = std::move(free);
}

bool IsFree(const TXFSInfo& info, const TBlockRange& range, bool* known) {
  const auto& lost = info.GroupsWithoutFreeBlocks;
  const auto group = static_cast<std::uint32_t>(range.First / std::max(info.AGSize, 1U));
  if (known != nullptr) *known = group < info.GroupsRead && !std::binary_search(lost.begin(), lost.end(), group);
  const auto after = std::upper_bound(info.FreeBlocks.begin(), info.FreeBlocks.end(), range.First,
                                      [](std::int64_t block, const TBlockRange& r) { return block < r.First; });
  return after != info.FreeBlocks.begin() && range.End <= std::prev(after)->End;
}

}  // namespace brenlow::xfs
