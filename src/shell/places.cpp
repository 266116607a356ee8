// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/places.h"

#include <algorithm>
#include <utility>

#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "shell/entries.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr std::size_t MaxHistory = 100;  // places

}  // namespace

TViewCategory TPlaces::Category() const {
  switch (FPlace.Kind) {
    case TShownPlace::Folder:
      return TViewCategory::vcFiles;
    case TShownPlace::Search:
      return TViewCategory::vcSearchResults;
    default:
      return TViewCategory::vcDrives;
  }
}

TIntegerDynArray TPlaces::CurrentAsList() const {
  const int folder = FPlace.FolderNumber();
  return FEngine.Files().IsWrongNumber(folder) ? TIntegerDynArray() : TIntegerDynArray{folder};
}

TPlaceSnapshot TPlaces::Snapshot() const {
  TPlaceSnapshot place;
  const TLanguage& language = FEngine.Language();
  place.Category = Category();
  place.Place = FPlace.Id;
  place.Crumbs.push_back(language[TText::CrumbComputer]);
  if (FPlace.Kind == TShownPlace::Group) {
    const TTreeNode* group = FEngine.Folders().GetRootGroupNode(FPlace.GroupData);
    if (group != nullptr) place.Crumbs.push_back(group->Caption);
  }
  if (ShowsSearch()) place.Crumbs.push_back(language[TText::CrumbSearch]);
  for (const int number : FPlace.Chain) place.Crumbs.push_back(MakeRow(FEngine, number).Name);
  place.CanGoBack = !FBack.empty();
  place.CanGoForward = !FForward.empty();
  place.CanGoUp = FPlace.Kind != TShownPlace::Computer;
  const TFiles& files = FEngine.Files();
  if (!files.IsWrongNumber(FPlace.FolderNumber())) {
    const TFileInfo& folder = files.List[static_cast<std::size_t>(FPlace.FolderNumber())].FileInfo;
    place.Drive = folder.aDriveNumber;
    place.IsDriveRoot = TFiles::IsRootDir(folder);
    place.IsDeepFolder = TFiles::IsDeepAnalyse(folder);
  }
  return place;
}

// ---- from one place to another --------------------------------------------------------------

void TPlaces::GoTo(TShownPlace place) {
  if (IsThere(FPlace) && FPlace.Id != 0) FBack.push_back(std::move(FPlace));
  if (FBack.size() > MaxHistory) FBack.erase(FBack.begin());
  FForward.clear();
  place.Id = ++FLastId;
  FPlace = std::move(place);
  if (OnChanged) OnChanged();
}

/// One step through the history.
void TPlaces::Step(std::vector<TShownPlace>& from, std::vector<TShownPlace>& to) {
  if (from.empty()) return;
  to.push_back(std::exchange(FPlace, std::move(from.back())));
  from.pop_back();
  if (OnChanged) OnChanged();
}

TShownPlace TPlaces::FolderPlace(const TTreeNode* node) const {
  TShownPlace place;
  place.Kind = TShownPlace::Folder;
  for (; node != nullptr && !FEngine.Files().IsWrongNumber(node->Data); node = node->Parent) {
    place.Chain.insert(place.Chain.begin(), static_cast<int>(node->Data));
  }
  return place;
}

void TPlaces::SelectNode(PTreeNode node) {
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

PTreeNode TPlaces::SelectedNode() const {
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

void TPlaces::ShowFolder(int fileNumber) {
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

void TPlaces::ShowDrive(int drive) {
  if (PTreeNode node = FEngine.Folders().GetDriveRootNode(drive); node != nullptr) SelectNode(node);
}

bool TPlaces::ShowLocation(int fileNumber) {
  if (FEngine.Files().IsWrongNumber(fileNumber)) return false;
  TShownPlace place;
  place.Kind = TShownPlace::Folder;
  place.Chain = ChainOf(fileNumber);
  if (place.Chain.size() < 2) return false;
  place.Chain.pop_back();
  GoTo(std::move(place));
  return true;
}

void TPlaces::Find(TFindOptions options) {
  TShownPlace place;
  place.Kind = TShownPlace::Search;
  place.Options = std::move(options);
  GoTo(std::move(place));
}

void TPlaces::GoUp() {
  if (FPlace.Kind == TShownPlace::Computer) return;
  const std::size_t steps = FPlace.Kind == TShownPlace::Folder ? FPlace.Chain.size() : 1;
  GoToCrumb(steps - 1);
}

void TPlaces::GoToCrumb(std::size_t index) {
  if (index == 0) {
    ShowComputer();
  } else if (FPlace.Kind == TShownPlace::Folder && index <= FPlace.Chain.size()) {
    TShownPlace place = FPlace;
    place.Chain.resize(index);
    GoTo(std::move(place));
  }
}

bool TPlaces::IsThere(const TShownPlace& place) const {
  if (place.Kind == TShownPlace::Group) return FEngine.Folders().GetRootGroupNode(place.GroupData) != nullptr;
  return place.Kind != TShownPlace::Folder || !place.Chain.empty();
}

// ---- paths ----------------------------------------------------------------------------------

/// The folders that lead to a file, the drive's own row first, and the file itself.
TIntegerDynArray TPlaces::ChainOf(int fileNumber) const {
  const TFiles& files = FEngine.Files();
  const int drive = files.List[static_cast<std::size_t>(fileNumber)].FileInfo.aDriveNumber;
  TIntegerDynArray chain = FolderPlace(FEngine.Folders().GetDriveRootNode(drive)).Chain;
  const TIntegerDynArray above = FFolders.Of(files, drive).FoldersAbove(files, fileNumber);
  chain.insert(chain.end(), above.begin(), above.end());
  chain.push_back(fileNumber);
  return chain;
}

TString TPlaces::LocationOf(int fileNumber) const {
  const TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(fileNumber)) return {};
  TIntegerDynArray chain = ChainOf(fileNumber);
  chain.pop_back();
  TString path;
  for (const int number : chain) {
    if (!path.empty()) path += u'/';
    path += files.List[static_cast<std::size_t>(number)].FileInfo.strName;
  }
  return path;
}

bool TPlaces::IsDeleted() const {
  const TFiles& files = FEngine.Files();
  return std::any_of(FPlace.Chain.begin(), FPlace.Chain.end(), [&](int number) {
    return !files.IsWrongNumber(number) && files.List[static_cast<std::size_t>(number)].FileInfo.blnDeleted;
  });
}

bool TPlaces::InDeletedFolder(int fileNumber) const {
  const TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(fileNumber)) return false;
  const TFile& file = files.List[static_cast<std::size_t>(fileNumber)];
  if (!files.IsWrongNumber(FPlace.FolderNumber())) {
    const TFileInfo& folder = files.List[static_cast<std::size_t>(FPlace.FolderNumber())].FileInfo;
    const bool isShown = file.ParentCluster == folder.FirstCluster && file.FileInfo.aDriveNumber == folder.aDriveNumber;
    if (isShown) return IsDeleted();
  }
  return FFolders.Of(files, file.FileInfo.aDriveNumber).InDeletedFolder(files, fileNumber);
}

// ---- rows and nodes that go -----------------------------------------------------------------

void TPlaces::MoveNumbers(const std::vector<std::uint32_t>& newNumbers) {
  FFolders.Clear();
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
  if (OnChanged) OnChanged();
}

void TPlaces::ForgetNode(const TTreeNode& node) {
  if (FPlace.Kind != TShownPlace::Group || node.Data != FPlace.GroupData) return;
  FPlace.Kind = TShownPlace::Computer;
  if (OnChanged) OnChanged();
}

}  // namespace brenlow
