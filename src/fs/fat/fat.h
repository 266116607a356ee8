// SPDX-License-Identifier: GPL-3.0-or-later
// FAT12, FAT16 and FAT32: recognition, allocation table, directories with deleted entries, file
// data. Deleted objects are objects of the tree like others; the data of a deleted file is followed
// through free clusters.
//
// Format facts: Microsoft, "FAT: General Overview of On-Disk Format" 1.03; ECMA-107.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "core/cluster_use.h"
#include "core/drive_records.h"
#include "core/driver_calls.h"
#include "core/file_records.h"
#include "core/types.h"
#include "fs/fat/fat_entry.h"
#include "fs/fat/fat_info.h"
#include "fs/fat/fat_table_search.h"
#include "fs/lost_folders.h"

namespace brenlow {

class TEngine;
struct TFileStream;

class TFAT {
 public:
  static constexpr TPartRecSystem Family = TPartRecSystem::FAT;

  explicit TFAT(TEngine& engine) : FEngine(engine) {}

  TLostFolderSearch LostFolderSearch = TLostFolderSearch::WhenNeeded;
  /// Code page of 8.3 names, 437 at the start. False when the system does not have it.
  bool SetOemCodePage(int codePage);

  // ---- recognition ----
  bool IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const;
  TFileSystem GetFileSystem(std::span<const std::uint8_t> buffer, std::size_t start) const;
  /// FAT32 by the copy of its boot sector, six sectors after the first.
  TCopyFound RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int bytesPerSector);
  /// Takes the length from a boot sector; one that is FAT32's copy leads back to the volume's start.
  bool SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> boot);
  /// True when one of the allocation tables begins as the boot sector says.
  bool IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> boot);
  /// True when the root folder begins with entries as they must be, at least one, and nothing else.
  bool HoldsFolders(const TDriveInfo& volume);
  /// What looks like a boot sector so close to a known volume, on either side, is a copy.
  static bool IsCopyOf(const TDriveInfo& volume, const TDriveInfo& known);
  static std::int64_t AllocationUnit(const TDriveInfo& drive) {
    return std::int64_t{FATInfo(drive).SectorsPerCluster} * drive.BytesPerSector;
  }
  /// Reads the boot sector or its copy and fills `FATInfo`; `fillTable` asks for the table too.
  bool GetDriveInfo(TDriveInfo& drive, bool fillTable);
  /// Loads table number `fatNumber` (from 0); sectors that cannot be read come from the table after it.
  /// Entries that neither gives stay 0 and are named in `unknown`.
  void FillTable(const TDriveInfo& drive, TLongWordDynArray& table, int fatNumber,
                 std::vector<fat::TClusterRange>* unknown = nullptr);
  bool IsClusterBad(const TDriveInfo& drive, std::uint32_t entry) const;
  bool IsClusterEOF(const TDriveInfo& drive, std::uint32_t entry) const;

  // ---- listing ----
  void AnalyseSystem(int driveNumber);
  void GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten);

  // ---- data ----
  /// Where the bytes of a file lie. A deleted file is followed through free clusters, passing over those in use.
  /// False for an empty file.
  bool MapStream(TDriveInfo& drive, TFile& file, int stream, TFileStream& result);
  std::int64_t GetSizeOnDisk(const TFile& file) const;
  /// `sizeInBytes` raw bytes from the start of a cluster on; zeros for what cannot be read.
  TByteDynArray GetClusterData(const TDriveInfo& drive, std::uint32_t cluster, std::int64_t sizeInBytes);
  /// The next cluster of the chain, or, where the chain is gone, the next free cluster.
  std::uint32_t GetNextRecoveryCluster(const TDriveInfo& drive, std::uint32_t cluster);
  /// Deleting on FAT32 may wipe the high half of the first cluster: looks for it, once a file.
  void ChangeFileFirstCluster(TFileInfo& file);
  /// True for a deleted file that was not looked for yet, and may lie elsewhere than its entry says.
  bool IsPlaceOpen(const TDriveInfo& drive, const TFileInfo& file) const;
  /// True for a deleted file whose first cluster belongs to something else by now.
  bool IsOverwritten(const TFile& file) const;
  /// Where a deleted file lies beyond its first cluster is an assumption; but entries tell all of it.
  static constexpr bool ClaimsAreExact = false;
  static constexpr bool ClaimsNeedReads = false;
  /// A bit for each cluster in use; empty without a table.
  TByteDynArray UsedClusters(const TDriveInfo& drive) const;
  /// The clusters of a file or folder from its first one on. False where that is not known.
  bool ClaimedClusters(const TDriveInfo& drive, const TFile& file, TClaim& claim) const;
  /// How it is known where the content lies: an estimate where the entries of an unreadable table or
  /// the high half of a number had to be guessed.
  TPlaceSource PlaceOf(const TFile& file) const;

  /// More entries than that a search does not take from folders of which no boot sector and no table tells: on a
  /// disk that is nothing but folders they would fill the memory (some 300 bytes each). The user is told.
  std::int64_t MaxUnplacedRows = 4'000'000;

  // ---- partition search ----
  void PartRecDoBeforeAnalyse(int /*parentDrive*/) {
    FTables.Clear();
    FUnplacedRows = 0;
  }
  void PartRecClear() { FTables.Clear(); }
  /// The width that is likely on a drive of the size.
  TFileSystem PartRecCandidate(const TDriveInfo& parentDrive) const;
  static bool PartRecAccepts(const TDriveInfo& volume, std::span<const std::uint8_t> boot);
  static bool PartRecIsAnalysed(const TDriveInfo& drive) { return FATInfo(drive).Walk != nullptr; }
  void PartRecAnalyseSector(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                            std::int64_t sectorNumber);
  void PartRecAnalyseForNewDrive(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                                 std::int64_t sectorNumber);
  /// Reads the geometry where a volume is known to begin, and the volume with it. Without a boot sector
  /// what the search meets there fills it.
  void PartRecDriveAdded(int driveNumber);
  /// Analyses a volume whose geometry is known from its root. What the search meets later adds folders
  /// that nothing leads to. `byTables`: it has no boot sector to read.
  void PartRecAnalyseVolume(int driveNumber, bool byTables = false);
  int PartRecConfirm(int parentDrive, int found);
  /// The pass is over: adds volumes without a boot sector of which too few folders were met to be sure, and
  /// looks for lost folders on all that were analysed as a whole.
  void PartRecFinishVolumes(int parentDrive);

 private:
  bool IsBackupBootSector(std::span<const std::uint8_t> head, int bytesPerSector) const;
  bool IsTableStart(const TDriveInfo& volume, std::span<const std::uint8_t> boot, std::int64_t sector);
  bool ReadBootSector(TDriveInfo& drive, std::int64_t sector, bool fillTable);
  bool HasFolderAt(const TDriveInfo& drive, int sectorsPerCluster);
  void CheckClusterSize(TDriveInfo& drive, std::int64_t statedSectors);
  void ReadVolumeName(TDriveInfo& drive, std::span<const std::uint8_t> boot);
  void ReadFreeSize(TDriveInfo& drive);
  bool IsBlank(const TDriveInfo& drive, std::int64_t cluster);
  bool MayLackHighHalf(const TDriveInfo& drive, const TFileInfo& file) const;
  bool IsStoredPlace(const TDriveInfo& drive, const TFileInfo& file) const;
  bool IsHighPartUsed(const TDriveInfo& drive);
  bool IsOnlyPlace(const TDriveInfo& drive, const TFileInfo& file);
  bool AddCandidates(TDriveInfo& drive, TFileInfo& file);
  bool AddCandidatesBySignature(TDriveInfo& drive, TFileInfo& file, TStringView extension);
  void AddCandidateBySpace(TDriveInfo& drive, TFileInfo& file);
  void LoadTable(TDriveInfo& drive);
  bool ReadRootLabel(TDriveInfo& drive);
  int AddTableVolumes(int driveNumber);
  void ConfirmVolumesOfTables(int parentDrive);
  void FinishVolume(int driveNumber, bool lostFolders);
  bool IsKnownTable(int driveNumber, const fat::TTablePair& pair) const;
  TDriveInfo VolumeOfTables(int driveNumber, const fat::TTablePair& pair, int sectorsPerCluster) const;
  void AddFoundTables(int driveNumber, const fat::TTablePair& pair, int sectorsPerCluster, TPlaceSource source);
  void VoteByRootFiles(int driveNumber, fat::TTablePair& pair);
  int LargestFittingCluster(int driveNumber, const fat::TTablePair& pair) const;
  void AnalyseSectorOfVolume(TDriveInfo& drive, int driveNumber, std::span<const std::uint8_t> bytes,
                             std::int64_t sectorNumber);
  void CountAgreeing(TDriveInfo& drive, int folders);
  void LearnClusterSize(TDriveInfo& drive, int driveNumber, std::span<const std::uint8_t> folder,
                        std::int64_t sectorNumber);

  TEngine& FEngine;
  fat::TOemTable FOem = fat::CodePage437();
  fat::TTableSearch FTables;
  std::int64_t FUnplacedRows = 0;
};

}  // namespace brenlow
