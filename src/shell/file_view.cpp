// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/file_view.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <unordered_set>
#include <utility>

#include "core/drives.h"
#include "core/engine.h"
#include "shell/places.h"
#include "shell/settings.h"
#include "table/files.h"

namespace brenlow {
namespace {

// The order of the columns, which is what the settings remember.
constexpr TSortKey FileColumns[] = {TSortKey::Name,   TSortKey::Type,     TSortKey::Size,
                                    TSortKey::Status, TSortKey::Modified, TSortKey::Created};
constexpr TSortKey DriveColumns[] = {TSortKey::Name, TSortKey::Type, TSortKey::Size, TSortKey::FreeSize,
                                     TSortKey::FileSystem};

TSortOrder OrderOf(std::span<const TSortKey> columns, int column, int revers) {
  const bool exists = column >= 0 && column < static_cast<int>(columns.size());
  return {columns[exists ? static_cast<std::size_t>(column) : 0], revers == 0};
}

int ColumnOf(std::span<const TSortKey> columns, TSortKey key) {
  return static_cast<int>(std::find(columns.begin(), columns.end(), key) - columns.begin());
}

std::span<const TSortKey> Columns(bool ofDrives) {
  return ofDrives ? std::span<const TSortKey>(DriveColumns) : std::span<const TSortKey>(FileColumns);
}

}  // namespace

TSortOrder FileOrderOf(int column, int revers) { return OrderOf(FileColumns, column, revers); }

TFileView::TFileView(TEngine& engine, const TPlaces& places, const TSettings& settings)
    : FEngine(engine),
      FPlaces(places),
      FFileOrder(OrderOf(FileColumns, settings.FileList.SortIndex, settings.FileList.SortRevers)),
      FDriveOrder(OrderOf(DriveColumns, settings.FileListDisks.SortIndex, settings.FileListDisks.SortRevers)) {}

bool TFileView::ShowsDrives() const { return FPlaces.Category() == TViewCategory::vcDrives; }

// ---- selection ------------------------------------------------------------------------------

void TFileView::Select(TIntegerDynArray fileNumbers) {
  FSelected = std::move(fileNumbers);
  if (OnSelected) OnSelected();
}

void TFileView::InvertSelection() {
  const std::unordered_set<int> selected(FSelected.begin(), FSelected.end());
  TIntegerDynArray inverted;
  std::copy_if(FShown->begin(), FShown->end(), std::back_inserter(inverted),
               [&](int number) { return !selected.contains(number); });
  Select(std::move(inverted));
}

// ---- filter and order -----------------------------------------------------------------------

/// Existing and deleted are switches of their own; a kind and "all files" exclude each other.
bool TFileView::ApplyFilter(TAction action) {
  if (action < TAction::actFilterExisting || action > TAction::actFilterVideo) return false;
  bool anyKind = false;
  for (const auto& [fieldAction, field] : FilterActions) {
    if (IsKindFilter(fieldAction) && action == TAction::actFilterAllFiles) FFilter.*field = false;
    if (fieldAction == action && action != TAction::actFilterAllFiles) FFilter.*field = !(FFilter.*field);
    anyKind = anyKind || (IsKindFilter(fieldAction) && FFilter.*field);
  }
  FFilter.AllFiles = !anyKind;
  Refresh();
  return true;
}

bool TFileView::ApplySort(TAction action) {
  for (const auto& [keyAction, key] : SortActions) {
    if (action != keyAction) continue;
    Sort({key, Order().Descending});
    return true;
  }
  if (action != TAction::actSortAscending && action != TAction::actSortDescending) return false;
  Sort({Order().Key, action == TAction::actSortDescending});
  return true;
}

void TFileView::Sort(TSortOrder order) {
  Order() = order;
  Rebuild();
}

void TFileView::SortByColumn(int column) {
  const std::span<const TSortKey> columns = Columns(ShowsDrives());
  if (column < 0 || column >= static_cast<int>(columns.size())) return;
  const TSortKey key = columns[static_cast<std::size_t>(column)];
  Sort({key, key == Order().Key && !Order().Descending});
}

// ---- rows -----------------------------------------------------------------------------------

void TFileView::AddFiltered(int number, bool parentDeleted, TIntegerDynArray& numbers) {
  if (FEngine.Files().IsFiltered(number, parentDeleted, FFilter)) {
    numbers.push_back(number);
  } else {
    ++FHidden;
  }
}

/// The drives inside a drive, and what the folder holds.
void TFileView::AddFolder(const TShownPlace& place, TIntegerDynArray& numbers) {
  const TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(place.FolderNumber())) return;
  const TFileInfo& folder = files.List[static_cast<std::size_t>(place.FolderNumber())].FileInfo;
  const TDrives& drives = FEngine.Drives();
  if (TFiles::IsRootDir(folder) && !drives.IsWrongNumber(folder.aDriveNumber)) {
    for (const int sub : drives.List[static_cast<std::size_t>(folder.aDriveNumber)].SubDrives) {
      const TTreeNode* node = FEngine.Folders().GetDriveRootNode(sub);
      if (node != nullptr) numbers.push_back(static_cast<int>(node->Data));
    }
  }
  const bool deleted = FPlaces.IsDeleted();
  for (const std::int64_t number : drives.GetParentClusters(folder.aDriveNumber, folder.FirstCluster)) {
    AddFiltered(static_cast<int>(number), deleted, numbers);
  }
}

TIntegerDynArray TFileView::NumbersOf(const TShownPlace& place) {
  TIntegerDynArray numbers;
  FHidden = 0;
  const auto addDrives = [&](const TTreeNode& group) {
    for (const auto& child : group.Children) {
      if (!FEngine.Files().IsWrongNumber(child->Data)) numbers.push_back(static_cast<int>(child->Data));
    }
  };
  switch (place.Kind) {
    case TShownPlace::Computer:
      for (const auto& group : FEngine.Folders().Root().Children) {
        if (group->Data != TFolders::GroupData(TRootGroup::CustomFolders)) addDrives(*group);
      }
      break;
    case TShownPlace::Group:
      if (const TTreeNode* group = FEngine.Folders().GetRootGroupNode(place.GroupData); group != nullptr) {
        addDrives(*group);
      }
      break;
    case TShownPlace::Folder:
      AddFolder(place, numbers);
      break;
    case TShownPlace::Search:
      for (const int number : FindFiles(FEngine, place.Options)) {
        AddFiltered(number, FPlaces.InDeletedFolder(number), numbers);
      }
      break;
  }
  return numbers;
}

/// Rises with the content of the folder shown; 0 where no folder is shown.
std::uint64_t TFileView::FolderVersion() const {
  const TFiles& files = FEngine.Files();
  const int number = FPlaces.Current().FolderNumber();
  if (files.IsWrongNumber(number)) return 0;
  const TFileInfo& folder = files.List[static_cast<std::size_t>(number)].FileInfo;
  const TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(folder.aDriveNumber)) return 0;
  return drives.List[static_cast<std::size_t>(folder.aDriveNumber)].ParentClusters.Version(folder.FirstCluster);
}

bool TFileView::HasGrown() const {
  return FPlaces.Current().Kind == TShownPlace::Folder && FolderVersion() != FShownVersion;
}

void TFileView::Rebuild() {
  TIntegerDynArray numbers = NumbersOf(FPlaces.Current());
  SortFiles(FEngine, numbers, Order());
  FShown = std::make_shared<const TIntegerDynArray>(std::move(numbers));
  FShownVersion = FolderVersion();
  const TFiles& files = FEngine.Files();
  const int folder = FPlaces.Current().FolderNumber();
  if (!files.IsWrongNumber(folder)) {
    const int drive = files.List[static_cast<std::size_t>(folder)].FileInfo.aDriveNumber;
    if (!FEngine.Drives().IsWrongNumber(drive)) FEngine.Drives().Current = drive;
  }
  if (OnChanged) OnChanged();
}

void TFileView::Refresh() {
  FSelected.clear();
  Rebuild();
}

void TFileView::Describe(TPlaceSnapshot& place) const {
  const bool drives = ShowsDrives();
  place.Listing = {FGeneration, FShown};
  place.Sort = drives ? FDriveOrder : FFileOrder;
  place.SortColumn = ColumnOf(Columns(drives), place.Sort.Key);
  place.Hidden = FHidden;
}

}  // namespace brenlow
