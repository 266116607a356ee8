// SPDX-License-Identifier: GPL-3.0-or-later
// Recognition of XFS volumes, by the superblock or a copy of it, and their geometry.
#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

#include "core/drives.h"
#include "core/engine.h"
#include "core/extent_reader.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/xfs/xfs.h"
#include "fs/xfs/xfs_directory.h"
#include "fs/xfs/xfs_groups.h"

namespace brenlow {

using namespace xfs;

namespace {

constexpr std::uint32_t BlockSizes[] = {4096, 1024, 2048, 512, 65536, 8192, 16384, 32768};

/// Version 4 states the type byte of directory entries in the second set of features.
bool HasTypeByte4(TBytes superblock) {
  constexpr std::uint32_t published = 0x200;
  const std::uint32_t first = ReadBe32(superblock, 0xC8);
  const std::uint32_t features = first != 0 ? first : ReadBe32(superblock, 0xCC);
  // The first rule does not know the sets that mkfs.xfs makes (0x28A with the byte, 0x8A without).
  return features % 300 / 200 == 1 || (features & published) != 0;
}

void ReadFeatures(TBytes superblock, TXFSInfo& info) {
  constexpr std::uint32_t typeByte = 1;
  constexpr std::uint32_t sparseInodes = 2;
  constexpr std::uint32_t metaUUID = 4;
  const std::uint32_t incompatible = info.Version >= 5 ? ReadBe32(superblock, 0xD8) : 0;
  info.FlagInodeTypeInDir = info.Version < 5 ? HasTypeByte4(superblock) : (incompatible & typeByte) != 0;
  info.SparseInodes = (incompatible & sparseInodes) != 0;
  const std::size_t uuid = (incompatible & metaUUID) != 0 ? 0xF8 : 0x20;
  std::copy_n(superblock.begin() + static_cast<std::ptrdiff_t>(uuid), info.MetaUUID.size(), info.MetaUUID.begin());
}

void ReadSystemInodes(TBytes superblock, TXFSInfo& info) {
  info.SystemInodes.clear();
  for (const std::size_t field : {0x40U, 0x48U, 0xA0U, 0xA8U, 0xE8U}) {
    const auto inode = static_cast<std::int64_t>(ReadBe64(superblock, field));
    if (inode > 0 && (field != 0xE8 || info.Version >= 5)) info.SystemInodes.push_back(inode);
  }
  std::sort(info.SystemInodes.begin(), info.SystemInodes.end());
}

/// Reads all fields; those of a size that no volume has read as 0.
TXFSInfo ReadFields(TBytes superblock) {
  TXFSInfo info;
  const auto byte = [&](std::size_t at) { return static_cast<std::uint8_t>(ReadNumber(superblock, false, 1, at)); };
  info.Version = byte(0x65) & 0x0F;
  info.TotalBlockCount = static_cast<std::int64_t>(ReadBe64(superblock, 0x08));
  info.FreeBlockCount = static_cast<std::int64_t>(ReadBe64(superblock, 0x90));
  info.AllocatedInodes = static_cast<std::int64_t>(ReadBe64(superblock, 0x80));
  info.BlockSize = ReadBe32(superblock, 0x04);
  info.AGSize = ReadBe32(superblock, 0x54);
  info.AGCount = ReadBe32(superblock, 0x58);
  info.InodeSize = ReadBe16(superblock, 0x68);
  info.InodesPerBlock = ReadBe16(superblock, 0x6A);
  info.RootInode = static_cast<std::int64_t>(ReadBe64(superblock, 0x38));
  info.DirectoryBlocks = byte(0xC0) < 8 ? 1U << byte(0xC0) : 0;
  info.BlockRelativePart = byte(0x7C);
  info.InodeRelativePart = static_cast<std::uint8_t>(byte(0x7B) + byte(0x7C));
  info.SectorSize = ReadBe16(superblock, 0x66);
  return info;
}

/// Where another rule may rely on the fields: numbers that cannot overflow, sizes that fit into each other.
bool IsPlausible(const TXFSInfo& info) {
  constexpr std::int64_t mostBlocks = std::int64_t{1} << 44;
  constexpr unsigned mostGroupBits = 32;
  const auto isSize = [](std::uint32_t size, std::uint32_t least, std::uint32_t most) {
    return std::has_single_bit(size) && size >= least && size <= most;
  };
  return isSize(info.BlockSize, SmallestBlock, LargestBlock) && isSize(info.InodeSize, 256, 2048) &&
         isSize(info.SectorSize, 512, 32768) && info.InodeSize <= info.BlockSize &&
         info.InodesPerBlock == info.BlockSize / info.InodeSize && info.TotalBlockCount > 0 &&
         info.TotalBlockCount < mostBlocks && info.BlockRelativePart <= mostGroupBits &&
         info.InodeRelativePart <= mostGroupBits + 8 && info.AGSize <= std::uint64_t{1} << info.BlockRelativePart &&
         DirectoryBlockSize(info) <= LargestBlock &&
         (std::int64_t{info.AGCount} - 1) * info.AGSize < info.TotalBlockCount &&
         info.TotalBlockCount <= std::int64_t{info.AGCount} * info.AGSize;
}

bool IsFilled(const TXFSInfo& info) {
  return info.SectorSize != 0 && info.TotalBlockCount != 0 && info.BlockSize != 0 && info.AGSize != 0 &&
         info.AGCount != 0 && info.InodeSize != 0 && info.InodesPerBlock != 0 && info.DirectoryBlocks != 0 &&
         info.BlockRelativePart != 0 && info.InodeRelativePart != 0;
}

std::int64_t VolumeBytes(const TXFSInfo& info) { return info.TotalBlockCount * info.BlockSize; }

}  // namespace

bool TXFS::IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const {
  if (start > buffer.size() || ReadBe32(buffer, start) != SuperblockMark) return false;
  const TXFSInfo info = ReadFields(buffer.subspan(start));
  return IsFilled(info) && IsPlausible(info);
}

bool TXFS::IsSystemFilled(const TDriveInfo& drive) const {
  return drive.BytesPerSector > 0 && IsFilled(XFSInfo(drive));
}

bool TXFS::GetDriveInfo(TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t start) {
  constexpr std::size_t labelSize = 12;
  if (!IsPartition(buffer, start)) return false;
  const auto superblock = buffer.subspan(start);
  const std::int64_t sector = XFSInfo(drive).SuperBlockSector;
  TXFSInfo info = ReadFields(superblock);
  if (drive.BytesPerSector == 0) {
    drive.BytesPerSector = static_cast<int>(info.SectorSize);
    drive.DefaultBytesPerSector = drive.BytesPerSector;
  }
  info.SuperBlockSector = sector;
  info.JournalBlock = static_cast<std::int64_t>(ReadBe64(superblock, 0x30));
  info.JournalSize = ReadBe32(superblock, 0x60);
  info.RealTimeBlocks = static_cast<std::int64_t>(ReadBe64(superblock, 0x10));
  ReadFeatures(superblock, info);
  ReadSystemInodes(superblock, info);
  if (drive.SectorsCount == 0) {
    drive.SectorsCount = VolumeBytes(info) / drive.BytesPerSector;
    drive.DefaultSectorsCount = drive.SectorsCount;
  }
  // The counts of a copy are those of the day on which the volume was made.
  if (sector == 0)
    drive.aFreeSize = std::clamp<std::int64_t>(info.FreeBlockCount, 0, info.TotalBlockCount) * info.BlockSize;
  if (superblock.size() >= 0x6C + labelSize) {
    const auto* label = reinterpret_cast<const char*>(superblock.data()) + 0x6C;
    drive.VolumeName = FromUtf8({label, strnlen(label, labelSize)});
  }
  XFSInfo(drive) = std::move(info);
  return true;
}

/// Reads from a byte of a drive of which it is not known yet how long it is.
bool TXFS::ReadDevice(const TDriveInfo& drive, std::int64_t place, std::span<std::uint8_t> buffer) {
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  const std::int64_t skip = place % sectorSize;
  TByteDynArray sectors(
      static_cast<std::size_t>(CeilDiv(skip + static_cast<std::int64_t>(buffer.size()), sectorSize) * sectorSize));
  const std::int64_t first = drive.FirstSector + place / sectorSize;
  const bool whole = first >= 0 && FEngine.Reader().ReadOrZero(drive, sectors, first, TReadEffort::Content) == 0;
  std::copy_n(sectors.begin() + skip, buffer.size(), buffer.begin());
  return whole;
}

bool TXFS::ReadSuperblock(TDriveInfo& drive, std::int64_t place) {
  TByteDynArray superblock(512);
  if (!ReadDevice(drive, place, superblock)) return false;
  const int sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  XFSInfo(drive).SuperBlockSector = place / sectorSize;
  if (!GetDriveInfo(drive, superblock, 0)) return false;
  XFSInfo(drive).SuperBlockSector = place / drive.BytesPerSector;
  return true;
}

bool TXFS::GetDriveInfo(TDriveInfo& drive, bool /*fillTable: it has none*/) {
  if (ReadSuperblock(drive, 0)) {
    if (!HasRoot(drive)) FindRoot(drive);
    return true;
  }
  return FindCopy(drive);
}

bool TXFS::GetFirstSectorFromSuperBlock(const TDriveInfo& parent, TDriveInfo& drive, std::int64_t superBlockSector,
                                        bool& copy) {
  const TXFSInfo& info = XFSInfo(drive);
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(parent);
  TDriveInfo device = parent;
  device.FirstSector = superBlockSector;
  device.SectorsCount = 0;
  TByteDynArray header(512);
  if (!ReadDevice(device, info.SectorSize, header)) return false;
  const std::uint32_t group = ReadBe32(header, 8);
  if (ReadBe32(header, 0) != FreeSpaceMark || group >= info.AGCount) return false;
  const std::int64_t distance = std::int64_t{group} * info.AGSize * info.BlockSize / sectorSize;
  drive.FirstSector = superBlockSector - distance;
  XFSInfo(drive).SuperBlockSector = distance;
  copy = group != 0;
  return true;
}

bool TXFS::SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> superblock) {
  const std::int64_t met = volume.FirstSector;
  volume.SectorsCount = 0;
  if (!GetDriveInfo(volume, superblock, 0)) return false;
  bool copy = false;
  if (GetFirstSectorFromSuperBlock(volume, volume, met, copy)) return volume.FirstSector >= 0;
  // The header after it is gone: the first superblock leads to the root folder.
  return HasRoot(volume);
}

bool TXFS::IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> superblock) {
  TDriveInfo drive = volume;
  return GetDriveInfo(drive, superblock, 0) && HasRoot(drive);
}

// ---- copies ---------------------------------------------------------------------------------

TCopyFound TXFS::RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> /*head*/, int bytesPerSector) {
  TDriveInfo volume = drive;
  volume.BytesPerSector = bytesPerSector;
  if (!FindCopy(volume)) return {};
  return {TFileSystem::fsXFS, HasRoot(volume)};
}

/// A superblock at a place where the one of a group may lie, if the header after it says that it does.
bool TXFS::TryCopy(TDriveInfo& drive, std::int64_t place) {
  if (place <= 0) return false;
  TDriveInfo attempt = drive;
  if (!ReadSuperblock(attempt, place)) return false;
  const TXFSInfo& info = XFSInfo(attempt);
  const std::int64_t groupBytes = std::int64_t{info.AGSize} * info.BlockSize;
  if (place % groupBytes != 0) return false;
  TByteDynArray header(512);
  ReadDevice(attempt, place + info.SectorSize, header);
  if (ReadBe32(header, 0) != FreeSpaceMark || ReadBe32(header, 8) != place / groupBytes) return false;
  attempt.GeometrySource = TPlaceSource::FromCopy;
  drive = std::move(attempt);
  FindRoot(drive);
  return true;
}

/// Looks where the header of the first group says that the second one begins, then where mkfs.xfs puts it on a
/// volume of this size: it makes 4 groups, or ones of 1 TiB, and other numbers when it is told to.
bool TXFS::FindCopy(TDriveInfo& drive) {
  constexpr std::int64_t largestGroup = std::int64_t{1} << 40;  // bytes
  constexpr std::int64_t mostGroups = 64;
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  TByteDynArray header(512);
  for (std::int64_t sector = 512; sector <= 4096; sector *= 2) {
    ReadDevice(drive, sector, header);
    if (ReadBe32(header, 0) != FreeSpaceMark || ReadBe32(header, 8) != 0) continue;
    for (const std::uint32_t block : BlockSizes) {
      if (TryCopy(drive, std::int64_t{ReadBe32(header, 0x0C)} * block)) return true;
    }
  }
  const std::int64_t device = FEngine.Reader().DeviceSectors(drive);
  const std::int64_t there = device == INT64_MAX ? 0 : device - drive.FirstSector;
  const std::int64_t bytes = (drive.SectorsCount > 0 ? drive.SectorsCount : there) * sectorSize;
  std::vector<std::int64_t> tried;  // block sizes differ, the places often do not
  const auto tryOnce = [&](std::int64_t place) {
    if (place >= bytes || std::find(tried.begin(), tried.end(), place) != tried.end()) return false;
    tried.push_back(place);
    return TryCopy(drive, place);
  };
  for (const std::uint32_t block : BlockSizes) {
    const std::int64_t blocks = bytes / block;
    if (tryOnce((largestGroup / block - 1) * block)) return true;
    for (std::int64_t groups = 2; groups <= mostGroups && blocks / groups > 0; groups += groups < 5 ? 1 : groups) {
      if (tryOnce(CeilDiv(blocks, groups) * block)) return true;
    }
  }
  return false;
}

// ---- the root folder ------------------------------------------------------------------------

/// True for a directory that lies in itself.
bool TXFS::IsRoot(const TDriveInfo& drive, std::int64_t inode) {
  const TXFSInfo& info = XFSInfo(drive);
  const std::int64_t place = InodePlace(info, inode);
  TByteDynArray bytes(info.InodeSize);
  TInodeCore core;
  if (place < 0 || !FEngine.Content().ReadPlace(drive, place, bytes)) return false;
  if (!ReadInodeCore(bytes, core) || core.FileType != TFileType::ftDirectory) return false;
  if (core.DataForkFormat != XFS_DINODE_FMT_LOCAL) return core.Links >= 2;
  std::int64_t parent = NoInode;
  std::int64_t size = 0;
  const auto ignore = [](const TFileEntry&) { return true; };
  return WalkShortDirectory(info, DataFork(bytes), parent, size, ignore) && parent == inode;
}

bool TXFS::HasRoot(const TDriveInfo& drive) { return IsRoot(drive, XFSInfo(drive).RootInode); }

/// Copies of the superblock need not know the root folder; two of them do. Else it is the first inode of all. Where
/// the folder itself is gone its number is kept: what lies in it names it.
void TXFS::FindRoot(TDriveInfo& drive) {
  if (HasRoot(drive)) return;
  TXFSInfo& info = XFSInfo(drive);
  const auto take = [&](std::int64_t inode) {
    if (!IsRoot(drive, inode)) return false;
    info.RootInode = inode;
    return true;
  };
  TByteDynArray superblock(512);
  for (const std::int64_t group : {std::int64_t{info.AGCount} - 1, (std::int64_t{info.AGCount} - 1) / 2}) {
    FEngine.Content().ReadPlace(drive, group * info.AGSize * info.BlockSize, superblock);
    if (!IsPartition(superblock, 0)) continue;
    const auto stated = static_cast<std::int64_t>(ReadBe64(superblock, 0x38));
    if (take(stated)) return;
    if (InodePlace(info, info.RootInode) < 0) info.RootInode = stated;
  }
  std::vector<TInodeChunk> chunks;
  TGroups(FEngine, drive).ReadChunks(0, chunks);
  if (!chunks.empty() && take(chunks.front().FirstInode)) return;
  constexpr std::int64_t mostBlocks = 512;  // of the first group, which begins with headers and tree blocks
  for (std::int64_t block = 0; block < std::min<std::int64_t>(mostBlocks, info.AGSize); ++block) {
    if (take(block * info.InodesPerBlock)) return;
  }
}

// ---- numbers --------------------------------------------------------------------------------

bool TXFS::BlockNumberToSectorNumber(const TDriveInfo& drive, std::int64_t block, std::int64_t& sector) const {
  const std::int64_t linear = LinearBlock(XFSInfo(drive), block);
  if (linear < 0 || drive.BytesPerSector < 1) return false;
  sector = linear * XFSInfo(drive).BlockSize / drive.BytesPerSector;
  return true;
}

bool TXFS::InodeNumberToSectorNumber(const TDriveInfo& drive, std::int64_t inode, TInodeSectors& place) const {
  const TXFSInfo& info = XFSInfo(drive);
  const std::int64_t byte = InodePlace(info, inode);
  if (byte < 0 || drive.BytesPerSector < 1) return false;
  place.Group = inode >> info.InodeRelativePart;
  place.RelativeInode = inode & ((std::int64_t{1} << info.InodeRelativePart) - 1);
  place.Sector = byte / drive.BytesPerSector;
  place.Offset = static_cast<int>(byte % drive.BytesPerSector);
  place.Count = static_cast<int>(CeilDiv(place.Offset + info.InodeSize, drive.BytesPerSector));
  return true;
}

}  // namespace brenlow
