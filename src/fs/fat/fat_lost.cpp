// SPDX-License-Identifier: GPL-3.0-or-later
// Folders that no entry leads to any more: after a quick format the old folders still lie in the
// data area, and a deleted folder of several clusters has lost the way from one to the next.
//
// A folder's first cluster names itself in its "." entry, so it is recognised with certainty. A
// further cluster has no mark of its own: it counts when its whole first sector holds nothing but
// sound entries, and it goes to a folder only on evidence; without, it stays in lost and found.
#include <algorithm>

#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "fs/fat/fat_layout.h"
#include "fs/fat/fat_walk.h"

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

}  // namespace

/// Free clusters far behind everything that any entry points to were hardly ever used.
std::int64_t TFolderWalk::LastSearchedCluster() const {
  return std::min(ClusterRoom(FDrive) + 1, std::int64_t{FHighestCluster} + BeyondLastFile / ClusterBytes(FDrive));
}

/// A volume may claim more than its source holds.
std::int64_t TFolderWalk::LastReadableCluster() const {
  const std::int64_t sectors =
      FEngine.Reader().DeviceSectors(FDrive) - FDrive.FirstSector - FDrive.FATInfo.DataFirstSector;
  return sectors <= 0 ? 0 : sectors / FDrive.FATInfo.SectorsPerCluster + 2;
}

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
  const TLongWordDynArray& table = FDrive.FATInfo.FATTable;
  if (FDrive.FATInfo.SectorsPerCluster < 2 || cluster >= static_cast<std::int64_t>(table.size())) return false;
  return table[static_cast<std::size_t>(cluster)] > BadMark(FDrive) && !IsKnown(static_cast<std::uint32_t>(cluster));
}

void TFolderWalk::FindLostFolders(bool wholeVolume, bool inSlack) {
  FLost = true;
  const std::int64_t first = 2;
  const std::int64_t last =
      std::min(wholeVolume ? ClusterRoom(FDrive) + 1 : LastSearchedCluster(), LastReadableCluster());
  const auto most = static_cast<std::uint32_t>(std::max<std::int64_t>(ScanReadSize / ClusterBytes(FDrive), 1));
  const bool noTable = FDrive.FATInfo.FATTable.empty();
  const auto isWanted = [&](std::int64_t cluster) {
    return noTable || FreeOrBad(FDrive, cluster) || (inSlack && IsLastOfChain(cluster));
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
    FEngine.AnalyseProgress(static_cast<double>(cluster - first) / static_cast<double>(last - first + 1));
    FEngine.Pump();
    if (!FEngine.Analysing) FStopped = true;
  }
}

void TFolderWalk::ScanRun(std::uint32_t first, std::uint32_t count, TByteDynArray& bytes) {
  const auto clusterBytes = static_cast<std::size_t>(ClusterBytes(FDrive));
  const int perCluster = FDrive.FATInfo.SectorsPerCluster;
  const std::int64_t sector = FDrive.FirstSector + ClusterSector(FDrive, first);
  bytes.resize(count * clusterBytes);
  std::size_t got = FEngine.Reader().ReadDriveSectors(FDrive, bytes.data(), sector, std::int64_t{count} * perCluster);
  if (got < bytes.size()) {
    // Somewhere in the run a sector cannot be read: the rest of it may be sound.
    for (std::uint32_t i = static_cast<std::uint32_t>(got / clusterBytes); i < count && FEngine.Analysing; ++i) {
      std::uint8_t* place = bytes.data() + i * clusterBytes;
      const std::int64_t at = sector + std::int64_t{i} * perCluster;
      if (FEngine.Reader().ReadDriveSectors(FDrive, place, at, perCluster) == clusterBytes) {
        ExamineCluster(first + i, {place, clusterBytes});
      }
      FEngine.Pump();
    }
  }
  for (std::size_t at = 0; at + clusterBytes <= got && !FStopped; at += clusterBytes) {
    ExamineCluster(first + static_cast<std::uint32_t>(at / clusterBytes), {bytes.data() + at, clusterBytes});
  }
}

void TFolderWalk::ExamineCluster(std::uint32_t cluster, std::span<const std::uint8_t> bytes) {
  if (IsKnown(cluster)) return;
  const auto sectorSize = static_cast<std::size_t>(FDrive.BytesPerSector);
  const bool inUse = IsLastOfChain(cluster);
  if (!inUse && IsFolderStart(FDrive, bytes, 0, false)) {
    const std::uint32_t own = IsFAT32(FDrive) ? EntryCluster(bytes, 0) : ReadLe16(bytes, 26);
    if (own != cluster || !MarkKnown(cluster)) return;
    WalkFolder(cluster, bytes);
    WalkWaiting(false);
    return;
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
  WalkCluster(bytes, false, ClusterSector(FDrive, cluster) + firstSector);
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
TFolderWalk::TUnfinished* TFolderWalk::OwnerOf(std::uint32_t cluster, std::span<const std::uint8_t> bytes) {
  const auto entry = bytes.first(EntrySize);
  const auto fits = [&](const TUnfinished& folder) {
    if (folder.Pieces) return FitsPieces(entry, folder.Pieces->PieceChecksum());
    return !IsMiddleOfLongName(entry);
  };
  TUnfinished* byName = nullptr;
  TUnfinished* only = nullptr;
  int named = 0;
  int possible = 0;
  for (TUnfinished& folder : FUnfinished) {
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
  if (FUnfinished.size() >= most) FUnfinished.erase(FUnfinished.begin(), FUnfinished.begin() + most / 2);
  FUnfinished.push_back(std::move(folder));
}

void TFolderWalk::WalkContinuation(std::uint32_t cluster, std::span<const std::uint8_t> bytes) {
  MarkKnown(cluster);
  TUnfinished* owner = OwnerOf(cluster, bytes);
  FParser.ClearPieces();
  FParent = cluster;
  std::size_t index = FUnfinished.size();
  if (owner != nullptr) {
    FParent = owner->Parent;
    if (owner->Pieces) FParser = *owner->Pieces;
    index = static_cast<std::size_t>(owner - FUnfinished.data());
  }
  const TStep step = WalkCluster(bytes, false, ClusterSector(FDrive, cluster));
  const bool ended = step == TStep::FolderDone;
  std::optional<TEntryParser> pieces = FParser.HasPieces() ? std::optional(FParser) : std::nullopt;
  const std::int64_t parent = index < FUnfinished.size() ? FUnfinished[index].Parent : std::int64_t{cluster};
  if (index < FUnfinished.size()) FUnfinished.erase(FUnfinished.begin() + static_cast<std::ptrdiff_t>(index));
  if (!ended) AddUnfinished({parent, cluster, std::move(pieces)});
  WalkWaiting(false);
}

}  // namespace brenlow::fat
