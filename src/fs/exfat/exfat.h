// SPDX-License-Identifier: GPL-3.0-or-later
// exFAT: recognition, allocation bitmap, directories with deleted entry sets, folders that nothing leads to,
// file data. Deleted objects are objects of the tree like others.
//
// Format facts: Microsoft, "exFAT file system specification".
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "core/drive_records.h"
#include "core/driver_calls.h"
#include "core/extents.h"
#include "core/file_records.h"
#include "core/types.h"
#include "fs/exfat/exfat_info.h"
#include "fs/exfat/exfat_table.h"
#include "fs/exfat/exfat_traces.h"
#include "fs/lost_folders.h"

namespace brenlow {

class TEngine;
namespace exfat {
class TFolderWalk;
}  // namespace exfat

class TexFAT {
 public:
  static constexpr TPartRecSystem Family = TPartRecSystem::exFAT;
  explicit TexFAT(TEngine& engine) : FEngine(engine), FTables(engine) {}

  TLostFolderSearch LostFolderSearch = TLostFolderSearch::WhenNeeded;

  // ---- recognition ----
  bool IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const;
  /// Looks for the copy of the boot region in `head`, which begins at the volume's first sector.
  TCopyFound RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int bytesPerSector);
  /// True for a boot sector twelve sectors after that of the known volume.
  bool IsCopyOf(const TDriveInfo& volume, const TDriveInfo& known) const;
  /// Takes the length from a boot sector; the copy leads back to the volume's start.
  bool SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> boot);
  /// True when the allocation table or the root folder begins where the boot sector says.
  bool IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> boot);
  /// True when the root folder begins with the entries of an exFAT root.
  bool HoldsFolders(const TDriveInfo& volume);
  std::int64_t AllocationUnit(const TDriveInfo& drive) const;
  /// Reads the boot sector or its copy and fills `exFATInfo`; `fillTable` asks for the allocation bitmap too.
  bool GetDriveInfo(TDriveInfo& drive, bool fillTable);
  bool IsClusterBad(const TDriveInfo& drive, std::uint32_t entry) const;
  bool IsClusterEOF(const TDriveInfo& drive, std::uint32_t entry) const;

  // ---- listing ----
  void AnalyseSystem(int driveNumber);
  void GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten);

  // ---- data ----
  /// Where the bytes of a file lie. False for a file without a place.
  bool MapStream(TDriveInfo& drive, TFile& file, int stream, TFileStream& result);
  std::int64_t GetSizeOnDisk(const TFile& file) const;
  /// True for a deleted file of whose clusters something else has one by now.
  bool IsOverwritten(const TFile& file) const;
  /// How it is known where the content lies: an estimate where the chain of a deleted file is gone, where other
  /// deleted files may have written over it, or where slots of its entry are missing or do not fit.
  TPlaceSource PlaceOf(const TFile& file) const;
  /// The volume's table of upper case letters, 65,536 units; empty when it cannot be read.
  TStringView UpCase(TDriveInfo& drive);
  /// Drops the parts of tables that are kept.
  void ClearMemory() { FTables.Forget(); }

  // ---- partition search: see fs/driver.h ----
  void PartRecDoBeforeAnalyse(int parentDrive);
  void PartRecClear();
  TFileSystem PartRecCandidate(const TDriveInfo& parentDrive) const;
  bool PartRecIsAnalysed(const TDriveInfo& drive) const;
  void PartRecNoteSector(std::span<const std::uint8_t> bytes, int parentDrive, std::int64_t sector);
  void PartRecAnalyseSector(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                            std::int64_t sectorNumber);
  void PartRecAnalyseForNewDrive(std::span<const std::uint8_t> buffer, std::size_t start, int parentDrive,
                                 std::int64_t sectorNumber);
  int PartRecConfirm(int parentDrive, int found);
  void PartRecDriveAdded(int driveNumber);
  void PartRecFinishVolumes(int parentDrive);

 private:
  std::int64_t FindBootSector(const TDriveInfo& drive, TByteDynArray& boot);
  bool TakeGeometry(TDriveInfo& drive, std::span<const std::uint8_t> boot);
  bool HasSoundChecksum(const TDriveInfo& drive, std::int64_t sector, int sectorSize);
  void ReadRootEntries(TDriveInfo& drive, bool fillTable);
  void ReadUsage(TDriveInfo& drive, std::span<const std::uint8_t> entry);
  void ReadUsageRun(const TDriveInfo& drive, std::int64_t sector, std::int64_t bytes, std::int64_t first,
                    exfat::TUsage& usage);
  void ReadFreeSize(TDriveInfo& drive, std::uint8_t percentInUse);
  static void PlaceRoot(TDriveInfo& drive, std::uint32_t cluster);
  bool IsTableStart(const TDriveInfo& volume, std::span<const std::uint8_t> boot, std::int64_t start);
  bool IsRootStart(const TDriveInfo& volume, std::span<const std::uint8_t> boot, std::int64_t start);

  /// Where a deleted file lies, and what speaks for it.
  struct TDeletedPlace {
    std::vector<exfat::TRun> Runs;
    bool IsSure = false;  ///< contiguous by its entry, or a chain of the right length with an end mark
    bool IsTaken = false;
  };
  TDeletedPlace LocateDeleted(const TDriveInfo& drive, const TFileInfo& file);
  class TSettling;
  bool FollowDeletedChain(const TDriveInfo& drive, const TFileInfo& file, int table, std::vector<exfat::TRun>& runs);
  /// After an analysis: which deleted files of the drive others have written over, or may have.
  /// `folders` are clusters that were read as folders.
  void SettleDeleted(int driveNumber, const TClusterSet& folders);
  void MapChain(const TDriveInfo& drive, std::int64_t first, std::int64_t count,
                const std::function<void(const exfat::TRun&, bool estimated)>& add);

  exfat::TFolderWalk WholeWalk(int driveNumber);
  void AnalyseVolume(int driveNumber, bool byTraces);
  void FinishVolume(int driveNumber, bool lostFolders);
  bool IsExplained(int parentDrive, std::int64_t sector) const;
  bool IsInVolume(int parentDrive, std::int64_t sector) const;
  TDriveInfo VolumeOf(int parentDrive, const exfat::TGeometry& geometry) const;
  void AddTracedVolumes(int parentDrive);
  void LearnByPairs(int parentDrive);
  void LearnClusterSize(TDriveInfo& drive, std::span<const std::uint8_t> folder, std::int64_t sector);
  void WalkWaitingSectors(int driveNumber, const TInt64DynArray& sectors);

  TEngine& FEngine;
  exfat::TTableReader FTables;
  exfat::TTraces FTraces;
};

}  // namespace brenlow
