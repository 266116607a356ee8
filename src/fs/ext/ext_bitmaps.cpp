// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ext/ext_bitmaps.h"

#include <algorithm>

#include "fs/ext/ext_blocks.h"
#include "fs/ext/ext_info.h"

namespace brenlow::ext {
namespace {

/// The block bitmap of a group, read when it is first asked for. Empty where there is none.
const TByteDynArray& BlockBitmapOf(TEngine& engine, TDriveInfo& drive, std::size_t number) {
  TExtXGroup& group = ExtXInfo(drive).Groups[number];
  if (!group.BlockBitmapAsked) {
    group.BlockBitmapAsked = true;
    TVolumeReader reader(engine, drive);
    const auto block =
        group.BlockBitmapUnused ? std::span<const std::uint8_t>() : reader.Block(group.BlockBitmapLocation);
    ExtXInfo(drive).Groups[number].BlockBitmap.assign(block.begin(), block.end());
  }
  return ExtXInfo(drive).Groups[number].BlockBitmap;
}

}  // namespace

std::int64_t SameState(TEngine& engine, TDriveInfo& drive, std::int64_t block, std::int64_t count, bool& used) {
  const std::int64_t perGroup = ExtXInfo(drive).BlocksPerGroup;
  const std::int64_t relative = block - ExtXInfo(drive).FirstDataBlock;
  const auto number = static_cast<std::size_t>(std::max<std::int64_t>(relative, 0) / perGroup);
  used = true;
  if (relative < 0 || number >= ExtXInfo(drive).Groups.size()) return count;
  const std::int64_t within = relative % perGroup;
  count = std::min(count, perGroup - within);
  const TByteDynArray& bitmap = BlockBitmapOf(engine, drive, number);
  if (bitmap.empty()) {
    used = !ExtXInfo(drive).Groups[number].BlockBitmapUnused;
    return count;
  }
  const std::int64_t ratio = ExtXInfo(drive).ClusterRatio;
  const auto isUsed = [&](std::int64_t at) {
    const auto bit = static_cast<std::size_t>(at / ratio);
    return bit / 8 >= bitmap.size() || (bitmap[bit / 8] >> (bit % 8) & 1) != 0;
  };
  used = isUsed(within);
  std::int64_t same = 1;
  while (same < count && isUsed(within + same) == used) ++same;
  return same;
}

bool IsInodeUsed(TEngine& engine, TDriveInfo& drive, std::int64_t inode) {
  const std::int64_t perGroup = ExtXInfo(drive).InodesPerGroup;
  const auto number = static_cast<std::size_t>((inode - 1) / std::max<std::int64_t>(perGroup, 1));
  if (inode <= 0 || number >= ExtXInfo(drive).Groups.size()) return true;
  if (!ExtXInfo(drive).Groups[number].InodeBitmapAsked) {
    ExtXInfo(drive).Groups[number].InodeBitmapAsked = true;
    TVolumeReader reader(engine, drive);
    const auto block = reader.Block(ExtXInfo(drive).Groups[number].InodeBitmapLocation);
    ExtXInfo(drive).Groups[number].InodeBitmap.assign(block.begin(), block.end());
  }
  const TByteDynArray& bitmap = ExtXInfo(drive).Groups[number].InodeBitmap;
  const auto bit = static_cast<std::size_t>((inode - 1) % perGroup);
  return bit / 8 >= bitmap.size() || (bitmap[bit / 8] >> (bit % 8) & 1) != 0;
}

}  // namespace brenlow::ext
