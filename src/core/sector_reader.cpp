// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/sector_reader.h"

#include <algorithm>
#include <cstring>

#include "core/device/device.h"
#include "core/drives.h"
#include "core/engine.h"

namespace brenlow {
namespace {

constexpr std::int64_t LargestRequest = 0x7FFF0000;  // bytes; the result is a 32-bit count

}  // namespace

std::uint32_t TSectorReader::ReadDriveSectors(const TDriveInfo& drive, void* buffer, std::int64_t startingSector,
                                              std::int64_t sectorCount) {
  if (drive.SectorsCount > 0) {
    const std::int64_t lastSector = drive.FirstSector + drive.SectorsCount - 1;
    const bool outside = startingSector < 0 || startingSector > lastSector;
    if (outside && FLastFailedDrive == &drive && startingSector >= FLastFailedSector) return 0;
  }
  const int bytesPerSector = FEngine.Drives().GetBytesPerSector(drive);
  const std::uint32_t got = ReadDeviceSectors(drive.Drive, buffer, bytesPerSector, startingSector, sectorCount);
  if (got <
      static_cast<std::uint64_t>(std::max<std::int64_t>(sectorCount, 0)) * static_cast<unsigned>(bytesPerSector)) {
    ++FFailedReads;
  }
  FBytesRead += got;
  if (got == 0) {
    FLastFailedDrive = &drive;
    FLastFailedSector = startingSector;
  }
  return got;
}

std::uint32_t TSectorReader::ReadDeviceSectors(TStringView drive, void* buffer, int bytesPerSector,
                                               std::int64_t startingSector, std::int64_t sectorCount) {
  if (bytesPerSector <= 0) bytesPerSector = 512;
  if (sectorCount <= 0 || sectorCount > LargestRequest / bytesPerSector) return 0;
  if (startingSector < 0 || startingSector > INT64_MAX / bytesPerSector - sectorCount) return 0;
  const std::size_t size = static_cast<std::size_t>(sectorCount) * static_cast<std::size_t>(bytesPerSector);

  TRedirect redirect;
  TStringView path = drive;
  for (const TVMwareInfo& info : FEngine.Drives().VMwares) {
    if (info.Drive != drive) continue;
    redirect = RedirectVMware(info, drive, startingSector);
    if (redirect.FillZero) {
      std::memset(buffer, 0, size);
      return 0;
    }
    path = redirect.Path;
    startingSector = redirect.Sector;
    break;
  }
  IDevice* device = FEngine.Devices().Get(path);
  if (device == nullptr) return 0;
  const std::span<std::uint8_t> bytes(static_cast<std::uint8_t*>(buffer), size);
  return static_cast<std::uint32_t>(device->Read(startingSector * bytesPerSector, bytes));
}

std::int64_t TSectorReader::DeviceSectors(const TDriveInfo& drive) {
  const IDevice* device = FEngine.Devices().Get(drive.Drive);
  return device == nullptr ? INT64_MAX : device->Size() / FEngine.Drives().GetBytesPerSector(drive);
}

TSectorReader::TRedirect TSectorReader::RedirectVMware(const TVMwareInfo& info, TStringView drive,
                                                       std::int64_t sector) const {
  TRedirect result{TString(drive), sector, false};
  const auto file = std::find_if(info.Files.begin(), info.Files.end(), [&](const TVMwareFile& f) {
    return sector >= f.StartingSector && sector < f.StartingSector + f.SectorsCount;
  });
  if (file == info.Files.end()) return result;
  if (file->Grains.empty()) {
    result.FillZero = true;
    return result;
  }
  result.Path = file->strPath;
  const std::int64_t relative = sector - file->StartingSector;
  // The last grain that begins at or before the sector; the first one whatever its number.
  const auto above = std::upper_bound(file->Grains.begin(), file->Grains.end(), relative,
                                      [&](std::int64_t value, const TVMwareGrain& grain) {
                                        return value < static_cast<std::int64_t>(info.GrainSize) * grain.Number;
                                      });
  const TVMwareGrain& best = above == file->Grains.begin() ? *above : *(above - 1);
  if (best.Location == 0) {
    result.FillZero = true;
    return result;
  }
  result.Sector = relative - static_cast<std::int64_t>(info.GrainSize) * best.Number + best.Location;
  return result;
}

}  // namespace brenlow
