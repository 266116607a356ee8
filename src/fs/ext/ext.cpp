// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ext/ext.h"

#include <algorithm>
#include <utility>

#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "fs/ext/ext_walk.h"
#include "table/files.h"

namespace brenlow {

using namespace ext;

namespace {

constexpr std::int64_t CheapSearch = std::int64_t{2} << 30;  // bytes that are read in a matter of seconds

}  // namespace

void TExtX::Analyse(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  // Nothing is met twice here, so a row is not compared with the others, as a partition search does.
  TVolumeWalk walk(FEngine, drive, driveNumber, [this](const TFileInfo& info, std::int64_t parent) {
    const bool running = std::exchange(FEngine.PartRecRunning, false);
    const int number = FEngine.Files().Add(info, parent, true);
    FEngine.PartRecRunning = running;
    return number;
  });
  walk.WalkTree();
  if (FEngine.Analysing) walk.ReadInodeTables();
  if (FEngine.Analysing && LostFolderSearch != TLostFolderSearch::Never) {
    const bool always = LostFolderSearch == TLostFolderSearch::Always;
    walk.FindLostFolders(always || walk.IsBare() || walk.LostFolderSearchSize() <= CheapSearch);
  }
  if (FEngine.Analysing) walk.UseJournal();
  if (FEngine.Analysing) walk.AddNamelessInodes();
  if (FEngine.Analysing) walk.AddNamelessFolders();
  walk.NoteNamesOnly();
}

void TExtX::AnalyseSystem(int driveNumber) {
  if (FEngine.OnAnalyseProgress) FEngine.AnalyseProgress(0);
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  drive.Analysed = TAnalyseInformation::aiPartial;
  ClearMemory();
  if (!GetDriveInfo(drive, true, true)) return;
  if (ExtXInfo(drive).Journal.IsExternal) {
    if (FEngine.OnMessage)
      FEngine.OnMessage({TText::JournalElsewhere, FEngine.Language().Format(TText::JournalElsewhere, {drive.Caption})});
  }
  Analyse(driveNumber);
  ClearMemory();
  if (!FEngine.Analysing) return;
  FEngine.Drives().List[static_cast<std::size_t>(driveNumber)].Analysed = TAnalyseInformation::aiFull;
  FEngine.AnalyseProgress(1.0);
}

void TExtX::GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten) {
  result.Clear();
  if (!GetDriveInfo(drive, true, true)) return;
  TVolumeWalk walk(FEngine, drive, -1, [&](const TFileInfo& info, std::int64_t parent) {
    const std::size_t number = result.Add(info, parent);
    bool canBreak = false;
    if (onFilesGotten) onFilesGotten(drive, result, canBreak);
    return canBreak ? -1 : static_cast<int>(number);
  });
  walk.WalkTree(rootDirOnly);
}

}  // namespace brenlow
