// SPDX-License-Identifier: GPL-3.0-or-later
// One block of a folder: the records in use, and in the room between them those that were unlinked.
//
// Format facts: Linux kernel documentation, "ext4 Data Structures and Algorithms" (Directory Entries).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/types.h"
#include "fs/ext/ext_inode.h"

namespace brenlow::ext {

struct TDirectoryEntry {
  std::uint32_t Inode = 0;
  bool Deleted = false;
  TFileType FileType = TFileType::ftUnknown;  ///< as the record says; old volumes do not
  std::uint32_t NameStart = 0;                ///< units, in the text of all names
  std::uint16_t NameLength = 0;
  std::int64_t Position = 0;  ///< bytes from the start of what was walked, or of the volume
};

/// Entries with their names in one text.
class TDirectoryEntries {
 public:
  std::size_t size() const { return FEntries.size(); }
  bool empty() const { return FEntries.empty(); }
  TDirectoryEntry& operator[](std::size_t index) { return FEntries[index]; }
  const TDirectoryEntry& operator[](std::size_t index) const { return FEntries[index]; }
  TStringView NameOf(const TDirectoryEntry& entry) const {
    return TStringView(FNames).substr(entry.NameStart, entry.NameLength);
  }
  TStringView Name(std::size_t index) const { return NameOf(FEntries[index]); }
  /// Decodes a name (UTF-8, without blanks at its ends) and appends the entry. False for an empty name.
  bool Add(TDirectoryEntry entry, std::span<const std::uint8_t> name);
  void Clear() {
    FEntries.clear();
    FNames.clear();
  }

 private:
  std::vector<TDirectoryEntry> FEntries;
  TString FNames;
};

/// How a block is looked at.
struct TBlockRules {
  bool TestSignature = false;   ///< with `MayBegin`: nothing is taken unless "." and ".." stand there as they must
  bool MayBegin = false;        ///< this is the block that a folder may begin with
  std::uint32_t LastInode = 0;  ///< numbers above it are garbage; 0 takes any
};

struct TBlockWalk {
  bool Whole = false;        ///< the end of the bytes was reached
  std::size_t Consumed = 0;  ///< bytes
};

/// Walks the records from `start` on and appends what they name. Entries 0 and 1 of a folder's first block
/// are "." and "..".
TBlockWalk WalkDirectoryBlock(std::span<const std::uint8_t> bytes, std::size_t start, const TBlockRules& rules,
                              TDirectoryEntries& entries);

/// True for "." and ".." at the start of a block, as every folder begins with.
bool BeginsFolder(std::span<const std::uint8_t> bytes, std::size_t start);

/// True when the records in use fill the whole block without a fault: told from any other bytes by that.
bool IsFolderBlock(std::span<const std::uint8_t> block, std::uint32_t lastInode);

/// The seed of the checksum at the end of a folder's block, which follows from number and generation of the
/// folder's inode. 0 for a block without one.
std::uint32_t ChecksumSeedOf(std::span<const std::uint8_t> block);

/// The length of the record at `at`; of blocks of 64 KiB the two lowest bits go on with the number.
std::uint32_t RecordLength(std::span<const std::uint8_t> bytes, std::size_t at);

}  // namespace brenlow::ext
