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

void TParentClusters::Add(std::int64_t number, std::uint32_t fileNumber, bool isFolder) {
  if (FUsed * 2 >= FBuckets.size()) Grow();
  if (FLinkCount == FLinks.size() * LinksPerChunk) FLinks.emplace_back(LinksPerChunk);
  TBucket& bucket = FBuckets[Find(number)];
  if (!bucket.Used) {
    bucket.Number = number;
    bucket.Used = true;
    ++FUsed;
  }
  std::uint32_t& newest = isFolder ? bucket.NewestFolder : bucket.Newest;
  Link(FLinkCount) = {fileNumber, newest};
  newest = FLinkCount++;
  ++FFileCount;
}

bool TParentClusters::DeleteFrom(std::uint32_t& newest, std::uint32_t fileNumber) {
  for (std::uint32_t* reference = &newest; *reference != None; reference = &Link(*reference).Previous) {
    if (Link(*reference).FileNumber != fileNumber) continue;
    *reference = Link(*reference).Previous;
    --FFileCount;
    return true;
  }
  return false;
}

bool TParentClusters::Delete(std::int64_t number, std::uint32_t fileNumber) {
  const TBucket* found = FindUsed(number);
  if (found == nullptr) return false;
  TBucket& bucket = FBuckets[static_cast<std::size_t>(found - FBuckets.data())];
  return DeleteFrom(bucket.Newest, fileNumber) || DeleteFrom(bucket.NewestFolder, fileNumber);
}

/// Two chains as one, in order of addition.
std::uint32_t TParentClusters::Merged(std::uint32_t first, std::uint32_t second) {
  std::uint32_t newest = None;
  for (std::uint32_t* end = &newest; first != None || second != None; end = &Link(*end).Previous) {
    std::uint32_t& next = second == None || (first != None && first > second) ? first : second;
    *end = next;
    next = Link(next).Previous;
  }
  return newest;
}

void TParentClusters::Move(std::int64_t from, std::int64_t to) {
  if (from == to || Empty(from)) return;
  if (FUsed * 2 >= FBuckets.size()) Grow();
  TBucket& source = FBuckets[Find(from)];
  TBucket& target = FBuckets[Find(to)];
  if (!target.Used) {
    target.Number = to;
    target.Used = true;
    ++FUsed;
  }
  target.Newest = Merged(source.Newest, target.Newest);
  target.NewestFolder = Merged(source.NewestFolder, target.NewestFolder);
  source.Newest = source.NewestFolder = None;
}

void TParentClusters::Clear() { *this = TParentClusters(); }

TInt64DynArray TParentClusters::Files(std::int64_t number) const {
  TInt64DynArray files;
  const TBucket* bucket = FindUsed(number);
  if (bucket == nullptr) return files;
  // Links are numbered in order of addition: the newer of the two chains comes next.
  std::uint32_t file = bucket->Newest;
  std::uint32_t folder = bucket->NewestFolder;
  while (file != None || folder != None) {
    std::uint32_t& next = folder == None || (file != None && file > folder) ? file : folder;
    files.push_back(Link(next).FileNumber);
    next = Link(next).Previous;
  }
  std::reverse(files.begin(), files.end());
  return files;
}

TInt64DynArray TParentClusters::Folders(std::int64_t number) const {
  TInt64DynArray folders;
  const TBucket* bucket = FindUsed(number);
  if (bucket == nullptr) return folders;
  for (std::uint32_t at = bucket->NewestFolder; at != None; at = Link(at).Previous) {
    folders.push_back(Link(at).FileNumber);
  }
  std::reverse(folders.begin(), folders.end());
  return folders;
}

bool TParentClusters::Empty(std::int64_t number) const {
  const TBucket* bucket = FindUsed(number);
  return bucket == nullptr || (bucket->Newest == None && bucket->NewestFolder == None);
}

std::uint64_t TParentClusters::Version(std::int64_t number) const {
  const TBucket* bucket = FindUsed(number);
  return bucket == nullptr ? 0 : (std::uint64_t{bucket->Newest} << 32 | bucket->NewestFolder) + 1;
}

TInt64DynArray TParentClusters::Numbers() const {
  TInt64DynArray numbers;
  for (const TBucket& bucket : FBuckets) {
    if (bucket.Used && (bucket.Newest != None || bucket.NewestFolder != None)) numbers.push_back(bucket.Number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

void TParentClusters::RenumberChain(std::uint32_t& newest, std::span<const std::uint32_t> newNumbers) {
  std::uint32_t* reference = &newest;
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

void TParentClusters::Renumber(std::span<const std::uint32_t> newNumbers) {
  for (TBucket& bucket : FBuckets) {
    RenumberChain(bucket.Newest, newNumbers);
    RenumberChain(bucket.NewestFolder, newNumbers);
  }
}

void TParentClusters::Merge(TParentClusters& other) {
  for (const std::int64_t number : other.Numbers()) {
    const TInt64DynArray folders = other.Folders(number);
    std::size_t nextFolder = 0;
    for (const std::int64_t file : other.Files(number)) {
      const bool isFolder = nextFolder < folders.size() && folders[nextFolder] == file;
      if (isFolder) ++nextFolder;
      Add(number, static_cast<std::uint32_t>(file), isFolder);
    }
  }
  other.Clear();
}

}  // namespace brenlow
