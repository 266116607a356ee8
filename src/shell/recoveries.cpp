// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/recoveries.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "core/drives.h"
#include "core/engine.h"
#include "core/text.h"
#include "recovery/master_link.h"
#include "recovery/recovery_master.h"
#include "shell/file_view.h"
#include "shell/places.h"
#include "table/files.h"

namespace brenlow {

// ---- the recovery list ----------------------------------------------------------------------

TIntegerDynArray TRecoveries::SortedList() const {
  TIntegerDynArray numbers = FList.Files();
  SortFiles(FEngine, numbers, FOrder);
  return numbers;
}

void TRecoveries::SortList(int column, bool descending) {
  FOrder = FileOrderOf(column, descending ? 0 : 1);
  if (OnListChanged) OnListChanged();
}

void TRecoveries::ShowList(bool shown) {
  FListShown = shown;
  if (OnStateChanged) OnStateChanged();
}

void TRecoveries::PutOnList(const TIntegerDynArray& fileNumbers, bool on) {
  const TFiles& files = FEngine.Files();
  TIntegerDynArray numbers;
  for (const int number : fileNumbers) {
    const bool exists = !files.IsWrongNumber(number);
    if (exists && !TFiles::IsRootDir(files.List[static_cast<std::size_t>(number)].FileInfo)) numbers.push_back(number);
  }
  if (on) {
    FList.AddFiles(numbers);
  } else {
    FList.RemoveFiles(numbers);
  }
  if (OnListChanged) OnListChanged();
  if (OnStateChanged) OnStateChanged();
}

void TRecoveries::MoveNumbers(const std::vector<std::uint32_t>& newNumbers) {
  FList.MoveNumbers(newNumbers);
  if (OnListChanged) OnListChanged();
}

// ---- what is selected -----------------------------------------------------------------------

/// `filtered`: only when the filter of the view passes it.
void TRecoveries::AddSelected(int number, bool filtered, TSelectedFiles& selected) const {
  const TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(number)) return;
  const bool parentDeleted = !files.IsCustomFolder(number) && FPlaces.InDeletedFolder(number);
  if (filtered && !files.IsFiltered(number, parentDeleted, FView.Filter())) return;
  const TFileInfo& info = files.List[static_cast<std::size_t>(number)].FileInfo;
  selected.push_back({number, parentDeleted || info.blnDeleted});
  if (!TFiles::IsRootDir(info) || FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return;
  // A disk has its files on the volumes that were found inside it.
  for (const int sub : FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)].SubDrives) {
    const TTreeNode* node = FEngine.Folders().GetDriveRootNode(sub);
    if (node != nullptr) selected.push_back({static_cast<int>(node->Data), false});
  }
}

TSelectedFiles TRecoveries::GetSelectedFiles(TRecoverySender sender) const {
  TSelectedFiles selected;
  const TFiles& files = FEngine.Files();
  switch (sender) {
    case TRecoverySender::rsFiles:
      for (const int number : FView.Selected()) AddSelected(number, true, selected);
      break;
    case TRecoverySender::rsFolders:
      for (const int number : FPlaces.CurrentAsList()) {
        const int drive = files.List[static_cast<std::size_t>(number)].FileInfo.aDriveNumber;
        // A folder of the host is not an entry of a view: the filter does not apply to it.
        if (FEngine.Drives().IsDiskIn(drive, false)) AddSelected(number, !files.IsCustomFolder(number), selected);
      }
      break;
    case TRecoverySender::rsRecoveryList:
      for (const int number : FList.Files()) AddSelected(number, false, selected);
      break;
  }
  return selected;
}

/// Names of the drives among what is recovered, numbered where volumes of one name would share a folder.
std::map<int, TString> TRecoveries::DriveFolders(const TSelectedFiles& selected) const {
  std::map<int, TString> names;
  std::map<TString, int> counts;
  for (const TSelectedFile& entry : selected) {
    if (!FEngine.Files().IsRootDir(entry.FileIndex)) continue;
    TString name(FEngine.Files().List[static_cast<std::size_t>(entry.FileIndex)].FileInfo.strName);
    const int count = ++counts[name];
    if (count > 1) name += u" (" + NumberText(count) + u")";
    names.emplace(entry.FileIndex, std::move(name));
  }
  return names;
}

/// What the window has selected, with the folders of several drives kept apart on the target.
class TRecoveries::TSelectionLink final : public TFileTableLink {
 public:
  TSelectionLink(const TRecoveries& recoveries, TRecoverySender sender)
      : TFileTableLink(recoveries.FEngine), FRecoveries(recoveries), FSender(sender) {
    const TSelectedFiles selected = recoveries.GetSelectedFiles(sender);
    FDriveFolders = recoveries.DriveFolders(selected);
    FOfOneDrive = std::all_of(selected.begin(), selected.end(), [&](const TSelectedFile& entry) {
      return GetFileDriveNumber(entry.FileIndex) == GetFileDriveNumber(selected.front().FileIndex);
    });
  }

  void GetSelectedFiles(TSelectedFiles& files, const TFileFilter&) const override {
    files = FRecoveries.GetSelectedFiles(FSender);
  }
  TStringView GetFileName(int fileNumber) const override {
    const auto drive = FDriveFolders.find(fileNumber);
    return drive != FDriveFolders.end() ? TStringView(drive->second) : TFileTableLink::GetFileName(fileNumber);
  }
  std::vector<TString> GetFilePath(int fileNumber) const override {
    std::vector<TString> folders = TFileTableLink::GetFilePath(fileNumber);
    // Files of several drives may have the same path.
    if (FOfOneDrive || IsFileWrongNumber(fileNumber)) return folders;
    const auto drive = static_cast<std::size_t>(GetFileDriveNumber(fileNumber));
    folders.insert(folders.begin(), Engine().Drives().List[drive].Caption);
    return folders;
  }

 private:
  const TRecoveries& FRecoveries;
  TRecoverySender FSender;
  std::map<int, TString> FDriveFolders;  // names of the drives among what is selected
  bool FOfOneDrive;
};

// ---- runs of the wizard ---------------------------------------------------------------------

void TRecoveries::Run(TRecoverySender sender) {
  ChangeRecoveringStatus(true);
  const TSelectionLink link(*this, sender);
  TfRecoveryMaster master(FEngine, link, Settings, FQuestions, sender);
  if (sender != TRecoverySender::rsRecoveryList) master.Filter = FView.Filter();
  // Results of a search and of the recovery list may come from any folder: each keeps its path.
  master.IsSearchResults = sender == TRecoverySender::rsFiles && FPlaces.ShowsSearch();
  master.IsMasterResults = master.IsSearchResults || sender == TRecoverySender::rsRecoveryList;
  if (OnMaster) OnMaster(master);
  ChangeRecoveringStatus(false);
}

void TRecoveries::ChangeRecoveringStatus(bool status) {
  FRunning = status;
  if (!status) FEngine.Recovering = false;
  if (OnStateChanged) OnStateChanged();
}

}  // namespace brenlow
