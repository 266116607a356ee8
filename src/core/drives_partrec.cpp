// SPDX-License-Identifier: GPL-3.0-or-later
// What the thorough partition search does with the registry: candidate sub-drives, found boot
// sectors, confirmation and closing.
#include <algorithm>

#include "core/driver_calls.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/families.h"

namespace brenlow {
namespace {

// Boot sectors that wait for their confirmation; a source of nothing but boot sectors has no more.
constexpr std::size_t MostFoundDrives = 1024;
constexpr std::size_t MostSubDrives = 1024;

}  // namespace

void TDrives::PartRecClearInfo(int number) {
  PartRecInfo = TPartRecInfo();
  PartRecInfo.MainDrive = number;
  if (IsWrongNumber(number)) return;
  const TDriveInfo& drive = List[static_cast<std::size_t>(number)];
  PartRecInfo.Volumes = drive.Volumes;
  PartRecInfo.Candidates = FEngine.Drivers().PartRecCandidates(drive);
}

int TDrives::PartRecAddSubdrive(int parentDrive, TFileSystem fileSystem) {
  const bool full =
      !IsWrongNumber(parentDrive) && List[static_cast<std::size_t>(parentDrive)].SubDrives.size() >= MostSubDrives;
  if (full) return -1;
  const int number = AddSubdrive(parentDrive, -1);
  if (number < 0) return -1;
  TDriveInfo& drive = List[static_cast<std::size_t>(number)];
  drive.FileSystem = drive.DefaultSystem = fileSystem;
  FEngine.Drivers().PartRecSubdriveAdded(drive);
  FEngine.BeginDriveFiles(number);
  return number;
}

/// An open sub-drive of the family without any file; -1 when there is none.
int TDrives::PartRecEmptySubdrive(int parentDrive, TFileSystem fileSystem) const {
  for (const int sub : List[static_cast<std::size_t>(parentDrive)].SubDrives) {
    const TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
    // A volume that was analysed is none, though it holds no file.
    const bool isCandidate =
        drive.CanBeAnalysed && SameFamily(drive.FileSystem, fileSystem) && !FEngine.Drivers().PartRecIsAnalysed(drive);
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
  const TDriveInfo known = List[static_cast<std::size_t>(*volume)];
  for (const TFileSystem system : PartRecInfo.Candidates) PartRecMoveCandidate(number, system, absolute, known);
}

/// An empty candidate, or a new one, is the volume that is known to begin there.
void TDrives::PartRecMoveCandidate(int number, TFileSystem system, std::int64_t firstSector, const TDriveInfo& known) {
  int sub = PartRecEmptySubdrive(number, system);
  if (sub < 0) sub = PartRecAddSubdrive(number, system);
  if (sub < 0) return;
  TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
  drive.FileSystem = system;
  drive.Systems.Clear();
  drive.FirstSector = firstSector;
  drive.SectorsCount = known.SectorsCount;
  FEngine.Drivers().PartRecVolumeKnown(drive, known.ReceivedType == TReceivedType::rtByUnallocatedSpace);
  SetDefaultInfo(drive);
  FEngine.Drivers().PartRecDriveAdded(sub);
  TDriveInfo& placed = List[static_cast<std::size_t>(sub)];
  if (placed.SectorsCount <= 0) placed.SectorsCount = placed.DefaultSectorsCount = known.SectorsCount;
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

/// True for a sub-drive with the bounds of the whole drive, which say nothing: a candidate.
bool TDrives::PartRecIsWhole(int number, const TDriveInfo& sub) const {
  const TDriveInfo& main = List[static_cast<std::size_t>(number)];
  return sub.FirstSector == main.FirstSector && sub.SectorsCount == main.SectorsCount;
}

bool TDrives::PartRecIsCovered(int number, const TDriveInfo& volume) const {
  const TDriveInfo& main = List[static_cast<std::size_t>(number)];
  const auto covers = [&](const TDriveInfo& drive) {
    return drive.FirstSector < volume.FirstSector && volume.FirstSector < drive.FirstSector + drive.SectorsCount;
  };
  const auto isVolume = [&](int sub) {
    const TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
    return FEngine.Drivers().PartRecIsAnalysed(drive) || (!IsEmpty(sub) && !PartRecIsWhole(number, drive));
  };
  return std::any_of(PartRecInfo.FoundDrives.begin(), PartRecInfo.FoundDrives.end(), covers) ||
         std::any_of(main.SubDrives.begin(), main.SubDrives.end(),
                     [&](int sub) { return isVolume(sub) && covers(List[static_cast<std::size_t>(sub)]); });
}

bool TDrives::PartRecIsTaken(int number, const TDriveInfo& volume) const {
  const TIntegerDynArray& subs = List[static_cast<std::size_t>(number)].SubDrives;
  return std::any_of(subs.begin(), subs.end(), [&](int sub) {
    const TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
    const bool whole = PartRecIsWhole(number, drive) && !FEngine.Drivers().PartRecIsAnalysed(drive);
    return !IsEmpty(sub) && !whole && volume.FirstSector >= drive.FirstSector &&
           volume.FirstSector < drive.FirstSector + drive.SectorsCount;
  });
}

/// Whether a volume of the family begins where this find would be a copy of its boot sector.
bool TDrives::PartRecIsCopy(int number, const TDriveInfo& volume) const {
  const auto copies = FamilyOf(volume.FileSystem)->CopySectors;
  return std::any_of(copies.begin(), copies.end(), [&](std::int64_t copy) {
    return copy != AfterVolume && PartRecIsKnownStart(number, volume.FirstSector - copy, volume.FileSystem);
  });
}

bool TDrives::PartRecCheckForNewPartition(int number, std::int64_t sectorNumber, std::span<const std::uint8_t> buffer) {
  if (PartRecInfo.FoundDrives.size() >= MostFoundDrives) return false;
  TFileSystem system = TFileSystem::fsUnknown;
  const int sectorSize = GetBytesPerSector(number);
  if (!IsPartition(buffer, 0, false, system, sectorSize)) return false;
  const TFamily* family = FamilyOf(system);
  if (family == nullptr || !FEngine.PartRecSystems.Has(family->Bit)) return false;
  const TDriveInfo& parent = List[static_cast<std::size_t>(number)];
  TDriveInfo volume = PartOf(parent);
  volume.FileSystem = system;
  volume.FirstSector = parent.FirstSector + sectorNumber;
  if (!FEngine.Drivers().SetVolumeBounds(volume, buffer, false)) return false;
  if (PartRecIsKnownStart(number, volume.FirstSector, system)) return false;
  if (!FEngine.Drivers().PartRecAccepts(volume, buffer) || PartRecIsCopy(number, volume)) return false;
  // A small volume must show more than its boot sector, and lie in no other one as an image in a file does.
  const bool large = volume.SectorsCount * sectorSize > LargestNoVolume;
  if (!large && (!family->MayBeSmall || PartRecIsCovered(number, volume) ||
                 !FEngine.Drivers().IsVolumeSound(volume, buffer, false))) {
    return false;
  }
  if (volume.SectorsCount > parent.SectorsCount) return false;
  volume.aFreeSize = 0;  // counted when the volume is confirmed: that takes its whole table
  if (volume.FirstSector < parent.FirstSector || !FEngine.Drivers().GetDriveInfo(volume, false)) return false;
  volume.aFreeSize = -1;
  PartRecInfo.FoundDrives.push_back(std::move(volume));
  return true;
}

void TDrives::PartRecCheckSubDrivesForEnd(std::int64_t sectorNumber, bool deleteTruncated) {
  const int main = PartRecInfo.MainDrive;
  if (IsWrongNumber(main)) return;
  const std::int64_t position = List[static_cast<std::size_t>(main)].FirstSector + sectorNumber;
  TPartRecSystems open;
  for (std::size_t i = List[static_cast<std::size_t>(main)].SubDrives.size(); i-- > 0;) {
    const int sub = List[static_cast<std::size_t>(main)].SubDrives[i];
    TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
    if (!drive.CanBeAnalysed) continue;
    const bool ends = deleteTruncated ? FEngine.Drivers().PartRecCanBeTruncated(drive)
                                      : drive.FirstSector + drive.SectorsCount < position;
    if (!ends) {
      if (const TFamily* family = FamilyOf(drive.FileSystem); family != nullptr) open.Add(family->Bit);
      continue;
    }
    FEngine.Drivers().PartRecDriveAnalysed(sub);
    List[static_cast<std::size_t>(sub)].CanBeAnalysed = false;
  }
  for (const TFileSystem candidate : PartRecInfo.Candidates) {
    if (!open.Has(FamilyOf(candidate)->Bit)) PartRecAddSubdrive(main, candidate);
  }
}

}  // namespace brenlow
