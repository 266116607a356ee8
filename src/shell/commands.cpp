// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/commands.h"

#include <utility>

#include "core/drives.h"
#include "core/engine.h"
#include "table/files.h"

namespace brenlow {
namespace {

// ---- what the actions run: false when nothing was done --------------------------------------

/// The selected folder becomes the one shown; a drive without results is analysed first.
bool Open(TCommands& commands, TAction) {
  const TIntegerDynArray& selected = commands.View().Selected();
  if (selected.empty()) return commands.Jobs().Analyse(commands.Places().SelectedNode(), false);
  const bool blank = commands.StateOf({selected.front()}).Blank;
  commands.Places().ShowFolder(selected.front());
  return !blank || commands.Jobs().Analyse(commands.Places().SelectedNode(), false);
}

bool Reopen(TCommands& commands, TAction) {
  for (const int number : TIntegerDynArray(commands.View().Selected())) {
    const int drive = commands.DriveOf(number);
    if (drive >= 0) return commands.Jobs().Analyse(commands.DriveNode(drive), true);
  }
  return false;
}

bool ReopenTree(TCommands& commands, TAction) {
  return commands.Jobs().Analyse(commands.Places().SelectedNode(), true);
}

bool StopAnalyse(TCommands& commands, TAction) {
  if (commands.Questions().StopAnalyse()) commands.StopScans();
  return true;
}

bool Recover(TCommands& commands, TAction) {
  commands.Recoveries().Run(TRecoverySender::rsFiles);
  return true;
}

bool RecoverTree(TCommands& commands, TAction) {
  commands.Recoveries().Run(TRecoverySender::rsFolders);
  return true;
}

bool RecoverList(TCommands& commands, TAction) {
  commands.Recoveries().Run(TRecoverySender::rsRecoveryList);
  return true;
}

bool AddToList(TCommands& commands, TAction) {
  commands.Recoveries().PutOnList(commands.View().Selected(), true);
  return true;
}

bool MountImage(TCommands& commands, TAction) {
  const std::optional<std::string> path = commands.Questions().ImageFile();
  return path && commands.Jobs().Mount(*path) >= 0;
}

bool Unmount(TCommands& commands, TAction) {
  const TIntegerDynArray& selected = commands.View().Selected();
  commands.Jobs().CloseDisks(commands.StateOf(selected).Mounted ? selected : commands.Places().CurrentAsList(), true);
  return true;
}

bool CloseDisk(TCommands& commands, TAction) {
  commands.Jobs().CloseDisks(TIntegerDynArray(commands.View().Selected()), false);
  return true;
}

bool CloseTreeDisk(TCommands& commands, TAction) {
  commands.Jobs().CloseDisks(commands.Places().CurrentAsList(), false);
  return true;
}

bool LookForDevices(TCommands& commands, TAction) {
  commands.Jobs().DevicesChanged();
  return true;
}

bool Expand(TCommands& commands, TAction) {
  commands.FillSelectedNode();
  return true;
}

bool SelectAll(TCommands& commands, TAction) {
  commands.View().SelectAll();
  commands.TellSelection();
  return true;
}

bool InvertSelection(TCommands& commands, TAction) {
  commands.View().InvertSelection();
  commands.TellSelection();
  return true;
}

bool ShowFound(TCommands& commands, TAction) {
  commands.ShowLocation(commands.View().Selected().front());
  return true;
}

bool Sort(TCommands& commands, TAction action) { return commands.View().ApplySort(action); }
bool Filter(TCommands& commands, TAction action) { return commands.View().ApplyFilter(action); }
bool InWindow(TCommands&, TAction) { return false; }

using TRun = bool (*)(TCommands&, TAction);
constexpr TRun Runs[] = {
#define BRENLOW_ACTION(id, caption, icon, key, look, when, order, run) run,
#include "shell/actions.inc"
#undef BRENLOW_ACTION
};

}  // namespace

bool TCommands::Execute(TAction action) {
  return EnabledActions().Has(action) && Runs[static_cast<std::size_t>(action)](*this, action);
}

// ---- the parts ------------------------------------------------------------------------------

TCommands::TCommands(TEngine& engine, const TSettings& settings, IShellQuestions& questions,
                     IRecoveryQuestions& recoveryQuestions)
    : FEngine(engine),
      FQuestions(questions),
      FPlaces(engine),
      FView(engine, FPlaces, settings),
      FRecoveries(engine, FPlaces, FView, recoveryQuestions),
      FJobs(engine, FPlaces, FView) {
  FRecoveries.Settings = settings.Recovery;
  FRecoveries.SetOrder(FileOrderOf(settings.RecoveryList.SortIndex, settings.RecoveryList.SortRevers));
  FRecoveries.ShowList(settings.RecoveryList.IsOn);
  ConnectParts();
  ConnectEngine();
}

namespace {

/// Passes a call on as long as somebody listens.
template <typename... TArguments>
auto Forward(const std::function<void(TArguments...)>& to) {
  return [&to](TArguments... arguments) {
    if (to) to(arguments...);
  };
}

}  // namespace

void TCommands::ConnectParts() {
  FPlaces.OnChanged = [this] { FView.Refresh(); };
  FView.OnSelected = Forward(OnActionsChanged);
  FView.OnChanged = [this] {
    if (OnFileListChanged) OnFileListChanged();
    if (OnActionsChanged) OnActionsChanged();
  };
  FRecoveries.OnMaster = [this](TfRecoveryMaster& master) {
    if (OnRecoveryMaster) OnRecoveryMaster(master);
  };
  FRecoveries.OnListChanged = Forward(OnRecoveryListChanged);
  FRecoveries.OnStateChanged = Forward(OnActionsChanged);
  FJobs.IsRecovering = [this] { return FRecoveries.IsRunning(); };
  FJobs.OnStateChanged = Forward(OnActionsChanged);
  FJobs.OnDrivesChanged = Forward(OnDrivesChanged);
  FJobs.OnComplaint = [this](const std::string& text) {
    if (OnComplaint) OnComplaint(text);
  };
}

void TCommands::ConnectEngine() {
  TFiles& files = FEngine.Files();
  files.OnBeforeCleared = [this](int drive) { FRecoveries.ClearFiles(drive); };
  files.OnBeforeDeepCleared = [this](int drive) { FRecoveries.ClearDeepFiles(drive); };
  files.OnNumbersMoved = [this](const std::vector<std::uint32_t>& newNumbers) {
    FView.NextGeneration();
    FRecoveries.MoveNumbers(newNumbers);
    FPlaces.MoveNumbers(newNumbers);
  };
  files.OnRefreshFileList = [this] { FView.Refresh(); };
  FEngine.Folders().OnBeforeNodeDeleted = [this](const TTreeNode& node) { FPlaces.ForgetNode(node); };
  FEngine.Drives().OnAdded = [this](int number) {
    FEngine.Folders().AddDrive(number);
    FJobs.OnDrivesChanged();
  };
  FEngine.Drives().OnDeleted = [this](int) { FJobs.OnDrivesChanged(); };
  FEngine.OnChangeAnalysingStatus = [this](int drive, bool) {
    FJobs.SetBusyDrive(drive);
    FJobs.OnDrivesChanged();
    FJobs.OnStateChanged();
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

// ---- state ----------------------------------------------------------------------------------

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
    state.Blank = state.OneFolder && FJobs.IsBlank(info);
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

TShellState TCommands::State() const {
  TShellState state;
  state.Analysing = FEngine.Analysing;
  state.Recovering = FRecoveries.IsRunning();
  state.Searching = FJobs.IsSearching();
  state.List = StateOf(FView.Selected());
  state.Tree = StateOf(FPlaces.CurrentAsList());
  const TShownPlace::TKind kind = FPlaces.Current().Kind;
  state.Tree.Any = kind == TShownPlace::Folder || kind == TShownPlace::Group;
  state.ShownFiles = static_cast<int>(FView.Files().size());
  state.ShowsDrives = FPlaces.Category() == TViewCategory::vcDrives;
  state.ShowsSearch = FPlaces.ShowsSearch();
  state.RecoveryListShown = FRecoveries.IsListShown();
  state.RecoveryListFiles = static_cast<int>(FRecoveries.List().Files().size());
  return state;
}

TPlaceSnapshot TCommands::Place() const {
  TPlaceSnapshot place = FPlaces.Snapshot();
  FView.Describe(place);
  return place;
}

int TCommands::DriveOf(int fileNumber) const {
  const TFiles& files = FEngine.Files();
  return files.IsWrongNumber(fileNumber) ? -1 : files.List[static_cast<std::size_t>(fileNumber)].FileInfo.aDriveNumber;
}

PTreeNode TCommands::DriveNode(int drive) const { return FEngine.Folders().GetDriveRootNode(drive); }

// ---- commands that concern several parts ----------------------------------------------------

void TCommands::OpenNode(PTreeNode node) {
  FPlaces.SelectNode(node);
  if (FJobs.NeedsAnalysis(*node)) FJobs.Analyse(node, false);
}

void TCommands::FillSelectedNode() { FEngine.Folders().FillNodes(FPlaces.SelectedNode(), true); }

void TCommands::StopScans() { FEngine.StopScans(); }

void TCommands::ShowLocation(int fileNumber) {
  if (!FPlaces.ShowLocation(fileNumber)) return;
  FView.Select({fileNumber});
  TellSelection();
}

void TCommands::TellSelection() const {
  if (OnSelectionChanged) OnSelectionChanged();
}

void TCommands::ChangeLanguage(TLanguage language) {
  FEngine.ChangeLanguage(std::move(language));
  FJobs.OnDrivesChanged();
  if (OnRecoveryListChanged) OnRecoveryListChanged();
  FView.Rebuild();
}

}  // namespace brenlow
