// SPDX-License-Identifier: GPL-3.0-or-later
// NTFS: recognition, the table of file records with its deleted ones, names and hard links, records
// that exist only in the log, file data and streams.
//
// Format facts: linux-ntfs project documentation; B. Carrier, "File System Forensic Analysis", ch. 13.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "core/cluster_use.h"
#include "core/drive_records.h"
#include "core/driver_calls.h"
#include "core/file_records.h"
#include "core/types.h"
#include "fs/ntfs/ntfs_info.h"
#include "fs/ntfs/ntfs_record.h"
#include "fs/ntfs/ntfs_references.h"

namespace brenlow {

class TEngine;
struct TFileStream;
namespace ntfs {
struct TGeometry;
class TLostVolumes;
class TSearchTraces;
struct TNTFSLogImage;

/// Bytes of a cluster, 0 while that is not known.
inline std::int64_t ClusterBytes(const TDriveInfo& drive) {
  return std::int64_t{NTFSInfo(drive).SectorsPerCluster} * drive.BytesPerSector;
}
/// Whole clusters that the volume says it has.
inline std::int64_t VolumeClusters(const TDriveInfo& drive) {
  return NTFSInfo(drive).SectorsPerCluster > 0 ? drive.SectorsCount / NTFSInfo(drive).SectorsPerCluster : 0;
}
/// First byte of a cluster, from the volume's start; -1 for a number that no volume can have.
inline std::int64_t PlaceOfCluster(std::int64_t cluster, std::int64_t clusterBytes) {
  return cluster < 0 || clusterBytes < 1 || cluster > INT64_MAX / 2 / clusterBytes ? -1 : cluster * clusterBytes;
}
/// The end of what may be read of a volume, in bytes: its stated end, and the sector after it with the copy of the
/// boot sector.
inline std::int64_t VolumeEnd(const TDriveInfo& drive) { return (drive.SectorsCount + 1) * drive.BytesPerSector; }
}  // namespace ntfs

class TNTFS {
 public:
  static constexpr TPartRecSystem Family = TPartRecSystem::NTFS;

  explicit TNTFS(TEngine& engine);
  ~TNTFS();

  /// Asked before a file without a known record number is kept; unset means yes.
  std::function<bool(const TFileInfo&)> OnCanFileBeAddedToUFCF;

  // ---- recognition ----
  bool IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const;
  /// By the copy of a boot sector of just this drive in its last sector.
  TCopyFound RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int bytesPerSector);
  bool IsMFT(std::span<const std::uint8_t> buffer, std::size_t start) const { return ntfs::IsMFT(buffer, start); }
  /// Takes the length from a boot sector; where the table of records does not lie as it says, it may
  /// be the copy behind the volume's end, which leads back to the start.
  bool SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> boot);
  /// True when a record begins where the boot sector sees the table or its mirror.
  bool IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> boot);
  /// True when the table of records is still there.
  static bool HoldsFolders(const TDriveInfo& volume) { return NTFSInfo(volume).MFTRecordCount > 0; }
  static std::int64_t AllocationUnit(const TDriveInfo& drive) { return ntfs::ClusterBytes(drive); }
  static std::vector<TDriveProperty> Properties(const TDriveInfo& drive);
  /// Fills the volume fields from the boot sector or one of its copies. `forSubDrive` leaves the
  /// table of records alone.
  bool GetDriveInfo(TDriveInfo& drive, bool /*fillTable: it always is*/) { return GetDriveInfo(drive, true, false); }
  bool GetDriveInfo(TDriveInfo& drive, bool getFreeSize, bool forSubDrive);
  int GetSectorsPerCluster(const TDriveInfo& drive) const;

  // ---- listing ----
  void AnalyseSystem(int driveNumber);
  void DoBeforeAnalyse(TDriveInfo& drive);
  void DoAfterAnalyse(TDriveInfo& drive);
  void GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten);
  /// Enters one record in the file table. True when a file was taken from it.
  /// `mftNumber` is negative for a record met by a search: then `sectorNumber` and `offsetInSector`
  /// say where on the drive it lies.
  bool AnalyseRecord(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber, std::int64_t mftNumber,
                     std::int64_t sectorNumber, int offsetInSector, bool canCheckNewDrive);
  bool IsMFTDeleted(const TDriveInfo& drive, std::int64_t mftNumber, bool otherwise) const;
  static bool IsSystemFile(TStringView name) { return SystemFileNumber(name) >= 0; }
  /// The place of a record, also beyond what of the table is known. False when there is none.
  bool GetSectorByMFTNumber(const TDriveInfo& drive, std::int64_t number, TMFTRecord& place, bool canBeNull) const;

  // ---- data ----
  /// Where the bytes of a stream lie: -1 is the default one, others count as in `FillADS`. False when there is none.
  bool MapStream(const TDriveInfo& drive, const TFile& file, int adsNumber, TFileStream& result);
  /// Also for records that no row stands for.
  void GetFileData(const TDriveInfo& drive, TByteDynArray& result, const TFile& file, int adsNumber, std::int64_t start,
                   std::int64_t size, int incDataSector);
  void FillADS(const TFile& file, TADSDynArray& result);
  void GetFileFragments(TFile& file, TFileFragments& result) {
    bool resident = false;
    GetFileFragments(file, result, resident, -1);
  }
  /// Here `adsNumber` counts all attributes of the walk from 0 on; -1 takes every stream. `resident`
  /// tells whether the last one taken lies in its record.
  void GetFileFragments(const TFile& file, TFileFragments& result, bool& resident, int adsNumber);
  std::int64_t GetSizeOnDisk(const TFile& file);
  /// A record tells all clusters of its file as they were.
  static constexpr bool ClaimsAreExact = true;
  static constexpr bool ClaimsNeedReads = true;
  /// The volume's own map, a bit for each cluster in use; empty when it cannot be read.
  TByteDynArray UsedClusters(TDriveInfo& drive);
  /// The clusters of a file or folder. False when it has none of its own, or its record is gone.
  bool ClaimedClusters(const TDriveInfo& drive, const TFile& file, TClaim& claim);
  /// How it is known where the content lies. What lies in the record itself needs no geometry.
  TPlaceSource PlaceOf(const TFile& file);
  // ---- partition search ----
  void PartRecDoBeforeAnalyse(int parentDrive);
  void PartRecClear();
  static TFileSystem PartRecCandidate(const TDriveInfo& /*parentDrive*/) { return TFileSystem::fsNTFS; }
  static void PartRecSubdriveAdded(TDriveInfo& drive) { NTFSInfo(drive).CanBeTruncated = true; }
  static bool PartRecCanBeTruncated(const TDriveInfo& drive) { return NTFSInfo(drive).CanBeTruncated; }
  /// The length of a gap is not that of the volume: a boot sector may say it.
  static void PartRecVolumeKnown(TDriveInfo& drive, bool isGap) {
    if (isGap) drive.SectorsCount = 0;
  }
  static bool HasWaitingFiles(const TDriveInfo& drive) { return !NTFSInfo(drive).UnknownFirstClusterFiles.empty(); }
  void PartRecNoteSector(std::span<const std::uint8_t> bytes, int parentDrive, std::int64_t sector);
  int PartRecConfirm(int parentDrive, int found);
  /// Records that went by before their volume was known, or whose volume has no boot sector.
  void PartRecFinishVolumes(int parentDrive);
  /// Of a candidate, the system's files alone (a mirror left behind) make no volume.
  bool PartRecIsWorthKeeping(int driveNumber) const;
  /// Enters the records that begin in a sector, at any of its 512-byte slices.
  void PartRecAnalyseSector(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                            std::int64_t sectorNumber, bool canCheckNewDrive);
  /// Whether a sector of the volume belongs to its table of records or the mirror of that, once the
  /// table was analysed as a whole.
  static bool IsInTable(const TDriveInfo& volume, std::int64_t sector);
  /// Analyses a volume whose boot sector was confirmed.
  void PartRecDriveAdded(int driveNumber);
  /// Gives a drive start, length and geometry of a volume without a boot sector, and a table: as its own
  /// record has it, else as the traces show it. `end` is the sector of the device before which it ends
  /// when nothing says how long it is.
  void PartRecPlaceVolume(TDriveInfo& drive, const ntfs::TGeometry& geometry, const ntfs::TSearchTraces& traces,
                          std::int64_t end);
  /// Gives a volume whose table is gone one out of the traces. False when there are none of it.
  bool PartRecTakeTable(TDriveInfo& drive, const ntfs::TSearchTraces& traces);
  /// Analyses such a volume as a whole.
  void PartRecAnalyseTable(int driveNumber);
  /// Enters the record at a sector of the volume, which a search has met before.
  void PartRecAnalyseAgain(int driveNumber, std::int64_t sector, int offsetInSector);
  /// Cluster size of a candidate by the first index block that `cluster` leads to, whatever folder it
  /// is of: where nothing better is known.
  void GetSectorsPerClusterByIndex(TDriveInfo& drive, std::int64_t cluster);
  /// Gives the files without a number one, and enters them.
  void PartRecDoAfterAnalyse(int parentDrive);
  void PartRecChangeVolumeName(TDriveInfo& drive);

  /// Drops the caches; needed when the drive list changes.
  void ClearMemory();

 private:
  /// A name of a record: one for each folder that it lies in.
  struct TName {
    ntfs::TReference Parent;
    int Priority = 0;
    TString Text;
  };
  /// What a record and its extension records tell of a file.
  struct TParsed {
    TFileInfo Info;
    std::vector<TName> Names;
    ntfs::TRecordUse Use;
    bool HaveMainRecord = false;  ///< an extension record itself
    bool HaveData = false;        ///< the start of the default stream
    /// Clusters that the default stream has at least, as the attribute list tells; 0 for no word of it.
    std::int64_t ListedClusters = 0;
    TString VolumeName;
  };
  struct TStream;

  // Volume.
  bool IsBackupAtEnd(const TDriveInfo& drive);
  bool ReadBootSector(TDriveInfo& drive, std::int64_t sector, bool getFreeSize, bool forSubDrive);
  /// Clusters of the volume that its device really has.
  std::int64_t BackedClusters(const TDriveInfo& drive) const;
  void FillMFTStructure(TDriveInfo& drive);
  bool FillMFTStructureFrom(TDriveInfo& drive, std::int64_t firstSector);
  void AddMFTRuns(TDriveInfo& drive, const ntfs::TAttribute& data);
  void AddMFTUsage(TDriveInfo& drive, const ntfs::TAttribute& bitmap);
  void ReadVolumeName(TDriveInfo& drive);
  void ComputeFreeSize(TDriveInfo& drive);
  bool HasRecordOfRun(const TDriveInfo& volume, std::int64_t firstSector, std::int64_t records);
  // Records.
  bool ReadRecord(const TDriveInfo& drive, const TMFTRecord& place, TByteDynArray& record);
  bool ReadRecordOf(const TDriveInfo& drive, const TFile& file, TByteDynArray& record, TMFTRecord& place);
  TByteDynArray ReadAttributeList(const TDriveInfo& drive, const ntfs::TAttribute& attribute);
  TByteDynArray ReadRuns(const TDriveInfo& drive, const ntfs::TRuns& runs, std::int64_t size,
                         std::vector<TByteRange>* unknown = nullptr);
  bool AnalyseMFTRecord(TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t start,
                        bool canCheckForAnalysing, TParsed& parsed, std::int64_t mftNumber, std::int64_t sectorNumber,
                        int offsetInSector, bool rootDirFastScan);
  bool ParseAttributes(TDriveInfo& drive, std::span<const std::uint8_t> record, TParsed& parsed,
                       TInt64DynArray& records, std::int64_t mftNumber, bool rootDirFastScan,
                       bool canCheckForAnalysing);
  bool AddName(std::span<const std::uint8_t> value, TParsed& parsed, bool rootDirFastScan);
  void ApplyDataAttribute(const TDriveInfo& drive, const ntfs::TAttribute& data, TFileInfo& info,
                          std::int64_t mftNumber);
  void DeriveMFTNumberFromIndex(const TDriveInfo& drive, std::span<const std::uint8_t> record, std::size_t header,
                                std::size_t end, TFileInfo& info);
  void AnalyseMFTRecords(int driveNumber, bool showProgress);
  void AnalyseRecordsBehindTable(int driveNumber);
  void AnalyseLogFile(int driveNumber);
  void AddLogFiles(int driveNumber, std::vector<ntfs::TNTFSLogImage>& images);
  template <typename TCallable>
  void ForEachRecord(TDriveInfo& drive, TCallable&& callable);
  /// Number of the record of a system file, -1 for other names.
  static int SystemFileNumber(TStringView name);
  static std::int64_t MoveToSystemDataFolder(TStringView name, std::int64_t parent);
  void AddRow(TDriveInfo& drive, int driveNumber, const TFileInfo& info, const ntfs::TReference& parent,
              bool canIncFoundCount);
  static std::int64_t ParentKey(const TDriveInfo& drive, const ntfs::TReference& parent);
  void NameNameless(TDriveInfo& drive, TParsed& parsed, std::int64_t mftNumber, std::int64_t sectorNumber);
  // Folders that are gone.
  void NoteFolderName(const ntfs::TReference& folder, const TFileInfo& info, TDriveInfo& drive) const;
  void FindLostFolderNames(TDriveInfo& drive);
  void SettleParents(TDriveInfo& drive);
  void KeepFoldersOfLiveFiles(TDriveInfo& drive);
  void AddLostFolders(TDriveInfo& drive);
  // Partition search.
  /// What the test for a new volume came to.
  enum class TNewDrive {
    None,
    Analysed,  ///< a volume was confirmed and analysed, but the record is still the current drive's
    Taken,     ///< the record was entered under the volume's own geometry
  };
  TNewDrive CheckNewDrive(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                          std::int64_t sectorNumber, int offsetInSector, TStringView name);
  /// True for a number that the known part of the table holds.
  static bool IsNumberInTable(const TDriveInfo& drive, std::int64_t number);
  static void FillTableSectors(TDriveInfo& drive);
  void AddAnchor(TDriveInfo& drive, std::int64_t number, std::int64_t sectorNumber);
  void EstimateMFTNumber(TDriveInfo& drive, TFileInfo& info, std::int64_t parent, std::int64_t sectorNumber,
                         std::int64_t ownNumber);
  void AddToUFCF(TDriveInfo& drive, const TFileInfo& info, const TName& name, const ntfs::TRecordUse& use);
  void ResolveUFCF(int driveNumber, double& done, double total);
  void DropEstimatedFolderDuplicates(TDriveInfo& drive);
  void AddSystemDataFolder(TDriveInfo& drive, int driveNumber);
  TFileInfo SystemDataFolder(int driveNumber, TString& name) const;
  // Data.
  TStream GatherStream(const TDriveInfo& drive, const TFile& file, int adsNumber);
  static ntfs::TRuns JoinPieces(TStream& stream, std::int64_t volumeClusters);
  template <typename TCallable>
  TFileStream LayoutOf(const TDriveInfo& drive, const TFile& file, int attributeNumber, TCallable&& inRecord);
  template <typename TCallable>
  void ForEachAttribute(const TDriveInfo& drive, const TFile& file, TCallable&& callable);

  TEngine& FEngine;
  TByteDynArray FRecord;     // the record being parsed
  TByteDynArray FExtension;  // one of its extension records
  TInt64DynArray FRecords;   // numbers of the records of the file being parsed
  TParsed FParsed;
  /// Where indexes of folders lie, in an analysis; their free room may name folders that are gone.
  ntfs::TRuns FIndexes;
  std::int64_t FLastSector = 0;                      // of the last record whose number was known, in a partition search
  bool LastNTFSFileIsSystem = false;                 // the record before was of a system file, in one too
  std::int64_t FLastSystemSector = -1;               // of the device, of the last record of a system file, in one too
  std::unique_ptr<ntfs::TLostVolumes> FLostVolumes;  // during a partition search
};

}  // namespace brenlow
