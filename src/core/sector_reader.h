// SPDX-License-Identifier: GPL-3.0-or-later
// The only path by which sectors are read. Reads never retry and never write.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>

#include "core/drive_records.h"
#include "core/read_faults.h"
#include "core/types.h"

namespace brenlow {

class IDevice;
class TEngine;

/// How much a place that does not read is worth.
enum class TReadEffort {
  Scan,     ///< sectors apart only where failures take no time
  Content,  ///< every sector on its own
};

class TSectorReader {
 public:
  explicit TSectorReader(TEngine& engine) : FEngine(engine) {}

  /// Reads `SectorCount` sectors from the absolute sector `StartingSector` of the device that
  /// the drive lies on (the caller adds `TDriveInfo::FirstSector`). Returns bytes read, which may
  /// be short, or 0 on any failure; what was not read of the buffer stays untouched. A start
  /// beyond the end of a drive that has failed beyond it already returns 0 without a device access.
  std::uint32_t ReadDriveSectors(const TDriveInfo& drive, void* buffer, std::int64_t startingSector,
                                 std::int64_t sectorCount);

  /// Fills the whole buffer of whole sectors from the absolute sector `startingSector` on. What
  /// cannot be read, and what lies beyond the end of the device, is zeros. The result is how many
  /// sectors of the device could not be read or were left out.
  std::int64_t ReadOrZero(const TDriveInfo& drive, std::span<std::uint8_t> buffer, std::int64_t startingSector,
                          TReadEffort effort);
  /// The same, but what cannot be read stays untouched in the buffer. The result is how many sectors
  /// of the buffer were read. `lost` gets the others: the first of a stretch and the one after its last,
  /// counted from the start of the buffer.
  std::int64_t ReadWhatReads(const TDriveInfo& drive, std::span<std::uint8_t> buffer, std::int64_t startingSector,
                             TReadEffort effort,
                             const std::function<void(std::int64_t first, std::int64_t end)>& lost = nullptr);

  /// The same as `ReadDriveSectors` for a device by its key; bytes per sector below 1 count as 512.
  std::uint32_t ReadDeviceSectors(TStringView drive, void* buffer, int bytesPerSector, std::int64_t startingSector,
                                  std::int64_t sectorCount);

  /// First sector at or after `sector` of the drive's device that may hold anything but zeros.
  std::int64_t NextDataSector(const TDriveInfo& drive, std::int64_t sector);
  /// The same for scans: places that are known not to read are passed over too.
  std::int64_t NextSectorToScan(const TDriveInfo& drive, std::int64_t sector);

  /// The file that the drive lies in, when its bytes may be copied without reading them here (`IDevice::PlainFile`);
  /// -1 when there is none, or something in it could not be read.
  int PlainFile(const TDriveInfo& drive);

  /// Sectors of the device that the drive lies on; INT64_MAX when that is not known.
  std::int64_t DeviceSectors(const TDriveInfo& drive);

  /// Bytes of that device; INT64_MAX when that is not known.
  std::int64_t DeviceSize(const TDriveInfo& drive);

  /// Count of reads of drives that returned nothing or less than asked since the start.
  std::uint64_t FailedReads() const { return FFailedReads; }
  /// A driver delivers zeros or guesses for bytes that it should have had: counts as a failed read.
  void NoteFailedRead() { ++FFailedReads; }
  /// A driver delivers bytes from a place that it had to guess while reading (a chain across an
  /// unreadable table, for one).
  void NoteEstimatedRead() { ++FEstimatedReads; }
  /// Count of such reads since the start.
  std::uint64_t EstimatedReads() const { return FEstimatedReads; }
  /// Bytes read from drives since the start.
  std::uint64_t BytesRead() const { return FBytesRead; }

  // ---- sources that fail ----
  // A sector that failed is not asked for again. Where failures take time, the end of a zone that does
  // not read is looked for in growing steps, and the sectors between the places that failed are left
  // out: scans pass over them, content still has each of them tried. When failures have taken
  // `BadTimeLimit` longer than all that was read, more and more is left out after each, content or not.

  struct TUnread {
    std::int64_t Sectors = 0;  ///< tried alone, in vain
    std::int64_t LeftOut = 0;  ///< not tried, or only in one request with others
  };
  /// Of all devices together. To be asked for at the end, not while something runs.
  TUnread Unread() const;
  /// `Sectors` of it alone, at any time.
  std::int64_t UnreadableSectors() const;
  /// True when places were left out because failures took too long.
  bool WasOutOfTime() const { return FWasOutOfTime; }
  /// Nothing is left out in scans: every sector of a bad zone is tried.
  bool TriesEverySector = false;
  static constexpr std::int64_t UsualBadTime = 120'000'000;  // microseconds
  std::int64_t BadTimeLimit = UsualBadTime;                  ///< microseconds
  std::int64_t ImageBadTimeLimit = INT64_MAX;                ///< in place of it while an image is written
  /// True for a sector that is not asked for because places around it failed, though it never did alone.
  bool IsLeftOut(const TDriveInfo& drive, std::int64_t sector);
  /// The clock that requests are measured by, in microseconds; another one in tests.
  std::function<std::int64_t()> Clock;
  /// A new run begins: there is time again for places that fail, and what was left out may be tried.
  /// Sectors that failed stay known.
  void RenewBadTime();
  /// What is known of a device that did not read everywhere (`Bad`, and `NotScraped` for what was left out); null
  /// while all of it reads.
  const TRescueMap* KnownFaults(TStringView key) const;
  /// The same from an earlier run, of a map as long as the device.
  void AddKnownFaults(const TString& key, const TRescueMap& known);
  /// A read has failed. It may be called from within any read.
  std::function<void()> OnFault;
  /// The sources may have changed: nothing is known of them any more.
  void ForgetFaults();
  /// The same for one device, by its key.
  void ForgetFaults(const TString& key);

 private:
  struct TRequest {
    TStringView Key;
    IDevice& Device;
    int SectorSize;
    int Unit;  ///< bytes that fail by themselves: a drive may be read in larger sectors than its device has
  };
  struct TStretch {
    std::size_t Asked = 0;  ///< bytes; 0 where nothing is asked of the device
    std::size_t Got = 0;    ///< bytes
  };
  std::size_t ReadAround(const TRequest& request, TReadFaults& faults, std::int64_t position,
                         std::span<std::uint8_t> bytes);
  TStretch ReadStretch(const TRequest& request, TReadFaults& faults, std::int64_t position,
                       std::span<std::uint8_t> bytes);
  std::size_t ReadApart(const TRequest& request, std::int64_t position, std::span<std::uint8_t> bytes);
  std::size_t ReadOnce(const TRequest& request, std::int64_t position, std::span<std::uint8_t> bytes);
  void NoteFailure(const TRequest& request, TReadFaults::TRange failed);
  void LeaveOutZone(const TRequest& request, TReadFaults& faults, std::int64_t from);
  bool Reads(const TRequest& request, TReadFaults& faults, std::int64_t position);
  void LeaveOut(const TDriveInfo& drive, std::int64_t sector, std::int64_t count);
  TReadFaults* FaultsOf(TStringView key);
  std::int64_t KnownBadSectors(const TDriveInfo& drive, std::int64_t sector);
  std::int64_t ReadPieces(const TDriveInfo& drive, std::span<std::uint8_t> buffer, std::int64_t startingSector,
                          TReadEffort effort, const std::function<void(std::int64_t, std::int64_t)>& lost);
  bool IsOutOfTime() const { return FBadTime > BadTimeLimit && FBadTime - BadTimeLimit > FGoodTime; }
  bool TriesLeftOut() const;

  TEngine& FEngine;
  // The last read beyond a drive's end that failed: key and first sector of that drive, and the place.
  TString FLastFailedDrive;
  std::int64_t FLastFailedStart = 0;
  std::int64_t FLastFailedSector = 0;
  std::uint64_t FFailedReads = 0;
  std::uint64_t FEstimatedReads = 0;
  std::uint64_t FBytesRead = 0;

  std::map<TString, TReadFaults, std::less<>> FFaults;  // by the key of the device; empty while all reads
  std::int64_t FGoodTime = 0;                           // microseconds, as all times here
  std::int64_t FBadTime = 0;
  std::int64_t FLastFailureTook = 0;
  std::int64_t FBlindStep = 0;  // bytes
  bool FLooksForEnd = false;
  bool FWasOutOfTime = false;
};

}  // namespace brenlow
