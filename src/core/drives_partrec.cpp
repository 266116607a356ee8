// SPDX-License-Identifier: GPL-3.0-or-later
// What the thorough partition search does with the registry: candidate sub-drives, found boot
// sectors, confirmation and closing.
#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "fs/fat/fat_info.h"
#include "fs/ntfs/ntfs_info.h"

namespace brenlow {
namespace {

// Boot sectors that wait for their confirmation; a source of nothing but boot sectors has no more.
constexpr std::size_t MostFoundDrives = 1024;
constexpr std::size_t MostSubDrives = 1024;
constexpr std::int64_t BackupOfFAT32 = 6;  // sectors behind the boot sector

/// FAT12, FAT16 and FAT32 share their candidates.
bool SameFamily(TFileSystem a, TFileSystem b) { return a == b || (IsFAT(a) && IsFAT(b)); }

/// The bit that a file system has in the search.
TPartRecSystem PartRecSystemOf(TFileSystem system) {
  return IsFAT(system) ? TPartRecSystem::FAT : TPartRecSystem::NTFS;
}

}  // namespace

void TDrives::PartRecClearInfo(int number) {
  constexpr std::int64_t largestFAT16 = 2097152;  // KiB
  PartRecInfo = TPartRecInfo();
  PartRecInfo.MainDrive = number;
  if (IsWrongNumber(number)) return;
  TDriveInfo& drive = List[static_cast<std::size_t>(number)];
  PartRecInfo.Volumes = drive.Volumes;
  const std::int64_t size = drive.SectorsCount * GetBytesPerSector(drive) / 1024;
  if (IsFloppy(drive)) {
    PartRecInfo.DefaultFATSystem = TFileSystem::fsFAT12;
  } else {
    PartRecInfo.DefaultFATSystem = size == 0 || size > largestFAT16 ? TFileSystem::fsFAT32 : TFileSystem::fsFAT16;
  }
}

int TDrives::PartRecAddSubdrive(int parentDrive, TFileSystem fileSystem) {
  const bool full =
      !IsWrongNumber(parentDrive) && List[static_cast<std::size_t>(parentDrive)].SubDrives.size() >= MostSubDrives;
  if (full) return -1;
  const int number = AddSubdrive(parentDrive, -1);
  if (number < 0) return -1;
  TDriveInfo& drive = List[static_cast<std::size_t>(number)];
  drive.FileSystem = drive.DefaultSystem = fileSystem;
  NTFSInfo(drive).CanBeTruncated = fileSystem == TFileSystem::fsNTFS;
  FEngine.BeginDriveFiles(number);
  return number;
}

/// An open sub-drive of the family without any file; -1 when there is none.
int TDrives::PartRecEmptySubdrive(int parentDrive, TFileSystem fileSystem) const {
  for (const int sub : List[static_cast<std::size_t>(parentDrive)].SubDrives) {
    const TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
    // A volume that was analysed is none, though it holds no file.
    const bool isCandidate = drive.CanBeAnalysed && SameFamily(drive.FileSystem, fileSystem) && !FATInfo(drive).Walk;
    if (isCandidate && IsEmpty(sub)) return sub;
  }
  return -1;
}

int TDrives::PartRecDriveForFound(int parentDrive, int foundDriveNumber) {
  const auto& found = PartRecInfo.FoundDrives;
  if (IsWrongNumber(parentDrive) || foundDriveNumber < 0 || foundDriveNumber >= static_cast<int>(found.size()))
    return -1;
  const TFileSystem system = found[static_cast<std::size_t>(foundDriveNumber)].FileSystem;
  const int empty = PartRecEmptySubdrive(parentDrive, system);
  const int target = empty >= 0 ? empty : PartRecAddSubdrive(parentDrive, system);
  if (target < 0) return -1;
  PartRecApplyFoundDriveInfoToDrive(target, foundDriveNumber);
  return target;
}

void TDrives::PartRecApplyFoundDriveInfoToDrive(int driveNumber, int foundDriveNumber) {
  auto& found = PartRecInfo.FoundDrives;
  if (IsWrongNumber(driveNumber) || foundDriveNumber < 0 || foundDriveNumber >= static_cast<int>(found.size())) return;
  TDriveInfo& drive = List[static_cast<std::size_t>(driveNumber)];
  const TDriveInfo& from = found[static_cast<std::size_t>(foundDriveNumber)];
  drive.FirstSector = from.FirstSector;
  drive.BytesPerSector = from.BytesPerSector;
  drive.SectorsCount = from.SectorsCount;
  drive.CanBeAnalysed = true;
  CopySystemsInfo(from, drive);
  found.erase(found.begin() + foundDriveNumber);
}

void TDrives::PartRecCheckForExistPartition(int number, std::int64_t sectorNumber) {
  if (sectorNumber <= 0 || IsWrongNumber(number)) return;
  const std::int64_t absolute = List[static_cast<std::size_t>(number)].FirstSector + sectorNumber;
  const auto volume = std::find_if(PartRecInfo.Volumes.begin(), PartRecInfo.Volumes.end(), [&](int known) {
    return !IsWrongNumber(known) && List[static_cast<std::size_t>(known)].FirstSector == absolute;
  });
  if (volume == PartRecInfo.Volumes.end()) return;
  const std::int64_t sectors = List[static_cast<std::size_t>(*volume)].SectorsCount;
  const bool isGap = List[static_cast<std::size_t>(*volume)].ReceivedType == TReceivedType::rtByUnallocatedSpace;
  const auto moveHere = [&](TPartRecSystem bit, TFileSystem system) {
    if (!FEngine.PartRecSystems.Has(bit)) return;
    int sub = PartRecEmptySubdrive(number, system);
    if (sub < 0) sub = PartRecAddSubdrive(number, system);
    if (sub < 0) return;
    TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
    drive.FileSystem = system;
    drive.Systems.Clear();
    drive.FirstSector = absolute;
    // A gap between partitions says where a lost volume may begin, not how long it is.
    drive.SectorsCount = isGap && system == TFileSystem::fsNTFS ? 0 : sectors;
    SetDefaultInfo(drive);
    FEngine.PartRecVolumeKnown(sub);
    TDriveInfo& placed = List[static_cast<std::size_t>(sub)];
    if (placed.SectorsCount <= 0) placed.SectorsCount = placed.DefaultSectorsCount = sectors;
  };
  moveHere(TPartRecSystem::FAT, PartRecInfo.DefaultFATSystem);
  moveHere(TPartRecSystem::NTFS, TFileSystem::fsNTFS);
}

/// Whether a sub-drive or a found boot sector of that family begins there.
bool TDrives::PartRecIsKnownStart(int number, std::int64_t firstSector, TFileSystem system) const {
  const auto same = [&](const TDriveInfo& drive) {
    return drive.FirstSector == firstSector && SameFamily(drive.FileSystem, system);
  };
  const TDriveInfo& main = List[static_cast<std::size_t>(number)];
  return std::any_of(PartRecInfo.FoundDrives.begin(), PartRecInfo.FoundDrives.end(), same) ||
         std::any_of(main.SubDrives.begin(), main.SubDrives.end(), [&](int sub) {
           const TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
           // An empty candidate has the bounds of the whole drive, which says nothing.
           const bool placed = drive.FirstSector != main.FirstSector || drive.SectorsCount != main.SectorsCount;
           return same(drive) && (placed || !IsEmpty(sub));
         });
}

bool TDrives::PartRecIsCovered(int number, const TDriveInfo& volume) const {
  const TDriveInfo& main = List[static_cast<std::size_t>(number)];
  const auto covers = [&](const TDriveInfo& drive) {
    return drive.FirstSector < volume.FirstSector && volume.FirstSector < drive.FirstSector + drive.SectorsCount;
  };
  const auto isVolume = [&](int sub) {
    // A candidate has the bounds of the whole drive, which says nothing.
    const TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
    return FATInfo(drive).Walk ||
           (!IsEmpty(sub) && (drive.FirstSector != main.FirstSector || drive.SectorsCount != main.SectorsCount));
  };
  return std::any_of(PartRecInfo.FoundDrives.begin(), PartRecInfo.FoundDrives.end(), covers) ||
         std::any_of(main.SubDrives.begin(), main.SubDrives.end(),
                     [&](int sub) { return isVolume(sub) && covers(List[static_cast<std::size_t>(sub)]); });
}

bool TDrives::PartRecCheckForNewPartition(int number, std::int64_t sectorNumber, std::span<const std::uint8_t> buffer) {
  if (PartRecInfo.FoundDrives.size() >= MostFoundDrives) return false;
  TFileSystem system = TFileSystem::fsUnknown;
  const int sectorSize = GetBytesPerSector(number);
  if (!IsPartition(buffer, 0, false, system, sectorSize) || !FEngine.PartRecSystems.Has(PartRecSystemOf(system)))
    return false;
  const TDriveInfo& parent = List[static_cast<std::size_t>(number)];
  TDriveInfo volume = PartOf(parent);
  volume.FileSystem = system;
  volume.FirstSector = parent.FirstSector + sectorNumber;
  if (!FEngine.SetVolumeBounds(volume, buffer)) return false;
  if (PartRecIsKnownStart(number, volume.FirstSector, system)) return false;
  if (IsFAT(system)) {
    const bool oneSize = (ReadLe16(buffer, 0x13) != 0) != (ReadLe32(buffer, 0x20) != 0);
    if (!oneSize || PartRecIsKnownStart(number, volume.FirstSector - BackupOfFAT32, system)) return false;
  }
  // A small volume must show more than its boot sector, and lie in no other one as an image in a file does.
  const bool large = volume.SectorsCount * sectorSize > LargestNoVolume;
  if (!large && (!IsFAT(system) || PartRecIsCovered(number, volume) || !FEngine.IsVolumeSound(volume, buffer))) {
    return false;
  }
  if (volume.SectorsCount > parent.SectorsCount) return false;
  volume.aFreeSize = 0;  // counted when the volume is confirmed: that takes its whole table
  if (volume.FirstSector < parent.FirstSector || !FEngine.GetDriveInfo(volume, false)) return false;
  volume.aFreeSize = -1;
  PartRecInfo.FoundDrives.push_back(std::move(volume));
  return true;
}

void TDrives::PartRecCheckSubDrivesForEnd(std::int64_t sectorNumber, bool deleteNTFSTruncated) {
  const int main = PartRecInfo.MainDrive;
  if (IsWrongNumber(main)) return;
  const std::int64_t position = List[static_cast<std::size_t>(main)].FirstSector + sectorNumber;
  bool openFAT = false;
  bool openNTFS = false;
  for (const int sub : List[static_cast<std::size_t>(main)].SubDrives) {
    TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
    if (!drive.CanBeAnalysed) continue;
    const bool ends = deleteNTFSTruncated ? drive.FileSystem == TFileSystem::fsNTFS && NTFSInfo(drive).CanBeTruncated
                                          : drive.FirstSector + drive.SectorsCount < position;
    if (ends) drive.CanBeAnalysed = false;
    openFAT = openFAT || (!ends && IsFAT(drive.FileSystem));
    openNTFS = openNTFS || (!ends && drive.FileSystem == TFileSystem::fsNTFS);
  }
  if (FEngine.PartRecSystems.Has(TPartRecSystem::FAT) && !openFAT) {
    PartRecAddSubdrive(main, PartRecInfo.DefaultFATSystem);
  }
  if (FEngine.PartRecSystems.Has(TPartRecSystem::NTFS) && !openNTFS) PartRecAddSubdrive(main, TFileSystem::fsNTFS);
}

}  // namespace brenlow
