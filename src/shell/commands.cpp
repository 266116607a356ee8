// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/commands.h"

#include <algorithm>
#include <unordered_set>

#include "analysis/files.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/text.h"
#include "recovery/recovery_master.h"

namespace brenlow {

TCommands::TCommands(TEngine& engine, TSettings& settings, IShellQuestions& questions,
                     IRecoveryQuestions& recoveryQuestions)
    : FEngine(engine),
      FSettings(settings),
      FQuestions(questions),
      FRecoveryQuestions(recoveryQuestions),
      FRecoveryList(engine),
      FRecoveryListShown(settings.RecoveryList.IsOn) {
  TFiles& files = engine.Files();
  files.OnBeforeCleared = [this](int drive) { FRecoveryList.ClearFiles(drive); };
  files.OnBeforeDeepCleared = [this](int drive) { FRecoveryList.ClearDeepFiles(drive); };
  files.OnNumbersMoved = [this](const std::vector<std::uint32_t>& newNumbers) {
    FRecoveryList.MoveNumbers(newNumbers);
    RefreshFileList();
  };
  files.OnRefreshFileList = [this] { RefreshFileList(); };
  engine.Folders().OnBeforeNodeDeleted = [this](const TTreeNode& node) { NodeGone(node); };
  engine.Drives().OnAdded = [this](int number) { FEngine.Folders().AddDrive(number); };
  engine.OnChangeAnalysingStatus = [this](int, bool) { Changed(); };
}

TCommands::~TCommands() {
  TFiles& files = FEngine.Files();
  files.OnBeforeCleared = nullptr;
  files.OnBeforeDeepCleared = nullptr;
  files.OnNumbersMoved = nullptr;
  files.OnRefreshFileList = nullptr;
  FEngine.Folders().OnBeforeNodeDeleted = nullptr;
  FEngine.Drives().OnAdded = nullptr;
  FEngine.OnChangeAnalysingStatus = nullptr;
}

// ---- what is shown and selected -------------------------------------------------------------

void TCommands::Changed() {
  if (OnActionsChanged) OnActionsChanged(EnabledActions());
}

void TCommands::FillDrives() {
  FEngine.Drives().Fill();
  for (int i = 0; i < static_cast<int>(FEngine.Drives().List.size()); ++i) FEngine.Folders().AddDrive(i);
  Changed();
}

void TCommands::SelectNode(PTreeNode node) {
  FNode = node;
  const TFiles& files = FEngine.Files();
  if (node != nullptr && !files.IsWrongNumber(node->Data)) {
    FEngine.Drives().Current = files.List[static_cast<std::size_t>(node->Data)].FileInfo.aDriveNumber;
  }
  RefreshFileList();
}

void TCommands::RefreshFileList() {
  FShown.clear();
  FSelected.clear();
  const TFiles& files = FEngine.Files();
  if (FNode != nullptr && !files.IsWrongNumber(FNode->Data)) {
    const TFileInfo& folder = files.List[static_cast<std::size_t>(FNode->Data)].FileInfo;
    for (const std::int64_t number : FEngine.Drives().GetParentClusters(folder.aDriveNumber, folder.FirstCluster)) {
      if (files.IsFiltered(static_cast<int>(number), folder.blnDeleted, FFilter)) {
        FShown.push_back(static_cast<int>(number));
      }
    }
  } else if (FNode != nullptr) {
    // A group shows its drives.
    for (const auto& child : FNode->Children) FShown.push_back(static_cast<int>(child->Data));
  }
  if (OnFileListChanged) OnFileListChanged();
  Changed();
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

void TCommands::NodeGone(const TTreeNode& node) {
  for (const TTreeNode* at = FNode; at != nullptr; at = at->Parent) {
    if (at != &node) continue;
    FNode = node.Parent->Parent == nullptr ? nullptr : node.Parent;
    RefreshFileList();
    return;
  }
}

// ---- state ----------------------------------------------------------------------------------

TIntegerDynArray TCommands::NodeAsList() const {
  if (FNode == nullptr || FEngine.Files().IsWrongNumber(FNode->Data)) return {};
  return {static_cast<int>(FNode->Data)};
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
    state.Any = true;
    state.OneFolder = info.blnFolder && fileNumbers.size() == 1;
    const bool analysed =
        drive.Analysed != TAnalyseInformation::aiNone || drive.DeepAnalysed != TAnalyseInformation::aiNone;
    state.DriveAnalysed = state.DriveAnalysed || analysed;
    state.Recoverable = state.Recoverable || !isDrive || !drives.IsEmpty(info.aDriveNumber);
    state.CanCloseDisk = state.CanCloseDisk || (isDrive && drives.CanCloseDisk(info.aDriveNumber));
    state.Mounted = state.Mounted || (isDrive && drives.IsMounted(info.aDriveNumber));
  }
  return state;
}

TShellState TCommands::State() const {
  TShellState state;
  state.Analysing = FEngine.Analysing;
  state.Recovering = FRecovering;
  state.List = StateOf(FSelected);
  state.Tree = StateOf(NodeAsList());
  state.Tree.Any = FNode != nullptr;
  state.ShownFiles = static_cast<int>(FShown.size());
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
      return Analyse(FNode, true);
    case TAction::actStopAnalyse:
      if (FQuestions.StopAnalyse()) FEngine.Analysing = false;
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
      FRecoveryList.AddFiles(FSelected);
      Changed();
      break;
    case TAction::actMountImage:
    case TAction::actFoldersMountImage:
      if (const auto path = FQuestions.ImageFile(); path) return Mount(*path) >= 0;
      return false;
    case TAction::actUnmountImage:
      CloseDisks(StateOf(FSelected).Mounted ? FSelected : NodeAsList(), true);
      break;
    case TAction::actCloseDisk:
      CloseDisks(FSelected, false);
      break;
    case TAction::actFoldersCloseDisk:
      CloseDisks(NodeAsList(), false);
      break;
    case TAction::actRefresh:
      RefreshFileList();
      break;
    case TAction::actExpand:
      FEngine.Folders().FillNodes(FNode, true);
      break;
    case TAction::actSelectAll:
      SelectFiles(FShown);
      break;
    case TAction::actInvertSelection: {
      const std::unordered_set<int> selected(FSelected.begin(), FSelected.end());
      TIntegerDynArray inverted;
      std::copy_if(FShown.begin(), FShown.end(), std::back_inserter(inverted),
                   [&](int number) { return !selected.contains(number); });
      SelectFiles(std::move(inverted));
      break;
    }
    case TAction::actExit:
      if (OnExit) OnExit();
      break;
    default:
      return ExecuteFilter(action);
  }
  return true;
}

/// Existing and deleted are switches of their own; a kind and "all files" exclude each other.
bool TCommands::ExecuteFilter(TAction action) {
  constexpr std::pair<TAction, bool TFileFilter::*> kinds[] = {
      {TAction::actFilterArchive, &TFileFilter::Archive},   {TAction::actFilterAudio, &TFileFilter::Audio},
      {TAction::actFilterDatabase, &TFileFilter::Database}, {TAction::actFilterDocument, &TFileFilter::Document},
      {TAction::actFilterImage, &TFileFilter::Image},       {TAction::actFilterVideo, &TFileFilter::Video}};
  if (action == TAction::actFilterExisting) FFilter.Existing = !FFilter.Existing;
  if (action == TAction::actFilterDeleted) FFilter.Deleted = !FFilter.Deleted;
  for (const auto& [kindAction, field] : kinds) {
    if (action == TAction::actFilterAllFiles) FFilter.*field = false;
    if (action == kindAction) FFilter.*field = !(FFilter.*field);
  }
  FFilter.AllFiles =
      std::none_of(std::begin(kinds), std::end(kinds), [&](const auto& kind) { return FFilter.*kind.second; });
  RefreshFileList();
  return true;
}

/// The selected folder becomes the one shown; a drive without results is analysed first.
void TCommands::Open() {
  TFolders& folders = FEngine.Folders();
  const int number = FSelected.front();
  const TFileInfo& info = FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo;
  if (FNode != nullptr) folders.FillNodes(FNode, true);
  PTreeNode node = folders.NodeOf(number);
  if (node == nullptr) return;
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)];
  const bool blank = drive.Analysed == TAnalyseInformation::aiNone && drive.DeepAnalysed == TAnalyseInformation::aiNone;
  if (blank && !Analyse(node, false)) return;
  SelectNode(folders.NodeOf(number));
}

bool TCommands::Analyse(PTreeNode node, bool isReopen) {
  TFolders& folders = FEngine.Folders();
  if (!folders.NodeCanBeAnalysed(node) || FEngine.Analysing || FRecovering) return false;
  const int drive = FEngine.Files().List[static_cast<std::size_t>(node->Data)].FileInfo.aDriveNumber;
  if (!FEngine.Drives().IsDiskIn(drive, true)) return false;
  if (isReopen) {
    FEngine.Files().Clear(drive, false);
    node = folders.GetDriveRootNode(drive);  // a folder's own node went with its results
  }
  const bool done = folders.AnalyseNode(node, static_cast<bool>(folders.OnShowAnalyseProgress));
  RefreshFileList();
  return done;
}

int TCommands::Mount(const std::string& path) {
  TDrives& drives = FEngine.Drives();
  const int number = drives.Mount(TextFromPath(path), true);
  if (number >= 0) SelectNode(FEngine.Folders().GetDriveRootNode(number));
  return number;
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
  const bool inDeleted = FNode != nullptr && !files.IsWrongNumber(FNode->Data) &&
                         files.List[static_cast<std::size_t>(FNode->Data)].FileInfo.blnDeleted;
  const auto add = [&](int number, bool parentDeleted, const TFileFilter* filter) {
    if (files.IsWrongNumber(number)) return;
    if (filter != nullptr && !files.IsFiltered(number, parentDeleted, *filter)) return;
    selected.push_back({number, parentDeleted || files.List[static_cast<std::size_t>(number)].FileInfo.blnDeleted});
  };
  switch (sender) {
    case TRecoverySender::rsFiles:
      for (const int number : FSelected) add(number, inDeleted, &FFilter);
      break;
    case TRecoverySender::rsFolders:
      for (const int number : NodeAsList()) {
        const int drive = files.List[static_cast<std::size_t>(number)].FileInfo.aDriveNumber;
        // A folder of the host is no entry of a view, so no filter knows it.
        if (FEngine.Drives().IsDiskIn(drive, false))
          add(number, false, files.IsCustomFolder(number) ? nullptr : &FFilter);
      }
      break;
    case TRecoverySender::rsRecoveryList:
      for (const int number : FRecoveryList.Files()) add(number, false, nullptr);
      break;
  }
  return selected;
}

void TCommands::Recover(TRecoverySender sender) {
  ChangeRecoveringStatus(true);
  TfRecoveryMaster master(FEngine, FSettings.Recovery, FRecoveryQuestions, sender);
  if (sender != TRecoverySender::rsRecoveryList) master.Filter = FFilter;
  master.Link.GetSelectedFiles = [this, sender](TSelectedFiles& files, const TFileFilter&) {
    files = GetSelectedFiles(sender);
  };
  if (OnRecoveryMaster) OnRecoveryMaster(master);
  ChangeRecoveringStatus(false);
}

}  // namespace brenlow
