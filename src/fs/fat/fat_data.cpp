// SPDX-License-Identifier: GPL-3.0-or-later
// Reading the data of files, with or without their chain.
#include <algorithm>
#include <bit>
#include <memory>

#include "core/drives.h"
#include "core/engine.h"
#include "core/extents.h"
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

}  // namespace

std::uint32_t TFAT::GetNextRecoveryCluster(const TDriveInfo& drive, std::uint32_t cluster) {
  if (const std::uint32_t next = NextCluster(drive, cluster); next != 0) return next;
  // Most files lie in one piece.
  if (IsUnknown(drive, cluster) && IsInside(drive, cluster + 1)) return cluster + 1;
  const auto highest = static_cast<std::uint32_t>(LastCluster(drive));
  const std::uint32_t start = cluster + 1 > highest || cluster + 1 < 2 ? 2 : cluster + 1;
  if (FATInfo(drive).FATTable.empty()) return start;
  const std::uint32_t found = NextFree(FATInfo(drive), start);
  if (found <= highest) return found;
  // Nothing free up to the end: on from the beginning, back to where it started at the most.
  const std::uint32_t stop = std::max<std::uint32_t>(cluster, 3) - 1;
  return std::min(NextFree(FATInfo(drive), 2), stop);
}

namespace {

/// The clusters of a file, run by run. A step that no entry of the table names is a guess: in a live file
/// always, in a deleted one where it leaves the row of free clusters.
class TClusterChain final : public IExtentSource {
 public:
  TClusterChain(TEngine& engine, const TFileInfo& file, std::int64_t clusters)
      : FEngine(engine),
        FDrive(file.aDriveNumber),
        FFirst(static_cast<std::uint32_t>(file.FirstCluster)),
        FDeleted(file.blnDeleted),
        FClusters(clusters) {
    TClusterChain::Rewind();
  }

  void Rewind() override {
    FCluster = FFirst;
    FIndex = 0;
    FEstimated = false;
  }

  bool Next(TExtent& extent) override {
    if (FCluster == 0 || FIndex >= FClusters || FEngine.Drives().IsWrongNumber(FDrive)) return false;
    const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(FDrive)];
    const std::uint32_t first = FCluster;
    extent.Estimated = FEstimated;
    std::uint32_t count = 0;
    do {
      ++count;
      StepOn(drive);
    } while (first >= 2 && FIndex < FClusters && FCluster == first + count && FEstimated == extent.Estimated &&
             count < MaxRun);
    extent.Length = count * ClusterBytes(drive);
    extent.Place = first < 2 ? -1 : ClusterSector(drive, first) * drive.BytesPerSector;
    return true;
  }

 private:
  static constexpr std::uint32_t MaxRun = 4096;  // clusters of one answer

  void StepOn(const TDriveInfo& drive) {
    const std::uint32_t from = FCluster;
    FCluster = FEngine.FAT().GetNextRecoveryCluster(drive, from);
    ++FIndex;
    if (NextCluster(drive, from) != 0) return;
    const bool hasTable = !FATInfo(drive).FATTable.empty();
    const bool follows = hasTable && FCluster == from + 1 && !IsUnknown(drive, from) && !IsUnknown(drive, from + 1);
    FEstimated = FEstimated || !FDeleted || !follows;
  }

  TEngine& FEngine;
  int FDrive;
  std::uint32_t FFirst;
  bool FDeleted;
  std::int64_t FClusters;  // of the whole file
  std::uint32_t FCluster = 0;
  std::int64_t FIndex = 0;  // clusters before `FCluster`
  bool FEstimated = false;
};

}  // namespace

bool TFAT::MapStream(TDriveInfo& drive, TFile& file, int /*stream: there is only one*/, TFileStream& result) {
  TFileInfo& info = file.FileInfo;
  ChangeFileFirstCluster(info);
  const std::int64_t clusterBytes = ClusterBytes(drive);
  if (info.aSize <= 0 || clusterBytes <= 0) return false;
  // No file has more clusters than the volume: what an entry claims beyond that is garbage.
  result.Size = std::min(info.aSize, (ClusterRoom(drive) + 1) * clusterBytes);
  result.UnitBytes = clusterBytes;
  result.VolumeBytes = ClusterSector(drive, static_cast<std::uint32_t>(LastCluster(drive) + 1)) * drive.BytesPerSector;
  result.Unreadable = TUnreadableRule::RepeatUnitBefore;
  result.Extents.SetSource(std::make_unique<TClusterChain>(FEngine, info, CeilDiv(result.Size, clusterBytes)));
  return true;
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

TByteDynArray TFAT::UsedClusters(const TDriveInfo& drive) const {
  const TLongWordDynArray& table = FATInfo(drive).FATTable;
  TByteDynArray bits((table.size() + 7) / 8, 0);
  for (std::size_t i = 0; i < table.size(); ++i) {
    const bool used = table[i] != 0 && table[i] != BadMark(drive);
    if (used) bits[i / 8] = static_cast<std::uint8_t>(bits[i / 8] | 1U << i % 8);
  }
  return bits;
}

bool TFAT::ClaimedClusters(const TDriveInfo& drive, const TFile& file, TClaim& claim) const {
  const TFileInfo& info = file.FileInfo;
  const std::int64_t clusterBytes = ClusterBytes(drive);
  if (clusterBytes <= 0 || info.FirstCluster < 2 || info.FirstCluster > LastCluster(drive)) return false;
  if (info.blnFolder) {
    claim.Seen = !drive.ParentClusters.Empty(info.FirstCluster);
    claim.Others.push_back({info.FirstCluster, 1});
    return claim.Seen;
  }
  if (info.aSize <= 0 || (FATInfo(drive).HighPartUsed && IsPlaceOpen(drive, info))) return false;
  // Of a live file the table tells the rest.
  const bool wholly = info.blnDeleted || FATInfo(drive).FATTable.empty();
  const std::int64_t count = wholly ? CeilDiv(info.aSize, clusterBytes) : 1;
  claim.Content.push_back({info.FirstCluster, std::min(count, LastCluster(drive) + 1 - info.FirstCluster)});
  return true;
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
  return FATInfo(drive).HighPartUsed && IsPlaceOpen(drive, info) ? TPlaceSource::Estimated : info.Place;
}

// ---- first clusters that lost their high half -----------------------------------------------

/// True for a deleted file whose number of the first cluster may be the low half only.
bool TFAT::MayLackHighHalf(const TDriveInfo& drive, const TFileInfo& file) const {
  return IsFAT32(drive) && file.blnDeleted && !file.blnFolder && file.FirstCluster >= 0 &&
         file.FirstCluster <= 0xFFFF && file.aSize > 0 && LastCluster(drive) > 0xFFFF;
}

bool TFAT::IsPlaceOpen(const TDriveInfo& drive, const TFileInfo& file) const {
  return !file.FirstClustersChanged && MayLackHighHalf(drive, file) && !IsStoredPlace(drive, file);
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
