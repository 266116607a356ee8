// SPDX-License-Identifier: GPL-3.0-or-later
// From a place in a file system to the folder row that shows it.
#pragma once

#include <cstdint>
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

 private:
  std::unordered_map<std::int64_t, int> FOwners;
};

}  // namespace brenlow
