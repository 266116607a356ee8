// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/parent_clusters.h"

#include <algorithm>

#include "core/file_records.h"

namespace brenlow {

void TParentClusters::Add(std::int64_t number, std::uint32_t fileNumber) {
  if (FLast.Bucket == nullptr || FLast.Number != number) {
    FLast.Bucket = &FBuckets[number];
    FLast.Number = number;
  }
  TBucket& bucket = *FLast.Bucket;
  if (FLinkCount == FLinks.size() * LinksPerChunk) FLinks.emplace_back(LinksPerChunk);
  const std::uint32_t index = FLinkCount++;
  Link(index) = {fileNumber, None};
  (bucket.Last == None ? bucket.First : Link(bucket.Last).Next) = index;
  bucket.Last = index;
  ++FFileCount;
}

bool TParentClusters::Delete(std::int64_t number, std::uint32_t fileNumber) {
  const auto found = FBuckets.find(number);
  if (found == FBuckets.end()) return false;
  TBucket& bucket = found->second;
  std::uint32_t before = None;
  for (std::uint32_t at = bucket.First; at != None; before = at, at = Link(at).Next) {
    if (Link(at).FileNumber != fileNumber) continue;
    const std::uint32_t after = Link(at).Next;
    (before == None ? bucket.First : Link(before).Next) = after;
    if (after == None) bucket.Last = before;
    --FFileCount;
    return true;
  }
  return false;
}

void TParentClusters::Clear() { *this = TParentClusters(); }

TInt64DynArray TParentClusters::Files(std::int64_t number) const {
  TInt64DynArray files;
  const auto found = FBuckets.find(number);
  if (found == FBuckets.end()) return files;
  for (std::uint32_t at = found->second.First; at != None; at = Link(at).Next) files.push_back(Link(at).FileNumber);
  return files;
}

TInt64DynArray TParentClusters::Numbers() const {
  TInt64DynArray numbers;
  numbers.reserve(FBuckets.size());
  for (const auto& [number, bucket] : FBuckets) {
    if (bucket.First != None) numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

void TParentClusters::Renumber(std::span<const std::uint32_t> newNumbers) {
  for (auto& [number, bucket] : FBuckets) {
    TBucket kept;
    for (std::uint32_t at = bucket.First; at != None;) {
      TLink& link = Link(at);
      const std::uint32_t next = link.Next;
      link.FileNumber = link.FileNumber < newNumbers.size() ? newNumbers[link.FileNumber] : TFileArray::Erased;
      if (link.FileNumber == TFileArray::Erased) {
        --FFileCount;
      } else {
        link.Next = None;
        (kept.Last == None ? kept.First : Link(kept.Last).Next) = at;
        kept.Last = at;
      }
      at = next;
    }
    bucket = kept;
  }
}

void TParentClusters::Merge(TParentClusters& other) {
  for (const std::int64_t number : other.Numbers()) {
    for (const std::int64_t file : other.Files(number)) Add(number, static_cast<std::uint32_t>(file));
  }
  other.Clear();
}

}  // namespace brenlow
