// SPDX-License-Identifier: GPL-3.0-or-later
// Folders that no entry leads to any more: after a quick format the old folders still lie in the
// data area, and a deleted folder of several clusters has lost the way from one to the next.
//
// A folder's first cluster names itself in its "." entry, so it is recognised with certainty. A
// further cluster has no mark of its own: it counts when its whole first sector holds nothing but
// sound entries, and it goes to a folder only on evidence; without, it stays in lost and found.
#include <algorithm>
#include <unordered_set>

#include "core/engine.h"
#include "core/language.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/fat/fat_info.h"
#include "fs/fat/fat_layout.h"
#include "fs/fat/fat_walk.h"
#include "table/files.h"

namespace brenlow::fat {
namespace {

constexpr std::int64_t ScanReadSize = 1 << 20;     // bytes
constexpr std::int64_t BeyondLastFile = 64 << 20;  // bytes searched behind the last file known

/// The checksum that the pieces of a long name carry of their 8.3 name.
std::uint8_t ShortNameChecksum(std::span<const std::uint8_t> entry) {
  std::uint8_t sum = 0;
  for (std::size_t i = 0; i < 11; ++i) {
    sum = static_cast<std::uint8_t>(((sum & 1) << 7) + (sum >> 1) + entry[i]);
  }
  return sum;
}

/// True when the entry can be the next one behind pieces of that checksum: another piece of it, or
/// its 8.3 entry. Of a deleted 8.3 name the first letter is unknown, so it cannot be ruled out.
bool FitsPieces(std::span<const std::uint8_t> entry, std::uint8_t checksum) {
  if (entry[11] == AttrLongName) return entry[13] == checksum;
  return entry[0] == DeletedMark || ShortNameChecksum(entry) == checksum;
}

bool IsMiddleOfLongName(std::span<const std::uint8_t> entry) {
  constexpr std::uint8_t lastPiece = 0x40;
  return entry[11] == AttrLongName && entry[0] != DeletedMark && (entry[0] & lastPiece) == 0;
}

/// The folder that further entries belong to, as the folders among them say in their ".." entries; 0 when
/// none says so.
std::int64_t ParentByChildren(TEngine& engine, const TDriveInfo& drive, std::span<const std::uint8_t> bytes) {
  constexpr int mostLooks = 4;
  TByteDynArray child(static_cast<std::size_t>(drive.BytesPerSector));
  const auto clusterIn = [&](std::span<const std::uint8_t> entry) {
    return IsFAT32(drive) ? EntryCluster(entry, 0) : std::uint32_t{ReadLe16(entry, 26)};
  };
  int looks = 0;
  for (std::size_t at = 0; at + EntrySize <= bytes.size() && looks < mostLooks; at += EntrySize) {
    const auto entry = bytes.subspan(at, EntrySize);
    if (entry[0] == 0) break;
    const std::uint32_t cluster = clusterIn(entry);
    if ((entry[11] & (AttrFolder | AttrVolume)) != AttrFolder || !IsInside(drive, cluster)) continue;
    ++looks;
    const std::int64_t sector = drive.FirstSector + ClusterSector(drive, cluster);
    if (engine.Reader().ReadDriveSectors(drive, child.data(), sector, 1) != child.size()) continue;
    if (!IsFolderStart(drive, child, 0, false) || clusterIn(child) != cluster) continue;
    const std::uint32_t parent = clusterIn(std::span(child).subspan(EntrySize));
    if (parent == 0 || parent == FATInfo(drive).RootDirFirstCluster) return SpecialCluster::Root;
    if (IsInside(drive, parent)) return parent;
  }
  return 0;
}

}  // namespace

/// Free clusters far behind everything that any entry points to were hardly ever used.
std::int64_t TFolderWalk::LastSearchedCluster() const {
  return std::min(LastCluster(FDrive), std::int64_t{FState->HighestCluster} + BeyondLastFile / ClusterBytes(FDrive));
}

/// A volume may claim more than its source holds.
std::int64_t TFolderWalk::LastReadableCluster() const {
  const std::int64_t sectors =
      FEngine.Reader().DeviceSectors(FDrive) - FDrive.FirstSector - FATInfo(FDrive).DataFirstSector;
  return sectors <= 0 ? 0 : sectors / FATInfo(FDrive).SectorsPerCluster + 2;
}

/// Bytes that the search through free space would read, slack included, not on the whole volume.
std::int64_t TFolderWalk::LostFolderSearchSize() const {
  const std::int64_t last = LastSearchedCluster();
  std::int64_t clusters = 0;
  for (std::int64_t cluster = 2; cluster <= last; ++cluster) {
    clusters += FreeOrBad(FDrive, cluster) || IsLastOfChain(cluster) ? 1 : 0;
  }
  return clusters * ClusterBytes(FDrive);
}

/// True for the last cluster of a chain that is no folder's, if it has room behind its first sector.
bool TFolderWalk::IsLastOfChain(std::int64_t cluster) const {
  const TLongWordDynArray& table = FATInfo(FDrive).FATTable;
  if (FATInfo(FDrive).SectorsPerCluster < 2 || cluster >= static_cast<std::int64_t>(table.size())) return false;
  return table[static_cast<std::size_t>(cluster)] > BadMark(FDrive) && !IsKnown(static_cast<std::uint32_t>(cluster));
}

void TFolderWalk::FillTargets() {
  const TLongWordDynArray& table = FATInfo(FDrive).FATTable;
  FTargets = TClusterSet(std::min<std::int64_t>(ClusterRoom(FDrive), MaxClusters));
  for (const std::uint32_t entry : table) FTargets.Add(entry);
}

/// True for a cluster in use at the start of a chain that no live entry names: its entry could not be
/// read, or never was on the disk.
bool TFolderWalk::IsOrphan(std::int64_t cluster) const {
  const TLongWordDynArray& table = FATInfo(FDrive).FATTable;
  return cluster < static_cast<std::int64_t>(table.size()) && table[static_cast<std::size_t>(cluster)] != 0 &&
         table[static_cast<std::size_t>(cluster)] != BadMark(FDrive) && !FTargets.Has(cluster) &&
         !FState->LiveFirst.Has(cluster) && !FState->Known.Has(cluster);
}

void TFolderWalk::FindLostFoldersAsNeeded(bool always) {
  const bool formatted = !FState->AnyLiveEntry;
  TLostSearch search;
  search.InSlack = always || LostFolderSearchSize() <= CheapSearch;
  search.WholeVolume = always || formatted;
  search.FreeSpace = search.InSlack || formatted || !FState->Unfinished.empty();
  const bool damaged = FState->MetBadSector || !FATInfo(FDrive).UnknownEntries.empty();
  if (search.FreeSpace || damaged) FindLostFolders(search);
}

void TFolderWalk::FindLostFolders(const TLostSearch& search) {
  FSearching = true;
  const TClusterSet reached = FState->Known;
  FillTargets();
  const std::int64_t first = 2;
  const std::int64_t last = std::min(LastCluster(FDrive), LastReadableCluster());
  const std::int64_t lastFree = !search.FreeSpace ? 0 : search.WholeVolume ? last : LastSearchedCluster();
  const auto most = static_cast<std::uint32_t>(std::max<std::int64_t>(ScanReadSize / ClusterBytes(FDrive), 1));
  const bool noTable = FATInfo(FDrive).FATTable.empty();
  const auto isWanted = [&](std::int64_t cluster) {
    const bool maybe =
        cluster <= lastFree && (noTable || FreeOrBad(FDrive, cluster) || (search.InSlack && IsLastOfChain(cluster)));
    return maybe || IsUnknown(FDrive, cluster) || IsOrphan(cluster);
  };
  TByteDynArray bytes;
  for (std::int64_t cluster = first; cluster <= last && !FStopped;) {
    std::uint32_t count = 0;
    while (count < most && cluster + count <= last && isWanted(cluster + count)) ++count;
    if (count == 0) {
      ++cluster;
      continue;
    }
    ScanRun(static_cast<std::uint32_t>(cluster), count, bytes);
    cluster += count;
    if (PublishProgress) {
      FEngine.AnalyseProgress(static_cast<double>(cluster - first) / static_cast<double>(last - first + 1));
    }
    FEngine.Pump();
    if (!FEngine.Analysing) FStopped = true;
  }
  PlaceLostFolders(reached);
  FFolderParents.clear();
  FSearching = false;
}

void TFolderWalk::ScanRun(std::uint32_t first, std::uint32_t count, TByteDynArray& bytes) {
  const auto clusterBytes = static_cast<std::size_t>(ClusterBytes(FDrive));
  bytes.resize(count * clusterBytes);
  if (!ReadSectors(ClusterSector(FDrive, first), std::int64_t{count} * FATInfo(FDrive).SectorsPerCluster,
                   bytes.data())) {
    ScanBadRun(first, count, bytes);
    return;
  }
  for (std::uint32_t i = 0; i < count && !FStopped; ++i) {
    ExamineCluster(first + i, std::span(bytes).subspan(i * clusterBytes, clusterBytes));
  }
}

/// Somewhere in the run a sector cannot be read: the rest of it may be sound. Free clusters after bad
/// ones are passed over in growing steps.
void TFolderWalk::ScanBadRun(std::uint32_t first, std::uint32_t count, std::span<std::uint8_t> bytes) {
  const auto clusterBytes = static_cast<std::size_t>(ClusterBytes(FDrive));
  const auto sectorSize = static_cast<std::size_t>(FDrive.BytesPerSector);
  std::uint32_t step = 1;
  std::uint32_t next = 0;  // the free cluster of the run that is tried next
  for (std::uint32_t i = 0; i < count && !FStopped && FEngine.Analysing; ++i) {
    if (i < next && FreeOrBad(FDrive, first + i)) continue;
    const auto place = bytes.subspan(i * clusterBytes, clusterBytes);
    const std::int64_t sector = ClusterSector(FDrive, first + i);
    if (ReadSectors(sector, FATInfo(FDrive).SectorsPerCluster, place.data())) {
      step = 1;
      ExamineCluster(first + i, place);
    } else if (clusterBytes > sectorSize && ReadSectors(sector, 1, place.data())) {
      step = 1;
      ExamineFolderStart(first + i, place.first(sectorSize));
    } else {
      next = i + step;
      step *= 2;
    }
    FEngine.Pump();
  }
}

void TFolderWalk::ExamineFolderStart(std::uint32_t cluster, std::span<const std::uint8_t> bytes) {
  if (IsKnown(cluster) || !IsFolderStart(FDrive, bytes, 0, false)) return;
  const std::uint32_t own = IsFAT32(FDrive) ? EntryCluster(bytes, 0) : ReadLe16(bytes, 26);
  if (own != cluster || !MarkKnown(cluster)) return;
  if (!FreeOrBad(FDrive, cluster)) RememberLostFolder(cluster, bytes);
  const auto clusterBytes = static_cast<std::size_t>(ClusterBytes(FDrive));
  const bool searched = FSearching;
  FSearching = true;
  WalkFolder(cluster, bytes.size() < clusterBytes ? std::span<const std::uint8_t>() : bytes.first(clusterBytes));
  WalkWaiting(false);
  FSearching = searched;
}

void TFolderWalk::RememberLostFolder(std::uint32_t cluster, std::span<const std::uint8_t> bytes) {
  const auto parentEntry = bytes.subspan(EntrySize);
  const std::uint32_t parent = IsFAT32(FDrive) ? EntryCluster(parentEntry, 0) : ReadLe16(parentEntry, 26);
  const bool isRoot = parent == 0 || parent == FATInfo(FDrive).RootDirFirstCluster;
  if (!isRoot && (!IsInside(FDrive, parent) || parent == cluster)) return;
  FState->LostFolders.push_back({cluster, isRoot ? SpecialCluster::Root : std::int64_t{parent}, EntryTimes(bytes)});
}

/// Gives folders that are in use, but whose own entries could not be read, a number for a name in the
/// folder that their ".." entries point to.
void TFolderWalk::PlaceLostFolders(const TClusterSet& reached) {
  std::unordered_map<std::int64_t, std::int64_t> parents = FFolderParents;
  std::erase_if(FState->LostFolders, [&](const TLostFolder& f) { return FState->LiveFirst.Has(f.Cluster); });
  for (const TLostFolder& folder : FState->LostFolders) parents[folder.Cluster] = folder.Parent;
  for (const TLostFolder& folder : FState->LostFolders) {
    if (!LeadsToRoot(folder, reached, parents)) continue;
    TFiles::ClearInfo(FInfo, FDriveNumber);
    FInfo.FirstCluster = folder.Cluster;
    FInfo.FirstSector = ClusterSector(FDrive, folder.Cluster);
    FInfo.TimeStamp = folder.TimeStamp;
    const TString name = FEngine.Language().Format(TText::LostFolder, {NumberText(folder.Cluster)});
    FInfo.strName = name;
    FState->LiveFirst.Add(folder.Cluster);
    if (!FSink(FInfo, folder.Parent)) FStopped = true;
  }
  FState->LostFolders.clear();
}

/// Climbs from a folder to one that the walk had reached, or to one that will be put into lost and found.
/// False where the way leads back to where it was before; the folder then has no parent. A way that was
/// climbed is cut short for those that come after.
bool TFolderWalk::LeadsToRoot(const TLostFolder& folder, const TClusterSet& reached,
                              std::unordered_map<std::int64_t, std::int64_t>& parents) const {
  std::unordered_set<std::int64_t> met;
  std::int64_t at = folder.Cluster;
  while (at != SpecialCluster::Root && !reached.Has(at)) {
    const auto parent = parents.find(at);
    if (parent == parents.end()) break;
    if (!met.insert(at).second) {
      parents.erase(folder.Cluster);
      return false;
    }
    at = parent->second;
  }
  for (const std::int64_t cluster : met) parents[cluster] = SpecialCluster::Root;
  return true;
}

void TFolderWalk::ExamineCluster(std::uint32_t cluster, std::span<const std::uint8_t> bytes) {
  if (IsKnown(cluster)) return;
  const auto sectorSize = static_cast<std::size_t>(FDrive.BytesPerSector);
  const bool isOrphan = IsOrphan(cluster);
  const bool inUse = IsLastOfChain(cluster);
  if (isOrphan || !inUse) {
    ExamineFolderStart(cluster, bytes);
    if (IsKnown(cluster) || isOrphan) return;
    // A folder that says to lie elsewhere.
    if (IsFolderStart(FDrive, bytes, 0, false)) return;
  }
  for (std::size_t at = inUse ? sectorSize : 0; at < bytes.size(); at += sectorSize) {
    if (!IsContinuation(bytes.subspan(at))) continue;
    if (at == 0) {
      WalkContinuation(cluster, bytes);
    } else {
      WalkRemains(cluster, bytes.subspan(at), static_cast<std::int64_t>(at / sectorSize));
    }
    return;
  }
}

/// The last sectors of a folder whose cluster was partly written over.
void TFolderWalk::WalkRemains(std::uint32_t cluster, std::span<const std::uint8_t> bytes, std::int64_t firstSector) {
  MarkKnown(cluster);
  FParser.ClearPieces();
  FParent = cluster;
  FLost = !IsUnknown(FDrive, cluster);
  WalkSectors({{bytes.begin(), bytes.end()}, {}}, false, ClusterSector(FDrive, cluster) + firstSector);
  WalkWaiting(false);
}

bool TFolderWalk::IsContinuation(std::span<const std::uint8_t> bytes) const {
  const auto sector = bytes.first(std::min<std::size_t>(bytes.size(), static_cast<std::size_t>(FDrive.BytesPerSector)));
  const std::int64_t room = ClusterRoom(FDrive);
  bool any = false;
  bool ended = false;
  for (std::size_t at = 0; at + EntrySize <= sector.size(); at += EntrySize) {
    const auto entry = sector.subspan(at, EntrySize);
    const bool zero = std::all_of(entry.begin(), entry.end(), [](std::uint8_t c) { return c == 0; });
    if (zero) {
      if (at == 0) return false;
      ended = true;
      continue;
    }
    if (ended || !IsPlausibleEntry(entry, room)) return false;
    any = any || entry[11] != AttrLongName;
  }
  return any;
}

/// The unfinished folder that the cluster goes on with, when the evidence names exactly one: it
/// lies right behind it, it completes a long name that was cut off there, or there is no other.
TUnfinished* TFolderWalk::OwnerOf(std::uint32_t cluster, std::span<const std::uint8_t> bytes) {
  const auto entry = bytes.first(EntrySize);
  const auto fits = [&](const TUnfinished& folder) {
    if (folder.Pieces) return FitsPieces(entry, folder.Pieces->PieceChecksum());
    return !IsMiddleOfLongName(entry);
  };
  TUnfinished* byName = nullptr;
  TUnfinished* only = nullptr;
  int named = 0;
  int possible = 0;
  for (TUnfinished& folder : FState->Unfinished) {
    if (folder.LastCluster >= cluster || !fits(folder)) continue;
    if (folder.LastCluster + 1 == cluster) return &folder;
    ++possible;
    only = &folder;
    if (folder.Pieces && entry[11] == AttrLongName) {
      ++named;
      byName = &folder;
    }
  }
  if (named == 1) return byName;
  return possible == 1 ? only : nullptr;
}

/// Each further cluster is compared with all of them: crafted volumes must not make that endless.
void TFolderWalk::AddUnfinished(TUnfinished folder) {
  constexpr std::size_t most = 4096;
  if (FState->Unfinished.size() >= most)
    FState->Unfinished.erase(FState->Unfinished.begin(), FState->Unfinished.begin() + most / 2);
  FState->Unfinished.push_back(std::move(folder));
}

void TFolderWalk::WalkContinuation(std::uint32_t cluster, std::span<const std::uint8_t> bytes) {
  MarkKnown(cluster);
  const std::int64_t named = ParentByChildren(FEngine, FDrive, bytes);
  TUnfinished* owner = OwnerOf(cluster, bytes);
  if (named != 0 && owner != nullptr && owner->Parent != named) owner = nullptr;
  FParser.ClearPieces();
  FParent = named != 0 ? named : std::int64_t{cluster};
  std::size_t index = FState->Unfinished.size();
  if (owner != nullptr) {
    FParent = owner->Parent;
    if (owner->Pieces) FParser = *owner->Pieces;
    index = static_cast<std::size_t>(owner - FState->Unfinished.data());
  }
  FLost = !IsUnknown(FDrive, cluster);
  const TStep step = WalkSectors({{bytes.begin(), bytes.end()}, {}}, false, ClusterSector(FDrive, cluster));
  const bool ended = step == TStep::FolderDone;
  std::optional<TEntryParser> pieces = FParser.HasPieces() ? std::optional(FParser) : std::nullopt;
  const std::int64_t parent = FParent;
  if (index < FState->Unfinished.size())
    FState->Unfinished.erase(FState->Unfinished.begin() + static_cast<std::ptrdiff_t>(index));
  if (!ended) AddUnfinished({parent, cluster, std::move(pieces)});
  WalkWaiting(false);
}

}  // namespace brenlow::fat
