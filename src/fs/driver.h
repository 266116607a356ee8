// SPDX-License-Identifier: GPL-3.0-or-later
// What a file-system driver is. `TFileSystemDriver` names the steps that every driver has; the functions
// in `driver` below are the optional ones, each with what holds for a driver without it. Callers go through
// `fs/dispatch.h` and call the optional steps only here, so a driver takes part in one by having it.
//
// A driver is a plain class made once for an engine, with a constructor that takes `TEngine&`. What it
// keeps of one drive lies in a record of its own (`drive.Systems`), which moves and is copied with the drive.
// No step throws or reports to the user: a failed read or a damaged field gives false, 0, -1 or less than
// was asked for. A step that loops calls `TEngine::Pump` and ends when `TEngine::Analysing` is cleared.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

#include "core/drive_records.h"
#include "core/driver_calls.h"
#include "core/extents.h"
#include "core/families.h"
#include "core/file_records.h"
#include "core/types.h"

namespace brenlow {

template <typename TDriver>
concept TFileSystemDriver =
    // static constexpr TPartRecSystem Family: the row of `core/families` that the driver serves.
    std::same_as<std::remove_cvref_t<decltype(TDriver::Family)>, TPartRecSystem> &&
    requires(TDriver& driver, TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t at, int number,
             bool flag, TFileArray& files, const TOnFilesGotten& onFilesGotten, TFile& file, TFileStream& stream) {
  // Recognition: do the bytes at `buffer[at]` look like the boot sector or superblock? `buffer` may end
  // anywhere. No read, no state.
  { driver.IsPartition(buffer, at) } -> std::same_as<bool>;
  // Reads boot sector or superblock (or a copy), relative to `drive.FirstSector`, and fills the driver's
  // record, `FileSystem` where the family has several, `BytesPerSector` where it is 0, `SectorsCount`,
  // `VolumeName`, `aFreeSize` (bytes) and `GeometrySource`. `fillTable` asks for large tables, too. False
  // when the volume cannot be read as this file system.
  { driver.GetDriveInfo(drive, flag) } -> std::same_as<bool>;
  // The whole analysis of a drive of the registry: progress 0, `Analysed` partial, `GetDriveInfo`, every
  // object to `TFiles::Add` with folders before their content, deleted and orphaned ones too; pump and
  // `Analysing` after each unit of work; at the end, unless stopped, `Analysed` full and progress 1.
  driver.AnalyseSystem(number);
  // The listing without side effects, of a drive that need not be registered: the root folder only, or
  // all folders, with a call of `onFilesGotten` after each batch, which may end it.
  driver.GetFiles(drive, files, flag, onFilesGotten);
  // Says where the bytes of a stream of the file lie (`adsNumber`, -1 for the main one), see `core/extents`.
  // False when there is no such stream. All reading of files goes by it.
  { driver.MapStream(drive, file, number, stream) } -> std::same_as<bool>;
  // Bytes that the file occupies, in whole allocation units.
  { driver.GetSizeOnDisk(file) } -> std::convertible_to<std::int64_t>;
};

/// The optional steps, as a driver declares them: the functions here have the driver in front. The checks
/// fail where a driver has a member of the name that cannot be called as the step is.
namespace driver {

using TBytes = std::span<const std::uint8_t>;

// ---- recognition ----

/// Which member of the family lies at `buffer[at]`, where `IsPartition` is true. Without it: the only one.
template <typename TDriver>
TFileSystem GetFileSystem(TDriver& driver, TBytes buffer, std::size_t at) {
  if constexpr (requires { driver.GetFileSystem(buffer, at); }) {
    return driver.GetFileSystem(buffer, at);
  } else {
    static_assert(!requires { &TDriver::GetFileSystem; });
    return FamilyOf(TDriver::Family).Members.front().System;
  }
}

/// Sets `FirstSector` and `SectorsCount` of a volume whose boot sector or superblock was met in the sector
/// `volume.FirstSector`; `superblock` begins where the family's row says that it lies. A superblock that does
/// not stand at the start, or is a copy, leads back to the start (the driver's `GetFirstSectorFromSuperblock`).
/// False when it leads nowhere. Without it: no search finds the family by its superblocks.
template <typename TDriver>
bool SetVolumeBounds(TDriver& driver, TDriveInfo& volume, TBytes superblock) {
  if constexpr (requires { driver.SetVolumeBounds(volume, superblock); }) {
    return driver.SetVolumeBounds(volume, superblock);
  } else {
    static_assert(!requires { &TDriver::SetVolumeBounds; });
    return false;
  }
}

/// True when more than the superblock speaks for the volume: a table or record where it says. Such a volume
/// is shown even though it holds nothing and lies where another one was. Without it: false.
template <typename TDriver>
bool IsVolumeSound(TDriver& driver, const TDriveInfo& volume, TBytes superblock) {
  if constexpr (requires { driver.IsVolumeSound(volume, superblock); }) {
    return driver.IsVolumeSound(volume, superblock);
  } else {
    static_assert(!requires { &TDriver::IsVolumeSound; });
    return false;
  }
}

/// Looks for a copy of a boot sector that is gone, near the start of the drive (`head` begins there) or
/// anywhere else. Without it: nothing.
template <typename TDriver>
TCopyFound RecogniseByCopy(TDriver& driver, const TDriveInfo& drive, TBytes head, int bytesPerSector) {
  if constexpr (requires { driver.RecogniseByCopy(drive, head, bytesPerSector); }) {
    return driver.RecogniseByCopy(drive, head, bytesPerSector);
  } else {
    static_assert(!requires { &TDriver::RecogniseByCopy; });
    return {};
  }
}

/// True when a filled volume that only a leftover copy tells of still has its folders. Without it: false.
template <typename TDriver>
bool HoldsFolders(TDriver& driver, const TDriveInfo& volume) {
  if constexpr (requires { driver.HoldsFolders(volume); }) {
    return driver.HoldsFolders(volume);
  } else {
    static_assert(!requires { &TDriver::HoldsFolders; });
    return false;
  }
}

/// True for a find of the quick search that is a copy of the superblock of `known` (any drive with a file
/// system on the same device). Without it: false.
template <typename TDriver>
bool IsCopyOf(TDriver& driver, const TDriveInfo& volume, const TDriveInfo& known) {
  if constexpr (requires { driver.IsCopyOf(volume, known); }) {
    return driver.IsCopyOf(volume, known);
  } else {
    static_assert(!requires { &TDriver::IsCopyOf; });
    return false;
  }
}

// ---- facts ----

/// Bytes of a cluster or block; 0 while that is not known. Without it: 0.
template <typename TDriver>
std::int64_t AllocationUnit(TDriver& driver, const TDriveInfo& drive) {
  if constexpr (requires { driver.AllocationUnit(drive); }) {
    return driver.AllocationUnit(drive);
  } else {
    static_assert(!requires { &TDriver::AllocationUnit; });
    return 0;
  }
}

/// Lines for the drive's properties that only this file system has. Without it: none.
template <typename TDriver>
std::vector<TDriveProperty> Properties(TDriver& driver, const TDriveInfo& drive) {
  if constexpr (requires { driver.Properties(drive); }) {
    return driver.Properties(drive);
  } else {
    static_assert(!requires { &TDriver::Properties; });
    return {};
  }
}

/// After an analysis or a search: drops what only that needed. Without it: nothing to drop.
template <typename TDriver>
void DoAfterAnalyse(TDriver& driver, TDriveInfo& drive) {
  if constexpr (requires { driver.DoAfterAnalyse(drive); }) {
    driver.DoAfterAnalyse(drive);
  } else {
    static_assert(!requires { &TDriver::DoAfterAnalyse; });
  }
}

// ---- partition search: one pass over all sectors of `parentDrive` ---------------------------
// Sector numbers of the pass count from the parent's first sector, those of `PartRecAnalyseSector` from the
// first sector of the sub-drive. `PartRecInfo.FoundDrives` are volumes whose superblock was met and that
// wait for something that confirms them; sub-drives are what the user sees in the end.

/// Before the first sector: forgets the search before. Without it: nothing is kept.
template <typename TDriver>
void PartRecDoBeforeAnalyse(TDriver& driver, int parentDrive) {
  if constexpr (requires { driver.PartRecDoBeforeAnalyse(parentDrive); }) {
    driver.PartRecDoBeforeAnalyse(parentDrive);
  } else {
    static_assert(!requires { &TDriver::PartRecDoBeforeAnalyse; });
  }
}

/// The search is over, or an exception has ended it: drops what it kept. Without it: nothing is kept.
template <typename TDriver>
void PartRecClear(TDriver& driver) {
  if constexpr (requires { driver.PartRecClear(); }) {
    driver.PartRecClear();
  } else {
    static_assert(!requires { &TDriver::PartRecClear; });
  }
}

/// What an empty candidate of the family is: at any moment of the search one such sub-drive with the bounds
/// of the whole drive is open, and `PartRecAnalyseSector` feeds it records met anywhere; where the partition
/// table says that a volume begins, one is moved there. Without it: the family has no candidates.
template <typename TDriver>
TFileSystem PartRecCandidate(TDriver& driver, const TDriveInfo& parentDrive) {
  if constexpr (requires { driver.PartRecCandidate(parentDrive); }) {
    return driver.PartRecCandidate(parentDrive);
  } else {
    static_assert(!requires { &TDriver::PartRecCandidate; });
    return TFileSystem::fsUnknown;
  }
}

/// A sub-drive of the family was made; the driver's record of it is empty. Without it: stays so.
template <typename TDriver>
void PartRecSubdriveAdded(TDriver& driver, TDriveInfo& drive) {
  if constexpr (requires { driver.PartRecSubdriveAdded(drive); }) {
    driver.PartRecSubdriveAdded(drive);
  } else {
    static_assert(!requires { &TDriver::PartRecSubdriveAdded; });
  }
}

/// An empty candidate was given the bounds of a volume that the partition table knows, or with `isGap` those
/// of a gap between such volumes, which say where a lost volume may begin and not how long it is. Without it:
/// the bounds are taken.
template <typename TDriver>
void PartRecVolumeKnown(TDriver& driver, TDriveInfo& drive, bool isGap) {
  if constexpr (requires { driver.PartRecVolumeKnown(drive, isGap); }) {
    driver.PartRecVolumeKnown(drive, isGap);
  } else {
    static_assert(!requires { &TDriver::PartRecVolumeKnown; });
  }
}

/// The sectors of a block just read, before any of them is looked at one by one. Without it: not called.
template <typename TDriver>
void PartRecAnalyseSectors(TDriver& driver, TBytes buffer, int parentDrive, std::int64_t firstSector) {
  if constexpr (requires { driver.PartRecAnalyseSectors(buffer, parentDrive, firstSector); }) {
    driver.PartRecAnalyseSectors(buffer, parentDrive, firstSector);
  } else {
    static_assert(!requires { &TDriver::PartRecAnalyseSectors; });
  }
}

/// Every sector, before it is tested for a superblock; `bytes` begins with it and may go on after it.
template <typename TDriver>
void PartRecNoteSector(TDriver& driver, TBytes bytes, int parentDrive, std::int64_t sector) {
  if constexpr (requires { driver.PartRecNoteSector(bytes, parentDrive, sector); }) {
    driver.PartRecNoteSector(bytes, parentDrive, sector);
  } else {
    static_assert(!requires { &TDriver::PartRecNoteSector; });
  }
}

/// Whether a superblock with good bounds becomes a found volume, by what only the search asks. Without it: yes.
template <typename TDriver>
bool PartRecAccepts(TDriver& driver, const TDriveInfo& volume, TBytes superblock) {
  if constexpr (requires { driver.PartRecAccepts(volume, superblock); }) {
    return driver.PartRecAccepts(volume, superblock);
  } else {
    static_assert(!requires { &TDriver::PartRecAccepts; });
    return true;
  }
}

/// Every sector, after the test for superblocks: may confirm a found volume, or find one without a boot
/// sector. Drivers that need the bytes take the buffer and the place of the sector in it.
template <typename TDriver>
void PartRecAnalyseForNewDrive(TDriver& driver, TBytes buffer, std::size_t start, int parentDrive,
                               std::int64_t sector) {
  if constexpr (requires { driver.PartRecAnalyseForNewDrive(buffer, start, parentDrive, sector); }) {
    driver.PartRecAnalyseForNewDrive(buffer, start, parentDrive, sector);
  } else if constexpr (requires { driver.PartRecAnalyseForNewDrive(parentDrive, sector); }) {
    driver.PartRecAnalyseForNewDrive(parentDrive, sector);
  } else {
    static_assert(!requires { &TDriver::PartRecAnalyseForNewDrive; });
  }
}

/// A sector of an open sub-drive of the family, counted from its start; `canCheckNewDrive` (which a driver
/// may leave out) for the first sub-drive of the family only. False where the driver has no such step.
template <typename TDriver>
bool PartRecAnalyseSector(TDriver& driver, TBytes buffer, std::size_t start, int driveNumber, std::int64_t sector,
                          bool canCheckNewDrive) {
  if constexpr (requires { driver.PartRecAnalyseSector(buffer, start, driveNumber, sector, canCheckNewDrive); }) {
    driver.PartRecAnalyseSector(buffer, start, driveNumber, sector, canCheckNewDrive);
    return true;
  } else if constexpr (requires { driver.PartRecAnalyseSector(buffer, start, driveNumber, sector); }) {
    driver.PartRecAnalyseSector(buffer, start, driveNumber, sector);
    return true;
  } else {
    static_assert(!requires { &TDriver::PartRecAnalyseSector; });
    return false;
  }
}

/// A sub-drive now has the bounds of a volume (of the partition table, or of a found superblock): analyses it
/// as a whole. Without it: what the search meets there fills it.
template <typename TDriver>
void PartRecDriveAdded(TDriver& driver, int driveNumber) {
  if constexpr (requires { driver.PartRecDriveAdded(driveNumber); }) {
    driver.PartRecDriveAdded(driveNumber);
  } else {
    static_assert(!requires { &TDriver::PartRecDriveAdded; });
  }
}

/// The pass has left a sub-drive, which is closed. Without it: nothing to do.
template <typename TDriver>
void PartRecDriveAnalysed(TDriver& driver, int driveNumber) {
  if constexpr (requires { driver.PartRecDriveAnalysed(driveNumber); }) {
    driver.PartRecDriveAnalysed(driveNumber);
  } else {
    static_assert(!requires { &TDriver::PartRecDriveAnalysed; });
  }
}

/// True for a sub-drive that was analysed as a whole: it is a volume, though it may hold no file. Without it:
/// a sub-drive counts when it holds something.
template <typename TDriver>
bool PartRecIsAnalysed(TDriver& driver, const TDriveInfo& drive) {
  if constexpr (requires { driver.PartRecIsAnalysed(drive); }) {
    return driver.PartRecIsAnalysed(drive);
  } else {
    static_assert(!requires { &TDriver::PartRecIsAnalysed; });
    return false;
  }
}

/// True for a candidate that no superblock has confirmed, which another volume's confirmation closes.
template <typename TDriver>
bool PartRecCanBeTruncated(TDriver& driver, const TDriveInfo& drive) {
  if constexpr (requires { driver.PartRecCanBeTruncated(drive); }) {
    return driver.PartRecCanBeTruncated(drive);
  } else {
    static_assert(!requires { &TDriver::PartRecCanBeTruncated; });
    return false;
  }
}

/// True when a sub-drive holds files that wait for a number before they enter the file table.
template <typename TDriver>
bool HasWaitingFiles(TDriver& driver, const TDriveInfo& drive) {
  if constexpr (requires { driver.HasWaitingFiles(drive); }) {
    return driver.HasWaitingFiles(drive);
  } else {
    static_assert(!requires { &TDriver::HasWaitingFiles; });
    return false;
  }
}

/// Takes a found superblock at its word: gives it a sub-drive and analyses that as a whole. The sub-drive's
/// number; -1 when there are too many. Without it: a new sub-drive and `PartRecDriveAdded`.
template <typename TDriver, typename TRegistry>
int PartRecConfirm(TDriver& driver, TRegistry& drives, int parentDrive, int found) {
  if constexpr (requires { driver.PartRecConfirm(parentDrive, found); }) {
    return driver.PartRecConfirm(parentDrive, found);
  } else {
    static_assert(!requires { &TDriver::PartRecConfirm; });
    const TFileSystem system = drives.PartRecInfo.FoundDrives[static_cast<std::size_t>(found)].FileSystem;
    const int sub = drives.PartRecAddSubdrive(parentDrive, system);
    if (sub < 0) return -1;
    drives.PartRecApplyFoundDriveInfoToDrive(sub, found);
    PartRecDriveAdded(driver, sub);
    return sub;
  }
}

/// The pass is over, perhaps stopped (`Analysing`), and empty sub-drives are still there: finishes volumes and
/// places what was met without one. A driver that must make drives of what is left does it here.
template <typename TDriver>
void PartRecFinishVolumes(TDriver& driver, int parentDrive) {
  if constexpr (requires { driver.PartRecFinishVolumes(parentDrive); }) {
    driver.PartRecFinishVolumes(parentDrive);
  } else {
    static_assert(!requires { &TDriver::PartRecFinishVolumes; });
  }
}

/// Whether a sub-drive is kept at the end though nothing has confirmed it. Without it: when it is not empty.
template <typename TDriver, typename TRegistry>
bool PartRecIsWorthKeeping(TDriver& driver, TRegistry& drives, int driveNumber) {
  if constexpr (requires { driver.PartRecIsWorthKeeping(driveNumber); }) {
    return driver.PartRecIsWorthKeeping(driveNumber);
  } else {
    static_assert(!requires { &TDriver::PartRecIsWorthKeeping; });
    return !drives.IsEmpty(driveNumber);
  }
}

/// At the end, when the empty sub-drives are gone. Without it: nothing to do.
template <typename TDriver>
void PartRecDoAfterAnalyse(TDriver& driver, int parentDrive) {
  if constexpr (requires { driver.PartRecDoAfterAnalyse(parentDrive); }) {
    driver.PartRecDoAfterAnalyse(parentDrive);
  } else {
    static_assert(!requires { &TDriver::PartRecDoAfterAnalyse; });
  }
}

// ---- files: see `analysis/file_data.h`, which calls them ------------------------------------
// GetFileFragments(file, result) instead of the fragments of the main stream, FillADS(file, result),
// ChangeFileFirstCluster(fileInfo) with IsPlaceOpen(drive, fileInfo), IsOverwritten(file), PlaceOf(file).
// `analysis/disputed_files` compares deleted files by UsedClusters(drive) and ClaimedClusters(drive, file, claim)
// where the driver says how it knows them: ClaimsAreExact (all clusters of a deleted file, else only the first one
// is certain) and ClaimsNeedReads (then live files are asked only where the volume has no map of its own).

}  // namespace driver
}  // namespace brenlow
