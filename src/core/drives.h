// SPDX-License-Identifier: GPL-3.0-or-later
// The registry of everything that reads as sectors: disks, volumes, images, found partitions.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "core/device/source_guard.h"
#include "core/device_table.h"
#include "core/drive_records.h"
#include "core/partitions.h"
#include "core/sector_reader.h"

namespace brenlow {

class TEngine;
struct TFile;
struct TImageResult;
class TImageWriter;

/// Working record of the partition search.
struct TPartRecInfo {
  int MainDrive = -1;
  TIntegerDynArray Volumes;
  std::vector<TDriveInfo> FoundDrives;  ///< boot sectors found and not yet confirmed
  /// Of each family that is searched and can be found without a boot sector: what an empty candidate is.
  std::vector<TFileSystem> Candidates;
};

/// Why a source cannot be opened.
struct TMountFailure {
  int SystemError = 0;                          ///< errno, 0 when it is not the system's refusal
  bool TooSmall = false;                        ///< less than one sector
  TImageProblem Problem = TImageProblem::None;  ///< of an image file
  std::string Detail = {};                      ///< of the problem, see `TOpenedDevice`
};
/// Why the device that was asked for last did not open.
TMountFailure LastFailure(const TDeviceTable& devices);

/// A drive number is an index into `List` and shifts when a lower drive is deleted. A wrong number
/// yields false, -1, 0 or empty everywhere; no operation throws.
class TDrives {
 public:
  explicit TDrives(TEngine& engine) : FEngine(engine) {}

  std::vector<TDriveInfo> List;
  int Current = -1;
  TPartRecInfo PartRecInfo;

  std::function<void(int)> OnAdded;
  std::function<void(int)> OnBeforeDeleted;
  std::function<void(int)> OnDeleted;

  // ---- building the list ----
  /// Lists the machine's volumes, then its disks.
  void Fill();
  /// Devices came or went: lists the new ones and takes those off that are gone, and closes those.
  /// What was analysed stays, and so do images. The rows of a device that returns are its own again,
  /// also under another name; where another device has its name meanwhile, they lead to none. Not
  /// while a scan runs.
  void DeviceInserted();
  /// Removes all drives and closes their devices.
  void Clear();
  int Add(const TDriveInfo& drive, bool canAddToTreeView);
  /// Removes a drive with its volumes, sub-drives and files.
  void Delete(int number);
  /// Adds an image file or a device: one row for the whole, followed by one for each partition.
  /// The result is the number of the whole, or -1.
  int Mount(TStringView fileName, bool canAddToTreeView, TMountFailure* failure = nullptr);
  /// A new entry inside another drive.
  int AddSubdrive(int driveNumber, int driveIcon);
  void DeleteSubdrives(int driveNumber);
  /// The sub-drives of a drive, each followed by its own.
  TIntegerDynArray AllSubDrives(int driveNumber) const;
  void UpdateSubDrivesCaptions(int driveNumber);
  /// Rebuilds all captions that hold words of the language.
  void UpdateLanguage();
  /// Copies everything but the place in the registry (`SubDrives`, `Volumes`, `IsSubDrive`).
  void CopyInfo(int source, int destination);
  /// Copies what the file system of a drive says of it.
  void CopySystemsInfo(int source, int destination);
  void CopySystemsInfo(const TDriveInfo& from, TDriveInfo& to);
  /// Remembers the live values as the detected ones.
  void SetDefaultInfo(TDriveInfo& drive);
  /// Drops the detected values and examines the source again.
  void ResetDefaultInfo(int number);

  // ---- questions ----
  bool IsWrongNumber(int number) const { return number < 0 || number >= static_cast<int>(List.size()); }
  bool IsPhysical(int number) const { return HasType(number, TDriveType::dtPhysical); }
  bool IsVolume(int number) const { return HasType(number, TDriveType::dtVolume); }
  bool IsRemovable(int number) const { return HasType(number, TDriveType::dtRemovable); }
  bool IsMounted(int number) const { return HasType(number, TDriveType::dtMounted); }
  static bool IsFloppy(const TDriveInfo& drive);
  /// True for anything but a floppy without a disk. With `canShowMessages` the user is asked
  /// (`TEngine::OnAskRetry`) and may put one in.
  bool IsDiskIn(int number, bool canShowMessages);
  bool IsVMware(int number) const { return HasType(number, TDriveType::dtVMWare); }
  /// True for a wrong number and for a drive without any entry in its parent index, and without files
  /// that wait for a number to be entered there.
  bool IsEmpty(int number) const;
  /// The same for one parent reference.
  bool IsEmpty(int number, std::int64_t parent) const;
  /// True for a volume whose file system is known and has a driver.
  bool CanBeAnalysed(int number) const;
  /// True for what was added to the list: mounted images, found and virtual volumes, RAIDs.
  bool CanCloseDisk(int number) const;
  /// Takes drives off the list.
  void CloseDisks(TIntegerDynArray numbers);
  static bool Same(const TDriveInfo& drive1, const TDriveInfo& drive2);

  // ---- facts ----
  /// The sector size to read with; never below 1.
  int GetBytesPerSector(const TDriveInfo& drive) const;
  int GetBytesPerSector(int number) const;
  /// Fills in what the volume states of itself. False when nothing could be read.
  bool GetInfo(TDriveInfo& drive, bool canGetFloppy, bool canGetIfAnalyzed, bool canFillClustersUsage);
  /// Size in bytes, asking the volume when it is not known.
  std::int64_t GetSize(TDriveInfo& drive, bool canGetFloppy);
  /// Looks for a file system at the start of the drive.
  TFileSystem GetSystem(const TDriveInfo& drive);
  static TStringView GetSystemNameBySystem(TFileSystem system);
  /// The role in the partition table, as "primary, boot"; empty when it has none.
  TString GetPartitionTypeCaption(const TDriveInfo& drive) const;
  TIntegerDynArray GetParentPhysicalDrives(const TDriveInfo& drive) const;
  PARTITION_STYLE GetPhysicalPartitionStyle(int number) const;
  static constexpr std::int64_t LargestDriveData = 1 << 30;  ///< bytes of one byte-addressed read
  /// Byte-addressed read: exactly `size` bytes with zeros for what cannot be read; empty when
  /// the start lies beyond the end, or for more than `LargestDriveData`.
  TByteDynArray GetDriveData(TDriveInfo& drive, std::int64_t start, std::int64_t size);
  TByteDynArray GetDriveData(int number, std::int64_t start, std::int64_t size);
  /// The common recogniser. `addSuperblockOffset`: the buffer begins at the volume's start.
  bool IsPartition(std::span<const std::uint8_t> buffer, std::size_t start, bool addSuperblockOffset,
                   TFileSystem& fileSystem, int bytesPerSector) const;

  // ---- images ----
  std::atomic<bool> CanSave{false};  ///< `Save` is running; clearing it stops it
  std::function<void(double)> OnProgressChanged;
  enum class TImageNaming : std::uint8_t {
    Dsk,      ///< the extension ".dsk" takes the place of the one given
    AsGiven,  ///< the file has just the name that was asked for
  };
  /// Copies sectors of a drive into an image file. `mapFile` (raw images only, may be empty) keeps
  /// what was read, see `TImageWriter`.
  TImageResult Save(int number, std::int64_t firstSector, std::int64_t sectorsCount, const std::string& fileName,
                    bool compressed, const std::string& mapFile = "", TImageNaming naming = TImageNaming::Dsk);
  /// Sectors that the running `Save` could not read up to now.
  std::int64_t UnreadableSectors() const;
  /// A new drive over a range of another one (sectors counted on its device); -1 for a wrong number.
  int CreateVirtual(int number, std::int64_t firstSector, std::int64_t sectorsCount);

  /// Knows what the sources of this run read from: everything that was opened by name or holds results. With
  /// a drive number, that drive is one, and files may be written to file systems on the others.
  TSourceGuard SourceGuard(int number = -1);

  // ---- parent index ----
  static void AddParentCluster(TDriveInfo& drive, std::int64_t number, std::uint32_t fileIndex, bool isFolder);
  static void DeleteParentCluster(TDriveInfo& drive, std::int64_t number, std::uint32_t fileIndex);
  static void ClearParentClusters(TDriveInfo& drive) { drive.ParentClusters.Clear(); }
  /// The files under a parent reference, in order of addition.
  TInt64DynArray GetParentClusters(int driveNumber, std::int64_t number) const;
  /// Only the folders among them, without touching the files.
  TInt64DynArray GetParentFolders(int driveNumber, std::int64_t number) const;
  /// Parent references with at least one file, ascending.
  static TInt64DynArray GetFoundPosParentClusters(const TDriveInfo& drive) { return drive.ParentClusters.Numbers(); }
  void MergeParentClusters(int source, int destination);
  /// Corrects all file numbers in all buckets of all drives after rows of the file table went.
  void MoveParentClusters(std::span<const std::uint32_t> newNumbers);

  // ---- quick search for lost partitions ----
  std::atomic<bool> CanSearch{false};  ///< `Find` is running; clearing it stops it
  int FoundCount = 0;                  ///< volumes that it added
  std::function<void(int)> OnFound;    ///< a volume, new or known, is there
  std::function<void(double)> OnFindProgressChanged;
  /// Looks for boot sectors and superblocks among the sectors of a drive, and adds a drive for each
  /// volume of more than 10,485,759 bytes. `systems`, when not empty, limits it to these.
  void Find(int number, std::int64_t firstSector, std::int64_t sectorsCount, const TFileSystems& systems);

  // ---- thorough search ----
  static constexpr std::int64_t LargestNoVolume = 0x9FFFFF;  ///< bytes; a volume is larger
  void PartRecClearInfo(int number);
  int PartRecAddSubdrive(int parentDrive, TFileSystem fileSystem);
  /// Whether the volume begins inside another one, known or found.
  bool PartRecIsCovered(int number, const TDriveInfo& volume) const;
  /// Whether the volume begins in a sub-drive that is a volume itself: an image in a file, say.
  bool PartRecIsTaken(int number, const TDriveInfo& volume) const;
  /// The sub-drive that takes a found boot sector's values: the first empty one of its family, or a new one;
  /// -1 when there is no such parent or found drive.
  int PartRecDriveForFound(int parentDrive, int foundDriveNumber);
  void PartRecApplyFoundDriveInfoToDrive(int driveNumber, int foundDriveNumber);
  /// Where the partition table says that a volume begins, it is tried as each format.
  void PartRecCheckForExistPartition(int number, std::int64_t sectorNumber);
  /// Notes a boot sector; `buffer` begins at the sector. True when it is a new one.
  bool PartRecCheckForNewPartition(int number, std::int64_t sectorNumber, std::span<const std::uint8_t> buffer);
  /// Closes sub-drives that end before the sector, or with `deleteTruncated` those that no boot sector has
  /// confirmed; of each family with candidates one stays open.
  void PartRecCheckSubDrivesForEnd(std::int64_t sectorNumber, bool deleteTruncated);
  /// A volume somewhere on a drive, with what does not depend on its place.
  TDriveInfo PartOf(const TDriveInfo& parent) const;

 private:
  void UpdateCaption(TDriveInfo& drive) const;
  bool HasType(int number, TDriveType type) const {
    return !IsWrongNumber(number) && List[static_cast<std::size_t>(number)].DriveTypes.Has(type);
  }
  void AddSystemDisks(const TPhysicalDrives& disks, bool all);
  void AddSystemVolumes(const TPhysicalDrives& disks, bool all);
  void CloseChanged();
  bool DeleteUnanalysed(const TString& device);
  void Rekey(const TString& from, const TString& to);
  bool TakeReturned(const TPhysicalDrive& disk);
  /// What the first sectors of a drive or volume say, else a copy of a lost boot sector.
  struct TRecognised {
    TFileSystem System = TFileSystem::fsUnknown;
    TPlaceSource Source = TPlaceSource::Stored;
    bool SoundCopy = false;
    /// Another system's copy beside it, whose own structures are still there: that of a volume before
    /// it was formatted again.
    TFileSystem Leftover = TFileSystem::fsUnknown;
  };
  TRecognised Recognise(const TDriveInfo& drive);
  TFileSystem Promised(PARTITION_STYLE style, const TVolume& volume) const;
  TIntegerDynArray AddVolume(TDriveInfo drive, TFileSystem promised);
  int AddLeftover(const TDriveInfo& bounds, TFileSystem system);
  TIntegerDynArray AddTableVolumes(const TPhysicalDrive& disk, const TDriveInfo& like);
  void AddUnallocatedSpaces(const TPhysicalDrive& disk, TVolumes& volumes) const;
  TIntegerDynArray AddTableVolume(const TPhysicalDrive& disk, const TVolume& volume, bool unallocated,
                                  const TDriveInfo& like);
  TIntegerDynArray AddWholeVolumes(std::vector<TDriveInfo> wholes);
  static TDriveInfo DriveOfDisk(const TPhysicalDrive& disk);
  void AddPhysicalDrive(const TPhysicalDrive& disk);
  bool WholeVolume(TDriveInfo& drive, TFileSystem system, TPlaceSource source, int statedSectorSize);
  std::vector<TDriveInfo> WholeVolumes(const TDriveInfo& drive, const TRecognised& found, int statedSectorSize,
                                       TPhysicalDrive& disk);
  int CountKnownSystems(const TDriveInfo& drive, const TVolumes& volumes);
  bool HasNative4KTable(const TDriveInfo& drive);
  std::vector<TDriveInfo> DetectWholeSource(TDriveInfo& drive, TPhysicalDrive& disk);

  struct TFindRange {
    int Drive;
    std::int64_t First;
    std::int64_t Count;
    TFileSystems Systems;
  };
  enum class TFoundState : std::uint8_t { New, Known, Refused };
  void FindInTable(const TFindRange& range);
  void FindInChain(const TFindRange& range);
  void FindInAllSectors(const TFindRange& range);
  int AddFoundPartition(const TFindRange& range, std::span<const std::uint8_t> buffer, std::int64_t sector,
                        bool addSuperblockOffset);
  TFoundState IsNewFoundPartition(const TDriveInfo& volume, std::span<const std::uint8_t> buffer,
                                  bool addSuperblockOffset, int& known);
  int PartRecEmptySubdrive(int parentDrive, TFileSystem fileSystem) const;
  void PartRecMoveCandidate(int number, TFileSystem system, std::int64_t firstSector, const TDriveInfo& known);
  bool PartRecIsWhole(int number, const TDriveInfo& sub) const;
  bool PartRecIsKnownStart(int number, std::int64_t firstSector, TFileSystem system) const;
  bool PartRecIsCopy(int number, const TDriveInfo& volume) const;

  TEngine& FEngine;
  TPhysicalDrives FPhysicalDrives;
  TPhysicalDrives FGone;  // not there any more, but analysed: their rows are kept under `Drive`
  int FGoneCount = 0;
  int FUnallocatedCount = 0;
  int FUnnamedCount = 0;
  int VirtualPartitionsCount = 0;
  const TImageWriter* FWriter = nullptr;  // while `Save` runs
};

}  // namespace brenlow
