// SPDX-License-Identifier: GPL-3.0-or-later
// Recognition of NTFS volumes, their geometry, the table of file records, label and free space.
#include <algorithm>
#include <bit>

#include "core/drives.h"
#include "core/engine.h"
#include "core/extent_reader.h"
#include "core/language.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/ntfs/ntfs.h"

namespace brenlow {

using namespace ntfs;

namespace {

constexpr int UsualRecordSize = 1024;          // bytes
constexpr std::int64_t LargestRecord = 65536;  // bytes
constexpr unsigned LargestClusterPower = 20;   // sectors, as a power of two
constexpr std::int64_t BitmapRecord = 6;
constexpr std::size_t VolumeRecord = 3;

int RecordSize(unsigned byte, const TDriveInfo& drive) {
  std::int64_t size = 0;
  if (byte < 0x80) {
    size = std::int64_t{byte} * ClusterBytes(drive);
  } else if (256 - byte < 32) {
    size = std::int64_t{1} << (256 - byte);
  }
  const bool plausible = size >= 256 && size <= LargestRecord && size % drive.BytesPerSector == 0;
  return plausible ? static_cast<int>(size) : std::max(UsualRecordSize, drive.BytesPerSector);
}

}  // namespace

std::int64_t TNTFS::BackedClusters(const TDriveInfo& drive) const {
  if (NTFSInfo(drive).SectorsPerCluster < 1) return 0;
  const std::int64_t device = FEngine.Reader().DeviceSectors(drive);
  const std::int64_t there = device == INT64_MAX ? device : std::max<std::int64_t>(device - drive.FirstSector, 0);
  return std::min(drive.SectorsCount, there) / NTFSInfo(drive).SectorsPerCluster;
}

// ---- recognition ----------------------------------------------------------------------------

bool TNTFS::IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const {
  if (start > buffer.size() || buffer.size() - start < 512) return false;
  const auto boot = buffer.subspan(start);
  const unsigned bytesPerSector = ReadLe16(boot, 0x0B);
  const unsigned sectorsPerCluster = boot[0x0D];
  return boot[0x1FE] == 0x55 && boot[0x1FF] == 0xAA && bytesPerSector != 0 && bytesPerSector % 512 == 0 &&
         (sectorsPerCluster == 1 || (sectorsPerCluster != 0 && sectorsPerCluster % 2 == 0)) &&
         std::all_of(&boot[0x0E], &boot[0x15], [](std::uint8_t c) { return c == 0; });
}

/// True when the last sector of the drive holds the copy of a boot sector of just this drive.
bool TNTFS::IsBackupAtEnd(const TDriveInfo& drive) {
  const int bytesPerSector = FEngine.Drives().GetBytesPerSector(drive);
  TByteDynArray sector(static_cast<std::size_t>(bytesPerSector));
  if (drive.SectorsCount <= 1) return false;
  const std::int64_t last = drive.FirstSector + drive.SectorsCount - 1;
  if (FEngine.Reader().ReadDriveSectors(drive, sector.data(), last, 1) == 0 || !IsPartition(sector, 0)) return false;
  // The volume is a sector shorter than its partition, which makes room for the copy.
  return static_cast<std::int64_t>(ReadLe64(sector, 0x28)) == drive.SectorsCount - 1;
}

/// True when one of the first records of a table lies at its place: the system files, whose records are
/// the first ones, are there on every volume.
bool TNTFS::HasRecordOfRun(const TDriveInfo& volume, std::int64_t firstSector, std::int64_t records) {
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(volume);
  const std::int64_t recordSize = std::max<std::int64_t>(UsualRecordSize, sectorSize);
  TByteDynArray bytes(static_cast<std::size_t>(sectorSize));
  TSectorReader& reader = FEngine.Reader();
  if (reader.ReadDriveSectors(volume, bytes.data(), firstSector, 1) == bytes.size() && IsMFT(bytes, 0)) return true;
  bytes.resize(static_cast<std::size_t>(records * recordSize));
  reader.ReadOrZero(volume, bytes, firstSector, TReadEffort::Scan);
  for (std::int64_t i = 1; i < records; ++i) {
    const auto record = std::span<const std::uint8_t>(bytes).subspan(static_cast<std::size_t>(i * recordSize),
                                                                     static_cast<std::size_t>(recordSize));
    const std::int64_t number = IsMFT(record, 0) ? OwnNumber(record) : 0;
    if (IsMFT(record, 0) && (number < 0 || number == i)) return true;
  }
  return false;
}

bool TNTFS::IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> boot) {
  constexpr std::int64_t systemRecords = 16;
  constexpr std::int64_t mirroredRecords = 4;
  const unsigned byte = boot[0x0D];
  if (byte > 0x80 && 256 - byte > LargestClusterPower) return false;
  const std::int64_t sectorsPerCluster = byte <= 0x80 ? byte : std::int64_t{1} << (256 - byte);
  const auto has = [&](std::size_t field, std::int64_t records) {
    const std::uint64_t cluster = ReadLe64(boot, field);
    if (cluster == 0 || cluster >= MostClusters) return false;
    const std::int64_t sector = volume.FirstSector + static_cast<std::int64_t>(cluster) * sectorsPerCluster;
    return HasRecordOfRun(volume, sector, records);
  };
  return has(0x30, systemRecords) || has(0x38, mirroredRecords);
}

TCopyFound TNTFS::RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> /*head*/, int bytesPerSector) {
  if (!IsBackupAtEnd(drive)) return {};
  TByteDynArray copy(static_cast<std::size_t>(bytesPerSector));
  FEngine.Reader().ReadDriveSectors(drive, copy.data(), drive.FirstSector + drive.SectorsCount - 1, 1);
  return {TFileSystem::fsNTFS, IsVolumeSound(drive, copy)};
}

std::vector<TDriveProperty> TNTFS::Properties(const TDriveInfo& drive) {
  const TNTFSInfo& info = NTFSInfo(drive);
  return {{TText::InfoRecordSize, "record_size", info.MFTRecordSize, true},
          {TText::InfoRecords, "records", info.MFTRecordCount, false}};
}

bool TNTFS::SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> boot) {
  const std::uint64_t length = ReadLe64(boot, 0x28);
  if (ReadLe16(boot, 0x0B) != volume.BytesPerSector || length == 0 || length > MostClusters) return false;
  volume.SectorsCount = static_cast<std::int64_t>(length);
  if (IsVolumeSound(volume, boot)) return true;
  volume.FirstSector -= volume.SectorsCount;
  return volume.FirstSector >= 0 && IsVolumeSound(volume, boot);
}

// ---- volume fields --------------------------------------------------------------------------

int TNTFS::GetSectorsPerCluster(const TDriveInfo& drive) const {
  return NTFSInfo(drive).SectorsPerCluster > 0 ? NTFSInfo(drive).SectorsPerCluster : 8;
}

bool TNTFS::GetDriveInfo(TDriveInfo& drive, bool getFreeSize, bool forSubDrive) {
  ClearMemory();
  if (ReadBootSector(drive, 0, getFreeSize, forSubDrive)) return true;
  std::int64_t sectors = drive.SectorsCount;
  if (sectors <= 0) {
    const std::int64_t device = FEngine.Reader().DeviceSectors(drive);
    sectors = device == INT64_MAX ? 0 : device - drive.FirstSector;
  }
  if (sectors <= 0) return false;
  if (ReadBootSector(drive, sectors - 1, getFreeSize, forSubDrive)) return true;
  // The size that a boot sector states ends before its copy.
  if (ReadBootSector(drive, sectors, getFreeSize, forSubDrive)) return true;
  for (std::int64_t at = sectors / 2 - 2; at <= sectors / 2 + 2; ++at) {
    if (at > 0 && ReadBootSector(drive, at, getFreeSize, forSubDrive)) return true;
  }
  return false;
}

bool TNTFS::ReadBootSector(TDriveInfo& drive, std::int64_t sector, bool getFreeSize, bool forSubDrive) {
  TByteDynArray boot(static_cast<std::size_t>(FEngine.Drives().GetBytesPerSector(drive)));
  if (FEngine.Reader().ReadDriveSectors(drive, boot.data(), drive.FirstSector + sector, 1) == 0) return false;
  if (!IsPartition(boot, 0)) return false;
  TNTFSInfo& info = NTFSInfo(drive);
  if (drive.BytesPerSector == 0) {
    drive.BytesPerSector = ReadLe16(boot, 0x0B);
    drive.DefaultBytesPerSector = drive.BytesPerSector;
  }
  if (drive.BytesPerSector < 1) return false;
  if (info.SectorsPerCluster == 0) {
    const unsigned byte = boot[0x0D];
    if (byte > 0x80 && 256 - byte > LargestClusterPower) return false;
    info.SectorsPerCluster = byte <= 0x80 ? static_cast<int>(byte) : 1 << (256 - byte);
    drive.DefaultSectorsPerCluster = info.SectorsPerCluster;
  }
  if (info.SectorsPerCluster < 1 || ClusterBytes(drive) > LargestCluster) return false;
  const auto firstSectorOf = [&](std::size_t field) {
    const std::uint64_t cluster = ReadLe64(boot, field);
    return cluster < MostClusters ? static_cast<std::int64_t>(cluster) * info.SectorsPerCluster : 0;
  };
  info.MFTFirstSector = firstSectorOf(0x30);
  info.MFTMirrorSector = firstSectorOf(0x38);
  info.MFTRecordSize = RecordSize(boot[0x40], drive);
  if (drive.SectorsCount == 0) {
    drive.SectorsCount =
        static_cast<std::int64_t>(std::min<std::uint64_t>(ReadLe64(boot, 0x28), INT64_MAX / LargestCluster));
    drive.DefaultSectorsCount = drive.SectorsCount;
  }
  if (!forSubDrive) FillMFTStructure(drive);
  if (getFreeSize && drive.aFreeSize < 0) ComputeFreeSize(drive);
  if (!forSubDrive && drive.VolumeName.empty()) ReadVolumeName(drive);
  return true;
}

// ---- the table of records -------------------------------------------------------------------

void TNTFS::FillMFTStructure(TDriveInfo& drive) {
  const TNTFSInfo& info = NTFSInfo(drive);
  if (info.SectorsPerCluster < 1 || info.MFTFirstSector <= 0) return;
  NTFSInfo(drive).IsMFTStructureFilled = true;
  if (FillMFTStructureFrom(drive, info.MFTFirstSector)) return;
  // The table's own record is gone: its mirror says the same.
  if (info.MFTMirrorSector > 0) FillMFTStructureFrom(drive, info.MFTMirrorSector);
}

bool TNTFS::FillMFTStructureFrom(TDriveInfo& drive, std::int64_t firstSector) {
  TNTFSInfo& info = NTFSInfo(drive);
  info.MFTStructure.clear();
  info.MFTRecordCount = 0;
  info.MFTUsage.clear();
  info.MFTUsageUnknown.clear();
  TInt64DynArray records{0};
  TByteDynArray record;
  for (std::size_t i = 0; i < records.size() && i < MostListed; ++i) {
    TMFTRecord place{firstSector, 0, 0, 0};
    if (i > 0 && !GetSectorByMFTNumber(drive, records[i], place, false)) continue;
    if (!ReadRecord(drive, place, record)) continue;
    for (TAttributeWalk walk(record); walk.Next();) {
      if (walk->Type() == AttrData && walk->IsDefaultDataStream()) AddMFTRuns(drive, *walk);
      if (walk->Type() != AttrBitmap) continue;
      AddMFTUsage(drive, *walk);
      break;
    }
    // The list stands before the data, but what it names is found by them.
    for (TAttributeWalk walk(record); walk.Next();) {
      if (walk->Type() == AttrAttributeList) AddListedRecords(ReadAttributeList(drive, *walk), records);
    }
  }
  return info.MFTRecordCount > 0;
}

/// Adds the records that begin in the clusters of a piece of the table.
void TNTFS::AddMFTRuns(TDriveInfo& drive, const TAttribute& data) {
  TNTFSInfo& info = NTFSInfo(drive);
  const std::int64_t clusterBytes = ClusterBytes(drive);
  const std::int64_t recordSize = info.MFTRecordSize;
  // No table is larger than what it lies on.
  const std::int64_t clusters = BackedClusters(drive) + 1;
  if (data.FirstVcn() > clusters) return;
  for (const TRun& run : data.Runs(VolumeClusters(drive))) {
    const std::int64_t vcn = data.FirstVcn() + run.Vcn;
    if (vcn >= clusters) return;
    const std::int64_t start = vcn * clusterBytes;
    const std::int64_t end = std::min(vcn + run.Count, clusters) * clusterBytes;
    const std::int64_t sector = run.Lcn < 0 ? 0 : run.Lcn * info.SectorsPerCluster;
    if (!info.MFTStructure.empty() && info.MFTStructure.back().HeadSectors > 0 &&
        info.MFTStructure.back().TailSector == 0) {
      info.MFTStructure.back().TailSector = sector;
    }
    const std::int64_t first = CeilDiv(start, recordSize);
    const std::int64_t behind = end / recordSize;  // the first that does not end here
    const auto sectorOf = [&](std::int64_t number) {
      return sector == 0 ? 0 : sector + (number * recordSize - start) / drive.BytesPerSector;
    };
    if (behind > first) info.MFTStructure.push_back({first, behind - first, sectorOf(first), 0, 0});
    info.MFTRecordCount = std::max(info.MFTRecordCount, behind);
    if (behind < first || end % recordSize == 0) continue;
    const auto head = static_cast<int>((end - behind * recordSize) / drive.BytesPerSector);
    info.MFTStructure.push_back({behind, 1, sectorOf(behind), head, 0});
    info.MFTRecordCount = behind + 1;
  }
  std::stable_sort(info.MFTStructure.begin(), info.MFTStructure.end(),
                   [](const TMFTRun& a, const TMFTRun& b) { return a.FirstNumber < b.FirstNumber; });
}

void TNTFS::AddMFTUsage(TDriveInfo& drive, const TAttribute& bitmap) {
  TByteDynArray& usage = NTFSInfo(drive).MFTUsage;
  if (!bitmap.NonResident()) {
    const auto value = bitmap.Value();
    usage.assign(value.begin(), value.end());
    return;
  }
  const std::int64_t volumeBytes = BackedClusters(drive) * ClusterBytes(drive);
  const std::int64_t largest = volumeBytes / NTFSInfo(drive).MFTRecordSize / 8 + ClusterBytes(drive);
  const std::int64_t size = std::clamp<std::int64_t>(bitmap.RealSize(), 0, largest);
  std::vector<TByteRange> unknown;
  const TByteDynArray bytes = ReadRuns(drive, bitmap.Runs(VolumeClusters(drive)), size, &unknown);
  const auto before = static_cast<std::int64_t>(usage.size());
  for (const TByteRange& range : unknown) {
    NTFSInfo(drive).MFTUsageUnknown.push_back({before + range.First, before + range.End});
  }
  usage.insert(usage.end(), bytes.begin(), bytes.end());
}

bool TNTFS::GetSectorByMFTNumber(const TDriveInfo& drive, std::int64_t number, TMFTRecord& place,
                                 bool canBeNull) const {
  const TNTFSInfo& info = NTFSInfo(drive);
  if (number < 0 || info.MFTStructure.empty() || drive.BytesPerSector < 1) return false;
  const auto after = std::upper_bound(info.MFTStructure.begin(), info.MFTStructure.end(), number,
                                      [](std::int64_t n, const TMFTRun& run) { return n < run.FirstNumber; });
  const TMFTRun& run = after == info.MFTStructure.begin() ? info.MFTStructure.front() : *(after - 1);
  const auto at = [&](const TMFTRun& from, std::int64_t index) {
    if (index > INT64_MAX / LargestRecord) return false;
    place.Sector = from.FirstSector + index * info.MFTRecordSize / drive.BytesPerSector;
    place.Offset = static_cast<int>(index * info.MFTRecordSize % drive.BytesPerSector);
    place.HeadSectors = from.HeadSectors;
    place.TailSector = from.TailSector;
    return true;
  };
  const bool inside = number >= run.FirstNumber && number - run.FirstNumber < run.Count;
  if (inside && (run.FirstSector != 0 || canBeNull)) {
    if (run.FirstSector != 0) return at(run, number - run.FirstNumber);
    place = TMFTRecord();
    return true;
  }
  // In a hole or past the end: along the line of the first known record behind it, or of the last.
  const auto isKnown = [](const TMFTRun& r) { return r.FirstSector != 0; };
  std::int64_t known = 0;
  const TMFTRun* line = nullptr;
  if (const auto next = std::find_if(after, info.MFTStructure.end(), isKnown); next != info.MFTStructure.end()) {
    line = &*next;
    known = next->FirstNumber;
  } else if (const auto last = std::find_if(info.MFTStructure.rbegin(), info.MFTStructure.rend(), isKnown);
             last != info.MFTStructure.rend()) {
    line = &*last;
    known = last->FirstNumber + last->Count - 1;
  }
  if (line == nullptr || !at(*line, known - line->FirstNumber)) return false;
  const std::int64_t distance = number - known;
  const std::int64_t sectorsPerRecord = info.MFTRecordSize / drive.BytesPerSector;
  if (distance > drive.SectorsCount + 1) return false;
  place.HeadSectors = 0;
  place.TailSector = 0;
  place.Sector += distance * sectorsPerRecord;
  const std::int64_t offset = (distance * info.MFTRecordSize + place.Offset) % drive.BytesPerSector;
  place.Offset = static_cast<int>(std::max<std::int64_t>(offset, 0));
  return place.Sector >= 0 && place.Sector <= drive.SectorsCount;
}

bool TNTFS::ReadRecord(const TDriveInfo& drive, const TMFTRecord& place, TByteDynArray& record) {
  const int size = NTFSInfo(drive).MFTRecordSize;
  const std::int64_t sectors = CeilDiv(place.Offset + size, drive.BytesPerSector);
  record.assign(static_cast<std::size_t>(sectors * drive.BytesPerSector), 0);
  if (place.Sector <= 0) return false;
  const std::int64_t head = place.TailSector > 0 ? std::min<std::int64_t>(place.HeadSectors, sectors) : sectors;
  TSectorReader& reader = FEngine.Reader();
  const auto front = std::span(record).first(static_cast<std::size_t>(head * drive.BytesPerSector));
  const std::int64_t start = drive.FirstSector + place.Sector;
  if (reader.ReadDriveSectors(drive, front.data(), start, head) < front.size()) {
    reader.NoteFailedRead();
    if (reader.ReadWhatReads(drive, front, start, TReadEffort::Content) == 0) return false;
  }
  if (head < sectors) {
    std::uint8_t* rest = record.data() + head * drive.BytesPerSector;
    reader.ReadDriveSectors(drive, rest, drive.FirstSector + place.TailSector, sectors - head);
  }
  record.erase(record.begin(), record.begin() + place.Offset);
  record.resize(static_cast<std::size_t>(size));
  if (!ntfs::IsMFT(record, 0)) return false;
  ApplyFixups(record);
  return true;
}

TByteDynArray TNTFS::ReadAttributeList(const TDriveInfo& drive, const TAttribute& attribute) {
  if (!attribute.NonResident()) {
    const auto value = attribute.Value();
    return {value.begin(), value.end()};
  }
  constexpr std::int64_t largestList = 256 * 1024;  // bytes, as in all that write NTFS
  const std::int64_t size = std::clamp<std::int64_t>(attribute.RealSize(), 0, largestList);
  return ReadRuns(drive, attribute.Runs(VolumeClusters(drive)), size);
}

/// The first bytes of a list of clusters; holes are zeros. `unknown`, when given, gets the ranges that
/// could not be read, ascending.
TByteDynArray TNTFS::ReadRuns(const TDriveInfo& drive, const TRuns& runs, std::int64_t size,
                              std::vector<TByteRange>* unknown) {
  const std::int64_t clusterBytes = ClusterBytes(drive);
  const std::int64_t clusters = runs.empty() ? 0 : runs.back().Vcn + runs.back().Count;
  TByteDynArray bytes(static_cast<std::size_t>(std::min(size, clusters * clusterBytes)));
  for (const TRun& run : runs) {
    const std::int64_t from = run.Vcn * clusterBytes;
    const std::int64_t until = std::min(from + run.Count * clusterBytes, static_cast<std::int64_t>(bytes.size()));
    if (run.Lcn < 0 || from >= until) continue;
    const auto piece = std::span(bytes).subspan(static_cast<std::size_t>(from), static_cast<std::size_t>(until - from));
    std::vector<TBufferRange> lost;
    FEngine.Content().ReadPlace(drive, PlaceOfCluster(run.Lcn, clusterBytes), piece, 0, &lost);
    if (unknown == nullptr) continue;
    for (const TBufferRange& range : lost) {
      unknown->push_back({from + static_cast<std::int64_t>(range.First), from + static_cast<std::int64_t>(range.End)});
    }
  }
  return bytes;
}

void TNTFS::GetSectorsPerClusterByIndex(TDriveInfo& drive, std::int64_t cluster) {
  constexpr int candidates[] = {8, 16, 32, 64, 128, 256, 512, 1024, 2048, 4096, 8192, 16384, 32768, 65536, 1, 2, 4};
  if (NTFSInfo(drive).SectorsPerCluster >= 1 || cluster < 0 || cluster > INT64_MAX / 65536) return;
  TByteDynArray sector(static_cast<std::size_t>(FEngine.Drives().GetBytesPerSector(drive)));
  for (const int candidate : candidates) {
    const std::int64_t at = drive.FirstSector + cluster * candidate;
    if (FEngine.Reader().ReadDriveSectors(drive, sector.data(), at, 1) == 0) continue;
    if (std::equal(sector.begin(), sector.begin() + 4, "INDX")) {
      NTFSInfo(drive).SectorsPerCluster = candidate;
      return;
    }
  }
}

// ---- label and free space -------------------------------------------------------------------

void TNTFS::ReadVolumeName(TDriveInfo& drive) {
  TMFTRecord place;
  TByteDynArray record;
  const bool known = NTFSInfo(drive).MFTRecordCount > static_cast<std::int64_t>(VolumeRecord) &&
                     GetSectorByMFTNumber(drive, VolumeRecord, place, true);
  if (!known || !ReadRecord(drive, place, record)) return;
  for (TAttributeWalk walk(record); walk.Next();) {
    if (walk->Type() != AttrVolumeName) continue;
    const auto value = walk->Value();
    drive.VolumeName = TString(Trim(ReadText(value, 0, value.size() / 2)));
    return;
  }
}

void TNTFS::ComputeFreeSize(TDriveInfo& drive) {
  const std::int64_t clusters = BackedClusters(drive);
  if (clusters <= 0) return;
  TFile bitmap;
  bitmap.FileInfo.FirstCluster = BitmapRecord;
  bitmap.FileInfo.aSize = bitmap.FileInfo.DefaultSize = clusters / 8;
  const std::int64_t chunk = std::int64_t{128} * drive.BytesPerSector;
  std::int64_t zeros = 0;
  std::int64_t bits = 0;
  TByteDynArray bytes;
  for (std::int64_t at = 0; at < bitmap.FileInfo.aSize; at += chunk) {
    GetFileData(drive, bytes, bitmap, -1, at, chunk, 0);
    if (bytes.empty()) break;
    for (const std::uint8_t byte : bytes) zeros += 8 - std::popcount(byte);
    bits += static_cast<std::int64_t>(bytes.size()) * 8;
    FEngine.Pump();
  }
  ClearMemory();
  if (bits == 0) return;
  const double share = static_cast<double>(zeros) / static_cast<double>(bits);
  drive.aFreeSize = static_cast<std::int64_t>(static_cast<double>(drive.SectorsCount) * share) * drive.BytesPerSector;
}

TByteDynArray TNTFS::UsedClusters(TDriveInfo& drive) {
  TFile bitmap;
  bitmap.FileInfo.FirstCluster = BitmapRecord;
  const std::int64_t size = CeilDiv(BackedClusters(drive), 8);
  bitmap.FileInfo.aSize = bitmap.FileInfo.DefaultSize = size;
  constexpr std::int64_t chunk = 1 << 20;
  TByteDynArray used;
  TByteDynArray bytes;
  for (std::int64_t at = 0; at < size; at += chunk) {
    GetFileData(drive, bytes, bitmap, -1, at, std::min(chunk, size - at), 0);
    if (bytes.empty()) break;
    used.insert(used.end(), bytes.begin(), bytes.end());
  }
  ClearMemory();
  return used;
}

TPlaceSource TNTFS::PlaceOf(const TFile& file) {
  const TFileInfo& info = file.FileInfo;
  const TDrives& drives = FEngine.Drives();
  if (info.blnFolder || drives.IsWrongNumber(info.aDriveNumber)) return info.Place;
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(info.aDriveNumber)];
  if (drive.GeometrySource != TPlaceSource::Estimated) return info.Place;
  TFileStream stream;
  if (!MapStream(drive, file, -1, stream)) return TPlaceSource::Estimated;
  const auto first = stream.Extents.At(0, 0);
  return !first || first->Kind == TExtentKind::Inline ? info.Place : TPlaceSource::Estimated;
}

}  // namespace brenlow
