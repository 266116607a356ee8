// SPDX-License-Identifier: GPL-3.0-or-later
// The actions of the main window and when each of them can be chosen.
#pragma once

#include <cstdint>

#include "core/types.h"

namespace brenlow {

enum class TText : std::uint16_t;

/// Those with `Folders` in their names act on the node selected in the tree, the others on the
/// selection in the file list.
enum class TAction : std::uint8_t {
  actOpen,
  actReopen,
  actFoldersReopen,
  actStopAnalyse,
  actRecovery,
  actFoldersRecovery,
  actRecoveryFromList,
  actAddToRecoveryList,
  actMountImage,
  actFoldersMountImage,
  actUnmountImage,
  actCloseDisk,
  actFoldersCloseDisk,
  actRefresh,
  actExpand,
  actSelectAll,
  actInvertSelection,
  actFilterExisting,
  actFilterDeleted,
  actFilterAllFiles,
  actFilterArchive,
  actFilterAudio,
  actFilterDatabase,
  actFilterDocument,
  actFilterImage,
  actFilterVideo,
  actExit,
};
inline constexpr std::size_t ActionCount = static_cast<std::size_t>(TAction::actExit) + 1;
using TActions = TEnumSet<TAction, std::uint64_t>;

/// What the actions ask of a selection, in the list or in the tree.
struct TSelectionState {
  bool Any = false;            ///< something that may be acted on
  bool OneFolder = false;      ///< one folder or drive, which can be opened
  bool Recoverable = false;    ///< files or folders of an analysed drive
  bool DriveAnalysed = false;  ///< its drive has results that can be made anew
  bool CanCloseDisk = false;   ///< holds a drive that may be taken off the list
  bool Mounted = false;        ///< holds a mounted image
};

/// All that decides which actions can be chosen, as plain values.
struct TShellState {
  bool Analysing = false;
  bool Recovering = false;
  TSelectionState List;
  TSelectionState Tree;
  int ShownFiles = 0;  ///< rows in the file list
  bool RecoveryListShown = false;
  int RecoveryListFiles = 0;
};

/// While a scan or a recovery runs, whatever could touch drives or files is off; stopping a scan is
/// possible only then.
TActions CheckActionsEnabled(const TShellState& state);

/// The caption of an action.
TText CaptionOf(TAction action);

}  // namespace brenlow
