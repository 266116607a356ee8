// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/extent_reader.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"

namespace brenlow {
namespace {

constexpr std::size_t MaxStreams = 4;          // kept ready: a recovery, a preview, a viewer
constexpr std::int64_t MaxRequest = 64 << 20;  // bytes
constexpr int MaxUnitsBefore = 1024;           // that are looked through for a sector to repeat
constexpr int NothingBefore = MaxUnitsBefore + 1;

std::int64_t VolumeBytes(const TDriveInfo& drive, std::int64_t sectorSize) {
  return drive.SectorsCount > INT64_MAX / sectorSize ? INT64_MAX : drive.SectorsCount * sectorSize;
}

void FillZeros(std::span<std::uint8_t> bytes) { std::fill(bytes.begin(), bytes.end(), std::uint8_t{0}); }

std::span<std::uint8_t> Part(std::span<std::uint8_t> bytes, std::int64_t first, std::int64_t count) {
  return bytes.subspan(static_cast<std::size_t>(first), static_cast<std::size_t>(count));
}

}  // namespace

// ---- streams that are ready -----------------------------------------------------------------

std::shared_ptr<TFileStream> TExtentReader::Open(const TDriveInfo& drive, const TFileInfo& file, int stream,
                                                 const std::function<bool(TFileStream&)>& map) {
  const TKey key{
      drive.Drive,      drive.FirstSector,   drive.SectorsCount, drive.FileSystem,        stream,
      file.FirstSector, file.OffsetInSector, file.FirstCluster,  file.DataStartingSector, file.JournalPosition,
      file.aSize,       file.DefaultSize,    file.blnDeleted};
  const auto kept = std::find_if(FKept.begin(), FKept.end(), [&](const TKept& k) { return k.Key == key; });
  if (kept != FKept.end()) {
    FKept.splice(FKept.begin(), FKept, kept);
    return FKept.front().Stream;
  }
  const auto made = std::make_shared<TFileStream>();
  if (!map(*made)) return nullptr;
  if (FKept.size() >= MaxStreams) FKept.pop_back();
  FKept.push_front({key, made});
  return made;
}

// ---- bytes of a stream ----------------------------------------------------------------------

void TExtentReader::Read(const TDriveInfo& drive, TFileStream& stream, std::int64_t start, std::int64_t size,
                         TByteDynArray& result, int shift) {
  if (start < 0 || size <= 0 || start >= stream.Size) return result.clear();
  const std::int64_t wanted = start + std::min(size, stream.Size - start);
  const std::int64_t end = std::min(wanted, stream.Extents.EndNear(wanted));
  if (start >= end) return result.clear();
  // With room for the rest of the last sector, whole sectors can be read straight to their place.
  const std::int64_t slack = FEngine.Drives().GetBytesPerSector(drive) - 1;
  result.resize(static_cast<std::size_t>(end - start + slack));
  std::int64_t at = start;
  while (at < end) {
    const auto extent = stream.At(at, std::min(end, at + MaxRequest));
    if (!extent) break;
    const std::int64_t count = std::min({extent->End() - at, end - at, MaxRequest});
    const auto bytes = Part(result, at - start, count);
    ReadExtent(drive, stream, *extent, at, bytes, result.size() - static_cast<std::size_t>(at - start), shift);
    if (extent->Estimated) FEngine.Reader().NoteEstimatedRead();
    at += count;
    FEngine.Pump();
  }
  result.resize(static_cast<std::size_t>(at - start));
}

TFileStretch TExtentReader::StretchAt(const TDriveInfo& drive, TFileStream& stream, std::int64_t start,
                                      std::int64_t size) {
  const std::optional<TExtent> extent = start < 0 || size <= 0 ? std::nullopt : stream.At(start, start + size);
  if (!extent || extent->Estimated) return {};
  const std::int64_t length = std::min(extent->End() - start, size);
  if (extent->Kind == TExtentKind::Zeros) return {.Length = length, .IsHole = true};
  const int file = FEngine.Reader().PlainFile(drive);
  if (extent->Kind != TExtentKind::Stored || file < 0) return {};
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  const std::int64_t place = extent->Place + (start - extent->Offset);
  const std::int64_t volume = stream.VolumeBytes < 0 ? VolumeBytes(drive, sectorSize) : stream.VolumeBytes;
  if (place < 0 || place > volume - length) return {};
  const std::int64_t position = drive.FirstSector * sectorSize + place;
  const std::int64_t data = FEngine.Reader().NextDataSector(drive, position / sectorSize) * sectorSize;
  if (data > position) return {.Length = std::min(length, data - position), .IsHole = true};
  return {.Length = length, .File = file, .Position = position};
}

/// Fills `bytes` from byte `start` of the stream on, which lies in the extent. `room` bytes may be written over.
void TExtentReader::ReadExtent(const TDriveInfo& drive, TFileStream& stream, const TExtent& extent, std::int64_t start,
                               std::span<std::uint8_t> bytes, std::size_t room, int shift) {
  switch (extent.Kind) {
    case TExtentKind::Stored:
      return ReadStored(drive, stream, extent, start, bytes, room, shift);
    case TExtentKind::Inline:
      return ReadInline(stream, extent.Place + (start - extent.Offset), bytes);
    case TExtentKind::Packed:
      return ReadPacked(drive, stream, extent, start, bytes, shift);
    case TExtentKind::Lost:
      FEngine.Reader().NoteFailedRead();
      return FillZeros(bytes);
    case TExtentKind::Zeros:
      return FillZeros(bytes);
  }
}

void TExtentReader::ReadInline(const TFileStream& stream, std::int64_t place, std::span<std::uint8_t> bytes) {
  const auto there = static_cast<std::int64_t>(stream.Inline.size());
  const std::int64_t first = std::clamp<std::int64_t>(place, 0, there);
  const std::int64_t count = place < 0 ? 0 : std::min(there - first, static_cast<std::int64_t>(bytes.size()));
  std::copy_n(stream.Inline.begin() + first, count, bytes.begin());
  FillZeros(bytes.subspan(static_cast<std::size_t>(count)));
  if (stream.InlineDamaged || count < static_cast<std::int64_t>(bytes.size())) FEngine.Reader().NoteFailedRead();
}

/// A unit is unpacked as far as it is asked for, and kept for who reads on in small pieces.
void TExtentReader::ReadPacked(const TDriveInfo& drive, TFileStream& stream, const TExtent& unit, std::int64_t start,
                               std::span<std::uint8_t> bytes, int shift) {
  const std::int64_t skip = start - unit.Offset;
  const std::int64_t wanted = skip + static_cast<std::int64_t>(bytes.size());
  const bool kept = stream.UnpackedUnit == unit.Offset && wanted <= static_cast<std::int64_t>(stream.Unpacked.size());
  if (!kept && !stream.Unpack) {
    FEngine.Reader().NoteFailedRead();
    return FillZeros(bytes);
  }
  if (!kept) {
    TByteDynArray head(static_cast<std::size_t>(wanted));
    const bool whole = stream.Unpack(drive, unit, head, shift);
    stream.Unpacked = std::move(head);
    stream.UnpackedUnit = unit.Offset;
    stream.UnpackedWhole = whole;
  }
  if (!stream.UnpackedWhole) FEngine.Reader().NoteFailedRead();
  std::copy_n(stream.Unpacked.begin() + skip, bytes.size(), bytes.begin());
}

void TExtentReader::ReadStored(const TDriveInfo& drive, TFileStream& stream, const TExtent& extent, std::int64_t start,
                               std::span<std::uint8_t> bytes, std::size_t room, int shift) {
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  const std::int64_t place = extent.Place + (start - extent.Offset);
  const std::int64_t skip = (place % sectorSize + sectorSize) % sectorSize;
  const std::int64_t size = CeilDiv(skip + static_cast<std::int64_t>(bytes.size()), sectorSize) * sectorSize;
  const bool direct = skip == 0 && static_cast<std::size_t>(size) <= room;
  TByteDynArray around(direct ? 0 : static_cast<std::size_t>(size));  // where bytes do not begin or end with a sector
  const auto whole = direct ? std::span(bytes.data(), static_cast<std::size_t>(size)) : std::span(around);
  const std::int64_t volume = stream.VolumeBytes < 0 ? VolumeBytes(drive, sectorSize) : stream.VolumeBytes;
  const std::vector<TBufferRange> lost = ReadSectors(drive, place - skip, volume, whole, shift);
  if (!lost.empty()) {
    const bool inUnits = stream.UnitBytes > 0 && stream.UnitBytes % sectorSize == 0 && (start - skip) % sectorSize == 0;
    if (stream.Unreadable == TUnreadableRule::RepeatUnitBefore && inUnits) {
      RepeatUnits({drive, stream, start - skip, place - skip, whole, shift}, lost);
    } else {
      for (const TBufferRange& range : lost) FillZeros(whole.subspan(range.First, range.End - range.First));
    }
  }
  if (!direct) std::memcpy(bytes.data(), whole.data() + skip, bytes.size());
}

bool TExtentReader::ReadPlace(const TDriveInfo& drive, std::int64_t place, std::span<std::uint8_t> buffer, int shift,
                              std::vector<TBufferRange>* lost) {
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  const std::int64_t skip = (place % sectorSize + sectorSize) % sectorSize;
  const std::int64_t size = CeilDiv(skip + static_cast<std::int64_t>(buffer.size()), sectorSize) * sectorSize;
  const bool direct = size == static_cast<std::int64_t>(buffer.size());
  TByteDynArray around(direct ? 0 : static_cast<std::size_t>(size));
  const auto whole = direct ? buffer : std::span<std::uint8_t>(around);
  const auto unread = ReadSectors(drive, place - skip, VolumeBytes(drive, sectorSize), whole, shift);
  for (const TBufferRange& range : unread) {
    FillZeros(whole.subspan(range.First, range.End - range.First));
    const std::size_t first = std::max(range.First, static_cast<std::size_t>(skip)) - static_cast<std::size_t>(skip);
    const std::size_t end = std::min(range.End - std::min(range.End, static_cast<std::size_t>(skip)), buffer.size());
    if (lost != nullptr && first < end) lost->push_back({first, end});
  }
  if (!direct) std::memcpy(buffer.data(), whole.data() + skip, buffer.size());
  return unread.empty();
}

/// Reads whole sectors from a place on the volume on. The result is what could not be read, which stays as it was.
std::vector<TBufferRange> TExtentReader::ReadSectors(const TDriveInfo& drive, std::int64_t place,
                                                     std::int64_t volumeBytes, std::span<std::uint8_t> bytes,
                                                     int shift) {
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  const auto size = static_cast<std::int64_t>(bytes.size());
  const std::int64_t room = place < 0 ? 0 : std::max<std::int64_t>(volumeBytes - place, 0) / sectorSize * sectorSize;
  const std::int64_t inside = std::min(size, room);
  std::vector<TBufferRange> lost;
  const auto lose = [&](std::int64_t first, std::int64_t end) {
    if (first < end) lost.push_back({static_cast<std::size_t>(first), static_cast<std::size_t>(end)});
  };
  if (inside > 0) {
    const std::int64_t sector = drive.FirstSector + place / sectorSize + shift;
    FEngine.Reader().ReadWhatReads(
        drive, Part(bytes, 0, inside), sector, TReadEffort::Content,
        [&](std::int64_t from, std::int64_t until) { lose(from * sectorSize, until * sectorSize); });
  }
  lose(inside, size);
  if (!lost.empty()) FEngine.Reader().NoteFailedRead();
  return lost;
}

// ---- sectors that cannot be read ------------------------------------------------------------

/// Gives each lost sector the bytes of the unit before it in the stream.
void TExtentReader::RepeatUnits(const TSectors& sectors, const std::vector<TBufferRange>& lost) {
  const auto sectorSize = static_cast<std::size_t>(FEngine.Drives().GetBytesPerSector(sectors.Drive));
  const auto unit = static_cast<std::size_t>(sectors.Stream.UnitBytes);
  std::unordered_map<std::size_t, int> unitsBack;  // by lost sector: how far its bytes have come
  for (const TBufferRange& range : lost) {
    for (std::size_t at = range.First; at < range.End; at += sectorSize) {
      const auto sector = sectors.Bytes.subspan(at, sectorSize);
      int back = NothingBefore;
      if (at < unit) {
        back = RepeatFromBefore(sectors, sectors.Offset + static_cast<std::int64_t>(at), sector);
      } else {
        const auto before = unitsBack.find(at - unit);
        back = before == unitsBack.end() ? 1 : std::min(before->second + 1, NothingBefore);
        std::memcpy(sector.data(), sector.data() - unit, sectorSize);
      }
      if (back == NothingBefore) FillZeros(sector);
      unitsBack[at] = back;
    }
    FEngine.Pump();
  }
}

/// Looks for the sector in the units before the request. The result is how many units back it was found, or
/// `NothingBefore`.
int TExtentReader::RepeatFromBefore(const TSectors& sectors, std::int64_t offset, std::span<std::uint8_t> sector) {
  TFileStream& stream = sectors.Stream;
  const auto size = static_cast<std::int64_t>(sector.size());
  const std::int64_t volume = stream.VolumeBytes < 0 ? VolumeBytes(sectors.Drive, size) : stream.VolumeBytes;
  for (int back = 1; back <= MaxUnitsBefore; ++back) {
    const std::int64_t at = offset - back * stream.UnitBytes;
    const auto extent = stream.Extents.At(at, at);
    if (!extent) break;
    if (extent->Kind != TExtentKind::Stored) {
      FillZeros(sector);
      return back;
    }
    const std::int64_t place = extent->Place + (at - extent->Offset);
    if (place >= 0 && ReadSectors(sectors.Drive, place, volume, sector, sectors.Shift).empty()) return back;
  }
  return NothingBefore;
}

// ---- layout ---------------------------------------------------------------------------------

TFileFragments FragmentsOf(const TDriveInfo& drive, TFileStream& stream) {
  TFileFragments fragments;
  const std::int64_t sectorSize = drive.BytesPerSector;
  if (sectorSize <= 0) return fragments;
  for (std::int64_t at = 0; at < stream.Size;) {
    const auto extent = stream.Extents.At(at, at);
    if (!extent) break;
    const std::int64_t count = std::min(extent->End(), stream.Size) - at;
    const bool placed = extent->Kind == TExtentKind::Stored || extent->Kind == TExtentKind::Packed;
    const std::int64_t place = placed && extent->Place >= 0 ? extent->Place + (at - extent->Offset) : -1;
    const std::int64_t sector = place < 0 ? -1 : place / sectorSize;
    const std::int64_t sectors = CeilDiv(at + count, sectorSize) - at / sectorSize;
    const bool joins = !fragments.empty() &&
                       (sector < 0 ? fragments.back().FirstSectorInDrive < 0
                                   : fragments.back().FirstSectorInDrive >= 0 &&
                                         fragments.back().FirstSectorInDrive + fragments.back().SectorCount == sector);
    if (joins) {
      fragments.back().SectorCount += sectors;
    } else {
      fragments.push_back({sector, at / sectorSize, sectors});
    }
    at += count;
  }
  return fragments;
}

std::int64_t StoredBytes(TFileStream& stream) {
  std::int64_t bytes = 0;
  for (std::int64_t at = 0;;) {
    const auto extent = stream.Extents.At(at, at);
    if (!extent) return bytes;
    if (extent->Kind == TExtentKind::Stored) bytes += extent->End() - at;
    if (extent->Kind == TExtentKind::Packed) bytes += extent->PackedBytes;
    at = extent->End();
  }
}

}  // namespace brenlow
