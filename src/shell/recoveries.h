// SPDX-License-Identifier: GPL-3.0-or-later
// What is recovered from the window: the recovery list, and the runs of the wizard.
#pragma once

#include <functional>
#include <map>

#include "core/types.h"
#include "recovery/recovery_list.h"
#include "recovery/recovery_types.h"
#include "shell/file_order.h"

namespace brenlow {

class IRecoveryQuestions;
class TEngine;
class TFileView;
class TPlaces;
class TfRecoveryMaster;

class TRecoveries {
 public:
  TRecoveries(TEngine& engine, const TPlaces& places, const TFileView& view, IRecoveryQuestions& questions)
      : FEngine(engine), FPlaces(places), FView(view), FQuestions(questions), FList(engine) {}

  /// Shows the wizard that was just made; when this returns it is over.
  std::function<void(TfRecoveryMaster&)> OnMaster;
  /// The recovery list has changed, or its order.
  std::function<void()> OnListChanged;
  /// A recovery begins or ends, or the panel of the list is shown or hidden.
  std::function<void()> OnStateChanged;

  /// What the wizard remembers from run to run.
  TRecoverySettings Settings;

  // ---- the recovery list ----
  const TRecoveryList& List() const { return FList; }
  /// Its files in the order of its panel.
  TIntegerDynArray SortedList() const;
  /// Columns as those of the file list.
  void SortList(int column, bool descending);
  void SetOrder(TSortOrder order) { FOrder = order; }
  bool IsListShown() const { return FListShown; }
  void ShowList(bool shown);
  /// Puts files on the list or takes them off it. Drives are recovered as a whole from the tree: they stay out.
  void PutOnList(const TIntegerDynArray& fileNumbers, bool on);
  /// The analysis of a drive goes, or its deep analysis only.
  void ClearFiles(int drive) { FList.ClearFiles(drive); }
  void ClearDeepFiles(int drive) { FList.ClearDeepFiles(drive); }
  /// File numbers after rows of the file table went: `newNumbers[old]`.
  void MoveNumbers(const std::vector<std::uint32_t>& newNumbers);

  // ---- recoveries ----
  bool IsRunning() const { return FRunning; }
  /// What a sender has selected.
  TSelectedFiles GetSelectedFiles(TRecoverySender sender) const;
  /// Runs the wizard for what a sender has selected.
  void Run(TRecoverySender sender);
  void ChangeRecoveringStatus(bool status);

 private:
  class TSelectionLink;
  void AddSelected(int number, bool filtered, TSelectedFiles& selected) const;
  std::map<int, TString> DriveFolders(const TSelectedFiles& selected) const;

  TEngine& FEngine;
  const TPlaces& FPlaces;
  const TFileView& FView;
  IRecoveryQuestions& FQuestions;
  TRecoveryList FList;
  TSortOrder FOrder;
  bool FListShown = false;
  bool FRunning = false;
};

}  // namespace brenlow
