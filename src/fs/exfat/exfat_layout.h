// SPDX-License-Identifier: GPL-3.0-or-later
// Places in the structures of an exFAT volume and the arithmetic of its clusters.
//
// Format facts: Microsoft, "exFAT file system specification".
#pragma once

#include <cstdint>
#include <span>

#include "core/drive_records.h"
#include "core/numbers.h"
#include "fs/exfat/exfat_info.h"

namespace brenlow::exfat {

// Boot sector, byte offsets, little-endian (section 3.1).
inline constexpr std::size_t ZerosAt = 0x0B;  // where FAT has its fields
inline constexpr std::size_t ZerosEnd = 0x40;
inline constexpr std::size_t VolumeLengthAt = 0x48;  // sectors, 64 bits
inline constexpr std::size_t FATOffsetAt = 0x50;
inline constexpr std::size_t FATLengthAt = 0x54;
inline constexpr std::size_t HeapOffsetAt = 0x58;
inline constexpr std::size_t ClusterCountAt = 0x5C;
inline constexpr std::size_t RootClusterAt = 0x60;
inline constexpr std::size_t VolumeFlagsAt = 0x6A;
inline constexpr std::size_t SectorShiftAt = 0x6C;
inline constexpr std::size_t ClusterShiftAt = 0x6D;
inline constexpr std::size_t FATCountAt = 0x6E;
inline constexpr std::size_t PercentInUseAt = 0x70;
inline constexpr std::uint16_t ActiveFATFlag = 1;
inline constexpr int SmallestSectorShift = 9;
inline constexpr int LargestSectorShift = 12;
inline constexpr int LargestClusterShift = 25;      // bytes of a cluster: 32 MiB
inline constexpr std::int64_t BootRegion = 12;      // sectors; its copy follows it
inline constexpr std::int64_t ChecksumSector = 11;  // of the region, from its start

// Allocation table (section 4.1).
inline constexpr std::uint32_t MediaEntry = 0xFFFFFFF8;  // of FAT[0]
inline constexpr std::uint32_t ChainEnd = 0xFFFFFFF7;    // at or above: a chain ends here
inline constexpr std::uint32_t BadCluster28 = 0x0FFFFFF7;

// Directory entries (section 6.2): the type, in use where bit 7 is set.
inline constexpr std::size_t EntrySize = 32;
inline constexpr std::uint8_t InUse = 0x80;
inline constexpr std::uint8_t Secondary = 0x40;
inline constexpr std::uint8_t BitmapEntry = 0x81;
inline constexpr std::uint8_t UpCaseEntry = 0x82;
inline constexpr std::uint8_t LabelEntry = 0x83;
inline constexpr std::uint8_t FileEntry = 0x85;
inline constexpr std::uint8_t VolumeGuidEntry = 0xA0;
inline constexpr std::uint8_t PaddingEntry = 0xA1;
inline constexpr std::uint8_t AccessControlEntry = 0xA2;
inline constexpr std::uint8_t StreamEntry = 0xC0;
inline constexpr std::uint8_t NameEntry = 0xC1;
inline constexpr std::uint8_t VendorExtensionEntry = 0xE0;
inline constexpr std::uint8_t VendorAllocationEntry = 0xE1;

// Fields of entries, byte offsets.
inline constexpr std::size_t SecondaryCountAt = 1;
inline constexpr std::size_t SetChecksumAt = 2;
inline constexpr std::size_t AttributesAt = 4;
inline constexpr std::size_t CreatedAt = 0x08;
inline constexpr std::size_t ModifiedAt = 0x0C;
inline constexpr std::size_t AccessedAt = 0x10;
inline constexpr std::size_t Created10msAt = 0x14;
inline constexpr std::size_t Modified10msAt = 0x15;
inline constexpr std::size_t CreatedZoneAt = 0x16;
inline constexpr std::size_t ModifiedZoneAt = 0x17;
inline constexpr std::size_t AccessedZoneAt = 0x18;
inline constexpr std::size_t FlagsAt = 1;  // of a stream, and of a bitmap: its number
inline constexpr std::size_t NameLengthAt = 3;
inline constexpr std::size_t NameHashAt = 4;
inline constexpr std::size_t ValidLengthAt = 8;
inline constexpr std::size_t FirstClusterAt = 0x14;  // of streams, bitmaps and the up-case table
inline constexpr std::size_t DataLengthAt = 0x18;
inline constexpr std::size_t NameAt = 2;
inline constexpr std::size_t UnitsPerName = 15;
inline constexpr std::uint8_t NoFATChain = 2;

inline constexpr std::uint16_t AttrReadOnly = 0x01;
inline constexpr std::uint16_t AttrHidden = 0x02;
inline constexpr std::uint16_t AttrSystem = 0x04;
inline constexpr std::uint16_t AttrFolder = 0x10;
inline constexpr std::uint16_t AttrArchive = 0x20;

// Limits of a walk.
inline constexpr std::int64_t MaxFolderClusters = 8193;    // of a folder whose entry does not state its length
inline constexpr std::int64_t MaxFolderBytes = 256 << 20;  // section 7.4.6: no folder is longer
inline constexpr int MaxUnknownSlots = 10;                 // in a row
inline constexpr std::int64_t CheapSearch = 256 << 20;     // bytes read for lost folders in every analysis

inline std::int64_t ClusterBytes(const TDriveInfo& drive) {
  return std::int64_t{drive.BytesPerSector} * exFATInfo(drive).SectorsPerCluster;
}

/// The highest cluster number; 1 when there is none.
inline std::int64_t LastCluster(const TDriveInfo& drive) { return std::int64_t{exFATInfo(drive).ClusterCount} + 1; }

/// Sector of a cluster, from the volume's start.
inline std::int64_t ClusterSector(const TDriveInfo& drive, std::int64_t cluster) {
  return exFATInfo(drive).DataFirstSector + (cluster - 2) * exFATInfo(drive).SectorsPerCluster;
}

/// True when the whole cluster lies inside the volume: nothing else is ever read.
inline bool IsInside(const TDriveInfo& drive, std::int64_t cluster) {
  return cluster >= 2 && cluster <= LastCluster(drive) &&
         ClusterSector(drive, cluster) + exFATInfo(drive).SectorsPerCluster <= drive.SectorsCount;
}

/// True where the bitmap says that nothing has the cluster; false where it does not say, too.
inline bool IsFree(const TDriveInfo& drive, std::int64_t cluster) {
  const auto& usage = exFATInfo(drive).Usage;
  return usage && IsInside(drive, cluster) && !usage->Used.Has(cluster) && !usage->IsUnknown(cluster);
}

/// True where the bitmap says that something has the cluster.
inline bool IsUsed(const TDriveInfo& drive, std::int64_t cluster) {
  const auto& usage = exFATInfo(drive).Usage;
  return usage && usage->Used.Has(cluster);
}

}  // namespace brenlow::exfat
