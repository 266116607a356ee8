// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/actions.h"

#include "core/language.h"

namespace brenlow {

TActions CheckActionsEnabled(const TShellState& state) {
  using enum TAction;
  // What only changes the view is always there.
  TActions actions{
      actExpand,        actSelectAll,   actInvertSelection, actFilterExisting, actFilterDeleted, actFilterAllFiles,
      actFilterArchive, actFilterAudio, actFilterDatabase,  actFilterDocument, actFilterImage,   actFilterVideo,
      actExit};
  const auto set = [&](TAction action, bool enabled) {
    if (enabled) {
      actions.Add(action);
    } else {
      actions.Remove(action);
    }
  };
  const bool idle = !state.Analysing && !state.Recovering;
  set(actStopAnalyse, state.Analysing);
  set(actOpen, idle && state.List.OneFolder);
  set(actReopen, idle && state.List.DriveAnalysed);
  set(actFoldersReopen, idle && state.Tree.DriveAnalysed);
  set(actRecovery, idle && state.List.Recoverable);
  set(actFoldersRecovery, idle && state.Tree.Recoverable);
  set(actRecoveryFromList, idle && state.RecoveryListShown && state.RecoveryListFiles > 0);
  set(actAddToRecoveryList, idle && state.List.Recoverable);
  set(actMountImage, idle);
  set(actFoldersMountImage, idle);
  set(actUnmountImage, idle && (state.List.Mounted || state.Tree.Mounted));
  set(actCloseDisk, idle && state.List.CanCloseDisk);
  set(actFoldersCloseDisk, idle && state.Tree.CanCloseDisk);
  set(actRefresh, idle);
  set(actExpand, state.Tree.Any);
  set(actSelectAll, state.ShownFiles > 0);
  set(actInvertSelection, state.ShownFiles > 0);
  return actions;
}

TText CaptionOf(TAction action) {
  constexpr TText captions[] = {TText::MenuOpen,
                                TText::MenuReopen,
                                TText::MenuFoldersReopen,
                                TText::MenuStopAnalyse,
                                TText::MenuRecovery,
                                TText::MenuFoldersRecovery,
                                TText::MenuRecoveryFromList,
                                TText::MenuAddToRecoveryList,
                                TText::MenuMountImage,
                                TText::MenuFoldersMountImage,
                                TText::MenuUnmountImage,
                                TText::MenuCloseDisk,
                                TText::MenuFoldersCloseDisk,
                                TText::MenuRefresh,
                                TText::MenuExpand,
                                TText::MenuSelectAll,
                                TText::MenuInvertSelection,
                                TText::MenuFilterExisting,
                                TText::MenuFilterDeleted,
                                TText::MenuFilterAllFiles,
                                TText::MenuFilterArchive,
                                TText::MenuFilterAudio,
                                TText::MenuFilterDatabase,
                                TText::MenuFilterDocument,
                                TText::MenuFilterImage,
                                TText::MenuFilterVideo,
                                TText::MenuExit};
  static_assert(std::size(captions) == ActionCount);
  return captions[static_cast<std::size_t>(action)];
}

}  // namespace brenlow
