// SPDX-License-Identifier: GPL-3.0-or-later
// What the registry does with images and ranges of drives.
#include <set>

#include "core/device_table.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/images/image_writer.h"
#include "core/sector_reader.h"

namespace brenlow {
namespace {

/// A row for all of its source, whatever a file system there says of its own size.
bool IsWholeSource(const TDriveInfo& drive) {
  return drive.FirstSector == 0 && !drive.IsSubDrive && !drive.DriveTypes.Has(TDriveType::dtVirtual);
}

}  // namespace

TSourceGuard TDrives::SourceGuard(int number) {
  TSourceGuard guard;
  std::set<TString> known;
  const TString one = IsWrongNumber(number) ? TString() : List[static_cast<std::size_t>(number)].Drive;
  for (const TDriveInfo& drive : List) {
    const bool isSource = drive.Drive == one || drive.DriveTypes.Has(TDriveType::dtMounted) || HasResults(drive);
    if (!isSource || !known.insert(drive.Drive).second) continue;
    const bool withFileSystems = one.empty() || drive.Drive == one;
    if (const IDevice* device = FEngine.Devices().Get(drive.Drive)) {
      guard.Add(*device, withFileSystems);
    } else if (const auto identity = IdentityOf(DevicePath(drive.Drive))) {
      guard.Add(*identity, withFileSystems);
    }
  }
  return guard;
}

TImageResult TDrives::Save(int number, std::int64_t firstSector, std::int64_t sectorsCount, const std::string& fileName,
                           bool compressed, const std::string& mapFile, TImageNaming naming) {
  TImageResult result;
  const std::string path = naming == TImageNaming::Dsk ? ImageName(fileName) : fileName;
  if (IsWrongNumber(number) || sectorsCount <= 0) return result;
  const TSourceGuard guard = SourceGuard(number);
  for (const std::string& written : PathsOfImage(path, mapFile)) {
    if (!guard.Forbids(written)) continue;
    result.SystemError = TSourceGuard::Refused;
    result.Path = written;
    return result;
  }
  const TDriveInfo& drive = List[static_cast<std::size_t>(number)];
  // The copy of an NTFS boot sector lies after its volume, and so may the rest of what there was.
  const std::int64_t source = FEngine.Reader().DeviceSectors(drive);
  if (firstSector == 0 && sectorsCount == drive.SectorsCount && IsWholeSource(drive) && source != INT64_MAX) {
    sectorsCount = source;
  }
  TImageWriter writer(FEngine, drive, firstSector, sectorsCount);
  writer.OnProgress = [this](double position) {
    if (OnProgressChanged) OnProgressChanged(position);
    return CanSave.load();
  };
  CanSave = true;
  FWriter = &writer;
  result = compressed ? writer.WriteCompressed(path) : writer.WriteRaw(path, mapFile);
  FWriter = nullptr;
  CanSave = false;
  return result;
}

std::int64_t TDrives::UnreadableSectors() const { return FWriter == nullptr ? 0 : FWriter->UnreadableSectors(); }

int TDrives::CreateVirtual(int number, std::int64_t firstSector, std::int64_t sectorsCount) {
  if (IsWrongNumber(number)) return -1;
  TDriveInfo drive = PartOf(List[static_cast<std::size_t>(number)]);
  drive.DriveTypes.Add(TDriveType::dtVirtual);
  drive.FirstSector = firstSector;
  drive.SectorsCount = sectorsCount;
  drive.CaptionKind = TCaptionKind::VirtualPartition;
  drive.CaptionNumber = ++VirtualPartitionsCount;
  SetDefaultInfo(drive);
  const int added = Add(drive, true);
  ResetDefaultInfo(added);
  return added;
}

}  // namespace brenlow
