// SPDX-License-Identifier: GPL-3.0-or-later
// How far an analysis looks for folders that nothing leads to.
#pragma once

namespace brenlow {

/// Whether an analysis looks through free clusters for folders that no entry leads to any more.
enum class TLostFolderSearch {
  Never,
  /// On a volume without a live file (it was formatted or emptied), for the rest of deleted folders
  /// that were longer than one cluster, and wherever it is a matter of seconds.
  WhenNeeded,
  Always,
};

}  // namespace brenlow
