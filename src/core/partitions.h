// SPDX-License-Identifier: GPL-3.0-or-later
// Physical disks and partition tables: MBR with its chain of extended records, GPT, the Apple
// partition map, and raw. Nothing is reported: a failed read gives fewer volumes.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "core/device/system_disks.h"
#include "core/drive_records.h"
#include "core/types.h"

namespace brenlow {

class TEngine;

enum class PARTITION_STYLE : std::uint8_t {
  PARTITION_STYLE_MBR,
  PARTITION_STYLE_GPT,
  PARTITION_STYLE_APM,
  PARTITION_STYLE_RAW,
};

/// A 16-byte entry of an MBR table, as on disk.
struct TMBRStructure {
  std::uint8_t BootIndicator = 0;
  std::uint8_t StartingHead = 0;
  std::uint16_t StartingCylAndSect = 0;
  std::uint8_t SystemIndicator = 0;
  std::uint8_t EndingHead = 0;
  std::uint16_t EndingCylAndSect = 0;
  std::uint32_t StartingSector = 0;
  std::uint32_t NumberOfSects = 0;
};

struct TMBRRecord {
  std::uint32_t RelativeSector = 0;  ///< sector of the table that held the entry
  TMBRStructure Structure;
};

using TGuid = std::array<std::uint8_t, 16>;

/// A 128-byte entry of a GPT, as on disk.
struct TGPTRecord {
  TGuid PartitionType{};
  TGuid PartitionId{};
  std::uint64_t StartingLBA = 0;
  std::uint64_t EndingLBA = 0;
  std::uint64_t Attributes = 0;
  std::array<char16_t, 36> Name{};
};

/// One partition; sectors of the disk's own size, from the disk's start.
struct TVolume {
  std::uint64_t StartingSector = 0;
  std::uint64_t SectorCount = 0;
  TPartitionTypes PartitionType;
  TMBRRecord MBRRecord;
  TGPTRecord GPTRecord;
};
using TVolumes = std::vector<TVolume>;

struct TPhysicalDrive {
  TString Drive;
  int DriveNumber = -1;
  TString Model;
  TString Serial;
  TDiskGeometry DiskGeometry;
  std::int64_t DiskSize = 0;   ///< bytes
  std::uint64_t Sequence = 0;  ///< as in `TSystemDisk`
  PARTITION_STYLE PartitionStyle = PARTITION_STYLE::PARTITION_STYLE_RAW;
  TVolumes Volumes;
  /// The table is as tools write it, which the lenient rules for damaged ones do not ask for.
  bool TableIsSound = false;
};
using TPhysicalDrives = std::vector<TPhysicalDrive>;

class TPartitionsInfo {
 public:
  explicit TPartitionsInfo(TEngine& engine) : FEngine(engine) {}

  TSystemLists SystemLists;

  /// The disks of the machine with their tables.
  TPhysicalDrives GetPhysicalDrives();
  /// Treats any drive as a disk; its geometry comes from the record.
  bool GetPhysicalDrive(const TDriveInfo& drive, TPhysicalDrive& result);
  /// True when the first sector of a drive could be the table that tools write.
  bool HasTableSector(const TDriveInfo& drive);
  /// The table of one drive, read from its sector 0 on.
  TVolumes GetVolumes(const TDriveInfo& drive, PARTITION_STYLE* style = nullptr);

 private:
  struct TDetected {
    PARTITION_STYLE Style = PARTITION_STYLE::PARTITION_STYLE_RAW;
    std::uint64_t HeaderSector = 0;  // GPT: where to look first
    std::uint32_t AppleBlockSize = 0;
    std::uint32_t AppleEntries = 0;
  };
  TDetected DetectStyle(const TDriveInfo& drive);
  void WalkMBR(const TDriveInfo& drive, TVolumes& volumes);
  void AddHybridGPT(const TDriveInfo& drive, TVolumes& volumes);
  void WalkGPT(const TDriveInfo& drive, std::uint64_t headerSector, TVolumes& volumes);
  bool ReadGPT(const TDriveInfo& drive, std::uint64_t headerSector, TVolumes& volumes);
  void WalkAPM(const TDriveInfo& drive, const TDetected& detected, TVolumes& volumes);
  std::uint32_t ExtendedTable(const TDriveInfo& drive, std::uint32_t table, std::uint32_t outermost,
                              std::uint32_t link);
  TByteDynArray ReadSectors(const TDriveInfo& drive, std::uint64_t sector, std::int64_t count);
  void FillDisk(TDriveInfo& drive, TPhysicalDrive& result);
  bool IsSound(const TDriveInfo& drive, const TPhysicalDrive& disk);

  TEngine& FEngine;
  bool FSignedGPT = false;  // the header that the volumes of the last walk came from has its signature
};

/// The name in an entry of a GPT: up to the first 0 unit, without blanks at its ends.
TString PartitionName(const TGPTRecord& record);

}  // namespace brenlow
