// SPDX-License-Identifier: GPL-3.0-or-later
#include "table/folder_index.h"

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

bool TFolderIndex::InDeletedFolder(const TFiles& files, int fileNumber) const {
  if (files.IsWrongNumber(fileNumber)) return false;
  int folder = Owner(files.List[static_cast<std::size_t>(fileNumber)].ParentCluster);
  // Damaged folders may lie within each other: no way up is longer than there are folders.
  for (std::size_t steps = 0; folder >= 0 && steps < FOwners.size(); ++steps) {
    const TFile& row = files.List[static_cast<std::size_t>(folder)];
    if (row.FileInfo.blnDeleted) return true;
    folder = Owner(row.ParentCluster);
  }
  return false;
}

}  // namespace brenlow
