// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/parent_clusters.h"

#include <algorithm>

#include "core/file_records.h"

namespace brenlow {
namespace {

constexpr std::size_t SmallestTable = 64;

std::size_t Hash(std::int64_t number) {
  // Fibonacci hashing: neighbouring cluster numbers spread over the whole table.
  return static_cast<std::size_t>((static_cast<std::uint64_t>(number) * 0x9E3779B97F4A7C15U) >> 20);
}

}  // namespace

std::size_t TParentClusters::Find(std::int64_t number) const {
  const std::size_t mask = FBuckets.size() - 1;
  std::size_t at = Hash(number) & mask;
  while (FBuckets[at].Used && FBuckets[at].Number != number) at = (at + 1) & mask;
  return at;
}

const TParentClusters::TBucket* TParentClusters::FindUsed(std::int64_t number) const {
  if (FBuckets.empty()) return nullptr;
  const TBucket& bucket = FBuckets[Find(number)];
  return bucket.Used ? &bucket : nullptr;
}

void TParentClusters::Grow() {
  std::vector<TBucket> old(std::max(FBuckets.size() * 2, SmallestTable));
  old.swap(FBuckets);
  for (const TBucket& bucket : old) {
    if (bucket.Used) FBuckets[Find(bucket.Number)] = bucket;
  }
}

void TParentClusters::Add(std::int64_t number, std::uint32_t fileNumber) {
  if (FUsed * 2 >= FBuckets.size()) Grow();
  if (FLinkCount == FLinks.size() * LinksPerChunk) FLinks.emplace_back(LinksPerChunk);
  TBucket& bucket = FBuckets[Find(number)];
  if (!bucket.Used) {
    bucket = {number, None, true};
    ++FUsed;
  }
  Link(FLinkCount) = {fileNumber, bucket.Newest};
  bucket.Newest = FLinkCount++;
  ++FFileCount;
}

bool TParentClusters::Delete(std::int64_t number, std::uint32_t fileNumber) {
  const TBucket* found = FindUsed(number);
  if (found == nullptr) return false;
  TBucket& bucket = FBuckets[static_cast<std::size_t>(found - FBuckets.data())];
  std::uint32_t* reference = &bucket.Newest;
  for (; *reference != None; reference = &Link(*reference).Previous) {
    if (Link(*reference).FileNumber != fileNumber) continue;
    *reference = Link(*reference).Previous;
    --FFileCount;
    return true;
  }
  return false;
}

void TParentClusters::Clear() { *this = TParentClusters(); }

TInt64DynArray TParentClusters::Files(std::int64_t number) const {
  TInt64DynArray files;
  const TBucket* bucket = FindUsed(number);
  if (bucket == nullptr) return files;
  for (std::uint32_t at = bucket->Newest; at != None; at = Link(at).Previous) files.push_back(Link(at).FileNumber);
  std::reverse(files.begin(), files.end());
  return files;
}

TInt64DynArray TParentClusters::Numbers() const {
  TInt64DynArray numbers;
  for (const TBucket& bucket : FBuckets) {
    if (bucket.Used && bucket.Newest != None) numbers.push_back(bucket.Number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

void TParentClusters::Renumber(std::span<const std::uint32_t> newNumbers) {
  for (TBucket& bucket : FBuckets) {
    std::uint32_t* reference = &bucket.Newest;
    while (*reference != None) {
      TLink& link = Link(*reference);
      link.FileNumber = link.FileNumber < newNumbers.size() ? newNumbers[link.FileNumber] : TFileArray::Erased;
      if (link.FileNumber == TFileArray::Erased) {
        *reference = link.Previous;
        --FFileCount;
      } else {
        reference = &link.Previous;
      }
    }
  }
}

void TParentClusters::Merge(TParentClusters& other) {
  for (const std::int64_t number : other.Numbers()) {
    for (const std::int64_t file : other.Files(number)) Add(number, static_cast<std::uint32_t>(file));
  }
  other.Clear();
}

}  // namespace brenlow
