// SPDX-License-Identifier: GPL-3.0-or-later
// Marks and sizes of XFS structures, and the numbers of blocks and inodes.
//
// Format facts: "XFS Algorithms & Data Structures", Linux kernel documentation; libyal, "X File System (XFS)".
#pragma once

#include <cstdint>
#include <span>

#include "core/numbers.h"
#include "fs/xfs/xfs_info.h"

namespace brenlow::xfs {

using TBytes = std::span<const std::uint8_t>;

constexpr std::uint64_t ReadBe64(TBytes bytes, std::size_t at) { return ReadNumber(bytes, false, 8, at); }

/// Four letters as a big-endian number.
constexpr std::uint32_t Mark(const char (&text)[5]) {
  std::uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = value << 8 | static_cast<std::uint8_t>(text[i]);
  return value;
}

inline constexpr std::uint32_t SuperblockMark = Mark("XFSB");
inline constexpr std::uint32_t FreeSpaceMark = Mark("XAGF");
inline constexpr std::uint32_t InodeGroupMark = Mark("XAGI");
inline constexpr std::uint16_t InodeMark = 0x494E;  // "IN"

inline constexpr std::uint32_t SmallestBlock = 512;   // bytes
inline constexpr std::uint32_t LargestBlock = 65536;  // bytes, of directory blocks as well
inline constexpr std::int64_t InodesPerChunk = 64;    // allocated and freed together
inline constexpr std::int64_t NoInode = -1;
inline constexpr std::int64_t LeafSpace = std::int64_t{32} << 30;  // bytes: a directory's index begins here

// ---- numbers --------------------------------------------------------------------------------

/// A block counted through from the volume's start; -1 for a number that leads out of it.
inline std::int64_t LinearBlock(const TXFSInfo& info, std::int64_t block) {
  if (block < 0) return -1;
  const std::int64_t group = block >> info.BlockRelativePart;
  const std::int64_t relative = block & ((std::int64_t{1} << info.BlockRelativePart) - 1);
  if (group >= info.AGCount || relative >= info.AGSize) return -1;
  const std::int64_t linear = group * info.AGSize + relative;
  return linear < info.TotalBlockCount ? linear : -1;
}

/// Byte of the volume at which an inode begins; -1 for a number that leads out of it.
inline std::int64_t InodePlace(const TXFSInfo& info, std::int64_t inode) {
  if (inode < 0) return -1;
  const std::int64_t group = inode >> info.InodeRelativePart;
  const std::int64_t relative = inode & ((std::int64_t{1} << info.InodeRelativePart) - 1);
  const std::int64_t block = relative / info.InodesPerBlock;
  if (group >= info.AGCount || block >= info.AGSize) return -1;
  const std::int64_t linear = group * info.AGSize + block;
  if (linear >= info.TotalBlockCount) return -1;
  return linear * info.BlockSize + relative % info.InodesPerBlock * info.InodeSize;
}

/// The number of the inode that begins at a byte of the volume.
inline std::int64_t InodeAt(const TXFSInfo& info, std::int64_t place) {
  const std::int64_t block = place / info.BlockSize;
  const std::int64_t group = block / info.AGSize;
  const std::int64_t relative = block % info.AGSize * info.InodesPerBlock + place % info.BlockSize / info.InodeSize;
  return (group << info.InodeRelativePart) | relative;
}

/// Bytes of a directory block.
inline std::int64_t DirectoryBlockSize(const TXFSInfo& info) {
  return std::int64_t{info.DirectoryBlocks} * info.BlockSize;
}

/// Blocks of a group; the last one may be shorter.
inline std::int64_t GroupBlocks(const TXFSInfo& info, std::int64_t group) {
  return std::min<std::int64_t>(info.AGSize, info.TotalBlockCount - group * info.AGSize);
}

}  // namespace brenlow::xfs
