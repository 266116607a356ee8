// SPDX-License-Identifier: GPL-3.0-or-later
// The walk over the directories of one FAT volume.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "core/drive_records.h"
#include "core/file_records.h"
#include "fs/fat/fat_entry.h"

namespace brenlow {

class TEngine;

namespace fat {

/// Gets every entry found; false ends the walk.
using TEntrySink = std::function<bool(const TFileInfo&, std::int64_t parentCluster)>;

class TFolderWalk {
 public:
  TFolderWalk(TEngine& engine, TDriveInfo& drive, int driveNumber, const TOemTable& oem, TEntrySink sink);

  /// Folders met are queued for `WalkWaiting`.
  bool CanAddWaiting = true;

  void WalkRoot();
  /// Walks queued folders until none is left, publishing the progress when told to.
  void WalkWaiting(bool publishProgress);
  /// Walks one folder. `firstCluster` holds the bytes of its first cluster when the caller has them
  /// already. False when there is no folder.
  bool WalkFolder(std::uint32_t cluster, std::span<const std::uint8_t> firstCluster = {});
  /// The fixed root area of FAT12 and FAT16.
  void WalkRootArea();

  /// Looks through free clusters for folders that no entry leads to, and for the rest of deleted
  /// folders that were longer than one cluster. `wholeVolume`: not only as far as the entries
  /// found so far point. `inSlack`: also behind the ends of files, in their last clusters.
  void FindLostFolders(bool wholeVolume, bool inSlack);
  /// Bytes that this search would read, slack included, not on the whole volume.
  std::int64_t LostFolderSearchSize() const;

  bool Stopped() const { return FStopped; }
  bool AnyLiveEntry() const { return FAnyLiveEntry; }
  bool HasUnfinishedFolders() const { return !FUnfinished.empty(); }

 private:
  /// A deleted folder whose chain is gone before its end mark was met.
  struct TUnfinished {
    std::int64_t Parent = 0;             // the number under which its entries are entered
    std::uint32_t LastCluster = 0;       // the last cluster known to be its own
    std::optional<TEntryParser> Pieces;  // a long name cut off at the end of that cluster
  };
  enum class TStep { GoOn, SectorDone, FolderDone, Stop };

  TStep WalkSector(std::span<const std::uint8_t> sector, bool skipDots, std::int64_t sectorNumber);
  TStep WalkCluster(std::span<const std::uint8_t> bytes, bool skipDots, std::int64_t firstSector);
  void Enter(TFileInfo& info);
  void Queue(TFileInfo& info);
  bool FindDeletedFolderCluster(TFileInfo& info);
  std::uint32_t ReadChain(std::uint32_t cluster, TByteDynArray& bytes);

  bool MarkKnown(std::uint32_t cluster);
  bool IsKnown(std::uint32_t cluster) const;
  void ScanRun(std::uint32_t first, std::uint32_t count, TByteDynArray& bytes);
  void ExamineCluster(std::uint32_t cluster, std::span<const std::uint8_t> bytes);
  bool IsContinuation(std::span<const std::uint8_t> bytes) const;
  TUnfinished* OwnerOf(std::uint32_t cluster, std::span<const std::uint8_t> bytes);
  std::int64_t LastSearchedCluster() const;
  std::int64_t LastReadableCluster() const;
  void WalkRemains(std::uint32_t cluster, std::span<const std::uint8_t> bytes, std::int64_t firstSector);
  bool IsLastOfChain(std::int64_t cluster) const;
  void AddUnfinished(TUnfinished folder);
  void WalkContinuation(std::uint32_t cluster, std::span<const std::uint8_t> bytes);

  TEngine& FEngine;
  TDriveInfo& FDrive;
  int FDriveNumber;
  TEntrySink FSink;
  TEntryParser FParser;
  TFileInfo FInfo;  // one working record serves the whole walk
  std::int64_t FParent = 0;
  bool FLost = false;  // entries come from a folder that nothing leads to
  bool FStopped = false;
  bool FAnyLiveEntry = false;
  std::uint32_t FHighestCluster = 0;  // that any entry points to
  std::deque<std::uint32_t> FWaitingClusters;
  std::vector<std::uint64_t> FKnownClusters;  // of folders queued or analysed, one bit a cluster
  std::vector<TUnfinished> FUnfinished;
  double FPosition = 0;
};

}  // namespace fat
}  // namespace brenlow
