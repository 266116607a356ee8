// SPDX-License-Identifier: GPL-3.0-or-later
// What the engine knows of one drive or volume.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "core/drive_systems.h"
#include "core/parent_clusters.h"
#include "core/types.h"

namespace brenlow {

/// As the operating system reports it.
struct TDiskGeometry {
  std::int64_t Cylinders = 0;
  std::uint32_t MediaType = 0;  ///< 11: removable media, 12: fixed media
  std::uint32_t TracksPerCylinder = 0;
  std::uint32_t SectorsPerTrack = 0;
  std::uint32_t BytesPerSector = 0;
};
inline constexpr std::uint32_t RemovableMedia = 11;
inline constexpr std::uint32_t FixedMedia = 12;

/// What a drive's caption is made of, so that it can be rebuilt in another language.
enum class TCaptionKind : std::uint8_t {
  OwnName,           ///< a model or file name: stays as it is
  SystemVolume,      ///< label, or "Volume", and the mount point
  TableVolume,       ///< label, or "Volume", and the size
  UnallocatedSpace,  ///< "Unallocated space" and the number
  PhysicalDrive,     ///< "Physical drive", the number and the size
  VirtualPartition,  ///< "Virtual partition" and the number
  SubDrive,          ///< label, or "Partition" and the number, and the size
};

struct TDriveInfo {
  TString VolumeName;
  TString Caption;
  TCaptionKind CaptionKind = TCaptionKind::OwnName;
  int CaptionNumber = 0;
  /// Key of the sector reader: a short text (drive number, drive letter) or a path of at least
  /// four characters. A volume has the same text as the physical drive under it.
  TString Drive;
  TString DriveLetter;  ///< mount point, or empty
  /// What the partition table calls it; empty where the table (anything but a GPT) has no names.
  TString PartitionName;
  TString Serial;
  TDriveTypes DriveTypes;
  TPartitionTypes PartitionType;
  TReceivedType ReceivedType = TReceivedType::rtUnknown;
  TFileSystem FileSystem = TFileSystem::fsUnknown;  ///< selects the driver
  int DriveIcon = -1;
  TDriveSystems Systems;         ///< the drivers' data about it
  std::int64_t FirstSector = 0;  ///< on the device that `Drive` names; every read adds it
  int BytesPerSector = 0;        ///< logical; 0 until known
  std::int64_t SectorsCount = 0;
  std::int64_t aFreeSize = -1;  ///< bytes; negative when not known
  TAnalyseInformation Analysed = TAnalyseInformation::aiNone;
  /// The whole-drive scan; on a physical drive, the analysis of all its volumes.
  TAnalyseInformation DeepAnalysed = TAnalyseInformation::aiNone;
  TDiskGeometry DiskGeometry;
  TFileSystem DefaultSystem = TFileSystem::fsUnknown;
  // The values as first detected; the live ones may be changed by the user.
  std::int64_t DefaultFirstSector = 0;
  std::int64_t DefaultBytesPerSector = 0;
  std::int64_t DefaultSectorsCount = 0;
  std::int64_t DefaultSectorsPerCluster = 0;
  TParentClusters ParentClusters;
  /// During an analysis: `FirstCluster` of every folder added so far.
  TInt64DynArray FileFirstClusters;
  TIntegerDynArray Volumes;    ///< on a physical drive: the numbers of its volumes
  TIntegerDynArray SubDrives;  ///< numbers of the partitions found inside this drive
  /// How start, size and cluster size of the volume are known.
  TPlaceSource GeometrySource = TPlaceSource::Stored;
  bool CanBeAnalysed = false;  ///< false for a drive that only groups others
  bool IsSubDrive = false;
};

/// True for a drive on which a scan has begun.
inline bool HasResults(const TDriveInfo& drive) {
  return drive.Analysed != TAnalyseInformation::aiNone || drive.DeepAnalysed != TAnalyseInformation::aiNone;
}

/// In place of the number of a drive that is not there.
inline constexpr int NoDrive = -1;

/// Calls `callable(number)` for every place of a record that holds the number of a drive. Whoever adds such a
/// place adds it here: numbers shift when a drive is deleted.
template <typename TCallable>
void ForEachDriveNumber(TDriveInfo& drive, TCallable&& callable) {
  for (int& number : drive.Volumes) callable(number);
  for (int& number : drive.SubDrives) callable(number);
}

/// Volumes and sub-drives that are not there any more leave their lists.
inline void DropNoDrives(TDriveInfo& drive) {
  std::erase(drive.Volumes, NoDrive);
  std::erase(drive.SubDrives, NoDrive);
}

/// Valid only until a drive is added to or deleted from the registry.
using PDriveInfo = TDriveInfo*;

class TFileArray;
/// A batch of listed files; setting the flag ends the listing.
using TOnFilesGotten = std::function<void(TDriveInfo&, const TFileArray&, bool& canBreak)>;

}  // namespace brenlow
