// SPDX-License-Identifier: GPL-3.0-or-later
// What the journal tells of the past: the states that inodes had, and which names stood in which blocks of
// folders, each with the transactions in which that was so.
#pragma once

#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "core/types.h"
#include "fs/ext/ext_directory.h"
#include "fs/ext/ext_info.h"
#include "fs/ext/ext_inode.h"
#include "fs/ext/ext_journal.h"

namespace brenlow::ext {

class TVolumeReader;

/// One state of an inode.
struct TInodeVersion {
  std::uint32_t Inode = 0;
  std::uint32_t Sequence = 0;  ///< of the transaction that it was written in
  std::uint32_t Generation = 0;
  std::uint32_t Born = 0;     ///< Unix seconds, 0 for not known
  std::int64_t Position = 0;  ///< bytes from the journal's start
  std::int64_t Size = 0;      ///< bytes
  std::uint64_t State = 0;    ///< a hash of what counts
  TFileType Type = TFileType::ftUnknown;
  bool HasLinks = false;
  bool HasContent = false;
};

/// The life of one file: an inode number is used for one after the other.
struct TFileLife {
  std::uint32_t Inode = 0;
  std::uint32_t FirstVersion = 0;  ///< index
  std::uint32_t VersionCount = 0;
  std::uint32_t From = 0;   ///< in order of time (`TExtXJournal::Order`): where it begins
  std::uint32_t Until = 0;  ///< where the next file of that number begins; UINT32_MAX when there is none
  TFileType Type = TFileType::ftUnknown;
  bool IsLive = false;    ///< it is what the volume has now
  bool IsListed = false;  ///< a row tells of it
};

/// A name in a block of a folder.
struct TOldName {
  std::int64_t Block = 0;
  std::uint32_t Folder = 0;  ///< inode of the folder, 0 while that is not known
  std::uint32_t Inode = 0;
  std::uint32_t From = 0;  ///< in order of time: first and last transaction in which it was seen
  std::uint32_t Until = 0;
  TFileType FileType = TFileType::ftUnknown;
  std::uint32_t Seed = 0;             ///< of the block's checksum where the folder is not known, see `ChecksumSeedOf`
  std::uint32_t GoneAt = UINT32_MAX;  ///< in order of time: the block was written without it
  bool Remnant = false;               ///< it was unlinked already
  std::uint32_t NameStart = 0;
  std::uint16_t NameLength = 0;
};

class THistory {
 public:
  /// Sweeps the journal of the drive; false when there is none. What it knows of copies of blocks is left in
  /// the drive's record.
  bool Read(TVolumeReader& reader, TExtXJournal& journal, const std::function<bool()>& goOn);

  const std::vector<TInodeVersion>& Versions() const { return FVersions; }
  std::vector<TFileLife>& Lives() { return FLives; }
  std::vector<TOldName>& Names() { return FNames; }
  /// By inode of a folder: the folder above it, as an old first block of it says.
  const std::unordered_map<std::uint32_t, std::uint32_t>& FoldersAbove() const { return FFoldersAbove; }
  TStringView NameOf(const TOldName& name) const { return TStringView(FText).substr(name.NameStart, name.NameLength); }
  /// The lives of an inode number, in order of time.
  std::span<TFileLife> LivesOf(std::uint32_t inode);
  /// The newest state with content; null when none has any.
  const TInodeVersion* BestOf(const TFileLife& life) const;
  /// The state that was in force at a time; the first one when none is that old.
  const TInodeVersion& VersionAt(const TFileLife& life, std::uint32_t order) const;

 private:
  void NoteInodes(const TLoggedCopy& copy, std::uint32_t firstInode);
  void NoteNames(const TLoggedCopy& copy);
  void SplitLives();

  const TExtXInfo* FInfo = nullptr;
  const TExtXJournal* FJournal = nullptr;
  std::vector<TInodeVersion> FVersions;
  std::vector<TFileLife> FLives;
  std::vector<TOldName> FNames;
  std::unordered_map<std::uint32_t, std::uint32_t> FFoldersAbove;
  TString FText;
  TDirectoryEntries FEntries;
  std::unordered_map<std::uint32_t, std::uint32_t> FLastVersion;  // by inode, index
  std::unordered_map<std::uint64_t, std::uint32_t> FKnownNames;   // by hash, index
};

}  // namespace brenlow::ext
