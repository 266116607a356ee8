// SPDX-License-Identifier: GPL-3.0-or-later
// Recognition of FAT volumes, their geometry, label, free space and allocation table.
#include <algorithm>
#include <bit>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/fat/fat.h"
#include "fs/fat/fat_entry.h"
#include "fs/fat/fat_layout.h"

namespace brenlow {

using namespace fat;

namespace {

constexpr double SmallestFAT16 = 4085.0;  // clusters

/// The sum that tells FAT12 from FAT16. It adds the table sectors where the published rule takes
/// them off, so it differs from that rule for volumes of about 4085 clusters.
TFileSystem WidthBySum(double total, double reserved, double tableSectors, double sectorsPerCluster) {
  return (total - reserved + tableSectors) / sectorsPerCluster < SmallestFAT16 ? TFileSystem::fsFAT12
                                                                               : TFileSystem::fsFAT16;
}

}  // namespace

bool fat::IsFolderStart(const TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t start, bool root) {
  if (start > buffer.size() || buffer.size() - start < 2 * EntrySize) return false;
  const auto first = buffer.subspan(start, EntrySize);
  const auto second = buffer.subspan(start + EntrySize, EntrySize);
  if (root) {
    if (FATInfo(drive).SectorsPerCluster == 0) return false;
    const std::int64_t room = ClusterRoom(drive);
    const auto fits = [room](std::span<const std::uint8_t> entry) {
      return EntryCluster(entry, 0) <= room || entry[11] == AttrLongName;
    };
    return fits(first) && fits(second);
  }
  const auto blanks = [](std::span<const std::uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t c) { return c == ' '; });
  };
  return first[0] == '.' && blanks(first.subspan(1, 10)) && second[0] == '.' && second[1] == '.' &&
         blanks(second.subspan(2, 9));
}

bool TFAT::IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const {
  if (start > buffer.size() || buffer.size() - start < 512) return false;
  const auto boot = buffer.subspan(start);
  if (boot[510] != 0x55 || boot[511] != 0xAA) return false;
  const std::uint16_t bytesPerSector = ReadLe16(boot, BytesPerSectorAt);
  if (bytesPerSector == 0 || bytesPerSector % 512 != 0 || !std::has_single_bit(bytesPerSector)) return false;
  const std::uint8_t sectorsPerCluster = boot[SectorsPerClusterAt];
  return sectorsPerCluster == 1 || (sectorsPerCluster != 0 && sectorsPerCluster % 2 == 0);
}

TFileSystem TFAT::GetFileSystem(std::span<const std::uint8_t> buffer, std::size_t start) const {
  const auto boot = buffer.subspan(std::min(start, buffer.size()));
  const std::uint16_t tableSectors = ReadLe16(boot, TableSectors16At);
  if (tableSectors == 0) return TFileSystem::fsFAT32;
  const double sectorsPerCluster = boot[SectorsPerClusterAt];
  if (sectorsPerCluster == 0) return TFileSystem::fsUnknown;
  // The count of tables is taken from the start of the buffer, not of the boot sector.
  const double tables = buffer[TableCountAt] == 2 ? 2 : 1;
  return WidthBySum(static_cast<double>(ReadLe16(boot, TotalSectors16At)) + ReadLe32(boot, TotalSectors32At),
                    ReadLe16(boot, ReservedSectorsAt), tableSectors * tables, sectorsPerCluster);
}

/// True when the sixth sector after the first of `head` holds the copy of a FAT32 boot sector.
bool TFAT::IsBackupBootSector(std::span<const std::uint8_t> head, int bytesPerSector) const {
  const std::size_t at = static_cast<std::size_t>(BackupBootSector) * static_cast<std::size_t>(bytesPerSector);
  if (!IsPartition(head, at)) return false;
  const auto boot = head.subspan(at);
  return ReadLe16(boot, TableSectors16At) == 0 && ReadLe32(boot, TableSectors32At) != 0 &&
         ReadLe16(boot, BackupSectorAt) == BackupBootSector;
}

/// Whether an allocation table begins at the sector: its first entry holds the media byte with all
/// other bits set (Microsoft, "FAT: General Overview of On-Disk Format", FAT[0]).
bool TFAT::IsTableStart(const TDriveInfo& volume, std::span<const std::uint8_t> boot, std::int64_t sector) {
  TByteDynArray table(static_cast<std::size_t>(FEngine.Drives().GetBytesPerSector(volume)));
  if (FEngine.Reader().ReadDriveSectors(volume, table.data(), sector, 1) != table.size()) return false;
  const std::uint8_t media = boot[MediaAt];
  return table[0] == media && media >= 0xF0 && (table[1] == 0xFF || table[1] == 0x0F) && table[2] == 0xFF;
}

TCopyFound TFAT::RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int bytesPerSector) {
  if (!IsBackupBootSector(head, bytesPerSector)) return {};
  const auto copy = head.subspan(static_cast<std::size_t>(BackupBootSector * bytesPerSector));
  return {TFileSystem::fsFAT32, IsVolumeSound(drive, copy)};
}

bool TFAT::IsCopyOf(const TDriveInfo& volume, const TDriveInfo& known) {
  constexpr std::int64_t reach = 31;  // sectors
  return std::abs(volume.FirstSector - known.FirstSector) <= reach;
}

bool TFAT::SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> boot) {
  if (ReadLe16(boot, BytesPerSectorAt) != volume.BytesPerSector) return false;
  volume.SectorsCount = std::int64_t{ReadLe16(boot, TotalSectors16At)} + ReadLe32(boot, TotalSectors32At);
  const std::int64_t table = volume.FirstSector + ReadLe16(boot, ReservedSectorsAt);
  const bool mayBeCopy = ReadLe16(boot, TableSectors16At) == 0 && ReadLe16(boot, BackupSectorAt) == BackupBootSector;
  if (mayBeCopy && !IsTableStart(volume, boot, table) && IsTableStart(volume, boot, table - BackupBootSector)) {
    volume.FirstSector -= BackupBootSector;
  }
  return volume.SectorsCount > 0;
}

bool TFAT::IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> boot) {
  const std::uint16_t size16 = ReadLe16(boot, TableSectors16At);
  const std::int64_t size = size16 != 0 ? size16 : ReadLe32(boot, TableSectors32At);
  const std::int64_t table = volume.FirstSector + ReadLe16(boot, ReservedSectorsAt);
  return IsTableStart(volume, boot, table) || IsTableStart(volume, boot, table + size);
}

bool TFAT::HoldsFolders(const TDriveInfo& volume) {
  constexpr std::uint8_t undefinedAttributes = 0xC0;
  TByteDynArray sector(static_cast<std::size_t>(FEngine.Drives().GetBytesPerSector(volume)));
  const std::int64_t root = volume.FirstSector + FATInfo(volume).RootDirFirstSector;
  if (FEngine.Reader().ReadDriveSectors(volume, sector.data(), root, 1) != sector.size()) return false;
  for (std::size_t at = 0; at + EntrySize <= sector.size(); at += EntrySize) {
    const auto entry = std::span(sector).subspan(at, EntrySize);
    if (entry[0] == 0) return at > 0 && IsAllZero(entry);
    if ((entry[11] & undefinedAttributes) != 0) return false;
    if (entry[11] == AttrLongName) continue;
    const auto isText = [](std::uint8_t c) { return c >= 0x20 || c == 0x05; };
    if (!std::all_of(&entry[0], &entry[11], isText)) return false;
    if (EntryCluster(entry, 0) > ClusterRoom(volume) + 2) return false;
  }
  return true;
}

bool TFAT::GetDriveInfo(TDriveInfo& drive, bool fillTable) {
  return ReadBootSector(drive, drive.FirstSector, fillTable) ||
         ReadBootSector(drive, drive.FirstSector + BackupBootSector, fillTable);
}

bool TFAT::ReadBootSector(TDriveInfo& drive, std::int64_t sector, bool fillTable) {
  TByteDynArray boot(static_cast<std::size_t>(FEngine.Drives().GetBytesPerSector(drive)));
  if (FEngine.Reader().ReadDriveSectors(drive, boot.data(), sector, 1) == 0 || !IsPartition(boot, 0)) return false;
  TFATInfo& info = FATInfo(drive);
  if (drive.BytesPerSector == 0) drive.DefaultBytesPerSector = drive.BytesPerSector = ReadLe16(boot, BytesPerSectorAt);
  if (drive.BytesPerSector < 1) return false;
  const bool isStated = info.SectorsPerCluster == 0;
  if (isStated) drive.DefaultSectorsPerCluster = info.SectorsPerCluster = boot[SectorsPerClusterAt];
  if (info.SectorsPerCluster < 1) return false;
  if (drive.SectorsCount <= 0) {
    drive.SectorsCount = std::int64_t{ReadLe32(boot, TotalSectors32At)} + ReadLe16(boot, TotalSectors16At);
    drive.DefaultSectorsCount = drive.SectorsCount;
  }
  if (ClusterRoom(drive) > MaxClusters) return false;

  info.FATFirstSector = ReadLe16(boot, ReservedSectorsAt);
  info.FATCount = boot[TableCountAt] == 2 ? 2 : 1;
  const std::uint16_t tableSectors = ReadLe16(boot, TableSectors16At);
  const auto tables = static_cast<std::uint32_t>(info.FATCount);
  const auto perCluster = static_cast<std::uint32_t>(info.SectorsPerCluster);
  if (tableSectors == 0) {
    if (drive.FileSystem == TFileSystem::fsUnknown) drive.FileSystem = drive.DefaultSystem = TFileSystem::fsFAT32;
    info.FATSize = ReadLe32(boot, TableSectors32At);
    info.RootDirFirstCluster = ReadLe32(boot, RootClusterAt);
    info.RootDirMaxFiles = 0;
    info.DataFirstSector = info.FATSize * tables + info.FATFirstSector;
    info.RootDirFirstSector = (info.RootDirFirstCluster - 2) * perCluster + info.DataFirstSector;
  } else {
    info.FATSize = tableSectors;
    info.RootDirFirstCluster = 0;
    info.RootDirMaxFiles = ReadLe16(boot, RootEntriesAt);
    info.RootDirFirstSector = info.FATSize * tables + info.FATFirstSector;
    info.DataFirstSector =
        info.RootDirFirstSector +
        static_cast<std::uint32_t>(CeilDiv(std::int64_t{info.RootDirMaxFiles} * 32, drive.BytesPerSector));
    if (drive.FileSystem == TFileSystem::fsUnknown) {
      drive.FileSystem = drive.DefaultSystem =
          WidthBySum(static_cast<double>(drive.SectorsCount), info.FATFirstSector,
                     static_cast<double>(tables) * info.FATSize, info.SectorsPerCluster);
    }
    // The published rule counts clusters without the tables and the root. Where the sum says
    // FAT16 but 16-bit entries for all clusters would not fit in the table, it is that rule's FAT12.
    const std::int64_t clusters = (drive.SectorsCount - info.DataFirstSector) / info.SectorsPerCluster;
    const std::int64_t places = std::int64_t{info.FATSize} * drive.BytesPerSector / 2;
    if (drive.FileSystem == TFileSystem::fsFAT16 && clusters < 4085 && places < clusters + 2) {
      drive.FileSystem = drive.DefaultSystem = TFileSystem::fsFAT12;
    }
  }
  if (isStated) {
    CheckClusterSize(drive, std::int64_t{ReadLe32(boot, TotalSectors32At)} + ReadLe16(boot, TotalSectors16At));
  }
  ReadVolumeName(drive, boot);
  if (fillTable && info.FATTable.empty()) LoadTable(drive);
  if (drive.aFreeSize < 0) ReadFreeSize(drive);
  return true;
}

/// Whether a live folder of the root begins where clusters of that size have it, and names itself.
bool TFAT::HasFolderAt(const TDriveInfo& drive, int sectorsPerCluster) {
  constexpr std::int64_t rootSectors = 8;
  const TFATInfo& info = FATInfo(drive);
  const auto placeOf = [&](std::uint32_t cluster) {
    return drive.FirstSector + info.DataFirstSector + (std::int64_t{cluster} - 2) * sectorsPerCluster;
  };
  const auto sectorSize = static_cast<std::size_t>(drive.BytesPerSector);
  TByteDynArray root(rootSectors * sectorSize, 0);
  TByteDynArray folder(sectorSize);
  FEngine.Reader().ReadWhatReads(drive, root, placeOf(info.RootDirFirstCluster), TReadEffort::Scan);
  for (std::size_t at = 0; at + EntrySize <= root.size() && root[at] != 0; at += EntrySize) {
    const bool isFolder = (root[at + 11] & (AttrFolder | AttrVolume)) == AttrFolder && root[at] != DeletedMark;
    const std::uint32_t cluster = EntryCluster(root, at);
    if (!isFolder || cluster < 3 || placeOf(cluster) >= drive.FirstSector + drive.SectorsCount) continue;
    if (FEngine.Reader().ReadDriveSectors(drive, folder.data(), placeOf(cluster), 1) != folder.size()) continue;
    if (IsFolderStart(drive, folder, 0, false) && EntryCluster(folder, 0) == cluster) return true;
  }
  return false;
}

/// A table of FAT32 is as long as its volume has clusters. Where the stated cluster size does not agree with that,
/// a folder of the root decides; where none does, the size is an estimate.
void TFAT::CheckClusterSize(TDriveInfo& drive, std::int64_t statedSectors) {
  constexpr std::int64_t slack = 16;  // sectors of the table
  TFATInfo& info = FATInfo(drive);
  if (!IsFAT32(drive) || info.FATSize == 0 || info.RootDirFirstCluster < 2) return;
  const std::int64_t perSector = drive.BytesPerSector / 4;
  const std::int64_t sectors = std::max<std::int64_t>(statedSectors - info.DataFirstSector, 0);
  const auto fits = [&](int perCluster) {
    const std::int64_t needed = CeilDiv(sectors / perCluster + 2, perSector);
    return needed <= info.FATSize && 2 * std::int64_t{info.FATSize} < 3 * needed + slack;
  };
  const int stated = info.SectorsPerCluster;
  if (fits(stated) || HasFolderAt(drive, stated)) return;
  for (int perCluster = 1; perCluster <= 128; perCluster *= 2) {
    if (perCluster == stated || !fits(perCluster) || !HasFolderAt(drive, perCluster)) continue;
    drive.DefaultSectorsPerCluster = info.SectorsPerCluster = perCluster;
    info.RootDirFirstSector =
        (info.RootDirFirstCluster - 2) * static_cast<std::uint32_t>(perCluster) + info.DataFirstSector;
    return;
  }
  drive.GeometrySource = TPlaceSource::Estimated;
}

void TFAT::LoadTable(TDriveInfo& drive) {
  TFATInfo& info = FATInfo(drive);
  FillTable(drive, info.FATTable, 0, &info.UnknownEntries);
  info.FreeClusters.assign(info.FATTable.size() / 64 + 1, 0);
  for (std::size_t i = 2; i < info.FATTable.size(); ++i) {
    if (info.FATTable[i] == 0) info.FreeClusters[i / 64] |= std::uint64_t{1} << (i % 64);
  }
}

/// The label among the first entries of the root.
bool TFAT::ReadRootLabel(TDriveInfo& drive) {
  TByteDynArray sector(static_cast<std::size_t>(drive.BytesPerSector));
  const std::int64_t root = drive.FirstSector + FATInfo(drive).RootDirFirstSector;
  if (FEngine.Reader().ReadDriveSectors(drive, sector.data(), root, 1) != sector.size()) return false;
  TEntryParser parser(FOem);
  TFileInfo label;
  for (std::size_t at = 0; at + EntrySize <= sector.size(); at += EntrySize) {
    const auto result = parser.Parse(std::span(sector).subspan(at, EntrySize), true, label);
    if (parser.LastWasAllZero()) break;
    if (result != TEntryParser::TResult::File || label.blnDeleted) continue;
    drive.VolumeName = label.strName;
    return true;
  }
  return false;
}

void TFAT::ReadVolumeName(TDriveInfo& drive, std::span<const std::uint8_t> boot) {
  if (!drive.VolumeName.empty() || ReadRootLabel(drive)) return;
  const std::size_t at = IsFAT32(drive) ? Label32At : Label16At;
  TString name;
  for (std::size_t i = 0; i < LabelSize; ++i) name += FOem[boot[at + i]];
  const TStringView trimmed = Trim(name);
  if (UpperCase(trimmed) != u"NO NAME") drive.VolumeName = trimmed;
}

void TFAT::ReadFreeSize(TDriveInfo& drive) {
  TLongWordDynArray loaded;
  std::vector<TClusterRange> unknown = FATInfo(drive).UnknownEntries;
  if (FATInfo(drive).FATTable.empty()) FillTable(drive, loaded, 0, &unknown);
  const TLongWordDynArray& table = FATInfo(drive).FATTable.empty() ? loaded : FATInfo(drive).FATTable;
  std::int64_t free = std::count(table.begin(), table.end(), 0U);
  for (const TClusterRange& range : unknown) free -= std::int64_t{range.End} - range.First;
  drive.aFreeSize = std::max<std::int64_t>(free, 0) * ClusterBytes(drive);
}

bool TFAT::IsClusterBad(const TDriveInfo& drive, std::uint32_t entry) const { return entry == BadMark(drive); }
bool TFAT::IsClusterEOF(const TDriveInfo& drive, std::uint32_t entry) const { return entry > BadMark(drive); }

bool TFAT::SetOemCodePage(int codePage) { return LoadCodePage(codePage, FOem); }

}  // namespace brenlow
