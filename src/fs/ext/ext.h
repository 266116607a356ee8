// SPDX-License-Identifier: GPL-3.0-or-later
// Ext2, Ext3 and Ext4: recognition by the superblock or a copy of it, the tree with unlinked names, folders
// that nothing leads to, and the journal as a source of old names and inodes.
//
// Format facts: Linux kernel documentation, "ext4 Data Structures and Algorithms".
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "core/drive_records.h"
#include "core/driver_calls.h"
#include "core/extents.h"
#include "core/file_records.h"
#include "core/types.h"
#include "fs/ext/ext_directory.h"
#include "fs/ext/ext_info.h"
#include "fs/ext/ext_inode.h"
#include "fs/lost_folders.h"

namespace brenlow {

class TEngine;

class TExtX {
 public:
  static constexpr TPartRecSystem Family = TPartRecSystem::Ext;
  explicit TExtX(TEngine& engine) : FEngine(engine) {}

  TLostFolderSearch LostFolderSearch = TLostFolderSearch::WhenNeeded;

  // ---- recognition ----
  bool IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const;
  TFileSystem GetFileSystem(std::span<const std::uint8_t> buffer, std::size_t start) const;
  /// True when enough of the record is filled to read the volume.
  bool IsSystemFilled(const TDriveInfo& drive) const;
  /// Reads the superblock, or the first sound copy of it; `fillTable` asks for the group table too.
  bool GetDriveInfo(TDriveInfo& drive, bool fillTable, bool additionalCheck = true);
  /// The same from a block in memory.
  bool GetDriveInfo(TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t start, bool additionalCheck);
  /// Sector, from the volume's start, at which a superblock with these bytes lies; `copy` tells whether it
  /// is that of a later group.
  std::int64_t GetFirstSectorFromSuperblock(const TDriveInfo& drive, std::span<const std::uint8_t> buffer,
                                            std::size_t start, bool& copy) const;
  /// Takes start and length from a superblock met at the volume's `FirstSector`. False when it leads nowhere.
  bool SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> superblock);
  /// True when the group table and the root folder are where the superblock says.
  bool IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> superblock);
  /// Looks for copies of a lost superblock where the usual sizes put them.
  TCopyFound RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int bytesPerSector);
  /// True when the root folder, or at least the group table, of a filled volume is still there.
  bool HoldsFolders(const TDriveInfo& volume);
  /// True for a find that is a copy of the superblock of a known volume.
  bool IsCopyOf(const TDriveInfo& volume, const TDriveInfo& known);
  /// Bytes of a block, or of a cluster where blocks are handed out by clusters.
  std::int64_t AllocationUnit(const TDriveInfo& drive) const;
  /// The group table. `dataBitmap` asks for the ranges in which lost folders are looked for.
  void FillGroups(TDriveInfo& drive, bool dataBitmap, TExtXGroups& groups);
  /// The block of the group descriptor table.
  std::int64_t GetMainGroupDescriptorsLocation(const TDriveInfo& drive) const;

  // ---- listing ----
  void AnalyseSystem(int driveNumber);
  void GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten);

  // ---- data ----
  /// Where the bytes of a file lie. False when its inode cannot be had.
  bool MapStream(TDriveInfo& drive, TFile& file, int stream, TFileStream& result);
  std::int64_t GetSizeOnDisk(const TFile& file);
  /// True for a deleted file whose first block, or whose inode, belongs to something else by now.
  bool IsOverwritten(const TFile& file);
  TPlaceSource PlaceOf(const TFile& file);

  // ---- partition search ----
  void PartRecDoBeforeAnalyse(int parentDrive);
  void PartRecClear();
  /// Keeps the folders that begin in the sectors.
  void PartRecAnalyseSectors(std::span<const std::uint8_t> buffer, int parentDrive, std::int64_t firstSector);
  /// A volume whose own superblock is gone is taken at the word of the copy just met.
  void PartRecAnalyseForNewDrive(int parentDrive, std::int64_t sector);
  bool PartRecIsAnalysed(const TDriveInfo& drive) const;
  void PartRecDriveAdded(int driveNumber);
  void PartRecFinishVolumes(int parentDrive);

  void ClearMemory() { FLast = TLastDataBlocks(); }

 private:
  /// The superblock in force is not the first one.
  static bool IsKnownByCopy(const TDriveInfo& drive);
  struct TLastDataBlocks {
    const TDriveInfo* DriveInfo = nullptr;
    std::int64_t Inode = 0;
    std::int64_t Journal = 0;
    ext::TInode File;
    bool Found = false;
  };

  /// A folder block that a partition search has met.
  struct TPartRecDirectoryEntry {
    std::int64_t SectorNumber = 0;  // from the start of the drive that is searched
    ext::TDirectoryEntries DirectoryEntries;
  };

  void Analyse(int driveNumber);
  void AddNamesOnly(int driveNumber, const TPartRecDirectoryEntry& folder);
  bool FindCopy(TDriveInfo& drive);
  bool TryCopy(TDriveInfo& drive, std::int64_t group, std::uint32_t blockSize);
  bool TryCopies(TDriveInfo& drive, std::uint32_t blockSize);
  bool HasSoundGroups(const TDriveInfo& drive);
  TByteDynArray ReadDescriptors(const TDriveInfo& drive, std::int64_t count);
  void ParseDescriptors(const TDriveInfo& drive, std::span<const std::uint8_t> table, bool inForce,
                        TExtXGroups& groups) const;
  void SetDataRanges(const TDriveInfo& drive, std::span<const std::uint8_t> table, TExtXGroups& groups) const;
  /// The inode of a file, on the disk or in the journal; null when there is none.
  const ext::TInode* InodeOf(const TDriveInfo& drive, const TFileInfo& file);
  bool HasInodeInUse(TDriveInfo& drive, const TFileInfo& file);

  TEngine& FEngine;
  std::vector<TPartRecDirectoryEntry> FPartRecDirectoryEntries;
  TLastDataBlocks FLast;
};

}  // namespace brenlow
