// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/rows.h"

#include <fmt/format.h>

#include <algorithm>

#include "cli/console.h"
#include "cli/session.h"
#include "core/device/system_disks.h"
#include "core/drives.h"
#include "core/language.h"
#include "core/partitions.h"
#include "core/text.h"
#include "shell/sources.h"

namespace brenlow::cli {
namespace {

/// Partitions that the table of a disk names, that are on it, and that have no row.
TVolumes VolumesWithoutRow(TEngine& engine, int disk) {
  if (!engine.Drives().IsPhysical(disk)) return {};
  const TDriveInfo& whole = Drive(engine, disk);
  TVolumes volumes = engine.Partitions().GetVolumes(whole);
  std::erase_if(volumes, [&](const TVolume& volume) {
    const auto start = static_cast<std::int64_t>(volume.StartingSector);
    const auto count = static_cast<std::int64_t>(volume.SectorCount);
    if (start <= 0 || count <= 0 || start >= whole.SectorsCount || count > whole.SectorsCount - start) return true;
    return std::any_of(engine.Drives().List.begin(), engine.Drives().List.end(), [&](const TDriveInfo& row) {
      return IsRow(row) && row.Drive == whole.Drive && row.FirstSector == start &&
             !row.DriveTypes.Has(TDriveType::dtPhysical);
    });
  });
  return volumes;
}

/// A disk of which only what the system reports is known.
void AddUnreadableDisk(TEngine& engine, const TSystemDisk& disk) {
  TDriveInfo drive;
  drive.Drive = TextFromPath(disk.Path);
  drive.Caption = FromUtf8(disk.Model);
  drive.Serial = FromUtf8(disk.Serial);
  drive.DriveTypes = {TDriveType::dtPhysical};
  drive.BytesPerSector = disk.SectorSize;
  drive.SectorsCount = disk.Size / std::max(disk.SectorSize, 1);
  engine.Drives().Add(drive, false);
}

}  // namespace

void AddSmallRows(TEngine& engine, int disk) {
  for (const TVolume& volume : VolumesWithoutRow(engine, disk)) {
    const std::int64_t first = Drive(engine, disk).FirstSector + static_cast<std::int64_t>(volume.StartingSector);
    const int number = engine.Drives().CreateVirtual(disk, first, static_cast<std::int64_t>(volume.SectorCount));
    TDriveInfo& row = Drive(engine, number);
    row.DriveTypes.Remove(TDriveType::dtVirtual);
    row.PartitionType = volume.PartitionType;
    row.PartitionName = PartitionName(volume.GPTRecord);
    row.ReceivedType = TReceivedType::rtByMBR;
    row.CaptionKind = TCaptionKind::TableVolume;
  }
  engine.Drives().UpdateLanguage();  // makes the captions
}

int CountSmallVolumes(TEngine& engine, int disk) {
  const TVolumes volumes = VolumesWithoutRow(engine, disk);
  return static_cast<int>(std::count_if(volumes.begin(), volumes.end(), [&](const TVolume& volume) {
    TDriveInfo drive = Drive(engine, disk);
    drive.FirstSector += static_cast<std::int64_t>(volume.StartingSector);
    drive.SectorsCount = static_cast<std::int64_t>(volume.SectorCount);
    return engine.Drives().GetSystem(drive) != TFileSystem::fsUnknown;
  }));
}

bool IsRow(const TDriveInfo& drive) {
  return !drive.IsSubDrive && !drive.DriveTypes.Has(TDriveType::dtFound) &&
         !drive.DriveTypes.Has(TDriveType::dtVirtual);
}

TRow RowOf(TEngine& engine, int number) {
  const TDriveInfo& drive = Drive(engine, number);
  if (IsRow(drive)) return {number + 1, true};
  const TDriveInfo* holder = nullptr;
  int row = 0;
  for (int i = 0; i < static_cast<int>(engine.Drives().List.size()); ++i) {
    const TDriveInfo& other = Drive(engine, i);
    if (!IsRow(other) || other.Drive != drive.Drive) continue;
    const bool begins = other.FirstSector == drive.FirstSector && !engine.Drives().IsPhysical(i);
    if (begins && other.SectorsCount == drive.SectorsCount) return {i + 1, true};
    const bool holds = other.FirstSector <= drive.FirstSector &&
                       drive.FirstSector + drive.SectorsCount <= other.FirstSector + other.SectorsCount;
    if (!holds || (holder != nullptr && holder->SectorsCount <= other.SectorsCount)) continue;
    holder = &other;
    row = i;
  }
  return {row + 1, false};
}

std::string RowText(TEngine& engine, int number) {
  const TRow row = RowOf(engine, number);
  if (row.IsItsOwn) return std::to_string(row.Number);
  return engine.Language().Utf8(TText::PartOfRow,
                                {std::to_string(row.Number), std::to_string(Drive(engine, number).FirstSector)});
}

std::string ReachText(TEngine& engine, int number) {
  const TRow row = RowOf(engine, number);
  if (row.IsItsOwn) return fmt::format("--drive {}", row.Number);
  const TDriveInfo& drive = Drive(engine, number);
  return fmt::format("--drive {} --first {} --count {}", row.Number,
                     drive.FirstSector - Drive(engine, row.Number - 1).FirstSector, drive.SectorsCount);
}

TString RowFolder(TEngine& engine, int number) {
  const TRow row = RowOf(engine, number);
  const TDriveInfo& drive = Drive(engine, number);
  const TLanguage& language = engine.Language();
  if (row.IsItsOwn) {
    return NumberText(row.Number) + u" " + (drive.VolumeName.empty() ? language[TText::Volume] : drive.VolumeName);
  }
  const TString name = drive.VolumeName.empty() ? FromUtf8(SystemName(drive)) : drive.VolumeName;
  return language.Format(TText::PartFolder, {NumberText(drive.FirstSector), name});
}

void MountMachine(TEngine& engine, bool all) {
  std::string complaint;
  const auto mount = [&](const std::string& path) {
    TMountFailure failure;
    const int number = engine.Drives().Mount(SourceKey(path), false, &failure);
    if (number < 0) complaint = MountComplaint(engine.Language(), path, failure);
    if (number >= 0 && all) AddSmallRows(engine, number);
    return number;
  };
  const std::vector<TSystemDisk> disks = ListSystemDisks();
  const std::vector<TMountedVolume> mounted = ListMountedVolumes();
  for (const TSystemDisk& disk : disks) {
    const int number = mount(disk.Path);
    if (number < 0) {
      AddUnreadableDisk(engine, disk);
      continue;
    }
    TDriveInfo& whole = Drive(engine, number);
    if (!disk.Model.empty()) whole.Caption = FromUtf8(disk.Model);
    whole.Serial = FromUtf8(disk.Serial);
  }
  for (const TMountedVolume& volume : mounted) {
    const bool isListed =
        std::any_of(disks.begin(), disks.end(), [&](const TSystemDisk& disk) { return disk.Path == volume.DiskPath; });
    const TString key = SourceKey(isListed ? volume.DiskPath : volume.DevicePath);
    if (!isListed) mount(volume.DevicePath);
    for (TDriveInfo& drive : engine.Drives().List) {
      const std::int64_t start = isListed ? volume.StartByte : 0;
      if (drive.Drive == key && drive.FirstSector * drive.BytesPerSector == start) {
        drive.DriveLetter = TextFromPath(volume.MountPoint);
      }
    }
  }
  if (!complaint.empty()) Complain(complaint);
}

}  // namespace brenlow::cli
