// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ntfs/ntfs_traces.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <tuple>

#include "core/numbers.h"

namespace brenlow::ntfs {
namespace {

constexpr std::size_t MostNoted = 1 << 18;    // folders and index blocks
constexpr std::size_t MostOfOneNumber = 256;  // of each kind: few volumes share a drive
constexpr std::size_t MostRuns = 16;          // of a folder's index
constexpr std::size_t MostRecordRuns = 1 << 20;
constexpr std::size_t MostBoots = 1024;
constexpr std::size_t MostPairs = 1 << 15;  // of a folder and a block of its index
constexpr std::size_t MostVolumes = 64;
constexpr int LargestPower = 12;  // of sectors in a cluster: 2 MiB with 512-byte sectors
constexpr std::int64_t BadClustersRecord = 8;
constexpr int UsualRecordSize = 1024;     // bytes
constexpr std::int64_t UsualGrid = 2048;  // sectors on which volumes begin

std::uint64_t HashOf(std::int64_t number) {
  std::uint64_t hash = static_cast<std::uint64_t>(number) * 0x9E3779B97F4A7C15U;
  return hash ^ (hash >> 32);
}

bool Same(const TGeometry& a, std::int64_t firstSector, int sectorsPerCluster) {
  return a.FirstSector == firstSector && a.SectorsPerCluster == sectorsPerCluster;
}

/// True inside a volume whose length is known, but not at its start.
bool IsInside(const TGeometry& volume, std::int64_t sector) {
  return sector > volume.FirstSector && sector < volume.FirstSector + volume.SectorsCount;
}

template <typename TVolumes>
bool IsInsideAny(const TVolumes& volumes, std::int64_t sector) {
  return std::any_of(volumes.begin(), volumes.end(), [&](const TGeometry& v) { return IsInside(v, sector); });
}

}  // namespace

int StatedRecordSize(std::span<const std::uint8_t> record) {
  const std::uint32_t size = ReadLe32(record, 0x1C);
  return size == 1024 || size == 2048 || size == 4096 ? static_cast<int>(size) : 0;
}

// ---- what the sectors tell ------------------------------------------------------------------

void TSearchTraces::NoteSector(std::span<const std::uint8_t> bytes, std::int64_t sector, int sectorSize) {
  if (bytes.size() < 512) return;
  if (IsMFT(bytes, 0)) {
    NoteRecord(bytes, sector, sectorSize);
  } else if (std::memcmp(bytes.data(), "INDX", 4) == 0) {
    NoteIndexBlock(bytes, sector);
  } else if (bytes[0x1FE] == 0x55 && bytes[0x1FF] == 0xAA && std::memcmp(bytes.data() + 3, "NTFS    ", 8) == 0) {
    NoteBoot(bytes, sector, sectorSize);
  }
}

void TSearchTraces::NoteRecord(std::span<const std::uint8_t> bytes, std::int64_t sector, int sectorSize) {
  if (FRecordSize == 0) {
    FRecordSize = StatedRecordSize(bytes);
    FRecordSectors = std::max((FRecordSize > 0 ? FRecordSize : UsualRecordSize) / sectorSize, 1);
  }
  // Records 16 to 23 are laid out with the number 0, and not in use.
  const bool inUse = (ReadLe16(bytes, 0x16) & 1) != 0;
  const std::int64_t own = OwnNumber(bytes);
  const std::int64_t number = own == 0 && !inUse ? -1 : own;
  if (number >= 0) {
    TRecordRun* last = FRecords.empty() ? nullptr : &FRecords.back();
    const bool goesOn = last != nullptr && last->FirstNumber + last->Count == number &&
                        last->FirstSector + last->Count * FRecordSectors == sector;
    if (goesOn) {
      ++last->Count;
    } else if (FRecords.size() < MostRecordRuns) {
      FRecords.push_back({number, sector, 1});
    }
  }
  constexpr unsigned folderFlag = 2;
  const bool isBase = ReadLe64(bytes, 0x20) == 0;
  const bool isFolder = (ReadLe16(bytes, 0x16) & folderFlag) != 0;
  const bool isSystem = number == 0 || number == BadClustersRecord;
  if (!isBase || (!isFolder && !isSystem)) return;
  const std::size_t size =
      std::min(bytes.size(), static_cast<std::size_t>(FRecordSize > 0 ? FRecordSize : UsualRecordSize));
  TByteDynArray record(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
  ApplyFixups(record);
  if (isFolder) {
    NoteFolder(record, number, sector);
    return;
  }
  for (TAttributeWalk walk(record); walk.Next();) {
    const bool isBad = number == BadClustersRecord && walk->Type() == AttrData && walk->Name() == u"$Bad";
    if (!isBad || walk->FirstVcn() != 0 || FSizes.size() >= MostBoots) continue;
    const std::int64_t last = walk->LastVcn();
    if (walk->NonResident() && last > 0 && last < MostClusters) FSizes.push_back({sector, last + 1});
  }
}

void TSearchTraces::NoteFolder(std::span<const std::uint8_t> record, std::int64_t number, std::int64_t sector) {
  std::int64_t blockSize = 0;
  for (TAttributeWalk walk(record); walk.Next();) {
    if (walk->Type() == AttrIndexRoot && ReadLe32(walk->Value(), 0) == AttrFileName) {
      blockSize = ReadLe32(walk->Value(), 8);
    }
    if (walk->Type() != AttrIndexAllocation || walk->Name() != u"$I30" || walk->FirstVcn() != 0) continue;
    TRuns runs = walk->Runs(MostClusters);
    std::erase_if(runs, [](const TRun& run) { return run.Lcn <= 0; });
    if (runs.empty() || blockSize < 512 || blockSize > LargestCluster) return;
    if (FAnyIndexCluster < 0) FAnyIndexCluster = runs.front().Lcn;
    TByNumber* entry = Entry(number);
    if (entry == nullptr || entry->Folders.size() >= MostOfOneNumber) return;
    // A copy: the runs that were left out would keep their memory.
    const auto kept = static_cast<std::ptrdiff_t>(std::min(runs.size(), MostRuns));
    entry->Folders.push_back({sector, blockSize, TRuns(runs.begin(), runs.begin() + kept)});
    ++FNoted;
    return;
  }
}

void TSearchTraces::NoteIndexBlock(std::span<const std::uint8_t> bytes, std::int64_t sector) {
  constexpr std::size_t header = 0x18;
  constexpr std::size_t nameOf = 0x50;  // length of the name, within an entry
  const std::size_t entry = header + ReadLe32(bytes, header);
  const auto vcn = static_cast<std::int64_t>(ReadLe64(bytes, 0x10));
  if (entry > 512 || vcn < 0 || vcn > MostClusters) return;
  // The key of a folder's index is a $FILE_NAME, which begins with the folder's own reference.
  const std::size_t key = ReadLe16(bytes, entry + 0x0A);
  if (entry + nameOf >= bytes.size() || key != 0x42 + 2 * std::size_t{bytes[entry + nameOf]}) return;
  const std::int64_t parent = ReadReference(bytes, entry + 0x10);
  TByNumber* found = Entry(parent);
  if (found == nullptr || found->Blocks.size() >= MostOfOneNumber) return;
  found->Blocks.push_back({sector, vcn});
  ++FNoted;
}

void TSearchTraces::NoteBoot(std::span<const std::uint8_t> bytes, std::int64_t sector, int sectorSize) {
  const std::uint64_t count = ReadLe64(bytes, 0x28);
  const std::uint64_t table = ReadLe64(bytes, 0x30);
  const unsigned byte = bytes[0x0D];
  const unsigned power = 256 - byte;
  if (byte == 0 || (byte > 0x80 && power > LargestPower)) return;
  const bool plausible = ReadLe16(bytes, 0x0B) == sectorSize && count > 0 && count < MostClusters && table > 0 &&
                         table < MostClusters && FBoots.size() < MostBoots;
  if (!plausible) return;
  const unsigned size = bytes[0x40];
  const int recordSize = size >= 0x80 && 256 - size <= 16 ? 1 << (256 - size) : 0;
  FBoots.push_back({sector, static_cast<std::int64_t>(count), byte <= 0x80 ? static_cast<int>(byte) : 1 << power,
                    static_cast<std::int64_t>(table), recordSize});
}

/// What is known of a record number; nullptr when there is no room for more. When much is known, only
/// a sample of the numbers is kept: the folders and the blocks of the same numbers.
TSearchTraces::TByNumber* TSearchTraces::Entry(std::int64_t number) {
  if (number < 0 || (HashOf(number) & FSampleMask) != 0) return nullptr;
  if (FNoted >= MostNoted) {
    if (FSampleMask == UINT64_MAX) return nullptr;
    FSampleMask = FSampleMask * 2 + 1;
    std::erase_if(FByNumber, [&](const auto& entry) { return (HashOf(entry.first) & FSampleMask) != 0; });
    FNoted = 0;
    for (const auto& [_, entry] : FByNumber) FNoted += entry.Folders.size() + entry.Blocks.size();
    return Entry(number);
  }
  return &FByNumber[number];
}

// ---- start and cluster size -----------------------------------------------------------------

/// For each folder and each block of an index that names it, the geometries under which the block
/// lies where the folder has it.
std::vector<TSearchTraces::TVote> TSearchTraces::CastVotes(std::int64_t firstSector, int sectorSize) const {
  std::vector<TVote> votes;
  std::size_t pairs = 0;
  const auto cast = [&](std::int64_t number, const TFolder& folder, const TIndexBlock& block) {
    const std::size_t before = votes.size();
    std::int64_t lcn = 0;
    int fits = 0;
    for (int power = 0; power <= LargestPower; ++power) {
      const std::int64_t perCluster = std::int64_t{1} << power;
      const std::int64_t clusterBytes = perCluster * sectorSize;
      // Blocks are counted in clusters, or in units of 512 bytes where they are smaller than those.
      const std::int64_t byte = block.Vcn * (clusterBytes <= folder.BlockSize ? clusterBytes : 512);
      if (byte % folder.BlockSize != 0) continue;
      const std::int64_t vcn = byte / clusterBytes;
      const auto run = std::find_if(folder.Runs.begin(), folder.Runs.end(),
                                    [&](const TRun& r) { return vcn >= r.Vcn && vcn < r.Vcn + r.Count; });
      if (run == folder.Runs.end()) continue;
      ++fits;
      lcn = run->Lcn;
      const std::int64_t start =
          block.Sector - (run->Lcn + vcn - run->Vcn) * perCluster - byte % clusterBytes / sectorSize;
      // Records lie in the volume, on a grid of their size.
      const std::int64_t distance = folder.Sector - start;
      if (start < firstSector || distance <= 0) continue;
      if (perCluster >= FRecordSectors && distance % FRecordSectors != 0) continue;
      votes.push_back({start, static_cast<int>(perCluster), block.Sector, number, folder.Sector});
    }
    // What fits several cluster sizes says no more than the other blocks of the run that do so.
    for (std::size_t i = before; i < votes.size() && fits > 1; ++i) votes[i].Trace = -lcn;
  };
  for (const auto& [number, entry] : FByNumber) {
    for (const TFolder& folder : entry.Folders) {
      for (const TIndexBlock& block : entry.Blocks) {
        if (++pairs > MostPairs) return votes;
        cast(number, folder, block);
      }
    }
  }
  return votes;
}

std::vector<TGeometry> TSearchTraces::Volumes(std::span<const TGeometry> known, std::int64_t firstSector,
                                              int sectorSize) const {
  std::vector<TGeometry> volumes;
  AddByVotes(volumes, known, firstSector, sectorSize);
  AddBoots(volumes, known, firstSector);
  for (TGeometry& volume : volumes) SetSize(volume);
  std::stable_sort(volumes.begin(), volumes.end(),
                   [](const TGeometry& a, const TGeometry& b) { return a.Votes > b.Votes; });
  return volumes;
}

/// Volume by volume: the geometry with the most votes takes its folders along, so that old copies of
/// index blocks do not speak for volumes that never were.
void TSearchTraces::AddByVotes(std::vector<TGeometry>& volumes, std::span<const TGeometry> known,
                               std::int64_t firstSector, int sectorSize) const {
  constexpr int smallestShare = 16;
  std::vector<TVote> votes = CastVotes(firstSector, sectorSize);
  const auto order = [](const TVote& v) { return std::tuple(v.FirstSector, v.SectorsPerCluster, v.Trace); };
  std::sort(votes.begin(), votes.end(), [&](const TVote& a, const TVote& b) { return order(a) < order(b); });
  const auto take = [&](const TGeometry& volume) {
    // Of several folders with a number, that of the volume is the first one in it.
    std::map<std::int64_t, std::int64_t> folders;
    for (const TVote& vote : votes) {
      if (!Same(volume, vote.FirstSector, vote.SectorsPerCluster)) continue;
      const auto at = folders.try_emplace(vote.Number, vote.Folder).first;
      at->second = std::min(at->second, vote.Folder);
    }
    std::erase_if(votes, [&](const TVote& vote) {
      const auto at = folders.find(vote.Number);
      return Same(volume, vote.FirstSector, vote.SectorsPerCluster) ||
             (at != folders.end() && at->second == vote.Folder);
    });
  };
  for (const TGeometry& volume : known) take(volume);
  int most = 0;
  for (std::size_t tried = 0; tried < MostVolumes; ++tried) {
    TGeometry best = MostVoted(votes, firstSector);
    if (best.Votes == 0) return;
    SetSize(best);
    most = std::max(most, best.Votes);
    const bool isPart = IsInsideAny(known, best.FirstSector) || IsInsideAny(volumes, best.FirstSector);
    const bool enough = best.Votes >= 2 && best.Votes * smallestShare >= most;
    if (!enough && (isPart || !volumes.empty() || !known.empty())) return;
    if (!isPart) volumes.push_back(best);
    if (!enough) return;
    take(best);
  }
}

/// `votes` in order. Of volumes with the same number of votes the last one is sure of its folders; of
/// geometries with a single one, the start of the drive is the likeliest, then a usual place, then the
/// usual cluster size.
TGeometry TSearchTraces::MostVoted(const std::vector<TVote>& votes, std::int64_t firstSector) {
  TGeometry best;
  const auto merit = [&](const TGeometry& g) {
    return std::tuple(g.Votes, g.Votes > 1 ? g.FirstSector : 0, g.FirstSector == firstSector,
                      g.FirstSector % UsualGrid == 0, g.SectorsPerCluster >= 8, -g.SectorsPerCluster);
  };
  for (std::size_t i = 0; i < votes.size();) {
    TGeometry one{votes[i].FirstSector, votes[i].SectorsPerCluster, 0, 0, 0};
    for (; i < votes.size() && Same(one, votes[i].FirstSector, votes[i].SectorsPerCluster); ++i) {
      const bool counted = one.Votes > 0 && votes[i].Trace == votes[i - 1].Trace;
      if (!counted) ++one.Votes;
    }
    if (merit(one) > merit(best)) best = one;
  }
  return best;
}

/// Boot sectors back up what the votes say, and stand for a volume of their own where a record lies in
/// the table that they point to.
void TSearchTraces::AddBoots(std::vector<TGeometry>& volumes, std::span<const TGeometry> known,
                             std::int64_t firstSector) const {
  TInt64DynArray lines;
  for (const TRecordRun& run : FRecords) lines.push_back(LineOf(run));
  std::sort(lines.begin(), lines.end());
  const auto recordsAt = [&](std::int64_t table) {
    const auto [from, to] = std::equal_range(lines.begin(), lines.end(), table);
    return static_cast<int>(std::min<std::ptrdiff_t>(to - from, 1000));
  };
  for (const TBoot& boot : FBoots) {
    for (const std::int64_t start : {boot.Sector, boot.Sector - boot.SectorsCount}) {
      if (start < firstSector || IsInsideAny(known, start)) continue;
      const auto same = [&](const TGeometry& g) { return Same(g, start, boot.SectorsPerCluster); };
      if (std::any_of(known.begin(), known.end(), same)) continue;
      const int records = recordsAt(start + boot.MFTCluster * boot.SectorsPerCluster);
      auto volume = std::find_if(volumes.begin(), volumes.end(), same);
      if (volume == volumes.end() && (records == 0 || volumes.size() >= MostVolumes)) continue;
      if (volume == volumes.end()) {
        if (IsInsideAny(volumes, start)) continue;
        volume = volumes.insert(volumes.end(), {start, boot.SectorsPerCluster, 0, 0, 0});
      }
      volume->Votes += 1 + records;
      volume->MFTRecordSize = boot.RecordSize;
      // It may be from before the volume was made longer or shorter; else it knows the last few sectors.
      SetSize(*volume);
      const std::int64_t rest = boot.SectorsCount - volume->SectorsCount;
      const bool agrees = rest >= 0 && rest < boot.SectorsPerCluster;
      if (volume->SectorsCount == 0 || agrees) volume->SectorsCount = boot.SectorsCount;
    }
  }
}

void TSearchTraces::SetSize(TGeometry& volume) const {
  if (volume.SectorsCount > 0) return;
  for (const TSize& size : FSizes) {
    const std::int64_t sectors = size.Clusters * volume.SectorsPerCluster;
    if (size.Sector <= volume.FirstSector || size.Sector >= volume.FirstSector + sectors) continue;
    volume.SectorsCount = sectors;
    return;
  }
}

// ---- the table ------------------------------------------------------------------------------

std::vector<TMFTRun> TSearchTraces::Table(std::int64_t firstSector, std::int64_t end) const {
  std::vector<TRecordRun> pieces;
  for (const TRecordRun& run : FRecords) {
    const bool inside = run.FirstSector > firstSector && run.FirstSector + run.Count * FRecordSectors <= end;
    if (inside) pieces.push_back(run);
  }
  // Of two records with one number, the one in the table has more neighbours: pieces of a fragment of
  // the table, however many gaps it has, lie on one line.
  std::map<std::int64_t, std::int64_t> recordsOnLine;
  for (const TRecordRun& piece : pieces) recordsOnLine[LineOf(piece)] += piece.Count;
  std::stable_sort(pieces.begin(), pieces.end(), [&](const TRecordRun& a, const TRecordRun& b) {
    return recordsOnLine[LineOf(a)] > recordsOnLine[LineOf(b)];
  });
  std::map<std::int64_t, TMFTRun> table;
  for (const TRecordRun& piece : pieces) {
    const auto after = table.lower_bound(piece.FirstNumber);
    const bool meetsNext = after != table.end() && after->first < piece.FirstNumber + piece.Count;
    const TMFTRun* before = after == table.begin() ? nullptr : &std::prev(after)->second;
    const bool meetsLast = before != nullptr && before->FirstNumber + before->Count > piece.FirstNumber;
    if (meetsNext || meetsLast) continue;
    table[piece.FirstNumber] = {piece.FirstNumber, piece.Count, piece.FirstSector - firstSector, 0, 0};
  }
  std::vector<TMFTRun> runs;
  runs.reserve(table.size());
  for (const auto& [_, run] : table) runs.push_back(run);
  return runs;
}

TInt64DynArray TSearchTraces::TableStarts(std::int64_t firstSector, std::int64_t end) const {
  TInt64DynArray sectors;
  for (const TRecordRun& run : FRecords) {
    if (run.FirstNumber == 0 && run.FirstSector > firstSector && run.FirstSector < end) {
      sectors.push_back(run.FirstSector);
    }
  }
  return sectors;
}

}  // namespace brenlow::ntfs
