// SPDX-License-Identifier: GPL-3.0-or-later
// The one road by which sectors are read. Reads never retry and never write.
#pragma once

#include <cstdint>
#include <span>

#include "core/drive_records.h"
#include "core/types.h"

namespace brenlow {

class TEngine;

class TSectorReader {
 public:
  explicit TSectorReader(TEngine& engine) : FEngine(engine) {}

  /// Reads `SectorCount` sectors from the absolute sector `StartingSector` of the device that
  /// the drive lies on (the caller adds `TDriveInfo::FirstSector`). Returns bytes read, which may
  /// be short, or 0 on any failure; what was not read of the buffer stays untouched. A start
  /// beyond the end of a drive that has failed beyond it already returns 0 without a device access.
  std::uint32_t ReadDriveSectors(const TDriveInfo& drive, void* buffer, std::int64_t startingSector,
                                 std::int64_t sectorCount);

  /// For `ReadOrZero`: a scan leaves a bad region after so many failures, a copy of content never.
  static constexpr int ScanFailures = 4;
  static constexpr int AnyFailures = INT32_MAX;
  /// Fills the whole buffer of whole sectors from the absolute sector `startingSector` on. What
  /// cannot be read, and what lies beyond the end of the device, is zeros. Where a read fails, 4 KiB
  /// at a time are tried; after `mostFailures` bad ones the rest is left out. The result is how
  /// many sectors of the device could not be read or were left out.
  std::int64_t ReadOrZero(const TDriveInfo& drive, std::span<std::uint8_t> buffer, std::int64_t startingSector,
                          int mostFailures);

  /// The same as `ReadDriveSectors` for a device by its key; bytes per sector below 1 count as 512.
  std::uint32_t ReadDeviceSectors(TStringView drive, void* buffer, int bytesPerSector, std::int64_t startingSector,
                                  std::int64_t sectorCount);

  /// First sector at or after `sector` of the drive's device that may hold anything but zeros.
  std::int64_t NextDataSector(const TDriveInfo& drive, std::int64_t sector);

  /// Sectors of the device that the drive lies on; INT64_MAX when that is not known.
  std::int64_t DeviceSectors(const TDriveInfo& drive);

  /// Count of reads of drives that returned nothing or less than asked since the start.
  std::uint64_t FailedReads() const { return FFailedReads; }
  /// A driver hands out zeros or guesses for bytes that it should have had: counts as a failed read.
  void NoteFailedRead() { ++FFailedReads; }
  /// A driver hands out bytes from a place that it had to guess while reading (a chain across an
  /// unreadable table, for one).
  void NoteEstimatedRead() { ++FEstimatedReads; }
  /// Count of such reads since the start.
  std::uint64_t EstimatedReads() const { return FEstimatedReads; }
  /// Bytes read from drives since the start.
  std::uint64_t BytesRead() const { return FBytesRead; }

 private:
  TEngine& FEngine;
  // The last read beyond a drive's end that failed: key and first sector of that drive, and the place.
  TString FLastFailedDrive;
  std::int64_t FLastFailedStart = 0;
  std::int64_t FLastFailedSector = 0;
  std::uint64_t FFailedReads = 0;
  std::uint64_t FEstimatedReads = 0;
  std::uint64_t FBytesRead = 0;
};

}  // namespace brenlow
