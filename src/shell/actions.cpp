// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/actions.h"

#include "core/language.h"

namespace brenlow {
namespace {

// ---- when an action can be chosen -----------------------------------------------------------

bool Always(const TShellState&) { return true; }
bool IsIdle(const TShellState& state) { return !state.Analysing && !state.Recovering && !state.Searching; }
bool IsStoppable(const TShellState& state) { return state.Analysing || state.Searching; }

/// Without a selection it is the place itself that can be opened.
bool CanOpen(const TShellState& state) {
  if (!state.List.Any) return IsIdle(state) && state.Tree.Blank;
  return state.List.OneFolder && (IsIdle(state) || (!state.Recovering && state.List.OpensAtOnce));
}

bool CanReopen(const TShellState& state) { return IsIdle(state) && state.List.DriveAnalysed; }
bool CanReopenTree(const TShellState& state) { return IsIdle(state) && state.Tree.DriveAnalysed; }
bool CanRecover(const TShellState& state) { return IsIdle(state) && state.List.Recoverable; }
bool CanRecoverTree(const TShellState& state) { return IsIdle(state) && state.Tree.Recoverable; }
bool CanRecoverList(const TShellState& state) {
  return IsIdle(state) && state.RecoveryListShown && state.RecoveryListFiles > 0;
}
bool CanPutOnList(const TShellState& state) { return !state.Recovering && state.List.Recoverable; }
bool HasDrive(const TShellState& state) { return IsIdle(state) && state.List.Drive >= 0; }
bool HasTreeDrive(const TShellState& state) { return IsIdle(state) && state.Tree.Drive >= 0; }
bool CanUnmount(const TShellState& state) { return IsIdle(state) && (state.List.Mounted || state.Tree.Mounted); }
bool CanClose(const TShellState& state) { return IsIdle(state) && state.List.CanCloseDisk; }
bool CanCloseTree(const TShellState& state) { return IsIdle(state) && state.Tree.CanCloseDisk; }
bool HasTreeProperties(const TShellState& state) { return state.Tree.Number >= 0; }
bool HasProperties(const TShellState& state) {
  return state.List.Number >= 0 || (!state.List.Any && HasTreeProperties(state));
}
bool HasNode(const TShellState& state) { return state.Tree.Any; }
bool HasRows(const TShellState& state) { return state.ShownFiles > 0; }
bool HasFound(const TShellState& state) { return state.ShowsSearch && state.List.Number >= 0; }
bool ShowsDrives(const TShellState& state) { return state.ShowsDrives; }
bool ShowsFiles(const TShellState& state) { return !state.ShowsDrives; }

constexpr TActionInfo Infos[] = {
#define BRENLOW_ACTION(id, caption, icon, key, look, when, order, run) \
  {TAction::id, #id, TText::caption, icon, key, TActionLook::look, when, TActionOrder::order},
#include "shell/actions.inc"
#undef BRENLOW_ACTION
};

}  // namespace

const TActionInfo& InfoOf(TAction action) { return Infos[static_cast<std::size_t>(action)]; }

TActions CheckActionsEnabled(const TShellState& state) {
  TActions actions;
  for (const TActionInfo& info : Infos) {
    if (info.IsEnabled(state)) actions.Add(info.Action);
  }
  return actions;
}

}  // namespace brenlow
