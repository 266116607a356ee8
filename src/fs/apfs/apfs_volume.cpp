// SPDX-License-Identifier: GPL-3.0-or-later
// Recognition of containers, their checkpoints, and the volumes in them.
#include <algorithm>
#include <cstring>

#include "core/drives.h"
#include "core/engine.h"
#include "core/extent_reader.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/apfs/apfs.h"
#include "fs/apfs/apfs_node.h"
#include "fs/apfs/apfs_tree.h"

namespace brenlow {

using namespace apfs;

namespace {

constexpr std::uint32_t DefaultBlock = 4096;  // bytes; of nearly all containers
constexpr std::uint32_t LargestBlock = 65536;
constexpr std::int64_t MostBlocks = std::int64_t{1} << 44;
constexpr std::int64_t MostCheckpointBlocks = 1025 * 256;
constexpr std::size_t UUIDPlace = 72;

bool IsContainer(TBytes block) {
  const std::uint32_t size = ReadLe32(block, 36);
  const std::int64_t count = Id(block, 40);
  return ReadLe32(block, 32) == ContainerMark && TypeOf(block) == ContainerSuperblock && size >= 512 &&
         size <= LargestBlock && size % 512 == 0 && count > 0 && count < MostBlocks;
}

bool ReadVolume(TBytes block, TAPFSVolume& volume) {
  constexpr std::size_t nameAt = 704;
  constexpr std::size_t nameSize = 256;
  constexpr std::uint64_t sealed = 0x20;
  constexpr std::uint64_t unencrypted = 1;
  if (ReadLe32(block, 32) != VolumeMark || TypeOf(block) != VolumeSuperblock) return false;
  volume.ID = Id(block, 8);
  if (block.size() >= 256) std::copy_n(block.begin() + 240, volume.UUID.size(), volume.UUID.begin());
  volume.AllocBlockCount = Id(block, 88);
  volume.MapID = Id(block, 128);
  volume.RootID = Id(block, 136);
  volume.FilesCount = Id(block, 184);
  volume.FoldersCount = Id(block, 192);
  volume.Encrypted = ReadLe64(block, 264) % 16 / 8 == 1;
  volume.IsContentPlain = (ReadLe64(block, 56) & sealed) == 0 && (ReadLe64(block, 264) & unencrypted) != 0;
  if (block.size() >= nameAt + nameSize) {
    const auto* name = reinterpret_cast<const char*>(block.data()) + nameAt;
    volume.VolumeName = FromUtf8({name, strnlen(name, nameSize)});
  }
  return volume.AllocBlockCount > 0 && volume.AllocBlockCount < MostBlocks && volume.MapID > 0 && volume.RootID > 0;
}

/// Whether a sound superblock lies among the blocks after the first.
bool HoldsCopy(std::span<const std::uint8_t> head) {
  for (std::size_t at = DefaultBlock; at + DefaultBlock <= head.size(); at += DefaultBlock) {
    const auto block = head.subspan(at, DefaultBlock);
    if (IsContainer(block) && IsSound(block)) return true;
  }
  return false;
}

}  // namespace

bool TAPFS::IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const {
  if (start > buffer.size()) return false;
  TAPFSVolume volume;
  return IsContainer(buffer.subspan(start)) || ReadVolume(buffer.subspan(start), volume);
}

bool TAPFS::GetDriveInfo(TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t start) {
  if (!IsPartition(buffer, start)) return false;
  const TBytes block = buffer.subspan(start);
  if (drive.BytesPerSector == 0) {
    drive.BytesPerSector = FEngine.Drives().GetBytesPerSector(drive);
    drive.DefaultBytesPerSector = drive.BytesPerSector;
  }
  TAPFSInfo info;
  if (IsContainer(block)) {
    info.BlockSize = ReadLe32(block, 36);
    info.TotalBlockCount = Id(block, 40);
    info.MapID = Id(block, 160);
    std::copy_n(block.begin() + UUIDPlace, info.UUID.size(), info.UUID.begin());
    if (drive.BytesPerSector < 1 || info.BlockSize % static_cast<std::uint32_t>(drive.BytesPerSector) != 0)
      return false;
  } else {
    TAPFSVolume volume;
    ReadVolume(block, volume);
    info.IsContainerBroken = true;
    info.BlockSize = DefaultBlock;
    info.TotalBlockCount = volume.AllocBlockCount;
    drive.VolumeName = volume.VolumeName;
    info.Volumes.push_back(std::move(volume));
  }
  if (drive.SectorsCount == 0) {
    drive.SectorsCount = info.TotalBlockCount * info.BlockSize / std::max(drive.BytesPerSector, 1);
    drive.DefaultSectorsCount = drive.SectorsCount;
  }
  APFSInfo(drive) = std::move(info);
  return true;
}

/// Reads from a byte of a drive of which it is not known yet how long it is.
bool TAPFS::ReadDevice(const TDriveInfo& drive, std::int64_t place, std::span<std::uint8_t> buffer) {
  const std::int64_t sectorSize = std::max(FEngine.Drives().GetBytesPerSector(drive), 1);
  const std::int64_t skip = place % sectorSize;
  TByteDynArray sectors(
      static_cast<std::size_t>(CeilDiv(skip + static_cast<std::int64_t>(buffer.size()), sectorSize) * sectorSize));
  const std::int64_t first = drive.FirstSector + place / sectorSize;
  const bool whole = first >= 0 && FEngine.Reader().ReadOrZero(drive, sectors, first, TReadEffort::Content) == 0;
  std::copy_n(sectors.begin() + skip, buffer.size(), buffer.begin());
  return whole;
}

/// The superblock with the highest transaction among the sound ones: that of the first block, and those of the
/// area that it names. Where the first block is gone, the area lies where it is made by default, right behind it.
bool TAPFS::FindNewest(TDriveInfo& drive, TByteDynArray& newest) {
  constexpr std::int64_t defaultArea = 512;  // blocks
  TByteDynArray block(DefaultBlock);
  ReadDevice(drive, 0, block);
  const bool first = IsContainer(block);
  if (first) {
    block.resize(ReadLe32(block, 36));
    ReadDevice(drive, 0, block);
    newest = block;
  }
  const auto size = static_cast<std::int64_t>(block.size());
  const std::int64_t base = first ? Id(block, 112) : 1;
  const std::uint32_t length = ReadLe32(block, 104);
  // The top bit says that the area is in pieces that a tree lists: then the superblock of the first block counts.
  if (first && (length & 0x80000000) != 0) return true;
  const std::int64_t count = first ? std::min<std::int64_t>(length, MostCheckpointBlocks) : defaultArea;
  std::uint64_t transaction = first && IsSound(newest) ? TransactionOf(newest) : 0;
  if (base <= 0 || base >= MostBlocks) return first;
  for (std::int64_t i = 0; i < count; ++i) {
    if (!ReadDevice(drive, (base + i) * size, block)) break;
    if (!IsContainer(block) || TransactionOf(block) <= transaction) continue;
    if (ReadLe32(block, 36) != block.size() || !IsSound(block)) continue;
    transaction = TransactionOf(block);
    newest = block;
    FEngine.Pump();
  }
  return !newest.empty();
}

/// Fills the volumes by the container's object map. False when there is no map.
bool TAPFS::ReadVolumes(TDriveInfo& drive, std::span<const std::uint8_t> superblock) {
  constexpr std::size_t mostVolumes = 100;
  TAPFSInfo& info = APFSInfo(drive);
  const TTrees trees(FEngine, drive);
  const TAPFSIDs ids = trees.LoadMap(info.MapID, TransactionOf(superblock));
  for (std::size_t i = 0; i < mostVolumes; ++i) {
    const std::int64_t id = Id(superblock, 184 + i * 8);
    const std::int64_t block = id == 0 ? -1 : BlockOf(ids, id);
    if (block < 0) continue;
    const TByteDynArray bytes = trees.Block(block);
    TAPFSVolume volume;
    if (!ReadVolume(bytes, volume)) continue;
    volume.SuperBlockSector = block * info.BlockSize / drive.BytesPerSector;
    volume.IDs = trees.LoadMap(volume.MapID, TransactionOf(bytes));
    info.Volumes.push_back(std::move(volume));
  }
  if (info.Volumes.size() == 1) drive.VolumeName = info.Volumes.front().VolumeName;
  return !ids.empty();
}

bool TAPFS::GetDriveInfo(TDriveInfo& drive, bool /*fillTable: it has none*/) {
  TByteDynArray superblock;
  if (!FindNewest(drive, superblock)) {
    superblock.resize(DefaultBlock);
    return ReadDevice(drive, 0, superblock) && GetDriveInfo(drive, superblock, 0);
  }
  if (!GetDriveInfo(drive, superblock, 0)) return false;
  ReadVolumes(drive, superblock);
  return true;
}

TCopyFound TAPFS::RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int bytesPerSector) {
  // This is asked of every drive that nothing else is known of: the area is read only where the head shows its start.
  if (!HoldsCopy(head)) return {};
  TDriveInfo volume = drive;
  volume.BytesPerSector = bytesPerSector;
  TByteDynArray superblock;
  if (!FindNewest(volume, superblock) || !GetDriveInfo(volume, superblock, 0)) return {};
  // Superblocks of a container that began elsewhere lead to no object map.
  if (!ReadVolumes(volume, superblock)) return {};
  return {TFileSystem::fsAPFS, HoldsFolders(volume)};
}

bool TAPFS::SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> superblock) {
  volume.SectorsCount = 0;
  if (!IsContainer(superblock) || !GetDriveInfo(volume, superblock, 0)) return false;
  // Copies in the checkpoint area say nothing of where they lie: there, the map is not where it is said to be.
  TByteDynArray map(APFSInfo(volume).BlockSize);
  const std::int64_t block = APFSInfo(volume).MapID;
  if (block <= 0 || block >= APFSInfo(volume).TotalBlockCount) return false;
  // The number of such an object is that of its block.
  return ReadDevice(volume, block * APFSInfo(volume).BlockSize, map) && TypeOf(map) == ObjectMap && IsSound(map) &&
         Id(map, 8) == block;
}

bool TAPFS::IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> superblock) {
  TDriveInfo drive = volume;
  return SetVolumeBounds(drive, superblock);
}

}  // namespace brenlow
