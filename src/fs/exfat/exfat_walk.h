// SPDX-License-Identifier: GPL-3.0-or-later
// The walk over the directories of one exFAT volume.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

#include "core/drive_records.h"
#include "core/file_records.h"
#include "fs/cluster_set.h"
#include "fs/exfat/exfat_entry.h"
#include "fs/exfat/exfat_table.h"

namespace brenlow {

class TEngine;
class TexFAT;

namespace exfat {

/// Gets every entry found; false ends the walk.
using TEntrySink = std::function<bool(const TFileInfo&, std::int64_t parentCluster)>;

/// A folder to be walked.
struct TWaitingCluster {
  std::uint32_t Cluster = 0;
  bool Fragmented = false;  ///< the table says which cluster follows; else they are adjacent
  bool Deleted = false;     ///< what it holds is deleted, whatever its entries say
  std::int64_t Length = 0;  ///< bytes, as its entry says; 0 when nothing says so
};

/// A folder that breaks off in the middle of a set, with what it has of that.
struct TUnfinished {
  std::int64_t Parent = 0;
  bool Lost = false;  // it is deleted
  TSetParser Set;
};

/// What is known of a volume's folders. It outlives the walk where a partition search goes on with it.
struct TWalkState {
  explicit TWalkState(const TDriveInfo& drive);

  TClusterSet Known;  // clusters of folders queued or walked
  bool AnyLiveEntry = false;
  bool IsDamaged = false;           // a folder in use that did not read, or broke off
  std::int64_t HighestCluster = 0;  // that any entry points to
  std::deque<TWaitingCluster> Waiting;
  std::vector<TUnfinished> Unfinished;
  std::vector<std::uint32_t> Noted;  // free clusters that begin like a folder, met by a partition search
};

class TFolderWalk {
 public:
  TFolderWalk(TEngine& engine, TexFAT& driver, TTableReader& tables, TDriveInfo& drive, int driveNumber,
              TEntrySink sink, std::shared_ptr<TWalkState> state = nullptr);

  /// Folders met are queued for `WalkWaiting`.
  bool CanAddWaiting = true;
  /// A search for lost folders tells how far it is.
  bool PublishProgress = true;

  void WalkRoot();
  /// Walks queued folders until none is left, publishing the progress when told to.
  void WalkWaiting(bool publishProgress);
  /// Walks one folder. False when there is none.
  bool WalkFolder(const TWaitingCluster& folder);

  /// Enters what is known of sets whose rest was not found. Nothing is joined to them any more.
  void EndUnfinished();
  /// Looks for folders that no entry leads to in free clusters, of the whole volume or only as far as the entries
  /// found so far point.
  void FindLostFolders(bool wholeVolume);
  /// The search that an analysis makes of itself; `always`: through the whole volume. False when it would take too
  /// long.
  bool FindLostFoldersAsNeeded(bool always);
  /// The same in the clusters that were noted only.
  void FindNotedFolders();

  bool Stopped() const { return FStopped; }
  const TWalkState& State() const { return *FState; }
  bool IsKnown(std::int64_t cluster) const { return FState->Known.Has(cluster); }

 private:
  enum class TStep { GoOn, FolderDone, Stop };
  /// Clusters that hold entries, and where the folders among these lie.
  struct TCandidates {
    std::vector<std::uint32_t> Clusters;  // ascending
    TClusterSet LedTo;
    TClusterSet Middles;  // those that begin in the middle of a set
  };

  TStep WalkSectors(std::int64_t firstSector, std::int64_t sectorCount, std::int64_t& piece);
  TStep WalkBytes(std::span<const std::uint8_t> bytes, std::int64_t position);
  TStep WalkBadSectors(std::int64_t firstSector, std::int64_t sectorCount);
  void WalkAfterEnd(std::span<const std::uint8_t> bytes, std::int64_t position);
  void TakeSlot(std::span<const std::uint8_t> slot, std::int64_t position);
  void EndSet();
  void Enter(TFileInfo& info, const TEntrySet& set);
  void CheckOrphanStream(TFileInfo& info, const TEntrySet& set);
  void NameNameless(TFileInfo& info, const TEntrySet& set);
  void PlaceFolder(TFileInfo& info);
  bool BeginsFolder(std::int64_t cluster);
  bool GoesOnAt(std::int64_t cluster);
  std::int64_t CountRun(const TWaitingCluster& folder, TChain& chain, std::int64_t most, std::int64_t& cluster);
  bool ReadSectors(std::int64_t sector, std::int64_t count, std::uint8_t* place);

  std::int64_t LastSearchedCluster() const;
  std::int64_t LastReadableCluster() const;
  std::int64_t SearchBytes(std::int64_t last) const;
  void ScanRun(std::int64_t first, std::int64_t count, TCandidates& candidates);
  void ExamineCluster(std::int64_t cluster, std::span<const std::uint8_t> bytes, TCandidates& candidates);
  void WalkLostFolder(std::uint32_t cluster);
  void WalkCandidates(const TCandidates& candidates);
  bool JoinUnfinished(std::uint32_t cluster);
  void HoldUnfinished();
  void WalkOn(const TWaitingCluster& folder);

  TEngine& FEngine;
  TexFAT& FDriver;
  TTableReader& FTables;
  TDriveInfo& FDrive;
  int FDriveNumber;
  TEntrySink FSink;
  std::shared_ptr<TWalkState> FState;
  TSetParser FParser;
  TFileInfo FInfo;       // one working record serves the whole walk
  TString FName;         // of the row in hand, where it is not the parser's
  TByteDynArray FBytes;  // the piece of a folder in hand
  std::int64_t FParent = 0;
  int FUnknownSlots = 0;
  bool FLost = false;      // entries come from a deleted folder
  bool FAfterEnd = false;  // or from behind the end mark of one
  bool FStopped = false;
  double FPosition = 0;
};

}  // namespace exfat
}  // namespace brenlow
