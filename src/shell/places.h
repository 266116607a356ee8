// SPDX-License-Identifier: GPL-3.0-or-later
// The place that the file list shows, the history of such places, and the ways from one to another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "analysis/folders.h"
#include "core/types.h"
#include "shell/file_search.h"
#include "shell/snapshots.h"
#include "table/folder_index.h"

namespace brenlow {

class TEngine;

/// What the file list shows.
struct TShownPlace {
  enum TKind : std::uint8_t { Computer, Group, Folder, Search } Kind = Computer;
  std::int64_t GroupData = 0;  ///< `TTreeNode::Data` of a group
  TIntegerDynArray Chain;      ///< file numbers of a folder and those above it, the drive's first
  TFindOptions Options;        ///< of a search
  std::uint64_t Id = 0;        ///< of the visit, never used twice
  /// The file number of the folder; -1 for other places.
  int FolderNumber() const { return Chain.empty() ? -1 : Chain.back(); }
};

class TPlaces {
 public:
  explicit TPlaces(TEngine& engine) : FEngine(engine) {}

  /// Another place is shown, or another folder has taken the place of one that is gone.
  std::function<void()> OnChanged;

  const TShownPlace& Current() const { return FPlace; }
  TViewCategory Category() const;
  bool ShowsSearch() const { return FPlace.Kind == TShownPlace::Search; }
  /// The folder shown as a list of one file number; empty for other places.
  TIntegerDynArray CurrentAsList() const;
  /// Path, history and drive of the current place; the rows are left to the list.
  TPlaceSnapshot Snapshot() const;

  /// Shows all drives.
  void ShowComputer() { GoTo({}); }
  /// Shows what is in a node of the tree; null shows all drives.
  void SelectNode(PTreeNode node);
  /// The node of what is shown, or the one nearest to it that the tree has; null when all drives are shown.
  PTreeNode SelectedNode() const;
  /// Shows a folder or drive of the list, without analysing it.
  void ShowFolder(int fileNumber);
  /// Shows a drive of the registry, without analysing it.
  void ShowDrive(int drive);
  /// Shows the folder that a file lies in. False when there is none.
  bool ShowLocation(int fileNumber);
  void Find(TFindOptions options);
  void GoBack() { Step(FBack, FForward); }
  void GoForward() { Step(FForward, FBack); }
  void GoUp();
  /// The step of the path with that index, see `TPlaceSnapshot::Crumbs`.
  void GoToCrumb(std::size_t index);

  /// Path of the folder of a file, from its drive on.
  TString LocationOf(int fileNumber) const;
  /// The folder shown, or one above it, is deleted.
  bool IsDeleted() const;
  /// True when a folder above a file of the place, of a search or of the recovery list is deleted: the file counts as
  /// deleted as well.
  bool InDeletedFolder(int fileNumber) const;

  /// File numbers after rows of the file table went: `newNumbers[old]`. A folder that is gone gives way to the one
  /// above it.
  void MoveNumbers(const std::vector<std::uint32_t>& newNumbers);
  /// A node of the tree goes.
  void ForgetNode(const TTreeNode& node);

 private:
  void GoTo(TShownPlace place);
  void Step(std::vector<TShownPlace>& from, std::vector<TShownPlace>& to);
  TShownPlace FolderPlace(const TTreeNode* node) const;
  TIntegerDynArray ChainOf(int fileNumber) const;
  bool IsThere(const TShownPlace& place) const;

  TEngine& FEngine;
  TShownPlace FPlace;
  std::vector<TShownPlace> FBack;
  std::vector<TShownPlace> FForward;
  std::uint64_t FLastId = 0;
  mutable TFolderIndexCache FFolders;
};

}  // namespace brenlow
