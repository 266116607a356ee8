// SPDX-License-Identifier: GPL-3.0-or-later
// Folders that are gone: their records hold something else by now, or were not found.
#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "core/drives.h"
#include "core/engine.h"
#include "core/extent_reader.h"
#include "core/language.h"
#include "core/text.h"
#include "fs/ntfs/ntfs.h"
#include "fs/ntfs/ntfs_folder_names.h"
#include "table/files.h"

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
    // A search may have met a record both before and after its folder.
    std::set<TString> known;
    const auto isNew = [&](const TFileInfo& info) {
      return !FEngine.PartRecRunning || info.FirstCluster < 0 || known.insert(KeyOf(info)).second;
    };
    if (FEngine.PartRecRunning) {
      for (const std::int64_t number : drive.ParentClusters.Files(parent)) {
        isNew(files.List[static_cast<std::size_t>(number)].FileInfo);
      }
    }
    for (const std::int64_t number : drive.ParentClusters.Files(key)) {
      TFile& row = files.List[static_cast<std::size_t>(number)];
      const bool inItself = row.FileInfo.blnFolder && row.FileInfo.FirstCluster == parent;
      row.ParentCluster = inItself ? SpecialCluster::LostAndFound : parent;
      if (!inItself && isNew(row.FileInfo)) continue;
      TDrives::DeleteParentCluster(drive, key, static_cast<std::uint32_t>(number));
      if (inItself) {
        TDrives::AddParentCluster(drive, row.ParentCluster, static_cast<std::uint32_t>(number), true);
      }
    }
    drive.ParentClusters.Move(key, parent);
  }
  if (moved) files.ForgetAdded();
}

/// A folder record met in the log.
void TNTFS::NoteFolderName(const TReference& folder, const TFileInfo& info, TDriveInfo& drive) const {
  const std::int64_t key = ReferenceKey(folder);
  if (info.blnFolder && IsReferenceKey(key)) NTFSInfo(drive).LostFolderNames.try_emplace(key, info.strName);
}

/// Looks for the names of lost folders in what the indexes of folders hold, their free room included.
void TNTFS::FindLostFolderNames(TDriveInfo& drive) {
  constexpr std::int64_t largestRead = 1 << 20;  // bytes
  constexpr std::int64_t mostBytes = 64 << 20;
  constexpr int mostReads = 2048;  // some seconds on a disk
  std::unordered_set<std::int64_t> wanted = LostFolders(drive);
  TRuns indexes = std::move(FIndexes);
  FIndexes.clear();
  const std::int64_t clusterBytes = ClusterBytes(drive);
  if (wanted.empty() || clusterBytes < 1) return;
  std::sort(indexes.begin(), indexes.end(), [](const TRun& a, const TRun& b) { return a.Lcn < b.Lcn; });
  std::int64_t bytesLeft = mostBytes;
  int readsLeft = mostReads;
  TByteDynArray bytes;
  for (const TRun& run : indexes) {
    for (std::int64_t at = 0; at < run.Count;) {
      const std::int64_t count = std::min(run.Count - at, std::max<std::int64_t>(largestRead / clusterBytes, 1));
      if (!FEngine.Analysing || readsLeft-- == 0 || count * clusterBytes > bytesLeft) return;
      bytesLeft -= count * clusterBytes;
      bytes.assign(static_cast<std::size_t>(count * clusterBytes), 0);
      FEngine.Content().ReadPlace(drive, PlaceOfCluster(run.Lcn + at, clusterBytes), bytes);
      FixIndexBlocks(bytes);
      FindFolderNames(bytes, wanted, NTFSInfo(drive).LostFolderNames);
      at += count;
      FEngine.Pump();
    }
  }
}

/// Folders whose records were freed while something live still names them: damage of the record, not of what
/// lies in it. They are as live as that.
void TNTFS::KeepFoldersOfLiveFiles(TDriveInfo& drive) {
  TFileArray& list = FEngine.Files().List;
  const auto infoOf = [&](std::int64_t row) -> TFileInfo& { return list[static_cast<std::size_t>(row)].FileInfo; };
  std::unordered_map<std::int64_t, std::vector<std::int64_t>> gone;  // key to the rows of a deleted folder
  for (const std::int64_t parent : TDrives::GetFoundPosParentClusters(drive)) {
    for (const std::int64_t row : drive.ParentClusters.Folders(parent)) {
      if (infoOf(row).blnDeleted) gone[infoOf(row).FirstCluster].push_back(row);
    }
  }
  TInt64DynArray waiting;
  for (const auto& [key, rows] : gone) {
    const TInt64DynArray content = drive.ParentClusters.Files(key);
    const auto isLiveFile = [&](std::int64_t row) { return !infoOf(row).blnDeleted && !infoOf(row).blnFolder; };
    if (std::any_of(content.begin(), content.end(), isLiveFile)) waiting.push_back(key);
  }
  while (!waiting.empty()) {
    const auto folder = gone.find(waiting.back());
    waiting.pop_back();
    if (folder == gone.end()) continue;
    const std::vector<std::int64_t> rows = std::move(folder->second);
    gone.erase(folder);
    for (const std::int64_t row : rows) {
      infoOf(row).blnDeleted = false;
      waiting.push_back(list[static_cast<std::size_t>(row)].ParentCluster);
    }
  }
}

/// Gives the rows that are left a folder below "Lost and found" for each use of a number: with its old
/// name where that is known.
void TNTFS::AddLostFolders(TDriveInfo& drive) {
  TFiles& files = FEngine.Files();
  const int driveNumber = NumberOf(FEngine.Drives(), drive);
  if (driveNumber < 0) return;
  const auto& names = NTFSInfo(drive).LostFolderNames;
  std::map<TString, int> taken;  // names in upper case, and how often
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
    const int times = ++taken[UpperCase(name)];
    if (times > 1) name += u" (" + NumberText(times) + u")";
    folder.strName = name;
    files.Add(folder, SpecialCluster::LostAndFound, false);
    FEngine.Pump();
  }
}

}  // namespace brenlow
