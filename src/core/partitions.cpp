// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/partitions.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <string_view>
#include <unordered_set>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"

namespace brenlow {
namespace {

constexpr std::size_t TableOffset = 446;
constexpr std::size_t EntrySize = 16;
constexpr std::size_t EntryCount = 4;
constexpr std::size_t GPTEntrySize = 128;
constexpr std::uint64_t LastHeaderSectorTried = 1024;
constexpr auto HeaderHuntTime = std::chrono::milliseconds(2000);
constexpr std::uint32_t MaxAppleEntries = 64;
// No real disk comes near these; a crafted chain or map must end too.
constexpr std::size_t MaxTables = 65536;
constexpr std::size_t MaxVolumes = 4096;

constexpr bool IsExtended(std::uint8_t indicator) { return indicator == 5 || indicator == 15; }

TMBRStructure ReadEntry(std::span<const std::uint8_t> sector, std::size_t index) {
  const std::size_t at = TableOffset + index * EntrySize;
  TMBRStructure entry;
  entry.BootIndicator = static_cast<std::uint8_t>(ReadNumber(sector, true, 1, at));
  entry.StartingHead = static_cast<std::uint8_t>(ReadNumber(sector, true, 1, at + 1));
  entry.StartingCylAndSect = ReadLe16(sector, at + 2);
  entry.SystemIndicator = static_cast<std::uint8_t>(ReadNumber(sector, true, 1, at + 4));
  entry.EndingHead = static_cast<std::uint8_t>(ReadNumber(sector, true, 1, at + 5));
  entry.EndingCylAndSect = ReadLe16(sector, at + 6);
  entry.StartingSector = ReadLe32(sector, at + 8);
  entry.NumberOfSects = ReadLe32(sector, at + 12);
  return entry;
}

/// True for what every tool writes as a table: the end mark, and entries that are empty or have a
/// plain boot flag and a length.
bool LooksLikeTable(std::span<const std::uint8_t> sector) {
  if (sector.size() < 512 || sector[510] != 0x55 || sector[511] != 0xAA) return false;
  bool any = false;
  for (std::size_t i = 0; i < EntryCount; ++i) {
    const TMBRStructure entry = ReadEntry(sector, i);
    if (entry.SystemIndicator == 0) continue;
    if ((entry.BootIndicator & 0x7F) != 0 || entry.NumberOfSects == 0) return false;
    any = true;
  }
  return any;
}

/// Parses "{C12A7328-F81F-...}" into the mixed byte order that GUIDs have on disk.
constexpr TGuid ParseGuid(std::string_view text) {
  TGuid guid{};
  constexpr std::size_t order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  std::size_t nibble = 0;
  for (const char c : text) {
    const int value = c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    if (value < 0) continue;
    const std::size_t at = order[nibble / 2];
    guid[at] = static_cast<std::uint8_t>((guid[at] << 4) | value);
    ++nibble;
  }
  return guid;
}

struct TGuidType {
  TGuid Guid;
  TPartitionTypes Types;
};
using enum TPartitionType;
const TGuidType GuidTypes[] = {
    {ParseGuid("{C12A7328-F81F-11D2-BA4B-00A0C93EC93B}"), {ptEFI}},
    {ParseGuid("{E3C9E316-0B5C-4DB8-817D-F92DF00215AE}"), {ptReserved}},
    {ParseGuid("{5808C8AA-7E8F-42E0-85D2-E1E90434CFB3}"), {ptLdmMetadata}},
    {ParseGuid("{AF9B60A0-1431-4F62-BC68-3311714A69AD}"), {ptPrimary, ptLdmData}},
    {ParseGuid("{DE94BBA4-06D1-4D40-A16A-BFD50179D6AC}"), {ptRecovery}},
    {ParseGuid("{52414944-0000-11AA-AA11-00306543ECAC}"), {ptPrimary, ptAppleRaid}},
    {ParseGuid("{52414944-5F4F-11AA-AA11-00306543ECAC}"), {ptPrimary, ptAppleRaid}},
};

TPartitionTypes TypesOfGuid(const TGuid& guid) {
  for (const TGuidType& known : GuidTypes) {
    if (known.Guid == guid) return known.Types;
  }
  return {ptPrimary};
}

TGPTRecord ReadGPTEntry(std::span<const std::uint8_t> entry) {
  TGPTRecord record;
  std::copy_n(entry.begin(), 16, record.PartitionType.begin());
  std::copy_n(entry.begin() + 16, 16, record.PartitionId.begin());
  record.StartingLBA = ReadLe64(entry, 32);
  record.EndingLBA = ReadLe64(entry, 40);
  record.Attributes = ReadLe64(entry, 48);
  for (std::size_t i = 0; i < record.Name.size(); ++i) record.Name[i] = ReadLe16(entry, 56 + 2 * i);
  return record;
}

/// Appends a volume unless one with the same start and count is there.
void AddVolume(TVolumes& volumes, const TVolume& volume) {
  const bool known = std::any_of(volumes.begin(), volumes.end(), [&](const TVolume& v) {
    return v.StartingSector == volume.StartingSector && v.SectorCount == volume.SectorCount;
  });
  if (!known && volumes.size() < MaxVolumes) volumes.push_back(volume);
}

bool HasGPTSignature(std::span<const std::uint8_t> header) {
  constexpr std::string_view signature = "EFI PART";
  return header.size() >= signature.size() && std::equal(signature.begin(), signature.end(), header.begin());
}

bool IsAppleEntry(std::span<const std::uint8_t> map, std::size_t at) {
  constexpr std::string_view apple = "Apple";
  if (ReadBe16(map, at) == 0x504D) return true;  // "PM"
  return at + 48 + apple.size() <= map.size() &&
         std::equal(apple.begin(), apple.end(), map.begin() + static_cast<std::ptrdiff_t>(at + 48));
}

TPartitionTypes TypesOfAppleName(std::span<const std::uint8_t> name) {
  std::string text;
  for (const std::uint8_t c : name) {
    if (c == 0) break;
    text += static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
  }
  if (text == "APPLE_BOOT") return {ptBoot};
  if (text == "APPLE_BOOT_RAID") return {ptBoot, ptAppleRaid};
  if (text == "APPLE_RAID") return {ptAppleRaid};
  return {};
}

}  // namespace

TByteDynArray TPartitionsInfo::ReadSectors(const TDriveInfo& drive, std::uint64_t sector, std::int64_t count) {
  const int bytesPerSector = FEngine.Drives().GetBytesPerSector(drive);
  TByteDynArray buffer(static_cast<std::size_t>(count) * static_cast<std::size_t>(bytesPerSector));
  const auto start = static_cast<std::int64_t>(sector) + drive.FirstSector;
  const std::uint32_t got = FEngine.Reader().ReadDriveSectors(drive, buffer.data(), start, count);
  buffer.resize(got);
  return buffer;
}

TPartitionsInfo::TDetected TPartitionsInfo::DetectStyle(const TDriveInfo& drive) {
  TDetected detected;
  const TByteDynArray head = ReadSectors(drive, 0, 16);
  if (ReadBe16(head, 0) == 0x4552) {  // "ER": Apple driver map
    const std::uint32_t blockSize = std::max<std::uint32_t>(ReadBe16(head, 2), 512);
    if (IsAppleEntry(head, blockSize)) {
      detected.Style = PARTITION_STYLE::PARTITION_STYLE_APM;
      detected.AppleBlockSize = blockSize;
      detected.AppleEntries = std::min(ReadBe32(head, blockSize + 4), MaxAppleEntries);
      return detected;
    }
  }
  const TMBRStructure first = ReadEntry(head, 0);
  if (first.SystemIndicator == 0xEE) {
    detected.Style = PARTITION_STYLE::PARTITION_STYLE_GPT;
    detected.HeaderSector = first.StartingSector;
    return detected;
  }
  for (std::size_t i = 0; i < EntryCount; ++i) {
    const TMBRStructure entry = ReadEntry(head, i);
    if (entry.StartingSector != 0 && entry.NumberOfSects != 0) detected.Style = PARTITION_STYLE::PARTITION_STYLE_MBR;
  }
  return detected;
}

TVolumes TPartitionsInfo::GetVolumes(const TDriveInfo& drive, PARTITION_STYLE* style) {
  const TDetected detected = DetectStyle(drive);
  if (style != nullptr) *style = detected.Style;
  TVolumes volumes;
  switch (detected.Style) {
    case PARTITION_STYLE::PARTITION_STYLE_MBR:
      WalkMBR(drive, volumes);
      AddHybridGPT(drive, volumes);
      break;
    case PARTITION_STYLE::PARTITION_STYLE_APM:
      WalkAPM(drive, detected, volumes);
      break;
    case PARTITION_STYLE::PARTITION_STYLE_GPT:
    case PARTITION_STYLE::PARTITION_STYLE_RAW:
      WalkGPT(drive, detected.HeaderSector, volumes);
      break;
  }
  return volumes;
}

/// The sector of the next table of an extended chain. A link counts from the sector of its own
/// table. The tools that write such chains count all but the first link from the start of the
/// outermost extended partition (so does the published layout of extended boot records), which
/// is tried where the first reading shows no table.
std::uint32_t TPartitionsInfo::ExtendedTable(const TDriveInfo& drive, std::uint32_t table, std::uint32_t outermost,
                                             std::uint32_t link) {
  const std::uint32_t own = table + link;
  const std::uint32_t published = outermost + link;
  if (own == published || outermost == 0 || LooksLikeTable(ReadSectors(drive, own, 1))) return own;
  return LooksLikeTable(ReadSectors(drive, published, 1)) ? published : own;
}

void TPartitionsInfo::WalkMBR(const TDriveInfo& drive, TVolumes& volumes) {
  struct TPending {
    std::uint32_t Table;
    std::size_t Entry;
    std::uint32_t Outermost;
    TByteDynArray Sector;
  };
  std::unordered_set<std::uint32_t> seen;
  std::vector<TPending> stack;
  const auto enter = [&](std::uint32_t table, std::uint32_t outermost) {
    if (seen.size() < MaxTables && seen.insert(table).second) {
      stack.push_back({table, 0, outermost, ReadSectors(drive, table, 1)});
    }
  };
  enter(0, 0);
  while (!stack.empty()) {
    TPending& current = stack.back();
    if (current.Entry == EntryCount) {
      stack.pop_back();
      continue;
    }
    const TMBRStructure entry = ReadEntry(current.Sector, current.Entry++);
    if (entry.SystemIndicator == 0) continue;
    const std::uint32_t table = current.Table;
    if (IsExtended(entry.SystemIndicator)) {
      const std::uint32_t outermost = current.Outermost;
      const std::uint32_t next = ExtendedTable(drive, table, outermost, entry.StartingSector);
      enter(next, outermost == 0 ? next : outermost);
      continue;
    }
    TVolume volume;
    volume.StartingSector = std::uint64_t{table} + entry.StartingSector;
    volume.SectorCount = entry.NumberOfSects;
    volume.MBRRecord = {table, entry};
    if (entry.BootIndicator == 128) volume.PartitionType.Add(ptBoot);
    volume.PartitionType.Add(table == 0 ? ptPrimary : ptLogical);
    AddVolume(volumes, volume);
  }
}

/// A hybrid table mirrors some entries of a GPT beside protective entries (0xEE) that are not the
/// first. Where the GPT reads, its other partitions are listed too and the protective areas are
/// no volumes.
void TPartitionsInfo::AddHybridGPT(const TDriveInfo& drive, TVolumes& volumes) {
  constexpr std::uint8_t protective = 0xEE;
  const auto isProtective = [](const TVolume& v) { return v.MBRRecord.Structure.SystemIndicator == protective; };
  if (std::none_of(volumes.begin(), volumes.end(), isProtective)) return;
  if (!HasGPTSignature(ReadSectors(drive, 1, 1))) return;
  if (ReadGPT(drive, 1, volumes)) std::erase_if(volumes, isProtective);
}

bool TPartitionsInfo::ReadGPT(const TDriveInfo& drive, std::uint64_t headerSector, TVolumes& volumes) {
  const TByteDynArray header = ReadSectors(drive, headerSector, 1);
  if (header.size() < 92) return false;
  FSignedGPT = HasGPTSignature(header);
  const std::uint32_t headerSize = ReadLe32(header, 12);
  const std::uint64_t entryLBA = ReadLe64(header, 72);
  const std::uint32_t count = ReadLe32(header, 80);
  const std::uint32_t size = ReadLe32(header, 84);
  if (headerSize == 0 || headerSize > 4096 || entryLBA == 0 || count == 0 || size == 0) return false;

  const auto bytesPerSector = static_cast<std::uint64_t>(FEngine.Drives().GetBytesPerSector(drive));
  const std::uint64_t bytes = std::uint64_t{count} * size;
  const std::uint64_t sectors = bytes / bytesPerSector + (bytes % bytesPerSector != 0 ? 1 : 0);
  if (sectors == 0 || sectors > bytesPerSector || entryLBA > static_cast<std::uint64_t>(INT64_MAX) / 2) return false;
  const TByteDynArray entries = ReadSectors(drive, entryLBA, static_cast<std::int64_t>(sectors));
  bool added = false;
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t at = i * size;
    if (at + GPTEntrySize > entries.size()) break;
    const TGPTRecord record = ReadGPTEntry(std::span(entries).subspan(at, GPTEntrySize));
    if (record.StartingLBA == 0 || record.EndingLBA == 0) continue;
    if (record.StartingLBA > static_cast<std::uint64_t>(drive.SectorsCount)) continue;
    TVolume volume;
    volume.StartingSector = record.StartingLBA;
    volume.SectorCount = record.EndingLBA - record.StartingLBA + 1;
    volume.GPTRecord = record;
    volume.PartitionType = TypesOfGuid(record.PartitionType);
    const std::size_t before = volumes.size();
    AddVolume(volumes, volume);
    added = added || volumes.size() > before;
  }
  const bool garbage = std::any_of(volumes.begin(), volumes.end(), [](const TVolume& v) {
    return static_cast<std::int64_t>(v.StartingSector) < 0 || static_cast<std::int64_t>(v.SectorCount) < 0;
  });
  if (garbage) volumes.clear();
  return added && !garbage;
}

void TPartitionsInfo::WalkGPT(const TDriveInfo& drive, std::uint64_t headerSector, TVolumes& volumes) {
  const auto begin = std::chrono::steady_clock::now();
  std::uint64_t header = headerSector;
  do {
    ReadGPT(drive, header, volumes);
    FEngine.Pump();
    ++header;
  } while (volumes.empty() && header <= LastHeaderSectorTried &&
           std::chrono::steady_clock::now() - begin < HeaderHuntTime);
  if (volumes.empty() && drive.SectorsCount > 0) {
    ReadGPT(drive, static_cast<std::uint64_t>(drive.SectorsCount) - 1, volumes);  // the backup header
  }
}

void TPartitionsInfo::WalkAPM(const TDriveInfo& drive, const TDetected& detected, TVolumes& volumes) {
  const auto bytesPerSector = static_cast<std::uint32_t>(FEngine.Drives().GetBytesPerSector(drive));
  const std::uint32_t sectorsPerBlock = std::max<std::uint32_t>(detected.AppleBlockSize / bytesPerSector, 1);
  const TByteDynArray map = ReadSectors(drive, 0, std::int64_t{detected.AppleEntries + 1} * sectorsPerBlock);
  for (std::uint32_t i = 1; i <= detected.AppleEntries; ++i) {
    const std::size_t at = std::size_t{i} * detected.AppleBlockSize;
    if (at + 80 > map.size()) break;
    if (!IsAppleEntry(map, at)) continue;
    TVolume volume;
    volume.StartingSector = std::uint64_t{ReadBe32(map, at + 8)} * sectorsPerBlock;
    volume.SectorCount = std::uint64_t{ReadBe32(map, at + 12)} * sectorsPerBlock;
    volume.PartitionType = TypesOfAppleName(std::span(map).subspan(at + 48, 32));
    volumes.push_back(volume);
  }
}

bool TPartitionsInfo::HasTableSector(const TDriveInfo& drive) { return LooksLikeTable(ReadSectors(drive, 0, 1)); }

bool TPartitionsInfo::IsSound(const TDriveInfo& drive, const TPhysicalDrive& disk) {
  const auto isWithin = [&](const TVolume& v) {
    return v.StartingSector > 0 && v.StartingSector < static_cast<std::uint64_t>(drive.SectorsCount);
  };
  if (std::none_of(disk.Volumes.begin(), disk.Volumes.end(), isWithin)) return false;
  switch (disk.PartitionStyle) {
    case PARTITION_STYLE::PARTITION_STYLE_MBR:
      return HasTableSector(drive);
    case PARTITION_STYLE::PARTITION_STYLE_APM:
      return true;
    default:
      return FSignedGPT;
  }
}

void TPartitionsInfo::FillDisk(TDriveInfo& drive, TPhysicalDrive& result) {
  result.DiskGeometry = drive.DiskGeometry;
  result.Volumes = GetVolumes(drive, &result.PartitionStyle);
  if (result.PartitionStyle == PARTITION_STYLE::PARTITION_STYLE_RAW && !result.Volumes.empty()) {
    result.PartitionStyle = PARTITION_STYLE::PARTITION_STYLE_GPT;
  }
  result.TableIsSound = IsSound(drive, result);
}

bool TPartitionsInfo::GetPhysicalDrive(const TDriveInfo& drive, TPhysicalDrive& result) {
  TDriveInfo disk = drive;
  disk.DriveTypes.Add(TDriveType::dtPhysical);
  disk.DriveTypes.Remove(TDriveType::dtVolume);
  disk.DiskGeometry.BytesPerSector = static_cast<std::uint32_t>(FEngine.Drives().GetBytesPerSector(drive));
  result = TPhysicalDrive();
  result.Drive = drive.Drive;
  result.DriveNumber = -1;
  result.DiskSize = drive.SectorsCount * FEngine.Drives().GetBytesPerSector(drive);
  FillDisk(disk, result);
  return true;
}

TPhysicalDrives TPartitionsInfo::GetPhysicalDrives() {
  TPhysicalDrives drives;
  for (const TSystemDisk& disk : SystemLists.Disks()) {
    FEngine.Pump();
    TDriveInfo info;
    info.Drive = TextFromPath(disk.Path);
    info.DriveTypes = {TDriveType::dtPhysical};
    info.BytesPerSector = disk.SectorSize;
    info.SectorsCount = disk.Size / disk.SectorSize;
    // What the system's old translation reports for every large disk: 255 heads of 63 sectors.
    info.DiskGeometry = {info.SectorsCount / (std::int64_t{255} * 63), disk.Removable ? RemovableMedia : FixedMedia,
                         255, 63, static_cast<std::uint32_t>(disk.SectorSize)};
    TPhysicalDrive physical;
    physical.Drive = info.Drive;
    physical.DriveNumber = static_cast<int>(drives.size());
    physical.Model = FromUtf8(disk.Model);
    physical.Serial = FromUtf8(disk.Serial);
    physical.DiskSize = disk.Size;
    physical.Sequence = disk.Sequence;
    FillDisk(info, physical);
    drives.push_back(std::move(physical));
  }
  return drives;
}

TString PartitionName(const TGPTRecord& record) {
  const auto end = std::find(record.Name.begin(), record.Name.end(), u'\0');
  return TString(Trim(TStringView(record.Name.data(), static_cast<std::size_t>(end - record.Name.begin()))));
}

}  // namespace brenlow
