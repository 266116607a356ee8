// SPDX-License-Identifier: GPL-3.0-or-later
// What the file table tells the tree that shows it. The tree lies above the table, so the engine puts the two
// together (`TFiles::Tree`).
#pragma once

#include <cstdint>
#include <vector>

namespace brenlow {

class IFileTree {
 public:
  virtual ~IFileTree() = default;
  /// The analysis in hand has found one more folder.
  virtual void FolderFound() = 0;
  /// Shows a folder of the deep analysis at once, under the pseudo-folder of its drive.
  virtual void AddDeep(int fileNumber) = 0;
  /// Shows the pseudo-folder of the deep analysis, the row `fileNumber`: open with `canAddNil`, collapsed with
  /// `canCollapse`.
  virtual void ShowDeepDir(int driveNumber, int fileNumber, bool canAddNil, bool canCollapse) = 0;
  /// Drops all nodes of a drive's folders; its own node stays.
  virtual void FolderListCleared(int driveNumber) = 0;
  /// Drops the nodes of the deep analysis of a drive, but for the pseudo-folder.
  virtual void DeepListCleared(int driveNumber) = 0;
  /// Drops a drive's own node, and its group when that is left empty.
  virtual void DriveDeleted(int driveNumber) = 0;
  /// File numbers after rows of the file table went: `newNumbers[old]`.
  virtual void MoveNumbers(const std::vector<std::uint32_t>& newNumbers) = 0;
  /// True for the row of a folder of the host system that is offered as a starting point.
  virtual bool IsCustomFolder(int fileNumber) const = 0;
};

}  // namespace brenlow
