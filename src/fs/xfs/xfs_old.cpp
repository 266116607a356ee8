// SPDX-License-Identifier: GPL-3.0-or-later
// How XFS deletes: the inode loses its name, then its size and extents, then its mode. On the disk, the records of
// the extents stay in the fork of the free inode until it is used again; where a whole chunk of inodes became free
// its blocks are given back as they are. The log has the inode before that, with its size.
#include "fs/xfs/xfs_old.h"

#include <algorithm>
#include <functional>
#include <map>

#include "core/engine.h"
#include "core/language.h"
#include "core/text.h"
#include "table/files.h"

namespace brenlow::xfs {
namespace {

constexpr std::int64_t OtherKeys = std::int64_t{1} << 60;  // above the numbers of inodes

std::size_t ForkStart(TBytes inode) { return inode.size() > 4 && inode[4] == 3 ? 176 : 100; }

bool IsListed(TFileType type) {
  return type == TFileType::ftRegularFile || type == TFileType::ftDirectory || type == TFileType::ftSymbolicLink;
}

}  // namespace

// ---- what is met ----------------------------------------------------------------------------

bool TOldFiles::IsPlausibleDirectory(TBytes fork) const {
  if (fork.size() < 6 || fork[0] == 0) return false;
  std::int64_t parent = NoInode;
  std::int64_t size = 0;
  bool sound = true;
  const bool parsed = WalkShortDirectory(FInfo, fork, parent, size, [&](const TFileEntry& entry) {
    sound = sound && entry.Inode > 0 && InodePlace(FInfo, entry.Inode) >= 0;
    return sound;
  });
  return parsed && sound && parent > 0;
}

void TOldFiles::NoteInode(std::int64_t inode, std::int64_t place, TBytes bytes, const TInodeCore& core) {
  if (inode == FInfo.RootInode) return;
  TOld old;
  old.Inode = inode;
  old.Place = place;
  old.Generation = core.Generation;
  old.TimeStamp = {core.dtCreated, core.dtModified, core.dtAccessed, core.dtMetadataModified};
  if (core.Mode != 0) {
    if (!IsListed(core.FileType)) return;
    old.FileType = core.FileType;
    old.Size = core.Size;
    FOld.push_back(std::move(old));
    return;
  }
  old.Freed = true;
  old.Estimated = true;
  const TBytes fork = bytes.subspan(std::min(ForkStart(bytes), bytes.size()));
  if (IsPlausibleDirectory(fork)) {
    old.FileType = TFileType::ftDirectory;
    old.Extents = 0;
    NoteShortDirectory(inode, fork, 0);
  } else {
    old.Extents = static_cast<std::int32_t>(LeftoverExtents(FInfo, fork).size());
    if (old.Extents == 0) return;
  }
  FOld.push_back(std::move(old));
}

void TOldFiles::NoteBlock(TBytes block) {
  const TDirectoryBlock head = ReadDirectoryBlock(FInfo, block);
  if (head.Owner == NoInode || InodePlace(FInfo, head.Owner) < 0) return;
  WalkDirectoryBlock(FInfo, block, [&](const TFileEntry& entry) {
    NoteName(head.Owner, entry, 0);
    return true;
  });
}

void TOldFiles::NoteName(std::int64_t directory, const TFileEntry& entry, std::uint64_t position) {
  if (entry.Inode <= 0 || InodePlace(FInfo, entry.Inode) < 0 || InodePlace(FInfo, directory) < 0) return;
  if (FTexts.size() > UINT32_MAX - 256 || FNames.size() >= UINT32_MAX) return;
  const std::uint64_t hash = std::hash<std::string_view>()(entry.FileName) * 0x9E3779B97F4A7C15U ^
                             static_cast<std::uint64_t>(directory) * 0xC2B2AE3D27D4EB4FU ^
                             static_cast<std::uint64_t>(entry.Inode) * 0x165667B19E3779F9U;
  const auto [known, isNew] = FKnown.try_emplace(hash, static_cast<std::uint32_t>(FNames.size()));
  if (!isNew) {
    TName& name = FNames[known->second];
    if (position > 0) name.First = name.First == 0 ? position : std::min(name.First, position);
    name.Last = std::max(name.Last, position);
    return;
  }
  TName name;
  name.Directory = directory;
  name.Inode = entry.Inode;
  name.First = position;
  name.Last = position;
  name.Text = static_cast<std::uint32_t>(FTexts.size());
  name.Length = static_cast<std::uint8_t>(entry.FileName.size());
  name.FileType = entry.FileType;
  FTexts.append(entry.FileName);
  FNames.push_back(name);
}

void TOldFiles::NoteShortDirectory(std::int64_t inode, TBytes fork, std::uint64_t position) {
  std::int64_t parent = NoInode;
  std::int64_t size = 0;
  WalkShortDirectory(FInfo, fork, parent, size, [&](const TFileEntry& entry) {
    NoteName(inode, entry, position);
    return true;
  });
}

/// The names in an old directory whose content is not in the log.
void TOldFiles::NoteDirectory(const TOld& old) {
  const std::uint64_t position = old.Position == OnDisk ? 0 : old.Position;
  const TByteDynArray bytes = BytesOf(old);
  TInodeCore core;
  if (!ReadInodeCore(bytes, core)) return;
  if (core.Mode != 0 && core.DataForkFormat == XFS_DINODE_FMT_LOCAL) {
    if (IsPlausibleDirectory(DataFork(bytes))) NoteShortDirectory(old.Inode, DataFork(bytes), position);
    return;
  }
  bool own = false;
  FReader.WalkDirectoryBlocks(ExtentsOf(old), [&](std::int64_t, TBytes block) {
    // Only the first block names its directory before version 5.
    const TDirectoryBlock head = ReadDirectoryBlock(FInfo, block);
    own = head.HeaderSize > 0 && (head.Owner == old.Inode || (own && head.Owner == NoInode));
    if (!own) return FEngine.Analysing.load();
    WalkDirectoryBlock(FInfo, block, [&](const TFileEntry& entry) {
      NoteName(old.Inode, entry, position);
      return true;
    });
    FEngine.Pump();
    return FEngine.Analysing.load();
  });
}

// ---- the log --------------------------------------------------------------------------------

bool TOldFiles::GoOn(double position) {
  if (Progress) Progress(position);
  FEngine.Pump();
  return FEngine.Analysing;
}

void TOldFiles::Inode(TLoggedInode inode) {
  TInodeCore core;
  if (!ReadInodeCore(inode.Image, core)) return;
  core.InodeNumber = inode.Inode;
  const bool isDirectory = core.FileType == TFileType::ftDirectory;
  if (inode.HasFork && isDirectory && core.DataForkFormat == XFS_DINODE_FMT_LOCAL) {
    NoteShortDirectory(inode.Inode, DataFork(inode.Image), inode.Position);
  }
  auto [known, isNew] = FStates.try_emplace(inode.Inode);
  TState& state = known->second;
  if (core.Mode == 0 || (!isNew && state.Core.Generation != core.Generation)) {
    if (!isNew) Freeze(state);
    state = TState();
    isNew = true;
  }
  if (core.Mode == 0) {
    FStates.erase(known);
    return;
  }
  const TInodeCore& last = state.Core;
  if (!isNew && core.Links == 0 && (core.Size < last.Size || core.DataExtentCount < last.DataExtentCount)) {
    state.Last.Position = inode.Position;  // its content is being cut off: what is kept is the state before
    return;
  }
  const bool sameFork = core.DataForkFormat == last.DataForkFormat && core.DataExtentCount == last.DataExtentCount;
  if (!isNew && !inode.HasFork && state.Last.HasFork && sameFork) {
    const std::size_t start = ForkStart(inode.Image);
    std::copy(state.Last.Image.begin() + static_cast<std::ptrdiff_t>(start), state.Last.Image.end(),
              inode.Image.begin() + static_cast<std::ptrdiff_t>(start));
    inode.HasFork = true;
  }
  state.HadContent = state.HadContent || core.Links > 0 || core.Size > 0 || core.DataExtentCount > 0;
  state.Core = core;
  state.Last = std::move(inode);
}

/// A state that has come to its end becomes an old inode.
void TOldFiles::Freeze(TState& state) {
  if (!IsListed(state.Core.FileType) || !state.HadContent || state.Last.Inode == FInfo.RootInode) return;
  const TInodeCore& core = state.Core;
  TOld old;
  old.Inode = state.Last.Inode;
  old.Position = state.Last.Position;
  old.Generation = core.Generation;
  old.TimeStamp = {core.dtCreated, core.dtModified, core.dtAccessed, core.dtMetadataModified};
  old.FileType = core.FileType;
  old.Size = std::max<std::int64_t>(core.Size, 0);
  const bool needsFork = core.DataExtentCount > 0 || (core.DataForkFormat == XFS_DINODE_FMT_LOCAL && core.Size > 0);
  old.ForkMissing = needsFork && !state.Last.HasFork;
  old.Image = std::move(state.Last.Image);
  FOld.push_back(std::move(old));
}

/// What the log has of inodes that are in use by now as it says is nothing old.
void TOldFiles::FreezeRest() {
  for (auto& [inode, state] : FStates) {
    const TInodeRow* row = FInodes.Find(inode);
    if (row == nullptr || row->Generation != state.Core.Generation) Freeze(state);
  }
  FStates.clear();
}

/// Gives an inode of which the log has the core alone the fork that was left on the disk when it was freed.
void TOldFiles::TakeForkFromDisk(TOld& old) {
  TInodeCore core;
  TInodeCore onDisk;
  old.Estimated = true;
  if (!ReadInodeCore(old.Image, core) || FInodes.Find(old.Inode) != nullptr) return;
  const TByteDynArray bytes = FInodes.Read(old.Inode);
  if (!ReadInodeCore(bytes, onDisk) || bytes.size() != old.Image.size()) return;
  const bool follows = onDisk.Mode == 0 ? onDisk.Generation == old.Generation + 1 : onDisk.Generation == old.Generation;
  if (!follows || ForkStart(bytes) != ForkStart(old.Image)) return;
  const auto start = static_cast<std::ptrdiff_t>(ForkStart(bytes));
  const std::size_t room = DataFork(old.Image).size();
  if (core.DataForkFormat == XFS_DINODE_FMT_EXTENTS) {
    const TExtents extents = LeftoverExtents(FInfo, TBytes(bytes).subspan(static_cast<std::size_t>(start), room));
    if (extents.size() < core.DataExtentCount) return;
    std::int64_t blocks = 0;
    for (std::size_t i = 0; i < core.DataExtentCount; ++i) blocks += extents[i].Count;
    // As many blocks as the file had are its own, whatever followed them.
    old.Estimated = core.HasAttributes || blocks != core.DataForkCount;
  }
  std::copy_n(bytes.begin() + start, room, old.Image.begin() + start);
  old.ForkMissing = false;
}

void TOldFiles::Block(const TLoggedBlock& logged) {
  constexpr std::int64_t logSector = 512;
  const std::int64_t size = DirectoryBlockSize(FInfo);
  if (logged.Pieces.empty() || logged.Sector > FInfo.TotalBlockCount * FInfo.BlockSize / logSector) return;
  // A directory block in several pieces of the volume is logged as such; its first piece has the header.
  TByteDynArray block(static_cast<std::size_t>(std::max(size, logged.Size)));
  for (const TLoggedBlock::TPiece& piece : logged.Pieces) {
    std::copy(piece.Bytes.begin(), piece.Bytes.end(), block.begin() + static_cast<std::ptrdiff_t>(piece.At));
  }
  const bool headLogged = logged.Pieces.front().At == 0;
  if (headLogged && ReadDirectoryBlock(FInfo, block).HeaderSize == 0) {
    FDirectoryOfBlock.erase(logged.Sector);
    return;
  }
  std::int64_t directory = headLogged ? ReadDirectoryBlock(FInfo, block).Owner : NoInode;
  const auto known = FDirectoryOfBlock.find(logged.Sector);
  if (directory == NoInode && known != FDirectoryOfBlock.end()) directory = known->second;
  if (directory == NoInode) {
    TByteDynArray head(FInfo.BlockSize);
    if (!FReader.Read(logged.Sector * logSector, head)) return;
    directory = ReadDirectoryBlock(FInfo, head).Owner;
  }
  if (directory == NoInode) return;
  FDirectoryOfBlock[logged.Sector] = directory;
  WalkDirectoryPieces(FInfo, block, [&](const TFileEntry& entry) {
    NoteName(directory, entry, logged.Position);
    return true;
  });
}

// ---- what belongs together ------------------------------------------------------------------

/// An inode that the log has as it was need not be taken from the disk.
void TOldFiles::DropDoubles() {
  const auto before = [](const TOld& a, const TOld& b) {
    return a.Inode != b.Inode ? a.Inode < b.Inode : a.Position < b.Position;
  };
  std::stable_sort(FOld.begin(), FOld.end(), before);
  std::vector<TOld> kept;
  kept.reserve(FOld.size());
  for (TOld& old : FOld) {
    bool doubled = false;
    for (std::size_t i = kept.size(); i-- > 0 && kept[i].Inode == old.Inode && old.Position == OnDisk;) {
      const std::uint32_t then = kept[i].Generation + (old.Freed ? 1 : 0);
      doubled = doubled || then == old.Generation || kept[i].Position == OnDisk;
    }
    if (!doubled) kept.push_back(std::move(old));
  }
  FOld = std::move(kept);
}

/// Children name their folder by the number of its inode, unless that is in use for something else by now.
void TOldFiles::SetKeys() {
  for (std::size_t i = 0; i < FOld.size(); ++i) {
    const bool last = i + 1 == FOld.size() || FOld[i + 1].Inode != FOld[i].Inode;
    const bool own = last && FInodes.Find(FOld[i].Inode) == nullptr;
    FOld[i].Key = own ? FOld[i].Inode : OtherKeys + static_cast<std::int64_t>(i);
  }
}

/// Indexes of the old states of an inode, from the first to before the second.
std::pair<std::size_t, std::size_t> TOldFiles::OldOf(std::int64_t inode) const {
  const auto first = std::lower_bound(FOld.begin(), FOld.end(), inode,
                                      [](const TOld& old, std::int64_t number) { return old.Inode < number; });
  auto end = first;
  while (end != FOld.end() && end->Inode == inode) ++end;
  return {static_cast<std::size_t>(first - FOld.begin()), static_cast<std::size_t>(end - FOld.begin())};
}

/// The newest name that the log has from the time of this state (old names stay in the room of directories, and
/// come up again); else, for the last state, one without a time.
std::size_t TOldFiles::BestName(const TOld& old, std::uint64_t after, bool last) const {
  constexpr int mostNames = 256;  // of one inode
  std::size_t best = NoName;
  int looks = 0;
  auto name = std::lower_bound(FNames.begin(), FNames.end(), old.Inode,
                               [](const TName& n, std::int64_t number) { return n.Inode < number; });
  for (; name != FNames.end() && name->Inode == old.Inode && looks++ < mostNames; ++name) {
    const bool fits = name->FileType == TFileType::ftUnknown || name->FileType == old.FileType ||
                      (old.FileType == TFileType::ftUnknown && name->FileType == TFileType::ftRegularFile);
    const bool inTime = name->Last > after && name->First > 0 && name->First <= old.Position;
    if (!fits || (!inTime && !(last && name->First == 0))) continue;
    const auto index = static_cast<std::size_t>(name - FNames.begin());
    if (best == NoName || name->First > FNames[best].First) best = index;
  }
  return best;
}

void TOldFiles::MatchNames() {
  std::stable_sort(FNames.begin(), FNames.end(), [](const TName& a, const TName& b) { return a.Inode < b.Inode; });
  FKnown.clear();
  FNameOf.assign(FOld.size(), NoName);
  for (std::size_t i = 0; i < FOld.size(); ++i) {
    const bool first = i == 0 || FOld[i - 1].Inode != FOld[i].Inode;
    const bool last = i + 1 == FOld.size() || FOld[i + 1].Inode != FOld[i].Inode;
    FNameOf[i] = BestName(FOld[i], first ? 0 : FOld[i - 1].Position, last && FInodes.Find(FOld[i].Inode) == nullptr);
    if (FNameOf[i] != NoName) FNames[FNameOf[i]].Used = true;
  }
}

/// By what a row names its folder.
std::int64_t TOldFiles::FolderKey(std::int64_t directory, std::uint64_t position) {
  if (directory == FInfo.RootInode) return SpecialCluster::Root;
  const TInodeRow* row = FInodes.Find(directory);
  const bool live = row != nullptr && row->FileType == TFileType::ftDirectory;
  const auto [first, end] = OldOf(directory);
  std::size_t best = NoName;
  for (std::size_t i = first; i < end; ++i) {
    if (FOld[i].FileType != TFileType::ftDirectory) continue;
    if (live && (position == 0 || FOld[i].Position < position)) continue;
    best = i;
    if (position > 0 && FOld[i].Position >= position) break;
  }
  if (best == NoName) return directory;
  FOld[best].HasChildren = true;
  return FOld[best].Key;
}

/// The folder that an old directory itself says that it lies in.
std::int64_t TOldFiles::ParentOf(const TOld& old) {
  const TByteDynArray bytes = BytesOf(old);
  std::int64_t parent = NoInode;
  std::int64_t size = 0;
  const auto ignore = [](const TFileEntry&) { return false; };
  const TBytes fork = TBytes(bytes).subspan(std::min(ForkStart(bytes), bytes.size()));
  const TExtents extents = ExtentsOf(old);
  if (!extents.empty()) {
    parent = ReadDirectoryBlock(FInfo, FReader.Block(extents.front().Block)).Parent;
  } else if (!WalkShortDirectory(FInfo, fork, parent, size, ignore)) {
    parent = NoInode;
  }
  if (parent == NoInode || parent == old.Inode) return SpecialCluster::LostAndFound;
  const TInodeRow* row = FInodes.Find(parent);
  const auto [first, end] = OldOf(parent);
  const bool isFolder =
      (row != nullptr && row->FileType == TFileType::ftDirectory) ||
      std::any_of(FOld.begin() + static_cast<std::ptrdiff_t>(first), FOld.begin() + static_cast<std::ptrdiff_t>(end),
                  [](const TOld& other) { return other.FileType == TFileType::ftDirectory; });
  return isFolder ? FolderKey(parent, 0) : SpecialCluster::LostAndFound;
}

// ---- content --------------------------------------------------------------------------------

TByteDynArray TOldFiles::BytesOf(const TOld& old) const {
  if (!old.Image.empty()) return old.Image;
  TByteDynArray bytes(FInfo.InodeSize);
  if (old.Place < 0 || !FReader.Read(old.Place, bytes)) bytes.clear();
  return bytes;
}

TExtents TOldFiles::ExtentsOf(const TOld& old) const {
  TExtents extents;
  const TByteDynArray bytes = BytesOf(old);
  if (old.Extents >= 0) {
    extents = LeftoverExtents(FInfo, TBytes(bytes).subspan(std::min(ForkStart(bytes), bytes.size())));
    extents.resize(std::min(extents.size(), static_cast<std::size_t>(old.Extents)));
    return extents;
  }
  TInodeCore core;
  if (old.ForkMissing || !ReadInodeCore(bytes, core)) return extents;
  core.InodeNumber = old.Inode;
  FReader.Extents(bytes, core, extents);
  return extents;
}

/// What freeing took from an inode: its type, by its first block, and its size. The system fills the last block of
/// a file up with zeros, so that its last other byte is mostly the end. False for what is no file.
bool TOldFiles::Measure(TOld& old) {
  TExtents extents = ExtentsOf(old);
  while (!extents.empty() && extents.back().Unwritten) extents.pop_back();
  if (extents.empty()) return false;
  const TByteDynArray first = FReader.Block(extents.front().Block);
  const TDirectoryBlock head = ReadDirectoryBlock(FInfo, first);
  if (head.HeaderSize > 0) {
    old.FileType = TFileType::ftDirectory;
    return head.Owner == old.Inode;
  }
  old.FileType = TFileType::ftRegularFile;
  const TExtent& tail = extents.back();
  const TByteDynArray last = FReader.Block(tail.Block + tail.Count - 1);
  const auto end = std::find_if(last.rbegin(), last.rend(), [](std::uint8_t byte) { return byte != 0; });
  const auto used = end == last.rend() ? static_cast<std::int64_t>(last.size()) : last.rend() - end;
  const std::int64_t blocks = tail.Offset + tail.Count - 1;
  if (blocks > (std::int64_t{1} << 62) / FInfo.BlockSize) return false;
  old.Size = blocks * FInfo.BlockSize + used;
  return true;
}

/// Blocks that two old files claim belong to the one that was deleted later.
void TOldFiles::MarkSuperseded(const std::vector<std::size_t>& entered) {
  std::vector<std::size_t> order(entered.size());  // indexes into `entered`
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  const auto deletedAt = [&](std::size_t i) { return FOld[entered[i]].TimeStamp.dtMetadataModified; };
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return deletedAt(a) > deletedAt(b); });
  std::map<std::int64_t, std::int64_t> claimed;  // first block and the one after the last
  for (const std::size_t i : order) {
    if (FOld[entered[i]].FileType != TFileType::ftRegularFile) continue;
    const TExtents extents = ExtentsOf(FOld[entered[i]]);
    bool taken = false;
    for (const TExtent& extent : extents) {
      std::int64_t first = LinearBlock(FInfo, extent.Block);
      std::int64_t end = first + extent.Count;
      auto next = claimed.lower_bound(first);
      if (next != claimed.begin() && std::prev(next)->second > first) --next;
      while (next != claimed.end() && next->first < end) {
        taken = true;
        first = std::min(first, next->first);
        end = std::max(end, next->second);
        next = claimed.erase(next);
      }
      claimed.emplace(first, end);
    }
    if (taken) XFSInfo(FDrive).OldInodes[i].Superseded = true;
    FEngine.Pump();
    if (!FEngine.Analysing) return;
  }
}

// ---- rows -----------------------------------------------------------------------------------

TString TOldFiles::NameByContent(const TOld& old) const {
  if (old.FileType == TFileType::ftDirectory)
    return FEngine.Language().Format(TText::LostFolder, {NumberText(old.Inode)});
  const TExtents extents = ExtentsOf(old);
  TByteDynArray head = extents.empty() ? TByteDynArray() : FReader.Block(extents.front().Block);
  head.resize(std::min<std::size_t>(head.size(), static_cast<std::size_t>(old.Size)));
  return NameByNumber(FEngine, old.Inode, head);
}

bool TOldFiles::IsWorthListing(const TOld& old, bool named) const {
  if (old.FileType == TFileType::ftDirectory) return named || old.HasChildren;
  return named || (old.Size > 0 && !old.ForkMissing);
}

bool TOldFiles::EnterOld(std::size_t index, const TRowSink& rows) {
  TOld& old = FOld[index];
  const TName* name = FNameOf[index] == NoName ? nullptr : &FNames[FNameOf[index]];
  FName = name != nullptr ? NameText(TextOf(*name)) : NameByContent(old);
  TFileInfo info;
  TFiles::ClearInfo(info, FDriveNumber);
  info.strName = FName;
  info.blnDeleted = true;
  SetKind(old.FileType, info);
  info.FirstCluster = info.blnFolder ? old.Key : old.Inode;
  info.aSize = info.blnFolder ? 0 : std::max<std::int64_t>(old.Size, 0);
  info.TimeStamp = old.TimeStamp;
  SetPlace(FDrive, old.Place >= 0 ? old.Place : InodePlace(FInfo, old.Inode), info);
  if (old.Estimated || (old.ForkMissing && old.Size > 0)) info.Place = TPlaceSource::Estimated;
  auto& stored = XFSInfo(FDrive).OldInodes;
  stored.push_back({old.Inode, old.Place, old.Image, old.ForkMissing ? 0 : old.Extents, false});
  info.JournalPosition = static_cast<std::int64_t>(stored.size());
  const std::int64_t parent = name != nullptr  ? FolderKey(name->Directory, name->First)
                              : info.blnFolder ? ParentOf(old)
                                               : SpecialCluster::LostAndFound;
  return rows(info, parent == info.FirstCluster ? SpecialCluster::LostAndFound : parent);
}

/// A name of which nothing else is left.
bool TOldFiles::EnterName(const TName& name, const TRowSink& rows) {
  const auto [first, end] = OldOf(name.Inode);
  if (first != end || FInodes.Find(name.Inode) != nullptr) return true;
  const bool passes = name.FileType == TFileType::ftUnknown || IsListed(name.FileType);
  if (!passes || name.Inode == FInfo.RootInode) return true;
  TFileInfo info;
  TFiles::ClearInfo(info, FDriveNumber);
  FName = NameText(TextOf(name));
  info.strName = FName;
  info.blnDeleted = true;
  info.blnFolder = false;
  SetKind(name.FileType, info);
  info.FirstCluster = name.Inode;
  info.Place = TPlaceSource::Estimated;
  SetPlace(FDrive, InodePlace(FInfo, name.Inode), info);
  const std::int64_t parent = FolderKey(name.Directory, name.First);
  return rows(info, parent == info.FirstCluster ? SpecialCluster::LostAndFound : parent);
}

bool TOldFiles::Enter(const TRowSink& rows) {
  FreezeRest();
  DropDoubles();
  std::erase_if(FOld, [&](TOld& old) {
    FEngine.Pump();
    if (old.ForkMissing) TakeForkFromDisk(old);
    const bool measured = !old.Freed || old.FileType != TFileType::ftUnknown || Measure(old);
    return !measured && old.FileType == TFileType::ftUnknown;
  });
  SetKeys();
  for (const TOld& old : FOld) {
    if (old.FileType == TFileType::ftDirectory && !(old.Freed && old.Extents == 0)) NoteDirectory(old);
    FEngine.Pump();
    if (!FEngine.Analysing) return false;
  }
  MatchNames();
  // A folder without a name is worth a row when something lies in it.
  for (const std::size_t name : FNameOf) {
    if (name != NoName) FolderKey(FNames[name].Directory, FNames[name].First);
  }
  std::vector<std::size_t> entered;
  for (const bool folders : {true, false}) {
    for (std::size_t i = 0; i < FOld.size(); ++i) {
      const bool isFolder = FOld[i].FileType == TFileType::ftDirectory;
      if (isFolder != folders || !IsWorthListing(FOld[i], FNameOf[i] != NoName)) continue;
      if (!EnterOld(i, rows)) return false;
      entered.push_back(i);
      FEngine.Pump();
      if (!FEngine.Analysing) return false;
    }
  }
  for (const TName& name : FNames) {
    if (!name.Used && !EnterName(name, rows)) return false;
    FEngine.Pump();
  }
  MarkSuperseded(entered);
  return FEngine.Analysing;
}

}  // namespace brenlow::xfs
