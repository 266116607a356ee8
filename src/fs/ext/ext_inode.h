// SPDX-License-Identifier: GPL-3.0-or-later
// One inode: what it says of its file, and which blocks it has.
//
// Format facts: Linux kernel documentation, "ext4 Data Structures and Algorithms" (Inodes, Extent Tree,
// Direct/Indirect Block Addressing, Inline Data).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/datetime.h"
#include "core/types.h"
#include "fs/ext/ext_info.h"
#include "fs/file_type.h"

namespace brenlow::ext {

class TVolumeReader;

/// A run of blocks. `Start` 0 means a hole.
struct TDataBlock {
  std::int64_t Start = 0;
  std::int64_t Count = 0;
};
using TDataBlocks = std::vector<TDataBlock>;

namespace InodeFlag {
inline constexpr std::uint32_t Encrypted = 0x800;
inline constexpr std::uint32_t Indexed = 0x1000;
inline constexpr std::uint32_t Extents = 0x80000;
inline constexpr std::uint32_t ExtendedAttributeValue = 0x200000;
inline constexpr std::uint32_t InlineData = 0x10000000;
inline constexpr std::uint32_t CaseFolded = 0x40000000;
}  // namespace InodeFlag

/// What a node of a tree of extents begins with.
inline constexpr std::uint16_t ExtentNodeMark = 0xF30A;

struct TInode {
  TFileType Type = TFileType::ftUnknown;
  std::uint16_t Links = 0;
  std::uint32_t Flags = 0;
  std::uint32_t Generation = 0;  ///< differs between the files that had a number one after the other
  std::uint32_t Born = 0;        ///< Unix seconds; 0 where inodes have no room for it
  std::uint32_t DeletedAt = 0;   ///< Unix seconds, 0 for never
  std::int64_t Size = 0;         ///< bytes
  TTimeStamp TimeStamp;
  TDataBlocks Blocks;      ///< of the content, in order
  TDataBlocks TreeBlocks;  ///< in which the list of those lies
  TByteDynArray Inline;    ///< content that lies in the inode itself
  bool IsInline = false;
  bool Truncated = false;  ///< the list of blocks ends in a fault
};

/// Whether the list of blocks is read too, which may take reads.
enum class TBlockList { Skip, Read };

/// Reads an inode. False for one of no known type.
bool ParseInode(std::span<const std::uint8_t> bytes, TVolumeReader& reader, TBlockList blocks, TInode& inode);

/// Reads an inode out of the journal, `position` bytes from its start, with the lists of its blocks as of that
/// transaction. `bytes` gets the inode itself.
bool ReadLoggedInode(TVolumeReader& reader, std::int64_t position, TBlockList blocks, TByteDynArray& bytes,
                     TInode& inode);

/// The cheap part of it: whether the bytes are an inode with content of its own (a size, and blocks or inline
/// bytes), as a copy must be to be worth anything.
bool HasContent(std::span<const std::uint8_t> bytes);

/// A time of Unix seconds and the field of nanoseconds beside it, whose two lowest bits go on with the
/// seconds. 0 for no time.
TDateTime TimeOf(std::uint32_t seconds, std::uint32_t extra);

}  // namespace brenlow::ext
