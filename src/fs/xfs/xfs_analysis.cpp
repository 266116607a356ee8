// SPDX-License-Identifier: GPL-3.0-or-later
// The analysis of a volume: all inodes, the tree, what was deleted; and the listing without side effects.
#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/extent_reader.h"
#include "fs/xfs/xfs.h"
#include "fs/xfs/xfs_groups.h"
#include "fs/xfs/xfs_inodes.h"
#include "fs/xfs/xfs_log.h"
#include "fs/xfs/xfs_old.h"
#include "fs/xfs/xfs_walk.h"
#include "table/files.h"

namespace brenlow {

using namespace xfs;

namespace {

constexpr std::int64_t CheapSearch = std::int64_t{2} << 30;  // bytes: a matter of seconds

// Shares of the progress.
constexpr double AfterInodes = 0.3;
constexpr double AfterTree = 0.6;
constexpr double AfterLog = 0.8;

/// The log, when it lies on the volume.
void WalkJournal(TEngine& engine, const TDriveInfo& drive, TOldFiles& old) {
  const TXFSInfo& info = XFSInfo(drive);
  const std::int64_t first = LinearBlock(info, info.JournalBlock);
  if (info.JournalBlock <= 0 || info.JournalSize == 0 || first < 0) return;
  const std::int64_t blocks = std::min<std::int64_t>(info.JournalSize, info.TotalBlockCount - first);
  const auto read = [&](std::int64_t at, std::span<std::uint8_t> buffer) {
    engine.Content().ReadPlace(drive, first * info.BlockSize + at, buffer);
  };
  const std::int64_t there = std::min(blocks * info.BlockSize, BytesThere(engine, drive) - first * info.BlockSize);
  WalkLog(info, there, read, old);
}

}  // namespace

void TXFS::DoBeforeAnalyse(TDriveInfo& drive) {
  TXFSInfo& info = XFSInfo(drive);
  info.FreeBlocks.clear();
  info.GroupsWithoutFreeBlocks.clear();
  info.IsFreeFilled = false;
  info.OldInodes.clear();
}

void TXFS::DoAfterAnalyse(TDriveInfo& drive) { XFSInfo(drive).OldInodes.shrink_to_fit(); }

void TXFS::Analyse(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  FillFreeBlocks(FEngine, drive);
  const auto share = [this](double from, double to) {
    return [this, from, to](double part) { FEngine.AnalyseProgress(from + (to - from) * part); };
  };
  const TRowSink rows = [this](const TFileInfo& info, std::int64_t parent) {
    FEngine.Files().Add(info, parent, true);
    return FEngine.Analysing.load();
  };
  TInodeTable inodes(FEngine, drive);
  TOldFiles old(FEngine, drive, driveNumber, inodes);
  const auto noteInode = [&](std::int64_t inode, std::int64_t place, TBytes bytes, const TInodeCore& core) {
    old.NoteInode(inode, place, bytes, core);
  };
  const auto noteBlock = [&](std::int64_t, TBytes block) { old.NoteBlock(block); };
  if (!inodes.ReadTrees(noteInode, share(0, AfterInodes))) return;
  const bool cheap = LostFolderSearch == TLostFolderSearch::WhenNeeded && inodes.FreeBytes() <= CheapSearch;
  const bool search = cheap || LostFolderSearch == TLostFolderSearch::Always;
  // Groups whose inodes no tree has are searched in any case, and before the tree is walked.
  if (!inodes.SearchBlocks(search, noteInode, noteBlock, [](double) {})) return;
  TWalk walk(FEngine, drive, driveNumber, inodes, rows,
             [&](std::int64_t directory, const TFileEntry& entry) { old.NoteName(directory, entry, 0); });
  if (!walk.WalkTree(false, share(AfterInodes, AfterTree)) || !walk.WalkUnreached()) return;
  old.Progress = share(AfterTree, AfterLog);
  WalkJournal(FEngine, drive, old);
  if (FEngine.Analysing) old.Enter(rows);
}

void TXFS::AnalyseSystem(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  FEngine.AnalyseProgress(0);
  drive.Analysed = TAnalyseInformation::aiPartial;
  if (!GetDriveInfo(drive, false)) return;
  DoBeforeAnalyse(drive);
  Analyse(driveNumber);
  DoAfterAnalyse(drive);
  if (!FEngine.Analysing) return;
  drive.Analysed = TAnalyseInformation::aiFull;
  FEngine.AnalyseProgress(1.0);
}

void TXFS::GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten) {
  if (!GetDriveInfo(drive, false)) return;
  DoBeforeAnalyse(drive);
  bool canBreak = false;
  const TRowSink rows = [&](const TFileInfo& info, std::int64_t parent) {
    result.Add(info, parent);
    if (onFilesGotten) onFilesGotten(drive, result, canBreak);
    return !canBreak;
  };
  TInodeTable inodes(FEngine, drive);
  TWalk walk(FEngine, drive, -1, inodes, rows, [](std::int64_t, const TFileEntry&) {});
  walk.ReadsInodes = true;
  walk.WalkTree(rootDirOnly, [](double) {});
}

// ---- partition search -----------------------------------------------------------------------

void TXFS::PartRecAnalyseForNewDrive(int parentDrive, std::int64_t sector) {
  TDrives& drives = FEngine.Drives();
  const auto& found = drives.PartRecInfo.FoundDrives;
  if (found.empty()) return;
  const std::int64_t place = drives.List[static_cast<std::size_t>(parentDrive)].FirstSector + sector;
  for (std::size_t i = found.size(); i-- > 0;) {
    if (found[i].FileSystem != TFileSystem::fsXFS || found[i].FirstSector + found[i].SectorsCount < place) continue;
    const int sub = drives.PartRecAddSubdrive(parentDrive, TFileSystem::fsXFS);
    if (sub < 0) return;
    drives.PartRecApplyFoundDriveInfoToDrive(sub, static_cast<int>(i));
    PartRecDriveAdded(sub);
    return;
  }
}

void TXFS::PartRecDriveAdded(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  if (!GetDriveInfo(drive, false)) return;
  DoBeforeAnalyse(drive);
  Analyse(driveNumber);
}

}  // namespace brenlow
