// SPDX-License-Identifier: GPL-3.0-or-later
// What the main window does, without a window: it puts places, rows, recoveries and jobs together, says which actions
// can be chosen, and carries them out.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "core/language.h"
#include "shell/actions.h"
#include "shell/file_view.h"
#include "shell/jobs.h"
#include "shell/places.h"
#include "shell/recoveries.h"
#include "shell/settings.h"

namespace brenlow {

/// What the commands ask the user.
class IShellQuestions {
 public:
  virtual ~IShellQuestions() = default;
  virtual bool StopAnalyse() = 0;
  /// An image file to mount; nothing when the user cancels.
  virtual std::optional<std::string> ImageFile() = 0;
};

class TCommands {
 public:
  /// Of the settings, the orders of the lists and what the recovery wizard remembers are taken.
  TCommands(TEngine& engine, const TSettings& settings, IShellQuestions& questions,
            IRecoveryQuestions& recoveryQuestions);
  ~TCommands();
  TCommands(const TCommands&) = delete;
  TCommands& operator=(const TCommands&) = delete;

  /// Shows the recovery wizard that was just made; when this returns it is over.
  std::function<void(TfRecoveryMaster&)> OnRecoveryMaster;
  /// Which actions can be chosen may have changed.
  std::function<void()> OnActionsChanged;
  /// The file list shows something else.
  std::function<void()> OnFileListChanged;
  /// Something else is selected, by other means than `TFileView::Select`.
  std::function<void()> OnSelectionChanged;
  std::function<void()> OnRecoveryListChanged;
  std::function<void()> OnDrivesChanged;
  /// What could not be done, and what the user can do about it.
  std::function<void(const std::string&)> OnComplaint;

  TPlaces& Places() { return FPlaces; }
  const TPlaces& Places() const { return FPlaces; }
  TFileView& View() { return FView; }
  const TFileView& View() const { return FView; }
  TRecoveries& Recoveries() { return FRecoveries; }
  const TRecoveries& Recoveries() const { return FRecoveries; }
  TJobs& Jobs() { return FJobs; }
  const TJobs& Jobs() const { return FJobs; }
  IShellQuestions& Questions() { return FQuestions; }

  TShellState State() const;
  TActions EnabledActions() const { return CheckActionsEnabled(State()); }
  /// Carries an action out. False when it cannot be chosen now, when it fails, or when it is the window's own.
  bool Execute(TAction action);
  /// Shows a node; what shows nothing without an analysis is analysed first.
  void OpenNode(PTreeNode node);
  /// Shows the folder that a file lies in and selects the file.
  void ShowLocation(int fileNumber);
  /// What the file list shows.
  TPlaceSnapshot Place() const;
  void ChangeLanguage(TLanguage language);
  /// The drive of a file, -1 for a wrong number; and its node in the tree, null when it has none.
  int DriveOf(int fileNumber) const;
  PTreeNode DriveNode(int drive) const;
  /// Makes the node shown openable: its children get theirs.
  void FillSelectedNode();
  void StopScans();
  /// A selection as the actions see it.
  TSelectionState StateOf(const TIntegerDynArray& fileNumbers) const;
  /// Tells the window that the selection was changed from here.
  void TellSelection() const;

 private:
  void ConnectParts();
  void ConnectEngine();

  TEngine& FEngine;
  IShellQuestions& FQuestions;
  TPlaces FPlaces;
  TFileView FView;
  TRecoveries FRecoveries;
  TJobs FJobs;
};

}  // namespace brenlow
