// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/disputed_files.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "analysis/file_data.h"
#include "core/cluster_use.h"
#include "core/drives.h"
#include "core/engine.h"
#include "fs/dispatch.h"
#include "table/files.h"

namespace brenlow {
namespace {

// Other claims on one file that are looked at; more of them are a reason to doubt it by themselves.
constexpr int MostLooks = 4096;

/// What claims clusters: a file, with all the rows that mean it (links, earlier states of its entry).
struct TClaimant {
  TDateTime Created = 0;
  TDateTime LastWritten = 0;
  bool Holds = false;  // what lies there now is its own: it is alive, or was seen there
  // What it is now, where it holds its clusters: an earlier state of it may have been written over by itself.
  std::int64_t Size = 0;
  TDateTime Modified = 0;
  // Alive when the volume was formatted; what was marked deleted by then had its first cluster before.
  bool WasAlive = false;
};

/// Clusters from `First` to before `End`.
struct TClaimedRun {
  std::int64_t First = 0;
  std::int64_t End = 0;
  std::int64_t LastEnd = 0;  // of all in its part of the tree
  std::uint32_t Claimant = 0;
};

/// Rows of clusters in order of their starts, as the nodes of a balanced tree: the one in the middle of a
/// part is the root of it.
class TClaimTree {
 public:
  void Add(const TClusterRun& run, std::uint32_t claimant) {
    if (run.Count <= 0 || run.First < 0 || run.First > INT64_MAX - run.Count) return;
    FRuns.push_back({run.First, run.First + run.Count, 0, claimant});
  }
  void Build() {
    std::sort(FRuns.begin(), FRuns.end(), [](const auto& a, const auto& b) { return a.First < b.First; });
    SetEnds(0, FRuns.size());
  }
  /// Calls `callable(other)` for each run that shares a cluster with `run`, until it answers false.
  template <typename TCallable>
  bool ForEachAt(const TClusterRun& run, TCallable&& callable) const {
    return Visit(0, FRuns.size(), run.First, run.First + run.Count, callable);
  }

 private:
  std::int64_t SetEnds(std::size_t first, std::size_t end) {
    if (first >= end) return 0;
    const std::size_t middle = first + (end - first) / 2;
    TClaimedRun& run = FRuns[middle];
    run.LastEnd = std::max({run.End, SetEnds(first, middle), SetEnds(middle + 1, end)});
    return run.LastEnd;
  }
  template <typename TCallable>
  bool Visit(std::size_t first, std::size_t end, std::int64_t from, std::int64_t until, TCallable& callable) const {
    if (first >= end) return true;
    const std::size_t middle = first + (end - first) / 2;
    const TClaimedRun& run = FRuns[middle];
    if (run.LastEnd <= from) return true;
    if (!Visit(first, middle, from, until, callable)) return false;
    if (run.First >= until) return true;
    if (run.End > from && !callable(run)) return false;
    return Visit(middle + 1, end, from, until, callable);
  }

  std::vector<TClaimedRun> FRuns;
};

/// The claims of one drive, through its driver.
template <typename TDriver>
class TDisputes {
 public:
  TDisputes(TEngine& engine, TDriver& driver, int driveNumber)
      : FEngine(engine), FDriver(driver), FDriveNumber(driveNumber), FUse(driver.UsedClusters(Drive())) {}

  void Mark() {
    // What is in use is known by the volume's own account, where there is one of its last state.
    const bool searched = FEngine.PartRecRunning || Drive().GeometrySource != TPlaceSource::Stored;
    const bool needsLive = !TDriver::ClaimsNeedReads || !FUse.IsKnown() || searched;
    for (const std::int64_t parent : TDrives::GetFoundPosParentClusters(Drive())) {
      for (const std::int64_t number : Drive().ParentClusters.Files(parent)) {
        if (needsLive || Info(number).blnDeleted) Enter(number);
        FEngine.Pump();
      }
    }
    FTree.Build();
    for (const TRow& row : FRows) {
      const TContentDoubt doubt = DoubtOf(row);
      if (doubt != TContentDoubt::None || Info(row.Number).Doubt == TContentDoubt::Unchecked) {
        Info(row.Number).Doubt = doubt;
      }
      FEngine.Pump();
    }
  }

 private:
  /// A deleted file.
  struct TRow {
    std::int64_t Number = 0;
    std::uint32_t Claimant = 0;
    std::size_t FirstRun = 0;  // of `FContents`
    std::size_t EndRun = 0;
  };
  /// Rows that begin at the same place and agree in these mean the same file.
  using TIdentity = std::tuple<std::int64_t, std::int64_t, TDateTime, TDateTime>;

  TDriveInfo& Drive() { return FEngine.Drives().List[static_cast<std::size_t>(FDriveNumber)]; }
  TFileInfo& Info(std::int64_t row) { return FEngine.Files().List[static_cast<std::size_t>(row)].FileInfo; }

  void Enter(std::int64_t number) {
    const TFile& file = FEngine.Files().List[static_cast<std::size_t>(number)];
    if (file.FileInfo.aDeepAnalyse) return;
    FClaim.Content.clear();
    FClaim.Others.clear();
    FClaim.Seen = false;
    if (!FDriver.ClaimedClusters(Drive(), file, FClaim)) return;
    const std::uint32_t claimant = ClaimantOf(file.FileInfo);
    for (const TClusterRun& run : FClaim.Others) FTree.Add(run, claimant);
    for (const TClusterRun& run : FClaim.Content) FTree.Add(run, claimant);
    if (file.FileInfo.blnFolder || !file.FileInfo.blnDeleted) return;
    const bool hasTail = !FClaim.Content.empty() && FClaim.Content.front().Count > 1;
    if (!TDriver::ClaimsAreExact && file.FileInfo.WasAlive && hasTail) ++FUnknownTails;
    const std::size_t first = FContents.size();
    FContents.insert(FContents.end(), FClaim.Content.begin(), FClaim.Content.end());
    FRows.push_back({number, claimant, first, FContents.size()});
  }

  std::uint32_t ClaimantOf(const TFileInfo& info) {
    const TTimeStamp& times = info.TimeStamp;
    const TClaimant claimant{times.dtCreated,
                             std::max(times.dtCreated, times.dtModified),
                             !info.blnDeleted || FClaim.Seen,
                             info.aSize,
                             times.dtModified,
                             info.WasAlive};
    const auto next = static_cast<std::uint32_t>(FClaimants.size());
    if (FClaim.Content.empty()) {
      FClaimants.push_back(claimant);
      return next;
    }
    // Where places are stored, earlier states of a file may be shorter.
    constexpr bool exact = TDriver::ClaimsAreExact;
    const TIdentity identity{FClaim.Content.front().First, exact ? 0 : info.aSize, times.dtCreated,
                             exact ? 0 : times.dtModified};
    const auto [known, isNew] = FKnown.try_emplace(identity, next);
    if (isNew) {
      FClaimants.push_back(claimant);
      return next;
    }
    TClaimant& same = FClaimants[known->second];
    same.LastWritten = std::max(same.LastWritten, claimant.LastWritten);
    if (claimant.Holds && (!same.Holds || !info.blnDeleted)) {
      same.Size = claimant.Size;
      same.Modified = claimant.Modified;
    }
    same.Holds = same.Holds || claimant.Holds;
    same.WasAlive = same.WasAlive || claimant.WasAlive;
    return known->second;
  }

  /// True when so many files were alive to the end that this is no chance find in a lost folder.
  bool WasFormatted() const { return FUnknownTails > 0 && FUnknownTails * 4 >= FRows.size(); }

  TContentDoubt DoubtOf(const TRow& row) {
    if (row.FirstRun == row.EndRun) return TContentDoubt::None;
    if (const TClaimant& mine = FClaimants[row.Claimant]; mine.Holds) {
      const TFileInfo& info = Info(row.Number);
      const bool isSameState = mine.Size == info.aSize && mine.Modified == info.TimeStamp.dtModified;
      return isSameState ? TContentDoubt::None : TContentDoubt::Overwritten;
    }
    const std::int64_t start = FContents[row.FirstRun].First;
    if (FUse.IsUsed(start)) return TContentDoubt::Overwritten;
    for (std::size_t i = row.FirstRun; i < row.EndRun; ++i) {
      if (!FUse.IsAnyUsed(FContents[i])) continue;
      if (TDriver::ClaimsAreExact) return TContentDoubt::PartlyOverwritten;
      // The file lay around what is in use, or was cut by it.
      Info(row.Number).Place = TPlaceSource::Estimated;
    }
    int looks = 0;
    TContentDoubt doubt = TContentDoubt::None;
    for (std::size_t i = row.FirstRun; i < row.EndRun; ++i) {
      const bool goOn = FTree.ForEachAt(FContents[i], [&](const TClaimedRun& other) {
        return Weigh(row, other, start, doubt) && ++looks < MostLooks;
      });
      if (goOn) continue;
      if (looks == MostLooks) doubt = TContentDoubt::Contested;
      break;
    }
    // What was alive to the end lay anywhere after its first cluster, in the place of what was deleted before, too.
    const bool isOlder = WasFormatted() && !Info(row.Number).WasAlive;
    if (doubt == TContentDoubt::None && isOlder) return TContentDoubt::Contested;
    return doubt;
  }

  /// Takes the claim of another file on a cluster into account. False when no other one can matter.
  bool Weigh(const TRow& row, const TClaimedRun& other, std::int64_t start, TContentDoubt& doubt) const {
    if (other.Claimant == row.Claimant) return true;
    const TClaimant& mine = FClaimants[row.Claimant];
    const TClaimant& theirs = FClaimants[other.Claimant];
    if (theirs.Holds) {
      const bool atStart = other.First <= start && start < other.End;
      doubt = atStart ? TContentDoubt::Overwritten : TContentDoubt::PartlyOverwritten;
      return false;
    }
    if (!TDriver::ClaimsAreExact) {
      return WeighAssumed(mine, theirs, other, FContents[row.FirstRun], doubt);
    }
    // Two files had a cluster one after the other. Nobody says when a file was deleted; but who was
    // made after the other was last written came after it.
    if (mine.LastWritten != 0 && theirs.Created > mine.LastWritten) {
      doubt = TContentDoubt::LaterFile;
      return false;
    }
    if (theirs.LastWritten == 0 || mine.Created <= theirs.LastWritten) doubt = TContentDoubt::Contested;
    return true;
  }

  /// The same where only first clusters are certain, and either may lie elsewhere in truth.
  static bool WeighAssumed(const TClaimant& mine, const TClaimant& theirs, const TClaimedRun& other,
                           const TClusterRun& content, TContentDoubt& doubt) {
    const bool onlyAtStart = std::min(other.End, content.First + content.Count) == content.First + 1;
    if (mine.WasAlive && onlyAtStart) return true;
    if (theirs.WasAlive && !mine.WasAlive && other.First >= content.First) {
      doubt = other.First == content.First ? TContentDoubt::Overwritten : TContentDoubt::PartlyOverwritten;
      return false;
    }
    doubt = TContentDoubt::Contested;
    return true;
  }

  TEngine& FEngine;
  TDriver& FDriver;
  int FDriveNumber;
  TClusterUse FUse;
  TClaim FClaim;
  std::vector<TClaimant> FClaimants;
  std::map<TIdentity, std::uint32_t> FKnown;
  TClusterRuns FContents;
  std::vector<TRow> FRows;
  std::size_t FUnknownTails = 0;  // files that were alive to the end, of which only the first cluster is known
  TClaimTree FTree;
};

}  // namespace

void MarkDisputedFiles(TEngine& engine, int driveNumber) {
  const TDrives& drives = engine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  const auto mark = [&](auto& driver) {
    using TDriver = std::remove_reference_t<decltype(driver)>;
    if constexpr (requires { TDriver::ClaimsAreExact; }) TDisputes<TDriver>(engine, driver, driveNumber).Mark();
    return true;
  };
  WithDriver(engine, drives.List[static_cast<std::size_t>(driveNumber)].FileSystem, mark, false);
}

void SettlePlaces(TEngine& engine, const TInt64DynArray& fileNumbers) {
  std::set<int> drives;
  for (const std::int64_t number : fileNumbers) {
    engine.Pump();
    if (!engine.Recovering) return;
    TFile& file = engine.Files().List[static_cast<std::size_t>(number)];
    FindFirstClusters(engine, file);
    drives.insert(file.FileInfo.aDriveNumber);
  }
  for (const int drive : drives) MarkDisputedFiles(engine, drive);
}

}  // namespace brenlow
