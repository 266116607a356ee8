// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/analysis.h"

#include <unistd.h>

#include <algorithm>
#include <span>
#include <utility>

#include "analysis/deep/all_fs.h"
#include "analysis/deep/structure.h"
#include "analysis/disputed_files.h"
#include "analysis/scan.h"
#include "analysis/search/partition_search.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/sector_reader.h"
#include "fs/dispatch.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr std::int64_t DeepBlock = 256;  // sectors of a read of the deep analysis

TDriveInfo& Drive(TEngine& engine, int number) { return engine.Drives().List[static_cast<std::size_t>(number)]; }

/// False when no driver serves the drive.
bool DispatchAnalyseSystem(TEngine& engine, int driveNumber) {
  const auto analyse = [&](auto& driver) {
    driver.AnalyseSystem(driveNumber);
    return true;
  };
  return WithDriver(engine, Drive(engine, driveNumber).FileSystem, analyse, false);
}

}  // namespace

void AnalyseDrive(TEngine& engine, int driveNumber) {
  TDrives& drives = engine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  const TAnalysingScope analysing(engine, driveNumber);
  const bool physical = drives.IsPhysical(driveNumber);
  if (!drives.IsDiskIn(driveNumber, true)) {
    // Without its disk a floppy gives nothing: straight to the end.
  } else if (!physical && !engine.PartRecRunning && !drives.CanBeAnalysed(driveNumber)) {
    Drive(engine, driveNumber).Analysed = TAnalyseInformation::aiFull;
    const TDriveInfo& drive = Drive(engine, driveNumber);
    if (drive.FileSystem == TFileSystem::fsUnknown) {
      engine.ShowMessage(TText::NothingToAnalyse);
    } else {
      engine.ShowNoDriver(drive);
    }
  } else {
    drives.DeleteSubdrives(driveNumber);
    engine.Files().Clear(driveNumber, false);
    if (engine.PartRecRunning) {
      FindPartitionsInDrive(engine, driveNumber);
    } else if (physical) {
      AnalysePhysicalDrive(engine, driveNumber);
    } else {
      AnalyseFileSystem(engine, driveNumber);
    }
  }
  // After a stop, too: what was found may be recovered.
  MarkDisputedFiles(engine, driveNumber);
  for (const int sub : TIntegerDynArray(Drive(engine, driveNumber).SubDrives)) MarkDisputedFiles(engine, sub);
  if (engine.Files().FoundCount == 0 && ::geteuid() != 0) engine.ShowMessage(TText::NothingFoundNoRights);
}

void AnalyseFileSystem(TEngine& engine, int driveNumber) {
  engine.Files().DoBeforeAnalyse(driveNumber);
  DispatchAnalyseSystem(engine, driveNumber);
  engine.Files().DoAfterAnalyse(driveNumber);
}

void AnalysePhysicalDrive(TEngine& engine, int driveNumber) {
  TDrives& drives = engine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  Drive(engine, driveNumber).DeepAnalysed = TAnalyseInformation::aiPartial;
  const TIntegerDynArray volumes = Drive(engine, driveNumber).Volumes;
  double total = 0;
  for (const int volume : volumes) {
    if (!drives.IsWrongNumber(volume)) total += static_cast<double>(Drive(engine, volume).SectorsCount);
  }
  for (const int volume : volumes) {
    if (drives.IsWrongNumber(volume)) continue;
    const int sub = drives.AddSubdrive(driveNumber, -1);
    drives.CopyInfo(volume, sub);
    Drive(engine, sub).IsSubDrive = true;
    engine.Files().DoBeforeAnalyse(sub);
    const auto sectors = static_cast<double>(Drive(engine, sub).SectorsCount);
    engine.AnalyseProgressScale = total > 0 && sectors > 0 ? sectors / total : 0;
    if (!DispatchAnalyseSystem(engine, sub)) Drive(engine, sub).Analysed = TAnalyseInformation::aiFull;
    engine.AnalyseProgressBase += engine.AnalyseProgressScale;
    engine.Files().DoAfterAnalyse(sub);
    engine.Pump();
    if (!engine.Analysing) break;
  }
  drives.UpdateSubDrivesCaptions(driveNumber);
  if (engine.Analysing) Drive(engine, driveNumber).DeepAnalysed = TAnalyseInformation::aiFull;
}

namespace {

/// Every sector of the drive through the deep analysis, and none beyond its end. The last sector of a
/// block waits for the next block, so that an end or an icon that reaches across is seen whole. False
/// when it was stopped.
bool ScanSectors(TEngine& engine, int driveNumber) {
  const std::int64_t sectorSize = engine.Drives().GetBytesPerSector(driveNumber);
  const std::int64_t total = Drive(engine, driveNumber).SectorsCount;
  TByteDynArray buffer(static_cast<std::size_t>((1 + DeepBlock) * sectorSize));
  std::int64_t waiting = 0;  // sectors left over from the block before, at the start of the buffer
  bool inHole = false;
  for (std::int64_t first = 0, next = 0; first < total; first = next) {
    const std::int64_t count = std::min(DeepBlock, total - first);
    const TDriveInfo& drive = Drive(engine, driveNumber);
    const std::int64_t data = engine.Reader().NextSectorToScan(drive, drive.FirstSector + first) - drive.FirstSector;
    next = first + DeepBlock;
    // The first block of a hole still counts: files end in zeros. So is the sector that waits there.
    if (std::exchange(inHole, data >= first + count) && inHole) {
      next = std::max(next, std::min(data, total) / DeepBlock * DeepBlock);
      engine.PumpSoon();
      engine.Pump();
      if (!engine.Analysing) return false;
      continue;
    }
    const auto block = std::span(buffer).subspan(static_cast<std::size_t>(waiting * sectorSize),
                                                 static_cast<std::size_t>(count * sectorSize));
    engine.Reader().ReadOrZero(drive, block, drive.FirstSector + first, TReadEffort::Scan);
    const auto sectors = std::span(buffer).first(static_cast<std::size_t>((waiting + count) * sectorSize));
    const bool last = first + count == total;
    const std::int64_t ready = waiting + count - (last ? 0 : 1);
    for (std::int64_t i = 0; i < ready; ++i) {
      engine.AllFS().DeepAnalyseSystem(sectors, static_cast<std::size_t>(i * sectorSize), first - waiting + i);
      engine.Pump();
      if (!engine.Analysing) return false;
    }
    waiting = last ? 0 : 1;
    if (!last) std::copy(sectors.end() - sectorSize, sectors.end(), buffer.begin());
    engine.AnalyseProgress(static_cast<double>(first) / static_cast<double>(total));
  }
  engine.AllFS().DoAfterDeepAnalyse(driveNumber, total - 1);
  return true;
}

}  // namespace

void DeepAnalyseDrive(TEngine& engine, int driveNumber, TDeepSizes sizes) {
  if (engine.Drives().IsWrongNumber(driveNumber)) return;
  engine.PartRecRunning = false;
  const TAnalysingScope analysing(engine, driveNumber);
  engine.Files().ClearDeep(driveNumber);
  if (engine.AllFS().DoBeforeDeepAnalyse(driveNumber)) {
    const bool whole = ScanSectors(engine, driveNumber);
    if (engine.Files().FoundCount == 0 && ::geteuid() != 0) engine.ShowMessage(TText::NothingFoundNoRights);
    if (whole && sizes == TDeepSizes::ByStructure) MeasureDeepFiles(engine, driveNumber);
    if (whole) Drive(engine, driveNumber).DeepAnalysed = TAnalyseInformation::aiFull;
  }
}

void GetDriveFiles(TEngine& engine, TDriveInfo& drive, TFileArray& result, bool rootDirOnly,
                   const TOnFilesGotten& onFilesGotten) {
  result.Clear();
  const auto list = [&](auto& driver) {
    driver.GetFiles(drive, result, rootDirOnly, onFilesGotten);
    return true;
  };
  WithDriver(engine, drive.FileSystem, list, false);
}

}  // namespace brenlow
