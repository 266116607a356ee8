// SPDX-License-Identifier: GPL-3.0-or-later
// The walk over the directories of one FAT volume.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "core/drive_records.h"
#include "core/file_records.h"
#include "fs/cluster_set.h"
#include "fs/fat/fat_entry.h"

namespace brenlow {

class TEngine;

namespace fat {

/// Gets every entry found; false ends the walk.
using TEntrySink = std::function<bool(const TFileInfo&, std::int64_t parentCluster)>;

/// A deleted folder whose chain is gone before its end mark was met.
struct TUnfinished {
  std::int64_t Parent = 0;             // the number under which its entries are entered
  std::uint32_t LastCluster = 0;       // the last cluster known to be its own
  std::optional<TEntryParser> Pieces;  // a long name cut off at the end of that cluster
};

/// A folder that is in use and to which no entry was found to lead.
struct TLostFolder {
  std::uint32_t Cluster = 0;
  std::int64_t Parent = 0;  // as its ".." says: a cluster or the root
  TTimeStamp TimeStamp;
};

/// What is known of a volume's folders. It outlives the walk where a partition search goes on with it.
struct TWalkState {
  explicit TWalkState(const TDriveInfo& drive);

  TClusterSet Known;      // clusters of folders queued or walked
  TClusterSet LiveFirst;  // first clusters that live entries name
  bool AnyLiveEntry = false;
  bool MetBadSector = false;         // of a folder
  std::uint32_t HighestCluster = 0;  // that any entry points to
  std::deque<std::uint32_t> Waiting;
  std::vector<TUnfinished> Unfinished;
  std::vector<TLostFolder> LostFolders;
};

/// How far a search for folders that nothing leads to goes.
struct TLostSearch {
  bool FreeSpace = true;     ///< clusters that are free; else only those in use without an owner
  bool WholeVolume = false;  ///< not only as far as the entries found so far point
  bool InSlack = false;      ///< also after the ends of files, in their last clusters
};

class TFolderWalk {
 public:
  TFolderWalk(TEngine& engine, TDriveInfo& drive, int driveNumber, const TOemTable& oem, TEntrySink sink,
              std::shared_ptr<TWalkState> state = nullptr);

  /// Folders met are queued for `WalkWaiting`.
  bool CanAddWaiting = true;
  /// A search for lost folders tells how far it is.
  bool PublishProgress = true;

  void WalkRoot();
  /// Walks queued folders until none is left, publishing the progress when told to.
  void WalkWaiting(bool publishProgress);
  /// Walks one folder. `firstCluster` holds the bytes of its first cluster when the caller has them
  /// already. False when there is no folder.
  bool WalkFolder(std::uint32_t cluster, std::span<const std::uint8_t> firstCluster = {});
  /// The fixed root area of FAT12 and FAT16.
  void WalkRootArea();

  /// Looks for folders that no entry leads to, and for the rest of deleted folders that were longer
  /// than one cluster. Those that are in use get their place by their ".." entries.
  void FindLostFolders(const TLostSearch& search);
  /// The search that an analysis makes of itself; `always`: through the whole volume.
  void FindLostFoldersAsNeeded(bool always);
  /// One cluster that may begin such a folder, with its bytes.
  void ExamineFolderStart(std::uint32_t cluster, std::span<const std::uint8_t> bytes);

  bool Stopped() const { return FStopped; }
  bool IsKnown(std::uint32_t cluster) const { return FState->Known.Has(cluster); }

 private:
  enum class TStep { GoOn, SectorDone, FolderDone, Stop };
  /// Adjacent sectors; those that cannot be read are zeros.
  struct TSectors {
    TByteDynArray Bytes;
    std::vector<bool> Bad;  // empty when all could be read
    bool IsBad(std::size_t sector) const { return sector < Bad.size() && Bad[sector]; }
  };

  TStep WalkSector(std::span<const std::uint8_t> sector, bool skipDots, std::int64_t sectorNumber);
  TStep WalkSectors(const TSectors& sectors, bool skipDots, std::int64_t firstSector);
  void Enter(TFileInfo& info);
  void Queue(TFileInfo& info);
  bool FindDeletedFolderCluster(TFileInfo& info);
  bool ReadSectors(std::int64_t sector, std::int64_t count, std::uint8_t* place);
  void ReadAround(std::int64_t sector, std::int64_t count, std::int64_t piece, TSectors& sectors);
  std::uint32_t ReadChain(std::uint32_t cluster, TSectors& sectors);
  std::uint32_t NextOfFolder(std::uint32_t last);

  bool MarkKnown(std::uint32_t cluster);
  std::int64_t LostFolderSearchSize() const;
  void FillTargets();
  bool IsOrphan(std::int64_t cluster) const;
  void ScanRun(std::uint32_t first, std::uint32_t count, TByteDynArray& bytes);
  void ScanBadRun(std::uint32_t first, std::uint32_t count, std::span<std::uint8_t> bytes);
  void ExamineCluster(std::uint32_t cluster, std::span<const std::uint8_t> bytes);
  bool IsContinuation(std::span<const std::uint8_t> bytes) const;
  TUnfinished* OwnerOf(std::uint32_t cluster, std::span<const std::uint8_t> bytes);
  std::int64_t LastSearchedCluster() const;
  std::int64_t LastReadableCluster() const;
  void WalkRemains(std::uint32_t cluster, std::span<const std::uint8_t> bytes, std::int64_t firstSector);
  bool IsLastOfChain(std::int64_t cluster) const;
  void AddUnfinished(TUnfinished folder);
  void WalkContinuation(std::uint32_t cluster, std::span<const std::uint8_t> bytes);
  void RememberLostFolder(std::uint32_t cluster, std::span<const std::uint8_t> bytes);
  void PlaceLostFolders(const TClusterSet& reached);
  bool LeadsToRoot(const TLostFolder& folder, const TClusterSet& reached,
                   std::unordered_map<std::int64_t, std::int64_t>& parents) const;

  TEngine& FEngine;
  TDriveInfo& FDrive;
  int FDriveNumber;
  TEntrySink FSink;
  std::shared_ptr<TWalkState> FState;
  TEntryParser FParser;
  TFileInfo FInfo;  // one working record serves the whole walk
  std::int64_t FParent = 0;
  bool FSearching = false;  // folders come from a search, not from entries
  bool FLost = false;       // entries come from a folder that lies in free space
  bool FStopped = false;
  // While a search goes on: clusters that others are linked to, and who holds each folder met in it.
  TClusterSet FTargets;
  std::unordered_map<std::int64_t, std::int64_t> FFolderParents;
  double FPosition = 0;
};

}  // namespace fat
}  // namespace brenlow
