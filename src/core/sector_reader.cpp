// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/sector_reader.h"

#include <algorithm>
#include <chrono>

#include "core/device_table.h"
#include "core/drives.h"
#include "core/engine.h"

namespace brenlow {
namespace {

constexpr std::int64_t LargestRequest = 0x7FFF0000;  // bytes; the result is a 32-bit count
constexpr std::int64_t PieceBytes = 4096;            // what disks and systems read at once
constexpr std::int64_t SlowFailure = 10'000;         // microseconds; less costs nothing to try
constexpr int ZoneFailures = 4;                      // end to end: a zone, not single sectors
constexpr std::int64_t FirstBlindStep = 65536;       // bytes
constexpr std::int64_t LargestBlindStep = std::int64_t{1} << 60;

std::int64_t SteadyMicroseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

}  // namespace

std::uint32_t TSectorReader::ReadDriveSectors(const TDriveInfo& drive, void* buffer, std::int64_t startingSector,
                                              std::int64_t sectorCount) {
  // A read that fails inside of the drive says nothing of what lies after its end, where the copy of
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
                                       std::int64_t startingSector, TReadEffort effort) {
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  const auto zero = [&](std::int64_t from, std::int64_t until) {
    std::fill(buffer.begin() + from * sectorSize, buffer.begin() + until * sectorSize, std::uint8_t{0});
  };
  return ReadPieces(drive, buffer, startingSector, effort, zero);
}

std::int64_t TSectorReader::ReadWhatReads(const TDriveInfo& drive, std::span<std::uint8_t> buffer,
                                          std::int64_t startingSector, TReadEffort effort,
                                          const std::function<void(std::int64_t, std::int64_t)>& lost) {
  std::int64_t read = static_cast<std::int64_t>(buffer.size()) / FEngine.Drives().GetBytesPerSector(drive);
  ReadPieces(drive, buffer, startingSector, effort, [&](std::int64_t from, std::int64_t until) {
    read -= until - from;
    if (lost && from < until) lost(from, until);
  });
  return read;
}

/// Reads as much at once as can be read. `lost` is called for each stretch of the buffer that stays unread:
/// first sector and the one after the last, counted from the start of the buffer.
std::int64_t TSectorReader::ReadPieces(const TDriveInfo& drive, std::span<std::uint8_t> buffer,
                                       std::int64_t startingSector, TReadEffort effort,
                                       const std::function<void(std::int64_t, std::int64_t)>& lost) {
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  const std::int64_t total = static_cast<std::int64_t>(buffer.size()) / sectorSize;
  // Of the last sector of a file there may be a part only.
  const std::int64_t deviceSize = DeviceSize(drive);
  const std::int64_t sectors = DeviceSectors(drive) + (deviceSize % sectorSize != 0 && deviceSize != INT64_MAX ? 1 : 0);
  const std::int64_t readable = std::clamp<std::int64_t>(sectors - startingSector, 0, total);
  const bool analysing = FEngine.Analysing;
  const bool recovering = FEngine.Recovering;
  const auto stopped = [&] { return (analysing && !FEngine.Analysing) || (recovering && !FEngine.Recovering); };
  std::int64_t unread = 0;
  const auto lose = [&](std::int64_t from, std::int64_t until) {
    lost(from, until);
    unread += until - from;
    return until;
  };
  std::int64_t at = 0;
  std::int64_t wanted = readable;
  std::int64_t suspectEnd = 0;  // a request that ends here has failed and no bad sector was found since
  while (at < readable) {
    if (const std::int64_t bad = KnownBadSectors(drive, startingSector + at); bad > 0) {
      ++FFailedReads;
      at = lose(at, std::min(at + bad, readable));
      suspectEnd = 0;
      continue;
    }
    const std::int64_t count = std::min(wanted, readable - at);
    const auto place = buffer.subspan(static_cast<std::size_t>(at * sectorSize));
    const std::int64_t bytes = ReadDriveSectors(drive, place.data(), startingSector + at, count);
    std::int64_t got = bytes / sectorSize;
    if (bytes % sectorSize != 0 && (startingSector + at) * sectorSize + bytes == deviceSize) {
      ++got;
      std::fill(place.begin() + bytes, place.begin() + got * sectorSize, std::uint8_t{0});
    }
    at += got;
    if (got == count) {
      if (at >= suspectEnd) wanted *= 2;
      continue;
    }
    const bool slow = FLastFailureTook >= SlowFailure;
    const std::int64_t piece = effort == TReadEffort::Scan && slow && !TriesEverySector
                                   ? std::max<std::int64_t>(PieceBytes / sectorSize, 1)
                                   : 1;
    if (slow && (analysing || recovering)) FEngine.Pump();
    if (stopped()) {
      lose(at, readable);
      break;
    }
    if (count - got > piece) {
      suspectEnd = at + count - got;
      wanted = piece;
    } else if (got == 0) {
      LeaveOut(drive, startingSector + at, count);
      at = lose(at, at + count);
      suspectEnd = 0;
    }
  }
  lost(readable, total);
  return unread;
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
  const TRequest request{drive, *device, bytesPerSector, device->SectorSize() > 0 ? device->SectorSize() : 512};
  const std::span<std::uint8_t> bytes(static_cast<std::uint8_t*>(buffer), size);
  const std::int64_t position = startingSector * bytesPerSector;
  TReadFaults* faults = FaultsOf(drive);
  const bool beyond = position >= device->Size();
  return static_cast<std::uint32_t>(faults == nullptr || beyond ? ReadOnce(request, position, bytes)
                                                                : ReadAround(request, *faults, position, bytes));
}

// ---- sources that fail ----------------------------------------------------------------------

TReadFaults* TSectorReader::FaultsOf(TStringView key) {
  if (FFaults.empty()) return nullptr;
  const auto faults = FFaults.find(key);
  return faults == FFaults.end() ? nullptr : &faults->second;
}

/// What lies between places that failed is tried for the content of files, and on demand.
bool TSectorReader::TriesLeftOut() const { return (FEngine.Recovering || TriesEverySector) && !IsOutOfTime(); }

/// Reads up to the first place that does not read.
std::size_t TSectorReader::ReadAround(const TRequest& request, TReadFaults& faults, std::int64_t position,
                                      std::span<std::uint8_t> bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const TStretch stretch =
        ReadStretch(request, faults, position + static_cast<std::int64_t>(done), bytes.subspan(done));
    done += stretch.Got;
    if (stretch.Got < stretch.Asked || stretch.Asked == 0) break;
  }
  return done;
}

/// The start of a request, as far as the same is known of all its places.
TSectorReader::TStretch TSectorReader::ReadStretch(const TRequest& request, TReadFaults& faults, std::int64_t position,
                                                   std::span<std::uint8_t> bytes) {
  const auto sectorSize = static_cast<std::size_t>(request.SectorSize);
  const auto place = faults.At(position);
  if (place == TReadFaults::TPlace::Unreadable) return {};
  if (place == TReadFaults::TPlace::LeftOut) {
    if (!TriesLeftOut()) return {};
    bytes = bytes.first(std::min(bytes.size(), sectorSize));
  }
  const std::int64_t known = std::max(faults.EndOf(position) - position, std::int64_t{request.SectorSize});
  bytes = bytes.first(std::min(bytes.size(), static_cast<std::size_t>(known)));
  const auto suspect = faults.SuspectIn({position, position + static_cast<std::int64_t>(bytes.size())});
  std::size_t got = 0;
  if (suspect && suspect->Start == position) {
    got = ReadApart(request, position, bytes);
  } else {
    if (suspect) bytes = bytes.first(static_cast<std::size_t>(suspect->Start - position));
    got = ReadOnce(request, position, bytes);
  }
  if (got > 0) faults.SetRead({position, position + static_cast<std::int64_t>(got)});
  return {bytes.size(), got};
}

/// Sector by sector up to the first that does not read.
std::size_t TSectorReader::ReadApart(const TRequest& request, std::int64_t position, std::span<std::uint8_t> bytes) {
  const auto sectorSize = static_cast<std::size_t>(request.Unit);
  std::size_t done = 0;
  while (done < bytes.size()) {
    const auto sector = bytes.subspan(done, std::min(sectorSize, bytes.size() - done));
    const std::size_t got = ReadOnce(request, position + static_cast<std::int64_t>(done), sector);
    done += got;
    if (got < sector.size()) break;
  }
  return done;
}

std::size_t TSectorReader::ReadOnce(const TRequest& request, std::int64_t position, std::span<std::uint8_t> bytes) {
  const auto now = [this] { return Clock ? Clock() : SteadyMicroseconds(); };
  const std::int64_t begin = now();
  const std::size_t got = request.Device.Read(position, bytes);
  const std::int64_t took = now() - begin;
  const std::int64_t end = std::min(position + static_cast<std::int64_t>(bytes.size()), request.Device.Size());
  const std::int64_t start = position + static_cast<std::int64_t>(got) / request.Unit * request.Unit;
  if (start >= end || position + static_cast<std::int64_t>(got) >= end) {
    FGoodTime += took;
    return got;
  }
  FBadTime += took;
  FLastFailureTook = took;
  NoteFailure(request, {start, end});
  return got;
}

void TSectorReader::NoteFailure(const TRequest& request, TReadFaults::TRange failed) {
  TReadFaults& faults = FFaults.try_emplace(TString(request.Key), request.Device.Size(), request.Unit).first->second;
  if (failed.End - failed.Start <= request.Unit) {
    faults.SetUnreadable(failed);
  } else {
    faults.AddSuspect(failed);
  }
  if (OnFault) OnFault();
  if (FLooksForEnd) return;
  const int adjacent = faults.CountAdjacent(failed);
  if (IsOutOfTime()) {
    FWasOutOfTime = true;
    FBlindStep = std::min(std::max(FBlindStep * 2, FirstBlindStep), LargestBlindStep);
    faults.SetLeftOut({failed.Start, std::max(failed.End, failed.Start + FBlindStep)});
    return;
  }
  FBlindStep = 0;
  if (adjacent >= ZoneFailures && FLastFailureTook >= SlowFailure && !TriesEverySector) {
    LeaveOutZone(request, faults, failed.End);
  }
}

/// Looks for the end of a bad zone: away from `from` in growing steps to a sector that reads, and back
/// by halves. What lies between the places that failed is left out.
void TSectorReader::LeaveOutZone(const TRequest& request, TReadFaults& faults, std::int64_t from) {
  FLooksForEnd = true;
  const std::int64_t sectors = request.Device.Size() / request.SectorSize;
  const std::int64_t first = from / request.SectorSize;
  const auto reads = [&](std::int64_t sector) { return Reads(request, faults, sector * request.SectorSize); };
  std::int64_t good = sectors;
  std::int64_t step = 1;
  for (; good == sectors && first + step - 1 < sectors; step *= 2) {
    if (reads(first + step - 1)) good = first + step - 1;
  }
  // Past the end: from there back in growing steps. The last sectors may fail for a reason of their own.
  for (std::int64_t back = 1; good == sectors && sectors - back > first; back *= 2) {
    if (reads(sectors - back)) good = sectors - back;
  }
  // The last step that failed before the place that reads.
  while (step > 1 && first + step - 1 >= good) step /= 2;
  std::int64_t bad = std::max(first + step - 1, first - 1);
  while (good - bad > 1 && good < sectors) {
    const std::int64_t middle = bad + (good - bad) / 2;
    (reads(middle) ? good : bad) = middle;
  }
  if (good > first) faults.SetLeftOut({from, good * request.SectorSize});
  FLooksForEnd = false;
}

/// Whether the sector at the position reads; false without an access where that is known.
bool TSectorReader::Reads(const TRequest& request, TReadFaults& faults, std::int64_t position) {
  if (faults.At(position) != TReadFaults::TPlace::Unknown) return false;
  TByteDynArray sector(static_cast<std::size_t>(request.SectorSize));
  return ReadOnce(request, position, sector) == sector.size();
}

/// How many sectors from the given one on will not be read, whoever asks.
std::int64_t TSectorReader::KnownBadSectors(const TDriveInfo& drive, std::int64_t sector) {
  const TReadFaults* faults = FaultsOf(drive.Drive);
  if (faults == nullptr) return 0;
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  const std::int64_t size = DeviceSize(drive);
  std::int64_t at = sector * sectorSize;
  while (at < size) {
    const auto place = faults->At(at);
    if (place == TReadFaults::TPlace::Unknown) break;
    if (place == TReadFaults::TPlace::LeftOut && TriesLeftOut()) break;
    at = faults->EndOf(at);
  }
  return at / sectorSize - sector;
}

/// A piece of a scan that failed: its sectors are not worth the time that they would take one by one.
void TSectorReader::LeaveOut(const TDriveInfo& drive, std::int64_t sector, std::int64_t count) {
  TReadFaults* faults = FaultsOf(drive.Drive);
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  if (faults != nullptr && count > 1) faults->SetLeftOut({sector * sectorSize, (sector + count) * sectorSize});
}

bool TSectorReader::IsLeftOut(const TDriveInfo& drive, std::int64_t sector) {
  const TReadFaults* faults = FaultsOf(drive.Drive);
  const std::int64_t position = sector * FEngine.Drives().GetBytesPerSector(drive);
  return faults != nullptr && position < DeviceSize(drive) && faults->At(position) == TReadFaults::TPlace::LeftOut;
}

TSectorReader::TUnread TSectorReader::Unread() const {
  TUnread unread;
  unread.Sectors = UnreadableSectors();
  for (const auto& [key, faults] : FFaults) unread.LeftOut += faults.LeftOutSectors();
  return unread;
}

std::int64_t TSectorReader::UnreadableSectors() const {
  std::int64_t sectors = 0;
  for (const auto& [key, faults] : FFaults) sectors += faults.UnreadableSectors();
  return sectors;
}

void TSectorReader::ForgetFaults() {
  FFaults.clear();
  FLastFailedDrive.clear();
}

void TSectorReader::ForgetFaults(const TString& key) {
  FFaults.erase(key);
  if (FLastFailedDrive == key) FLastFailedDrive.clear();
}

const TRescueMap* TSectorReader::KnownFaults(TStringView key) const {
  const auto faults = FFaults.find(key);
  return faults == FFaults.end() ? nullptr : &faults->second.Places();
}

void TSectorReader::AddKnownFaults(const TString& key, const TRescueMap& known) {
  IDevice* device = FEngine.Devices().Get(key);
  if (device == nullptr) return;
  TReadFaults& faults = FFaults.try_emplace(key, device->Size(), std::max(device->SectorSize(), 1)).first->second;
  for (std::int64_t at = 0; at < known.Size(); at = known.EndOfRange(at)) {
    const TMapStatus status = known.At(at);
    if (status == TMapStatus::Bad) faults.SetUnreadable({at, known.EndOfRange(at)});
    if (status == TMapStatus::NotScraped || status == TMapStatus::NotTrimmed)
      faults.SetLeftOut({at, known.EndOfRange(at)});
  }
}

void TSectorReader::RenewBadTime() {
  FBadTime = FGoodTime = FBlindStep = 0;
  FWasOutOfTime = false;
  for (auto& [key, faults] : FFaults) faults.ForgetLeftOut();
}

// ---- facts of the device --------------------------------------------------------------------

std::int64_t TSectorReader::DeviceSize(const TDriveInfo& drive) {
  const IDevice* device = FEngine.Devices().Get(drive.Drive);
  return device == nullptr ? INT64_MAX : device->Size();
}

std::int64_t TSectorReader::DeviceSectors(const TDriveInfo& drive) {
  const std::int64_t size = DeviceSize(drive);
  return size == INT64_MAX ? size : size / FEngine.Drives().GetBytesPerSector(drive);
}

int TSectorReader::PlainFile(const TDriveInfo& drive) {
  const IDevice* device = FEngine.Devices().Get(drive.Drive);
  return device == nullptr || FaultsOf(drive.Drive) != nullptr ? -1 : device->PlainFile();
}

std::int64_t TSectorReader::NextSectorToScan(const TDriveInfo& drive, std::int64_t sector) {
  const std::int64_t readable = sector + KnownBadSectors(drive, sector);
  // A damaged or cut-off volume may promise terabytes beyond the end of its source: no sector is wanted there.
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  if (readable > (DeviceSize(drive) - 1) / sectorSize) return INT64_MAX;
  return NextDataSector(drive, readable);
}

std::int64_t TSectorReader::NextDataSector(const TDriveInfo& drive, std::int64_t sector) {
  const int sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  IDevice* device = FEngine.Devices().Get(drive.Drive);
  if (device == nullptr || sector < 0 || sector > INT64_MAX / sectorSize) return sector;
  return device->NextData(sector * sectorSize) / sectorSize;
}

}  // namespace brenlow
