// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/fat/fat_walk.h"

#include <algorithm>

#include "analysis/files.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "fs/fat/fat.h"
#include "fs/fat/fat_layout.h"

namespace brenlow {
namespace fat {
namespace {

constexpr std::int64_t ChainReadSize = 65536;  // bytes of adjacent clusters read in one request
constexpr int MaxHighHalves = 513;             // rounds of the search for a deleted folder's cluster

}  // namespace

TFolderWalk::TFolderWalk(TEngine& engine, TDriveInfo& drive, int driveNumber, const TOemTable& oem, TEntrySink sink)
    : FEngine(engine), FDrive(drive), FDriveNumber(driveNumber), FSink(std::move(sink)), FParser(oem) {
  FKnownClusters.assign(static_cast<std::size_t>(std::min<std::int64_t>(ClusterRoom(drive), MaxClusters) / 64 + 1), 0);
}

/// False when the cluster is known already or lies outside the volume.
bool TFolderWalk::MarkKnown(std::uint32_t cluster) {
  if (!IsInside(FDrive, cluster) || cluster / 64 >= FKnownClusters.size() || IsKnown(cluster)) return false;
  FKnownClusters[cluster / 64] |= std::uint64_t{1} << (cluster % 64);
  return true;
}

bool TFolderWalk::IsKnown(std::uint32_t cluster) const {
  return cluster / 64 < FKnownClusters.size() && (FKnownClusters[cluster / 64] >> (cluster % 64) & 1) != 0;
}

void TFolderWalk::WalkRoot() {
  if (!IsFAT32(FDrive)) {
    WalkRootArea();
    return;
  }
  const std::uint32_t root = FDrive.FATInfo.RootDirFirstCluster;
  MarkKnown(root);
  WalkFolder(root);
}

void TFolderWalk::WalkWaiting(bool publishProgress) {
  while (!FWaitingClusters.empty() && !FStopped) {
    const std::uint32_t cluster = FWaitingClusters.front();
    FWaitingClusters.pop_front();
    WalkFolder(cluster);
    if (publishProgress) {
      // The total is not known: each folder takes its share of what is left.
      FPosition =
          FWaitingClusters.empty() ? 1.0 : (1 - FPosition) / static_cast<double>(FWaitingClusters.size()) + FPosition;
      FEngine.AnalyseProgress(FPosition);
      FEngine.Pump();
    }
    if (!FEngine.Analysing && publishProgress) FStopped = true;
  }
}

/// Reads adjacent clusters of a chain. The result is their count; where one request fails, the
/// clusters are read one by one up to the first that cannot be read. Each cluster belongs to one
/// folder: a chain ends where it runs into a cluster that was walked already.
std::uint32_t TFolderWalk::ReadChain(std::uint32_t cluster, TByteDynArray& bytes) {
  const std::int64_t clusterBytes = ClusterBytes(FDrive);
  const int perCluster = FDrive.FATInfo.SectorsPerCluster;
  if (!IsInside(FDrive, cluster)) return 0;
  const auto limit = static_cast<std::uint32_t>(std::max<std::int64_t>(ChainReadSize / clusterBytes, 1));
  std::uint32_t count = 1;
  while (count < limit && NextCluster(FDrive, cluster + count - 1) == cluster + count &&
         IsInside(FDrive, cluster + count) && !IsKnown(cluster + count)) {
    ++count;
  }
  bytes.resize(static_cast<std::size_t>(count * clusterBytes));
  const std::int64_t sector = FDrive.FirstSector + ClusterSector(FDrive, cluster);
  const std::uint32_t got =
      FEngine.Reader().ReadDriveSectors(FDrive, bytes.data(), sector, std::int64_t{count} * perCluster);
  if (got == bytes.size() || count == 1) {
    bytes.resize(got);
    return got > 0 ? count : 0;
  }
  std::uint32_t good = 0;
  std::size_t filled = 0;
  for (; good < count; ++good) {
    const std::uint32_t piece = FEngine.Reader().ReadDriveSectors(FDrive, bytes.data() + filled,
                                                                  sector + std::int64_t{good} * perCluster, perCluster);
    filled += piece;
    if (piece < clusterBytes) break;
  }
  bytes.resize(filled);
  return filled > 0 ? std::max<std::uint32_t>(good, 1) : 0;
}

bool TFolderWalk::WalkFolder(std::uint32_t cluster, std::span<const std::uint8_t> firstCluster) {
  const bool isRoot = cluster != 0 && cluster == FDrive.FATInfo.RootDirFirstCluster;
  TByteDynArray bytes;
  std::uint32_t count = 1;
  if (firstCluster.empty()) {
    count = ReadChain(cluster, bytes);
    if (count == 0) return false;
  } else {
    bytes.assign(firstCluster.begin(), firstCluster.end());
  }
  if (!IsFolderStart(FDrive, bytes, 0, isRoot)) return false;
  FParent = isRoot ? SpecialCluster::Root : std::int64_t{cluster};
  FParser.ClearPieces();

  std::uint32_t current = cluster;
  std::uint32_t walked = 0;
  while (count > 0 && walked <= MaxFolderClusters) {
    for (std::uint32_t i = 0; i < count; ++i) MarkKnown(current + i);
    const TStep step = WalkCluster(bytes, walked == 0 && !isRoot, ClusterSector(FDrive, current));
    if (step == TStep::Stop) FStopped = true;
    if (step == TStep::Stop || step == TStep::FolderDone) return true;
    walked += count;
    const std::uint32_t last = current + count - 1;
    const std::uint32_t next = NextCluster(FDrive, last);
    if (next == 0 || next == last) {
      if (next == 0 && FreeOrBad(FDrive, last)) {
        AddUnfinished({FParent, last, FParser.HasPieces() ? std::optional(FParser) : std::nullopt});
      }
      return true;
    }
    if (IsKnown(next)) return true;
    current = next;
    count = ReadChain(current, bytes);
  }
  return true;
}

void TFolderWalk::WalkRootArea() {
  const TFATInfo& info = FDrive.FATInfo;
  if (info.RootDirMaxFiles == 0) return;
  const std::uint32_t entries = std::min(info.RootDirMaxFiles, MaxRootEntries);
  const std::int64_t sectors = CeilDiv(std::int64_t{entries} * 32, FDrive.BytesPerSector);
  TByteDynArray bytes(static_cast<std::size_t>(sectors * FDrive.BytesPerSector));
  const std::int64_t first = FDrive.FirstSector + info.RootDirFirstSector;
  bytes.resize(FEngine.Reader().ReadDriveSectors(FDrive, bytes.data(), first, sectors));
  if (!IsFolderStart(FDrive, bytes, 0, true)) return;
  FParent = SpecialCluster::Root;
  FParser.ClearPieces();
  if (WalkCluster(bytes, false, info.RootDirFirstSector) == TStep::Stop) FStopped = true;
}

/// Walks the sectors of one or more adjacent clusters.
TFolderWalk::TStep TFolderWalk::WalkCluster(std::span<const std::uint8_t> bytes, bool skipDots,
                                            std::int64_t firstSector) {
  const auto sectorSize = static_cast<std::size_t>(FDrive.BytesPerSector);
  for (std::size_t at = 0; at + sectorSize <= bytes.size(); at += sectorSize) {
    const TStep step = WalkSector(bytes.subspan(at, sectorSize), skipDots && at == 0,
                                  firstSector + static_cast<std::int64_t>(at / sectorSize));
    if (step == TStep::Stop) return step;
    if (FParser.LastWasAllZero()) return TStep::FolderDone;
  }
  return TStep::GoOn;
}

TFolderWalk::TStep TFolderWalk::WalkSector(std::span<const std::uint8_t> sector, bool skipDots,
                                           std::int64_t sectorNumber) {
  for (std::size_t at = 0; at + EntrySize <= sector.size(); at += EntrySize) {
    TFiles::ClearInfo(FInfo, FDriveNumber);
    const auto result = FParser.Parse(sector.subspan(at, EntrySize), false, FInfo);
    if (result == TEntryParser::TResult::End) {
      if (skipDots && at < 2 * EntrySize) continue;
      return TStep::SectorDone;
    }
    if (result == TEntryParser::TResult::File) {
      FInfo.FirstSector = sectorNumber;
      FInfo.OffsetInSector = static_cast<std::int32_t>(at);
      Enter(FInfo);
    }
    if (FStopped) return TStep::Stop;
  }
  return TStep::GoOn;
}

void TFolderWalk::Enter(TFileInfo& info) {
  // The table, not the directory, decides whether a file is there.
  if (!info.blnDeleted && info.aSize > 0 && FreeOrBad(FDrive, info.FirstCluster)) info.blnDeleted = true;
  if (FLost) {
    // An outdated copy of a folder: what it names lies elsewhere by now, or nowhere.
    if (info.aSize > 0 && !FreeOrBad(FDrive, info.FirstCluster)) return;
    info.blnDeleted = true;
  }
  if (!info.blnDeleted) FAnyLiveEntry = true;
  if (info.blnDeleted && IsFAT32(FDrive) && info.FirstCluster > 0xFFFF &&
      info.FirstCluster <= ClusterRoom(FDrive) + 2) {
    FDrive.FATInfo.HighHalvesKept = true;
  }
  if (info.FirstCluster <= ClusterRoom(FDrive)) {
    const std::int64_t clusters = CeilDiv(info.aSize, ClusterBytes(FDrive));
    const std::int64_t end = std::min(info.FirstCluster + clusters, ClusterRoom(FDrive));
    FHighestCluster = std::max(FHighestCluster, static_cast<std::uint32_t>(end));
  }
  if (CanAddWaiting && info.blnFolder) Queue(info);
  if (!FSink(info, FParent)) FStopped = true;
}

void TFolderWalk::Queue(TFileInfo& info) {
  if (!FindDeletedFolderCluster(info)) return;
  const auto cluster = static_cast<std::uint32_t>(info.FirstCluster);
  if (MarkKnown(cluster)) FWaitingClusters.push_back(cluster);
}

/// Deleting a folder on FAT32 may wipe the high half of its cluster: the first sector that begins
/// a folder, 65536 clusters apart, is taken. Beyond the number as found, the "." entry there must
/// name the very cluster.
bool TFolderWalk::FindDeletedFolderCluster(TFileInfo& info) {
  if (!IsFAT32(FDrive) || !info.blnDeleted || info.FirstCluster > 0xFFFF) return true;
  TByteDynArray sector(static_cast<std::size_t>(FDrive.BytesPerSector));
  for (int k = 0; k < MaxHighHalves; ++k) {
    const std::int64_t candidate = info.FirstCluster + std::int64_t{k} * 65536;
    if (candidate > ClusterRoom(FDrive) + 2) return false;
    const auto cluster = static_cast<std::uint32_t>(candidate);
    if (!IsInside(FDrive, cluster)) return false;
    const std::int64_t at = FDrive.FirstSector + ClusterSector(FDrive, cluster);
    if (FEngine.Reader().ReadDriveSectors(FDrive, sector.data(), at, 1) == 0) return false;
    if (IsFolderStart(FDrive, sector, 0, false) && (k == 0 || EntryCluster(sector, 0) == cluster)) {
      info.FirstCluster = candidate;
      return true;
    }
    if (!FEngine.Analysing) return false;
  }
  return false;
}

}  // namespace fat

void TFAT::AnalyseSystem(int driveNumber) {
  if (FEngine.OnAnalyseProgress) FEngine.AnalyseProgress(0);
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  drive.Analysed = TAnalyseInformation::aiPartial;
  drive.FATInfo.HighHalvesKept = false;
  if (!GetDriveInfo(drive, true)) return;

  TFiles& files = FEngine.Files();
  fat::TFolderWalk walk(FEngine, drive, driveNumber, FOem, [&](const TFileInfo& info, std::int64_t parent) {
    files.Add(info, parent, true);
    FEngine.Pump();
    return FEngine.Analysing.load(std::memory_order_relaxed);
  });
  walk.WalkRoot();
  walk.WalkWaiting(true);
  if (FEngine.Analysing && LostFolderSearch != TLostFolderSearch::Never) {
    const bool always = LostFolderSearch == TLostFolderSearch::Always;
    const bool formatted = !walk.AnyLiveEntry();
    const bool cheap = always || walk.LostFolderSearchSize() <= fat::CheapSearch;
    if (cheap || formatted || walk.HasUnfinishedFolders()) walk.FindLostFolders(always || formatted, cheap);
  }
  if (FEngine.Analysing) {
    drive.Analysed = TAnalyseInformation::aiFull;
    FEngine.AnalyseProgress(1.0);
  }
}

void TFAT::GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten) {
  result.Clear();
  if (!GetDriveInfo(drive, true)) return;
  fat::TFolderWalk walk(FEngine, drive, -1, FOem, [&](const TFileInfo& info, std::int64_t parent) {
    const std::size_t number = result.Add(info, parent);
    if (rootDirOnly) result[number].FileInfo.blnDeleted = false;
    bool canBreak = false;
    if (onFilesGotten) onFilesGotten(drive, result, canBreak);
    return !canBreak;
  });
  walk.CanAddWaiting = !rootDirOnly;
  walk.WalkRoot();
  if (!rootDirOnly) walk.WalkWaiting(false);
}

}  // namespace brenlow
