// SPDX-License-Identifier: GPL-3.0-or-later
// What the FAT driver does for each sector of a partition search. A candidate volume may begin
// with nothing but the folders met: the cluster size is learned from the distance of two of them.
#include <algorithm>

#include "analysis/files.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "fs/fat/fat.h"
#include "fs/fat/fat_layout.h"
#include "fs/fat/fat_walk.h"

namespace brenlow {

using namespace fat;

namespace {

constexpr std::uint32_t RootAreaSectors = 32;  // of a FAT12 or FAT16 root of 512 entries

bool OnClusterBorder(const TDriveInfo& drive, std::int64_t sector) {
  const std::int64_t distance = sector - drive.FATInfo.DataFirstSector;
  return distance >= 0 && distance % drive.FATInfo.SectorsPerCluster == 0;
}

std::uint32_t ClusterOfSector(const TDriveInfo& drive, std::int64_t sector) {
  return static_cast<std::uint32_t>((sector - drive.FATInfo.DataFirstSector) / drive.FATInfo.SectorsPerCluster + 2);
}

TFolderWalk MakeWalk(TEngine& engine, TDriveInfo& drive, int driveNumber, const TOemTable& oem) {
  TFolderWalk walk(engine, drive, driveNumber, oem, [&engine](const TFileInfo& info, std::int64_t parent) {
    engine.Files().Add(info, parent, true);
    return engine.Analysing.load(std::memory_order_relaxed);
  });
  walk.CanAddWaiting = false;
  return walk;
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

/// Counts a folder whose data area would begin there with clusters of one sector.
bool IsOneSector(TFATInfo& info, std::int64_t dataFirst) {
  info.OneSectorFolders = dataFirst == info.OneSectorDataFirst ? info.OneSectorFolders + 1 : 1;
  info.OneSectorDataFirst = dataFirst;
  return dataFirst >= 0 && info.OneSectorFolders >= FoldersForOneSector;
}

}  // namespace

void TFAT::PartRecAnalyseSector(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                                std::int64_t sectorNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  TFATInfo& info = drive.FATInfo;
  if (start >= buffer.size() || drive.BytesPerSector <= 0) return;
  if (info.SectorsPerCluster <= 0) {
    LearnClusterSize(drive, driveNumber, buffer.subspan(start), sectorNumber);
    return;
  }
  const bool isRootArea = !IsFAT32(drive) && sectorNumber == info.RootDirFirstSector;
  if (!isRootArea && !OnClusterBorder(drive, sectorNumber)) return;
  if (isRootArea) {
    MakeWalk(FEngine, drive, driveNumber, FOem).WalkRootArea();
    return;
  }
  const std::uint32_t cluster = ClusterOfSector(drive, sectorNumber);
  const bool isRoot = cluster == info.RootDirFirstCluster && cluster != 0;
  if (!IsFolderStart(drive, buffer, start, isRoot)) return;
  const auto bytes = buffer.subspan(start);
  const auto clusterBytes = static_cast<std::size_t>(ClusterBytes(drive));
  // Only now: a walk keeps a bit for each cluster.
  TFolderWalk walk = MakeWalk(FEngine, drive, driveNumber, FOem);
  walk.WalkFolder(cluster, bytes.size() < clusterBytes ? std::span<const std::uint8_t>() : bytes.first(clusterBytes));
}

void TFAT::LearnClusterSize(TDriveInfo& drive, int driveNumber, std::span<const std::uint8_t> folder,
                            std::int64_t sectorNumber) {
  TFATInfo& info = drive.FATInfo;
  if (!IsFolderStart(drive, folder, 0, false)) return;
  info.WaitingSectors.push_back(sectorNumber);
  const std::uint32_t cluster = IsFAT32(drive) ? EntryCluster(folder, 0) : ReadLe16(folder, 26);
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
  TFolderWalk walk = MakeWalk(FEngine, drive, driveNumber, FOem);
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
  GetDriveInfo(drive, true);
}

void TFAT::PartRecWalkRoot(int driveNumber) {
  if (FEngine.Drives().IsWrongNumber(driveNumber)) return;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  GetDriveInfo(drive, true);  // folders of more than one cluster follow the table
  if (drive.FATInfo.RootDirFirstSector != 0) MakeWalk(FEngine, drive, driveNumber, FOem).WalkRoot();
}

void TFAT::PartRecAnalyseForNewDrive(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                                     std::int64_t sectorNumber) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber) ||
      !IsFolderStart(drives.List[static_cast<std::size_t>(driveNumber)], buffer, start, false))
    return;
  const std::uint16_t ownLowHalf = ReadLe16(buffer, start + 26);
  const std::int64_t absolute = drives.List[static_cast<std::size_t>(driveNumber)].FirstSector + sectorNumber;
  for (std::size_t i = drives.PartRecInfo.FoundDrives.size(); i-- > 0;) {
    const TDriveInfo& found = drives.PartRecInfo.FoundDrives[i];
    if (!IsFAT(found.FileSystem) || found.FATInfo.SectorsPerCluster <= 0) continue;
    const std::int64_t relative = absolute - found.FirstSector;
    if (relative >= found.SectorsCount || !OnClusterBorder(found, relative)) continue;
    if ((ClusterOfSector(found, relative) & 0xFFFF) != ownLowHalf) continue;

    PartRecWalkRoot(drives.PartRecDriveForFound(driveNumber, static_cast<int>(i)));
    return;
  }
}

}  // namespace brenlow
