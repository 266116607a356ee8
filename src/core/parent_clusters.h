// SPDX-License-Identifier: GPL-3.0-or-later
// The index of one drive from a parent reference to the files under it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/types.h"

namespace brenlow {

/// Maps a parent reference (`TFile::ParentCluster`) to the numbers of the files below it, in the
/// order in which they were added. Parents may come in any order at constant cost; answers that
/// must be sorted are sorted when asked for.
///
/// A hash table with open addressing (about one cache miss for an insertion in random order) holds
/// for each parent the newest of its files and the newest of its folders, each with a link to the
/// one before it. The folders of a parent are thus found without touching its files.
class TParentClusters {
 public:
  void Add(std::int64_t number, std::uint32_t fileNumber, bool isFolder);
  /// Takes one file out of a bucket; an empty bucket may remain. False when it was not there.
  bool Delete(std::int64_t number, std::uint32_t fileNumber);
  /// What lies under `from` lies under `to` from now on.
  void Move(std::int64_t from, std::int64_t to);
  void Clear();
  /// True when no file is entered.
  bool Empty() const { return FFileCount == 0; }

  /// The files under `number`; empty when there are none.
  TInt64DynArray Files(std::int64_t number) const;
  /// Only what was entered as a folder.
  TInt64DynArray Folders(std::int64_t number) const;
  /// True when nothing lies under `number`.
  bool Empty(std::int64_t number) const;
  /// A value that changes with every addition under `number`.
  std::uint64_t Version(std::int64_t number) const;
  /// All parent references that have at least one file, ascending.
  TInt64DynArray Numbers() const;

  /// File numbers after a deletion from the file table: `newNumbers[old]`, or
  /// `TFileArray::Erased` for a row that is gone.
  void Renumber(std::span<const std::uint32_t> newNumbers);
  /// Appends all buckets of another index to this one and empties it.
  void Merge(TParentClusters& other);

 private:
  static constexpr std::uint32_t None = 0xFFFFFFFF;
  struct TLink {
    std::uint32_t FileNumber;
    std::uint32_t Previous;
  };
  struct TBucket {
    std::int64_t Number = 0;
    std::uint32_t Newest = None;        // link of the file added last; None when all are gone
    std::uint32_t NewestFolder = None;  // the same for folders
    bool Used = false;
  };
  static constexpr std::size_t LinksPerChunk = 8192;

  TLink& Link(std::uint32_t index) { return FLinks[index / LinksPerChunk][index % LinksPerChunk]; }
  const TLink& Link(std::uint32_t index) const { return FLinks[index / LinksPerChunk][index % LinksPerChunk]; }
  /// Place of the parent, or of the free bucket where it belongs. The table is not empty.
  std::size_t Find(std::int64_t number) const;
  const TBucket* FindUsed(std::int64_t number) const;
  std::uint32_t Merged(std::uint32_t first, std::uint32_t second);
  bool DeleteFrom(std::uint32_t& newest, std::uint32_t fileNumber);
  void RenumberChain(std::uint32_t& newest, std::span<const std::uint32_t> newNumbers);
  void Grow();

  std::vector<TBucket> FBuckets;  // a power of two, at most half of them used
  std::size_t FUsed = 0;
  std::vector<std::vector<TLink>> FLinks;  // chunks: growing never copies
  std::uint32_t FLinkCount = 0;
  std::size_t FFileCount = 0;
};

}  // namespace brenlow
