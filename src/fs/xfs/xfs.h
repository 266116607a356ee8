// SPDX-License-Identifier: GPL-3.0-or-later
// XFS, before and after the metadata checksum format: recognition by the superblock or a copy of it, the tree,
// deleted files from free inodes, freed chunks of inodes and the log, with names from unused room of
// directories, old directory blocks and the log.
//
// Format facts: "XFS Algorithms & Data Structures", Linux kernel documentation; libyal, "X File System (XFS)".
#pragma once

#include <cstdint>
#include <span>

#include "core/drive_records.h"
#include "core/driver_calls.h"
#include "core/extents.h"
#include "core/file_records.h"
#include "core/types.h"
#include "fs/lost_folders.h"
#include "fs/xfs/xfs_info.h"
#include "fs/xfs/xfs_inode.h"

namespace brenlow {

class TEngine;

class TXFS {
 public:
  explicit TXFS(TEngine& engine) : FEngine(engine) {}

  static constexpr TPartRecSystem Family = TPartRecSystem::XFS;
  /// Whether an analysis looks through free blocks for inodes and directories that nothing leads to.
  TLostFolderSearch LostFolderSearch = TLostFolderSearch::WhenNeeded;

  // ---- recognition ----
  bool IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const;
  /// True when enough of the record is filled to read the volume.
  bool IsSystemFilled(const TDriveInfo& drive) const;
  /// Reads the superblock, or where it is gone a copy of it.
  bool GetDriveInfo(TDriveInfo& drive, bool fillTable);
  /// The same from a superblock in memory.
  bool GetDriveInfo(TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t start);
  /// From a superblock met at `superBlockSector` of the parent drive's device, with `drive` filled from it: sets
  /// `FirstSector` and `SuperBlockSector`. False where no header of a group follows it.
  bool GetFirstSectorFromSuperBlock(const TDriveInfo& parent, TDriveInfo& drive, std::int64_t superBlockSector,
                                    bool& copy);
  bool SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> superblock);
  /// True when the root folder lies where the superblock says.
  bool IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> superblock);
  /// Looks for a copy of a lost superblock where headers of groups or the usual numbers of groups put it.
  TCopyFound RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int bytesPerSector);
  bool HoldsFolders(const TDriveInfo& volume) { return HasRoot(volume); }
  std::int64_t AllocationUnit(const TDriveInfo& drive) const { return XFSInfo(drive).BlockSize; }

  /// Sector of a block by its number, from the volume's start. False for one beyond the volume.
  bool BlockNumberToSectorNumber(const TDriveInfo& drive, std::int64_t block, std::int64_t& sector) const;
  struct TInodeSectors {
    std::int64_t Group = 0;
    std::int64_t RelativeInode = 0;
    std::int64_t Sector = 0;  ///< from the volume's start
    int Offset = 0;           ///< bytes in it
    int Count = 0;            ///< sectors that the inode takes from there on
  };
  bool InodeNumberToSectorNumber(const TDriveInfo& drive, std::int64_t inode, TInodeSectors& place) const;

  // ---- listing ----
  void AnalyseSystem(int driveNumber);
  void DoBeforeAnalyse(TDriveInfo& drive);
  void DoAfterAnalyse(TDriveInfo& drive);
  void GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten);

  // ---- data ----
  bool MapStream(TDriveInfo& drive, TFile& file, int stream, TFileStream& result);
  std::int64_t GetSizeOnDisk(const TFile& file);
  /// True for a deleted file some of whose blocks belong to something else by now.
  bool IsOverwritten(const TFile& file);
  /// An estimate for a deleted file whose size or extents nothing states, or whose blocks nothing says to be free.
  TPlaceSource PlaceOf(const TFile& file);

  // ---- partition search ----
  /// Gives the last volume found that ends after the sector a sub-drive, and analyses it.
  void PartRecAnalyseForNewDrive(int parentDrive, std::int64_t sector);
  /// Analyses a volume whose superblock was found, at once: it needs nothing that comes later in the search.
  void PartRecDriveAdded(int driveNumber);
  bool PartRecIsAnalysed(const TDriveInfo& drive) { return IsSystemFilled(drive) && HasRoot(drive); }

 private:
  bool ReadDevice(const TDriveInfo& drive, std::int64_t place, std::span<std::uint8_t> buffer);
  bool ReadSuperblock(TDriveInfo& drive, std::int64_t place);
  bool FindCopy(TDriveInfo& drive);
  bool TryCopy(TDriveInfo& drive, std::int64_t place);
  void FindRoot(TDriveInfo& drive);
  bool HasRoot(const TDriveInfo& drive);
  bool IsRoot(const TDriveInfo& drive, std::int64_t inode);
  TByteDynArray InodeOf(const TDriveInfo& drive, const TFileInfo& file);
  void Analyse(int driveNumber);

  TEngine& FEngine;
};

}  // namespace brenlow
