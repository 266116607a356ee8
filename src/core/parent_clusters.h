// SPDX-License-Identifier: GPL-3.0-or-later
// The index of one drive from a parent reference to the files under it.
#pragma once

#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "core/types.h"

namespace brenlow {

/// Maps a parent reference (`TFile::ParentCluster`) to the numbers of the files below it, in the
/// order in which they were added. Parents may come in any order at constant cost; answers that
/// must be sorted are sorted when asked for.
class TParentClusters {
 public:
  void Add(std::int64_t number, std::uint32_t fileNumber);
  /// Takes one file out of a bucket; a bucket may stay behind empty. False when it was not there.
  bool Delete(std::int64_t number, std::uint32_t fileNumber);
  void Clear();
  /// True when no file is entered.
  bool Empty() const { return FFileCount == 0; }

  /// The files under `number`; empty when there are none.
  TInt64DynArray Files(std::int64_t number) const;
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
    std::uint32_t Next;
  };
  struct TBucket {
    std::uint32_t First = None;
    std::uint32_t Last = None;
  };
  static constexpr std::size_t LinksPerChunk = 8192;

  TLink& Link(std::uint32_t index) { return FLinks[index / LinksPerChunk][index % LinksPerChunk]; }
  const TLink& Link(std::uint32_t index) const { return FLinks[index / LinksPerChunk][index % LinksPerChunk]; }

  std::unordered_map<std::int64_t, TBucket> FBuckets;
  std::vector<std::vector<TLink>> FLinks;  // chunks: growing never copies
  std::uint32_t FLinkCount = 0;
  std::size_t FFileCount = 0;
  /// Points into the map of its own index only: a copy starts empty.
  struct TBucketCache {
    std::int64_t Number = 0;
    TBucket* Bucket = nullptr;
    TBucketCache() = default;
    TBucketCache(const TBucketCache&) noexcept {}
    TBucketCache& operator=(const TBucketCache&) noexcept {
      Bucket = nullptr;
      return *this;
    }
  };
  // Files mostly arrive folder by folder: the bucket used last is tried first.
  TBucketCache FLast;
};

}  // namespace brenlow
