// SPDX-License-Identifier: GPL-3.0-or-later
// The one road by which sectors are read. Reads never retry and never write.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/drive_records.h"
#include "core/types.h"

namespace brenlow {

class TEngine;

/// One grain of a sparse virtual disk: grain number in the extent file and the sector where it
/// lies there; location 0 means that it was never written.
struct TVMwareGrain {
  std::uint32_t Number = 0;
  std::uint32_t Location = 0;
};
struct TVMwareFile {
  std::int64_t StartingSector = 0;  ///< of the extent on the virtual disk
  std::int64_t SectorsCount = 0;
  std::vector<TVMwareGrain> Grains;  ///< ascending by number
  TString strPath;
};
/// A virtual disk in several or sparse files; `Drive` is the key by which a read finds it.
struct TVMwareInfo {
  TString Drive;
  int GrainSize = 128;  ///< sectors
  std::vector<TVMwareFile> Files;
};

class TSectorReader {
 public:
  explicit TSectorReader(TEngine& engine) : FEngine(engine) {}

  /// Reads `SectorCount` sectors from the absolute sector `StartingSector` of the device that
  /// the drive lies on (the caller adds `TDriveInfo::FirstSector`). Returns bytes read, which may
  /// be short, or 0 on any failure; what was not read of the buffer stays untouched. A start
  /// beyond the end of a drive that has failed there already returns 0 without a device access.
  std::uint32_t ReadDriveSectors(const TDriveInfo& drive, void* buffer, std::int64_t startingSector,
                                 std::int64_t sectorCount);

  /// Fills the whole buffer of whole sectors from the absolute sector `startingSector` on. What
  /// cannot be read, and what lies beyond the end of the device, is zeros. Where a read fails, 4 KiB
  /// at a time are tried; after `mostFailures` bad ones the rest is left out.
  void ReadOrZero(const TDriveInfo& drive, std::span<std::uint8_t> buffer, std::int64_t startingSector,
                  int mostFailures);

  /// The same as `ReadDriveSectors` for a device by its key; bytes per sector below 1 count as 512.
  std::uint32_t ReadDeviceSectors(TStringView drive, void* buffer, int bytesPerSector, std::int64_t startingSector,
                                  std::int64_t sectorCount);

  /// Sectors of the device that the drive lies on; INT64_MAX when that is not known.
  std::int64_t DeviceSectors(const TDriveInfo& drive);

  /// Count of reads of drives that returned nothing or less than asked since the start.
  std::uint64_t FailedReads() const { return FFailedReads; }
  /// Bytes read from drives since the start.
  std::uint64_t BytesRead() const { return FBytesRead; }

 private:
  struct TRedirect {
    TString Path;
    std::int64_t Sector = 0;
    bool FillZero = false;
  };
  TRedirect RedirectVMware(const TVMwareInfo& info, TStringView drive, std::int64_t sector) const;

  TEngine& FEngine;
  const void* FLastFailedDrive = nullptr;  // identity of the record, never followed
  std::int64_t FLastFailedSector = 0;
  std::uint64_t FFailedReads = 0;
  std::uint64_t FBytesRead = 0;
};

}  // namespace brenlow
