// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/search/partition_search.h"

#include <algorithm>
#include <cstdlib>
#include <span>
#include <utility>
#include <vector>

#include "analysis/deep/all_fs.h"
#include "core/driver_calls.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/families.h"
#include "core/sector_reader.h"
#include "fs/dispatch.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr std::int64_t UsualBlock = 512;       // sectors
constexpr std::int64_t VMwareBlock = 128;      // sectors: a grain
constexpr std::int64_t MergeTolerance = 1025;  // sectors that a drive may be longer than its only volume

/// Whether any file system is looked for, and not content alone.
bool WantsVolumes(TPartRecSystems systems) {
  systems.Remove(TPartRecSystem::DeepAnalysis);
  return !systems.Empty();
}

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
        FVolumes(WantsVolumes(engine.PartRecSystems)) {}
  ~TPartitionSearch() {
    ForEachDriver(FEngine, [](auto& driver) { driver::PartRecClear(driver); });
    FEngine.Files().ForgetAdded();
  }
  TPartitionSearch(const TPartitionSearch&) = delete;
  TPartitionSearch& operator=(const TPartitionSearch&) = delete;

  void Begin() {
    FDrives.PartRecClearInfo(FMain);
    ForEachWanted([&](auto& driver) { driver::PartRecDoBeforeAnalyse(driver, FMain); });
    Drive(FMain).DeepAnalysed = TAnalyseInformation::aiPartial;
    if (FDeep) FEngine.AllFS().DoBeforeDeepAnalyse(FMain);
    for (const TFileSystem candidate : FDrives.PartRecInfo.Candidates) FDrives.PartRecAddSubdrive(FMain, candidate);
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
    ForEachWanted([&](auto& driver) { driver::PartRecFinishVolumes(driver, FMain); });
    PartRecDoAfterAnalyse();
    FDrives.UpdateSubDrivesCaptions(FMain);
  }

 private:
  TDriveInfo& Drive(int number) { return FDrives.List[static_cast<std::size_t>(number)]; }
  /// Every driver whose family is searched for.
  template <typename TCallable>
  void ForEachWanted(TCallable&& callable) {
    ForEachDriver(FEngine, [&](auto& driver) {
      if (FEngine.PartRecSystems.Has(std::remove_reference_t<decltype(driver)>::Family)) callable(driver);
    });
  }

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
    ForEachWanted([&](auto& driver) { driver::PartRecAnalyseSectors(driver, buffer, FMain, first); });
    for (std::int64_t i = 0; i < count; ++i) {
      const auto start = static_cast<std::size_t>(i * FSectorSize);
      FLastSector = first + i;
      if (FVolumes) LookForVolumes(buffer, start, first + i);
      if (FDeep) FEngine.AllFS().DeepAnalyseSystem(buffer, start, first + i);
      if (!FeedSubDrives(buffer, start, first + i)) return false;
      FEngine.Pump();
      if (!FEngine.Analysing) return false;
    }
    return true;
  }

  void LookForVolumes(std::span<const std::uint8_t> buffer, std::size_t start, std::int64_t sector) {
    const auto bytes = buffer.subspan(start);
    FDrives.PartRecCheckForExistPartition(FMain, sector);
    ForEachWanted([&](auto& driver) { driver::PartRecNoteSector(driver, bytes, FMain, sector); });
    CheckForNewPartition(bytes, sector);
    FDrives.PartRecCheckSubDrivesForEnd(sector, false);
    ForEachWanted([&](auto& driver) { driver::PartRecAnalyseForNewDrive(driver, buffer, start, FMain, sector); });
  }

  void CheckForNewPartition(std::span<const std::uint8_t> bytes, std::int64_t sector) {
    if (!FDrives.PartRecCheckForNewPartition(FMain, sector, bytes)) return;
    // The copy at the end of a volume whose own boot sector is gone: all that would confirm it went by before.
    const TDriveInfo& found = FDrives.PartRecInfo.FoundDrives.back();
    if (found.FirstSector + found.SectorsCount > FFirst + sector) return;
    Confirm(static_cast<int>(FDrives.PartRecInfo.FoundDrives.size()) - 1);
  }

  /// The sector for each open sub-drive. False when the search was stopped.
  bool FeedSubDrives(std::span<const std::uint8_t> buffer, std::size_t start, std::int64_t sector) {
    TPartRecSystems fed;
    // By position: sub-drives come in while this goes on.
    for (std::size_t i = 0; i < Drive(FMain).SubDrives.size(); ++i) {
      const int sub = Drive(FMain).SubDrives[i];
      const TDriveInfo& drive = Drive(sub);
      const std::int64_t relative = FFirst + sector - drive.FirstSector;
      if (!drive.CanBeAnalysed || relative < 0 || relative >= drive.SectorsCount) continue;
      const auto feed = [&](auto& driver) {
        constexpr TPartRecSystem family = std::remove_reference_t<decltype(driver)>::Family;
        const bool first = !fed.Has(family);
        fed.Add(family);
        return driver::PartRecAnalyseSector(driver, buffer, start, sub, relative, first);
      };
      if (!WithDriver(FEngine, drive.FileSystem, feed, false)) continue;
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
      const bool confirmed =
          IsSound(found[i]) && !FDrives.PartRecIsTaken(FMain, found[i]) && Confirm(static_cast<int>(i));
      if (!confirmed) ++i;
    }
  }

  bool IsSound(const TDriveInfo& volume) {
    TByteDynArray boot(static_cast<std::size_t>(FSectorSize));
    TInt64DynArray places{SuperblockAt(volume.FileSystem) / FSectorSize};
    for (const std::int64_t copy : FamilyOf(volume.FileSystem)->CopySectors) {
      places.push_back(copy == AfterVolume ? volume.SectorsCount : copy);
    }
    return std::any_of(places.begin(), places.end(), [&](std::int64_t at) {
      TFileSystem system = TFileSystem::fsUnknown;
      const bool read = FEngine.Reader().ReadDriveSectors(volume, boot.data(), volume.FirstSector + at, 1) != 0;
      const bool isBoot = read && FDrives.IsPartition(boot, 0, false, system, static_cast<int>(FSectorSize));
      return isBoot && FEngine.Drivers().IsVolumeSound(volume, boot, false);
    });
  }

  /// The found boot sector goes over to a sub-drive; false when there are too many.
  bool Confirm(int found) {
    const TFileSystem system = FDrives.PartRecInfo.FoundDrives[static_cast<std::size_t>(found)].FileSystem;
    const auto confirm = [&](auto& driver) { return driver::PartRecConfirm(driver, FDrives, FMain, found); };
    const int target = WithDriver(FEngine, system, confirm, -1);
    if (target >= 0) FConfirmed.push_back(target);
    return target >= 0;
  }

  void PartRecDoAfterAnalyse() {
    const TIntegerDynArray subs = Drive(FMain).SubDrives;
    for (auto sub = subs.rbegin(); sub != subs.rend(); ++sub) {
      const bool confirmed = std::find(FConfirmed.begin(), FConfirmed.end(), *sub) != FConfirmed.end();
      const auto keep = [&](auto& driver) { return driver::PartRecIsWorthKeeping(driver, FDrives, *sub); };
      if (!confirmed && !WithDriver(FEngine, Drive(*sub).FileSystem, keep, false)) FDrives.Delete(*sub);
    }
    ForEachWanted([&](auto& driver) { driver::PartRecDoAfterAnalyse(driver, FMain); });
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
    const auto finish = [&](auto& driver) {
      driver::DoAfterAnalyse(driver, Drive(number));
      return true;
    };
    WithDriver(FEngine, Drive(number).FileSystem, finish, false);
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
  bool FVolumes;
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
