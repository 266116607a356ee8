// SPDX-License-Identifier: GPL-3.0-or-later
// What the exFAT driver does for each sector of a partition search.
#include <algorithm>
#include <bit>
#include <utility>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "fs/exfat/exfat.h"
#include "fs/exfat/exfat_layout.h"
#include "fs/exfat/exfat_walk.h"
#include "table/files.h"

namespace brenlow {

using namespace exfat;

namespace {

constexpr std::size_t MostWaiting = 65536;     // folders without a volume
constexpr std::int64_t UsualAlignment = 2048;  // sectors between which volumes begin
constexpr int ConfirmingFolders = 3;           // so many in their places leave no doubt
constexpr std::int64_t LargestLearnedSize = 65536;

bool OnClusterBorder(const TDriveInfo& drive, std::int64_t sector) {
  const std::int64_t distance = sector - exFATInfo(drive).DataFirstSector;
  return distance >= 0 && distance % exFATInfo(drive).SectorsPerCluster == 0;
}

std::int64_t ClusterOfSector(const TDriveInfo& drive, std::int64_t sector) {
  return (sector - exFATInfo(drive).DataFirstSector) / exFATInfo(drive).SectorsPerCluster + 2;
}

/// A cluster that begins with a File entry, a stream entry and a name, in use or deleted.
bool IsFolderStart(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= 3 * EntrySize && TypeOf(bytes) == FileEntry &&
         TypeOf(bytes.subspan(EntrySize)) == StreamEntry && TypeOf(bytes.subspan(2 * EntrySize)) == NameEntry;
}

}  // namespace

void TexFAT::PartRecDoBeforeAnalyse(int) { FTraces.Clear(); }
void TexFAT::PartRecClear() { FTraces.Clear(); }
TFileSystem TexFAT::PartRecCandidate(const TDriveInfo&) const { return TFileSystem::fsExFAT; }
bool TexFAT::PartRecIsAnalysed(const TDriveInfo& drive) const { return exFATInfo(drive).Walk != nullptr; }

void TexFAT::PartRecNoteSector(std::span<const std::uint8_t> bytes, int parentDrive, std::int64_t sector) {
  const TDriveInfo& parent = FEngine.Drives().List[static_cast<std::size_t>(parentDrive)];
  FTraces.Note(bytes, parent.FirstSector + sector, FEngine.Drives().GetBytesPerSector(parent));
}

/// Of a candidate, folders wait until the pass is over: by then it is known which volumes they belong to. Of a volume
/// that was analysed those in free clusters are noted.
void TexFAT::PartRecAnalyseSector(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                                  std::int64_t sectorNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  if (start >= buffer.size() || drive.BytesPerSector <= 0) return;
  const auto bytes = buffer.subspan(start);
  if (!IsFolderStart(bytes)) return;
  const TexFATInfo& info = std::as_const(drive).Systems.Get<TexFATInfo>();
  if (info.SectorsPerCluster <= 0) {
    if (info.WaitingSectors.size() < MostWaiting) exFATInfo(drive).WaitingSectors.push_back(sectorNumber);
    return;
  }
  if (!info.Walk || !OnClusterBorder(drive, sectorNumber)) return;
  const std::int64_t cluster = ClusterOfSector(drive, sectorNumber);
  if (!IsFree(drive, cluster) || info.Walk->Known.Has(cluster) || info.Walk->Noted.size() >= MostWaiting) return;
  info.Walk->Noted.push_back(static_cast<std::uint32_t>(cluster));
}

/// A root confirms the found boot sector that has a cluster there.
void TexFAT::PartRecAnalyseForNewDrive(std::span<const std::uint8_t> buffer, std::size_t start, int parentDrive,
                                       std::int64_t sectorNumber) {
  if (start >= buffer.size() || !IsRootForm(buffer.subspan(start))) return;
  TDrives& drives = FEngine.Drives();
  const std::int64_t sector = drives.List[static_cast<std::size_t>(parentDrive)].FirstSector + sectorNumber;
  for (int i = static_cast<int>(drives.PartRecInfo.FoundDrives.size()) - 1; i >= 0; --i) {
    const TDriveInfo& found = drives.PartRecInfo.FoundDrives[static_cast<std::size_t>(i)];
    const std::int64_t relative = sector - found.FirstSector;
    if (found.FileSystem != TFileSystem::fsExFAT || exFATInfo(found).SectorsPerCluster <= 0) continue;
    if (relative >= found.SectorsCount || !OnClusterBorder(found, relative)) continue;
    PartRecConfirm(parentDrive, i);
    return;
  }
}

int TexFAT::PartRecConfirm(int parentDrive, int found) {
  const int target = FEngine.Drives().PartRecDriveForFound(parentDrive, found);
  AnalyseVolume(target, false);
  return target;
}

void TexFAT::PartRecDriveAdded(int driveNumber) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  const TDriveInfo volume = drives.List[static_cast<std::size_t>(driveNumber)];
  if (drives.GetSystem(volume) == TFileSystem::fsExFAT) AnalyseVolume(driveNumber, false);
}

/// The walk over a volume that is analysed as a whole. It meets nothing twice, so that a row is not compared with
/// others: a deleted file and a live one may share folder, name and place.
TFolderWalk TexFAT::WholeWalk(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  const auto add = [this](const TFileInfo& info, std::int64_t parent) {
    const bool running = std::exchange(FEngine.PartRecRunning, false);
    FEngine.Files().Add(info, parent, true);
    FEngine.PartRecRunning = running;
    FEngine.Pump();
    return FEngine.Analysing.load(std::memory_order_relaxed);
  };
  TFolderWalk walk(FEngine, *this, FTables, drive, driveNumber, add, exFATInfo(drive).Walk);
  walk.PublishProgress = false;
  return walk;
}

/// Analyses a volume whose geometry is known from its root. `byTraces`: it has no boot sector to read.
void TexFAT::AnalyseVolume(int driveNumber, bool byTraces) {
  if (FEngine.Drives().IsWrongNumber(driveNumber)) return;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  if (byTraces) {
    ReadRootEntries(drive, true);
  } else if (!GetDriveInfo(drive, true)) {
    return;
  }
  exFATInfo(drive).Notes = std::make_shared<TEntryNotes>();
  exFATInfo(drive).Walk = std::make_shared<TWalkState>(drive);
  TFolderWalk walk = WholeWalk(driveNumber);
  walk.WalkRoot();
  walk.WalkWaiting(false);
}

/// The pass is over. With `lostFolders` those of such a volume, as an analysis of it alone looks for them.
void TexFAT::FinishVolume(int driveNumber, bool lostFolders) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  const std::shared_ptr<TWalkState> state = exFATInfo(drive).Walk;
  TFolderWalk walk = WholeWalk(driveNumber);
  if (lostFolders && FEngine.Analysing && LostFolderSearch != TLostFolderSearch::Never) {
    if (!walk.FindLostFoldersAsNeeded(LostFolderSearch == TLostFolderSearch::Always)) walk.FindNotedFolders();
  }
  walk.EndUnfinished();
  SettleDeleted(driveNumber, state->Known);
  exFATInfo(drive).Walk.reset();
}

/// Volumes of a sound source do not overlap: a crafted one must not have the same place searched for each.
void TexFAT::PartRecFinishVolumes(int parentDrive) {
  constexpr std::int64_t mostTimes = 4;
  if (FEngine.Analysing) AddTracedVolumes(parentDrive);
  if (FEngine.Analysing) LearnByPairs(parentDrive);
  const std::vector<TDriveInfo>& list = FEngine.Drives().List;
  const TDriveInfo& main = list[static_cast<std::size_t>(parentDrive)];
  std::int64_t searched = 0;
  for (const int sub : TIntegerDynArray(main.SubDrives)) {
    const TDriveInfo& drive = list[static_cast<std::size_t>(sub)];
    if (drive.FileSystem != TFileSystem::fsExFAT || !exFATInfo(drive).Walk) continue;
    searched += drive.SectorsCount;
    FinishVolume(sub, searched <= mostTimes * main.SectorsCount);
  }
}

// ---- volumes without a boot sector ----------------------------------------------------------

/// Whether a folder in the sector of the device is one of an exFAT volume that the search has found. What lies between
/// the clusters of such a volume is of one that was there before.
bool TexFAT::IsExplained(int parentDrive, std::int64_t sector) const {
  const TDrives& drives = FEngine.Drives();
  const TIntegerDynArray& subs = drives.List[static_cast<std::size_t>(parentDrive)].SubDrives;
  return std::any_of(subs.begin(), subs.end(), [&](int sub) {
    const TDriveInfo& drive = drives.List[static_cast<std::size_t>(sub)];
    const std::int64_t relative = sector - drive.FirstSector;
    return exFATInfo(drive).Walk && relative >= 0 && relative < drive.SectorsCount && OnClusterBorder(drive, relative);
  });
}

/// Whether the sector lies in a volume that the search has found, of any file system.
bool TexFAT::IsInVolume(int parentDrive, std::int64_t sector) const {
  const TDrives& drives = FEngine.Drives();
  const TDriveInfo& main = drives.List[static_cast<std::size_t>(parentDrive)];
  return std::any_of(main.SubDrives.begin(), main.SubDrives.end(), [&](int sub) {
    const TDriveInfo& drive = drives.List[static_cast<std::size_t>(sub)];
    const bool placed = drive.FirstSector != main.FirstSector || drive.SectorsCount != main.SectorsCount;
    const bool isVolume = exFATInfo(drive).Walk || (placed && !drives.IsEmpty(sub));
    return isVolume && sector >= drive.FirstSector && sector < drive.FirstSector + drive.SectorsCount;
  });
}

/// Where the volume begins is known when a partition table says so; else at the last usual place before its table or
/// data, which moves none of its files.
TDriveInfo TexFAT::VolumeOf(int parentDrive, const TGeometry& geometry) const {
  const TDrives& drives = FEngine.Drives();
  const TDriveInfo& main = drives.List[static_cast<std::size_t>(parentDrive)];
  TDriveInfo volume = drives.PartOf(main);
  volume.FileSystem = TFileSystem::fsExFAT;
  volume.BytesPerSector = drives.GetBytesPerSector(main);
  const std::int64_t inside = geometry.TableFirst >= 0 ? geometry.TableFirst : geometry.DataFirst;
  std::int64_t end = main.FirstSector + main.SectorsCount;
  volume.FirstSector =
      std::max(main.FirstSector, std::max<std::int64_t>(inside - 2 * BootRegion, 0) / UsualAlignment * UsualAlignment);
  for (const int number : drives.PartRecInfo.Volumes) {
    if (drives.IsWrongNumber(number)) continue;
    const TDriveInfo& known = drives.List[static_cast<std::size_t>(number)];
    if (inside <= known.FirstSector || inside >= known.FirstSector + known.SectorsCount) continue;
    volume.FirstSector = known.FirstSector;
    end = known.FirstSector + known.SectorsCount;
  }
  const std::int64_t room = std::max<std::int64_t>(end - geometry.DataFirst, 0) / geometry.SectorsPerCluster;
  const std::int64_t clusters = geometry.MostClusters > 0 ? std::min(geometry.MostClusters, room) : room;
  volume.SectorsCount = geometry.DataFirst + clusters * geometry.SectorsPerCluster - volume.FirstSector;
  const bool isSure = geometry.IsByUpCase || geometry.Agreeing >= ConfirmingFolders;
  volume.GeometrySource = isSure ? TPlaceSource::Stored : TPlaceSource::Estimated;

  TexFATInfo& info = exFATInfo(volume);
  info.SectorsPerCluster = static_cast<int>(geometry.SectorsPerCluster);
  info.FATCount = 1;
  info.DataFirstSector = static_cast<std::uint32_t>(geometry.DataFirst - volume.FirstSector);
  info.ClusterCount = static_cast<std::uint32_t>(std::min<std::int64_t>(clusters, UINT32_MAX - 16));
  if (geometry.TableFirst >= volume.FirstSector) {
    info.FATFirstSector = static_cast<std::uint32_t>(geometry.TableFirst - volume.FirstSector);
    info.FATSize = info.DataFirstSector - info.FATFirstSector;
  }
  if (geometry.RootSector >= 0) PlaceRoot(volume, static_cast<std::uint32_t>(geometry.ClusterAt(geometry.RootSector)));
  return volume;
}

/// Volumes that their root, up-case table and folders speak for. One that lies in another volume, which was formatted
/// over it, must leave no doubt.
void TexFAT::AddTracedVolumes(int parentDrive) {
  TDrives& drives = FEngine.Drives();
  FTraces.Forget([&](std::int64_t sector) { return IsExplained(parentDrive, sector); });
  for (const TGeometry& geometry : FTraces.Volumes()) {
    const bool isSure = geometry.IsByUpCase || geometry.Agreeing >= ConfirmingFolders;
    if (!isSure && IsInVolume(parentDrive, geometry.DataFirst)) continue;
    drives.PartRecInfo.FoundDrives.push_back(VolumeOf(parentDrive, geometry));
    const int found = static_cast<int>(drives.PartRecInfo.FoundDrives.size()) - 1;
    AnalyseVolume(drives.PartRecDriveForFound(parentDrive, found), true);
    if (!FEngine.Analysing) return;
  }
}

/// What is left: the first file of a folder tends to lie in the cluster after the folder's own, so that two folders
/// tell the cluster size. That is an estimate.
void TexFAT::LearnByPairs(int parentDrive) {
  TDrives& drives = FEngine.Drives();
  for (const int sub : TIntegerDynArray(drives.List[static_cast<std::size_t>(parentDrive)].SubDrives)) {
    TDriveInfo& drive = drives.List[static_cast<std::size_t>(sub)];
    if (drive.FileSystem != TFileSystem::fsExFAT || exFATInfo(drive).WaitingSectors.empty()) continue;
    TInt64DynArray waiting = std::move(exFATInfo(drive).WaitingSectors);
    exFATInfo(drive).WaitingSectors.clear();
    std::erase_if(waiting, [&](std::int64_t sector) { return IsInVolume(parentDrive, drive.FirstSector + sector); });
    TByteDynArray bytes(static_cast<std::size_t>(drive.BytesPerSector));
    for (const std::int64_t sector : waiting) {
      const std::int64_t place = drive.FirstSector + sector;
      if (exFATInfo(drive).SectorsPerCluster > 0 || !FEngine.Analysing) break;
      if (FEngine.Reader().ReadDriveSectors(drive, bytes.data(), place, 1) != 0) LearnClusterSize(drive, bytes, sector);
      FEngine.Pump();
    }
    if (exFATInfo(drive).SectorsPerCluster > 0) WalkWaitingSectors(sub, waiting);
  }
}

void TexFAT::LearnClusterSize(TDriveInfo& drive, std::span<const std::uint8_t> folder, std::int64_t sector) {
  TexFATInfo& info = exFATInfo(drive);
  const std::uint32_t cluster = ReadLe32(folder, EntrySize + FirstClusterAt);
  if (cluster < 2 || sector > UINT32_MAX) return;
  const std::int64_t sectors = sector - info.LastSector;
  const std::int64_t clusters = std::int64_t{cluster} - info.LastCluster;
  const bool divides = info.LastCluster != 0 && sectors > 0 && clusters > 0 && sectors % clusters == 0;
  const std::int64_t size = divides ? sectors / clusters : 0;
  const std::int64_t dataFirst = sector - (std::int64_t{cluster} - 3) * size;
  info.LastSector = static_cast<std::uint32_t>(sector);
  info.LastCluster = cluster;
  if (size < 2 || size > LargestLearnedSize || !std::has_single_bit(static_cast<std::uint64_t>(size)) || dataFirst < 0)
    return;
  info.SectorsPerCluster = static_cast<int>(size);
  info.DataFirstSector = static_cast<std::uint32_t>(dataFirst);
  info.ClusterCount = static_cast<std::uint32_t>(
      std::min<std::int64_t>(std::max<std::int64_t>(drive.SectorsCount - dataFirst, 0) / size, UINT32_MAX - 16));
  info.FATCount = 1;
  PlaceRoot(drive, 4);  // after bitmap and up-case table of a cluster each
  drive.GeometrySource = TPlaceSource::Estimated;
}

void TexFAT::WalkWaitingSectors(int driveNumber, const TInt64DynArray& sectors) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  exFATInfo(drive).Walk = std::make_shared<TWalkState>(drive);
  TFolderWalk walk = WholeWalk(driveNumber);
  for (const std::int64_t sector : sectors) {
    if (!OnClusterBorder(drive, sector) || !IsInside(drive, ClusterOfSector(drive, sector))) continue;
    exFATInfo(drive).Walk->Noted.push_back(static_cast<std::uint32_t>(ClusterOfSector(drive, sector)));
  }
  walk.FindNotedFolders();
}

}  // namespace brenlow
