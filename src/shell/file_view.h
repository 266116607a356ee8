// SPDX-License-Identifier: GPL-3.0-or-later
// The rows of the file list: what the current place holds and the filter passes, in the order chosen, and which of
// them are selected.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "core/file_records.h"
#include "core/types.h"
#include "shell/actions.h"
#include "shell/file_order.h"
#include "shell/snapshots.h"

namespace brenlow {

class TEngine;
class TPlaces;
struct TSettings;
struct TShownPlace;

class TFileView {
 public:
  /// The order is the one that the settings remember.
  TFileView(TEngine& engine, const TPlaces& places, const TSettings& settings);

  /// The rows are others, or in another order.
  std::function<void()> OnChanged;
  /// Other rows are selected.
  std::function<void()> OnSelected;

  const TIntegerDynArray& Files() const { return *FShown; }
  const TIntegerDynArray& Selected() const { return FSelected; }
  void Select(TIntegerDynArray fileNumbers);
  void SelectAll() { Select(*FShown); }
  void InvertSelection();
  const TFileFilter& Filter() const { return FFilter; }
  /// Flips a switch of the filter. False for an action of another kind.
  bool ApplyFilter(TAction action);
  /// False for an action that does not sort.
  bool ApplySort(TAction action);
  void Sort(TSortOrder order);
  /// A click on the head of a column: sorts by it, the second time in the other direction.
  void SortByColumn(int column);
  /// Rebuilds the rows; the selection stays.
  void Rebuild();
  /// The same with nothing selected.
  void Refresh();
  /// Whether the scan that runs has brought something new into what is shown.
  bool HasGrown() const;
  /// Adds rows, order and what the filter hides to the snapshot of a place.
  void Describe(TPlaceSnapshot& place) const;

  /// Rises whenever file numbers change their meaning.
  std::uint64_t Generation() const { return FGeneration; }
  void NextGeneration() { ++FGeneration; }

 private:
  TIntegerDynArray NumbersOf(const TShownPlace& place);
  void AddFolder(const TShownPlace& place, TIntegerDynArray& numbers);
  void AddFiltered(int number, bool parentDeleted, TIntegerDynArray& numbers);
  std::uint64_t FolderVersion() const;
  bool ShowsDrives() const;
  TSortOrder& Order() { return ShowsDrives() ? FDriveOrder : FFileOrder; }

  TEngine& FEngine;
  const TPlaces& FPlaces;
  TFileFilter FFilter;
  TSortOrder FFileOrder;
  TSortOrder FDriveOrder;
  std::shared_ptr<const TIntegerDynArray> FShown = std::make_shared<const TIntegerDynArray>();
  std::uint64_t FShownVersion = 0;  // of the folder's content
  int FHidden = 0;                  // rows that the filter hides
  TIntegerDynArray FSelected;
  std::uint64_t FGeneration = 1;
};

/// The order for the number of a column and the settings' key SortRevers, where 1 is ascending.
TSortOrder FileOrderOf(int column, int revers);

}  // namespace brenlow
