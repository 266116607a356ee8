// SPDX-License-Identifier: GPL-3.0-or-later
// What the FAT driver does for each sector of a partition search. A candidate volume may begin
// with nothing but the folders met: the cluster size is learned from the distance of two of them.
#include <algorithm>
#include <utility>

#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/fat/fat.h"
#include "fs/fat/fat_layout.h"
#include "fs/fat/fat_walk.h"
#include "table/files.h"
#include "table/signatures.h"

namespace brenlow {

using namespace fat;

namespace {

constexpr std::uint32_t RootAreaSectors = 32;  // of a FAT12 or FAT16 root of 512 entries

bool OnClusterBorder(const TDriveInfo& drive, std::int64_t sector) {
  const std::int64_t distance = sector - FATInfo(drive).DataFirstSector;
  return distance >= 0 && distance % FATInfo(drive).SectorsPerCluster == 0;
}

std::uint32_t ClusterOfSector(const TDriveInfo& drive, std::int64_t sector) {
  return static_cast<std::uint32_t>((sector - FATInfo(drive).DataFirstSector) / FATInfo(drive).SectorsPerCluster + 2);
}

/// The walk over folders of a volume of which nothing else is known. `rows` counts the entries of all
/// such walks, of which `limit` are taken.
TFolderWalk MakeWalk(TEngine& engine, TDriveInfo& drive, int driveNumber, const TOemTable& oem, std::int64_t& rows,
                     std::int64_t limit) {
  TFolderWalk walk(engine, drive, driveNumber, oem,
                   [&engine, &rows, limit](const TFileInfo& info, std::int64_t parent) {
                     if (rows >= limit) return false;
                     const std::size_t before = engine.Files().List.size();
                     engine.Files().Add(info, parent, true);
                     if (engine.Files().List.size() > before && ++rows == limit)
                       engine.ShowMessage(TText::TooManyUnplaced);
                     return engine.Analysing.load(std::memory_order_relaxed);
                   });
  walk.CanAddWaiting = false;
  return walk;
}

/// The walk over a volume that is analysed as a whole. It meets nothing twice, so that a row is not
/// compared with others: a deleted file and a live one may share folder, name and place.
TFolderWalk MakeWholeWalk(TEngine& engine, TDriveInfo& drive, int driveNumber, const TOemTable& oem) {
  const auto add = [&engine](const TFileInfo& info, std::int64_t parent) {
    const bool running = std::exchange(engine.PartRecRunning, false);
    engine.Files().Add(info, parent, true);
    engine.PartRecRunning = running;
    engine.Pump();
    return engine.Analysing.load(std::memory_order_relaxed);
  };
  TFolderWalk walk(engine, drive, driveNumber, oem, add, FATInfo(drive).Walk);
  walk.PublishProgress = false;
  return walk;
}

/// The cluster that a folder says to begin at.
std::uint32_t OwnCluster(const TDriveInfo& drive, std::span<const std::uint8_t> folder) {
  return IsFAT32(drive) ? EntryCluster(folder, 0) : ReadLe16(folder, 26);
}

/// A size of one sector cannot be told from a coincidence by two folders; by so many it can.
constexpr int FoldersForOneSector = 4;

/// The cluster size that two folders imply, 0 when they imply none or one sector.
int LearnedClusterSize(std::int64_t sectors, std::int64_t clusters) {
  if (clusters == 0 || sectors % clusters != 0) return 0;
  for (const int size : {2, 4, 8, 16, 32, 64, 128}) {
    if (sectors / clusters == size) return size;
  }
  return 0;
}

/// So many folders in their places leave no doubt: two make the geometry, each further one speaks for it.
constexpr int ConfirmingFolders = 3;

/// Counts a folder whose data area would begin there with clusters of one sector.
bool IsOneSector(TFATInfo& info, std::int64_t dataFirst) {
  info.OneSectorFolders = dataFirst == info.OneSectorDataFirst ? info.OneSectorFolders + 1 : 1;
  info.OneSectorDataFirst = dataFirst;
  return dataFirst >= 0 && info.OneSectorFolders >= FoldersForOneSector;
}

}  // namespace

TFileSystem TFAT::PartRecCandidate(const TDriveInfo& parentDrive) const {
  constexpr std::int64_t largestFAT16 = 2097152;  // KiB
  if (TDrives::IsFloppy(parentDrive)) return TFileSystem::fsFAT12;
  const std::int64_t size = parentDrive.SectorsCount * FEngine.Drives().GetBytesPerSector(parentDrive) / 1024;
  return size == 0 || size > largestFAT16 ? TFileSystem::fsFAT32 : TFileSystem::fsFAT16;
}

/// One of the two fields for the count of sectors is used.
bool TFAT::PartRecAccepts(const TDriveInfo& /*volume*/, std::span<const std::uint8_t> boot) {
  return (ReadLe16(boot, TotalSectors16At) != 0) != (ReadLe32(boot, TotalSectors32At) != 0);
}

int TFAT::PartRecConfirm(int parentDrive, int found) {
  const int target = FEngine.Drives().PartRecDriveForFound(parentDrive, found);
  PartRecAnalyseVolume(target);
  return target;
}

void TFAT::PartRecAnalyseSector(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                                std::int64_t sectorNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  TFATInfo& info = FATInfo(drive);
  if (start >= buffer.size() || drive.BytesPerSector <= 0) return;
  if (info.SectorsPerCluster <= 0) {
    LearnClusterSize(drive, driveNumber, buffer.subspan(start), sectorNumber);
    return;
  }
  if (info.Walk) {
    AnalyseSectorOfVolume(drive, driveNumber, buffer.subspan(start), sectorNumber);
    return;
  }
  const bool isRootArea = !IsFAT32(drive) && sectorNumber == info.RootDirFirstSector;
  if (!isRootArea && !OnClusterBorder(drive, sectorNumber)) return;
  if (isRootArea) {
    MakeWalk(FEngine, drive, driveNumber, FOem, FUnplacedRows, MaxUnplacedRows).WalkRootArea();
    return;
  }
  const std::uint32_t cluster = ClusterOfSector(drive, sectorNumber);
  const bool isRoot = cluster == info.RootDirFirstCluster && cluster != 0;
  if (!IsFolderStart(drive, buffer, start, isRoot)) return;
  const auto bytes = buffer.subspan(start);
  if (!isRoot && OwnCluster(drive, bytes) == cluster) CountAgreeing(drive, 1);
  const auto clusterBytes = static_cast<std::size_t>(ClusterBytes(drive));
  // Only now: a walk keeps a bit for each cluster.
  TFolderWalk walk = MakeWalk(FEngine, drive, driveNumber, FOem, FUnplacedRows, MaxUnplacedRows);
  walk.WalkFolder(cluster, bytes.size() < clusterBytes ? std::span<const std::uint8_t>() : bytes.first(clusterBytes));
}

/// A folder in free space that nothing has led to. Those in use are looked for at the end, when it is known
/// which clusters no entry names.
void TFAT::AnalyseSectorOfVolume(TDriveInfo& drive, int driveNumber, std::span<const std::uint8_t> bytes,
                                 std::int64_t sectorNumber) {
  if (!IsFolderStart(drive, bytes, 0, false) || !OnClusterBorder(drive, sectorNumber)) return;
  const std::uint32_t cluster = ClusterOfSector(drive, sectorNumber);
  if (!IsInside(drive, cluster) || !FreeOrBad(drive, cluster)) return;
  MakeWholeWalk(FEngine, drive, driveNumber, FOem).ExamineFolderStart(cluster, bytes);
}

/// What only two folders say may be a coincidence.
void TFAT::CountAgreeing(TDriveInfo& drive, int folders) {
  TFATInfo& info = FATInfo(drive);
  info.AgreeingFolders += folders;
  drive.GeometrySource = info.AgreeingFolders >= ConfirmingFolders ? TPlaceSource::Stored : TPlaceSource::Estimated;
}

void TFAT::LearnClusterSize(TDriveInfo& drive, int driveNumber, std::span<const std::uint8_t> folder,
                            std::int64_t sectorNumber) {
  TFATInfo& info = FATInfo(drive);
  if (!IsFolderStart(drive, folder, 0, false)) return;
  info.WaitingSectors.push_back(sectorNumber);
  const std::uint32_t cluster = OwnCluster(drive, folder);
  int size = cluster >= 2 && info.LastSector != 0
                 ? LearnedClusterSize(sectorNumber - info.LastSector, std::int64_t{cluster} - info.LastCluster)
                 : 0;
  if (size == 0 && cluster >= 2 && IsOneSector(info, sectorNumber - cluster + 2)) size = 1;
  const std::int64_t dataFirst = sectorNumber - (std::int64_t{cluster} - 2) * size;
  if (size == 0 || dataFirst < 0) {
    info.LastSector = static_cast<std::uint32_t>(sectorNumber);
    info.LastCluster = cluster;
    return;
  }
  info.SectorsPerCluster = size;
  info.DataFirstSector = static_cast<std::uint32_t>(dataFirst);
  if (IsFAT32(drive)) {
    info.RootDirFirstSector = info.DataFirstSector;
    info.RootDirFirstCluster = 2;
  } else {
    info.RootDirFirstSector = info.DataFirstSector < RootAreaSectors ? 0 : info.DataFirstSector - RootAreaSectors;
    info.RootDirMaxFiles = 512;
  }
  info.AgreeingFolders = 0;
  CountAgreeing(drive, size == 1 ? info.OneSectorFolders : 2);
  TFolderWalk walk = MakeWalk(FEngine, drive, driveNumber, FOem, FUnplacedRows, MaxUnplacedRows);
  walk.WalkRoot();
  const TInt64DynArray waiting = std::move(info.WaitingSectors);
  info.WaitingSectors.clear();
  for (const std::int64_t sector : waiting) {
    if (sector == info.RootDirFirstSector || !OnClusterBorder(drive, sector)) continue;
    walk.WalkFolder(ClusterOfSector(drive, sector));
  }
}

void TFAT::PartRecDriveAdded(int driveNumber) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  TDriveInfo& drive = drives.List[static_cast<std::size_t>(driveNumber)];
  TDriveInfo volume = drive;
  // The boot sectors of other systems look like those of FAT.
  const TFileSystem there = drives.GetSystem(volume);
  if (!IsFAT(there)) return;
  drive.FileSystem = there;
  PartRecAnalyseVolume(driveNumber);
}

void TFAT::PartRecAnalyseVolume(int driveNumber, bool byTables) {
  if (FEngine.Drives().IsWrongNumber(driveNumber)) return;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  if (byTables) {
    LoadTable(drive);
    ReadRootLabel(drive);
    ReadFreeSize(drive);
  } else if (!GetDriveInfo(drive, true)) {
    return;
  }
  FATInfo(drive).Walk = std::make_shared<TWalkState>(drive);
  TFolderWalk walk = MakeWholeWalk(FEngine, drive, driveNumber, FOem);
  walk.WalkRoot();
  walk.WalkWaiting(false);
}

/// Volumes of a sound source do not overlap: a crafted one must not have the same place searched for each.
void TFAT::PartRecFinishVolumes(int parentDrive) {
  constexpr std::int64_t mostTimes = 4;
  if (FEngine.Analysing) ConfirmVolumesOfTables(parentDrive);
  const std::vector<TDriveInfo>& list = FEngine.Drives().List;
  const TDriveInfo& main = list[static_cast<std::size_t>(parentDrive)];
  std::int64_t searched = 0;
  for (const int sub : main.SubDrives) {
    const TDriveInfo& drive = list[static_cast<std::size_t>(sub)];
    if (!IsFAT(drive.FileSystem) || !FATInfo(drive).Walk) continue;
    searched += drive.SectorsCount;
    FinishVolume(sub, searched <= mostTimes * main.SectorsCount);
  }
}

/// FAT volumes without a boot sector of which too few folders were met to be sure.
void TFAT::ConfirmVolumesOfTables(int parentDrive) {
  TDrives& drives = FEngine.Drives();
  for (int count = AddTableVolumes(parentDrive); count > 0; --count) {
    const int last = static_cast<int>(drives.PartRecInfo.FoundDrives.size()) - 1;
    PartRecAnalyseVolume(drives.PartRecDriveForFound(parentDrive, last), true);
  }
}

/// With `lostFolders` those of such a volume, as an analysis of it alone looks for them.
void TFAT::FinishVolume(int driveNumber, bool lostFolders) {
  if (FEngine.Drives().IsWrongNumber(driveNumber)) return;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  if (!IsFAT(drive.FileSystem) || !FATInfo(drive).Walk) return;
  if (lostFolders && FEngine.Analysing && LostFolderSearch != TLostFolderSearch::Never) {
    TFolderWalk walk = MakeWholeWalk(FEngine, drive, driveNumber, FOem);
    walk.FindLostFoldersAsNeeded(LostFolderSearch == TLostFolderSearch::Always);
  }
  FATInfo(drive).HighPartUsed = IsHighPartUsed(drive);
  FATInfo(drive).Walk.reset();
}

void TFAT::PartRecAnalyseForNewDrive(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                                     std::int64_t sectorNumber) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  const TDriveInfo& main = drives.List[static_cast<std::size_t>(driveNumber)];
  const std::int64_t absolute = main.FirstSector + sectorNumber;
  if (FTables.Note(buffer.subspan(start), absolute, drives.GetBytesPerSector(main)) &&
      IsKnownTable(driveNumber, FTables.Pairs.back())) {
    FTables.Pairs.pop_back();
  }
  if (!IsFolderStart(main, buffer, start, false)) return;
  const std::uint16_t ownLowHalf = ReadLe16(buffer, start + 26);
  for (std::size_t i = drives.PartRecInfo.FoundDrives.size(); i-- > 0;) {
    const TDriveInfo& found = drives.PartRecInfo.FoundDrives[i];
    if (!IsFAT(found.FileSystem) || FATInfo(found).SectorsPerCluster <= 0) continue;
    const std::int64_t relative = absolute - found.FirstSector;
    if (relative >= found.SectorsCount || !OnClusterBorder(found, relative)) continue;
    if ((ClusterOfSector(found, relative) & 0xFFFF) != ownLowHalf) continue;

    PartRecAnalyseVolume(drives.PartRecDriveForFound(driveNumber, static_cast<int>(i)));
    return;
  }
  const int pair = FTables.Vote(absolute, EntryCluster(buffer, start));
  if (pair < 0) return;
  const TTablePair tables = FTables.Pairs[static_cast<std::size_t>(pair)];
  FTables.Pairs.erase(FTables.Pairs.begin() + pair);
  // An image in a file of a volume that is known.
  if (drives.PartRecIsCovered(driveNumber, VolumeOfTables(driveNumber, tables, 1))) return;
  AddFoundTables(driveNumber, tables, tables.SectorsPerCluster(), TPlaceSource::Stored);
  const int found = static_cast<int>(drives.PartRecInfo.FoundDrives.size()) - 1;
  PartRecAnalyseVolume(drives.PartRecDriveForFound(driveNumber, found), true);
}

// ---- volumes without a boot sector ----------------------------------------------------------

/// Whether a boot sector describes the volume of these tables.
bool TFAT::IsKnownTable(int driveNumber, const TTablePair& pair) const {
  const TDrives& drives = FEngine.Drives();
  const auto has = [&](const TDriveInfo& drive) {
    return IsFAT(drive.FileSystem) && FATInfo(drive).FATSize > 0 &&
           drive.FirstSector + FATInfo(drive).FATFirstSector == pair.First;
  };
  const TIntegerDynArray& subs = drives.List[static_cast<std::size_t>(driveNumber)].SubDrives;
  return std::any_of(drives.PartRecInfo.FoundDrives.begin(), drives.PartRecInfo.FoundDrives.end(), has) ||
         std::any_of(subs.begin(), subs.end(),
                     [&](int sub) { return has(drives.List[static_cast<std::size_t>(sub)]); });
}

/// The volume of two tables. Where it begins is known when a partition table says so; else the usual
/// count of reserved sectors is taken, which moves none of its files.
TDriveInfo TFAT::VolumeOfTables(int driveNumber, const TTablePair& pair, int sectorsPerCluster) const {
  const TDrives& drives = FEngine.Drives();
  const TDriveInfo& main = drives.List[static_cast<std::size_t>(driveNumber)];
  const bool isFAT32 = pair.Width == TFileSystem::fsFAT32;
  TDriveInfo volume = drives.PartOf(main);
  volume.FileSystem = pair.Width;
  volume.FirstSector = std::max<std::int64_t>(main.FirstSector, pair.First - (isFAT32 ? 32 : 1));
  std::int64_t end = main.FirstSector + main.SectorsCount;
  for (const int number : drives.PartRecInfo.Volumes) {
    if (drives.IsWrongNumber(number)) continue;
    const TDriveInfo& known = drives.List[static_cast<std::size_t>(number)];
    if (pair.First <= known.FirstSector || pair.First >= known.FirstSector + known.SectorsCount) continue;
    volume.FirstSector = known.FirstSector;
    end = std::min(end, known.FirstSector + known.SectorsCount);
  }
  const std::int64_t entries = pair.Size * volume.BytesPerSector / (isFAT32 ? 4 : 2);
  volume.SectorsCount = std::min(end, pair.DataFirst() + (entries - 2) * sectorsPerCluster) - volume.FirstSector;
  TFATInfo& info = FATInfo(volume);
  info.SectorsPerCluster = sectorsPerCluster;
  info.FATCount = 2;
  info.FATFirstSector = static_cast<std::uint32_t>(pair.First - volume.FirstSector);
  info.FATSize = static_cast<std::uint32_t>(pair.Size);
  info.DataFirstSector = static_cast<std::uint32_t>(pair.DataFirst() - volume.FirstSector);
  info.RootDirFirstSector = static_cast<std::uint32_t>(pair.RootArea() - volume.FirstSector);
  info.RootDirFirstCluster = isFAT32 ? 2 : 0;
  info.RootDirMaxFiles = isFAT32 ? 0 : 512;
  return volume;
}

void TFAT::AddFoundTables(int driveNumber, const TTablePair& pair, int sectorsPerCluster, TPlaceSource source) {
  TDriveInfo volume = VolumeOfTables(driveNumber, pair, sectorsPerCluster);
  volume.GeometrySource = source;
  FEngine.Drives().PartRecInfo.FoundDrives.push_back(std::move(volume));
}

/// The size of a cluster with which the volume fills what is there. Tables are a little longer than need be.
int TFAT::LargestFittingCluster(int driveNumber, const TTablePair& pair) const {
  int size = 1;
  for (int larger = 2; larger <= 128; larger *= 2) {
    const TDriveInfo volume = VolumeOfTables(driveNumber, pair, larger);
    const std::int64_t entries = pair.Size * volume.BytesPerSector / (IsFAT32(volume) ? 4 : 2) * 3 / 4;
    const std::int64_t most = volume.SectorsCount - FATInfo(volume).DataFirstSector;
    if (entries * larger <= most) size = larger;
  }
  return size;
}

/// Files of the root whose type has a signature: where one begins as it should, that is a vote.
void TFAT::VoteByRootFiles(int driveNumber, TTablePair& pair) {
  TDriveInfo volume = VolumeOfTables(driveNumber, pair, 1);
  const auto sectorSize = static_cast<std::size_t>(volume.BytesPerSector);
  TByteDynArray root(sectorSize);
  if (FEngine.Reader().ReadDriveSectors(volume, root.data(), pair.RootArea(), 1) != sectorSize) return;
  TEntryParser parser(FOem);
  TFileInfo file;
  TByteDynArray sector(sectorSize);
  for (std::size_t at = 0; at + EntrySize <= root.size(); at += EntrySize) {
    const auto result = parser.Parse(std::span(root).subspan(at, EntrySize), false, file);
    if (parser.LastWasAllZero()) return;
    if (result != TEntryParser::TResult::File || file.blnDeleted || file.blnFolder || file.FirstCluster < 3) continue;
    const TString extension = u"." + LowerCase(Trim(Extension(file.strName)));
    for (int size = 1; size <= 128; size *= 2) {
      const std::int64_t place = pair.DataFirst() + (file.FirstCluster - 2) * size;
      if (FEngine.Reader().ReadDriveSectors(volume, sector.data(), place, 1) != sectorSize) continue;
      bool known = false;
      bool same = false;
      FEngine.Signatures().CheckSignatureByFileExt(extension, sector, 0, known, same);
      if (known && same) TTableSearch::AddVote(pair, place, static_cast<std::uint32_t>(file.FirstCluster));
    }
    FEngine.Pump();
  }
}

/// Volumes that only their tables and fewer than two folders speak for, as `FoundDrives`. Returns their count.
int TFAT::AddTableVolumes(int driveNumber) {
  int added = 0;
  for (TTablePair& pair : FTables.Pairs) {
    if (FEngine.Drives().PartRecIsTaken(driveNumber, VolumeOfTables(driveNumber, pair, 1))) continue;
    VoteByRootFiles(driveNumber, pair);
    const int voted = pair.SectorsPerCluster();
    const TPlaceSource source = pair.MostVotes() >= 2 ? TPlaceSource::Stored : TPlaceSource::Estimated;
    AddFoundTables(driveNumber, pair, voted > 0 ? voted : LargestFittingCluster(driveNumber, pair), source);
    ++added;
  }
  FTables.Clear();
  return added;
}

}  // namespace brenlow
