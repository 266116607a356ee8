// SPDX-License-Identifier: GPL-3.0-or-later
// Recognition, the superblock and its copies, and the table of block groups.
#include <algorithm>
#include <array>
#include <set>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "fs/ext/ext.h"
#include "fs/ext/ext_blocks.h"
#include "fs/ext/ext_journal.h"
#include "fs/ext/ext_superblock.h"

namespace brenlow {

using namespace ext;

namespace {

constexpr std::int64_t MostTableBlocks = 1'048'576 * std::int64_t{8} * 1024;  // larger volumes get no group table
constexpr std::int64_t MostGroups = 1 << 21;
constexpr std::int64_t ChunkSectors = 256;  // of the group table, read together
constexpr std::int64_t CheckedGroups = 64;  // whose descriptors vouch for a table

int SectorSizeOf(TEngine& engine, const TDriveInfo& drive) {
  return std::max(engine.Drives().GetBytesPerSector(drive), 1);
}

/// The groups that hold a copy by rule: 1, and the powers of 3, 5 and 7.
std::set<std::int64_t> CopyGroups(std::int64_t groups) {
  std::set<std::int64_t> result;
  if (groups > 1) result.insert(1);
  for (const std::int64_t base : {3, 5, 7}) {
    for (std::int64_t group = base; group < groups; group *= base) result.insert(group);
  }
  return result;
}

/// Whether a group begins with a copy of the superblock, as the features say.
bool HasCopy(const TExtXInfo& info, const std::set<std::int64_t>& sparse, std::int64_t group) {
  constexpr std::uint32_t sparseSuper = 1;
  if (group == 0) return true;
  if ((info.FeatureCompat & Feature::CompatSparseSuper2) != 0) return group == 1 || group == GroupCount(info) - 1;
  return (info.FeatureReadOnly & sparseSuper) == 0 || sparse.contains(group);
}

/// The locations in one descriptor must lie in the volume.
bool IsSoundDescriptor(const TExtXInfo& info, std::span<const std::uint8_t> descriptor) {
  const bool wide = info.GroupDescriptorsRecordSize >= 44;
  for (const std::size_t at : {std::size_t{0}, std::size_t{4}, std::size_t{8}}) {
    const std::int64_t block =
        ReadLe32(descriptor, at) | (wide ? std::int64_t{ReadLe32(descriptor, at + 32)} << 32 : 0);
    if (block <= info.FirstDataBlock || block >= info.TotalBlockCount) return false;
  }
  return ReadLe16(descriptor, 14) <= info.InodesPerGroup;
}

}  // namespace

// ---- recognition ----------------------------------------------------------------------------

bool TExtX::IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const {
  return IsPlausible(buffer, start) &&
         (ReadLe32(buffer, start + 96) & (Feature::IncompatJournalDevice | Feature::IncompatCompression)) == 0;
}

TFileSystem TExtX::GetFileSystem(std::span<const std::uint8_t> buffer, std::size_t start) const {
  return SystemOf(buffer, start);
}

bool TExtX::IsSystemFilled(const TDriveInfo& drive) const { return IsFilled(ExtXInfo(drive)); }

bool TExtX::GetDriveInfo(TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t start,
                         bool additionalCheck) {
  if (drive.BytesPerSector <= 0) drive.BytesPerSector = SectorSizeOf(FEngine, drive);
  TExtXInfo info;
  info.SuperBlockSector = ExtXInfo(drive).SuperBlockSector;
  TString name;
  if (!ParseSuperblock(buffer, start, additionalCheck, info, name) || !IsPlausible(buffer, start)) return false;
  drive.FileSystem = SystemOf(buffer, start);
  if (drive.SectorsCount <= 0) {
    drive.SectorsCount = info.TotalBlockCount * info.BlockSize / drive.BytesPerSector;
    drive.DefaultSectorsCount = drive.SectorsCount;
  }
  drive.DefaultSectorsPerCluster = info.BlockSize / static_cast<unsigned>(drive.BytesPerSector);
  drive.aFreeSize = std::clamp<std::int64_t>(info.FreeBlockCount, 0, info.TotalBlockCount) * info.BlockSize;
  drive.VolumeName = name;
  ExtXInfo(drive) = std::move(info);
  return true;
}

bool TExtX::IsKnownByCopy(const TDriveInfo& drive) {
  const std::int64_t bytesPerSector = std::max(drive.BytesPerSector, 1);
  return ExtXInfo(drive).SuperBlockSector * bytesPerSector >= 2 * static_cast<std::int64_t>(SuperblockOffset);
}

bool TExtX::GetDriveInfo(TDriveInfo& drive, bool fillTable, bool additionalCheck) {
  if (drive.BytesPerSector <= 0) drive.BytesPerSector = SectorSizeOf(FEngine, drive);
  const std::int64_t own = SuperblockOffset / drive.BytesPerSector;
  TExtXInfo& info = ExtXInfo(drive);
  if (info.SuperBlockSector == 0) info.SuperBlockSector = own;
  TByteDynArray buffer(
      static_cast<std::size_t>(std::max<std::int64_t>(2, SuperblockOffset * 2 / drive.BytesPerSector)) *
      static_cast<std::size_t>(drive.BytesPerSector));
  const auto start =
      static_cast<std::size_t>(info.SuperBlockSector == own ? SuperblockOffset % drive.BytesPerSector : 0);
  FEngine.Reader().ReadOrZero(drive, buffer, drive.FirstSector + info.SuperBlockSector, TReadEffort::Content);
  const bool sound = GetDriveInfo(drive, buffer, start, additionalCheck);
  if (!sound && !FindCopy(drive)) return false;
  if (IsKnownByCopy(drive) && drive.GeometrySource == TPlaceSource::Stored)
    drive.GeometrySource = TPlaceSource::FromCopy;
  if (!fillTable) return true;
  FillGroups(drive, true, ExtXInfo(drive).Groups);
  OpenJournal(FEngine, drive);
  return true;
}

std::int64_t TExtX::GetFirstSectorFromSuperblock(const TDriveInfo& drive, std::span<const std::uint8_t> buffer,
                                                 std::size_t start, bool& copy) const {
  const std::int64_t sectorSize = SectorSizeOf(FEngine, drive);
  const std::int64_t group = GroupOfCopy(buffer, start);
  TExtXInfo info;
  TString name;
  copy = group > 0 && ParseSuperblock(buffer, start, false, info, name);
  return copy ? GroupStart(info, group) * info.BlockSize / sectorSize : SuperblockOffset / sectorSize;
}

bool TExtX::SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> superblock) {
  TExtXInfo info;
  TString name;
  if (!IsPartition(superblock, 0) || !ParseSuperblock(superblock, 0, false, info, name)) return false;
  const std::int64_t sectorSize = SectorSizeOf(FEngine, volume);
  bool copy = false;
  const std::int64_t before = GetFirstSectorFromSuperblock(volume, superblock, 0, copy);
  if (volume.FirstSector < before) return false;
  volume.FirstSector -= before;
  volume.SectorsCount = info.TotalBlockCount * info.BlockSize / sectorSize;
  TDriveInfo candidate = volume;
  candidate.BytesPerSector = static_cast<int>(sectorSize);
  info.SuperBlockSector = before;
  ExtXInfo(candidate) = info;
  if (!HasSoundGroups(candidate)) return false;
  ExtXInfo(volume).SuperBlockSector = copy ? before : 0;
  return true;
}

/// Whether the group table beside the superblock in force leads to places in the volume.
bool TExtX::HasSoundGroups(const TDriveInfo& drive) {
  const TExtXInfo& info = ExtXInfo(drive);
  if (info.HasMetaGroups && info.FirstMetaGroup == 0) return true;
  const std::int64_t count = std::min(GroupCount(info), CheckedGroups);
  const TByteDynArray table = ReadDescriptors(drive, count);
  const std::size_t size = info.GroupDescriptorsRecordSize;
  std::int64_t sound = 0;
  for (std::int64_t group = 0; group < count; ++group) {
    const std::size_t at = static_cast<std::size_t>(group) * size;
    if (at + size > table.size()) break;
    sound += IsSoundDescriptor(info, std::span(table).subspan(at, size)) ? 1 : 0;
  }
  return sound > 0 && sound * 4 >= count * 3;
}

bool TExtX::IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> superblock) {
  if (!IsPartition(superblock, 0)) return false;
  TDriveInfo drive = volume;
  if (!GetDriveInfo(drive, true, true)) return false;
  return HoldsFolders(drive);
}

bool TExtX::HoldsFolders(const TDriveInfo& volume) {
  TDriveInfo drive = volume;
  if (ExtXInfo(drive).Groups.empty() && !GetDriveInfo(drive, true, true)) return false;
  TVolumeReader reader(FEngine, drive);
  TInode root;
  if (!ParseInode(reader.Inode(RootInode), reader, TBlockList::Read, root)) return HasSoundGroups(drive);
  return root.Type == TFileType::ftDirectory && (root.IsInline || !root.Blocks.empty());
}

TCopyFound TExtX::RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> /*head*/, int bytesPerSector) {
  TDriveInfo candidate = drive;
  candidate.Systems.Clear();
  candidate.BytesPerSector = bytesPerSector;
  if (!FindCopy(candidate)) return {};
  return {candidate.FileSystem, HasSoundGroups(candidate)};
}

bool TExtX::IsCopyOf(const TDriveInfo& volume, const TDriveInfo& known) {
  return volume.FirstSector == known.FirstSector && IsKnownByCopy(volume);
}

std::int64_t TExtX::AllocationUnit(const TDriveInfo& drive) const {
  return std::int64_t{ExtXInfo(drive).BlockSize} * ExtXInfo(drive).ClusterRatio;
}

// ---- copies of the superblock ---------------------------------------------------------------

/// Takes the copy of a group when it is one: it says its own number, and the sizes that lead to it.
bool TExtX::TryCopy(TDriveInfo& drive, std::int64_t group, std::uint32_t blockSize) {
  const std::int64_t firstBlock = blockSize == 1024 ? 1 : 0;
  const std::int64_t byte = (firstBlock + group * 8 * std::int64_t{blockSize}) * blockSize;
  const std::int64_t sectorSize = drive.BytesPerSector;
  if (byte % sectorSize != 0 || (drive.SectorsCount > 0 && byte / sectorSize >= drive.SectorsCount)) return false;
  TByteDynArray buffer(static_cast<std::size_t>(CeilDiv(SuperblockSize, sectorSize) * sectorSize));
  const std::int64_t sector = byte / sectorSize;
  if (FEngine.Reader().ReadDriveSectors(drive, buffer.data(), drive.FirstSector + sector,
                                        static_cast<std::int64_t>(buffer.size()) / sectorSize) != buffer.size()) {
    return false;
  }
  if (ReadLe16(buffer, 56) != Magic || GroupOfCopy(buffer, 0) != static_cast<std::uint32_t>(group)) return false;
  ExtXInfo(drive).SuperBlockSector = sector;
  if (!IsPartition(buffer, 0) || !GetDriveInfo(drive, buffer, 0, true)) return false;
  return ExtXInfo(drive).BlockSize == blockSize && ExtXInfo(drive).BlocksPerGroup == 8 * blockSize;
}

bool TExtX::TryCopies(TDriveInfo& drive, std::uint32_t blockSize) {
  const std::int64_t groupBytes = 8 * std::int64_t{blockSize} * blockSize;
  const std::int64_t bytes = drive.SectorsCount * drive.BytesPerSector;
  const std::int64_t groups = CeilDiv(bytes, groupBytes);
  for (const std::int64_t group : {1, 3, 5, 7, 9, 25, 27, 49}) {
    if (group < groups && TryCopy(drive, group, blockSize)) return true;
  }
  // Volumes with two copies only keep the second one in their last group.
  return groups > 2 && (TryCopy(drive, groups - 1, blockSize) || TryCopy(drive, groups - 2, blockSize));
}

bool TExtX::FindCopy(TDriveInfo& drive) {
  const std::int64_t stated = drive.SectorsCount;
  const std::int64_t device = FEngine.Reader().DeviceSectors(drive);
  // Whoever asks what fills a whole drive does not say how long it is.
  if (stated <= 0 && device != INT64_MAX) drive.SectorsCount = device - drive.FirstSector;
  if (drive.BytesPerSector <= 0 || drive.SectorsCount <= 0) return false;
  for (const std::uint32_t blockSize : {4096U, 1024U, 2048U, 65536U, 8192U, 16384U, 32768U}) {
    if (!TryCopies(drive, blockSize)) continue;
    drive.GeometrySource = TPlaceSource::FromCopy;
    return true;
  }
  ExtXInfo(drive) = TExtXInfo();
  drive.SectorsCount = stated;
  return false;
}

// ---- block groups ---------------------------------------------------------------------------

std::int64_t TExtX::GetMainGroupDescriptorsLocation(const TDriveInfo& drive) const {
  const TExtXInfo& info = ExtXInfo(drive);
  const std::int64_t sectorSize = std::max(drive.BytesPerSector, 1);
  if (info.SuperBlockSector > 2) {
    return (info.SuperBlockSector + info.BlockSize / sectorSize) * sectorSize / info.BlockSize;
  }
  return info.BlockSize > 1024 ? 1 : 2;
}

/// The bytes of the first `count` descriptors, as far as they can be read.
TByteDynArray TExtX::ReadDescriptors(const TDriveInfo& drive, std::int64_t count) {
  const TExtXInfo& info = ExtXInfo(drive);
  const std::int64_t sectorSize = drive.BytesPerSector;
  const std::int64_t blockSize = info.BlockSize;
  const std::int64_t perBlock = blockSize / info.GroupDescriptorsRecordSize;
  if (perBlock <= 0) return {};
  const std::int64_t blocks = CeilDiv(count, perBlock);
  const std::int64_t together = info.HasMetaGroups ? std::min<std::int64_t>(info.FirstMetaGroup, blocks) : blocks;
  const std::int64_t available = FEngine.Reader().DeviceSize(drive);
  if (blocks * blockSize > available) return {};
  TByteDynArray table(static_cast<std::size_t>(blocks * blockSize));
  const auto read = [&](std::int64_t block, std::span<std::uint8_t> place) {
    TVolumeReader reader(FEngine, drive);
    return reader.ReadBytes(block * blockSize, place);
  };
  const std::int64_t first = GetMainGroupDescriptorsLocation(drive);
  const std::int64_t chunk = std::max<std::int64_t>(ChunkSectors * sectorSize / blockSize, 1);
  for (std::int64_t at = 0; at < together; at += chunk) {
    const auto bytes = std::span(table).subspan(static_cast<std::size_t>(at * blockSize),
                                                static_cast<std::size_t>(std::min(chunk, together - at) * blockSize));
    if (!read(first + at, bytes)) {
      table.resize(static_cast<std::size_t>(at * blockSize));
      return table;
    }
  }
  const std::set<std::int64_t> sparse = CopyGroups(GroupCount(info));
  for (std::int64_t at = together; at < blocks; ++at) {
    const std::int64_t group = at * perBlock;
    const std::int64_t block = GroupStart(info, group) + (HasCopy(info, sparse, group) ? 1 : 0);
    read(block,
         std::span(table).subspan(static_cast<std::size_t>(at * blockSize), static_cast<std::size_t>(blockSize)));
  }
  return table;
}

/// `inForce`: what it says of bitmaps and inodes never written still holds.
void TExtX::ParseDescriptors(const TDriveInfo& drive, std::span<const std::uint8_t> table, bool inForce,
                             TExtXGroups& groups) const {
  constexpr std::uint16_t bitmapUnused = 2;
  constexpr std::uint16_t tableZeroed = 4;
  const TExtXInfo& info = ExtXInfo(drive);
  const std::size_t size = info.GroupDescriptorsRecordSize;
  const auto perBlock = info.BlockSize / size;
  const bool wide = size >= 44;
  const bool flagged =
      inForce && (info.FeatureReadOnly & (Feature::ReadOnlyGroupChecksums | Feature::ReadOnlyMetadataChecksums)) != 0;
  for (std::size_t number = 0; number < groups.size(); ++number) {
    const std::size_t at = number / perBlock * info.BlockSize + number % perBlock * size;
    if (at + size > table.size()) {
      groups.resize(number);
      return;
    }
    const auto descriptor = table.subspan(at, size);
    const auto place = [&](std::size_t low) {
      return ReadLe32(descriptor, low) | (wide ? std::int64_t{ReadLe32(descriptor, low + 32)} << 32 : 0);
    };
    TExtXGroup& group = groups[number];
    group.BlockBitmapLocation = place(0);
    group.InodeBitmapLocation = place(4);
    group.InodesLocation = place(8);
    if (!flagged) continue;
    const std::uint16_t flags = ReadLe16(descriptor, 18);
    group.BlockBitmapUnused = (flags & bitmapUnused) != 0;
    const std::uint32_t unused =
        ReadLe16(descriptor, 28) | (size >= 52 ? std::uint32_t{ReadLe16(descriptor, 50)} << 16 : 0);
    if ((flags & tableZeroed) != 0) group.BlankInodes = std::min(unused, info.InodesPerGroup);
  }
}

/// In which blocks of each group lost folders are looked for first.
void TExtX::SetDataRanges(const TDriveInfo& drive, std::span<const std::uint8_t> table, TExtXGroups& groups) const {
  const TExtXInfo& info = ExtXInfo(drive);
  const auto count = static_cast<std::int64_t>(groups.size());
  const std::int64_t blockSize = info.BlockSize;
  const std::int64_t descriptorBlocks = CeilDiv(count * info.GroupDescriptorsRecordSize, blockSize);
  const std::int64_t remainder = info.TotalBlockCount % info.BlocksPerGroup;
  const std::int64_t lastBlocks = remainder == 0 ? info.BlocksPerGroup : remainder;
  const std::uint32_t inodeRemainder = info.TotalInodeCount % info.InodesPerGroup;
  const std::set<std::int64_t> copies = CopyGroups(count);
  std::int64_t freeBlocks = 0;
  for (std::int64_t number = 0; number < count; ++number) {
    TExtXGroup& group = groups[static_cast<std::size_t>(number)];
    const std::size_t at = static_cast<std::size_t>(number) * info.GroupDescriptorsRecordSize;
    const std::int64_t groupFree = ReadLe16(table, at + 12);
    freeBlocks += groupFree;
    group.HasSuperBlockCopy = number == 0 || copies.contains(number);
    std::int64_t blocks = lastBlocks;
    std::int64_t metadata = 0;
    if (number % info.FlexibleBlockGroupsSize == 0) {
      const bool isLast = number == count - 1;
      if (!isLast) blocks = info.BlocksPerGroup;
      const std::int64_t inodes = isLast && inodeRemainder != 0 ? inodeRemainder : info.InodesPerGroup;
      metadata = (CeilDiv(CeilDiv(blocks, 8), blockSize) + CeilDiv(CeilDiv(inodes, 8), blockSize) +
                  CeilDiv(inodes * info.InodeSize, blockSize)) *
                 info.FlexibleBlockGroupsSize;
    }
    if (group.HasSuperBlockCopy) metadata += descriptorBlocks + 1;
    group.DataLocation = info.BlocksPerGroup * number + metadata;
    group.DataBlocks = groupFree < blocks - metadata ? (blocks - metadata) / 8 * 8 : 0;
  }
  if (freeBlocks != 0) return;
  for (TExtXGroup& group : groups) group.DataBlocks = 0;
}

void TExtX::FillGroups(TDriveInfo& drive, bool dataBitmap, TExtXGroups& groups) {
  groups.clear();
  TExtXInfo& info = ExtXInfo(drive);
  info.TotalFolders = 0;
  if (!IsFilled(info) || info.TotalBlockCount > MostTableBlocks) return;
  const std::int64_t count = std::min(GroupCount(info), MostGroups);
  // The first table is the one in force, also where its superblock is gone; the others are as old as the volume.
  TDriveInfo first = drive;
  ExtXInfo(first).SuperBlockSector = SuperblockOffset / std::max(drive.BytesPerSector, 1);
  const bool inForce = HasSoundGroups(first);
  TByteDynArray table = ReadDescriptors(inForce ? first : drive, count);
  if (!inForce && !HasSoundGroups(drive)) {
    // The table is gone, though the superblock is not: a copy of both serves.
    TDriveInfo copy = drive;
    copy.Systems.Clear();
    if (FindCopy(copy) && HasSoundGroups(copy)) {
      const TByteDynArray other = ReadDescriptors(copy, count);
      if (ExtXInfo(copy).BlocksPerGroup == info.BlocksPerGroup && !other.empty()) table = other;
    }
  }
  groups.resize(static_cast<std::size_t>(count));
  ParseDescriptors(drive, table, inForce, groups);
  for (std::size_t number = 0; number < groups.size(); ++number) {
    const std::size_t at = number * info.GroupDescriptorsRecordSize;
    const bool wide = info.GroupDescriptorsRecordSize >= 52;
    info.TotalFolders += ReadLe16(table, at + 16) + (wide ? std::int64_t{ReadLe16(table, at + 48)} * 65536 : 0);
  }
  if (dataBitmap) SetDataRanges(drive, table, groups);
}

}  // namespace brenlow
