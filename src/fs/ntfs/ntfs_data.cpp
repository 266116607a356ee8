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

constexpr std::int64_t LargestUnit = 65536;  // bytes that one unit decompresses to
// A stream that is worth decompressing is never longer than its data, stored chunks and all.
constexpr std::int64_t LargestPackedUnit = LargestUnit + 2 * 16;
constexpr unsigned LargestUnitPower = 16;

/// The run that holds a cluster of a stream, or the first one behind it.
TRuns::const_iterator RunOf(const TRuns& runs, std::int64_t vcn) {
  return std::upper_bound(runs.begin(), runs.end(), vcn,
                          [](std::int64_t v, const TRun& run) { return v < run.Vcn + run.Count; });
}

std::int64_t LcnOf(const TRuns& runs, std::int64_t vcn) {
  const auto run = RunOf(runs, vcn);
  return run == runs.end() || run->Lcn < 0 || vcn < run->Vcn ? -1 : run->Lcn + (vcn - run->Vcn);
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
/// fault costs one cluster, which repeats the bytes of the one before it, so that offsets stay.
void TNTFS::ReadClusters(const TDriveInfo& drive, std::int64_t cluster, std::int64_t offset,
                         std::span<std::uint8_t> place, int incDataSector) {
  const int sectorSize = drive.BytesPerSector;
  const std::int64_t first = cluster * drive.NTFSInfo.SectorsPerCluster + offset / sectorSize;
  const auto sectors = static_cast<std::int64_t>(place.size()) / sectorSize;
  const bool inside = cluster >= 0 && first <= drive.SectorsCount && sectors <= drive.SectorsCount + 1 - first;
  const std::int64_t start = drive.FirstSector + first + incDataSector;
  if (inside && FEngine.Reader().ReadDriveSectors(drive, place.data(), start, sectors) == place.size()) return;
  const std::int64_t step = std::max<std::int64_t>(drive.NTFSInfo.SectorsPerCluster, 1);
  TByteDynArray single(static_cast<std::size_t>(step * sectorSize));
  for (std::int64_t at = 0; at < sectors;) {
    const std::int64_t count = std::min({step - (first + at) % step, sectors - at, step});
    if (inside) FEngine.Reader().ReadDriveSectors(drive, single.data(), start + at, count);
    std::memcpy(place.data() + at * sectorSize, single.data(), static_cast<std::size_t>(count * sectorSize));
    at += count;
    FEngine.Pump();
  }
}

// ---- records of a file ----------------------------------------------------------------------

/// The record of a row: where it was found, an image from the log, or by its number.
bool TNTFS::ReadRecordOf(const TDriveInfo& drive, const TFile& file, TByteDynArray& record, TMFTRecord& place) {
  const TFileInfo& info = file.FileInfo;
  const auto& images = drive.NTFSInfo.LogMFTs;
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
  TByteDynArray record;
  TMFTRecord place;
  if (drive.NTFSInfo.MFTRecordSize < 1 || drive.BytesPerSector < 1) return;
  if (!ReadRecordOf(drive, file, record, place)) return;
  TInt64DynArray records{file.FileInfo.FirstCluster};
  for (std::size_t i = 0; i < records.size() && i < MostRecords; ++i) {
    if (i > 0) {
      if (!GetSectorByMFTNumber(drive, records[i], place, true)) return;
      if (!ReadRecord(drive, place, record)) continue;
    }
    for (TAttributeWalk walk(record); walk.Next();) {
      if (walk->Type() == AttrAttributeList) ReadAttributeList(drive, *walk, records);
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
    return true;
  }
  TStream stream;
  struct TPiece {
    std::int64_t FirstVcn;
    TRuns Runs;
  };
  std::vector<TPiece> pieces;
  int number = -1;
  bool found = false;
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
  if (!found) return false;
  std::stable_sort(pieces.begin(), pieces.end(),
                   [](const TPiece& a, const TPiece& b) { return a.FirstVcn < b.FirstVcn; });
  for (const TPiece& piece : pieces) {
    // A piece that is missing ends the stream: what follows would stand at the wrong place.
    if (stream.Resident || piece.FirstVcn != ClusterCount(stream.Runs)) continue;
    for (TRun run : piece.Runs) {
      if (run.Count > INT64_MAX / 2 - piece.FirstVcn - run.Vcn) break;
      run.Vcn += piece.FirstVcn;
      stream.Runs.push_back(run);
    }
  }
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

void TNTFS::ReadCompressed(const TDriveInfo& drive, TByteDynArray& result, std::int64_t start, std::int64_t size,
                           int incDataSector) {
  TStream& stream = FStream;
  const std::int64_t clusterBytes = ClusterBytes(drive);
  const std::int64_t clusters = ClusterCount(stream.Runs);
  // Where a unit begins in the file depends on the units before it: reading goes on where it was.
  std::int64_t unit = start >= stream.NextPosition ? stream.NextUnit : 0;
  std::int64_t position = start >= stream.NextPosition ? stream.NextPosition : 0;
  const auto append = [&](std::span<const std::uint8_t> bytes) {
    const auto length = static_cast<std::int64_t>(bytes.size());
    const std::int64_t skip = std::clamp<std::int64_t>(start - position, 0, length);
    result.insert(result.end(), bytes.begin() + skip, bytes.end());
    position += length;
  };
  TByteDynArray packed;
  TByteDynArray plain;
  for (; unit < CeilDiv(clusters, stream.UnitClusters) && static_cast<std::int64_t>(result.size()) < size; ++unit) {
    if (position <= start) {
      stream.NextUnit = unit;
      stream.NextPosition = position;
    }
    const std::int64_t first = unit * stream.UnitClusters;
    const std::int64_t count = std::min(stream.UnitClusters, clusters - first);
    if (LcnOf(stream.Runs, first) >= 0 && LcnOf(stream.Runs, first + count - 1) < 0) {
      std::int64_t present = 1;
      while (present < count && LcnOf(stream.Runs, first + present) >= 0) ++present;
      // More than a unit can come from is not even read.
      const std::int64_t useful = std::min(present, CeilDiv(LargestPackedUnit, clusterBytes));
      packed.resize(static_cast<std::size_t>(useful * clusterBytes));
      for (std::int64_t i = 0; i < useful; ++i) {
        const auto place = std::span(packed).subspan(static_cast<std::size_t>(i * clusterBytes),
                                                     static_cast<std::size_t>(clusterBytes));
        ReadClusters(drive, LcnOf(stream.Runs, first + i), 0, place, incDataSector);
      }
      if (DecompressLZNT1(packed, plain, LargestUnit)) {
        append(plain);
      } else {
        position += clusterBytes + present * clusterBytes;
      }
    } else {
      for (std::int64_t i = 0; i < count && static_cast<std::int64_t>(result.size()) < size; ++i) {
        if (position + clusterBytes <= start) {
          position += clusterBytes;
          continue;
        }
        plain.assign(static_cast<std::size_t>(clusterBytes), 0);
        const std::int64_t lcn = LcnOf(stream.Runs, first + i);
        if (lcn >= 0) ReadClusters(drive, lcn, 0, plain, incDataSector);
        append(plain);
      }
    }
    FEngine.Pump();
  }
  if (static_cast<std::int64_t>(result.size()) > size) result.resize(static_cast<std::size_t>(size));
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
  const std::int64_t perCluster = drive.NTFSInfo.SectorsPerCluster;
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
  if (drive.BytesPerSector < 1 || drive.NTFSInfo.SectorsPerCluster < 1) return 0;
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
