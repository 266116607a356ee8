// SPDX-License-Identifier: GPL-3.0-or-later
// Folders that no entry leads to any more: after a quick format the old ones still lie in free clusters.
//
// No slot of a folder says where the folder is or what it is called; that is known from the entry in the folder that
// holds it. So all clusters that hold entries are looked for first, with the places that the folders among their
// entries lead to. Then those are walked that no entry leads to, and from them the others.
#include <algorithm>

#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "fs/exfat/exfat_layout.h"
#include "fs/exfat/exfat_walk.h"

namespace brenlow::exfat {
namespace {

constexpr std::int64_t ScanReadSize = 1 << 20;     // bytes
constexpr std::int64_t LookSize = 16384;           // bytes of a larger cluster that are looked at
constexpr std::int64_t BeyondLastFile = 64 << 20;  // bytes searched after the last file known

}  // namespace

/// Free clusters far after everything that any entry points to were hardly ever used.
std::int64_t TFolderWalk::LastSearchedCluster() const {
  return std::min(LastReadableCluster(), FState->HighestCluster + BeyondLastFile / ClusterBytes(FDrive));
}

/// A volume may claim more than its source holds.
std::int64_t TFolderWalk::LastReadableCluster() const {
  const std::int64_t sectors =
      FEngine.Reader().DeviceSectors(FDrive) - FDrive.FirstSector - exFATInfo(FDrive).DataFirstSector;
  return sectors <= 0 ? 0 : std::min(LastCluster(FDrive), sectors / exFATInfo(FDrive).SectorsPerCluster + 1);
}

/// What a search of the free clusters up to `last` would read; where that is too much, more than `CheapSearch`.
std::int64_t TFolderWalk::SearchBytes(std::int64_t last) const {
  const std::int64_t each = std::min(ClusterBytes(FDrive), LookSize);
  const auto& usage = exFATInfo(FDrive).Usage;
  if (!usage) return (last - 1) * each;
  std::int64_t clusters = 0;
  for (std::int64_t cluster = 2; cluster <= last && clusters * each <= CheapSearch;) {
    const std::int64_t free = usage->Used.FirstNotIn(cluster, last + 1);
    cluster = usage->Used.FirstIn(free, last + 1);
    clusters += cluster - free;
  }
  return clusters * each;
}

bool TFolderWalk::FindLostFoldersAsNeeded(bool always) {
  const bool formatted = !FState->AnyLiveEntry;
  if (always || formatted) {
    FindLostFolders(true);
    return true;
  }
  if (SearchBytes(LastSearchedCluster()) > CheapSearch) return false;
  FindLostFolders(false);
  return true;
}

void TFolderWalk::FindNotedFolders() {
  TCandidates candidates;
  candidates.LedTo = candidates.Middles = TClusterSet(LastCluster(FDrive));
  std::vector<std::uint32_t>& noted = FState->Noted;
  std::sort(noted.begin(), noted.end());
  for (const std::uint32_t cluster : noted) {
    if (!IsKnown(cluster)) ScanRun(cluster, 1, candidates);
  }
  WalkCandidates(candidates);
}

void TFolderWalk::FindLostFolders(bool wholeVolume) {
  const std::int64_t last = wholeVolume ? LastReadableCluster() : LastSearchedCluster();
  const std::int64_t most = std::max<std::int64_t>(ScanReadSize / ClusterBytes(FDrive), 1);
  // Where the root or another folder did not read, folders in use may have lost the way to them, too.
  const bool damaged = !FState->AnyLiveEntry || FState->IsDamaged;
  const auto isWanted = [&](std::int64_t cluster) {
    return !IsKnown(cluster) && (damaged || !IsUsed(FDrive, cluster));
  };
  TCandidates candidates;
  candidates.LedTo = candidates.Middles = TClusterSet(LastCluster(FDrive));
  for (std::int64_t cluster = 2; cluster <= last && !FStopped;) {
    std::int64_t count = 0;
    while (count < most && cluster + count <= last && isWanted(cluster + count)) ++count;
    if (count == 0) {
      ++cluster;
      continue;
    }
    ScanRun(cluster, count, candidates);
    cluster += count;
    if (PublishProgress) FEngine.AnalyseProgress(static_cast<double>(cluster - 2) / static_cast<double>(last));
    FEngine.Pump();
    if (!FEngine.Analysing) FStopped = true;
  }
  WalkCandidates(candidates);
}

/// Of large clusters only the first bytes are read. Where a read fails, cluster by cluster.
void TFolderWalk::ScanRun(std::int64_t first, std::int64_t count, TCandidates& candidates) {
  const std::int64_t clusterBytes = ClusterBytes(FDrive);
  const std::int64_t start = FDrive.FirstSector + ClusterSector(FDrive, first);
  const std::int64_t sectors = count * exFATInfo(FDrive).SectorsPerCluster;
  if (FEngine.Reader().NextSectorToScan(FDrive, start) >= start + sectors) return;
  const bool together = clusterBytes <= LookSize;
  FBytes.resize(static_cast<std::size_t>(together ? count * clusterBytes : LookSize));
  const bool read = together && ReadSectors(ClusterSector(FDrive, first), sectors, FBytes.data());
  const auto look = static_cast<std::size_t>(std::min(clusterBytes, LookSize));
  for (std::int64_t i = 0; i < count; ++i) {
    const auto bytes = std::span(FBytes).subspan(read ? static_cast<std::size_t>(i) * look : 0, look);
    const std::int64_t lookSectors = static_cast<std::int64_t>(look) / FDrive.BytesPerSector;
    if (read || ReadSectors(ClusterSector(FDrive, first + i), lookSectors, bytes.data())) {
      ExamineCluster(first + i, bytes, candidates);
    }
  }
}

void TFolderWalk::ExamineCluster(std::int64_t cluster, std::span<const std::uint8_t> bytes, TCandidates& candidates) {
  if (!IsDirectorySector(bytes.first(static_cast<std::size_t>(FDrive.BytesPerSector)), LastCluster(FDrive))) return;
  candidates.Clusters.push_back(static_cast<std::uint32_t>(cluster));
  if (TypeOf(bytes) == StreamEntry || TypeOf(bytes) == NameEntry) candidates.Middles.Add(cluster);
  for (std::size_t at = 0; at + 2 * EntrySize <= bytes.size(); at += EntrySize) {
    const auto slot = bytes.subspan(at, EntrySize);
    if (slot[0] == 0) return;
    const auto stream = bytes.subspan(at + EntrySize, EntrySize);
    const bool isFolder = TypeOf(slot) == FileEntry && (ReadLe16(slot, AttributesAt) & AttrFolder) != 0;
    if (!isFolder || TypeOf(stream) != StreamEntry) continue;
    const std::int64_t first = ReadLe32(stream, FirstClusterAt);
    const auto length =
        static_cast<std::int64_t>(std::min<std::uint64_t>(ReadLe64(stream, DataLengthAt), MaxFolderBytes));
    const bool adjacent = (stream[FlagsAt] & NoFATChain) != 0;
    const std::int64_t count = adjacent ? CeilDiv(length, ClusterBytes(FDrive)) : 1;
    if (first != cluster) candidates.LedTo.AddRange(first, first + count);
  }
}

/// Starts of folders first, then clusters with which a folder goes on that broke off in the middle of a set, then
/// folders that lead to each other in a circle.
void TFolderWalk::WalkCandidates(const TCandidates& candidates) {
  std::vector<std::uint32_t> left;
  for (const std::uint32_t cluster : candidates.Clusters) {
    if (FStopped) return;
    if (IsKnown(cluster)) continue;
    if (candidates.LedTo.Has(cluster) || candidates.Middles.Has(cluster)) {
      left.push_back(cluster);
    } else {
      WalkLostFolder(cluster);
    }
  }
  constexpr int mostRounds = 64;
  bool joined = true;
  for (int round = 0; joined && round < mostRounds && !FStopped; ++round) {
    joined = false;
    std::erase_if(left, [&](std::uint32_t cluster) {
      const bool joins = candidates.Middles.Has(cluster) && JoinUnfinished(cluster);
      joined = joined || joins;
      return joins || IsKnown(cluster);
    });
  }
  for (const std::uint32_t cluster : left) {
    if (FStopped) return;
    WalkLostFolder(cluster);
  }
}

/// The checksum of a set of which one part ends a cluster and the other begins this one leaves no doubt that the
/// folder goes on here.
bool TFolderWalk::JoinUnfinished(std::uint32_t cluster) {
  auto& unfinished = FState->Unfinished;
  TByteDynArray sector(static_cast<std::size_t>(FDrive.BytesPerSector));
  if (unfinished.empty() || IsKnown(cluster) || !ReadSectors(ClusterSector(FDrive, cluster), 1, sector.data())) {
    return false;
  }
  const auto owner = std::find_if(unfinished.begin(), unfinished.end(),
                                  [&](const TUnfinished& folder) { return folder.Set.IsCompletedBy(sector); });
  if (owner == unfinished.end()) return false;
  FParent = owner->Parent;
  FParser = owner->Set;
  const bool lost = owner->Lost;
  unfinished.erase(owner);
  FState->Known.Add(cluster);
  WalkOn({cluster, true, lost, 0});
  WalkWaiting(false);
  return true;
}

void TFolderWalk::WalkLostFolder(std::uint32_t cluster) {
  if (!FState->Known.Add(cluster)) return;
  WalkFolder({cluster, true, !IsUsed(FDrive, cluster), 0});
  WalkWaiting(false);
}

}  // namespace brenlow::exfat
