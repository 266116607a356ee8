// SPDX-License-Identifier: GPL-3.0-or-later
// What the file list shows: places, their history, and the rows in their order.
#include <algorithm>
#include <span>
#include <unordered_set>

#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "shell/commands.h"
#include "shell/entries.h"
#include "table/files.h"
#include "table/folder_index.h"

namespace brenlow {
namespace {

constexpr std::size_t MostHistory = 100;

// The order of the columns, which is what the settings remember.
constexpr TSortKey FileColumns[] = {TSortKey::Name,   TSortKey::Type,     TSortKey::Size,
                                    TSortKey::Status, TSortKey::Modified, TSortKey::Created};
constexpr TSortKey DriveColumns[] = {TSortKey::Name, TSortKey::Type, TSortKey::Size, TSortKey::FreeSize,
                                     TSortKey::FileSystem};

/// In the settings 1 stands for ascending.
TSortOrder OrderOf(std::span<const TSortKey> columns, int index, int revers) {
  const bool known = index >= 0 && index < static_cast<int>(columns.size());
  return {columns[known ? static_cast<std::size_t>(index) : 0], revers == 0};
}

int ColumnOf(std::span<const TSortKey> columns, TSortKey key) {
  return static_cast<int>(std::find(columns.begin(), columns.end(), key) - columns.begin());
}

}  // namespace

void TCommands::GoTo(TShownPlace place) {
  if (IsThere(FPlace) && FPlace.Id != 0) FBack.push_back(std::move(FPlace));
  if (FBack.size() > MostHistory) FBack.erase(FBack.begin());
  FForward.clear();
  place.Id = ++FLastPlaceId;
  FPlace = std::move(place);
  RefreshFileList();
}

void TCommands::ShowComputer() { GoTo({}); }

TShownPlace TCommands::FolderPlace(const TTreeNode* node) const {
  TShownPlace place;
  place.Kind = TShownPlace::Folder;
  for (; node != nullptr && !FEngine.Files().IsWrongNumber(node->Data); node = node->Parent) {
    place.Chain.insert(place.Chain.begin(), static_cast<int>(node->Data));
  }
  return place;
}

void TCommands::SelectNode(PTreeNode node) {
  if (node == nullptr) {
    ShowComputer();
  } else if (FEngine.Files().IsWrongNumber(node->Data)) {
    TShownPlace place;
    place.Kind = TShownPlace::Group;
    place.GroupData = node->Data;
    GoTo(std::move(place));
  } else {
    GoTo(FolderPlace(node));
  }
}

PTreeNode TCommands::SelectedNode() const {
  TFolders& folders = FEngine.Folders();
  if (FPlace.Kind == TShownPlace::Group) return folders.GetRootGroupNode(FPlace.GroupData);
  if (FPlace.Kind != TShownPlace::Folder || FPlace.Chain.empty()) return nullptr;
  PTreeNode node = folders.NodeOf(FPlace.Chain.front());
  for (std::size_t i = 1; i < FPlace.Chain.size() && node != nullptr; ++i) {
    const auto child = [&] {
      return std::find_if(node->Children.begin(), node->Children.end(),
                          [&](const auto& c) { return c->Data == FPlace.Chain[i]; });
    };
    // The tree is filled one level ahead of what is open; a running scan still adds to it.
    const bool inDrive = !FEngine.Files().IsWrongNumber(node->Parent->Data);
    if (child() == node->Children.end() && inDrive && !FEngine.Analysing) folders.FillNodes(node->Parent, false);
    if (child() == node->Children.end()) break;
    node = child()->get();
  }
  return node;
}

void TCommands::ShowFolder(int fileNumber) {
  const TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(fileNumber)) return;
  const TFileInfo& info = files.List[static_cast<std::size_t>(fileNumber)].FileInfo;
  if (!info.blnFolder) return;
  if (TFiles::IsRootDir(info) || files.IsCustomFolder(fileNumber)) {
    if (PTreeNode node = FEngine.Folders().NodeOf(fileNumber); node != nullptr) SelectNode(node);
    return;
  }
  TShownPlace place;
  place.Kind = TShownPlace::Folder;
  place.Chain = FPlace.Kind == TShownPlace::Folder ? FPlace.Chain : ChainOf(fileNumber);
  if (FPlace.Kind == TShownPlace::Folder) place.Chain.push_back(fileNumber);
  if (!place.Chain.empty()) GoTo(std::move(place));
}

void TCommands::ShowDrive(int drive) {
  if (PTreeNode node = FEngine.Folders().GetDriveRootNode(drive); node != nullptr) SelectNode(node);
}

/// Kept as long as the table stays as it is: making it takes a look at every row.
const TFolderIndex& TCommands::FolderIndex(int drive) const {
  const std::pair<std::uint64_t, std::size_t> state{FGeneration, FEngine.Files().List.size()};
  if (state != FFolderIndexState) FFolderIndexes.clear();
  FFolderIndexState = state;
  auto& index = FFolderIndexes[drive];
  if (!index) index = std::make_unique<TFolderIndex>(FEngine.Files(), drive);
  return *index;
}

/// The folders that lead to a file, the drive's own row first, and the file itself.
TIntegerDynArray TCommands::ChainOf(int fileNumber) {
  const TFiles& files = FEngine.Files();
  const int drive = files.List[static_cast<std::size_t>(fileNumber)].FileInfo.aDriveNumber;
  const TFolderIndex& index = FolderIndex(drive);
  TIntegerDynArray chain;
  // Damaged folders may lie within each other.
  std::unordered_set<int> seen;
  for (int at = fileNumber; at >= 0 && seen.insert(at).second;) {
    chain.insert(chain.begin(), at);
    const std::int64_t parent = files.List[static_cast<std::size_t>(at)].ParentCluster;
    if (parent == SpecialCluster::Root) break;
    at = index.Owner(parent);
  }
  const TShownPlace top = FolderPlace(FEngine.Folders().GetDriveRootNode(drive));
  chain.insert(chain.begin(), top.Chain.begin(), top.Chain.end());
  return chain;
}

/// The folder in view, or one above it, is deleted.
bool TCommands::PlaceIsDeleted() const {
  const TFiles& files = FEngine.Files();
  return std::any_of(FPlace.Chain.begin(), FPlace.Chain.end(), [&](int number) {
    return !files.IsWrongNumber(number) && files.List[static_cast<std::size_t>(number)].FileInfo.blnDeleted;
  });
}

bool TCommands::InDeletedFolder(int fileNumber) const {
  const TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(fileNumber)) return false;
  const TFile& file = files.List[static_cast<std::size_t>(fileNumber)];
  if (!files.IsWrongNumber(PlaceFolder())) {
    const TFileInfo& folder = files.List[static_cast<std::size_t>(PlaceFolder())].FileInfo;
    const bool inView = file.ParentCluster == folder.FirstCluster && file.FileInfo.aDriveNumber == folder.aDriveNumber;
    if (inView) return PlaceIsDeleted();
  }
  return FolderIndex(file.FileInfo.aDriveNumber).InDeletedFolder(files, fileNumber);
}

TString TCommands::LocationOf(int fileNumber) {
  if (FEngine.Files().IsWrongNumber(fileNumber)) return {};
  TString path;
  TIntegerDynArray chain = ChainOf(fileNumber);
  if (!chain.empty()) chain.pop_back();
  for (const int number : chain) {
    if (!path.empty()) path += u'/';
    path += FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo.strName;
  }
  return path;
}

void TCommands::ShowLocation(int fileNumber) {
  if (FEngine.Files().IsWrongNumber(fileNumber)) return;
  TShownPlace place;
  place.Kind = TShownPlace::Folder;
  place.Chain = ChainOf(fileNumber);
  if (!place.Chain.empty()) place.Chain.pop_back();
  if (place.Chain.empty()) return;
  GoTo(std::move(place));
  SelectFiles({fileNumber});
  if (OnSelectionChanged) OnSelectionChanged();
}

void TCommands::Find(TFindOptions options) {
  TShownPlace place;
  place.Kind = TShownPlace::Search;
  place.Options = std::move(options);
  GoTo(std::move(place));
}

void TCommands::GoBack() {
  if (FBack.empty()) return;
  FForward.push_back(std::move(FPlace));
  FPlace = std::move(FBack.back());
  FBack.pop_back();
  RefreshFileList();
}

void TCommands::GoForward() {
  if (FForward.empty()) return;
  FBack.push_back(std::move(FPlace));
  FPlace = std::move(FForward.back());
  FForward.pop_back();
  RefreshFileList();
}

void TCommands::GoUp() {
  if (FPlace.Kind == TShownPlace::Computer) return;
  const std::size_t steps = FPlace.Kind == TShownPlace::Folder ? FPlace.Chain.size() : 1;
  GoToCrumb(steps - 1);
}

void TCommands::GoToCrumb(std::size_t index) {
  if (index == 0) {
    ShowComputer();
  } else if (FPlace.Kind == TShownPlace::Folder && index <= FPlace.Chain.size()) {
    TShownPlace place = FPlace;
    place.Chain.resize(index);
    GoTo(std::move(place));
  }
}

bool TCommands::IsThere(const TShownPlace& place) const {
  if (place.Kind == TShownPlace::Group) return FEngine.Folders().GetRootGroupNode(place.GroupData) != nullptr;
  return place.Kind != TShownPlace::Folder || !place.Chain.empty();
}

TViewCategory TCommands::Category() const {
  switch (FPlace.Kind) {
    case TShownPlace::Folder:
      return TViewCategory::vcFiles;
    case TShownPlace::Search:
      return TViewCategory::vcSearchResults;
    default:
      return TViewCategory::vcDrives;
  }
}

TSortOrder& TCommands::Order() { return Category() == TViewCategory::vcDrives ? FDriveOrder : FFileOrder; }

/// What a place holds and the filter passes; `hidden` counts what it does not.
TIntegerDynArray TCommands::NumbersOf(const TShownPlace& place, int& hidden) const {
  TIntegerDynArray numbers;
  hidden = 0;
  const TFiles& files = FEngine.Files();
  const auto addDrives = [&](const TTreeNode& group) {
    for (const auto& child : group.Children) {
      if (!files.IsWrongNumber(child->Data)) numbers.push_back(static_cast<int>(child->Data));
    }
  };
  const auto addFiltered = [&](int number, bool parentDeleted) {
    if (files.IsFiltered(number, parentDeleted, FFilter)) {
      numbers.push_back(number);
    } else {
      ++hidden;
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
    case TShownPlace::Folder: {
      if (place.Chain.empty() || files.IsWrongNumber(place.Chain.back())) break;
      const TFileInfo& folder = files.List[static_cast<std::size_t>(place.Chain.back())].FileInfo;
      const bool deleted = PlaceIsDeleted();
      const TDrives& drives = FEngine.Drives();
      if (TFiles::IsRootDir(folder) && !drives.IsWrongNumber(folder.aDriveNumber)) {
        for (const int sub : drives.List[static_cast<std::size_t>(folder.aDriveNumber)].SubDrives) {
          const TTreeNode* node = FEngine.Folders().GetDriveRootNode(sub);
          if (node != nullptr) numbers.push_back(static_cast<int>(node->Data));
        }
      }
      for (const std::int64_t number : drives.GetParentClusters(folder.aDriveNumber, folder.FirstCluster)) {
        addFiltered(static_cast<int>(number), deleted);
      }
      break;
    }
    case TShownPlace::Search:
      for (const int number : FindFiles(FEngine, place.Options)) addFiltered(number, InDeletedFolder(number));
      break;
  }
  return numbers;
}

bool TCommands::HasGrown() const {
  const TFiles& files = FEngine.Files();
  if (FPlace.Kind != TShownPlace::Folder || files.IsWrongNumber(PlaceFolder())) return false;
  const TFileInfo& folder = files.List[static_cast<std::size_t>(PlaceFolder())].FileInfo;
  const TDrives& drives = FEngine.Drives();
  return !drives.IsWrongNumber(folder.aDriveNumber) &&
         drives.List[static_cast<std::size_t>(folder.aDriveNumber)].ParentClusters.Version(folder.FirstCluster) !=
             FShownVersion;
}

/// Not during a search for partitions: most of what that begins it drops again.
bool TCommands::ShowNewSubDrives() {
  const TDrives& drives = FEngine.Drives();
  if (Running() != TProgressSnapshot::Analysing || drives.IsWrongNumber(FBusyDrive)) return false;
  bool any = false;
  for (const int sub : drives.List[static_cast<std::size_t>(FBusyDrive)].SubDrives) {
    if (drives.IsEmpty(sub) || FEngine.Folders().GetDriveRootNode(sub) != nullptr) continue;
    any = FEngine.Folders().AddDrive(sub) != nullptr || any;
  }
  return any;
}

void TCommands::Rebuild() {
  TIntegerDynArray numbers = NumbersOf(FPlace, FHidden);
  SortFiles(FEngine, numbers, Order());
  FShown = std::make_shared<const TIntegerDynArray>(std::move(numbers));
  FShownVersion = 0;
  const TFiles& files = FEngine.Files();
  TDrives& drives = FEngine.Drives();
  if (!files.IsWrongNumber(PlaceFolder())) {
    const TFileInfo& folder = files.List[static_cast<std::size_t>(PlaceFolder())].FileInfo;
    if (!drives.IsWrongNumber(folder.aDriveNumber)) {
      drives.Current = folder.aDriveNumber;
      FShownVersion =
          drives.List[static_cast<std::size_t>(folder.aDriveNumber)].ParentClusters.Version(folder.FirstCluster);
    }
  }
  if (OnFileListChanged) OnFileListChanged();
  Changed();
}

void TCommands::RefreshFileList() {
  FSelected.clear();
  Rebuild();
}

TPlaceSnapshot TCommands::Place() const {
  TPlaceSnapshot place;
  const TFiles& files = FEngine.Files();
  const TLanguage& language = FEngine.Language();
  place.Category = Category();
  place.Place = FPlace.Id;
  place.Crumbs.push_back(language[TText::CrumbComputer]);
  if (FPlace.Kind == TShownPlace::Group) {
    const TTreeNode* group = FEngine.Folders().GetRootGroupNode(FPlace.GroupData);
    if (group != nullptr) place.Crumbs.push_back(group->Caption);
  }
  if (ShowsSearch()) place.Crumbs.push_back(language[TText::CrumbSearch]);
  for (const int number : FPlace.Chain) {
    place.Crumbs.push_back(MakeRow(FEngine, number).Name);
  }
  place.Listing = {FGeneration, FShown};
  place.Sort = place.Category == TViewCategory::vcDrives ? FDriveOrder : FFileOrder;
  place.SortColumn = place.Category == TViewCategory::vcDrives ? ColumnOf(DriveColumns, FDriveOrder.Key)
                                                               : ColumnOf(FileColumns, FFileOrder.Key);
  place.Hidden = FHidden;
  place.CanGoBack = !FBack.empty();
  place.CanGoForward = !FForward.empty();
  place.CanGoUp = FPlace.Kind != TShownPlace::Computer;
  if (!files.IsWrongNumber(PlaceFolder())) {
    const TFileInfo& folder = files.List[static_cast<std::size_t>(PlaceFolder())].FileInfo;
    place.Drive = folder.aDriveNumber;
    place.IsDriveRoot = TFiles::IsRootDir(folder);
    place.IsDeepFolder = TFiles::IsDeepAnalyse(folder);
  }
  return place;
}

void TCommands::TakeOrders() {
  FFileOrder = OrderOf(FileColumns, FSettings.FileList.SortIndex, FSettings.FileList.SortRevers);
  FDriveOrder = OrderOf(DriveColumns, FSettings.FileListDisks.SortIndex, FSettings.FileListDisks.SortRevers);
  FRecoveryListOrder = OrderOf(FileColumns, FSettings.RecoveryList.SortIndex, FSettings.RecoveryList.SortRevers);
}

TIntegerDynArray TCommands::ShownRecoveryList() const {
  TIntegerDynArray numbers = FRecoveryList.Files();
  SortFiles(FEngine, numbers, FRecoveryListOrder);
  return numbers;
}

void TCommands::SortRecoveryList(int column, bool descending) {
  FRecoveryListOrder = OrderOf(FileColumns, column, descending ? 0 : 1);
  if (OnRecoveryListChanged) OnRecoveryListChanged();
}

void TCommands::SortByColumn(int column) {
  const std::span<const TSortKey> columns =
      Category() == TViewCategory::vcDrives ? std::span<const TSortKey>(DriveColumns) : FileColumns;
  if (column < 0 || column >= static_cast<int>(columns.size())) return;
  const TSortKey key = columns[static_cast<std::size_t>(column)];
  Sort({key, key == Order().Key && !Order().Descending});
}

void TCommands::Sort(TSortOrder order) {
  Order() = order;
  FSettings.FileList.SortIndex = ColumnOf(FileColumns, FFileOrder.Key);
  FSettings.FileList.SortRevers = FFileOrder.Descending ? 0 : 1;
  FSettings.FileListDisks.SortIndex = ColumnOf(DriveColumns, FDriveOrder.Key);
  FSettings.FileListDisks.SortRevers = FDriveOrder.Descending ? 0 : 1;
  Rebuild();
}

void TCommands::SelectFiles(TIntegerDynArray fileNumbers) {
  FSelected = std::move(fileNumbers);
  Changed();
}

void TCommands::ShowRecoveryList(bool shown) {
  FRecoveryListShown = shown;
  FSettings.RecoveryList.IsOn = shown;
  Changed();
}

void TCommands::Tick(const TIntegerDynArray& fileNumbers, bool ticked) {
  const TFiles& files = FEngine.Files();
  TIntegerDynArray numbers;
  for (const int number : fileNumbers) {
    const bool known = !files.IsWrongNumber(number);
    // A drive is recovered as a whole from the tree; the list is for what lies on drives.
    if (known && !TFiles::IsRootDir(files.List[static_cast<std::size_t>(number)].FileInfo)) numbers.push_back(number);
  }
  if (ticked) {
    FRecoveryList.AddFiles(numbers);
  } else {
    FRecoveryList.RemoveFiles(numbers);
  }
  if (OnRecoveryListChanged) OnRecoveryListChanged();
  Changed();
}

void TCommands::MoveNumbers(const std::vector<std::uint32_t>& newNumbers) {
  ++FGeneration;
  FRecoveryList.MoveNumbers(newNumbers);
  // A folder that is gone gives way to the one above it.
  const auto move = [&](TShownPlace& place) {
    for (std::size_t i = 0; i < place.Chain.size(); ++i) {
      const auto old = static_cast<std::size_t>(place.Chain[i]);
      if (old >= newNumbers.size() || newNumbers[old] == TFileArray::Erased) {
        place.Chain.resize(i);
        return;
      }
      place.Chain[i] = static_cast<int>(newNumbers[old]);
    }
  };
  move(FPlace);
  if (FPlace.Kind == TShownPlace::Folder && FPlace.Chain.empty()) FPlace.Kind = TShownPlace::Computer;
  for (auto* places : {&FBack, &FForward}) {
    for (TShownPlace& place : *places) move(place);
    std::erase_if(*places, [this](const TShownPlace& place) { return !IsThere(place); });
  }
  RefreshFileList();
  if (OnRecoveryListChanged) OnRecoveryListChanged();
}

void TCommands::NodeGone(const TTreeNode& node) {
  if (FPlace.Kind != TShownPlace::Group || node.Data != FPlace.GroupData) return;
  FPlace.Kind = TShownPlace::Computer;
  RefreshFileList();
}

}  // namespace brenlow
