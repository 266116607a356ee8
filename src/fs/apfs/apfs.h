// SPDX-License-Identifier: GPL-3.0-or-later
// APFS: a container is a drive, and each of its volumes a folder at its top. Reads the newest sound checkpoint,
// also where the superblock in the first block is gone.
//
// Format facts: "Apple File System Reference", Apple; libyal, "Apple File System (APFS)".
#pragma once

#include <cstdint>
#include <span>

#include "core/drive_records.h"
#include "core/driver_calls.h"
#include "core/extents.h"
#include "core/file_records.h"
#include "core/types.h"
#include "fs/apfs/apfs_info.h"

namespace brenlow {

class TEngine;

class TAPFS {
 public:
  explicit TAPFS(TEngine& engine) : FEngine(engine) {}

  static constexpr TPartRecSystem Family = TPartRecSystem::APFS;

  // ---- recognition ----
  bool IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const;
  /// Reads the newest sound superblock of the container, and its volumes with their object maps.
  bool GetDriveInfo(TDriveInfo& drive, bool fillTable);
  /// From a superblock of a container, or of a volume, in memory.
  bool GetDriveInfo(TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t start);
  /// Looks for a superblock where checkpoints begin.
  TCopyFound RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int bytesPerSector);
  bool SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> superblock);
  bool IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> superblock);
  bool HoldsFolders(const TDriveInfo& volume) { return !APFSInfo(volume).Volumes.empty(); }
  std::int64_t AllocationUnit(const TDriveInfo& drive) const { return APFSInfo(drive).BlockSize; }

  // ---- listing ----
  void AnalyseSystem(int driveNumber);
  void GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten);

  // ---- data ----
  bool MapStream(TDriveInfo& drive, TFile& file, int stream, TFileStream& result);
  std::int64_t GetSizeOnDisk(const TFile& file);

  // ---- partition search ----
  void PartRecDriveAdded(int driveNumber);
  bool PartRecIsAnalysed(const TDriveInfo& drive) { return !APFSInfo(drive).Volumes.empty(); }

 private:
  bool ReadDevice(const TDriveInfo& drive, std::int64_t place, std::span<std::uint8_t> buffer);
  bool FindNewest(TDriveInfo& drive, TByteDynArray& newest);
  bool ReadVolumes(TDriveInfo& drive, std::span<const std::uint8_t> superblock);
  void Analyse(int driveNumber);

  TEngine& FEngine;
};

}  // namespace brenlow
