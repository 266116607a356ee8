// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/search/partition_search.h"

#include <algorithm>
#include <cstdlib>
#include <span>
#include <utility>
#include <vector>

#include "analysis/deep/all_fs.h"
#include "analysis/search/lost_ntfs.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/sector_reader.h"
#include "fs/fat/fat.h"
#include "fs/ntfs/ntfs.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr std::int64_t UsualBlock = 512;       // sectors
constexpr std::int64_t VMwareBlock = 128;      // sectors: a grain
constexpr std::int64_t MergeTolerance = 1025;  // sectors that a drive may be longer than its only volume

class TPartitionSearch {
 public:
  TPartitionSearch(TEngine& engine, int driveNumber)
      : FEngine(engine),
        FDrives(engine.Drives()),
        FMain(driveNumber),
        FSectorSize(engine.Drives().GetBytesPerSector(driveNumber)),
        FFirst(Drive(driveNumber).FirstSector),
        FSectors(Drive(driveNumber).SectorsCount),
        FDeep(engine.PartRecSystems.Has(TPartRecSystem::DeepAnalysis)),
        FLostNTFS(engine, driveNumber) {
    engine.NTFS().OnPartRecConfirmed = [this](std::int64_t sector) {
      FDrives.PartRecCheckSubDrivesForEnd(sector, true);
    };
  }
  ~TPartitionSearch() {
    FEngine.NTFS().OnPartRecConfirmed = nullptr;
    FEngine.Files().ForgetAdded();
  }
  TPartitionSearch(const TPartitionSearch&) = delete;
  TPartitionSearch& operator=(const TPartitionSearch&) = delete;

  void Begin() {
    FDrives.PartRecClearInfo(FMain);
    FEngine.FAT().PartRecDoBeforeAnalyse();
    Drive(FMain).DeepAnalysed = TAnalyseInformation::aiPartial;
    if (FDeep) FEngine.AllFS().DoBeforeDeepAnalyse(FMain);
    if (Wants(TPartRecSystem::FAT)) FDrives.PartRecAddSubdrive(FMain, FDrives.PartRecInfo.DefaultFATSystem);
    if (Wants(TPartRecSystem::NTFS)) FDrives.PartRecAddSubdrive(FMain, TFileSystem::fsNTFS);
  }

  void Run() {
    const std::int64_t block = FDrives.IsVMware(FMain) ? VMwareBlock : UsualBlock;
    if (FSectors < block) return;
    TByteDynArray buffer(static_cast<std::size_t>(block * FSectorSize));
    bool inHole = false;
    for (std::int64_t first = 0, next = 0; first < FSectors; first = next) {
      const std::int64_t count = std::min(block, FSectors - first);
      // By content, the first block of a hole still counts: files end in zeros.
      const std::int64_t data = NextWanted(first);
      const bool wasInHole = std::exchange(inHole, data >= first + count);
      next = first + block;
      if (inHole && wasInHole) next = std::max(next, std::min(data, FSectors) / block * block);
      if (!inHole || (FDeep && !wasInHole)) {
        const auto bytes = std::span(buffer).first(static_cast<std::size_t>(count * FSectorSize));
        FEngine.Reader().ReadOrZero(Drive(FMain), bytes, FFirst + first, TReadEffort::Scan);
        if (!WalkBlock(bytes, first, count)) return;
      }
      FLastSector = std::min(next, FSectors) - 1;
      FEngine.PumpSoon();
      FEngine.Pump();
      if (!FEngine.Analysing) return;
      FEngine.AnalyseProgress(static_cast<double>(FLastSector + 1) / static_cast<double>(FSectors));
    }
  }

  /// Runs after a stop as well.
  void End() {
    if (FEngine.Analysing) Drive(FMain).DeepAnalysed = TAnalyseInformation::aiFull;
    FEngine.AnalyseProgress(1.0);
    if (FDeep) {
      FEngine.AllFS().DoAfterDeepAnalyse(FMain, FLastSector);
      FEngine.Files().AddDeepAnalyseDir(FMain, false);
    }
    if (FEngine.Analysing) ConfirmSoundVolumes();
    if (FEngine.Analysing && Wants(TPartRecSystem::FAT)) ConfirmVolumesOfTables();
    FinishFATVolumes();
    PlaceNTFS();
    PartRecDoAfterAnalyse();
    FDrives.UpdateSubDrivesCaptions(FMain);
  }

 private:
  TDriveInfo& Drive(int number) { return FDrives.List[static_cast<std::size_t>(number)]; }
  bool Wants(TPartRecSystem system) const { return FEngine.PartRecSystems.Has(system); }

  /// The first sector from the given one on that holds something that reads, or that a rule asks for by
  /// its number.
  std::int64_t NextWanted(std::int64_t first) {
    std::int64_t next = FEngine.Reader().NextSectorToScan(Drive(FMain), FFirst + first) - FFirst;
    for (const int volume : FDrives.PartRecInfo.Volumes) {
      if (FDrives.IsWrongNumber(volume)) continue;
      const std::int64_t start = Drive(volume).FirstSector - FFirst;
      if (start >= first) next = std::min(next, start);
    }
    return next;
  }

  /// False when the search was stopped.
  bool WalkBlock(std::span<const std::uint8_t> buffer, std::int64_t first, std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) {
      const auto start = static_cast<std::size_t>(i * FSectorSize);
      FLastSector = first + i;
      if (Wants(TPartRecSystem::FAT) || Wants(TPartRecSystem::NTFS)) {
        FDrives.PartRecCheckForExistPartition(FMain, first + i);
        if (Wants(TPartRecSystem::NTFS)) FLostNTFS.NoteSector(buffer.subspan(start), first + i);
        CheckForNewPartition(buffer.subspan(start), first + i);
        FDrives.PartRecCheckSubDrivesForEnd(first + i, false);
      }
      if (Wants(TPartRecSystem::FAT)) FEngine.FAT().PartRecAnalyseForNewDrive(buffer, start, FMain, first + i);
      if (FDeep) FEngine.AllFS().DeepAnalyseSystem(buffer, start, first + i);
      if (!FeedSubDrives(buffer, start, first + i)) return false;
      FEngine.Pump();
      if (!FEngine.Analysing) return false;
    }
    return true;
  }

  void CheckForNewPartition(std::span<const std::uint8_t> bytes, std::int64_t sector) {
    if (!FDrives.PartRecCheckForNewPartition(FMain, sector, bytes)) return;
    // The copy at the end of a volume whose own boot sector is gone: all its records went by before.
    const TDriveInfo& found = FDrives.PartRecInfo.FoundDrives.back();
    if (found.FileSystem != TFileSystem::fsNTFS || found.FirstSector >= FFirst + sector) return;
    ConfirmNTFS(static_cast<int>(FDrives.PartRecInfo.FoundDrives.size()) - 1);
  }

  /// Takes a found boot sector at its word: the volume is analysed as a whole. False when there are
  /// too many volumes already.
  bool ConfirmNTFS(int found) {
    const int target = FDrives.PartRecAddSubdrive(FMain, TFileSystem::fsNTFS);
    if (target < 0) return false;
    FDrives.PartRecApplyFoundDriveInfoToDrive(target, found);
    NTFSInfo(Drive(target)).CanBeTruncated = false;
    FEngine.NTFS().PartRecDriveAdded(target);
    FConfirmed.push_back(target);
    return true;
  }

  /// Records that went by before their volume was known, or whose volume has no boot sector.
  void PlaceNTFS() {
    if (!Wants(TPartRecSystem::NTFS)) return;
    if (!FEngine.Analysing) {
      FLostNTFS.PlaceCandidates();
      return;
    }
    FLostNTFS.PlaceVolumes();
  }

  /// False for a sub-drive that has nothing but the file system's own files.
  bool HoldsFiles(int sub) {
    const TFileArray& list = FEngine.Files().List;
    bool holds = !NTFSInfo(Drive(sub)).UnknownFirstClusterFiles.empty();
    for (std::size_t i = 0; i < list.size() && !holds; ++i) {
      const TFile& row = list[i];
      holds = row.FileInfo.aDriveNumber == sub && row.ParentCluster != SpecialCluster::NTFSSystemData &&
              row.FileInfo.FirstCluster != SpecialCluster::NTFSSystemData;
    }
    return holds;
  }

  /// The sector for each open sub-drive. False when the search was stopped.
  bool FeedSubDrives(std::span<const std::uint8_t> buffer, std::size_t start, std::int64_t sector) {
    bool canCheckNewDrive = true;
    // By position: sub-drives come in while this goes on.
    for (std::size_t i = 0; i < Drive(FMain).SubDrives.size(); ++i) {
      const int sub = Drive(FMain).SubDrives[i];
      const TDriveInfo& drive = Drive(sub);
      const std::int64_t relative = FFirst + sector - drive.FirstSector;
      if (!drive.CanBeAnalysed || relative < 0 || relative >= drive.SectorsCount) continue;
      if (IsFAT(drive.FileSystem)) {
        FEngine.FAT().PartRecAnalyseSector(buffer, start, sub, relative);
      } else if (drive.FileSystem == TFileSystem::fsNTFS) {
        FEngine.NTFS().PartRecAnalyseSector(buffer, start, sub, relative, canCheckNewDrive);
        canCheckNewDrive = false;
      } else {
        continue;
      }
      FEngine.Pump();
      if (!FEngine.Analysing) return false;
    }
    return true;
  }

  /// Found boot sectors that no record or folder has confirmed, though more than they themselves
  /// speaks for the volume: one without a single folder, for example.
  void ConfirmSoundVolumes() {
    const auto& found = FDrives.PartRecInfo.FoundDrives;
    for (std::size_t i = 0; i < found.size();) {
      const bool confirmed = IsSound(found[i]) && !IsCovered(found[i]) && Confirm(static_cast<int>(i));
      if (!confirmed) ++i;
    }
  }

  /// Volumes of a sound source do not overlap: a crafted one must not have the same place searched for each.
  void FinishFATVolumes() {
    constexpr std::int64_t mostTimes = 4;
    std::int64_t searched = 0;
    for (const int sub : Drive(FMain).SubDrives) {
      if (!IsFAT(Drive(sub).FileSystem) || !FATInfo(Drive(sub)).Walk) continue;
      searched += Drive(sub).SectorsCount;
      FEngine.FAT().PartRecFinishVolume(sub, searched <= mostTimes * FSectors);
    }
  }

  /// FAT volumes without a boot sector of which too few folders were met to be sure.
  void ConfirmVolumesOfTables() {
    const auto isFree = [this](const TDriveInfo& volume) { return !IsCovered(volume); };
    int count = FEngine.FAT().PartRecAddTableVolumes(FMain, isFree);
    for (; count > 0; --count) {
      const int target =
          FDrives.PartRecDriveForFound(FMain, static_cast<int>(FDrives.PartRecInfo.FoundDrives.size()) - 1);
      FEngine.FAT().PartRecAnalyseVolume(target, true);
    }
  }

  bool IsSound(const TDriveInfo& volume) {
    constexpr std::int64_t copyOfFAT32 = 6;  // sectors behind the start
    TByteDynArray boot(static_cast<std::size_t>(FSectorSize));
    for (const std::int64_t at : {std::int64_t{0}, IsFAT(volume.FileSystem) ? copyOfFAT32 : volume.SectorsCount}) {
      TFileSystem system = TFileSystem::fsUnknown;
      const bool read = FEngine.Reader().ReadDriveSectors(volume, boot.data(), volume.FirstSector + at, 1) != 0;
      const bool isBoot = read && FDrives.IsPartition(boot, 0, false, system, static_cast<int>(FSectorSize));
      if (isBoot && FEngine.IsVolumeSound(volume, boot)) return true;
    }
    return false;
  }

  /// The found boot sector goes over to a sub-drive; false when there are too many.
  bool Confirm(int found) {
    const TFileSystem system = FDrives.PartRecInfo.FoundDrives[static_cast<std::size_t>(found)].FileSystem;
    if (system == TFileSystem::fsNTFS) return ConfirmNTFS(found);
    const int target = FDrives.PartRecDriveForFound(FMain, found);
    if (target < 0) return false;
    FEngine.FAT().PartRecAnalyseVolume(target);
    FConfirmed.push_back(target);
    return true;
  }

  /// True for a volume that lies inside one that was confirmed: an image in a file, say.
  bool IsCovered(const TDriveInfo& volume) {
    const TIntegerDynArray& subs = Drive(FMain).SubDrives;
    return std::any_of(subs.begin(), subs.end(), [&](int sub) {
      const TDriveInfo& drive = Drive(sub);
      const bool whole = drive.FirstSector == FFirst && drive.SectorsCount == FSectors && !FATInfo(drive).Walk;
      return !FDrives.IsEmpty(sub) && !whole && volume.FirstSector >= drive.FirstSector &&
             volume.FirstSector < drive.FirstSector + drive.SectorsCount;
    });
  }

  void PartRecDoAfterAnalyse() {
    const TIntegerDynArray subs = Drive(FMain).SubDrives;
    for (auto sub = subs.rbegin(); sub != subs.rend(); ++sub) {
      const bool confirmed = std::find(FConfirmed.begin(), FConfirmed.end(), *sub) != FConfirmed.end();
      // Of a candidate for NTFS, the system's files alone (a mirror left behind) make no volume.
      const bool candidate = TLostNTFS::IsCandidate(Drive(*sub));
      const bool empty = candidate ? !HoldsFiles(*sub) : FDrives.IsEmpty(*sub);
      if (empty && !confirmed) FDrives.Delete(*sub);
    }
    if (Wants(TPartRecSystem::NTFS)) FEngine.NTFS().PartRecDoAfterAnalyse(FMain);
    if (Drive(FMain).SubDrives.empty()) return;
    if (IsOnlyVolume()) {
      MergeOnlyVolume();
      return;
    }
    for (const int sub : TIntegerDynArray(Drive(FMain).SubDrives)) {
      Finish(sub);
      Drive(sub).Analysed = FEngine.Analysing ? TAnalyseInformation::aiFull : TAnalyseInformation::aiPartial;
    }
  }

  void Finish(int number) {
    if (Drive(number).FileSystem == TFileSystem::fsNTFS) FEngine.NTFS().DoAfterAnalyse(Drive(number));
    FEngine.Files().DoAfterAnalyse(number);
  }

  /// One volume that fills the drive is the drive.
  bool IsOnlyVolume() {
    if (Drive(FMain).SubDrives.size() != 1) return false;
    const TDriveInfo& sub = Drive(Drive(FMain).SubDrives.front());
    return sub.FirstSector == FFirst && sub.BytesPerSector == FSectorSize &&
           std::llabs(sub.SectorsCount - FSectors) < MergeTolerance;
  }

  void MergeOnlyVolume() {
    const int sub = Drive(FMain).SubDrives.front();
    FDrives.CopySystemsInfo(sub, FMain);
    FDrives.MergeParentClusters(sub, FMain);
    TInt64DynArray& folders = Drive(FMain).FileFirstClusters;
    folders.insert(folders.end(), Drive(sub).FileFirstClusters.begin(), Drive(sub).FileFirstClusters.end());
    FEngine.Files().MoveToDrive(sub, FMain);
    FDrives.Delete(sub);
    Finish(FMain);
    Drive(FMain).Analysed = FEngine.Analysing ? TAnalyseInformation::aiFull : TAnalyseInformation::aiPartial;
  }

  TEngine& FEngine;
  TDrives& FDrives;
  int FMain;
  std::int64_t FSectorSize;
  std::int64_t FFirst;
  std::int64_t FSectors;
  bool FDeep;
  TLostNTFS FLostNTFS;
  std::int64_t FLastSector = 0;
  TIntegerDynArray FConfirmed;  // by more than records and folders: they stay though they are empty
};

}  // namespace

void FindPartitionsInDrive(TEngine& engine, int driveNumber) {
  if (engine.Drives().IsWrongNumber(driveNumber)) return;
  TPartitionSearch search(engine, driveNumber);
  search.Begin();
  search.Run();
  search.End();
}

}  // namespace brenlow
