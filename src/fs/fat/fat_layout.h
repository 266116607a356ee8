// SPDX-License-Identifier: GPL-3.0-or-later
// Places in the structures of a FAT volume and the arithmetic of its clusters.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

#include "core/drive_records.h"
#include "core/numbers.h"
#include "fs/fat/fat_info.h"

namespace brenlow::fat {

// Boot sector, byte offsets, little-endian.
inline constexpr std::size_t BytesPerSectorAt = 11;
inline constexpr std::size_t SectorsPerClusterAt = 13;
inline constexpr std::size_t ReservedSectorsAt = 14;
inline constexpr std::size_t TableCountAt = 16;
inline constexpr std::size_t MediaAt = 21;
inline constexpr std::size_t RootEntriesAt = 17;
inline constexpr std::size_t TotalSectors16At = 19;
inline constexpr std::size_t TableSectors16At = 22;
inline constexpr std::size_t TotalSectors32At = 32;
inline constexpr std::size_t TableSectors32At = 36;
inline constexpr std::size_t Label16At = 43;
inline constexpr std::size_t RootClusterAt = 44;
inline constexpr std::size_t BackupSectorAt = 50;  // FAT32: where the copy of the boot sector is
inline constexpr std::size_t Label32At = 71;
inline constexpr std::size_t LabelSize = 11;
inline constexpr std::int64_t BackupBootSector = 6;

// Directory entry.
inline constexpr std::size_t EntrySize = 32;
inline constexpr std::uint8_t DeletedMark = 0xE5;
inline constexpr std::uint8_t AttrReadOnly = 0x01;
inline constexpr std::uint8_t AttrHidden = 0x02;
inline constexpr std::uint8_t AttrSystem = 0x04;
inline constexpr std::uint8_t AttrVolume = 0x08;
inline constexpr std::uint8_t AttrFolder = 0x10;
inline constexpr std::uint8_t AttrArchive = 0x20;
inline constexpr std::uint8_t AttrLongName = 0x0F;

// A search for lost folders that reads no more than this is part of every analysis.
inline constexpr std::int64_t CheapSearch = 256 << 20;

// Limits of a walk.
inline constexpr std::uint32_t MaxFolderClusters = 8192;
inline constexpr std::uint32_t MaxRootEntries = 8193;
inline constexpr std::uint32_t MaxClusters = 0x0FFFFFF5;

inline bool IsFAT32(const TDriveInfo& drive) { return drive.FileSystem == TFileSystem::fsFAT32; }

/// Clusters that the volume's length makes room for.
inline std::int64_t ClusterRoom(const TDriveInfo& drive) {
  return FATInfo(drive).SectorsPerCluster > 0 ? drive.SectorsCount / FATInfo(drive).SectorsPerCluster : 0;
}

inline std::int64_t ClusterBytes(const TDriveInfo& drive) {
  return std::int64_t{drive.BytesPerSector} * FATInfo(drive).SectorsPerCluster;
}

/// Sector of a cluster, from the volume's start.
inline std::int64_t ClusterSector(const TDriveInfo& drive, std::uint32_t cluster) {
  return FATInfo(drive).DataFirstSector + (std::int64_t{cluster} - 2) * FATInfo(drive).SectorsPerCluster;
}

/// True when the whole cluster lies inside the volume. Everything else that a table or an entry may
/// name is never read: on a disk with several volumes it would be another's data.
inline bool IsInside(const TDriveInfo& drive, std::uint32_t cluster) {
  return cluster >= 2 && ClusterSector(drive, cluster) + FATInfo(drive).SectorsPerCluster <= drive.SectorsCount;
}

/// The last cluster that lies inside the volume, once reserved area, tables and root are taken off;
/// 1 when there is none.
inline std::int64_t LastCluster(const TDriveInfo& drive) {
  const std::int64_t sectors = drive.SectorsCount - FATInfo(drive).DataFirstSector;
  return FATInfo(drive).SectorsPerCluster > 0 && sectors > 0 ? sectors / FATInfo(drive).SectorsPerCluster + 1 : 1;
}

/// True when the cluster's entry could not be read from any table.
inline bool IsUnknown(const TDriveInfo& drive, std::int64_t cluster) {
  const auto& unknown = FATInfo(drive).UnknownEntries;
  if (unknown.empty()) return false;
  const auto after = std::upper_bound(unknown.begin(), unknown.end(), cluster,
                                      [](std::int64_t c, const TClusterRange& range) { return c < range.First; });
  return after != unknown.begin() && cluster < std::prev(after)->End;
}

/// The entry of a cluster followed as a chain; 0 where it ends or cannot be followed. The bound of
/// FAT32 lies above its end mark, so such a mark comes back as a number; it lies outside every
/// table, where the next step ends.
inline std::uint32_t NextCluster(const TDriveInfo& drive, std::uint32_t cluster) {
  const TLongWordDynArray& table = FATInfo(drive).FATTable;
  if (cluster >= table.size()) return 0;
  const std::uint32_t entry = table[cluster];
  const std::uint32_t bound = drive.FileSystem == TFileSystem::fsFAT12   ? 0xFF7
                              : drive.FileSystem == TFileSystem::fsFAT16 ? 0xFFF7
                                                                         : 0xFFFFFFF7;
  return entry >= bound ? 0 : entry;
}

inline std::uint32_t BadMark(const TDriveInfo& drive) {
  return drive.FileSystem == TFileSystem::fsFAT12   ? 0xFF7
         : drive.FileSystem == TFileSystem::fsFAT16 ? 0xFFF7
                                                    : 0x0FFFFFF7;
}

/// False for a cluster whose entry is not known, too.
inline bool FreeOrBad(const TDriveInfo& drive, std::int64_t cluster) {
  const TLongWordDynArray& table = FATInfo(drive).FATTable;
  if (table.empty()) return false;
  if (cluster < 0 || cluster >= static_cast<std::int64_t>(table.size())) return true;
  const std::uint32_t entry = table[static_cast<std::size_t>(cluster)];
  return (entry == 0 && !IsUnknown(drive, cluster)) || entry == BadMark(drive);
}

/// A root folder: the first two entries have first clusters inside the volume or are pieces of a
/// long name. Any other folder: the entries "." and "..".
bool IsFolderStart(const TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t start, bool root);

/// First cluster of a directory entry, both halves.
inline std::uint32_t EntryCluster(std::span<const std::uint8_t> buffer, std::size_t start) {
  return (std::uint32_t{ReadLe16(buffer, start + 20)} << 16) | ReadLe16(buffer, start + 26);
}

}  // namespace brenlow::fat
