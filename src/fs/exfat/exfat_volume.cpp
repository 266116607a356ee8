// SPDX-License-Identifier: GPL-3.0-or-later
// Recognition of exFAT volumes, their geometry, label, free space, allocation bitmap and up-case table.
#include <algorithm>
#include <array>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "fs/exfat/exfat.h"
#include "fs/exfat/exfat_entry.h"
#include "fs/exfat/exfat_layout.h"

namespace brenlow {

using namespace exfat;

namespace {

constexpr std::int64_t RootRead = 65536;  // bytes of the root in which bitmap, up-case table and label are looked for
constexpr std::int64_t BitmapRead = 1 << 20;  // bytes of one request

/// Sectors of the drive in one of the volume; 0 where the one is no multiple of the other. A volume that was
/// formatted with larger sectors than its device has is counted in sectors of the device.
std::int64_t SectorRatio(int bytesPerSector, std::span<const std::uint8_t> boot) {
  const int shift = boot[SectorShiftAt];
  if (shift < SmallestSectorShift || shift > LargestSectorShift || bytesPerSector <= 0) return 0;
  return (1 << shift) % bytesPerSector == 0 ? (1 << shift) / bytesPerSector : 0;
}

constexpr std::uint32_t MaxClusters = 0xFFFFFFF5;  // section 3.1.9
constexpr std::uint64_t MaxUpCase = 2 * 65536;     // bytes
constexpr std::size_t MaxLabelUnits = 11;

/// Adds the clusters from `first` on whose bits are set.
void AddBits(TClusterSet& set, std::int64_t first, std::span<const std::uint8_t> bytes, std::int64_t last) {
  for (std::size_t at = 0; at + 8 <= bytes.size(); at += 8) {
    std::uint64_t bits = LoadLe64(&bytes[at]);
    for (std::int64_t cluster = first + static_cast<std::int64_t>(at) * 8; bits != 0 && cluster <= last;) {
      // Cluster numbers begin at 2, so that the bits of one word belong to two words of the set.
      const std::int64_t room = 64 - cluster % 64;
      set.AddWord(cluster / 64 * 64, bits << (cluster % 64));
      bits = room >= 64 ? 0 : bits >> room;
      cluster += room;
    }
  }
}

}  // namespace

bool TexFAT::IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const {
  if (start > buffer.size() || buffer.size() - start < 512) return false;
  const auto boot = buffer.subspan(start);
  return boot[0] == 0xEB && boot[1] == 0x76 && boot[2] == 0x90 &&
         IsAllZero(boot.subspan(ZerosAt, ZerosEnd - ZerosAt)) && boot[510] == 0x55 && boot[511] == 0xAA &&
         ReadLe64(boot, VolumeLengthAt) != 0 && ReadLe64(boot, FATOffsetAt) != 0 && boot[SectorShiftAt] > 8;
}

TCopyFound TexFAT::RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int) {
  for (int shift = SmallestSectorShift; shift <= LargestSectorShift; ++shift) {
    const auto at = static_cast<std::size_t>(BootRegion) << shift;
    if (!IsPartition(head, at) || head[at + SectorShiftAt] != shift) continue;
    return {TFileSystem::fsExFAT, IsVolumeSound(drive, head.subspan(at))};
  }
  return {};
}

bool TexFAT::IsCopyOf(const TDriveInfo& volume, const TDriveInfo& known) const {
  return known.FileSystem == TFileSystem::fsExFAT && volume.FirstSector - known.FirstSector == BootRegion;
}

std::int64_t TexFAT::AllocationUnit(const TDriveInfo& drive) const { return ClusterBytes(drive); }

/// The first entry holds the media byte, the second all bits (section 4.1).
bool TexFAT::IsTableStart(const TDriveInfo& volume, std::span<const std::uint8_t> boot, std::int64_t start) {
  const std::int64_t ratio = SectorRatio(FEngine.Drives().GetBytesPerSector(volume), boot);
  TByteDynArray table(static_cast<std::size_t>(FEngine.Drives().GetBytesPerSector(volume)));
  const std::int64_t sector = start + std::int64_t{ReadLe32(boot, FATOffsetAt)} * ratio;
  if (ratio == 0 || FEngine.Reader().ReadDriveSectors(volume, table.data(), sector, 1) != table.size()) return false;
  return ReadLe32(table, 0) == MediaEntry && ReadLe32(table, 4) == 0xFFFFFFFF;
}

bool TexFAT::IsRootStart(const TDriveInfo& volume, std::span<const std::uint8_t> boot, std::int64_t start) {
  const std::int64_t ratio = SectorRatio(FEngine.Drives().GetBytesPerSector(volume), boot);
  if (ratio == 0 || boot[ClusterShiftAt] > LargestClusterShift || ReadLe32(boot, RootClusterAt) < 2) return false;
  TByteDynArray root(static_cast<std::size_t>(FEngine.Drives().GetBytesPerSector(volume)));
  const std::int64_t place =
      ReadLe32(boot, HeapOffsetAt) + ((std::int64_t{ReadLe32(boot, RootClusterAt)} - 2) << boot[ClusterShiftAt]);
  if (FEngine.Reader().ReadDriveSectors(volume, root.data(), start + place * ratio, 1) != root.size()) return false;
  return IsRootForm(root);
}

bool TexFAT::SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> boot) {
  const std::int64_t ratio = SectorRatio(volume.BytesPerSector, boot);
  const std::uint64_t length = ReadLe64(boot, VolumeLengthAt);
  if (ratio == 0 || length > static_cast<std::uint64_t>(INT64_MAX / 4096)) return false;
  volume.SectorsCount = static_cast<std::int64_t>(length) * ratio;
  const auto speaksFor = [&](std::int64_t start) {
    return IsTableStart(volume, boot, start) || IsRootStart(volume, boot, start);
  };
  const std::int64_t original = volume.FirstSector - BootRegion * ratio;
  if (original >= 0 && !speaksFor(volume.FirstSector) && speaksFor(original)) volume.FirstSector = original;
  return true;
}

bool TexFAT::IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> boot) {
  return IsTableStart(volume, boot, volume.FirstSector) || IsRootStart(volume, boot, volume.FirstSector);
}

bool TexFAT::HoldsFolders(const TDriveInfo& volume) {
  TByteDynArray sector(static_cast<std::size_t>(FEngine.Drives().GetBytesPerSector(volume)));
  const std::int64_t root = volume.FirstSector + exFATInfo(volume).RootDirFirstSector;
  return exFATInfo(volume).SectorsPerCluster > 0 &&
         FEngine.Reader().ReadDriveSectors(volume, sector.data(), root, 1) == sector.size() && IsRootForm(sector);
}

/// The sum over the first eleven sectors of a boot region, but for flags and percentage, fills its twelfth (section
/// 3.4).
bool TexFAT::HasSoundChecksum(const TDriveInfo& drive, std::int64_t sector, int sectorSize) {
  TByteDynArray region(static_cast<std::size_t>(BootRegion * sectorSize));
  const std::int64_t count = static_cast<std::int64_t>(region.size()) / FEngine.Drives().GetBytesPerSector(drive);
  if (FEngine.Reader().ReadDriveSectors(drive, region.data(), sector, count) != region.size()) return false;
  const auto end = static_cast<std::size_t>(ChecksumSector * sectorSize);
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < end; ++i) {
    if (i == VolumeFlagsAt || i == VolumeFlagsAt + 1 || i == PercentInUseAt) continue;
    sum = (sum << 31 | sum >> 1) + region[i];
  }
  for (std::size_t at = end; at + 4 <= region.size(); at += 4) {
    if (ReadLe32(region, at) != sum) return false;
  }
  return true;
}

/// Where the boot sector is that counts, from the volume's start; -1 when there is none. One whose region has a
/// sound checksum goes first, then the first that can be one. `boot` gets its bytes.
std::int64_t TexFAT::FindBootSector(const TDriveInfo& drive, TByteDynArray& boot) {
  const int bytesPerSector = FEngine.Drives().GetBytesPerSector(drive);
  std::int64_t found = -1;
  TByteDynArray sector(static_cast<std::size_t>(bytesPerSector));
  for (const std::int64_t ratio : {0, 1, 2, 4, 8}) {
    const std::int64_t at = BootRegion * ratio;
    if (FEngine.Reader().ReadDriveSectors(drive, sector.data(), drive.FirstSector + at, 1) == 0) continue;
    if (!IsPartition(sector, 0) || SectorRatio(bytesPerSector, sector) == 0) continue;
    if (ratio != 0 && SectorRatio(bytesPerSector, sector) != ratio) continue;
    const bool sound = HasSoundChecksum(drive, drive.FirstSector + at, 1 << sector[SectorShiftAt]);
    if (!sound && found >= 0) continue;
    found = at;
    boot = sector;
    if (sound) break;
  }
  return found;
}

bool TexFAT::GetDriveInfo(TDriveInfo& drive, bool fillTable) {
  TByteDynArray boot;
  if (FindBootSector(drive, boot) < 0 || !TakeGeometry(drive, boot)) return false;
  ReadRootEntries(drive, fillTable);
  if (drive.aFreeSize < 0) ReadFreeSize(drive, boot[PercentInUseAt]);
  return true;
}

bool TexFAT::TakeGeometry(TDriveInfo& drive, std::span<const std::uint8_t> boot) {
  TexFATInfo& info = exFATInfo(drive);
  if (drive.BytesPerSector == 0) drive.DefaultBytesPerSector = drive.BytesPerSector = 1 << boot[SectorShiftAt];
  const std::int64_t ratio = SectorRatio(drive.BytesPerSector, boot);
  if (ratio == 0 || boot[SectorShiftAt] + boot[ClusterShiftAt] > LargestClusterShift) return false;
  if (info.SectorsPerCluster == 0) {
    info.SectorsPerCluster = static_cast<int>(ratio) << boot[ClusterShiftAt];
    drive.DefaultSectorsPerCluster = info.SectorsPerCluster;
  }
  if (info.SectorsPerCluster < 1) return false;
  const std::uint64_t length = ReadLe64(boot, VolumeLengthAt);
  if (drive.SectorsCount <= 0 && length <= static_cast<std::uint64_t>(INT64_MAX / 4096)) {
    drive.SectorsCount = drive.DefaultSectorsCount = static_cast<std::int64_t>(length) * ratio;
  }
  const std::int64_t heap = ReadLe32(boot, HeapOffsetAt) * ratio;
  const std::int64_t tables = ReadLe32(boot, FATOffsetAt) * ratio;
  const std::int64_t tableSize = ReadLe32(boot, FATLengthAt) * ratio;
  if (drive.SectorsCount <= 0 || heap > UINT32_MAX || tables > UINT32_MAX || tableSize > UINT32_MAX) return false;
  if (drive.FileSystem == TFileSystem::fsUnknown) drive.FileSystem = drive.DefaultSystem = TFileSystem::fsExFAT;
  info.FATFirstSector = static_cast<std::uint32_t>(tables);
  info.FATSize = static_cast<std::uint32_t>(tableSize);
  info.FATCount = boot[FATCountAt] == 2 ? 2 : 1;
  info.ActiveFAT = info.FATCount == 2 ? ReadLe16(boot, VolumeFlagsAt) & ActiveFATFlag : 0;
  info.DataFirstSector = static_cast<std::uint32_t>(heap);
  // No more clusters than the volume's length makes room for, whatever a damaged count says.
  const std::int64_t room = std::max<std::int64_t>(drive.SectorsCount - heap, 0) / info.SectorsPerCluster;
  info.ClusterCount = static_cast<std::uint32_t>(
      std::min<std::int64_t>({room, ReadLe32(boot, ClusterCountAt), std::int64_t{MaxClusters}}));
  PlaceRoot(drive, ReadLe32(boot, RootClusterAt));
  return true;
}

void TexFAT::PlaceRoot(TDriveInfo& drive, std::uint32_t cluster) {
  TexFATInfo& info = exFATInfo(drive);
  info.RootDirFirstCluster = cluster;
  const std::int64_t sector = ClusterSector(drive, cluster);
  info.RootDirFirstSector = sector > 0 && sector <= UINT32_MAX ? static_cast<std::uint32_t>(sector) : 0;
}

/// Label, bitmap and up-case table of the volume, as the root describes them. The bitmap itself is read only with
/// `fillTable`.
void TexFAT::ReadRootEntries(TDriveInfo& drive, bool fillTable) {
  TexFATInfo& info = exFATInfo(drive);
  if (!IsInside(drive, info.RootDirFirstCluster)) return;
  TByteDynArray root(static_cast<std::size_t>(std::min(ClusterBytes(drive), RootRead)));
  FEngine.Reader().ReadOrZero(drive, root, drive.FirstSector + info.RootDirFirstSector, TReadEffort::Content);
  std::array<std::span<const std::uint8_t>, 2> bitmaps;
  for (std::size_t at = 0; at + EntrySize <= root.size(); at += EntrySize) {
    const auto slot = std::span<const std::uint8_t>(root).subspan(at, EntrySize);
    if (slot[0] == BitmapEntry) bitmaps[slot[FlagsAt] & 1] = slot;
    if (slot[0] == UpCaseEntry) {
      info.UpCaseFirstCluster = ReadLe32(slot, FirstClusterAt);
      info.UpCaseBytes = static_cast<std::uint32_t>(std::min<std::uint64_t>(ReadLe64(slot, DataLengthAt), MaxUpCase));
    }
    if (slot[0] == LabelEntry && drive.VolumeName.empty()) {
      const std::size_t length = std::min<std::size_t>(slot[1], MaxLabelUnits);
      for (std::size_t i = 0; i < length; ++i) drive.VolumeName += static_cast<char16_t>(ReadLe16(slot, 2 + 2 * i));
    }
  }
  if (!fillTable || info.Usage) return;
  const auto active = static_cast<std::size_t>(info.ActiveFAT);
  ReadUsage(drive, bitmaps[active].empty() ? bitmaps[1 - active] : bitmaps[active]);
}

/// The bits of all clusters. Those that cannot be read, or that the bitmap is too short for, are unknown. It may be
/// as long as the source: only what holds anything is read and kept.
void TexFAT::ReadUsage(TDriveInfo& drive, std::span<const std::uint8_t> entry) {
  TexFATInfo& info = exFATInfo(drive);
  if (entry.empty()) return;
  const std::int64_t clusterBytes = ClusterBytes(drive);
  const std::int64_t wanted = CeilDiv(info.ClusterCount, 8);
  const std::int64_t length =
      static_cast<std::int64_t>(std::min<std::uint64_t>(ReadLe64(entry, DataLengthAt), INT32_MAX));
  auto usage = std::make_shared<TUsage>();
  usage->Used = TClusterSet(LastCluster(drive));
  usage->Unknown = TClusterSet(LastCluster(drive));
  TChain chain(FTables, info.ActiveFAT, ReadLe32(entry, FirstClusterAt));
  std::int64_t done = 0;  // bytes of the bitmap
  while (done < std::min(wanted, length) && IsInside(drive, chain.Cluster())) {
    TRun run{chain.Cluster(), 1};
    TChain::TStep step = TChain::TStep::End;
    while (done + run.Count * clusterBytes < std::min(wanted, length)) {
      step = chain.Step(drive);
      const bool goesOn = step == TChain::TStep::Next || step == TChain::TStep::Guess;
      if (!goesOn || chain.Cluster() != run.Cluster + run.Count) break;
      ++run.Count;
    }
    // A volume may claim more than its source holds.
    const std::int64_t backed =
        FEngine.Reader().DeviceSectors(drive) - drive.FirstSector - ClusterSector(drive, run.Cluster);
    const std::int64_t most = std::max<std::int64_t>(backed, 0) * drive.BytesPerSector;
    const std::int64_t bytes = std::min({run.Count * clusterBytes, std::min(wanted, length) - done, most});
    ReadUsageRun(drive, ClusterSector(drive, run.Cluster), bytes, done, *usage);
    done += bytes;
    if (bytes == most || step == TChain::TStep::End || step == TChain::TStep::Broken) break;
  }
  usage->KnownEnd = std::min(2 + done * 8, LastCluster(drive) + 1);
  info.Usage = std::move(usage);
}

/// One piece of the bitmap: `bytes` from a sector of the volume on, which begin with byte `first` of the bitmap.
void TexFAT::ReadUsageRun(const TDriveInfo& drive, std::int64_t sector, std::int64_t bytes, std::int64_t first,
                          TUsage& usage) {
  const std::int64_t sectorSize = drive.BytesPerSector;
  TByteDynArray piece;
  for (std::int64_t at = 0; at < bytes; at += BitmapRead) {
    const std::int64_t start = drive.FirstSector + sector + at / sectorSize;
    const std::int64_t sectors = CeilDiv(std::min(BitmapRead, bytes - at), sectorSize);
    if (FEngine.Reader().NextDataSector(drive, start) >= start + sectors) continue;  // a hole: all free
    piece.resize(static_cast<std::size_t>(sectors * sectorSize));
    const bool whole = FEngine.Reader().ReadDriveSectors(drive, piece.data(), start, sectors) == piece.size();
    for (std::int64_t i = 0; i < sectors; ++i) {
      const auto bits =
          std::span(piece).subspan(static_cast<std::size_t>(i * sectorSize), static_cast<std::size_t>(sectorSize));
      const std::int64_t cluster = 2 + (first + at + i * sectorSize) * 8;
      if (whole || FEngine.Reader().ReadDriveSectors(drive, bits.data(), start + i, 1) != 0) {
        AddBits(usage.Used, cluster, bits, LastCluster(drive));
      } else {
        usage.Unknown.AddRange(cluster, cluster + sectorSize * 8);
      }
    }
    FEngine.Pump();
  }
}

/// The percentage of the boot sector; where that is not known, what the bitmap says.
void TexFAT::ReadFreeSize(TDriveInfo& drive, std::uint8_t percentInUse) {
  const auto& usage = exFATInfo(drive).Usage;
  if (percentInUse <= 100) {
    drive.aFreeSize = drive.SectorsCount / 100 * (100 - percentInUse) * drive.BytesPerSector;
  } else if (usage) {
    const std::int64_t taken = usage->Used.Count() + usage->Unknown.Count();
    drive.aFreeSize = std::max<std::int64_t>(exFATInfo(drive).ClusterCount - taken, 0) * ClusterBytes(drive);
  }
}

/// The table that turns names into upper case, unpacked: 0xFFFF is followed by a count of units that stay as they
/// are (section 7.2.5.1). Empty when it cannot be read as its root entry describes it.
TStringView TexFAT::UpCase(TDriveInfo& drive) {
  TexFATInfo& info = exFATInfo(drive);
  if (info.UpCase) return *info.UpCase;
  auto table = std::make_shared<TString>();
  info.UpCase = table;
  const std::int64_t sectors = CeilDiv(info.UpCaseBytes, drive.BytesPerSector);
  TByteDynArray packed(static_cast<std::size_t>(sectors * drive.BytesPerSector));
  if (packed.empty() || !IsInside(drive, info.UpCaseFirstCluster)) return *table;
  const std::int64_t start = drive.FirstSector + ClusterSector(drive, info.UpCaseFirstCluster);
  if (FEngine.Reader().ReadDriveSectors(drive, packed.data(), start, sectors) != packed.size()) return *table;
  table->resize(65536);
  std::size_t unit = 0;
  for (std::size_t at = 0; at + 2 <= info.UpCaseBytes && unit < table->size(); at += 2) {
    std::size_t same = 0;
    if (ReadLe16(packed, at) == 0xFFFF && at + 4 <= info.UpCaseBytes) {
      at += 2;
      same = ReadLe16(packed, at);
    } else {
      (*table)[unit++] = ReadLe16(packed, at);
    }
    for (; same > 0 && unit < table->size(); --same, ++unit) (*table)[unit] = static_cast<char16_t>(unit);
  }
  for (; unit < table->size(); ++unit) (*table)[unit] = static_cast<char16_t>(unit);
  return *table;
}

bool TexFAT::IsClusterBad(const TDriveInfo&, std::uint32_t entry) const { return entry == BadCluster28; }
bool TexFAT::IsClusterEOF(const TDriveInfo&, std::uint32_t entry) const { return entry > BadCluster28; }

}  // namespace brenlow
