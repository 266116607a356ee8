// SPDX-License-Identifier: GPL-3.0-or-later
// What the drive registry asks the file-system drivers, whichever serves a drive. The answers come from
// `src/fs/driver_calls.cpp`; `src/fs/driver.h` says of each step what a driver has to do, and what holds
// for one that has no such step.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "core/drive_records.h"
#include "core/types.h"

namespace brenlow {

class TEngine;
enum class TText : std::uint16_t;

/// A file system known by a copy of its boot sector or superblock.
struct TCopyFound {
  TFileSystem System = TFileSystem::fsUnknown;
  bool Sound = false;  ///< more than the copy speaks for it: its table is where it says
};

/// A line of a drive's properties that only its file system has.
struct TDriveProperty {
  TText Label{};
  std::string_view Key;  ///< in JSON
  std::int64_t Value = 0;
  bool IsSize = false;  ///< in bytes
};

class TDriverCalls {
 public:
  explicit TDriverCalls(TEngine& engine) : FEngine(engine) {}

  // ---- recognition ----
  /// False for what is known by name only.
  bool HasDriver(TFileSystem system) const;
  /// Tests a boot sector or superblock against all drivers, the weakest test last.
  /// `addSuperblockOffset`: the buffer begins at the volume's start; else at the current sector.
  TFileSystem Recognise(std::span<const std::uint8_t> buffer, std::size_t start, bool addSuperblockOffset,
                        int bytesPerSector);
  /// Looks for the copies of a boot sector, near the start of a volume (`head` begins there) and at
  /// its end. Copies of the file system `known` are left out.
  TCopyFound RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int bytesPerSector,
                             TFileSystem known);
  /// Sets the bounds of a volume from what lies in its `FirstSector`: a boot sector, a superblock after
  /// the start, or a copy of either. `buffer` begins with that sector, with `addSuperblockOffset` at the
  /// volume's start. False when it leads nowhere.
  bool SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> buffer, bool addSuperblockOffset);
  /// True when more than this boot sector speaks for the volume.
  bool IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> buffer, bool addSuperblockOffset);
  /// For a volume known only from a leftover copy: true when its root folder or its table of records
  /// is still there. The record is filled.
  bool HoldsFolders(const TDriveInfo& volume);
  /// True for a find that is a copy of the boot sector of a volume that is known.
  bool IsCopyOf(const TDriveInfo& volume, const TDriveInfo& known);

  // ---- facts ----
  /// Lets the driver of the drive's file system fill the record; false when it cannot.
  bool GetDriveInfo(TDriveInfo& drive, bool fillTable);
  /// Bytes of a cluster or block; 0 while that is not known.
  std::int64_t AllocationUnit(const TDriveInfo& drive);
  std::vector<TDriveProperty> Properties(const TDriveInfo& drive);

  // ---- partition search ----
  /// True when the drive holds files that wait for a number before they enter the file table.
  bool HasWaitingFiles(const TDriveInfo& drive);
  /// Of each family that is searched and can be found without a boot sector: what an empty candidate is.
  std::vector<TFileSystem> PartRecCandidates(const TDriveInfo& mainDrive);
  // What each step means is explained at its namesake in `src/fs/driver.h`.
  void PartRecSubdriveAdded(TDriveInfo& drive);
  void PartRecVolumeKnown(TDriveInfo& drive, bool isGap);
  bool PartRecIsAnalysed(const TDriveInfo& drive);
  bool PartRecCanBeTruncated(const TDriveInfo& drive);
  bool PartRecAccepts(const TDriveInfo& volume, std::span<const std::uint8_t> buffer);
  void PartRecDriveAdded(int driveNumber);
  void PartRecDriveAnalysed(int driveNumber);

 private:
  template <typename TCallable>
  void Tell(TFileSystem system, TCallable&& callable);
  TFileSystem SystemOf(int driveNumber) const;

  TEngine& FEngine;
};

}  // namespace brenlow
