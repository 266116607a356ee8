// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/fat/fat_walk.h"

#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "fs/fat/fat.h"
#include "fs/fat/fat_layout.h"
#include "table/files.h"

namespace brenlow {
namespace fat {
namespace {

constexpr std::int64_t ChainReadSize = 65536;  // bytes of adjacent clusters read in one request
constexpr int MaxHighHalves = 513;             // rounds of the search for a deleted folder's cluster

}  // namespace

TWalkState::TWalkState(const TDriveInfo& drive)
    : Known(std::min<std::int64_t>(ClusterRoom(drive), MaxClusters)),
      LiveFirst(std::min<std::int64_t>(ClusterRoom(drive), MaxClusters)) {}

TFolderWalk::TFolderWalk(TEngine& engine, TDriveInfo& drive, int driveNumber, const TOemTable& oem, TEntrySink sink,
                         std::shared_ptr<TWalkState> state)
    : FEngine(engine),
      FDrive(drive),
      FDriveNumber(driveNumber),
      FSink(std::move(sink)),
      FState(state ? std::move(state) : std::make_shared<TWalkState>(drive)),
      FParser(oem) {}

/// False when the cluster is known already or lies outside the volume.
bool TFolderWalk::MarkKnown(std::uint32_t cluster) { return IsInside(FDrive, cluster) && FState->Known.Add(cluster); }

void TFolderWalk::WalkRoot() {
  if (!IsFAT32(FDrive)) {
    WalkRootArea();
    return;
  }
  const std::uint32_t root = FATInfo(FDrive).RootDirFirstCluster;
  MarkKnown(root);
  WalkFolder(root);
}

void TFolderWalk::WalkWaiting(bool publishProgress) {
  while (!FState->Waiting.empty() && !FStopped) {
    const std::uint32_t cluster = FState->Waiting.front();
    FState->Waiting.pop_front();
    WalkFolder(cluster);
    if (publishProgress) {
      // The total is not known: each folder takes its share of what is left.
      FPosition =
          FState->Waiting.empty() ? 1.0 : (1 - FPosition) / static_cast<double>(FState->Waiting.size()) + FPosition;
      FEngine.AnalyseProgress(FPosition);
      FEngine.Pump();
    }
    if (!FEngine.Analysing && publishProgress) FStopped = true;
  }
}

/// Sectors counted from the volume's start. False when any of them cannot be read.
bool TFolderWalk::ReadSectors(std::int64_t sector, std::int64_t count, std::uint8_t* place) {
  const std::uint32_t got = FEngine.Reader().ReadDriveSectors(FDrive, place, FDrive.FirstSector + sector, count);
  return got == static_cast<std::uint64_t>(count) * static_cast<unsigned>(FDrive.BytesPerSector);
}

/// Reads adjacent sectors; where that fails, pieces of them, then one by one.
void TFolderWalk::ReadAround(std::int64_t sector, std::int64_t count, std::int64_t piece, TSectors& sectors) {
  sectors.Bad.clear();
  sectors.Bytes.resize(static_cast<std::size_t>(count * FDrive.BytesPerSector));
  if (ReadSectors(sector, count, sectors.Bytes.data())) return;
  sectors.Bad.assign(static_cast<std::size_t>(count), false);
  const auto at = [&](std::int64_t i) { return sectors.Bytes.data() + i * FDrive.BytesPerSector; };
  for (std::int64_t first = 0; first < count; first += piece) {
    const std::int64_t end = std::min(first + piece, count);
    if (end - first > 1 && end - first < count && ReadSectors(sector + first, end - first, at(first))) continue;
    for (std::int64_t i = first; i < end; ++i) {
      if (ReadSectors(sector + i, 1, at(i))) continue;
      std::fill_n(at(i), FDrive.BytesPerSector, std::uint8_t{0});
      sectors.Bad[static_cast<std::size_t>(i)] = true;
      FState->MetBadSector = true;
    }
    FEngine.Pump();
  }
}

/// Reads adjacent clusters of a chain; the result is their count, 0 where the volume ends. Each cluster
/// belongs to one folder: a chain ends where it runs into a cluster that was walked already.
std::uint32_t TFolderWalk::ReadChain(std::uint32_t cluster, TSectors& sectors) {
  if (!IsInside(FDrive, cluster)) return 0;
  const auto limit = static_cast<std::uint32_t>(std::max<std::int64_t>(ChainReadSize / ClusterBytes(FDrive), 1));
  std::uint32_t count = 1;
  while (count < limit && NextCluster(FDrive, cluster + count - 1) == cluster + count &&
         IsInside(FDrive, cluster + count) && !IsKnown(cluster + count)) {
    ++count;
  }
  const int perCluster = FATInfo(FDrive).SectorsPerCluster;
  ReadAround(ClusterSector(FDrive, cluster), std::int64_t{count} * perCluster, perCluster, sectors);
  return count;
}

/// The cluster that a folder goes on with; 0 where it ends or cannot be followed. Across an entry that
/// is not known it is the adjacent one, if that holds entries.
std::uint32_t TFolderWalk::NextOfFolder(std::uint32_t last) {
  if (!IsUnknown(FDrive, last)) return NextCluster(FDrive, last);
  if (!IsInside(FDrive, last + 1) || IsKnown(last + 1)) return 0;
  TByteDynArray sector(static_cast<std::size_t>(FDrive.BytesPerSector));
  const bool goesOn = ReadSectors(ClusterSector(FDrive, last + 1), 1, sector.data()) && IsContinuation(sector);
  return goesOn ? last + 1 : 0;
}

bool TFolderWalk::WalkFolder(std::uint32_t cluster, std::span<const std::uint8_t> firstCluster) {
  const bool isRoot = cluster != 0 && cluster == FATInfo(FDrive).RootDirFirstCluster;
  TSectors sectors;
  std::uint32_t count = 1;
  if (firstCluster.empty()) {
    count = ReadChain(cluster, sectors);
    if (count == 0) return false;
  } else {
    sectors.Bytes.assign(firstCluster.begin(), firstCluster.end());
  }
  // Where the first sector cannot be read, the entry that leads here and the table speak for it.
  const bool vouchedFor = sectors.IsBad(0) && !FreeOrBad(FDrive, cluster);
  if (!vouchedFor && !IsFolderStart(FDrive, sectors.Bytes, 0, isRoot)) return false;
  FParent = isRoot ? SpecialCluster::Root : std::int64_t{cluster};
  FLost = FSearching && FreeOrBad(FDrive, cluster);
  FParser.ClearPieces();

  std::uint32_t current = cluster;
  std::uint32_t walked = 0;
  while (count > 0 && walked <= MaxFolderClusters) {
    for (std::uint32_t i = 0; i < count; ++i) MarkKnown(current + i);
    const TStep step = WalkSectors(sectors, walked == 0 && !isRoot, ClusterSector(FDrive, current));
    if (step == TStep::Stop) FStopped = true;
    if (step == TStep::Stop || step == TStep::FolderDone) return true;
    walked += count;
    const std::uint32_t last = current + count - 1;
    const std::uint32_t next = NextOfFolder(last);
    if (next == 0 || next == last) {
      if (next == 0 && (FreeOrBad(FDrive, last) || IsUnknown(FDrive, last))) {
        AddUnfinished({FParent, last, FParser.HasPieces() ? std::optional(FParser) : std::nullopt});
      }
      return true;
    }
    if (IsKnown(next)) return true;
    current = next;
    count = ReadChain(current, sectors);
  }
  return true;
}

void TFolderWalk::WalkRootArea() {
  const TFATInfo& info = FATInfo(FDrive);
  if (info.RootDirMaxFiles == 0) return;
  const std::uint32_t entries = std::min(info.RootDirMaxFiles, MaxRootEntries);
  TSectors sectors;
  ReadAround(info.RootDirFirstSector, CeilDiv(std::int64_t{entries} * 32, FDrive.BytesPerSector), 1, sectors);
  if (!sectors.IsBad(0) && !IsFolderStart(FDrive, sectors.Bytes, 0, true)) return;
  FParent = SpecialCluster::Root;
  FLost = false;
  FParser.ClearPieces();
  if (WalkSectors(sectors, false, info.RootDirFirstSector) == TStep::Stop) FStopped = true;
}

/// Walks adjacent sectors of a folder. One that cannot be read costs its own entries only.
TFolderWalk::TStep TFolderWalk::WalkSectors(const TSectors& sectors, bool skipDots, std::int64_t firstSector) {
  const auto sectorSize = static_cast<std::size_t>(FDrive.BytesPerSector);
  for (std::size_t i = 0; (i + 1) * sectorSize <= sectors.Bytes.size(); ++i) {
    if (sectors.IsBad(i)) {
      FParser.NoteGap();
      continue;
    }
    const TStep step = WalkSector(std::span(sectors.Bytes).subspan(i * sectorSize, sectorSize), skipDots && i == 0,
                                  firstSector + static_cast<std::int64_t>(i));
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
  // No file of the volume was ever that long: what looks like an entry is something else.
  const std::int64_t room = ClusterRoom(FDrive) * ClusterBytes(FDrive);
  if (info.blnDeleted && !info.blnFolder && info.aSize > room) return;
  const bool isMarked = info.blnDeleted;
  // The table, not the directory, decides whether a file is there.
  if (!info.blnDeleted && info.aSize > 0 && FreeOrBad(FDrive, info.FirstCluster)) info.blnDeleted = true;
  if (FLost) {
    // An outdated copy of a folder: what it names lies elsewhere by now, or nowhere.
    if (info.aSize > 0 && !FreeOrBad(FDrive, info.FirstCluster) && !IsUnknown(FDrive, info.FirstCluster)) return;
    info.blnDeleted = true;
  }
  info.WasAlive = info.blnDeleted && !isMarked;
  if (!info.blnDeleted) {
    FState->AnyLiveEntry = true;
    if (info.blnFolder || info.aSize > 0) FState->LiveFirst.Add(info.FirstCluster);
  }
  if (info.blnDeleted && IsFAT32(FDrive) && info.FirstCluster > 0xFFFF &&
      info.FirstCluster <= ClusterRoom(FDrive) + 2) {
    FATInfo(FDrive).HighHalvesKept = true;
  }
  if (info.FirstCluster <= ClusterRoom(FDrive)) {
    const std::int64_t clusters = CeilDiv(info.aSize, ClusterBytes(FDrive));
    const std::int64_t end = std::min(info.FirstCluster + clusters, ClusterRoom(FDrive));
    FState->HighestCluster = std::max(FState->HighestCluster, static_cast<std::uint32_t>(end));
  }
  if (CanAddWaiting && info.blnFolder) Queue(info);
  if (FSearching && info.blnFolder) FFolderParents.emplace(info.FirstCluster, FParent);
  if (!FSink(info, FParent)) FStopped = true;
}

void TFolderWalk::Queue(TFileInfo& info) {
  if (!FindDeletedFolderCluster(info)) return;
  const auto cluster = static_cast<std::uint32_t>(info.FirstCluster);
  if (MarkKnown(cluster)) FState->Waiting.push_back(cluster);
}

/// Deleting a folder on FAT32 may wipe the high half of its cluster: of the places 65536 clusters apart,
/// the first free one is taken that begins a folder whose "." entry names that very cluster and whose ".."
/// names the folder in hand, then one that names itself only. Last comes the number as found, where any
/// folder begins.
bool TFolderWalk::FindDeletedFolderCluster(TFileInfo& info) {
  if (!IsFAT32(FDrive) || !info.blnDeleted || info.FirstCluster > 0xFFFF) return true;
  const std::int64_t asFound = info.FirstCluster;
  const std::int64_t parent = FParent == SpecialCluster::Root ? 0 : FParent;
  TByteDynArray sector(static_cast<std::size_t>(FDrive.BytesPerSector));
  bool beginsAsFound = false;
  std::int64_t naming = 0;
  for (int k = 0; k < MaxHighHalves && FEngine.Analysing; ++k) {
    const std::int64_t candidate = asFound + std::int64_t{k} * 65536;
    if (candidate > LastCluster(FDrive)) break;
    const auto cluster = static_cast<std::uint32_t>(candidate);
    const bool free = FreeOrBad(FDrive, candidate) || IsUnknown(FDrive, candidate) || FATInfo(FDrive).FATTable.empty();
    if (cluster < 2 || (k > 0 && !free)) continue;
    if (!ReadSectors(ClusterSector(FDrive, cluster), 1, sector.data()) || !IsFolderStart(FDrive, sector, 0, false)) {
      continue;
    }
    beginsAsFound = beginsAsFound || k == 0;
    if (!free || EntryCluster(sector, 0) != cluster) continue;
    if (naming == 0) naming = candidate;
    if (EntryCluster(sector, EntrySize) != parent) continue;
    naming = candidate;
    break;
  }
  if (naming != 0) info.FirstCluster = naming;
  return naming != 0 || beginsAsFound;
}

}  // namespace fat

void TFAT::AnalyseSystem(int driveNumber) {
  if (FEngine.OnAnalyseProgress) FEngine.AnalyseProgress(0);
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  drive.Analysed = TAnalyseInformation::aiPartial;
  FATInfo(drive).HighHalvesKept = false;
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
    walk.FindLostFoldersAsNeeded(LostFolderSearch == TLostFolderSearch::Always);
  }
  if (FEngine.Analysing) {
    FATInfo(drive).HighPartUsed = IsHighPartUsed(drive);
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
