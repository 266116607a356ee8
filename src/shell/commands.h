// SPDX-License-Identifier: GPL-3.0-or-later
// What the main window does, without a window: selection, filters, and every action as a command on
// the engine.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "analysis/folders.h"
#include "core/file_records.h"
#include "recovery/recovery_list.h"
#include "recovery/recovery_types.h"
#include "shell/actions.h"
#include "shell/settings.h"

namespace brenlow {

class IRecoveryQuestions;
class TEngine;
class TfRecoveryMaster;

/// What the commands ask the user.
class IShellQuestions {
 public:
  virtual ~IShellQuestions() = default;
  virtual bool StopAnalyse() = 0;
  /// An image file to mount; nothing when the user thinks better of it.
  virtual std::optional<std::string> ImageFile() = 0;
};

class TCommands {
 public:
  TCommands(TEngine& engine, TSettings& settings, IShellQuestions& questions, IRecoveryQuestions& recoveryQuestions);
  ~TCommands();
  TCommands(const TCommands&) = delete;
  TCommands& operator=(const TCommands&) = delete;

  /// The wizard is made and wants to be shown; when this returns it is over.
  std::function<void(TfRecoveryMaster&)> OnRecoveryMaster;
  /// Which actions can be chosen may have changed.
  std::function<void(const TActions&)> OnActionsChanged;
  /// The file list shows something else.
  std::function<void()> OnFileListChanged;
  std::function<void()> OnExit;

  // ---- what is shown and selected ----
  /// Fills the list of drives and puts them into the tree.
  void FillDrives();
  /// Selects a node of the tree; the file list shows what is in it.
  void SelectNode(PTreeNode node);
  PTreeNode SelectedNode() const { return FNode; }
  /// The rows of the file list: what the selected node holds and the filter passes.
  const TIntegerDynArray& ShownFiles() const { return FShown; }
  void SelectFiles(TIntegerDynArray fileNumbers);
  const TIntegerDynArray& SelectedFiles() const { return FSelected; }
  const TFileFilter& Filter() const { return FFilter; }
  TRecoveryList& RecoveryList() { return FRecoveryList; }
  void ShowRecoveryList(bool shown);

  // ---- commands ----
  TShellState State() const;
  TActions EnabledActions() const { return CheckActionsEnabled(State()); }
  /// Carries an action out. False when it cannot be chosen now.
  bool Execute(TAction action);
  /// The one way in which a drive or a folder node is analysed. `isReopen` throws its results away
  /// first.
  bool Analyse(PTreeNode node, bool isReopen);
  /// Mounts an image and shows it; its drive number, or -1.
  int Mount(const std::string& path);
  void ChangeRecoveringStatus(bool status);
  /// The selection of a sender, for the recovery.
  TSelectedFiles GetSelectedFiles(TRecoverySender sender) const;

 private:
  void Changed();
  void RefreshFileList();
  void NodeGone(const TTreeNode& node);
  TSelectionState StateOf(const TIntegerDynArray& fileNumbers) const;
  bool ExecuteFilter(TAction action);
  void Open();
  void CloseDisks(const TIntegerDynArray& fileNumbers, bool onlyMounted);
  void Recover(TRecoverySender sender);
  TIntegerDynArray NodeAsList() const;

  TEngine& FEngine;
  TSettings& FSettings;
  IShellQuestions& FQuestions;
  IRecoveryQuestions& FRecoveryQuestions;
  TRecoveryList FRecoveryList;
  TFileFilter FFilter;
  PTreeNode FNode = nullptr;
  TIntegerDynArray FShown;
  TIntegerDynArray FSelected;
  bool FRecoveryListShown = false;
  bool FRecovering = false;
};

}  // namespace brenlow
