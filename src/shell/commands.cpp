// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/commands.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <unordered_set>

#include "analysis/analysis.h"
#include "analysis/deep/all_fs.h"
#include "core/device/device.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/families.h"
#include "core/language.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "recovery/recovery_master.h"
#include "shell/entries.h"
#include "shell/sources.h"
#include "table/files.h"
#include "table/folder_index.h"

namespace brenlow {
namespace {

/// The state of the scan that opening a drive asks for.
TAnalyseInformation ScanState(const TDriveInfo& drive) {
  return drive.DriveTypes.Has(TDriveType::dtPhysical) ? drive.DeepAnalysed : drive.Analysed;
}

}  // namespace

/// While it lives, no scan runs but the drives are busy.
class TCommands::TSearching {
 public:
  TSearching(TCommands& commands, int drive) : FCommands(commands) {
    commands.FBusyDrive = drive;
    Set(true);
  }
  ~TSearching() { Set(false); }
  TSearching(const TSearching&) = delete;
  TSearching& operator=(const TSearching&) = delete;

 private:
  void Set(bool searching) {
    FCommands.FSearching = searching;
    FCommands.Changed();
  }
  TCommands& FCommands;
};

TCommands::TCommands(TEngine& engine, TSettings& settings, IShellQuestions& questions,
                     IRecoveryQuestions& recoveryQuestions)
    : FEngine(engine),
      FSettings(settings),
      FQuestions(questions),
      FRecoveryQuestions(recoveryQuestions),
      FRecoveryList(engine),
      FRecoveryListShown(settings.RecoveryList.IsOn) {
  TakeOrders();
  TFiles& files = engine.Files();
  files.OnBeforeCleared = [this](int drive) { FRecoveryList.ClearFiles(drive); };
  files.OnBeforeDeepCleared = [this](int drive) { FRecoveryList.ClearDeepFiles(drive); };
  files.OnNumbersMoved = [this](const std::vector<std::uint32_t>& newNumbers) { MoveNumbers(newNumbers); };
  files.OnRefreshFileList = [this] { RefreshFileList(); };
  engine.Folders().OnBeforeNodeDeleted = [this](const TTreeNode& node) { NodeGone(node); };
  engine.Drives().OnAdded = [this](int number) {
    FEngine.Folders().AddDrive(number);
    DrivesChanged();
  };
  engine.Drives().OnDeleted = [this](int) { DrivesChanged(); };
  engine.OnChangeAnalysingStatus = [this](int drive, bool) {
    FBusyDrive = drive;
    DrivesChanged();
    Changed();
  };
}

TCommands::~TCommands() {
  TFiles& files = FEngine.Files();
  files.OnBeforeCleared = nullptr;
  files.OnBeforeDeepCleared = nullptr;
  files.OnNumbersMoved = nullptr;
  files.OnRefreshFileList = nullptr;
  FEngine.Folders().OnBeforeNodeDeleted = nullptr;
  FEngine.Drives().OnAdded = nullptr;
  FEngine.Drives().OnDeleted = nullptr;
  FEngine.OnChangeAnalysingStatus = nullptr;
}

void TCommands::Changed() {
  if (OnActionsChanged) OnActionsChanged(EnabledActions());
}

void TCommands::DrivesChanged() {
  if (OnDrivesChanged) OnDrivesChanged();
}

void TCommands::FillDrives() {
  FEngine.Drives().Fill();
  TFolders& folders = FEngine.Folders();
  for (int i = 0; i < static_cast<int>(FEngine.Drives().List.size()); ++i) folders.AddDrive(i);
  PTreeNode custom = folders.AddCustomFoldersRoot();
  folders.AddDefaultCustomFolders(custom);
  if (custom != nullptr && custom->Children.empty()) folders.DeleteRootGroupNode(custom->Data);
  RefreshFileList();
}

// ---- state ----------------------------------------------------------------------------------

TIntegerDynArray TCommands::PlaceAsList() const {
  return FEngine.Files().IsWrongNumber(PlaceFolder()) ? TIntegerDynArray() : TIntegerDynArray{PlaceFolder()};
}

/// True for a folder that shows nothing before an analysis has run.
bool TCommands::IsBlank(const TFileInfo& folder) const {
  const TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(folder.aDriveNumber)) return false;
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(folder.aDriveNumber)];
  if (TFiles::IsDeepAnalyse(folder)) return drive.DeepAnalysed == TAnalyseInformation::aiNone;
  const bool top = TFiles::IsRootDir(folder) || folder.FirstCluster == TCustomFolder::NotFound;
  return top && !HasResults(drive);
}

TSelectionState TCommands::StateOf(const TIntegerDynArray& fileNumbers) const {
  TSelectionState state;
  const TFiles& files = FEngine.Files();
  const TDrives& drives = FEngine.Drives();
  for (const int number : fileNumbers) {
    if (files.IsWrongNumber(number)) continue;
    const TFileInfo& info = files.List[static_cast<std::size_t>(number)].FileInfo;
    if (TFiles::IsUnselected(info) || drives.IsWrongNumber(info.aDriveNumber)) continue;
    const TDriveInfo& drive = drives.List[static_cast<std::size_t>(info.aDriveNumber)];
    const bool isDrive = TFiles::IsRootDir(info);
    const bool isOne = fileNumbers.size() == 1;
    state.Any = true;
    ++state.Count;
    if (!info.blnFolder) state.Size += info.aSize;
    state.OneFolder = info.blnFolder && isOne;
    state.Blank = state.OneFolder && IsBlank(info);
    state.OpensAtOnce = state.OneFolder && !state.Blank;
    if (isOne) state.Number = number;
    if (isOne && isDrive) state.Drive = info.aDriveNumber;
    state.DriveAnalysed = state.DriveAnalysed || HasResults(drive);
    state.Recoverable = state.Recoverable || !isDrive || !drives.IsEmpty(info.aDriveNumber) || !drive.SubDrives.empty();
    state.CanCloseDisk = state.CanCloseDisk || (isDrive && drives.CanCloseDisk(info.aDriveNumber));
    state.Mounted = state.Mounted || (isDrive && drives.IsMounted(info.aDriveNumber));
  }
  return state;
}

TProgressSnapshot::TKind TCommands::Running() const {
  if (FSearching) {
    return FEngine.Drives().CanSave ? TProgressSnapshot::SavingImage : TProgressSnapshot::SearchingPartitions;
  }
  if (!FEngine.Analysing) return TProgressSnapshot::None;
  if (FEngine.PartRecRunning) return TProgressSnapshot::SearchingPartitions;
  return FDeepRunning ? TProgressSnapshot::DeepAnalysing : TProgressSnapshot::Analysing;
}

TShellState TCommands::State() const {
  TShellState state;
  state.Analysing = FEngine.Analysing;
  state.Recovering = FRecovering;
  state.Searching = FSearching;
  state.List = StateOf(FSelected);
  state.Tree = StateOf(PlaceAsList());
  state.Tree.Any = FPlace.Kind == TShownPlace::Folder || FPlace.Kind == TShownPlace::Group;
  state.ShownFiles = static_cast<int>(FShown->size());
  state.ShowsDrives = Category() == TViewCategory::vcDrives;
  state.ShowsSearch = ShowsSearch();
  state.RecoveryListShown = FRecoveryListShown;
  state.RecoveryListFiles = static_cast<int>(FRecoveryList.Files().size());
  return state;
}

void TCommands::ChangeRecoveringStatus(bool status) {
  FRecovering = status;
  if (!status) FEngine.Recovering = false;
  Changed();
}

// ---- commands -------------------------------------------------------------------------------

bool TCommands::Execute(TAction action) {
  if (!EnabledActions().Has(action)) return false;
  switch (action) {
    case TAction::actOpen:
      Open();
      break;
    case TAction::actReopen:
      for (const int number : TIntegerDynArray(FSelected)) {
        if (FEngine.Files().IsWrongNumber(number)) continue;
        const int drive = FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo.aDriveNumber;
        return Analyse(FEngine.Folders().GetDriveRootNode(drive), true);
      }
      return false;
    case TAction::actFoldersReopen:
      return Analyse(SelectedNode(), true);
    case TAction::actStopAnalyse:
      if (FQuestions.StopAnalyse()) FEngine.StopScans();
      break;
    case TAction::actRecovery:
      Recover(TRecoverySender::rsFiles);
      break;
    case TAction::actFoldersRecovery:
      Recover(TRecoverySender::rsFolders);
      break;
    case TAction::actRecoveryFromList:
      Recover(TRecoverySender::rsRecoveryList);
      break;
    case TAction::actAddToRecoveryList:
      Tick(FSelected, true);
      break;
    case TAction::actMountImage:
    case TAction::actFoldersMountImage:
      if (const auto path = FQuestions.ImageFile(); path) return Mount(*path) >= 0;
      return false;
    case TAction::actUnmountImage:
      CloseDisks(StateOf(FSelected).Mounted ? FSelected : PlaceAsList(), true);
      break;
    case TAction::actCloseDisk:
      CloseDisks(FSelected, false);
      break;
    case TAction::actFoldersCloseDisk:
      CloseDisks(PlaceAsList(), false);
      break;
    case TAction::actRefresh:
      DevicesChanged();
      break;
    case TAction::actExpand:
      FEngine.Folders().FillNodes(SelectedNode(), true);
      break;
    case TAction::actSelectAll:
      SelectFiles(*FShown);
      if (OnSelectionChanged) OnSelectionChanged();
      break;
    case TAction::actInvertSelection: {
      const std::unordered_set<int> selected(FSelected.begin(), FSelected.end());
      TIntegerDynArray inverted;
      std::copy_if(FShown->begin(), FShown->end(), std::back_inserter(inverted),
                   [&](int number) { return !selected.contains(number); });
      SelectFiles(std::move(inverted));
      if (OnSelectionChanged) OnSelectionChanged();
      break;
    }
    case TAction::actFoundFileLocation:
      ShowLocation(FSelected.front());
      break;
    default:
      return ExecuteFilter(action) || ExecuteSort(action);
  }
  return true;
}

/// Existing and deleted are switches of their own; a kind and "all files" exclude each other.
bool TCommands::ExecuteFilter(TAction action) {
  if (action < TAction::actFilterExisting || action > TAction::actFilterVideo) return false;
  bool anyKind = false;
  for (const auto& [fieldAction, field] : FilterActions) {
    if (IsKindFilter(fieldAction) && action == TAction::actFilterAllFiles) FFilter.*field = false;
    if (fieldAction == action && action != TAction::actFilterAllFiles) FFilter.*field = !(FFilter.*field);
    anyKind = anyKind || (IsKindFilter(fieldAction) && FFilter.*field);
  }
  FFilter.AllFiles = !anyKind;
  RefreshFileList();
  return true;
}

bool TCommands::ExecuteSort(TAction action) {
  for (const auto& [keyAction, key] : SortActions) {
    if (action != keyAction) continue;
    Sort({key, Order().Descending});
    return true;
  }
  if (action != TAction::actSortAscending && action != TAction::actSortDescending) return false;
  Sort({Order().Key, action == TAction::actSortDescending});
  return true;
}

/// The selected folder becomes the one shown; a drive without results is analysed first.
void TCommands::Open() {
  if (FSelected.empty()) {
    Analyse(SelectedNode(), false);
    return;
  }
  const int number = FSelected.front();
  const bool blank = IsBlank(FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo);
  ShowFolder(number);
  if (blank) Analyse(SelectedNode(), false);
}

void TCommands::OpenNode(PTreeNode node) {
  SelectNode(node);
  if (NeedsAnalysis(*node)) Analyse(node, false);
}

bool TCommands::NeedsAnalysis(const TTreeNode& node) const {
  const TFiles& files = FEngine.Files();
  return !files.IsWrongNumber(node.Data) && IsBlank(files.List[static_cast<std::size_t>(node.Data)].FileInfo);
}

void TCommands::Complain(const std::string& text) {
  if (OnComplaint) OnComplaint(text);
}

/// False while something runs, and with a complaint when the device refuses to be read.
bool TCommands::CanScan(int drive) {
  const TDrives& drives = FEngine.Drives();
  if (FEngine.Analysing || FRecovering || FSearching || drives.IsWrongNumber(drive)) return false;
  const TString device = drives.List[static_cast<std::size_t>(drive)].Drive;
  if (FEngine.Devices().Get(device) != nullptr) return true;
  Complain(MountComplaint(FEngine.Language(), DevicePath(device), LastFailure(FEngine.Devices())));
  return false;
}

bool TCommands::Analyse(PTreeNode node, bool isReopen) {
  TFolders& folders = FEngine.Folders();
  if (!folders.NodeCanBeAnalysed(node)) return false;
  const TFileInfo& info = FEngine.Files().List[static_cast<std::size_t>(node->Data)].FileInfo;
  const int drive = info.aDriveNumber;
  if (!FEngine.Drives().IsDiskIn(drive, true) || !CanScan(drive)) return false;
  if (TFiles::IsDeepAnalyse(info)) {
    AnalyseDeep(drive);
    return true;
  }
  if (isReopen) {
    FEngine.Files().Clear(drive, false);
    node = folders.GetDriveRootNode(drive);  // a folder's own node went with its results
  }
  const bool done = folders.AnalyseNode(node, static_cast<bool>(folders.OnShowAnalyseProgress));
  DrivesChanged();
  RefreshFileList();
  return done;
}

void TCommands::AnalyseDeep(int drive) {
  if (!CanScan(drive)) return;
  FDeepRunning = true;
  FEngine.Reader().RenewBadTime();
  DeepAnalyseDrive(FEngine, drive);
  FDeepRunning = false;
  FEngine.Folders().FillDriveNodes(FEngine.Folders().GetDriveRootNode(drive));
  DrivesChanged();
  Rebuild();
}

void TCommands::RunMaster(const TMasterChoice& choice) {
  TDrives& drives = FEngine.Drives();
  TFolders& folders = FEngine.Folders();
  if (!CanScan(choice.Drive)) return;
  if (!choice.Extensions.empty()) {
    FEngine.AllFS().OnCanFileBeAdded = [&](TStringView extension) {
      return std::find(choice.Extensions.begin(), choice.Extensions.end(), extension) != choice.Extensions.end();
    };
  }
  SelectNode(folders.GetDriveRootNode(choice.Drive));
  // On a disk one pass looks for volumes and for content.
  if (choice.Lost || (choice.Deep && drives.IsPhysical(choice.Drive))) {
    TPartRecSystems systems = ServedFamilies();
    if (choice.Deep) systems.Add(TPartRecSystem::DeepAnalysis);
    ScanForPartitions(choice.Drive, systems);
  } else {
    bool whole = true;
    if (choice.Fast) {
      Analyse(folders.GetDriveRootNode(choice.Drive), true);
      whole = ScanState(drives.List[static_cast<std::size_t>(choice.Drive)]) == TAnalyseInformation::aiFull;
    }
    if (choice.Deep && whole) AnalyseDeep(choice.Drive);
  }
  FEngine.AllFS().OnCanFileBeAdded = nullptr;
}

int TCommands::Mount(const std::string& path) {
  TDrives& drives = FEngine.Drives();
  const TString key = SourceKey(path);
  for (int i = 0; i < static_cast<int>(drives.List.size()); ++i) {
    const TDriveInfo& drive = drives.List[static_cast<std::size_t>(i)];
    if (drive.Drive != key || drive.FirstSector != 0 || drive.IsSubDrive) continue;
    if (drives.IsMounted(i)) Complain(FEngine.Language().Utf8(TText::ImageIsMounted, {path}));
    SelectNode(FEngine.Folders().GetDriveRootNode(i));
    return i;
  }
  TMountFailure failure;
  const int number = drives.Mount(key, true, &failure);
  if (number < 0) {
    Complain(MountComplaint(FEngine.Language(), path, failure));
  } else {
    SelectNode(FEngine.Folders().GetDriveRootNode(number));
  }
  return number;
}

void TCommands::FindPartitions(int drive, std::int64_t firstSector, std::int64_t sectorsCount,
                               const TFileSystems& systems) {
  if (!CanScan(drive)) return;
  const TSearching searching(*this, drive);
  FEngine.Drives().Find(drive, firstSector, sectorsCount, systems);
}

void TCommands::ScanForPartitions(int drive, const TPartRecSystems& systems) {
  if (!CanScan(drive)) return;
  FEngine.PartRecSystems = systems;
  FEngine.PartRecRunning = true;
  FEngine.Reader().RenewBadTime();
  AnalyseDrive(FEngine, drive);
  FEngine.PartRecRunning = false;
  FEngine.Folders().FillDriveNodes(FEngine.Folders().GetDriveRootNode(drive));
  DrivesChanged();
  RefreshFileList();
}

int TCommands::CreateVirtual(int drive, std::int64_t firstSector, std::int64_t sectorsCount) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(drive)) return -1;
  const TDriveInfo& parent = drives.List[static_cast<std::size_t>(drive)];
  if (firstSector < 0 || sectorsCount <= 0 || firstSector > parent.SectorsCount - sectorsCount) return -1;
  const int number = drives.CreateVirtual(drive, parent.FirstSector + firstSector, sectorsCount);
  if (number >= 0) SelectNode(FEngine.Folders().GetDriveRootNode(number));
  return number;
}

TImageResult TCommands::CreateImage(int drive, std::int64_t firstSector, std::int64_t sectorsCount,
                                    const std::string& fileName, bool compressed, const std::string& mapFile) {
  if (!CanScan(drive)) {
    TImageResult refused;
    refused.SystemError = EIO;
    refused.Path = fileName;
    return refused;
  }
  const TSearching searching(*this, drive);
  FEngine.Reader().ForgetFaults();
  return FEngine.Drives().Save(drive, firstSector, sectorsCount, fileName, compressed, mapFile);
}

void TCommands::AddCustomFolder(const std::string& path) {
  TFolders& folders = FEngine.Folders();
  PTreeNode group = folders.AddCustomFoldersRoot();
  const TString caption = TextFromPath(std::filesystem::path(path).filename().string());
  if (folders.AddCustomFolder(group, path, caption, -1) >= 0) return;
  if (group != nullptr && group->Children.empty()) folders.DeleteRootGroupNode(group->Data);
  Complain(FEngine.Language().Utf8(TText::FolderOnNoDrive, {path}));
}

int TCommands::DriveOfPath(const TString& path) const {
  const std::vector<TDriveInfo>& list = FEngine.Drives().List;
  // The whole device before the volumes on it.
  for (const bool whole : {true, false}) {
    for (std::size_t i = 0; i < list.size(); ++i) {
      const bool named = list[i].Drive == path || list[i].DriveLetter == path;
      if (named && !list[i].IsSubDrive && (!whole || list[i].FirstSector == 0)) return static_cast<int>(i);
    }
  }
  return -1;
}

void TCommands::DevicesChanged() {
  FEngine.Drives().DeviceInserted();
  DrivesChanged();
  Rebuild();
}

void TCommands::ChangeLanguage(TLanguage language) {
  FEngine.ChangeLanguage(std::move(language));
  DrivesChanged();
  if (OnRecoveryListChanged) OnRecoveryListChanged();
  Rebuild();
}

void TCommands::CloseDisks(const TIntegerDynArray& fileNumbers, bool onlyMounted) {
  const TFiles& files = FEngine.Files();
  TDrives& drives = FEngine.Drives();
  TIntegerDynArray numbers;
  for (const int number : fileNumbers) {
    if (!files.IsRootDir(number)) continue;
    const int drive = files.List[static_cast<std::size_t>(number)].FileInfo.aDriveNumber;
    if (drives.CanCloseDisk(drive) && (!onlyMounted || drives.IsMounted(drive))) numbers.push_back(drive);
  }
  drives.CloseDisks(std::move(numbers));
  RefreshFileList();
}

TSelectedFiles TCommands::GetSelectedFiles(TRecoverySender sender) const {
  TSelectedFiles selected;
  const TFiles& files = FEngine.Files();
  const auto add = [&](int number, const TFileFilter* filter) {
    if (files.IsWrongNumber(number)) return;
    const bool parentDeleted = !files.IsCustomFolder(number) && InDeletedFolder(number);
    if (filter != nullptr && !files.IsFiltered(number, parentDeleted, *filter)) return;
    const TFileInfo& info = files.List[static_cast<std::size_t>(number)].FileInfo;
    selected.push_back({number, parentDeleted || info.blnDeleted});
    if (!TFiles::IsRootDir(info) || FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return;
    // A disk has its files on the volumes that were found inside it.
    for (const int sub : FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)].SubDrives) {
      const TTreeNode* node = FEngine.Folders().GetDriveRootNode(sub);
      if (node != nullptr) selected.push_back({static_cast<int>(node->Data), false});
    }
  };
  switch (sender) {
    case TRecoverySender::rsFiles:
      for (const int number : FSelected) add(number, &FFilter);
      break;
    case TRecoverySender::rsFolders:
      for (const int number : PlaceAsList()) {
        const int drive = files.List[static_cast<std::size_t>(number)].FileInfo.aDriveNumber;
        // A folder of the host is no entry of a view, so no filter knows it.
        if (FEngine.Drives().IsDiskIn(drive, false)) add(number, files.IsCustomFolder(number) ? nullptr : &FFilter);
      }
      break;
    case TRecoverySender::rsRecoveryList:
      for (const int number : FRecoveryList.Files()) add(number, nullptr);
      break;
  }
  return selected;
}

/// Names of the drives among what is recovered; volumes of one name would meet in one folder.
std::map<int, TString> TCommands::DriveFolders(const TSelectedFiles& selected) const {
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

void TCommands::Recover(TRecoverySender sender) {
  ChangeRecoveringStatus(true);
  TfRecoveryMaster master(FEngine, FSettings.Recovery, FRecoveryQuestions, sender);
  if (sender != TRecoverySender::rsRecoveryList) master.Filter = FFilter;
  // Results of a search and what was put aside may come from any folder: each keeps its path.
  master.IsSearchResults = sender == TRecoverySender::rsFiles && Category() == TViewCategory::vcSearchResults;
  master.IsMasterResults = master.IsSearchResults || sender == TRecoverySender::rsRecoveryList;
  master.Link.GetSelectedFiles = [this, sender](TSelectedFiles& files, const TFileFilter&) {
    files = GetSelectedFiles(sender);
  };
  const TSelectedFiles selected = GetSelectedFiles(sender);
  const std::map<int, TString> drives = DriveFolders(selected);
  const auto driveOf = [this](int number) {
    return FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo.aDriveNumber;
  };
  const bool ofOneDrive = std::all_of(selected.begin(), selected.end(), [&](const TSelectedFile& entry) {
    return driveOf(entry.FileIndex) == driveOf(selected.front().FileIndex);
  });
  if (!ofOneDrive) {
    // Files of several drives may have the same path.
    master.Link.GetFilePath = [this, &driveOf, path = master.Link.GetFilePath](int number) {
      std::vector<TString> folders = path(number);
      if (FEngine.Files().IsWrongNumber(number)) return folders;
      folders.insert(folders.begin(), FEngine.Drives().List[static_cast<std::size_t>(driveOf(number))].Caption);
      return folders;
    };
  }
  master.Link.GetFileName = [this, &drives](int number) {
    const auto drive = drives.find(number);
    if (drive != drives.end()) return TStringView(drive->second);
    const TFiles& files = FEngine.Files();
    if (files.IsWrongNumber(number)) return TStringView();
    return files.List[static_cast<std::size_t>(number)].FileInfo.strName;
  };
  if (OnRecoveryMaster) OnRecoveryMaster(master);
  ChangeRecoveringStatus(false);
}

}  // namespace brenlow
