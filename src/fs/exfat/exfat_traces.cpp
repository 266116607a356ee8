// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/exfat/exfat_traces.h"

#include <algorithm>
#include <set>
#include <unordered_map>
#include <utility>

#include "core/numbers.h"
#include "fs/exfat/exfat_entry.h"
#include "fs/exfat/exfat_layout.h"

namespace brenlow::exfat {
namespace {

// A crafted source must not make the notes endless.
constexpr std::size_t MostFolders = 65536;
constexpr std::size_t MostChildren = 16384;
constexpr std::size_t MostTables = 4096;
constexpr std::size_t MostRoots = 256;
constexpr std::size_t MostVotingFolders = 4096;
constexpr std::size_t MostVotingChildren = 64;
constexpr int LargestClusterSize = 65536;  // sectors
constexpr int EnoughAgreeing = 2;          // folders without a root and an up-case table

template <typename TValue>
void Keep(std::vector<TValue>& list, TValue value, std::size_t most) {
  if (list.size() < most) list.push_back(value);
}

/// Every n-th of a list, so that no more than `most` are left.
template <typename TValue>
std::vector<TValue> Sample(const std::vector<TValue>& list, std::size_t most) {
  const std::size_t step = list.size() / most + 1;
  std::vector<TValue> sample;
  for (std::size_t i = 0; i < list.size(); i += step) sample.push_back(list[i]);
  return sample;
}

}  // namespace

void TTraces::Clear() { *this = {}; }

void TTraces::Forget(const std::function<bool(std::int64_t sector)>& isExplained) {
  std::erase_if(FRoots, [&](const TRoot& root) { return isExplained(root.Sector); });
  std::erase_if(FFolders, isExplained);
  std::erase_if(FChildren, [&](const TChild& child) { return isExplained(child.Sector); });
}

void TTraces::Note(std::span<const std::uint8_t> bytes, std::int64_t sector, int bytesPerSector) {
  if (bytes.size() < static_cast<std::size_t>(bytesPerSector) || bytesPerSector < 512) return;
  FBytesPerSector = bytesPerSector;
  const auto own = bytes.first(static_cast<std::size_t>(bytesPerSector));
  switch (own[0]) {
    case 0xF8:
      if (ReadLe32(own, 0) == MediaEntry && ReadLe32(own, 4) == 0xFFFFFFFF) Keep(FTables, sector, MostTables);
      return;
    case 0x00:  // units 0, 1, 2 and 3 stay as they are
      if (LoadLe64(own.data()) == 0x0003'0002'0001'0000) Keep(FUpCases, sector, MostTables);
      return;
    case FileEntry:
    case FileEntry & ~InUse:
    case StreamEntry:
    case StreamEntry & ~InUse:
    case NameEntry:
    case NameEntry & ~InUse:
      if (IsDirectorySector(own, UINT32_MAX)) NoteFolder(own, sector);
      return;
    default:
      if (IsRootForm(own)) NoteRoot(own, sector);
  }
}

void TTraces::NoteRoot(std::span<const std::uint8_t> bytes, std::int64_t sector) {
  TRoot root{sector, 0, 0, 0, 0};
  for (std::size_t at = 0; at + EntrySize <= bytes.size(); at += EntrySize) {
    const auto slot = bytes.subspan(at, EntrySize);
    if (slot[0] == BitmapEntry && root.BitmapCluster == 0) {
      root.BitmapCluster = ReadLe32(slot, FirstClusterAt);
      root.BitmapBytes = ReadLe64(slot, DataLengthAt);
    }
    if (slot[0] == UpCaseEntry) {
      root.UpCaseCluster = ReadLe32(slot, FirstClusterAt);
      root.UpCaseBytes = ReadLe64(slot, DataLengthAt);
    }
  }
  if (root.UpCaseCluster >= 2 && root.BitmapCluster >= 2) Keep(FRoots, root, MostRoots);
  NoteFolder(bytes, sector);
}

void TTraces::NoteFolder(std::span<const std::uint8_t> bytes, std::int64_t sector) {
  if (TypeOf(bytes) == FileEntry) Keep(FFolders, sector, MostFolders);
  for (std::size_t at = 0; at + 2 * EntrySize <= bytes.size(); at += EntrySize) {
    const auto file = bytes.subspan(at, EntrySize);
    const auto stream = bytes.subspan(at + EntrySize, EntrySize);
    const bool isFolder = TypeOf(file) == FileEntry && (ReadLe16(file, AttributesAt) & AttrFolder) != 0;
    const std::uint32_t cluster = ReadLe32(stream, FirstClusterAt);
    if (isFolder && TypeOf(stream) == StreamEntry && cluster >= 2)
      Keep(FChildren, TChild{sector, cluster}, MostChildren);
  }
}

/// The up-case table lies right before the root, as all who format write them: their distance is that of the table's
/// clusters.
bool TTraces::FromRoot(const TRoot& root, TGeometry& geometry) const {
  const auto after = std::lower_bound(FUpCases.begin(), FUpCases.end(), root.Sector);
  if (after == FUpCases.begin() || root.UpCaseBytes == 0 || root.UpCaseBytes > 2 * 65536) return false;
  const std::int64_t upCase = *std::prev(after);
  const auto tableSectors = CeilDiv(static_cast<std::int64_t>(root.UpCaseBytes), FBytesPerSector);
  for (std::int64_t size = 1; size <= LargestClusterSize; size *= 2) {
    if (CeilDiv(tableSectors, size) * size != root.Sector - upCase) continue;
    geometry.SectorsPerCluster = size;
    geometry.DataFirst = upCase - (std::int64_t{root.UpCaseCluster} - 2) * size;
    geometry.RootSector = root.Sector;
    geometry.MostClusters = static_cast<std::int64_t>(std::min<std::uint64_t>(root.BitmapBytes, INT32_MAX)) * 8;
    geometry.Agreeing = static_cast<int>(Agreeing(geometry).size());
    geometry.IsByUpCase = geometry.DataFirst >= 0;
    if (geometry.IsByUpCase) return true;
  }
  return false;
}

/// Sectors of the folders that lie where an entry says that a folder begins, ascending.
std::vector<std::int64_t> TTraces::Agreeing(const TGeometry& geometry) const {
  std::vector<std::int64_t> sectors;
  for (const TChild& child : FChildren) {
    const std::int64_t sector = geometry.DataFirst + (std::int64_t{child.Cluster} - 2) * geometry.SectorsPerCluster;
    const bool ownVolume = child.Sector >= geometry.DataFirst;
    if (ownVolume && std::binary_search(FFolders.begin(), FFolders.end(), sector)) sectors.push_back(sector);
  }
  std::sort(sectors.begin(), sectors.end());
  sectors.erase(std::unique(sectors.begin(), sectors.end()), sectors.end());
  return sectors;
}

/// Each folder and each entry of a folder are a start of the data for each cluster size: the true one is named most
/// often.
std::vector<TGeometry> TTraces::ByVote() const {
  const auto folders = Sample(FFolders, MostVotingFolders);
  const auto children = Sample(FChildren, MostVotingChildren);
  std::vector<TGeometry> found;
  for (std::int64_t size = 1; size <= LargestClusterSize; size *= 2) {
    std::unordered_map<std::int64_t, int> votes;
    for (const TChild& child : children) {
      for (const std::int64_t folder : folders) {
        const std::int64_t first = folder - (std::int64_t{child.Cluster} - 2) * size;
        if (first >= 0 && child.Sector >= first) ++votes[first];
      }
    }
    std::vector<std::pair<int, std::int64_t>> best;
    for (const auto& [first, count] : votes) {
      if (count >= EnoughAgreeing) best.push_back({count, first});
    }
    constexpr std::size_t most = 16;
    std::sort(best.rbegin(), best.rend());
    if (best.size() > most) best.resize(most);
    for (const auto& [count, first] : best) {
      TGeometry geometry;
      geometry.SectorsPerCluster = size;
      geometry.DataFirst = first;
      geometry.Agreeing = static_cast<int>(Agreeing(geometry).size());
      found.push_back(geometry);
    }
  }
  return found;
}

/// The first root that begins in a cluster, after bitmap and up-case table.
void TTraces::AddRoot(TGeometry& geometry) const {
  for (const TRoot& root : FRoots) {
    if (geometry.RootSector >= 0 || !geometry.HasClusterAt(root.Sector)) continue;
    if (geometry.ClusterAt(root.Sector) <= root.UpCaseCluster) continue;
    geometry.RootSector = root.Sector;
    geometry.MostClusters = static_cast<std::int64_t>(std::min<std::uint64_t>(root.BitmapBytes, INT32_MAX)) * 8;
  }
}

/// The last table before the data.
void TTraces::AddTable(TGeometry& geometry) const {
  const auto after = std::lower_bound(FTables.begin(), FTables.end(), geometry.DataFirst);
  if (after != FTables.begin()) geometry.TableFirst = *std::prev(after);
}

std::vector<TGeometry> TTraces::Volumes() const {
  std::vector<TGeometry> candidates;
  for (const TRoot& root : FRoots) {
    TGeometry geometry;
    if (FromRoot(root, geometry)) candidates.push_back(geometry);
  }
  const auto bySureness = [](const TGeometry& a, const TGeometry& b) { return a.Agreeing > b.Agreeing; };
  std::stable_sort(candidates.begin(), candidates.end(), bySureness);
  std::vector<TGeometry> voted = ByVote();
  std::stable_sort(voted.begin(), voted.end(), bySureness);
  candidates.insert(candidates.end(), voted.begin(), voted.end());

  // A folder belongs to one volume: what those before have explained speaks for no other.
  std::vector<TGeometry> volumes;
  std::set<std::int64_t> explained;
  for (TGeometry& geometry : candidates) {
    const bool known = std::any_of(volumes.begin(), volumes.end(), [&](const TGeometry& other) {
      return geometry.DataFirst == other.DataFirst && geometry.SectorsPerCluster == other.SectorsPerCluster;
    });
    std::vector<std::int64_t> folders = Agreeing(geometry);
    std::erase_if(folders, [&](std::int64_t sector) { return explained.contains(sector); });
    geometry.Agreeing = static_cast<int>(folders.size());
    if (known || (geometry.RootSector < 0 && geometry.Agreeing < EnoughAgreeing)) continue;
    explained.insert(folders.begin(), folders.end());
    AddRoot(geometry);
    AddTable(geometry);
    volumes.push_back(geometry);
  }
  return volumes;
}

}  // namespace brenlow::exfat
