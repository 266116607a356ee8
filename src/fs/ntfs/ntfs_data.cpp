// SPDX-License-Identifier: GPL-3.0-or-later
// Content of files and streams: resident, in clusters, sparse, compressed, over several records.
#include <algorithm>
#include <cstring>

#include "core/drives.h"
#include "core/engine.h"
#include "core/lznt1.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/ntfs/ntfs.h"

namespace brenlow {

using namespace ntfs;

namespace {

constexpr std::int64_t LargestUnit = 65536;  // bytes that the stream of one unit decompresses to
// A stream that is worth decompressing is never longer than its data, stored chunks and all.
constexpr std::int64_t LargestPackedUnit = LargestUnit + 2 * 16;
constexpr unsigned LargestUnitPower = 16;

/// The run that holds a cluster of a stream, or the first one after it.
TRuns::const_iterator RunOf(const TRuns& runs, std::int64_t vcn) {
  return std::upper_bound(runs.begin(), runs.end(), vcn,
                          [](std::int64_t v, const TRun& run) { return v < run.Vcn + run.Count; });
}

std::int64_t LcnOf(const TRuns& runs, std::int64_t vcn) {
  const auto run = RunOf(runs, vcn);
  return run == runs.end() || run->Lcn < 0 || vcn < run->Vcn ? -1 : run->Lcn + (vcn - run->Vcn);
}

/// Whether any of these clusters is one that no record found tells of.
bool HasMissing(const TRuns& runs, std::int64_t vcn, std::int64_t count) {
  for (auto run = RunOf(runs, vcn); run != runs.end() && run->Vcn < vcn + count; ++run) {
    if (run->Lcn == MissingLcn) return true;
  }
  return false;
}

/// Whether sectors lie in the volume, the one after its stated end (with the copy of the boot sector)
/// included.
bool IsInVolume(const TDriveInfo& drive, std::int64_t first, std::int64_t sectors) {
  return first >= 0 && first <= drive.SectorsCount && sectors <= drive.SectorsCount + 1 - first;
}

std::int64_t ClusterCount(const TRuns& runs) { return runs.empty() ? 0 : runs.back().Vcn + runs.back().Count; }

TStringView TypeName(std::int64_t type) {
  switch (type) {
    case 0x10:
      return u"$STANDARD_INFORMATION";
    case 0x20:
      return u"$ATTRIBUTE_LIST";
    case 0x30:
      return u"$FILE_NAME";
    case 0x40:
      return u"$OBJECT_ID";
    case 0x50:
      return u"$SECURITY_DESCRIPTOR";
    case 0x60:
      return u"$VOLUME_NAME";
    case 0x70:
      return u"$VOLUME_INFORMATION";
    case 0x80:
      return u"$DATA";
    case 0x90:
      return u"$INDEX_ROOT";
    case 0xA0:
      return u"$INDEX_ALLOCATION";
    case 0xB0:
      return u"$\u0412\u0418\u0422\u041C\u0410\u0420";  // in Cyrillic letters that look like BITMAP; only shown
    case 0xC0:
      return u"$REPARSE_POINT";
    case 0xD0:
      return u"$EA_INFORMATION";
    case 0xE0:
      return u"$\u0415\u0410";  // the same for EA
    case 0x100:
      return u"$LOGGED_UTILITY_STREAM";
    default:
      return {};
  }
}

}  // namespace

// ---- clusters -------------------------------------------------------------------------------

/// Reads whole sectors from `offset` bytes (whole sectors too) behind the start of a cluster on. A
/// fault costs a sector, which repeats the bytes of the cluster before it, so that offsets stay; the
/// result is false then.
bool TNTFS::ReadClusters(const TDriveInfo& drive, std::int64_t cluster, std::int64_t offset,
                         std::span<std::uint8_t> place, int incDataSector) {
  const int sectorSize = drive.BytesPerSector;
  const std::int64_t first = cluster * NTFSInfo(drive).SectorsPerCluster + offset / sectorSize;
  const auto sectors = static_cast<std::int64_t>(place.size()) / sectorSize;
  const bool inside = IsInVolume(drive, first, sectors);
  const std::int64_t start = drive.FirstSector + first + incDataSector;
  if (inside && FEngine.Reader().ReadDriveSectors(drive, place.data(), start, sectors) == place.size()) return true;
  const std::int64_t step = std::max<std::int64_t>(NTFSInfo(drive).SectorsPerCluster, 1);
  TByteDynArray single(static_cast<std::size_t>(step * sectorSize));
  bool whole = true;
  for (std::int64_t at = 0; at < sectors;) {
    const std::int64_t count = std::min({step - (first + at) % step, sectors - at, step});
    const auto bytes = std::span(single).first(static_cast<std::size_t>(count * sectorSize));
    const bool read = inside && FEngine.Reader().ReadWhatReads(drive, bytes, start + at, TReadEffort::Content) == count;
    if (!read) {
      FEngine.Reader().NoteFailedRead();
      whole = false;
    }
    std::memcpy(place.data() + at * sectorSize, single.data(), static_cast<std::size_t>(count * sectorSize));
    at += count;
    FEngine.Pump();
  }
  return whole;
}

// ---- records of a file ----------------------------------------------------------------------

/// The record of a row: where it was found, an image from the log, or by its number.
bool TNTFS::ReadRecordOf(const TDriveInfo& drive, const TFile& file, TByteDynArray& record, TMFTRecord& place) {
  const TFileInfo& info = file.FileInfo;
  const auto& images = NTFSInfo(drive).LogMFTs;
  if (info.FirstSector >= 0) {
    place = {info.FirstSector + drive.DefaultFirstSector - drive.FirstSector, info.OffsetInSector};
  } else if (info.JournalPosition > 0 && info.JournalPosition < static_cast<std::int64_t>(images.size())) {
    record = images[static_cast<std::size_t>(info.JournalPosition)];
    return true;
  } else if (!GetSectorByMFTNumber(drive, info.FirstCluster, place, true)) {
    return false;
  }
  return ReadRecord(drive, place, record);
}

/// Calls `callable(record, place, attribute)` for all attributes of a file, record by record in the
/// order of its attribute list, until it answers false.
template <typename TCallable>
void TNTFS::ForEachAttribute(const TDriveInfo& drive, const TFile& file, TCallable&& callable) {
  TByteDynArray base;
  TByteDynArray extension;
  TMFTRecord place;
  const TFileInfo& info = file.FileInfo;
  if (NTFSInfo(drive).MFTRecordSize < 1 || drive.BytesPerSector < 1) return;
  if (!ReadRecordOf(drive, file, base, place)) return;
  const std::int64_t number = info.FirstClusterInfo == TFirstClusterInfo::fciNormal ? info.FirstCluster : -1;
  TInt64DynArray records{info.FirstCluster};
  for (std::size_t i = 0; i < records.size() && i < MostRecords; ++i) {
    if (i > 0) {
      if (!GetSectorByMFTNumber(drive, records[i], place, true) || !ReadRecord(drive, place, extension)) continue;
      if (!IsExtensionOf(base, number, extension)) continue;
    }
    for (TAttributeWalk walk(i > 0 ? extension : base); walk.Next();) {
      if (walk->Type() == AttrAttributeList) AddListedRecords(ReadAttributeList(drive, *walk), records);
      if (!callable(place, *walk)) return;
    }
  }
}

/// Makes a stream ready for reading, unless it is the one read last. False when there is none.
bool TNTFS::OpenStream(const TDriveInfo& drive, const TFile& file, int adsNumber) {
  TStream& open = FStream;
  const TFileInfo& info = file.FileInfo;
  const TMFTRecord key{info.FirstSector >= 0 ? info.FirstSector : info.FirstCluster, info.OffsetInSector};
  if (open.Drive == &drive && open.Place.Sector == key.Sector && open.Place.Offset == key.Offset &&
      open.Journal == info.JournalPosition && open.AdsNumber == adsNumber) {
    if (open.Damaged) FEngine.Reader().NoteFailedRead();
    return true;
  }
  TStream stream;
  const std::uint64_t failedReads = FEngine.Reader().FailedReads();
  struct TPiece {
    std::int64_t FirstVcn;
    TRuns Runs;
  };
  std::vector<TPiece> pieces;
  int number = -1;
  bool found = false;
  struct TUnit {
    bool Compressed = false;
    unsigned Power = 0;
  } unit;  // of a piece met before the start of the stream
  std::uint32_t type = 0;
  TString name;
  const std::int64_t clusters = VolumeClusters(drive);
  ForEachAttribute(drive, file, [&](const TMFTRecord&, const TAttribute& attribute) {
    const bool starts = !attribute.NonResident() || attribute.FirstVcn() == 0;
    if (attribute.Type() != 0 && starts) ++number;
    bool wanted = adsNumber < 0 && attribute.Type() == AttrData && attribute.IsDefaultDataStream();
    if (adsNumber >= 0) {
      wanted = number == adsNumber && (starts || (found && attribute.Type() == type && attribute.Name() == name));
    }
    if (!wanted) return true;
    if (!starts && !found) unit = {attribute.Compressed(), attribute.CompressionUnit()};
    if (starts && !found) {
      found = true;
      type = attribute.Type();
      name = attribute.Name();
      stream.Resident = !attribute.NonResident();
      stream.Size = stream.Resident ? attribute.ValueLength() : attribute.RealSize();
      stream.ValidSize = attribute.ValidSize();
      stream.Compressed = attribute.Compressed() && attribute.CompressionUnit() > 0;
      stream.UnitClusters = std::int64_t{1} << std::min(attribute.CompressionUnit(), LargestUnitPower);
      const auto value = attribute.Value();
      stream.Value.assign(value.begin(), value.end());
    }
    if (attribute.NonResident()) pieces.push_back({attribute.FirstVcn(), attribute.Runs(clusters)});
    return true;
  });
  if (!found) {
    if (pieces.empty() || adsNumber >= 0) return false;
    // The record with the start is gone: what the others tell still has its place.
    stream.Size = stream.ValidSize = info.DefaultSize;
    stream.Compressed = unit.Compressed && unit.Power > 0;
    stream.UnitClusters = std::int64_t{1} << std::min(unit.Power, LargestUnitPower);
  }
  std::stable_sort(pieces.begin(), pieces.end(),
                   [](const TPiece& a, const TPiece& b) { return a.FirstVcn < b.FirstVcn; });
  for (const TPiece& piece : pieces) {
    const std::int64_t end = ClusterCount(stream.Runs);
    if (stream.Resident || piece.FirstVcn < end) continue;
    // A piece that is missing leaves a gap, as long as that is a length that a volume can have.
    if (piece.FirstVcn - end > clusters) break;
    if (piece.FirstVcn > end) stream.Runs.push_back({end, MissingLcn, piece.FirstVcn - end});
    for (TRun run : piece.Runs) {
      if (run.Count > INT64_MAX / 2 - piece.FirstVcn - run.Vcn) break;
      run.Vcn += piece.FirstVcn;
      stream.Runs.push_back(run);
    }
  }
  stream.Damaged = stream.Resident && FEngine.Reader().FailedReads() != failedReads;
  stream.Drive = &drive;
  stream.Place = key;
  stream.Journal = info.JournalPosition;
  stream.AdsNumber = adsNumber;
  open = std::move(stream);
  return true;
}

// ---- content --------------------------------------------------------------------------------

void TNTFS::GetFileData(TDriveInfo& drive, TByteDynArray& result, TFile& file, int adsNumber, std::int64_t start,
                        std::int64_t size, int incDataSector) {
  result.clear();
  if (start < 0 || size <= 0) return;
  if (adsNumber < 0 && start >= file.FileInfo.DefaultSize) return;
  if (!OpenStream(drive, file, adsNumber)) return;
  const TStream& stream = FStream;
  const std::int64_t end = adsNumber < 0 ? file.FileInfo.DefaultSize : stream.Size;
  if (start >= end) return;
  size = std::min(size, end - start);
  if (stream.Resident) {
    const auto length = static_cast<std::int64_t>(stream.Value.size());
    if (start >= length) return;
    const auto from = stream.Value.begin() + static_cast<std::ptrdiff_t>(start);
    result.assign(from, from + static_cast<std::ptrdiff_t>(std::min(size, length - start)));
  } else if (ClusterBytes(drive) > 0 && stream.Compressed) {
    ReadCompressed(drive, result, start, size, incDataSector);
  } else if (ClusterBytes(drive) > 0) {
    ReadPlain(drive, result, start, size, incDataSector);
  }
}

void TNTFS::ReadPlain(const TDriveInfo& drive, TByteDynArray& result, std::int64_t start, std::int64_t size,
                      int incDataSector) {
  const TStream& stream = FStream;
  const std::int64_t clusterBytes = ClusterBytes(drive);
  const std::int64_t sectorSize = drive.BytesPerSector;
  const std::int64_t clusters = ClusterCount(stream.Runs);
  if (start / clusterBytes >= clusters) return;
  // Whole sectors are read straight to their place; what lies before `start` is cut off at last.
  const std::int64_t there = clusters > INT64_MAX / clusterBytes ? INT64_MAX - sectorSize : clusters * clusterBytes;
  const std::int64_t end = std::min(start + size, there);
  const std::int64_t from = start / sectorSize * sectorSize;
  const std::int64_t until = CeilDiv(end, sectorSize) * sectorSize;
  result.assign(static_cast<std::size_t>(until - from), 0);
  for (auto run = RunOf(stream.Runs, from / clusterBytes); run != stream.Runs.end(); ++run) {
    const std::int64_t runStart = run->Vcn * clusterBytes;
    if (runStart >= until) break;
    if (run->Lcn == MissingLcn) FEngine.Reader().NoteFailedRead();
    if (run->Lcn < 0) continue;
    const std::int64_t first = std::max(from, runStart);
    const std::int64_t last = std::min(until, (run->Vcn + run->Count) * clusterBytes);
    const auto place =
        std::span(result).subspan(static_cast<std::size_t>(first - from), static_cast<std::size_t>(last - first));
    ReadClusters(drive, run->Lcn, first - runStart, place, incDataSector);
  }
  // What was never written is zeros, whatever lies there.
  const std::int64_t valid = stream.ValidSize;
  if (valid >= 0 && valid < stream.Size && valid < until) {
    const std::int64_t zerosFrom = std::max(valid, from);
    std::fill(result.begin() + (zerosFrom - from), result.end(), std::uint8_t{0});
  }
  result.resize(static_cast<std::size_t>(end - from));
  result.erase(result.begin(), result.begin() + (start - from));
}

/// Reads a stream of compression units: each stands at its number times its size, whatever became of the
/// others.
void TNTFS::ReadCompressed(const TDriveInfo& drive, TByteDynArray& result, std::int64_t start, std::int64_t size,
                           int incDataSector) {
  const TStream& stream = FStream;
  const std::int64_t clusterBytes = ClusterBytes(drive);
  const std::int64_t clusters = ClusterCount(stream.Runs);
  if (clusters > INT64_MAX / clusterBytes) return;
  const std::int64_t unitBytes = stream.UnitClusters * clusterBytes;
  const std::int64_t end = std::min(start + size, clusters * clusterBytes);
  TByteDynArray plain;
  while (start < end) {
    const std::int64_t unit = start / unitBytes;
    const std::int64_t skip = start - unit * unitBytes;
    const std::int64_t count = std::min(unitBytes - skip, end - start);
    // No more of a long unit than is asked for, in whole clusters.
    const std::int64_t wanted = std::min(CeilDiv(skip + count, clusterBytes) * clusterBytes, unitBytes);
    plain.resize(static_cast<std::size_t>(wanted));
    ReadUnit(drive, unit, plain, incDataSector);
    result.insert(result.end(), plain.begin() + skip, plain.begin() + (skip + count));
    start += count;
    FEngine.Pump();
  }
}

/// The first bytes of a unit, in whole clusters. What fails is zeros, and counts as a failed read.
void TNTFS::ReadUnit(const TDriveInfo& drive, std::int64_t unit, std::span<std::uint8_t> bytes, int incDataSector) {
  const TRuns& runs = FStream.Runs;
  const std::int64_t clusterBytes = ClusterBytes(drive);
  const std::int64_t first = unit * FStream.UnitClusters;
  const std::int64_t count = std::min(FStream.UnitClusters, ClusterCount(runs) - first);
  std::fill(bytes.begin(), bytes.end(), std::uint8_t{0});
  const auto clusterOf = [&](std::span<std::uint8_t> place, std::int64_t index) {
    return place.subspan(static_cast<std::size_t>(index * clusterBytes), static_cast<std::size_t>(clusterBytes));
  };
  const bool missing = HasMissing(runs, first, count);
  if (missing) FEngine.Reader().NoteFailedRead();
  const bool packed = LcnOf(runs, first) >= 0 && LcnOf(runs, first + count - 1) < 0;
  if (!packed) {
    const std::int64_t asked = std::min(count, static_cast<std::int64_t>(bytes.size()) / clusterBytes);
    for (std::int64_t i = 0; i < asked; ++i) {
      const std::int64_t lcn = LcnOf(runs, first + i);
      if (lcn >= 0) ReadCluster(drive, lcn, clusterOf(bytes, i), incDataSector);
    }
    return;
  }
  if (missing) return;  // where its stream ends is not known
  std::int64_t present = 1;
  while (present < count && LcnOf(runs, first + present) >= 0) ++present;
  // More than a unit can come from is not even read.
  const std::int64_t useful = std::min(present, CeilDiv(LargestPackedUnit, clusterBytes));
  TByteDynArray stream(static_cast<std::size_t>(useful * clusterBytes));
  std::vector<bool> unreadable(static_cast<std::size_t>(useful));
  for (std::int64_t i = 0; i < useful; ++i) {
    const std::int64_t lcn = LcnOf(runs, first + i);
    unreadable[static_cast<std::size_t>(i)] = !ReadCluster(drive, lcn, clusterOf(stream, i), incDataSector);
  }
  const auto isUnreadable = [&](std::size_t from, std::size_t until) {
    const auto size = static_cast<std::size_t>(clusterBytes);
    for (std::size_t i = from / size; i * size < until; ++i) {
      if (unreadable[i]) return true;
    }
    return false;
  };
  const auto there = std::min<std::size_t>(bytes.size(), LargestUnit);
  const bool whole = SalvageLZNT1(stream, bytes.first(there), isUnreadable);
  if (!whole || there < bytes.size()) FEngine.Reader().NoteFailedRead();
}

/// Reads a cluster, or whole sectors of its start; false, and zeros, when they cannot be read, which counts as a failed
/// read.
bool TNTFS::ReadCluster(const TDriveInfo& drive, std::int64_t lcn, std::span<std::uint8_t> place, int incDataSector) {
  const std::int64_t first = lcn * NTFSInfo(drive).SectorsPerCluster;
  const auto sectors = static_cast<std::int64_t>(place.size()) / drive.BytesPerSector;
  TSectorReader& reader = FEngine.Reader();
  if (IsInVolume(drive, first, sectors)) {
    const std::int64_t start = drive.FirstSector + first + incDataSector;
    if (reader.ReadDriveSectors(drive, place.data(), start, sectors) == place.size()) return true;
  }
  reader.NoteFailedRead();
  std::fill(place.begin(), place.end(), std::uint8_t{0});
  return false;
}

// ---- what a file consists of ----------------------------------------------------------------

void TNTFS::FillADS(const TFile& file, TADSDynArray& result) {
  result.clear();
  const TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(file.FileInfo.aDriveNumber)) return;
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(file.FileInfo.aDriveNumber)];
  ForEachAttribute(drive, file, [&](const TMFTRecord&, const TAttribute& attribute) {
    if (attribute.Type() == 0 || (attribute.NonResident() && attribute.FirstVcn() != 0)) return true;
    TADS ads;
    ads.aType = attribute.Type();
    ads.sType = TypeName(ads.aType);
    ads.Name = attribute.Name();
    const bool isData = attribute.Type() == AttrData;
    const bool isDefault = isData && attribute.IsDefaultDataStream();
    ads.aSize = attribute.NonResident() ? attribute.RealSize() : attribute.ValueLength();
    if (isDefault) ads.aSize = file.FileInfo.DefaultSize;
    ads.IsSystem = !isData || isDefault;
    result.push_back(std::move(ads));
    return true;
  });
}

void TNTFS::GetFileFragments(const TFile& file, TFileFragments& result, bool& resident, int adsNumber) {
  result.clear();
  resident = true;
  const TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(file.FileInfo.aDriveNumber)) return;
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(file.FileInfo.aDriveNumber)];
  const std::int64_t perCluster = NTFSInfo(drive).SectorsPerCluster;
  if (perCluster < 1 || drive.BytesPerSector < 1) return;
  const std::int64_t total = CeilDiv(file.FileInfo.aSize, drive.BytesPerSector);
  std::int64_t position = 0;
  int number = -1;
  ForEachAttribute(drive, file, [&](const TMFTRecord& place, const TAttribute& attribute) {
    ++number;
    if (attribute.Type() != AttrData || (adsNumber >= 0 && adsNumber != number)) return true;
    resident = !attribute.NonResident();
    if (resident) {
      result.push_back({place.Sector, 0, 1});
      return true;
    }
    for (const TRun& run : attribute.Runs(VolumeClusters(drive))) {
      const std::int64_t sectors = std::min(run.Count, total / perCluster + 1) * perCluster;
      const std::int64_t count = std::min(sectors, total - position);
      if (count <= 0) return false;
      const std::int64_t first = run.Lcn < 0 ? -1 : run.Lcn * perCluster;
      const bool joins =
          !result.empty() && (first < 0 ? result.back().FirstSectorInDrive < 0
                                        : result.back().FirstSectorInDrive >= 0 &&
                                              result.back().FirstSectorInDrive + result.back().SectorCount == first);
      if (joins) {
        result.back().SectorCount += count;
      } else {
        result.push_back({first, position, count});
      }
      position += count;
    }
    return true;
  });
}

std::int64_t TNTFS::GetSizeOnDisk(const TFile& file) {
  const TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(file.FileInfo.aDriveNumber)) return 0;
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(file.FileInfo.aDriveNumber)];
  if (drive.BytesPerSector < 1 || NTFSInfo(drive).SectorsPerCluster < 1) return 0;
  const std::int64_t volume = VolumeClusters(drive);
  std::int64_t clusters = 0;
  ForEachAttribute(drive, file, [&](const TMFTRecord&, const TAttribute& attribute) {
    if (attribute.Type() != AttrData || !attribute.NonResident()) return true;
    for (const TRun& run : attribute.Runs(volume)) {
      if (run.Lcn >= 0) clusters += run.Count;
    }
    return true;
  });
  return std::min(clusters, volume) * ClusterBytes(drive);
}

}  // namespace brenlow
