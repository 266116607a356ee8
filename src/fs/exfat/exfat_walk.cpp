// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/exfat/exfat_walk.h"

#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/exfat/exfat.h"
#include "fs/exfat/exfat_layout.h"
#include "table/files.h"
#include "table/signatures.h"

namespace brenlow {
namespace exfat {
namespace {

constexpr std::int64_t FirstPiece = 16384;  // bytes of a folder read at first: most end there
constexpr std::int64_t LargestPiece = 1 << 20;

}  // namespace

TWalkState::TWalkState(const TDriveInfo& drive) : Known(LastCluster(drive)) {}

TFolderWalk::TFolderWalk(TEngine& engine, TexFAT& driver, TTableReader& tables, TDriveInfo& drive, int driveNumber,
                         TEntrySink sink, std::shared_ptr<TWalkState> state)
    : FEngine(engine),
      FDriver(driver),
      FTables(tables),
      FDrive(drive),
      FDriveNumber(driveNumber),
      FSink(std::move(sink)),
      FState(state ? std::move(state) : std::make_shared<TWalkState>(drive)) {}

void TFolderWalk::WalkRoot() {
  const std::uint32_t root = exFATInfo(FDrive).RootDirFirstCluster;
  FState->Known.Add(root);
  WalkFolder({root, true, false, 0});
}

void TFolderWalk::WalkWaiting(bool publishProgress) {
  while (!FState->Waiting.empty() && !FStopped) {
    const TWaitingCluster folder = FState->Waiting.front();
    FState->Waiting.pop_front();
    WalkFolder(folder);
    if (publishProgress) {
      // The total is not known: each folder takes its share of what is left.
      FPosition =
          FState->Waiting.empty() ? 1.0 : (1 - FPosition) / static_cast<double>(FState->Waiting.size()) + FPosition;
      FEngine.AnalyseProgress(FPosition);
      FEngine.Pump();
    }
    if (!FEngine.Analysing && publishProgress) FStopped = true;
  }
}

/// Sectors counted from the volume's start. False when any of them cannot be read.
bool TFolderWalk::ReadSectors(std::int64_t sector, std::int64_t count, std::uint8_t* place) {
  const std::uint32_t got = FEngine.Reader().ReadDriveSectors(FDrive, place, FDrive.FirstSector + sector, count);
  return got == static_cast<std::uint64_t>(count) * static_cast<unsigned>(FDrive.BytesPerSector);
}

bool TFolderWalk::WalkFolder(const TWaitingCluster& folder) {
  if (!IsInside(FDrive, folder.Cluster)) return false;
  FParent =
      folder.Cluster == exFATInfo(FDrive).RootDirFirstCluster ? SpecialCluster::Root : std::int64_t{folder.Cluster};
  FParser.Clear();
  WalkOn(folder);
  return true;
}

/// Walks clusters of the folder `FParent`, which may begin in the middle of the set in hand.
void TFolderWalk::WalkOn(const TWaitingCluster& folder) {
  FLost = folder.Deleted;
  FUnknownSlots = 0;
  const std::int64_t clusterBytes = ClusterBytes(FDrive);
  const std::int64_t limit =
      folder.Length > 0 ? CeilDiv(std::min(folder.Length, MaxFolderBytes), clusterBytes) : MaxFolderClusters;
  TChain chain(FTables, exFATInfo(FDrive).ActiveFAT, folder.Cluster);
  std::int64_t piece = FirstPiece;
  std::int64_t cluster = folder.Cluster;
  for (std::int64_t walked = 0; cluster != 0 && walked < limit;) {
    const std::int64_t most = std::min(limit - walked, std::max<std::int64_t>(piece / clusterBytes, 1));
    const TRun run{cluster, CountRun(folder, chain, most, cluster)};
    for (std::int64_t i = 0; i < run.Count; ++i) FState->Known.Add(run.Cluster + i);
    const TStep step =
        WalkSectors(ClusterSector(FDrive, run.Cluster), run.Count * exFATInfo(FDrive).SectorsPerCluster, piece);
    if (step == TStep::Stop) FStopped = true;
    if (step != TStep::GoOn) return;
    walked += run.Count;
  }
  if (FParser.IsPending()) HoldUnfinished();
  EndSet();
}

/// Each further cluster is compared with all of them: crafted volumes must not make that endless.
void TFolderWalk::HoldUnfinished() {
  constexpr std::size_t most = 1024;
  if (FState->Unfinished.size() >= most) return;
  if (!FLost) FState->IsDamaged = true;
  FState->Unfinished.push_back({FParent, FLost, FParser});
  FParser.Clear();
}

void TFolderWalk::EndUnfinished() {
  for (TUnfinished& folder : FState->Unfinished) {
    if (FStopped) break;
    FParent = folder.Parent;
    FLost = folder.Lost;
    FParser = folder.Set;
    EndSet();
  }
  FState->Unfinished.clear();
}

/// Adjacent clusters of a folder from `cluster` on, at most `most`. `cluster` becomes the one after them, 0 where
/// the folder ends. Each cluster belongs to one folder: it ends where it runs into one that was walked already.
std::int64_t TFolderWalk::CountRun(const TWaitingCluster& folder, TChain& chain, std::int64_t most,
                                   std::int64_t& cluster) {
  const std::int64_t first = cluster;
  for (std::int64_t count = 1;; ++count) {
    cluster = first + count;
    bool guessed = false;
    if (folder.Fragmented) {
      const TChain::TStep step = chain.Step(FDrive);
      guessed = step == TChain::TStep::Guess;
      const bool goesOn = step == TChain::TStep::Next || (step == TChain::TStep::Guess && GoesOnAt(chain.Cluster()));
      cluster = goesOn ? chain.Cluster() : 0;
    }
    if (!IsInside(FDrive, cluster) || IsKnown(cluster) || (FLost && IsUsed(FDrive, cluster))) cluster = 0;
    if (cluster != first + count || guessed || count == most) return count;
  }
}

/// Where the table does not say which cluster a folder goes on with: whether the adjacent one holds entries. One that
/// begins with a File entry may begin another folder, so it does not follow a deleted one.
bool TFolderWalk::GoesOnAt(std::int64_t cluster) {
  TByteDynArray sector(static_cast<std::size_t>(FDrive.BytesPerSector));
  if (!IsInside(FDrive, cluster) || !ReadSectors(ClusterSector(FDrive, cluster), 1, sector.data())) return false;
  return IsDirectorySector(sector, LastCluster(FDrive)) && (!FLost || TypeOf(sector) != FileEntry);
}

/// Adjacent sectors of a folder, in pieces that grow.
TFolderWalk::TStep TFolderWalk::WalkSectors(std::int64_t firstSector, std::int64_t sectorCount, std::int64_t& piece) {
  const std::int64_t sectorSize = FDrive.BytesPerSector;
  for (std::int64_t at = 0; at < sectorCount;) {
    const std::int64_t count = std::min(std::max<std::int64_t>(piece / sectorSize, 1), sectorCount - at);
    FBytes.resize(static_cast<std::size_t>(count * sectorSize));
    const std::int64_t sector = firstSector + at;
    const TStep step = ReadSectors(sector, count, FBytes.data()) ? WalkBytes(FBytes, sector * sectorSize)
                                                                 : WalkBadSectors(sector, count);
    if (step != TStep::GoOn) return step;
    at += count;
    piece = std::min(piece * 4, LargestPiece);
  }
  return TStep::GoOn;
}

/// One by one: a sector that cannot be read costs its own entries only.
TFolderWalk::TStep TFolderWalk::WalkBadSectors(std::int64_t firstSector, std::int64_t sectorCount) {
  TByteDynArray sector(static_cast<std::size_t>(FDrive.BytesPerSector));
  for (std::int64_t i = 0; i < sectorCount; ++i) {
    FEngine.Pump();
    if (!ReadSectors(firstSector + i, 1, sector.data())) {
      EndSet();
      FState->IsDamaged = true;
      continue;
    }
    const TStep step = WalkBytes(sector, (firstSector + i) * FDrive.BytesPerSector);
    if (step != TStep::GoOn) return step;
  }
  return TStep::GoOn;
}

/// Slots in order; `position` is the byte position of the first one in the volume.
TFolderWalk::TStep TFolderWalk::WalkBytes(std::span<const std::uint8_t> bytes, std::int64_t position) {
  const auto sectorSize = static_cast<std::size_t>(FDrive.BytesPerSector);
  if (FLost && !IsDirectorySector(bytes.first(sectorSize), LastCluster(FDrive))) {
    EndSet();
    return TStep::FolderDone;
  }
  for (std::size_t at = 0; at + EntrySize <= bytes.size(); at += EntrySize) {
    const auto slot = bytes.subspan(at, EntrySize);
    if (slot[0] == 0 && IsAllZero(slot)) {
      EndSet();
      const std::int64_t place = position + static_cast<std::int64_t>(at);
      const std::int64_t clusterBytes = ClusterBytes(FDrive);
      const std::int64_t inCluster =
          (place - std::int64_t{exFATInfo(FDrive).DataFirstSector} * FDrive.BytesPerSector) % clusterBytes;
      const auto rest = bytes.subspan(at);
      WalkAfterEnd(rest.first(std::min(rest.size(), static_cast<std::size_t>(clusterBytes - inCluster))), place);
      return FStopped ? TStep::Stop : TStep::FolderDone;
    }
    FUnknownSlots = IsKnownType(slot[0]) ? 0 : FUnknownSlots + 1;
    if (FUnknownSlots > MaxUnknownSlots) {
      EndSet();
      return TStep::FolderDone;
    }
    TakeSlot(slot, position + static_cast<std::int64_t>(at));
    if (FStopped) return TStep::Stop;
  }
  return TStep::GoOn;
}

/// What stands after the end mark is no part of the folder any more; whole sets there are deleted ones.
void TFolderWalk::WalkAfterEnd(std::span<const std::uint8_t> bytes, std::int64_t position) {
  if (IsAllZero(bytes)) return;
  FAfterEnd = true;
  for (std::size_t at = 0; at + EntrySize <= bytes.size() && !FStopped; at += EntrySize) {
    TakeSlot(bytes.subspan(at, EntrySize), position + static_cast<std::int64_t>(at));
  }
  EndSet();
  FAfterEnd = false;
}

void TFolderWalk::TakeSlot(std::span<const std::uint8_t> slot, std::int64_t position) {
  if (FParser.Continues(slot)) {
    FParser.Add(slot);
  } else {
    EndSet();
    FParser.Begin(slot, position);
  }
  if (FParser.IsComplete()) EndSet();
}

void TFolderWalk::EndSet() {
  TEntrySet set;
  if (FParser.Take(FInfo, set)) Enter(FInfo, set);
}

void TFolderWalk::Enter(TFileInfo& info, const TEntrySet& set) {
  if (FAfterEnd && !set.ChecksumFits) return;
  info.aDriveNumber = FDriveNumber;
  info.FirstSector = set.Position / FDrive.BytesPerSector;
  info.OffsetInSector = static_cast<std::int32_t>(set.Position % FDrive.BytesPerSector);
  if (FLost || FAfterEnd) info.blnDeleted = true;
  if (set.HasStream && !set.HasFile) CheckOrphanStream(info, set);
  // All slots are there, but they do not go together; or nothing is left but the name.
  const bool mismatch = set.HasFile && set.NameIsWhole && !set.ChecksumFits;
  if (!set.HasStream) exFATInfo(FDrive).Notes->Overwritten.insert(set.Position);
  if (FLost && !set.WasInUse) exFATInfo(FDrive).Notes->DeletedBefore.insert(set.Position);
  if (mismatch || !set.HasStream) info.Place = TPlaceSource::Estimated;
  if (info.strName.empty()) NameNameless(info, set);
  if (!info.blnDeleted) FState->AnyLiveEntry = true;
  if (info.blnFolder) {
    PlaceFolder(info);
  } else if (set.HasStream && set.ValidLength < info.aSize) {
    exFATInfo(FDrive).Notes->ValidLengths[set.Position] = set.ValidLength;
  }
  const std::int64_t end = info.FirstCluster + CeilDiv(info.aSize, ClusterBytes(FDrive));
  if (IsInside(FDrive, info.FirstCluster))
    FState->HighestCluster = std::max(FState->HighestCluster, std::min(end, LastCluster(FDrive)));
  if (!FSink(info, FParent)) FStopped = true;
}

/// The File entry was written over: what the stream leads to tells whether it is a folder, and the hash whether the
/// name after it is its own.
void TFolderWalk::CheckOrphanStream(TFileInfo& info, const TEntrySet& set) {
  info.blnFolder = info.FirstCluster != 0 && BeginsFolder(info.FirstCluster);
  const TStringView upCase = FDriver.UpCase(FDrive);
  const bool fits = set.NameIsWhole && !upCase.empty() && NameHash(info.strName, upCase) == set.NameHash;
  if (!fits) info.Place = TPlaceSource::Estimated;
  if (!fits && set.NameIsWhole && !upCase.empty()) info.strName = {};
}

/// A stream entry without its name gets one: the number of its first cluster, and the type of its content.
void TFolderWalk::NameNameless(TFileInfo& info, const TEntrySet& set) {
  const TString number = NumberText(info.FirstCluster != 0 ? info.FirstCluster : set.Position);
  if (info.blnFolder) {
    FName = FEngine.Language().Format(TText::LostFolder, {number});
  } else {
    TByteDynArray head(static_cast<std::size_t>(FDrive.BytesPerSector));
    if (IsInside(FDrive, info.FirstCluster)) ReadSectors(ClusterSector(FDrive, info.FirstCluster), 1, head.data());
    FName = FEngine.Language()[TText::FileType] + u" " + number + FEngine.Signatures().GetFileExtBySignature(head);
  }
  info.strName = FName;
}

/// Queues a folder. The clusters of a deleted one may belong to something else by now: then its row leads nowhere.
void TFolderWalk::PlaceFolder(TFileInfo& info) {
  const std::int64_t cluster = info.FirstCluster;
  if (!IsInside(FDrive, cluster)) return;
  if (info.blnDeleted && (IsUsed(FDrive, cluster) || IsKnown(cluster))) {
    info.FirstCluster = 0;
    return;
  }
  if (!CanAddWaiting || (info.blnDeleted && !BeginsFolder(cluster)) || !FState->Known.Add(cluster)) return;
  FState->Waiting.push_back({static_cast<std::uint32_t>(cluster), info.blnFragmented, info.blnDeleted, info.aSize});
}

bool TFolderWalk::BeginsFolder(std::int64_t cluster) {
  TByteDynArray sector(static_cast<std::size_t>(FDrive.BytesPerSector));
  return IsInside(FDrive, cluster) && ReadSectors(ClusterSector(FDrive, cluster), 1, sector.data()) &&
         IsDirectorySector(sector, LastCluster(FDrive));
}

}  // namespace exfat

using namespace exfat;

void TexFAT::AnalyseSystem(int driveNumber) {
  if (FEngine.OnAnalyseProgress) FEngine.AnalyseProgress(0);
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  drive.Analysed = TAnalyseInformation::aiPartial;
  FTables.Forget();
  if (!GetDriveInfo(drive, true)) return;
  exFATInfo(drive).Notes = std::make_shared<TEntryNotes>();

  TFiles& files = FEngine.Files();
  TFolderWalk walk(FEngine, *this, FTables, drive, driveNumber, [&](const TFileInfo& info, std::int64_t parent) {
    files.Add(info, parent, true);
    FEngine.Pump();
    return FEngine.Analysing.load(std::memory_order_relaxed);
  });
  walk.WalkRoot();
  walk.WalkWaiting(true);
  if (FEngine.Analysing && LostFolderSearch != TLostFolderSearch::Never) {
    walk.FindLostFoldersAsNeeded(LostFolderSearch == TLostFolderSearch::Always);
  }
  walk.EndUnfinished();
  SettleDeleted(driveNumber, walk.State().Known);
  if (FEngine.Analysing) {
    drive.Analysed = TAnalyseInformation::aiFull;
    FEngine.AnalyseProgress(1.0);
  }
  FTables.Forget();
}

void TexFAT::GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten) {
  result.Clear();
  if (!GetDriveInfo(drive, true)) return;
  TFolderWalk walk(FEngine, *this, FTables, drive, -1, [&](const TFileInfo& info, std::int64_t parent) {
    const std::size_t number = result.Add(info, parent);
    if (rootDirOnly) result[number].FileInfo.blnDeleted = false;
    bool canBreak = false;
    if (onFilesGotten) onFilesGotten(drive, result, canBreak);
    return !canBreak;
  });
  walk.CanAddWaiting = !rootDirOnly;
  walk.WalkRoot();
  if (!rootDirOnly) walk.WalkWaiting(false);
  walk.EndUnfinished();
}

}  // namespace brenlow
