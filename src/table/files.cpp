// SPDX-License-Identifier: GPL-3.0-or-later
#include "table/files.h"

#include <algorithm>
#include <bit>
#include <new>
#include <unordered_map>
#include <unordered_set>

#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/text.h"
#include "table/file_kinds.h"
#include "table/file_tree.h"
#include "table/signatures.h"

namespace brenlow {

void TFiles::ClearInfo(TFileInfo& file, int driveNumber) {
  file = TFileInfo();
  file.aDriveNumber = driveNumber;
}

int TFiles::Add(const TFileInfo& file, std::int64_t parentCluster, bool canIncFoundCount) {
  bool ramFull = false;
  return Add(file, parentCluster, ramFull, canIncFoundCount);
}

int TFiles::Add(const TFileInfo& file, std::int64_t parentCluster, bool& ramFull, bool canIncFoundCount) {
  ramFull = false;
  if (FEngine.Drives().IsWrongNumber(file.aDriveNumber)) return -1;
  if (file.blnFolder && file.FirstCluster == parentCluster) return -1;
  if (OnCanBeAdded && !OnCanBeAdded(file)) return -1;
  // A file of the deep analysis is found by its place, so never twice in a pass.
  if (FEngine.PartRecRunning && (file.blnFolder || !file.aDeepAnalyse)) {
    const int known = GetAddedNumber(file, parentCluster);
    if (known >= 0) return known;
  }
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(file.aDriveNumber)];
  try {
    ramFull = true;
    const std::size_t number = List.Add(file, parentCluster);
    TFileInfo& row = List[number].FileInfo;
    row.DefaultSize = row.aSize;
    if (OnAdded) OnAdded(static_cast<int>(number));
    if (file.blnFolder) drive.FileFirstClusters.push_back(file.FirstCluster);
    TDrives::AddParentCluster(drive, parentCluster, static_cast<std::uint32_t>(number), file.blnFolder);
    ramFull = false;
    if (canIncFoundCount) {
      ++FoundCount;
      if (file.blnFolder && Tree != nullptr) Tree->FolderFound();
    }
    if (file.blnFolder && file.aDeepAnalyse && Tree != nullptr) Tree->AddDeep(static_cast<int>(number));
    return static_cast<int>(number);
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

bool TFiles::IsAdded(const TFileInfo& file, std::int64_t parentCluster) const {
  return GetAddedNumber(file, parentCluster) >= 0;
}

std::uint32_t& TFiles::NewestOf(const TFileInfo& file, std::int64_t parentCluster) const {
  std::uint64_t key = std::hash<TStringView>()(file.strName);
  for (const std::int64_t part : {parentCluster, std::int64_t{file.aDriveNumber}, std::int64_t{file.blnFolder}}) {
    key = (key ^ static_cast<std::uint64_t>(part)) * 0x9E3779B97F4A7C15U;
    key ^= key >> 32;
  }
  return FAddedIndex.Newest[key & (FAddedIndex.Newest.size() - 1)];
}

/// Takes the rows that came since the last time into the index.
void TFiles::FillAddedIndex() const {
  constexpr std::size_t smallestTable = 64;
  std::vector<std::uint32_t>& previous = FAddedIndex.Previous;
  if (FAddedIndex.Newest.size() < std::max(List.size(), smallestTable)) {
    FAddedIndex.Newest.assign(std::bit_ceil(std::max(List.size(), smallestTable)), NoRow);
    previous.clear();
  }
  while (previous.size() < List.size()) {
    const TFile& row = List[previous.size()];
    std::uint32_t& newest = NewestOf(row.FileInfo, row.ParentCluster);
    const auto number = static_cast<std::uint32_t>(previous.size());
    previous.push_back(newest);
    newest = number;
  }
}

bool TFiles::IsSame(std::uint32_t number, const TFileInfo& file, std::int64_t parentCluster) const {
  const TFile& row = List[number];
  const TFileInfo& known = row.FileInfo;
  const bool samePlace = known.FirstCluster == file.FirstCluster ||
                         (file.DataStartingSector >= 0 && file.DataStartingSector == known.DataStartingSector);
  // A state that only a journal has may be an earlier one of the same file.
  const bool sameState = (known.JournalPosition == 0 && file.JournalPosition == 0) || known.aSize == file.aSize;
  return samePlace && sameState && row.ParentCluster == parentCluster && known.aDriveNumber == file.aDriveNumber &&
         known.blnFolder == file.blnFolder && known.strName == file.strName;
}

int TFiles::GetAddedNumber(const TFileInfo& file, std::int64_t parentCluster) const {
  FillAddedIndex();
  std::uint32_t first = NoRow;
  for (std::uint32_t row = NewestOf(file, parentCluster); row != NoRow; row = FAddedIndex.Previous[row]) {
    if (IsSame(row, file, parentCluster)) first = row;
  }
  return first == NoRow ? -1 : static_cast<int>(first);
}

void TFiles::DoBeforeAnalyse(int driveNumber) {
  if (FEngine.Drives().IsWrongNumber(driveNumber)) return;
  FEngine.Drives().List[static_cast<std::size_t>(driveNumber)].FileFirstClusters = {SpecialCluster::Root,
                                                                                    SpecialCluster::NTFSSystemData};
}

namespace {

/// The numbers of content that some folder of the drive shows, and those that need no folder.
std::unordered_set<std::int64_t> ShownFolders(const TFileArray& list, const TDriveInfo& drive) {
  std::unordered_set<std::int64_t> shown{SpecialCluster::Root, SpecialCluster::NTFSSystemData};
  for (const std::int64_t parent : TDrives::GetFoundPosParentClusters(drive)) {
    for (const std::int64_t number : drive.ParentClusters.Folders(parent)) {
      shown.insert(list[static_cast<std::size_t>(number)].FileInfo.FirstCluster);
    }
  }
  return shown;
}

}  // namespace

void TFiles::DoAfterAnalyse(int driveNumber) {
  if (FEngine.Drives().IsWrongNumber(driveNumber)) return;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  TInt64DynArray known = std::move(drive.FileFirstClusters);
  std::sort(known.begin(), known.end());
  TInt64DynArray lost;
  bool hasLost = false;
  const std::unordered_set<std::int64_t> shown = ShownFolders(List, drive);
  for (const std::int64_t number : TDrives::GetFoundPosParentClusters(drive)) {
    if (number == SpecialCluster::Unselected) continue;
    // Rows of folders may have gone since they were noted.
    if (std::binary_search(known.begin(), known.end(), number) && shown.contains(number)) continue;
    hasLost = true;
    if (number != SpecialCluster::LostAndFound) lost.push_back(number);
  }
  hasLost = BreakCircles(driveNumber) || hasLost;
  if (hasLost) {
    AddLostAndFoundDir(driveNumber);
    TFileInfo folder;
    for (const std::int64_t number : lost) {
      ClearInfo(folder, driveNumber);
      folder.FirstCluster = number;
      folder.blnDeleted = true;
      folder.TimeStamp = {Now(), Now(), Now(), 0};
      const TString name = FEngine.Language().Format(TText::LostFolder, {NumberText(number)});
      folder.strName = name;
      Add(folder, SpecialCluster::LostAndFound, false);
      FEngine.Pump();
    }
  }
  FEngine.Drives().List[static_cast<std::size_t>(driveNumber)].FileFirstClusters.clear();
}

namespace {

/// The folders of a drive by the key of their content, as a tree shows them.
class TReachedFolders {
 public:
  TReachedFolders(const TFiles& files, const TDriveInfo& drive) : FFiles(files), FDrive(drive) {
    for (const std::int64_t parent : TDrives::GetFoundPosParentClusters(drive)) {
      for (const std::int64_t number : drive.ParentClusters.Folders(parent)) Offer(number);
    }
    Reach(SpecialCluster::Root);
  }

  bool IsReached(std::int64_t key) const { return FReached.contains(key); }
  /// The row that shows the content of `key`, -1 when none does.
  std::int64_t Owner(std::int64_t key) const {
    const auto owner = FOwners.find(key);
    return owner == FOwners.end() ? -1 : owner->second;
  }
  /// Notes what lies in the folder, and in the folders of that.
  void Reach(std::int64_t key) {
    if (!FReached.insert(key).second) return;
    std::vector<std::int64_t> waiting{key};
    while (!waiting.empty()) {
      const std::int64_t parent = waiting.back();
      waiting.pop_back();
      for (const std::int64_t number : FDrive.ParentClusters.Folders(parent)) {
        const std::int64_t child = Info(number).FirstCluster;
        if (Owner(child) == number && FReached.insert(child).second) waiting.push_back(child);
      }
    }
  }

 private:
  const TFileInfo& Info(std::int64_t number) const { return FFiles.List[static_cast<std::size_t>(number)].FileInfo; }
  /// As in `TFolderIndex`: the first live row, or the first of all.
  void Offer(std::int64_t number) {
    const auto [owner, first] = FOwners.try_emplace(Info(number).FirstCluster, number);
    if (first) return;
    const bool isDeleted = Info(number).blnDeleted;
    const bool otherDeleted = Info(owner->second).blnDeleted;
    if (isDeleted == otherDeleted ? number < owner->second : otherDeleted) owner->second = number;
  }

  const TFiles& FFiles;
  const TDriveInfo& FDrive;
  std::unordered_map<std::int64_t, std::int64_t> FOwners;
  std::unordered_set<std::int64_t> FReached;
};

/// How little speaks for a folder's place: an estimated number, a deleted folder, a folder that is older
/// by its number than the one it lies in.
int WeaknessOf(const TFile& folder) {
  const TFileInfo& info = folder.FileInfo;
  return (info.FirstClusterInfo != TFirstClusterInfo::fciNormal ? 4 : 0) + (info.blnDeleted ? 2 : 0) +
         (folder.ParentCluster > info.FirstCluster ? 1 : 0);
}

}  // namespace

/// Folders that lie in each other are reached from nowhere: the one whose place is the weakest goes to
/// the lost-and-found folder. True when there were any.
bool TFiles::BreakCircles(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  TReachedFolders folders(*this, drive);
  bool found = false;
  std::unordered_map<std::int64_t, std::int64_t> passed;  // key to the walk that passed it
  for (const std::int64_t start : TDrives::GetFoundPosParentClusters(drive)) {
    // Upwards, until a folder comes for the second time or something else is found.
    std::int64_t key = start;
    while (!folders.IsReached(key) && folders.Owner(key) >= 0 && passed.try_emplace(key, start).second) {
      key = List[static_cast<std::size_t>(folders.Owner(key))].ParentCluster;
    }
    const auto circle = passed.find(key);
    if (folders.IsReached(key) || circle == passed.end() || circle->second != start) continue;
    std::int64_t weakest = folders.Owner(key);
    for (std::int64_t at = List[static_cast<std::size_t>(weakest)].ParentCluster; at != key;) {
      const std::int64_t row = folders.Owner(at);
      const TFile& candidate = List[static_cast<std::size_t>(row)];
      if (WeaknessOf(candidate) > WeaknessOf(List[static_cast<std::size_t>(weakest)])) weakest = row;
      at = candidate.ParentCluster;
    }
    TFile& row = List[static_cast<std::size_t>(weakest)];
    TDrives::DeleteParentCluster(drive, row.ParentCluster, static_cast<std::uint32_t>(weakest));
    row.ParentCluster = SpecialCluster::LostAndFound;
    TDrives::AddParentCluster(drive, row.ParentCluster, static_cast<std::uint32_t>(weakest), true);
    folders.Reach(row.FileInfo.FirstCluster);
    found = true;
    FEngine.Pump();
  }
  if (found) ForgetAdded();
  return found;
}

std::int64_t TFiles::CountUnreached(int driveNumber) const {
  if (FEngine.Drives().IsWrongNumber(driveNumber)) return 0;
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  const TReachedFolders folders(*this, drive);
  std::int64_t count = 0;
  for (const std::int64_t key : TDrives::GetFoundPosParentClusters(drive)) {
    if (key != SpecialCluster::Unselected && !folders.IsReached(key)) {
      count += static_cast<std::int64_t>(drive.ParentClusters.Files(key).size());
    }
  }
  return count;
}

int TFiles::AddLostAndFoundDir(int driveNumber) {
  for (const std::int64_t number : FEngine.Drives().GetParentFolders(driveNumber, SpecialCluster::Root)) {
    if (IsLostAndFound(static_cast<int>(number))) return static_cast<int>(number);
  }
  TFileInfo folder;
  ClearInfo(folder, driveNumber);
  folder.FirstCluster = SpecialCluster::LostAndFound;
  folder.TimeStamp = {Now(), Now(), Now(), 0};
  const TString name = FEngine.Language()[TText::LostAndFound];
  folder.strName = name;
  return Add(folder, SpecialCluster::Root, false);
}

/// The row of the deep analysis folder of a drive, -1 when there is none.
int TFiles::DeepAnalyseDir(int driveNumber) const {
  for (const std::int64_t number : FEngine.Drives().GetParentFolders(driveNumber, SpecialCluster::Root)) {
    if (IsDeepAnalyse(Info(static_cast<int>(number)))) return static_cast<int>(number);
  }
  return -1;
}

void TFiles::AddDeepAnalyseDir(int driveNumber, bool canAddNil) {
  if (FEngine.Drives().IsWrongNumber(driveNumber)) return;
  int number = DeepAnalyseDir(driveNumber);
  if (number < 0) {
    TFileInfo folder;
    ClearInfo(folder, driveNumber);
    folder.FirstCluster = SpecialCluster::DeepAnalyse;
    const TString name = FEngine.Language()[TText::DeepAnalysis];
    folder.strName = name;
    number = Add(folder, SpecialCluster::Root, false);
  }
  const bool masterShows = OnGetIsMasterShowing && OnGetIsMasterShowing();
  const bool canCollapse = !canAddNil && !masterShows && !FEngine.PartRecRunning;
  if (Tree != nullptr) Tree->ShowDeepDir(driveNumber, number, canAddNil, canCollapse);
}

int TFiles::AddTreeRow(const TFileInfo& row) { return static_cast<int>(List.Add(row, SpecialCluster::Unselected)); }

bool TFiles::IsCustomFolder(int number) const { return Tree != nullptr && Tree->IsCustomFolder(number); }

bool TFiles::IsRecycleBin(const TFile& file, std::int64_t parentCluster) {
  if (!file.FileInfo.blnFolder || file.ParentCluster != parentCluster) return false;
  const TString name = UpperCase(file.FileInfo.strName);
  return name == u"$RECYCLE.BIN" || name == u"RECYCLER" || name == u"?ECYCLER" || name == u".TRASHES" ||
         name.find(u".TRASH-") != TString::npos;
}

// ---- clearing -------------------------------------------------------------------------------

void TFiles::EraseFiles(const std::function<bool(std::size_t, const TFile&)>& doomed) {
  std::vector<std::uint32_t> newNumbers;
  if (List.EraseIf(doomed, &newNumbers) == 0) return;
  ForgetAdded();
  FEngine.Drives().MoveParentClusters(newNumbers);
  if (Tree != nullptr) Tree->MoveNumbers(newNumbers);
  if (OnNumbersMoved) OnNumbersMoved(newNumbers);
}

void TFiles::Clear(int driveNumber, bool deleteDrive) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  if (OnBeforeCleared) OnBeforeCleared(driveNumber);
  TDriveInfo& drive = drives.List[static_cast<std::size_t>(driveNumber)];
  drive.Analysed = drive.DeepAnalysed = TAnalyseInformation::aiNone;
  TDrives::ClearParentClusters(drive);
  if (Tree != nullptr) Tree->FolderListCleared(driveNumber);
  if (deleteDrive && Tree != nullptr) Tree->DriveDeleted(driveNumber);
  EraseFiles([&](std::size_t, const TFile& file) {
    return file.FileInfo.aDriveNumber == driveNumber &&
           (deleteDrive || file.ParentCluster != SpecialCluster::Unselected);
  });
  if (deleteDrive) {
    for (std::size_t i = 0; i < List.size(); ++i) {
      if (List[i].FileInfo.aDriveNumber > driveNumber) --List[i].FileInfo.aDriveNumber;
    }
    ForgetAdded();
  }
  if (drives.Current == driveNumber && OnRefreshFileList) OnRefreshFileList();
}

void TFiles::ClearDeep(int driveNumber) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  if (OnBeforeDeepCleared) OnBeforeDeepCleared(driveNumber);
  drives.List[static_cast<std::size_t>(driveNumber)].DeepAnalysed = TAnalyseInformation::aiNone;
  if (Tree != nullptr) Tree->DeepListCleared(driveNumber);
  EraseFiles([&](std::size_t, const TFile& file) {
    return file.FileInfo.aDriveNumber == driveNumber && file.FileInfo.aDeepAnalyse && !IsDeepAnalyse(file.FileInfo);
  });
  if (drives.Current == driveNumber && OnRefreshFileList) OnRefreshFileList();
}

void TFiles::EraseRows(const std::function<bool(const TFileInfo&)>& doomed) {
  EraseFiles([&](std::size_t, const TFile& file) { return doomed(file.FileInfo); });
}

void TFiles::MoveToDrive(int from, int to) {
  for (std::size_t i = 0; i < List.size(); ++i) {
    if (List[i].FileInfo.aDriveNumber == from) List[i].FileInfo.aDriveNumber = to;
  }
  ForgetAdded();
}

void TFiles::ForgetAdded() { FAddedIndex = TAddedIndex(); }

void TFiles::ClearUnselected(int driveNumber) {
  EraseFiles([&](std::size_t, const TFile& file) {
    return file.FileInfo.aDriveNumber == driveNumber && file.ParentCluster == SpecialCluster::Unselected;
  });
  const TDrives& drives = FEngine.Drives();
  if (List.empty() || drives.IsWrongNumber(driveNumber)) return;
  const TIntegerDynArray subs = drives.AllSubDrives(driveNumber);
  EraseFiles([&](std::size_t, const TFile& file) {
    return IsRootDir(file.FileInfo) && std::find(subs.begin(), subs.end(), file.FileInfo.aDriveNumber) != subs.end();
  });
}

// ---- questions ------------------------------------------------------------------------------

bool TFiles::IsFiltered(int number, bool parentDeleted, const TFileFilter& filter) const {
  if (IsWrongNumber(number) || IsCustomFolder(number)) return false;
  const TFileInfo& file = Info(number);
  bool shown = false;
  if (parentDeleted || file.blnDeleted) {
    shown = filter.Deleted;
  } else if (file.blnFolder) {
    shown = filter.Existing || filter.Deleted;
  } else {
    shown = filter.Existing;
  }
  return shown && (file.blnFolder || PassesKindFilter(filter, file.strName));
}

TString TFiles::GetType(TStringView fileName) {
  const TStringView extension = Trim(Extension(fileName));
  const auto cached = FFileTypes.find(extension);
  if (cached != FFileTypes.end()) return cached->second;
  const TLanguage& language = FEngine.Language();
  const TString upper = UpperCase(extension);
  TString text = FEngine.Signatures().Description(upper);
  if (text.empty()) text = upper.empty() ? language[TText::FileType] : language.Format(TText::FileTypeOf, {upper});
  FFileTypes.emplace(extension, text);
  return text;
}

std::int64_t TFiles::GetSizeOnDisk(const TFile& file) const { return FEngine.SizeOnDisk(file); }

std::int64_t TFiles::GetSizeInKB(int number) const {
  return IsWrongNumber(number) ? 0 : (Info(number).aSize + 1023) / 1024;
}

int TFiles::RightName(TStringView fileName) {
  for (const char16_t c : RefusedCharacters) {
    const std::size_t at = fileName.find(c);
    if (at != TStringView::npos) return static_cast<int>(at) + 1;
  }
  return 0;
}

void TFiles::UpdateLanguage() {
  FFileTypes.clear();
  ForgetAdded();
  for (std::size_t i = 0; i < List.size(); ++i) {
    if (IsLostAndFound(List[i].FileInfo)) List.Rename(i, FEngine.Language()[TText::LostAndFound]);
    if (IsDeepAnalyse(List[i].FileInfo)) List.Rename(i, FEngine.Language()[TText::DeepAnalysis]);
  }
}

}  // namespace brenlow
