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
constexpr std::int64_t PieceBytes = 4096;            // what disks and systems read at once

}  // namespace

std::uint32_t TSectorReader::ReadDriveSectors(const TDriveInfo& drive, void* buffer, std::int64_t startingSector,
                                              std::int64_t sectorCount) {
  // A read that fails inside of the drive says nothing of what lies behind its end, where the copy of
  // a boot sector may be.
  const std::int64_t lastSector = drive.FirstSector + drive.SectorsCount - 1;
  const bool outside = drive.SectorsCount > 0 && (startingSector < 0 || startingSector > lastSector);
  const bool failedThere = FLastFailedDrive == drive.Drive && FLastFailedStart == drive.FirstSector;
  if (outside && failedThere && startingSector >= FLastFailedSector) return 0;
  const int bytesPerSector = FEngine.Drives().GetBytesPerSector(drive);
  const std::uint32_t got = ReadDeviceSectors(drive.Drive, buffer, bytesPerSector, startingSector, sectorCount);
  if (got <
      static_cast<std::uint64_t>(std::max<std::int64_t>(sectorCount, 0)) * static_cast<unsigned>(bytesPerSector)) {
    ++FFailedReads;
  }
  FBytesRead += got;
  if (got == 0 && outside) {
    FLastFailedDrive = drive.Drive;
    FLastFailedStart = drive.FirstSector;
    FLastFailedSector = startingSector;
  }
  return got;
}

std::int64_t TSectorReader::ReadOrZero(const TDriveInfo& drive, std::span<std::uint8_t> buffer,
                                       std::int64_t startingSector, int mostFailures) {
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  const std::int64_t total = static_cast<std::int64_t>(buffer.size()) / sectorSize;
  const std::int64_t readable = std::clamp<std::int64_t>(DeviceSectors(drive) - startingSector, 0, total);
  const std::int64_t pieceSize = std::max<std::int64_t>(PieceBytes / sectorSize, 1);
  const auto zero = [&](std::int64_t from, std::int64_t until) {
    std::fill(buffer.begin() + from * sectorSize, buffer.begin() + until * sectorSize, std::uint8_t{0});
  };
  const auto read = [&](std::int64_t from, std::int64_t count) -> std::int64_t {
    if (count == 0) return 0;
    return ReadDriveSectors(drive, buffer.data() + from * sectorSize, startingSector + from, count) / sectorSize;
  };
  std::fill(buffer.begin() + readable * sectorSize, buffer.end(), std::uint8_t{0});
  std::int64_t unreadable = 0;
  int failures = 0;
  for (std::int64_t done = read(0, readable); done < readable;) {
    // Piece by piece up to the bad place, and behind it all of the rest at once.
    const std::int64_t end = std::min(done + pieceSize, readable);
    if (read(done, end - done) == end - done) {
      done = end;
      continue;
    }
    const bool givesUp = ++failures == mostFailures;
    const std::int64_t lost = givesUp ? readable : end;
    zero(done, lost);
    unreadable += lost - done;
    done = lost + read(lost, readable - lost);
  }
  return unreadable;
}

std::uint32_t TSectorReader::ReadDeviceSectors(TStringView drive, void* buffer, int bytesPerSector,
                                               std::int64_t startingSector, std::int64_t sectorCount) {
  if (bytesPerSector <= 0) bytesPerSector = 512;
  if (sectorCount <= 0 || sectorCount > LargestRequest / bytesPerSector) return 0;
  if (startingSector < 0 || startingSector > INT64_MAX / bytesPerSector - sectorCount) return 0;
  const std::size_t size = static_cast<std::size_t>(sectorCount) * static_cast<std::size_t>(bytesPerSector);

  IDevice* device = FEngine.Devices().Get(drive);
  if (device == nullptr) return 0;
  FEngine.PumpSoon();
  const std::span<std::uint8_t> bytes(static_cast<std::uint8_t*>(buffer), size);
  return static_cast<std::uint32_t>(device->Read(startingSector * bytesPerSector, bytes));
}

std::int64_t TSectorReader::DeviceSectors(const TDriveInfo& drive) {
  const IDevice* device = FEngine.Devices().Get(drive.Drive);
  return device == nullptr ? INT64_MAX : device->Size() / FEngine.Drives().GetBytesPerSector(drive);
}

std::int64_t TSectorReader::NextDataSector(const TDriveInfo& drive, std::int64_t sector) {
  const int sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  IDevice* device = FEngine.Devices().Get(drive.Drive);
  if (device == nullptr || sector < 0 || sector > INT64_MAX / sectorSize) return sector;
  return device->NextData(sector * sectorSize) / sectorSize;
}

}  // namespace brenlow
