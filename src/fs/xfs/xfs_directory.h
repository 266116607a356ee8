// SPDX-License-Identifier: GPL-3.0-or-later
// Entries of directories, in the inode or in blocks, with those that were deleted.
//
// Format facts: "XFS Algorithms & Data Structures" (Directories). Deleting an entry overwrites its first four
// bytes (the upper half of the inode number) and its last two; the name stays.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "fs/xfs/xfs_inode.h"

namespace brenlow::xfs {

/// A name in a directory; the text is that of the bytes parsed.
struct TFileEntry {
  std::int64_t Inode = 0;  ///< of a deleted entry in a block: without its upper half
  TFileType FileType = TFileType::ftUnknown;
  bool Deleted = false;
  std::string_view FileName;
};
/// False ends the walk.
using TEntrySink = std::function<bool(const TFileEntry&)>;

/// What a directory block says of itself.
struct TDirectoryBlock {
  std::size_t HeaderSize = 0;     ///< bytes; 0 for what is no directory block
  bool Single = false;            ///< the whole directory, with its index at the end
  std::int64_t Owner = NoInode;   ///< the directory, where the block names it (version 5, or its "." entry)
  std::int64_t Parent = NoInode;  ///< as its ".." entry says
};
TDirectoryBlock ReadDirectoryBlock(const TXFSInfo& info, TBytes block);

/// The entries of a directory block ("." and ".." left out), and those deleted from it.
void WalkDirectoryBlock(const TXFSInfo& info, TBytes block, const TEntrySink& sink);
/// Entries anywhere in a block of which some stretches are missing: each says itself where it lies.
void WalkDirectoryPieces(const TXFSInfo& info, TBytes block, const TEntrySink& sink);

/// A directory in the fork of its inode: its parent, and its entries. `size`: bytes that it takes. False when it
/// is none.
bool WalkShortDirectory(const TXFSInfo& info, TBytes fork, std::int64_t& parent, std::int64_t& size,
                        const TEntrySink& sink);

TFileType TypeOfByte(std::uint8_t type);

}  // namespace brenlow::xfs
