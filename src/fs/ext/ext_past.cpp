// SPDX-License-Identifier: GPL-3.0-or-later
// What the journal adds: names that stood in old copies of folders, joined by inode number and time with the
// inodes of that time.
//
// Systems of today wipe an entry when they unlink it and an inode's list of blocks when they free it, but both stand
// in the journal as they were in earlier transactions, until the log comes round again.
#include <algorithm>
#include <unordered_map>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "fs/ext/ext_bitmaps.h"
#include "fs/ext/ext_superblock.h"
#include "fs/ext/ext_walk.h"
#include "table/files.h"

namespace brenlow::ext {
namespace {

constexpr std::size_t MostComparisons = 1 << 24;  // between runs of blocks of deleted files

bool TypesAgree(TFileType a, TFileType b) { return a == TFileType::ftUnknown || b == TFileType::ftUnknown || a == b; }

/// A run of blocks that a deleted file had, and when it was seen last.
struct TClaim {
  std::int64_t First = 0;
  std::int64_t End = 0;
  std::uint32_t Order = 0;
  std::size_t Life = 0;
};

}  // namespace

void TVolumeWalk::UseJournal() {
  TExtXJournal& journal = ExtXInfo(FDrive).Journal;
  if (!FHistory.Read(FReader, journal, [this] { return GoOn(); }) || FStopped) return;
  JudgeLives();
  NoteOldFolderBlocks();
  FindOverwritten();
  FindFoldersOfNames();
  MergeNames();
  NoteNewestNames();
  JoinNames();
  JoinDeletedRows();
  AddNamelessLives();
  for (const auto& [folder, above] : FHistory.FoldersAbove()) FLostParents.try_emplace(folder, above);
}

// ---- lives ----------------------------------------------------------------------------------

/// True when the volume has a file under that number now.
bool TVolumeWalk::IsInUse(std::uint32_t inode) {
  TInode now;
  return ParseInode(FReader.Inode(inode), FReader, TBlockList::Skip, now) && now.Links > 0 &&
         IsInodeUsed(FEngine, FDrive, inode);
}

/// Reads a state of an inode out of the journal, its blocks as of that time.
bool TVolumeWalk::ReadLife(const TInodeVersion& version, TBlockList blocks, TInode& inode) {
  TByteDynArray bytes;
  return ReadLoggedInode(FReader, version.Position, blocks, bytes, inode);
}

/// Which life of each inode is the one that goes on.
void TVolumeWalk::JudgeLives() {
  for (TFileLife& life : FHistory.Lives()) {
    if (!GoOn()) return;
    const TInodeVersion& last = FHistory.Versions()[life.FirstVersion + life.VersionCount - 1];
    if (life.Type == TFileType::ftDirectory) NoteFolderChecksums(life.Inode, last.Generation);
    TInode now;
    const bool there = ParseInode(FReader.Inode(life.Inode), FReader, TBlockList::Skip, now) && now.Links > 0;
    life.IsLive = there && now.Generation == last.Generation && now.Born == last.Born && now.Type == life.Type;
  }
}

/// Blocks of folders that are gone, by which further blocks of them are known.
void TVolumeWalk::NoteOldFolderBlocks() {
  std::vector<TFileLife>& lives = FHistory.Lives();
  for (std::size_t i = 0; i < lives.size() && GoOn(); ++i) {
    if (lives[i].Type != TFileType::ftDirectory || lives[i].IsLive) continue;
    const TInodeVersion* best = FHistory.BestOf(lives[i]);
    if (best == nullptr || !ReadLife(*best, TBlockList::Read, FInode)) continue;
    for (const TDataBlock& run : FInode.Blocks) {
      if (run.Start != 0)
        FFolderRuns.push_back({run.Start, run.Count, lives[i].Inode, static_cast<std::uint32_t>(i + 1)});
    }
  }
  std::stable_sort(FFolderRuns.begin(), FFolderRuns.end(),
                   [](const TFolderRun& a, const TFolderRun& b) { return a.First < b.First; });
}

/// Finds deleted files of whose blocks a later file, or the file system itself, has made use since.
void TVolumeWalk::FindOverwritten() {
  std::vector<TFileLife>& lives = FHistory.Lives();
  const TExtXJournal& journal = Info().Journal;
  FTakenLives.assign(lives.size(), false);
  std::vector<TClaim> claims;
  for (std::size_t i = 0; i < lives.size() && GoOn(); ++i) {
    const TInodeVersion* best = lives[i].IsLive ? nullptr : FHistory.BestOf(lives[i]);
    if (best == nullptr || !ReadLife(*best, TBlockList::Read, FInode)) continue;
    const std::uint32_t order = journal.Order(best->Sequence);
    for (const TDataBlock& run : FInode.Blocks) {
      if (run.Start == 0) continue;
      claims.push_back({run.Start, run.Start + run.Count, order, i});
      auto logged =
          std::lower_bound(journal.Logged.begin(), journal.Logged.end(), run.Start,
                           [](const TExtXLoggedBlock& copy, std::int64_t block) { return copy.Block < block; });
      for (; logged != journal.Logged.end() && logged->Block < run.Start + run.Count; ++logged) {
        if (lives[i].Type == TFileType::ftRegularFile && journal.Order(logged->Sequence) > order) FTakenLives[i] = true;
      }
    }
  }
  std::sort(claims.begin(), claims.end(), [](const TClaim& a, const TClaim& b) { return a.First < b.First; });
  std::vector<TClaim> open;
  std::size_t comparisons = 0;
  for (const TClaim& claim : claims) {
    std::erase_if(open, [&](const TClaim& other) { return other.End <= claim.First; });
    for (const TClaim& other : open) {
      if (other.Life == claim.Life) continue;
      FTakenLives[other.Order < claim.Order ? other.Life : claim.Life] = true;
    }
    open.push_back(claim);
    comparisons += open.size();
    // Crafted: nothing is certain.
    if (comparisons > MostComparisons) FTakenLives.assign(lives.size(), true);
    if (comparisons > MostComparisons || !GoOn()) return;
  }
}

/// Gives a row what a life had at its best; without a state that has content it is a name only.
void TVolumeWalk::FillFromLife(TFileLife& life, TFileInfo& info) {
  life.IsListed = true;
  const TInodeVersion* best = FHistory.BestOf(life);
  const TInodeVersion& version =
      best != nullptr ? *best : FHistory.Versions()[life.FirstVersion + life.VersionCount - 1];
  if (!ReadLife(version, TBlockList::Skip, FInode)) return;
  ApplyInode(FInode, info);
  info.blnDeleted = true;
  if (best == nullptr) info.aSize = 0;
  info.DefaultSize = info.aSize;
  if (info.blnFolder || best == nullptr) return;
  info.JournalPosition = best->Position;
  info.Place = FTakenLives[IndexOf(life)] ? TPlaceSource::Estimated : TPlaceSource::FromCopy;
}

// ---- names ----------------------------------------------------------------------------------

/// Whose block a name stood in, and when the block was written without it.
void TVolumeWalk::FindFoldersOfNames() {
  const TExtXJournal& journal = Info().Journal;
  for (TOldName& name : FHistory.Names()) {
    if (!GoOn()) return;
    const auto next = std::upper_bound(
        journal.Logged.begin(), journal.Logged.end(), name, [&](const TOldName& wanted, const TExtXLoggedBlock& copy) {
          return wanted.Block != copy.Block ? wanted.Block < copy.Block : wanted.Until < journal.Order(copy.Sequence);
        });
    if (next != journal.Logged.end() && next->Block == name.Block) name.GoneAt = journal.Order(next->Sequence);
    if (name.Folder != 0) continue;
    const auto seed = FFolderSeeds.find(name.Seed);
    if (name.Seed != 0 && seed != FFolderSeeds.end()) {
      name.Folder = seed->second;
      continue;
    }
    auto run = std::upper_bound(FFolderRuns.begin(), FFolderRuns.end(), name.Block,
                                [](std::int64_t block, const TFolderRun& r) { return block < r.First; });
    if (run == FFolderRuns.begin()) continue;
    --run;
    if (name.Block < run->First + run->Count) name.Folder = run->Inode;
  }
}

/// A name may have stood in several blocks of its folder.
void TVolumeWalk::MergeNames() {
  std::vector<TOldName>& names = FHistory.Names();
  std::unordered_map<std::uint64_t, std::size_t> known;
  std::vector<TOldName> merged;
  for (const TOldName& name : names) {
    std::uint64_t key = std::hash<TStringView>()(FHistory.NameOf(name));
    for (const std::uint64_t part :
         {std::uint64_t{name.Folder}, std::uint64_t{name.Inode}, std::uint64_t{name.Remnant}}) {
      key = (key ^ part) * 0x9E3779B97F4A7C15U;
      key ^= key >> 31;
    }
    const auto [place, isNew] = known.try_emplace(key, merged.size());
    if (isNew) {
      merged.push_back(name);
      continue;
    }
    TOldName& first = merged[place->second];
    first.From = std::min(first.From, name.From);
    if (name.Until >= first.Until) first.GoneAt = name.GoneAt;
    first.Until = std::max(first.Until, name.Until);
  }
  names = std::move(merged);
}

/// For each life the time at which its newest name appeared: older names that are gone by then were changed.
void TVolumeWalk::NoteNewestNames() {
  FLastNamed.assign(FHistory.Lives().size(), 0);
  for (const TOldName& name : FHistory.Names()) {
    if (name.Remnant) continue;
    for (TFileLife& life : FHistory.LivesOf(name.Inode)) {
      if (life.From > name.Until || name.From >= life.Until) continue;
      std::uint32_t& newest = FLastNamed[IndexOf(life)];
      newest = std::max(newest, name.From);
    }
  }
}

bool TVolumeWalk::IsRenamedAway(const TOldName& name, const TFileLife& life) {
  return name.GoneAt <= FLastNamed[IndexOf(life)];
}

/// The parent of what lay in a folder at a time: its number, or a key of its own when the number is another
/// folder's by now.
std::int64_t TVolumeWalk::FolderKeyAt(std::uint32_t folder, std::uint32_t order) {
  if (folder == 0) return SpecialCluster::LostAndFound;
  const auto lives = FHistory.LivesOf(folder);
  for (std::size_t i = 0; i < lives.size(); ++i) {
    const TFileLife& life = lives[i];
    if (life.Type != TFileType::ftDirectory || order < life.From || order >= life.Until || life.IsLive) continue;
    TInode now;
    const bool taken = ParseInode(FReader.Inode(folder), FReader, TBlockList::Skip, now) && now.Links > 0 &&
                       now.Type == TFileType::ftDirectory;
    const bool isLast = i + 1 == lives.size();
    return taken || !isLast ? folder | static_cast<std::int64_t>(i + 1) << 32 : KeyOf(folder);
  }
  return KeyOf(folder);
}

void TVolumeWalk::JoinNames() {
  for (const bool remnants : {false, true}) {
    for (const TOldName& name : FHistory.Names()) {
      if (!GoOn()) return;
      if (name.Remnant == remnants) JoinName(name);
    }
  }
}

/// The file that an unlinked entry meant: the last one of its number that was gone by then.
TFileLife* TVolumeWalk::LifeOfRemnant(const TOldName& name) {
  TFileLife* found = nullptr;
  for (TFileLife& life : FHistory.LivesOf(name.Inode)) {
    if (life.From <= name.Until && !life.IsLive && TypesAgree(name.FileType, life.Type)) found = &life;
  }
  return found != nullptr && !found->IsListed ? found : nullptr;
}

void TVolumeWalk::JoinName(const TOldName& name) {
  if (name.Inode <= Info().ReservedInodes || name.Inode > Info().TotalInodeCount) return;
  const std::int64_t parent = FolderKeyAt(name.Folder, name.Until);
  if (name.Remnant) {
    if (TFileLife* life = LifeOfRemnant(name)) EnterName(name, parent, life);
    return;
  }
  const auto lives = FHistory.LivesOf(name.Inode);
  if (lives.empty() && !IsInUse(name.Inode)) EnterName(name, parent, nullptr);
  for (TFileLife& life : lives) {
    const bool had = life.From <= name.Until && name.From < life.Until && TypesAgree(name.FileType, life.Type);
    if (had && !life.IsLive && !IsRenamedAway(name, life)) EnterName(name, parent, &life);
  }
}

/// A row of its own, or more for the row that an unlinked entry made already.
void TVolumeWalk::EnterName(const TOldName& name, std::int64_t parent, TFileLife* life) {
  TFiles::ClearInfo(FInfo, FDriveNumber);
  FInfo.blnDeleted = true;
  FInfo.blnFolder = (life != nullptr ? life->Type : name.FileType) == TFileType::ftDirectory;
  FInfo.FirstCluster = name.Inode;
  if (life != nullptr) FillFromLife(*life, FInfo);
  FInfo.strName = FHistory.NameOf(name);
  if (FInfo.blnFolder) {
    const std::int64_t key = FolderKeyAt(name.Inode, name.Until);
    FInfo.FirstCluster = key == SpecialCluster::Root ? name.Inode : key;
  }
  TFiles& files = FEngine.Files();
  const int known = files.GetAddedNumber(FInfo, parent);
  if (known >= 0) {
    TFileInfo& row = files.List[static_cast<std::size_t>(known)].FileInfo;
    if (row.blnDeleted && row.JournalPosition == 0) {
      const TStringView kept = row.strName;
      const std::int64_t sector = row.FirstSector;
      const std::int32_t offset = row.OffsetInSector;
      row = FInfo;
      row.strName = kept;
      row.FirstSector = sector;
      row.OffsetInSector = offset;
      return;
    }
    if (row.blnDeleted || life == nullptr || life->Type == TFileType::ftDirectory) return;
  }
  AddRow(FInfo, parent);
}

/// The life that a deleted row without content of its own may mean: the newest that no row tells of.
TFileLife* TVolumeWalk::LifeOfRow(const TFileInfo& row) {
  TFileLife* found = nullptr;
  for (TFileLife& life : FHistory.LivesOf(static_cast<std::uint32_t>(row.FirstCluster))) {
    const bool fits =
        !life.IsLive && (life.Type == TFileType::ftDirectory) == row.blnFolder && FHistory.BestOf(life) != nullptr;
    if (fits && (found == nullptr || found->IsListed || !life.IsListed)) found = &life;
  }
  return found != nullptr && !found->IsListed ? found : nullptr;
}

void TVolumeWalk::JoinDeletedRows() {
  for (const TDeletedRow& deleted : FDeletedRows) {
    if (!GoOn()) return;
    TFileInfo& row = FEngine.Files().List[static_cast<std::size_t>(deleted.FileNumber)].FileInfo;
    if (row.blnFolder || row.JournalPosition != 0 || deleted.Inode == 0) continue;
    if (row.aSize > 0 && row.Place != TPlaceSource::Estimated) continue;
    if (TFileLife* life = LifeOfRow(row)) FillFromLife(*life, row);
  }
}

void TVolumeWalk::AddNamelessLives() {
  for (TFileLife& life : FHistory.Lives()) {
    if (!GoOn()) return;
    const bool isFile =
        life.Type == TFileType::ftRegularFile && life.Inode > Info().ReservedInodes && life.Inode != Info().OrphanFile;
    const TInodeVersion* best = isFile && !life.IsLive && !life.IsListed ? FHistory.BestOf(life) : nullptr;
    if (best == nullptr || !ReadLife(*best, TBlockList::Read, FInode) || FInode.Blocks.empty()) continue;
    if ((FInode.Flags & InodeFlag::ExtendedAttributeValue) != 0) continue;
    const TString name = NamelessName(life.Inode, FInode);
    TFiles::ClearInfo(FInfo, FDriveNumber);
    FInfo.FirstCluster = life.Inode;
    FillFromLife(life, FInfo);
    FInfo.strName = name;
    AddRow(FInfo, SpecialCluster::LostAndFound);
  }
}

}  // namespace brenlow::ext
