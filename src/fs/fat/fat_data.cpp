// SPDX-License-Identifier: GPL-3.0-or-later
// Reading the data of files, with or without their chain.
#include <algorithm>
#include <bit>
#include <cstring>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/fat/fat.h"
#include "fs/fat/fat_layout.h"
#include "table/signatures.h"

namespace brenlow {

using namespace fat;

namespace {

constexpr std::int64_t MaxHighHalves = 512;
constexpr std::uint32_t ChainEnd32 = 0x0FFFFFF7;  // at or above: a chain ends here (FAT32)

/// First free cluster at or above `from`; the size of the table when there is none.
std::uint32_t NextFree(const TFATInfo& info, std::uint32_t from) {
  const auto size = static_cast<std::uint32_t>(info.FATTable.size());
  std::size_t word = from / 64;
  if (from >= size || word >= info.FreeClusters.size()) return std::max(from, size);
  std::uint64_t bits = info.FreeClusters[word] & (~std::uint64_t{0} << (from % 64));
  while (bits == 0 && ++word < info.FreeClusters.size()) bits = info.FreeClusters[word];
  return bits == 0 ? size : static_cast<std::uint32_t>(word * 64) + static_cast<std::uint32_t>(std::countr_zero(bits));
}

/// True when none of `count` entries from `cluster` on, as far as they lie in the table, is in use.
bool AllFree(const TFATInfo& info, std::int64_t cluster, std::int64_t count) {
  const auto size = static_cast<std::int64_t>(info.FATTable.size());
  for (std::int64_t at = cluster; at < std::min(cluster + count, size); ++at) {
    if (at % 64 == 0 && at + 64 <= std::min(cluster + count, size) &&
        info.FreeClusters[static_cast<std::size_t>(at / 64)] == ~std::uint64_t{0}) {
      at += 63;
    } else if (info.FATTable[static_cast<std::size_t>(at)] != 0) {
      return false;
    }
  }
  return true;
}

/// Adjacent clusters of a file.
struct TRun {
  std::uint32_t Cluster = 0;
  std::int64_t Count = 0;
};

}  // namespace

std::uint32_t TFAT::GetNextRecoveryCluster(const TDriveInfo& drive, std::uint32_t cluster) {
  if (const std::uint32_t next = NextCluster(drive, cluster); next != 0) return next;
  // Most files lie in one piece.
  if (IsUnknown(drive, cluster) && IsInside(drive, cluster + 1)) return cluster + 1;
  FEngine.Pump();
  const auto highest = static_cast<std::uint32_t>(LastCluster(drive));
  const std::uint32_t start = cluster + 1 > highest || cluster + 1 < 2 ? 2 : cluster + 1;
  if (FATInfo(drive).FATTable.empty() || (!FEngine.Analysing && !FEngine.Recovering)) return start;
  const std::uint32_t found = NextFree(FATInfo(drive), start);
  if (found <= highest) return found;
  // Nothing free up to the end: on from the beginning, back to where it started at the most.
  const std::uint32_t stop = std::max<std::uint32_t>(cluster, 3) - 1;
  return std::min(NextFree(FATInfo(drive), 2), stop);
}

/// Moves the read position of the drive one cluster on. A step that no entry of the table names is a
/// guess: in a live file always, in a deleted one where it leaves the row of free clusters.
void TFAT::StepOn(TDriveInfo& drive, const TFileInfo& file) {
  TFATInfo::TReadPosition& position = FATInfo(drive).ReadPosition;
  const std::uint32_t from = position.Cluster;
  position.Cluster = GetNextRecoveryCluster(drive, from);
  ++position.Index;
  if (NextCluster(drive, from) != 0) return;
  const bool hasTable = !FATInfo(drive).FATTable.empty();
  const bool follows =
      hasTable && position.Cluster == from + 1 && !IsUnknown(drive, from) && !IsUnknown(drive, from + 1);
  position.Estimated = position.Estimated || !file.blnDeleted || !follows;
}

/// Moves the read position of the drive to cluster `index` of the file.
void TFAT::SeekCluster(TDriveInfo& drive, const TFileInfo& file, std::int64_t index) {
  TFATInfo::TReadPosition& position = FATInfo(drive).ReadPosition;
  const bool skipping = FEngine.Analysing || FEngine.Recovering;
  if (position.FirstCluster != file.FirstCluster || position.Index > index || position.Skipping != skipping ||
      position.Deleted != file.blnDeleted) {
    position = {file.FirstCluster, 0, static_cast<std::uint32_t>(file.FirstCluster), skipping, file.blnDeleted, false};
  }
  while (position.Index < index && position.Cluster != 0) StepOn(drive, file);
}

void TFAT::GetFileData(TDriveInfo& drive, TByteDynArray& result, TFile& file, std::int64_t start, std::int64_t size,
                       int incDataSector) {
  TFileInfo& info = file.FileInfo;
  ChangeFileFirstCluster(info);
  const std::int64_t clusterBytes = ClusterBytes(drive);
  if (info.aSize <= 0 || start < 0 || size <= 0 || clusterBytes <= 0) {
    result.clear();
    return;
  }
  const std::int64_t sectorSize = drive.BytesPerSector;
  // No file has more clusters than the volume: what an entry claims beyond that is garbage.
  const std::int64_t length = std::min(info.aSize, (ClusterRoom(drive) + 1) * clusterBytes);
  if (start >= length) {
    result.clear();
    return;
  }
  const std::int64_t end = start + std::min(size, length - start);
  // Whole sectors are read straight to their place; what lies before `start` is cut off at last.
  const std::int64_t from = start / sectorSize * sectorSize;
  const std::int64_t until = CeilDiv(end, sectorSize) * sectorSize;
  result.resize(static_cast<std::size_t>(until - from));

  std::int64_t filled = from;  // position in the file up to which the result is filled
  std::uint32_t before = 0;    // the last cluster read, 0 for none
  TByteDynArray single;        // one cluster, for reading cluster by cluster
  const auto sectorOf = [&](std::uint32_t cluster) {
    return drive.FirstSector + ClusterSector(drive, cluster) + incDataSector;
  };
  const auto readCluster = [&](std::uint32_t cluster) {
    single.resize(static_cast<std::size_t>(clusterBytes));
    if (IsInside(drive, cluster)) {
      FEngine.Reader().ReadWhatReads(drive, single, sectorOf(cluster), TReadEffort::Content);
    } else {
      FEngine.Reader().NoteFailedRead();
    }
  };
  while (filled < until) {
    const std::int64_t index = filled / clusterBytes;
    SeekCluster(drive, info, index);
    TFATInfo::TReadPosition& position = FATInfo(drive).ReadPosition;
    if (position.Cluster == 0) break;
    TRun run{position.Cluster, 1};
    while ((index + run.Count) * clusterBytes < until) {
      const std::uint32_t last = position.Cluster;
      StepOn(drive, info);
      if (position.Cluster != last + 1 || !IsInside(drive, position.Cluster)) break;
      ++run.Count;
    }
    const std::int64_t runEnd = std::min((index + run.Count) * clusterBytes, until);
    const std::int64_t skip = filled - index * clusterBytes;
    std::uint8_t* place = result.data() + (filled - from);
    const auto wanted = static_cast<std::uint32_t>(runEnd - filled);
    const std::int64_t sector = sectorOf(run.Cluster) + skip / sectorSize;
    std::uint32_t got = 0;
    if (IsInside(drive, run.Cluster)) {
      got = FEngine.Reader().ReadDriveSectors(drive, place, sector, wanted / sectorSize);
    }
    if (got < wanted) {
      // One by one, so that a fault costs its sector. A sector that cannot be read repeats the bytes
      // of the cluster before: the output keeps its length and offsets.
      single.clear();
      if (before != 0) readCluster(before);
      for (std::int64_t i = 0; i < run.Count; ++i) {
        const std::int64_t at = (index + i) * clusterBytes;
        readCluster(run.Cluster + static_cast<std::uint32_t>(i));
        const std::int64_t first = std::max(at, filled);
        const std::int64_t last = std::min(at + clusterBytes, runEnd);
        if (first >= last) continue;
        std::memcpy(result.data() + (first - from), single.data() + (first - at),
                    static_cast<std::size_t>(last - first));
        FEngine.Pump();
      }
    }
    before = run.Cluster + static_cast<std::uint32_t>(run.Count) - 1;
    filled = runEnd;
    FEngine.Pump();
  }
  if (FATInfo(drive).ReadPosition.Estimated) FEngine.Reader().NoteEstimatedRead();
  const std::int64_t good = std::min(filled, end);
  if (start > from) result.erase(result.begin(), result.begin() + static_cast<std::ptrdiff_t>(start - from));
  result.resize(static_cast<std::size_t>(std::max<std::int64_t>(good - start, 0)));
}

void TFAT::GetFileFragments(TFile& file, TFileFragments& result) {
  result.clear();
  TFileInfo& info = file.FileInfo;
  if (FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)];
  ChangeFileFirstCluster(info);
  const std::int64_t clusterBytes = ClusterBytes(drive);
  if (clusterBytes <= 0 || info.aSize <= 0) return;
  const std::int64_t perCluster = FATInfo(drive).SectorsPerCluster;
  const std::int64_t total = std::min(CeilDiv(info.aSize, clusterBytes), ClusterRoom(drive) + 1);
  const std::int64_t sectors = CeilDiv(info.aSize, drive.BytesPerSector);
  for (std::int64_t index = 0; index < total; ++index) {
    SeekCluster(drive, info, index);
    const std::uint32_t cluster = FATInfo(drive).ReadPosition.Cluster;
    if (cluster == 0) break;
    const std::int64_t sector = ClusterSector(drive, cluster);
    const std::int64_t count = std::min(perCluster, sectors - index * perCluster);
    if (!result.empty() && result.back().FirstSectorInDrive + result.back().SectorCount == sector) {
      result.back().SectorCount += count;
    } else {
      result.push_back({sector, index * perCluster, count});
    }
  }
}

std::int64_t TFAT::GetSizeOnDisk(const TFile& file) const {
  const TFileInfo& info = file.FileInfo;
  if (FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return info.aSize;
  const std::int64_t clusterBytes = ClusterBytes(FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)]);
  return clusterBytes <= 0 ? info.aSize : CeilDiv(info.aSize, clusterBytes) * clusterBytes;
}

TByteDynArray TFAT::GetClusterData(const TDriveInfo& drive, std::uint32_t cluster, std::int64_t sizeInBytes) {
  if (drive.BytesPerSector <= 0 || sizeInBytes <= 0 || !IsInside(drive, cluster)) return {};
  const std::int64_t sectors = CeilDiv(sizeInBytes, drive.BytesPerSector);
  TByteDynArray bytes(static_cast<std::size_t>(sectors * drive.BytesPerSector));
  FEngine.Reader().ReadDriveSectors(drive, bytes.data(), drive.FirstSector + ClusterSector(drive, cluster), sectors);
  bytes.resize(static_cast<std::size_t>(sizeInBytes));
  return bytes;
}

bool TFAT::IsOverwritten(const TFile& file) const {
  const TFileInfo& info = file.FileInfo;
  if (!info.blnDeleted || info.blnFolder || info.aSize <= 0) return false;
  if (FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return false;
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)];
  const bool highHalfUnknown = IsFAT32(drive) && info.FirstCluster <= 0xFFFF && ClusterRoom(drive) > 0x10000 &&
                               !info.FirstClustersChanged && !FATInfo(drive).HighHalvesKept;
  return !highHalfUnknown && !FATInfo(drive).FATTable.empty() && !FreeOrBad(drive, info.FirstCluster) &&
         !IsUnknown(drive, info.FirstCluster);
}

TPlaceSource TFAT::PlaceOf(const TFile& file) const {
  const TFileInfo& info = file.FileInfo;
  if (FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return info.Place;
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)];
  if (drive.GeometrySource == TPlaceSource::Estimated) return TPlaceSource::Estimated;
  if (info.blnFolder || info.aSize <= 0) return info.Place;
  // A file of one cluster needs no entry, unless that has to tell whether the place is still its own.
  const bool needsEntry = info.blnDeleted || info.aSize > ClusterBytes(drive);
  if (needsEntry && IsUnknown(drive, info.FirstCluster)) return TPlaceSource::Estimated;
  const bool isFinal = info.FirstClustersChanged || !MayLackHighHalf(drive, info) || !FATInfo(drive).HighPartUsed;
  return isFinal || IsStoredPlace(drive, info) ? info.Place : TPlaceSource::Estimated;
}

// ---- first clusters that lost their high half -----------------------------------------------

/// True for a deleted file whose number of the first cluster may be the low half only.
bool TFAT::MayLackHighHalf(const TDriveInfo& drive, const TFileInfo& file) const {
  return IsFAT32(drive) && file.blnDeleted && !file.blnFolder && file.FirstCluster >= 0 &&
         file.FirstCluster <= 0xFFFF && file.aSize > 0 && LastCluster(drive) > 0xFFFF;
}

/// Whoever deletes on this volume keeps the high half: the number is right as it stands where its
/// clusters are free, whatever lies before them.
bool TFAT::IsStoredPlace(const TDriveInfo& drive, const TFileInfo& file) const {
  return FATInfo(drive).HighHalvesKept && file.FirstCluster >= 2 &&
         AllFree(FATInfo(drive), file.FirstCluster, CeilDiv(file.aSize, ClusterBytes(drive)));
}

void TFAT::ChangeFileFirstCluster(TFileInfo& file) {
  if (!file.blnDeleted || file.blnFolder || file.aDeepAnalyse || file.FirstClustersChanged) return;
  if (file.FirstCluster < 0 || file.FirstCluster > 0xFFFF || file.aSize <= 0) return;
  if (FEngine.Drives().IsWrongNumber(file.aDriveNumber)) return;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(file.aDriveNumber)];
  if (!IsFAT32(drive) || ClusterBytes(drive) <= 0) return;
  const std::int64_t asFound = file.FirstCluster;
  const bool stored = !MayLackHighHalf(drive, file) || IsStoredPlace(drive, file);
  file.FirstClusters.clear();
  file.FirstClustersChanged = true;
  const bool byContent = AddCandidates(drive, file);
  if (!file.FirstClusters.empty()) file.FirstCluster = file.FirstClusters[0];
  const bool asStored = file.FirstCluster == asFound;
  if (asStored && stored) return;
  if (byContent && file.FirstClusters.size() == 1) {
    if (!asStored) file.Place = TPlaceSource::ByContent;
  } else if (!asStored || !IsOnlyPlace(drive, file)) {
    file.Place = TPlaceSource::Estimated;
  }
}

/// A few looks, close together where the high part begins: a volume is filled from its start.
bool TFAT::IsHighPartUsed(const TDriveInfo& drive) {
  constexpr std::int64_t highPart = 65536;
  constexpr std::int64_t looks = 16;
  const TLongWordDynArray& table = FATInfo(drive).FATTable;
  const std::int64_t last = LastCluster(drive);
  if (!IsFAT32(drive) || last < highPart) return false;
  const auto end = std::min(static_cast<std::int64_t>(table.size()), last + 1);
  for (std::int64_t cluster = highPart; cluster < end; ++cluster) {
    if (table[static_cast<std::size_t>(cluster)] != 0) return true;
  }
  for (std::int64_t step = 1; highPart + step <= last; step *= 2) {
    if (!IsBlank(drive, highPart + step - 1)) return true;
  }
  for (std::int64_t i = 0; i < looks; ++i) {
    if (!IsBlank(drive, highPart + (last - highPart) * i / looks)) return true;
  }
  return false;
}

/// True when the number as found leads to free clusters and all others with this low half lead to
/// clusters in use, or never written.
bool TFAT::IsOnlyPlace(const TDriveInfo& drive, const TFileInfo& file) {
  constexpr std::int64_t mostLooks = 16;
  const std::int64_t last = LastCluster(drive);
  const std::int64_t needed = CeilDiv(file.aSize, ClusterBytes(drive));
  if (file.FirstCluster < 2 || last / 65536 > mostLooks || !AllFree(FATInfo(drive), file.FirstCluster, needed)) {
    return false;
  }
  for (std::int64_t other = file.FirstCluster + 65536; other <= last; other += 65536) {
    if (AllFree(FATInfo(drive), other, needed) && !IsBlank(drive, other)) return false;
  }
  return true;
}

/// True when the first sector of a cluster reads as zeros.
bool TFAT::IsBlank(const TDriveInfo& drive, std::int64_t cluster) {
  if (!IsInside(drive, static_cast<std::uint32_t>(cluster))) return false;
  TByteDynArray sector(static_cast<std::size_t>(drive.BytesPerSector));
  const std::int64_t at = drive.FirstSector + ClusterSector(drive, static_cast<std::uint32_t>(cluster));
  return FEngine.Reader().ReadDriveSectors(drive, sector.data(), at, 1) == sector.size() && IsAllZero(sector);
}

/// The result is true when the candidates begin like files of that type, and there are no others.
bool TFAT::AddCandidates(TDriveInfo& drive, TFileInfo& file) {
  const TString extension = u"." + LowerCase(Trim(Extension(file.strName)));
  TByteDynArray sector(static_cast<std::size_t>(drive.BytesPerSector));
  bool known = false;
  bool same = false;
  FEngine.Signatures().CheckSignatureByFileExt(extension, sector, 0, known, same);
  if (known) return AddCandidatesBySignature(drive, file, extension);
  AddCandidateBySpace(drive, file);
  return false;
}

/// Every place that begins like a file of this type. Free ones come first: what is in use holds
/// another file by now. False when a place could not be read: the file may begin there.
bool TFAT::AddCandidatesBySignature(TDriveInfo& drive, TFileInfo& file, TStringView extension) {
  constexpr int mostFailures = 4;
  const std::int64_t needed = CeilDiv(file.aSize, ClusterBytes(drive));
  TByteDynArray sector(static_cast<std::size_t>(drive.BytesPerSector));
  TInt64DynArray used;
  int failures = 0;
  for (std::int64_t k = 0; k <= MaxHighHalves && failures < mostFailures; ++k) {
    const std::int64_t candidate = file.FirstCluster + k * 65536;
    if (candidate > ClusterRoom(drive) + 2) break;
    FEngine.Pump();
    const auto cluster = static_cast<std::uint32_t>(candidate);
    if (!IsInside(drive, cluster)) continue;
    const std::int64_t at = drive.FirstSector + ClusterSector(drive, cluster);
    if (FEngine.Reader().ReadDriveSectors(drive, sector.data(), at, 1) == 0) {
      ++failures;
      continue;
    }
    bool longEnough = false;
    bool same = false;
    FEngine.Signatures().CheckSignatureByFileExt(extension, sector, 0, longEnough, same);
    if (!same) continue;
    if (AllFree(FATInfo(drive), candidate, needed)) {
      file.FirstClusters.push_back(candidate);
    } else {
      used.push_back(candidate);
    }
  }
  for (const std::int64_t candidate : used) file.FirstClusters.push_back(candidate);
  return failures == 0;
}

/// The number as found where it is believed, else the first place where a file of this size may lie:
/// it starts after free space or after the end of a chain.
void TFAT::AddCandidateBySpace(TDriveInfo& drive, TFileInfo& file) {
  const TFATInfo& info = FATInfo(drive);
  const std::int64_t needed = CeilDiv(file.aSize, ClusterBytes(drive));
  if (IsStoredPlace(drive, file)) {
    file.FirstClusters.push_back(file.FirstCluster);
    return;
  }
  for (std::int64_t k = 0; k <= MaxHighHalves; ++k) {
    const std::int64_t candidate = file.FirstCluster + k * 65536;
    if (candidate > ClusterRoom(drive) + 2) return;
    FEngine.Pump();
    if (candidate < 2 || candidate >= static_cast<std::int64_t>(info.FATTable.size())) continue;
    if (!IsInside(drive, static_cast<std::uint32_t>(candidate))) continue;
    const std::uint32_t entryBefore = info.FATTable[static_cast<std::size_t>(candidate - 1)];
    if ((entryBefore != 0 && entryBefore < ChainEnd32) || !AllFree(info, candidate, needed)) continue;
    // Space that was never written holds no file: then the number as found is the better guess.
    const bool blank = k > 0 && AllFree(info, file.FirstCluster, needed) && IsBlank(drive, candidate);
    file.FirstClusters.push_back(blank ? file.FirstCluster : candidate);
    return;
  }
}

}  // namespace brenlow
