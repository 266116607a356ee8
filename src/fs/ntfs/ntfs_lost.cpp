// SPDX-License-Identifier: GPL-3.0-or-later
// Folders that are gone: their records hold something else by now, or were not found.
#include <algorithm>
#include <set>

#include "analysis/files.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/text.h"
#include "fs/ntfs/ntfs.h"

namespace brenlow {

using namespace ntfs;

namespace {

int NumberOf(const TDrives& drives, const TDriveInfo& drive) {
  for (std::size_t i = 0; i < drives.List.size(); ++i) {
    if (&drives.List[i] == &drive) return static_cast<int>(i);
  }
  return -1;
}

/// What two rows of one object share within a folder.
TString KeyOf(const TFileInfo& info) {
  return TString(info.strName) + (info.blnFolder ? u'/' : u':') + NumberText(info.FirstCluster);
}

}  // namespace

/// Rows whose folder was not met before them: where the folder is the one that they mean, they join what
/// else lies in it.
void TNTFS::SettleParents(TDriveInfo& drive) {
  TFiles& files = FEngine.Files();
  bool moved = false;
  for (const std::int64_t key : TDrives::GetFoundPosParentClusters(drive)) {
    if (!IsReferenceKey(key)) continue;
    const std::int64_t parent = ParentKey(drive, ReferenceOf(key));
    if (parent == key) continue;
    moved = true;
    std::set<TString> known;
    // A search may have met a record both before and after its folder.
    if (FEngine.PartRecRunning) {
      for (const std::int64_t number : drive.ParentClusters.Files(parent)) {
        known.insert(KeyOf(files.List[static_cast<std::size_t>(number)].FileInfo));
      }
    }
    for (const std::int64_t number : drive.ParentClusters.Files(key)) {
      TFile& row = files.List[static_cast<std::size_t>(number)];
      const bool inItself = row.FileInfo.blnFolder && row.FileInfo.FirstCluster == parent;
      row.ParentCluster = inItself ? SpecialCluster::LostAndFound : parent;
      const bool twice = FEngine.PartRecRunning && !known.insert(KeyOf(row.FileInfo)).second;
      if (!inItself && !twice) continue;
      TDrives::DeleteParentCluster(drive, key, static_cast<std::uint32_t>(number));
      if (inItself) {
        TDrives::AddParentCluster(drive, row.ParentCluster, static_cast<std::uint32_t>(number), true);
      }
    }
    drive.ParentClusters.Move(key, parent);
  }
  if (moved) files.ForgetAdded();
}

/// Gives the rows that are left a folder below "Lost and found" for each use of a number: with its old
/// name where that is known.
void TNTFS::AddLostFolders(TDriveInfo& drive) {
  TFiles& files = FEngine.Files();
  const int driveNumber = NumberOf(FEngine.Drives(), drive);
  if (driveNumber < 0) return;
  const auto& names = drive.NTFSInfo.LostFolderNames;
  std::set<TString> taken;
  for (const std::int64_t key : TDrives::GetFoundPosParentClusters(drive)) {
    if (!IsReferenceKey(key)) continue;
    TFileInfo folder;
    TFiles::ClearInfo(folder, driveNumber);
    folder.FirstCluster = key;
    folder.TimeStamp = {Now(), Now(), Now(), 0};
    // What holds something live is not deleted.
    const TInt64DynArray content = drive.ParentClusters.Files(key);
    folder.blnDeleted = std::all_of(content.begin(), content.end(), [&](std::int64_t number) {
      return bool{files.List[static_cast<std::size_t>(number)].FileInfo.blnDeleted};
    });
    const TReference reference = ReferenceOf(key);
    const auto old = names.find(key);
    TString name =
        old != names.end() ? old->second : FEngine.Language().Format(TText::LostFolder, {NumberText(reference.Number)});
    const TString plain = name;
    for (int i = 2; !taken.insert(UpperCase(name)).second; ++i) name = plain + u" (" + NumberText(i) + u")";
    folder.strName = name;
    files.Add(folder, SpecialCluster::LostAndFound, false);
    FEngine.Pump();
  }
}

}  // namespace brenlow
