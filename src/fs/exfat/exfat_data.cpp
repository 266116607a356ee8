// SPDX-License-Identifier: GPL-3.0-or-later
// Where the content of files lies, and what is known of deleted ones.
//
// Deleting clears the bits of the entries and of the bitmap; the allocation table stays as it was (section 4.1: its
// entries of free clusters mean nothing). So a deleted file in one piece is as certain as the bitmap, and the chain
// of one in several pieces is still there until its clusters get another one.
#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "fs/exfat/exfat.h"
#include "fs/exfat/exfat_claims.h"
#include "fs/exfat/exfat_layout.h"
#include "fs/exfat/exfat_walk.h"
#include "table/files.h"

namespace brenlow {

using namespace exfat;

namespace {

constexpr std::int64_t MostGuesses = 1 << 20;  // steps across a table that holds nothing

/// Byte position, in the volume, of the entry that a row comes from.
std::int64_t EntryPosition(const TDriveInfo& drive, const TFileInfo& file) {
  return file.FirstSector * drive.BytesPerSector + file.OffsetInSector;
}

/// Clusters that the file's size takes, no more than the volume has.
std::int64_t ClustersOf(const TDriveInfo& drive, const TFileInfo& file) {
  const std::int64_t clusterBytes = ClusterBytes(drive);
  if (clusterBytes <= 0 || file.aSize <= 0) return 0;
  return std::min<std::int64_t>(CeilDiv(file.aSize, clusterBytes), exFATInfo(drive).ClusterCount);
}

void AddRun(std::vector<TRun>& runs, std::int64_t cluster) {
  if (!runs.empty() && runs.back().Cluster + runs.back().Count == cluster) {
    ++runs.back().Count;
  } else {
    runs.push_back({cluster, 1});
  }
}

/// The clusters from `first` on, as many as the volume has of them.
TRun AdjacentRun(const TDriveInfo& drive, std::int64_t first, std::int64_t count) {
  return {first, std::max<std::int64_t>(std::min(count, LastCluster(drive) - first + 1), 0)};
}

}  // namespace

/// True for a chain of just as many clusters as the file has, with an end mark.
bool TexFAT::FollowDeletedChain(const TDriveInfo& drive, const TFileInfo& file, int table, std::vector<TRun>& runs) {
  const std::int64_t count = ClustersOf(drive, file);
  TChain chain(FTables, table, file.FirstCluster);
  for (std::int64_t i = 1;; ++i) {
    AddRun(runs, chain.Cluster());
    const TChain::TStep step = chain.Step(drive);
    if (step != TChain::TStep::Next || i == count) return step == TChain::TStep::End && i == count;
  }
}

TexFAT::TDeletedPlace TexFAT::LocateDeleted(const TDriveInfo& drive, const TFileInfo& file) {
  TDeletedPlace place;
  const std::int64_t count = ClustersOf(drive, file);
  if (count == 0 || !IsInside(drive, file.FirstCluster)) return place;
  if (file.blnFragmented && count > 1) {
    for (int i = 0; i < exFATInfo(drive).FATCount && !place.IsSure; ++i) {
      place.Runs.clear();
      place.IsSure = FollowDeletedChain(drive, file, (exFATInfo(drive).ActiveFAT + i) % 2, place.Runs);
    }
  }
  if (!place.IsSure) {
    place.Runs = {AdjacentRun(drive, file.FirstCluster, count)};
    place.IsSure = (!file.blnFragmented || count == 1) && place.Runs[0].Count == count;
  }
  const auto& usage = exFATInfo(drive).Usage;
  for (const TRun& run : place.Runs) {
    const std::int64_t end = place.IsSure ? run.Cluster + run.Count : run.Cluster + 1;
    if (!usage || end > usage->KnownEnd || usage->Unknown.FirstIn(run.Cluster, end) < end) place.IsSure = false;
    if (usage && usage->Used.FirstIn(run.Cluster, end) < end) place.IsTaken = true;
  }
  return place;
}

/// Which of the deleted files of a drive are still whole.
class TexFAT::TSettling {
 public:
  TSettling(TexFAT& driver, int driveNumber, const TClusterSet& folders)
      : FDriver(driver),
        FDrive(driver.FEngine.Drives().List[static_cast<std::size_t>(driveNumber)]),
        FDriveNumber(driveNumber),
        FFolders(folders),
        FNotes(*exFATInfo(FDrive).Notes),
        FTaken(LastCluster(FDrive)) {}

  void Run() {
    ForEach([this](TFileInfo& file) { Place(file); });
    GuessRests();
    FClaims.Settle();
    ForEach([this](TFileInfo& file) { Judge(file); });
  }

 private:
  template <typename TVisit>
  void ForEach(const TVisit& visit) {
    TFileArray& list = FDriver.FEngine.Files().List;
    for (std::size_t i = 0; i < list.size(); ++i) {
      TFileInfo& file = list[i].FileInfo;
      const bool isWanted = file.aDriveNumber == FDriveNumber && file.blnDeleted && !file.blnFolder && file.aSize > 0;
      if (isWanted && !file.aDeepAnalyse && file.FirstSector >= 0) visit(file);
    }
  }

  static TClaims::TClaim ClaimOf(const TFileInfo& file, const TRun& run) {
    return {run.Cluster, run.Cluster + run.Count, file.FirstCluster, file.TimeStamp.dtCreated,
            file.TimeStamp.dtModified};
  }

  /// What the entry, the table and the bitmap say.
  void Place(TFileInfo& file) {
    const TDeletedPlace place = FDriver.LocateDeleted(FDrive, file);
    const bool inFolder = std::any_of(place.Runs.begin(), place.Runs.end(), [&](const TRun& run) {
      const std::int64_t end = place.IsSure ? run.Cluster + run.Count : run.Cluster + 1;
      return FFolders.FirstIn(run.Cluster, end) < end;
    });
    const std::int64_t position = EntryPosition(FDrive, file);
    if (place.IsTaken || inFolder) FNotes.Overwritten.insert(position);
    const bool mayBeChain = !place.IsSure && file.blnFragmented && !place.Runs.empty() && !place.IsTaken && !inFolder;
    if (mayBeChain) FChainless.push_back(&file);
    if (!place.IsSure) file.Place = TPlaceSource::Estimated;
    if (file.Place == TPlaceSource::Estimated || place.IsTaken || inFolder) return;
    for (const TRun& run : place.Runs) {
      FClaims.Add(ClaimOf(file, run));
      if (!FNotes.DeletedBefore.contains(position)) FTaken.AddRange(run.Cluster, run.Cluster + run.Count);
    }
  }

  /// Files whose chains are gone were written into the clusters that were free then, one after the other: each goes
  /// on, as a guess, in those that no other file is known to have had.
  void GuessRests() {
    std::sort(FChainless.begin(), FChainless.end(),
              [](const TFileInfo* a, const TFileInfo* b) { return a->TimeStamp.dtCreated < b->TimeStamp.dtCreated; });
    for (const TFileInfo* file : FChainless) {
      FTaken.Add(file->FirstCluster);
      FClaims.Add(ClaimOf(*file, {file->FirstCluster, 1}));
    }
    for (const TFileInfo* file : FChainless) {
      std::vector<TRun> runs;
      AddRun(runs, file->FirstCluster);
      const std::int64_t count = ClustersOf(FDrive, *file);
      std::int64_t next = file->FirstCluster + 1;
      for (std::int64_t i = 1; i < count && FSteps < MostSteps; ++i, ++FSteps) {
        next = NextUntaken(next);
        if (!IsInside(FDrive, next)) break;
        AddRun(runs, next);
        FTaken.Add(next++);
      }
      FNotes.Guesses[EntryPosition(FDrive, *file)] = std::move(runs);
    }
  }

  std::int64_t NextUntaken(std::int64_t cluster) {
    const auto& usage = exFATInfo(FDrive).Usage;
    const std::int64_t end = LastCluster(FDrive) + 1;
    for (std::int64_t at = cluster; at < end && FSteps < MostSteps; ++FSteps) {
      const std::int64_t from = at;
      at = FTaken.FirstNotIn(at, end);
      at = FFolders.FirstNotIn(at, end);
      if (usage) at = usage->Used.FirstNotIn(at, end);
      FSteps += (at - from) / 64;
      if (at == from) return at;
    }
    return end;
  }

  /// What the other deleted files say.
  void Judge(TFileInfo& file) {
    const std::int64_t position = EntryPosition(FDrive, file);
    if (FNotes.Overwritten.contains(position) || file.Place == TPlaceSource::Estimated) return;
    // A file that was deleted before its folder was may have lost clusters to those that came after it and whose
    // clusters nobody knows any more.
    if (FNotes.DeletedBefore.contains(position) && !FChainless.empty()) {
      const TDateTime created = file.TimeStamp.dtCreated;
      if (created == 0 || FChainless.back()->TimeStamp.dtCreated >= created) file.Place = TPlaceSource::Estimated;
    }
    for (const TRun& run : FDriver.LocateDeleted(FDrive, file).Runs) {
      const TClaims::TVerdict verdict = FClaims.Judge(ClaimOf(file, run));
      if (verdict == TClaims::TVerdict::Overwritten) FNotes.Overwritten.insert(position);
      if (verdict == TClaims::TVerdict::Shared) file.Place = TPlaceSource::Estimated;
    }
  }

  static constexpr std::int64_t MostSteps = 1 << 22;  // of guessing, in all

  TexFAT& FDriver;
  TDriveInfo& FDrive;
  int FDriveNumber;
  const TClusterSet& FFolders;
  TEntryNotes& FNotes;
  TClaims FClaims;
  std::vector<TFileInfo*> FChainless;  // rows keep their addresses
  TClusterSet FTaken;                  // clusters of files that were not deleted before their folder
  std::int64_t FSteps = 0;
};

void TexFAT::SettleDeleted(int driveNumber, const TClusterSet& folders) {
  TSettling(*this, driveNumber, folders).Run();
}

bool TexFAT::MapStream(TDriveInfo& drive, TFile& file, int stream, TFileStream& result) {
  const TFileInfo& info = file.FileInfo;
  const std::int64_t clusterBytes = ClusterBytes(drive);
  if (stream != -1 || clusterBytes <= 0) return false;
  result.Size = std::max<std::int64_t>(info.aSize, 0);
  result.UnitBytes = clusterBytes;
  result.Unreadable = TUnreadableRule::RepeatUnitBefore;
  const auto& valid = exFATInfo(drive).Notes->ValidLengths;
  if (const auto written = valid.find(EntryPosition(drive, info));
      written != valid.end() && info.aSize == info.DefaultSize)
    result.ValidSize = written->second;
  const auto add = [&](const TRun& run, bool estimated) {
    result.Extents.Add({.Length = run.Count * clusterBytes,
                        .Place = ClusterSector(drive, run.Cluster) * drive.BytesPerSector,
                        .Estimated = estimated});
  };
  const std::int64_t count = ClustersOf(drive, info);
  if (count == 0 || !IsInside(drive, info.FirstCluster)) return true;
  if (info.blnDeleted) {
    const TDeletedPlace place = LocateDeleted(drive, info);
    const auto guess = exFATInfo(drive).Notes->Guesses.find(EntryPosition(drive, info));
    const bool guessed = !place.IsSure && guess != exFATInfo(drive).Notes->Guesses.end();
    for (const TRun& run : guessed ? guess->second : place.Runs) add(run, !place.IsSure);
  } else if (!info.blnFragmented) {
    add(AdjacentRun(drive, info.FirstCluster, count), false);
  } else {
    MapChain(drive, info.FirstCluster, count, add);
  }
  return true;
}

/// The clusters of a live file as the table has them. Where it holds nothing, the adjacent cluster is a guess.
void TexFAT::MapChain(const TDriveInfo& drive, std::int64_t first, std::int64_t count,
                      const std::function<void(const TRun&, bool estimated)>& add) {
  TChain chain(FTables, exFATInfo(drive).ActiveFAT, first);
  std::int64_t guesses = 0;
  for (std::int64_t done = 0; done < count;) {
    TRun run{chain.Cluster(), 1};
    const bool estimated = guesses > 0;
    TChain::TStep step = TChain::TStep::End;
    while (done + run.Count < count) {
      step = chain.Step(drive);
      if (step == TChain::TStep::Guess) ++guesses;
      if (step != TChain::TStep::Next || chain.Cluster() != run.Cluster + run.Count) break;
      ++run.Count;
    }
    add(run, estimated);
    done += run.Count;
    if (step == TChain::TStep::End || step == TChain::TStep::Broken) return;
    if (guesses > MostGuesses) {
      add(AdjacentRun(drive, chain.Cluster(), count - done), true);
      return;
    }
  }
}

std::int64_t TexFAT::GetSizeOnDisk(const TFile& file) const {
  const TFileInfo& info = file.FileInfo;
  if (FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return info.aSize;
  const std::int64_t clusterBytes = ClusterBytes(FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)]);
  return clusterBytes <= 0 ? info.aSize : CeilDiv(info.aSize, clusterBytes) * clusterBytes;
}

bool TexFAT::IsOverwritten(const TFile& file) const {
  const TFileInfo& info = file.FileInfo;
  if (!info.blnDeleted || info.blnFolder || FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return false;
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)];
  return exFATInfo(drive).Notes->Overwritten.contains(EntryPosition(drive, info));
}

TPlaceSource TexFAT::PlaceOf(const TFile& file) const {
  const TFileInfo& info = file.FileInfo;
  if (FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return info.Place;
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)];
  return drive.GeometrySource == TPlaceSource::Estimated ? TPlaceSource::Estimated : info.Place;
}

}  // namespace brenlow
