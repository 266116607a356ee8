// SPDX-License-Identifier: GPL-3.0-or-later
// What the registry does with images and ranges of drives.
#include "core/drives.h"
#include "core/engine.h"
#include "core/images/image_writer.h"

namespace brenlow {
TImageResult TDrives::Save(int number, std::int64_t firstSector, std::int64_t sectorsCount, const std::string& fileName,
                           bool compressed, const std::string& mapFile) {
  TImageResult result;
  const std::string path = ImageName(fileName);
  if (IsWrongNumber(number) || sectorsCount <= 0) return result;
  TImageWriter writer(FEngine, List[static_cast<std::size_t>(number)], firstSector, sectorsCount);
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
