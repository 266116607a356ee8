// SPDX-License-Identifier: GPL-3.0-or-later
// The tree: folders from the root on, each with its unlinked entries.
#include "fs/ext/ext_walk.h"

#include <algorithm>
#include <utility>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "fs/ext/ext_bitmaps.h"
#include "fs/ext/ext_superblock.h"
#include "table/files.h"

namespace brenlow::ext {
namespace {

constexpr std::int64_t FolderReadSize = 1 << 18;  // bytes of a folder read together

std::uint64_t NameKey(std::uint32_t inode, TStringView name) {
  return std::hash<TStringView>()(name) ^ std::uint64_t{inode} * 0x9E3779B97F4A7C15U;
}

TFileKind KindOf(TFileType type) {
  switch (type) {
    case TFileType::ftFIFO:
      return TFileKind::Pipe;
    case TFileType::ftCharacterDevice:
      return TFileKind::CharacterDevice;
    case TFileType::ftBlockDevice:
      return TFileKind::BlockDevice;
    case TFileType::ftSymbolicLink:
      return TFileKind::SymbolicLink;
    case TFileType::ftSocket:
      return TFileKind::Socket;
    default:
      return TFileKind::Regular;
  }
}

}  // namespace

TVolumeWalk::TVolumeWalk(TEngine& engine, TDriveInfo& drive, int driveNumber, TRowSink sink)
    : FEngine(engine),
      FDrive(drive),
      FDriveNumber(driveNumber),
      FSink(std::move(sink)),
      FReader(engine, drive),
      FKnown(FReader.Blocks()),
      FShownInodes(std::min<std::size_t>(Info().TotalInodeCount, Info().Groups.size() * Info().InodesPerGroup) + 1) {}

/// A listing of an unregistered drive is stopped by its sink alone.
bool TVolumeWalk::GoOn() {
  FEngine.Pump();
  if (FDriveNumber >= 0 && !FEngine.Analysing) FStopped = true;
  return !FStopped;
}

int TVolumeWalk::AddRow(const TFileInfo& info, std::int64_t parent) {
  const int number = FSink(info, parent);
  if (number < 0) return number;
  if (info.blnFolder) FFolderRows.insert(info.FirstCluster);
  if (FDriveNumber >= 0 && info.blnDeleted && !info.blnFolder && info.aSize == 0) FRowsWithoutContent.push_back(number);
  return number;
}

void TVolumeWalk::NoteNamesOnly() {
  for (const int number : FRowsWithoutContent) {
    TFileInfo& row = FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo;
    if (row.aSize == 0 && row.Kind == TFileKind::Regular) row.Doubt = TContentDoubt::NameOnly;
  }
}

/// The blocks of the file system's own: superblocks, group tables, bitmaps, inodes, the journal.
void TVolumeWalk::MarkOwnBlocks() {
  const TExtXInfo& info = Info();
  const std::int64_t inodeBlocks = CeilDiv(std::int64_t{info.InodesPerGroup} * info.InodeSize, FReader.BlockSize());
  FKnown.Add(0, info.FirstDataBlock + 1);
  const std::int64_t descriptors =
      CeilDiv(static_cast<std::int64_t>(info.Groups.size()) * info.GroupDescriptorsRecordSize, FReader.BlockSize());
  for (std::size_t number = 0; number < info.Groups.size(); ++number) {
    const TExtXGroup& group = info.Groups[number];
    FKnown.Add(group.BlockBitmapLocation, 1);
    FKnown.Add(group.InodeBitmapLocation, 1);
    FKnown.Add(group.InodesLocation, inodeBlocks);
    if (group.HasSuperBlockCopy && !info.HasMetaGroups && (info.FeatureCompat & Feature::CompatSparseSuper2) == 0) {
      FKnown.Add(GroupStart(info, static_cast<std::int64_t>(number)), 1 + descriptors);
    }
  }
  for (const std::int64_t block : info.Journal.Blocks) {
    if (block > 0 && !info.Rebuilt.contains(block)) FKnown.Add(block, 1);
  }
}

void TVolumeWalk::WalkTree(bool rootOnly) {
  FRootOnly = rootOnly;
  FProgressShare = TreeShare;
  MarkOwnBlocks();
  if (!ParseInode(FReader.Inode(RootInode), FReader, TBlockList::Read, FInode)) return;
  if (FInode.Type != TFileType::ftDirectory) return;
  NoteFolderChecksums(RootInode, FInode.Generation);
  FShownInodes[std::min<std::size_t>(RootInode, FShownInodes.size() - 1)] = true;
  TDirectoryEntry root;
  root.Inode = RootInode;
  Queue(root, false);
  WalkWaiting();
}

void TVolumeWalk::WalkWaiting() {
  while (!FStopped && (!FWaiting.empty() || !FWaitingDeleted.empty())) {
    std::vector<TWaiting>& next = FWaiting.empty() ? FWaitingDeleted : FWaiting;
    const TWaiting folder = std::move(next.back());
    next.pop_back();
    ReadFolder(folder);
    ++FAnalyzedFolders;
    const double total = static_cast<double>(std::max<std::int64_t>(Info().TotalFolders, 1));
    const double done = std::min(1.0, static_cast<double>(FAnalyzedFolders) / total);
    if (FDriveNumber >= 0) FEngine.AnalyseProgress(FProgressFrom + FProgressShare * done);
    if (!GoOn() || FRootOnly) return;
  }
}

// ---- one folder -----------------------------------------------------------------------------

void TVolumeWalk::ReadFolder(const TWaiting& folder) {
  FEntries.Clear();
  FOnlySound = folder.Deleted && folder.Inline.empty();
  if (!folder.Inline.empty()) {
    ReadInlineFolder(folder);
  } else {
    bool isFirst = true;
    for (const TDataBlock& run : folder.Blocks) {
      if (run.Start != 0) ReadRun(run, isFirst);
      isFirst = false;
      if (FStopped) break;
    }
  }
  FOnlySound = false;
  TFolder context{folder.Inode, KeyOf(folder.Inode), false, folder.Deleted, 0};
  if (!folder.Inline.empty()) context.FirstEntry = 0;
  WalkEntries(context);
}

void TVolumeWalk::ReadRun(const TDataBlock& run, bool isFirst) {
  const std::int64_t blockSize = FReader.BlockSize();
  const std::int64_t most = std::max<std::int64_t>(FolderReadSize / blockSize, 1);
  for (std::int64_t at = 0; at < run.Count && !FStopped; at += most) {
    const std::int64_t count = std::min(most, run.Count - at);
    if (count == 1) {
      const auto block = FReader.Block(run.Start + at);
      if (!block.empty()) WalkBytes(block, (run.Start + at) * blockSize, isFirst && at == 0);
      continue;
    }
    FBytes.resize(static_cast<std::size_t>(count * blockSize));
    const bool read = FReader.ReadBlocks(run.Start + at, count, FBytes.data());
    for (std::int64_t i = 0; i < count; ++i) {
      const auto bytes =
          std::span(FBytes).subspan(static_cast<std::size_t>(i * blockSize), static_cast<std::size_t>(blockSize));
      // One that cannot be read costs its own entries only.
      if (!read && !FReader.ReadBlocks(run.Start + at + i, 1, bytes.data())) continue;
      WalkBytes(bytes, (run.Start + at + i) * blockSize, isFirst && at + i == 0);
    }
    GoOn();
  }
}

/// Entries of one block; `position` is where it lies, in bytes from the volume's start.
void TVolumeWalk::WalkBytes(std::span<const std::uint8_t> block, std::int64_t position, bool mayBegin) {
  if (FOnlySound && !IsFolderBlock(block, Info().TotalInodeCount)) return;
  const std::size_t before = FEntries.size();
  WalkDirectoryBlock(block, 0, {false, mayBegin, Info().TotalInodeCount}, FEntries);
  for (std::size_t i = before; i < FEntries.size(); ++i) FEntries[i].Position += position;
}

/// A small folder lies in its inode: the number of the folder above, then records without "." and "..", in two
/// parts.
void TVolumeWalk::ReadInlineFolder(const TWaiting& folder) {
  constexpr std::size_t parentSize = 4;
  constexpr std::size_t firstPart = 60;
  const std::int64_t position = std::max<std::int64_t>(FReader.InodePosition(folder.Inode), 0);
  const auto bytes = std::span(folder.Inline);
  if (bytes.size() <= parentSize) return;
  const std::size_t end = std::min(firstPart, bytes.size());
  WalkBytes(bytes.subspan(parentSize, end - parentSize), position + 44, false);
  if (bytes.size() > end) WalkBytes(bytes.subspan(end), position + 128, false);
}

/// The names in use of the folder in hand, so that copies of their records in free room are told from names
/// that are gone. Only made where there are such records.
void TVolumeWalk::FindLiveNames(const TFolder& folder) {
  FLiveNames.clear();
  bool anyDeleted = false;
  for (std::size_t i = folder.FirstEntry; i < FEntries.size() && !anyDeleted; ++i) anyDeleted = FEntries[i].Deleted;
  if (!anyDeleted) return;
  for (std::size_t i = folder.FirstEntry; i < FEntries.size(); ++i) {
    if (!FEntries[i].Deleted) FLiveNames.insert(NameKey(FEntries[i].Inode, FEntries.Name(i)));
  }
}

/// True for an unlinked entry that is in use elsewhere in the folder, or was met before.
bool TVolumeWalk::IsRepeated(const TDirectoryEntry& entry) {
  return entry.Deleted && !FLiveNames.insert(NameKey(entry.Inode, FEntries.NameOf(entry))).second;
}

void TVolumeWalk::WalkEntries(const TFolder& folder) {
  FindLiveNames(folder);
  for (std::size_t i = folder.FirstEntry; i < FEntries.size() && !FStopped; ++i) {
    const TDirectoryEntry& entry = FEntries[i];
    const TStringView name = FEntries.Name(i);
    if (name == u"." || name == u".." || IsRepeated(entry)) continue;
    AddEntry(folder, entry);
    GoOn();
  }
}

void TVolumeWalk::ApplyInode(const TInode& inode, TFileInfo& info) const {
  info.blnFolder = inode.Type == TFileType::ftDirectory;
  info.Kind = KindOf(inode.Type);
  info.aSize = info.blnFolder ? 0 : inode.Size;
  info.TimeStamp = inode.TimeStamp;
  info.Atributes.blnEncrypted = (inode.Flags & InodeFlag::Encrypted) != 0;
}

/// False for an entry that is not worth a row.
bool TVolumeWalk::FillInfo(const TFolder& folder, const TDirectoryEntry& entry, TFileInfo& info) {
  TFiles::ClearInfo(info, FDriveNumber);
  info.strName = FEntries.NameOf(entry);
  info.blnFolder = entry.FileType == TFileType::ftDirectory;
  info.Kind = KindOf(entry.FileType);
  info.blnDeleted = folder.Lost || folder.Deleted || entry.Deleted;
  info.FirstCluster = entry.Inode;
  const std::int64_t sectorSize = std::max(FReader.Drive().BytesPerSector, 1);
  info.FirstSector = entry.Position / sectorSize;
  info.OffsetInSector = static_cast<std::int32_t>(entry.Position % sectorSize);
  const bool read = entry.Inode != 0 && ParseInode(FReader.Inode(entry.Inode), FReader, TBlockList::Read, FInode);
  if (!read) {
    FInode = TInode();
    if (!folder.Lost) return true;
    const TStringView name = info.strName;
    if (!info.blnFolder && name.find(u'.') == TStringView::npos) return false;
    const int wrong = TFiles::RightName(name);
    return wrong == 0 || name[static_cast<std::size_t>(wrong) - 1] == u'*' ||
           name[static_cast<std::size_t>(wrong) - 1] == u'?';
  }
  // The number of a name that is gone may be in use for something else by now.
  const bool reused = info.blnDeleted && entry.FileType != TFileType::ftUnknown && entry.FileType != FInode.Type;
  if (!reused) {
    ApplyInode(FInode, info);
    if (!info.blnDeleted && FInode.Links == 0 && FInode.DeletedAt != 0 && !info.blnFolder) info.blnDeleted = true;
  }
  return true;
}

void TVolumeWalk::AddEntry(const TFolder& folder, const TDirectoryEntry& entry) {
  if (!FillInfo(folder, entry, FInfo)) return;
  const bool ownParent = FInfo.blnFolder && FInfo.FirstCluster == folder.Key;
  const std::int64_t parent = ownParent ? 0 : folder.Key;
  if (folder.Lost && FEngine.Files().IsAdded(FInfo, parent)) return;
  const bool inUse = FInode.Links > 0 && (!FInfo.blnDeleted || IsInodeUsed(FEngine, FDrive, entry.Inode));
  const bool shown = entry.Inode < FShownInodes.size() && FShownInodes[entry.Inode];
  // The inode is in use, and not for this name.
  const bool reused = FInfo.blnDeleted && inUse && (entry.Deleted || shown);
  if (reused) FInfo.Place = TPlaceSource::Estimated;
  const int number = AddRow(FInfo, parent);
  if (number < 0 && FDriveNumber < 0) FStopped = true;
  if (number < 0) return;
  if (FInfo.blnDeleted) {
    FDeletedRows.push_back({entry.Inode, number});
  } else {
    ++FLiveEntries;
  }
  if (FInode.Type == TFileType::ftUnknown || reused) return;
  if (entry.Inode < FShownInodes.size()) FShownInodes[entry.Inode] = true;
  if (FInode.Type == TFileType::ftDirectory) {
    if (FInfo.blnFolder) NoteFolderChecksums(entry.Inode, FInode.Generation);
    if (FInfo.blnFolder) Queue(entry, FInfo.blnDeleted);
    return;
  }
  for (const TDataBlock& run : FInode.Blocks) FKnown.Add(run.Start, run.Start == 0 ? 0 : run.Count);
  for (const TDataBlock& run : FInode.TreeBlocks) FKnown.Add(run.Start, run.Count);
}

/// Lets the folder of `FInode` wait, but for runs of blocks that something else has: this ends circles.
void TVolumeWalk::Queue(const TDirectoryEntry& entry, bool deleted) {
  TWaiting waiting;
  waiting.Inode = entry.Inode;
  waiting.Deleted = deleted;
  if (FInode.IsInline) {
    // In place of blocks, the inode itself must not come twice.
    const std::int64_t position = FReader.InodePosition(entry.Inode);
    if (position < 0 || !FInlineFolders.insert(entry.Inode).second) return;
    waiting.Inline = FInode.Inline;
  }
  for (const TDataBlock& run : FInode.Blocks) {
    const bool taken = run.Start != 0 && FKnown.Add(run.Start, run.Count);
    if (taken) continue;
    waiting.Blocks.push_back(run);
    if (run.Start != 0) FFolderRuns.push_back({run.Start, run.Count, entry.Inode, 0});
  }
  for (const TDataBlock& run : FInode.TreeBlocks) FKnown.Add(run.Start, run.Count);
  if (waiting.Blocks.empty() && waiting.Inline.empty()) return;
  (deleted ? FWaitingDeleted : FWaiting).push_back(std::move(waiting));
}

}  // namespace brenlow::ext
