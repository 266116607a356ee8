// SPDX-License-Identifier: GPL-3.0-or-later
#include "table/folder_index.h"

#include <algorithm>

#include "table/files.h"

namespace brenlow {

TFolderIndex::TFolderIndex(const TFiles& files, int driveNumber) {
  for (std::size_t i = 0; i < files.List.size(); ++i) {
    const TFile& file = files.List[i];
    const TFileInfo& info = file.FileInfo;
    if (info.aDriveNumber != driveNumber || !info.blnFolder) continue;
    if (file.ParentCluster == SpecialCluster::Unselected) continue;  // a row of the tree, not of the drive
    const auto [owner, first] = FOwners.try_emplace(info.FirstCluster, static_cast<int>(i));
    if (first || info.blnDeleted) continue;
    const TFileInfo& known = files.List[static_cast<std::size_t>(owner->second)].FileInfo;
    if (known.blnDeleted) owner->second = static_cast<int>(i);
  }
}

int TFolderIndex::Owner(std::int64_t firstCluster) const {
  const auto owner = FOwners.find(firstCluster);
  return owner == FOwners.end() ? -1 : owner->second;
}

/// Visits the folders above a row, the nearest first, until `visit` answers false. Damaged folders may lie within
/// each other: such a circle ends the climb.
template <typename TVisit>
void TFolderIndex::Climb(const TFiles& files, int fileNumber, TVisit&& visit) const {
  if (files.IsWrongNumber(fileNumber)) return;
  const auto above = [&](int row) { return Owner(files.List[static_cast<std::size_t>(row)].ParentCluster); };
  int marked = fileNumber;  // a row that a circle leads back to, moved on in growing steps
  std::size_t steps = 0;
  std::size_t limit = 1;
  for (int at = above(fileNumber); at >= 0 && at != marked && visit(at); at = above(at)) {
    if (++steps < limit) continue;
    marked = at;
    steps = 0;
    limit *= 2;
  }
}

bool TFolderIndex::InDeletedFolder(const TFiles& files, int fileNumber) const {
  bool deleted = false;
  Climb(files, fileNumber, [&](int folder) {
    deleted = files.List[static_cast<std::size_t>(folder)].FileInfo.blnDeleted;
    return !deleted;
  });
  return deleted;
}

TIntegerDynArray TFolderIndex::FoldersAbove(const TFiles& files, int fileNumber) const {
  TIntegerDynArray folders;
  Climb(files, fileNumber, [&](int folder) {
    folders.push_back(folder);
    return true;
  });
  std::reverse(folders.begin(), folders.end());
  return folders;
}

const TFolderIndex& TFolderIndexCache::Of(const TFiles& files, int driveNumber) {
  if (FRows != files.List.size()) FIndexes.clear();
  FRows = files.List.size();
  std::unique_ptr<TFolderIndex>& index = FIndexes[driveNumber];
  if (!index) index = std::make_unique<TFolderIndex>(files, driveNumber);
  return *index;
}

}  // namespace brenlow
