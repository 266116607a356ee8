// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/actions.h"

#include "core/language.h"

namespace brenlow {
namespace {

struct TActionRow {
  std::string_view Name;
  TText Caption;
};

// In the order of `TAction`.
constexpr TActionRow Rows[] = {
    {"actMaster", TText::MenuMaster},
    {"actOpen", TText::MenuOpen},
    {"actReopen", TText::MenuReopen},
    {"actFoldersReopen", TText::MenuFoldersReopen},
    {"actStopAnalyse", TText::MenuStopAnalyse},
    {"actRecovery", TText::MenuRecovery},
    {"actFoldersRecovery", TText::MenuFoldersRecovery},
    {"actRecoveryFromList", TText::MenuRecoveryFromList},
    {"actAddToRecoveryList", TText::MenuAddToRecoveryList},
    {"actFindPartitions", TText::MenuFindPartitions},
    {"actFoldersFindPartitions", TText::MenuFoldersFindPartitions},
    {"actCreateVirtualPartition", TText::MenuCreateVirtualPartition},
    {"actFoldersCreateVirtualPartition", TText::MenuFoldersCreateVirtualPartition},
    {"actCreateImage", TText::MenuCreateImage},
    {"actFoldersCreateImage", TText::MenuFoldersCreateImage},
    {"actMountImage", TText::MenuMountImage},
    {"actFoldersMountImage", TText::MenuFoldersMountImage},
    {"actUnmountImage", TText::MenuUnmountImage},
    {"actCloseDisk", TText::MenuCloseDisk},
    {"actFoldersCloseDisk", TText::MenuFoldersCloseDisk},
    {"actProperties", TText::MenuProperties},
    {"actFoldersProperties", TText::MenuFoldersProperties},
    {"actRefresh", TText::MenuRefresh},
    {"actExpand", TText::MenuExpand},
    {"actSelectAll", TText::MenuSelectAll},
    {"actInvertSelection", TText::MenuInvertSelection},
    {"actFindFile", TText::MenuFindFile},
    {"actFoundFileLocation", TText::MenuFoundFileLocation},
    {"actWhere", TText::MenuWhere},
    {"actAddCustomFolder", TText::MenuAddCustomFolder},
    {"actSortByName", TText::MenuSortByName},
    {"actSortByType", TText::MenuSortByType},
    {"actSortBySize", TText::MenuSortBySize},
    {"actSortByFreeSize", TText::MenuSortByFreeSize},
    {"actSortByFileSystem", TText::MenuSortByFileSystem},
    {"actSortByStatus", TText::MenuSortByStatus},
    {"actSortByModified", TText::MenuSortByModified},
    {"actSortByCreated", TText::MenuSortByCreated},
    {"actSortAscending", TText::MenuSortAscending},
    {"actSortDescending", TText::MenuSortDescending},
    {"actFilterExisting", TText::MenuFilterExisting},
    {"actFilterDeleted", TText::MenuFilterDeleted},
    {"actFilterAllFiles", TText::MenuFilterAllFiles},
    {"actFilterArchive", TText::MenuFilterArchive},
    {"actFilterAudio", TText::MenuFilterAudio},
    {"actFilterDatabase", TText::MenuFilterDatabase},
    {"actFilterDocument", TText::MenuFilterDocument},
    {"actFilterImage", TText::MenuFilterImage},
    {"actFilterVideo", TText::MenuFilterVideo},
    {"actViewLargeIcons", TText::MenuViewLargeIcons},
    {"actViewIcons", TText::MenuViewIcons},
    {"actViewList", TText::MenuViewList},
    {"actViewDetails", TText::MenuViewDetails},
    {"actViewTile", TText::MenuViewTile},
    {"actFindFileBar", TText::MenuFindFileBar},
    {"actWhereBar", TText::MenuWhereBar},
    {"actImageBar", TText::MenuImageBar},
    {"actPreview", TText::MenuPreview},
    {"actRecoveryList", TText::MenuRecoveryList},
    {"actSettings", TText::MenuSettings},
    {"actHelp", TText::MenuHelp},
    {"actAbout", TText::MenuAbout},
    {"actExit", TText::MenuExit},
};
static_assert(std::size(Rows) == ActionCount);

}  // namespace

std::string_view NameOf(TAction action) { return Rows[static_cast<std::size_t>(action)].Name; }

TText CaptionOf(TAction action) { return Rows[static_cast<std::size_t>(action)].Caption; }

TActions CheckActionsEnabled(const TShellState& state) {
  using enum TAction;
  TActions actions;
  for (std::size_t i = 0; i < ActionCount; ++i) {
    if (IsWindowAction(static_cast<TAction>(i))) actions.Add(static_cast<TAction>(i));
  }
  const auto set = [&](TAction action, bool enabled) {
    if (enabled) actions.Add(action);
  };
  const bool idle = !state.Analysing && !state.Recovering && !state.Searching;
  const bool listDrive = idle && state.List.Drive >= 0;
  const bool treeDrive = idle && state.Tree.Drive >= 0;
  set(actStopAnalyse, state.Analysing || state.Searching);
  set(actMaster, idle);
  // Without a selection it is the place itself that can be opened.
  set(actOpen, (state.List.OneFolder && (idle || (!state.Recovering && state.List.OpensAtOnce))) ||
                   (idle && !state.List.Any && state.Tree.Blank));
  set(actReopen, idle && state.List.DriveAnalysed);
  set(actFoldersReopen, idle && state.Tree.DriveAnalysed);
  set(actRecovery, idle && state.List.Recoverable);
  set(actFoldersRecovery, idle && state.Tree.Recoverable);
  set(actRecoveryFromList, idle && state.RecoveryListShown && state.RecoveryListFiles > 0);
  set(actAddToRecoveryList, !state.Recovering && state.List.Recoverable);
  set(actFindPartitions, listDrive);
  set(actFoldersFindPartitions, treeDrive);
  set(actCreateVirtualPartition, listDrive);
  set(actFoldersCreateVirtualPartition, treeDrive);
  set(actCreateImage, listDrive);
  set(actFoldersCreateImage, treeDrive);
  set(actMountImage, idle);
  set(actFoldersMountImage, idle);
  set(actUnmountImage, idle && (state.List.Mounted || state.Tree.Mounted));
  set(actCloseDisk, idle && state.List.CanCloseDisk);
  set(actFoldersCloseDisk, idle && state.Tree.CanCloseDisk);
  set(actProperties, state.List.Number >= 0 || (!state.List.Any && state.Tree.Number >= 0));
  set(actFoldersProperties, state.Tree.Number >= 0);
  set(actRefresh, idle);
  set(actExpand, state.Tree.Any);
  set(actFindFile, true);
  set(actFoundFileLocation, state.ShowsSearch && state.List.Number >= 0);
  set(actWhere, idle);
  set(actAddCustomFolder, idle);
  for (const TAction action : {actSelectAll, actInvertSelection}) set(action, state.ShownFiles > 0);
  for (const TAction action : {actSortByName, actSortByType, actSortBySize, actSortAscending, actSortDescending}) {
    set(action, true);
  }
  for (const TAction action : {actSortByFreeSize, actSortByFileSystem}) set(action, state.ShowsDrives);
  for (const TAction action : {actSortByStatus, actSortByModified, actSortByCreated}) set(action, !state.ShowsDrives);
  for (auto i = static_cast<std::size_t>(actFilterExisting); i <= static_cast<std::size_t>(actFilterVideo); ++i) {
    actions.Add(static_cast<TAction>(i));
  }
  return actions;
}

}  // namespace brenlow
