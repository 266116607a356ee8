// SPDX-License-Identifier: GPL-3.0-or-later
// From a place in a file system to the folder row that shows it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>

#include "core/types.h"

namespace brenlow {

class TFiles;

/// Several folder rows of a drive may share one content, as when a live folder has taken the place
/// of a deleted one. The content is shown once: under the first live row, or the first of all.
class TFolderIndex {
 public:
  TFolderIndex(const TFiles& files, int driveNumber);
  /// The row that shows the content of `firstCluster`, -1 when no folder has it.
  int Owner(std::int64_t firstCluster) const;
  /// True when a folder above the row is deleted: what lies there counts as deleted as well.
  bool InDeletedFolder(const TFiles& files, int fileNumber) const;
  /// The rows of the folders above a row, the topmost first.
  TIntegerDynArray FoldersAbove(const TFiles& files, int fileNumber) const;

 private:
  template <typename TVisit>
  void Climb(const TFiles& files, int fileNumber, TVisit&& visit) const;

  std::unordered_map<std::int64_t, int> FOwners;
};

/// Keeps the index of each drive while the number of rows stays the same: building one visits every row.
class TFolderIndexCache {
 public:
  const TFolderIndex& Of(const TFiles& files, int driveNumber);
  /// The rows have changed their numbers.
  void Clear() { FIndexes.clear(); }

 private:
  std::map<int, std::unique_ptr<TFolderIndex>> FIndexes;  // by drive
  std::size_t FRows = 0;
};

}  // namespace brenlow
