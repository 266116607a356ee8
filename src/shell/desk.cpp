// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desk.h"

#include <algorithm>
#include <new>
#include <utility>

#include "core/datetime.h"
#include "core/drives.h"
#include "core/sector_reader.h"
#include "core/sizes.h"
#include "core/text.h"
#include "shell/entries.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr std::int64_t ProgressInterval = 100;  // milliseconds between two notes of progress
constexpr std::int64_t RefreshInterval = 400;   // and between two looks at a growing folder
constexpr std::int64_t MostRefreshShare = 10;   // of the time, as 1/n, goes into making lists anew
constexpr std::size_t HeadRows = 64;            // that go along with a list, so that it is never seen empty

}  // namespace

/// The engine asks; the window answers while the engine serves other questions.
class TDesk::TQuestions final : public IShellQuestions, public IRecoveryQuestions {
 public:
  explicit TQuestions(TDesk& desk) : FDesk(desk) {}

  // The window asks these two itself, before it sends the action.
  bool StopAnalyse() override { return true; }
  std::optional<std::string> ImageFile() override { return std::nullopt; }

  TRenameAnswer Rename(const TRenameQuestion& question) override {
    return FDesk.AskWindow<TRenameAnswer>(
        {}, [question](IDeskView& view, auto answer) { view.AskRename(question, std::move(answer)); });
  }
  TFileExistsAnswer FileExists(const TFileExistsQuestion& question) override {
    return FDesk.AskWindow<TFileExistsAnswer>(
        {}, [question](IDeskView& view, auto answer) { view.AskFileExists(question, std::move(answer)); });
  }
  TCandidateAnswer ChooseFirstCluster(const TFile& file) override {
    const TString name(file.FileInfo.strName);
    std::vector<std::int64_t> candidates;
    for (std::size_t i = 0; i < file.FileInfo.FirstClusters.size(); ++i) {
      candidates.push_back(file.FileInfo.FirstClusters[i]);
    }
    return FDesk.AskWindow<TCandidateAnswer>(
        {}, [=](IDeskView& view, auto answer) { view.AskFirstCluster(name, candidates, std::move(answer)); });
  }
  bool SaveToSameDrive() override {
    const TLanguage& language = FDesk.FEngine.Language();
    return YesNo(language.Utf8(TText::SaveSameDrive) + "\n\n" + language.Utf8(TText::SaveSameDriveQuestion));
  }
  bool LargerThanFAT() override { return YesNo(FDesk.FEngine.Language().Utf8(TText::SaveLargerThanFAT)); }
  bool MuchLargerThanSource(std::int64_t listed, std::int64_t source) override {
    return YesNo(FDesk.FEngine.Language().Utf8(TText::SaveMuchLarger, {SizeText(listed), SizeText(source)}));
  }
  // The window stops a recovery at once, see `StopRecovery`.
  bool CancelRecovery() override { return true; }

  bool YesNo(const std::string& question) {
    return FDesk.AskWindow<bool>(
        false, [question](IDeskView& view, auto answer) { view.AskYesNo(question, std::move(answer)); });
  }

 private:
  TDesk& FDesk;
};

TDesk::TDesk(const TSettings& settings, const TLanguage& language, IDeskView& view, std::function<void(TJob)> post)
    : FView(view), FPost(std::move(post)), FSettings(settings), FRelay(FEngine) {
  FQuestions = std::make_unique<TQuestions>(*this);
  FEngine.ChangeLanguage(language);
  FEngine.Folders().AssignTreeView(&FRelay);
  FCommands = std::make_unique<TCommands>(FEngine, FSettings, *FQuestions, *FQuestions);
  FCommands->OnActionsChanged = [this](const TActions&) {
    FActionsChanged = true;
    // That something begins is told before its first read, which may take long.
    if (FCommands != nullptr && FCommands->Running() != FProgress.Kind) Flush();
  };
  FCommands->OnFileListChanged = [this] { FPlaceChanged = true; };
  FCommands->OnSelectionChanged = [this] { FSelectionChanged = true; };
  FCommands->OnRecoveryListChanged = [this] { FListChanged = true; };
  FCommands->OnDrivesChanged = [this] { FDrivesChanged = true; };
  FCommands->OnRecoveryMaster = [this](TfRecoveryMaster& master) { RunRecoveryMaster(master); };
  FCommands->OnComplaint = [this](const std::string& text) { Notify(TMessageKind::Error, text); };
  FEngine.OnPump = [this] { Pumped(); };
  FEngine.OnAnalyseProgress = [this](double position) { FProgress.Position = position; };
  FEngine.Drives().OnFindProgressChanged = FEngine.OnAnalyseProgress;
  FEngine.Drives().OnProgressChanged = [this](double position) {
    FProgress.Position = position;
    FEngine.Pump();
  };
  FEngine.OnMessage = [this](const TEngineMessage& message) {
    // Rights play no part once an image file is open: it is just empty.
    const bool isImage = FEngine.Drives().IsMounted(FCommands->BusyDrive());
    if (message.Id == TText::NothingFoundNoRights && isImage) return;
    Notify(TMessageKind::Warning, ToUtf8(message.Text));
  };
  FEngine.OnAskRetry = [this](const TString& question) { return FQuestions->YesNo(ToUtf8(question)); };
}

TDesk::~TDesk() { Close(); }

// ---- window ---------------------------------------------------------------------------------

void TDesk::Command(TJob job) {
  ++FUnderWay;
  FHost.Command([this, job = std::move(job)] {
    Run(job);
    --FUnderWay;
  });
}

void TDesk::Question(TJob job) {
  ++FUnderWay;
  FHost.Question([this, job = std::move(job)] {
    Run(job);
    --FUnderWay;
  });
}

/// What the engine itself does not meet with fewer files, as a list of millions that finds no room.
void TDesk::Run(const TJob& job) {
  try {
    job();
    Flush();
  } catch (const std::bad_alloc&) {
    Notify(TMessageKind::Error, FEngine.Language().Utf8(TText::OutOfMemory));
  }
}

void TDesk::Tell(std::function<void(IDeskView&)> news) {
  FPost([this, news = std::move(news)] { news(FView); });
}

void TDesk::Start() {
  Command([this] {
    FCommands->ShowComputer();
    FCommands->FillDrives();
    FDrivesChanged = FListChanged = true;
  });
}

/// What only looks at things is done at once, also while a scan runs.
bool TDesk::IsQuick(TAction action) const {
  if (action == TAction::actOpen) return FCommands->State().List.OpensAtOnce;
  if (action >= TAction::actSortByName && action <= TAction::actFilterVideo) return true;
  constexpr TAction quick[] = {TAction::actAddToRecoveryList, TAction::actExpand, TAction::actSelectAll,
                               TAction::actInvertSelection, TAction::actFoundFileLocation};
  return std::find(std::begin(quick), std::end(quick), action) != std::end(quick);
}

void TDesk::Execute(TAction action) {
  Question([this, action] {
    if (IsQuick(action)) {
      FCommands->Execute(action);
    } else {
      Command([this, action] { FCommands->Execute(action); });
    }
  });
}

void TDesk::Do(std::function<void(TCommands&)> command) {
  Command([this, command = std::move(command)] { command(*FCommands); });
}

void TDesk::Ask(std::function<void(TCommands&)> question) {
  Question([this, question = std::move(question)] { question(*FCommands); });
}

void TDesk::FetchRows(std::uint64_t generation, TIntegerDynArray numbers,
                      std::function<void(std::vector<TFileRow>)> take) {
  const auto make = [this, generation, numbers = std::move(numbers)](TEngine&, TCommands& commands) {
    return generation == commands.Generation() ? MakeRows(numbers) : std::vector<TFileRow>();
  };
  Fetch<std::vector<TFileRow>>(make, std::move(take));
}

std::vector<TFileRow> TDesk::MakeRows(std::span<const int> numbers) {
  std::vector<TFileRow> rows;
  rows.reserve(numbers.size());
  const bool locate = FCommands->ShowsSearch();
  for (const int number : numbers) {
    rows.push_back(MakeRow(FEngine, number, FCommands->InDeletedFolder(number)));
    rows.back().Ticked = FCommands->RecoveryList().Has(number);
    if (locate || rows.back().Ticked) rows.back().Location = FCommands->LocationOf(number);
  }
  return rows;
}

void TDesk::SelectFiles(std::uint64_t generation, TIntegerDynArray numbers) {
  Question([this, generation, numbers = std::move(numbers)]() mutable {
    if (generation == FCommands->Generation()) FCommands->SelectFiles(std::move(numbers));
  });
}

void TDesk::SelectNode(std::uint32_t node) {
  Question([this, node] {
    PTreeNode known = FRelay.NodeOf(node);
    if (known != nullptr || node == 0) FCommands->SelectNode(known);
  });
}

void TDesk::ExpandNode(std::uint32_t node) {
  Question([this, node] {
    PTreeNode known = FRelay.NodeOf(node);
    // Groups have all that they hold; what a scan fills now would be taken for all there is.
    if (known == nullptr || FEngine.Files().IsWrongNumber(known->Data) || FEngine.Analysing) return;
    if (FCommands->NeedsAnalysis(*known)) {
      OpenNode(node);
    } else {
      FEngine.Folders().FillNodes(known, false);
    }
  });
}

void TDesk::StopAnalyse() { FEngine.StopScans(); }

void TDesk::StopAll() {
  FEngine.StopScans();
  FEngine.Recovering = false;
}

void TDesk::OpenDrive(int drive) {
  Command([this, drive] {
    if (PTreeNode node = FEngine.Folders().GetDriveRootNode(drive); node != nullptr) FCommands->OpenNode(node);
  });
}

void TDesk::OpenNode(std::uint32_t node) {
  Command([this, node] {
    if (PTreeNode known = FRelay.NodeOf(node); known != nullptr) FCommands->OpenNode(known);
  });
}

void TDesk::Notify(TMessageKind kind, const std::string& text) {
  Tell([kind, text](IDeskView& view) { view.Message(kind, text); });
}

void TDesk::WatchFound(std::function<void(const TDriveSnapshot&)> take) {
  if (!take) {
    FEngine.Drives().OnFound = nullptr;
    return;
  }
  FEngine.Drives().OnFound = [this, take = std::move(take)](int drive) {
    FPost([take, snapshot = MakeDrive(FEngine, drive)] { take(snapshot); });
  };
}

void TDesk::ForDrives(std::function<void(const std::vector<TDriveSnapshot>&)> take, int inside) {
  std::vector<TDriveSnapshot> drives;
  if (!FEngine.Drives().IsWrongNumber(inside)) {
    for (const int sub : FEngine.Drives().List[static_cast<std::size_t>(inside)].SubDrives) {
      drives.push_back(MakeDrive(FEngine, sub));
    }
    // A single volume that fills the drive has become the drive itself.
    if (drives.empty() && FEngine.Drives().CanBeAnalysed(inside)) drives.push_back(MakeDrive(FEngine, inside));
  }
  FPost([take = std::move(take), drives = std::move(drives)] { take(drives); });
}

void TDesk::Close() {
  FHost.End();
  StopAll();
}

// ---- news -----------------------------------------------------------------------------------

void TDesk::Pumped() {
  if (FHost.Ending()) {
    StopAll();
    return;
  }
  // Guarded here, so that a list that finds no room ends no scan.
  Run([this] {
    FHost.ServeQuestions();
    Refresh();
  });
}

/// Shows what the running scan has brought, unless that would slow it down.
void TDesk::Refresh() {
  const std::int64_t now = SteadyMilliseconds();
  if (!FEngine.Analysing || now - FPlaceMade < std::max(RefreshInterval, FPlaceCost * MostRefreshShare)) return;
  const bool newDrives = FCommands->ShowNewSubDrives();
  if (!newDrives && !FCommands->HasGrown()) return;
  FCommands->Rebuild();
  FPlaceMade = SteadyMilliseconds();
  FPlaceCost = FPlaceMade - now;
}

void TDesk::Flush() {
  FollowProgress();
  if (FActionsChanged) PublishActions();
  // The place may need nodes that are not in the tree yet.
  if (FPlaceChanged) PublishPlace();
  PublishTree();
  if (FDrivesChanged) PublishDrives();
  if (std::exchange(FListChanged, false)) {
    const TListing listing{FCommands->Generation(),
                           std::make_shared<const TIntegerDynArray>(FCommands->ShownRecoveryList())};
    Tell([listing](IDeskView& view) { view.RecoveryListChanged(listing); });
  }
  if (std::exchange(FSelectionChanged, false)) {
    Tell([generation = FCommands->Generation(), selected = FCommands->SelectedFiles()](IDeskView& view) {
      view.SelectionChanged(generation, selected);
    });
  }
}

void TDesk::PublishActions() {
  FActionsChanged = false;
  const TShellState state = FCommands->State();
  Tell([actions = CheckActionsEnabled(state), state, filter = FCommands->Filter()](IDeskView& view) {
    view.ActionsChanged(actions, state, filter);
  });
}

void TDesk::PublishPlace() {
  FPlaceChanged = false;
  TPlaceSnapshot place = FCommands->Place();
  place.Node = FRelay.NumberOf(FCommands->SelectedNode());
  const std::span<const int> numbers(*place.Listing.Numbers);
  place.Head = MakeRows(numbers.first(std::min(numbers.size(), HeadRows)));
  PublishTree();
  Tell([place = std::move(place)](IDeskView& view) { view.PlaceChanged(place); });
}

void TDesk::PublishDrives() {
  FDrivesChanged = false;
  const TFiles& files = FEngine.Files();
  std::vector<TDriveSnapshot> drives;
  for (int i = 0; i < static_cast<int>(FEngine.Drives().List.size()); ++i) drives.push_back(MakeDrive(FEngine, i));
  for (const TFolder& folder : FEngine.Folders().List) {
    if (!files.IsRootDir(folder.Id)) continue;
    const int drive = files.List[static_cast<std::size_t>(folder.Id)].FileInfo.aDriveNumber;
    if (!FEngine.Drives().IsWrongNumber(drive)) {
      drives[static_cast<std::size_t>(drive)].Node = FRelay.NumberOf(folder.TN);
    }
  }
  Tell([drives = std::move(drives)](IDeskView& view) { view.DrivesChanged(drives); });
}

void TDesk::PublishTree() {
  if (!FRelay.HasChanges()) return;
  std::vector<TTreeChange> changes = FRelay.Take();
  const auto isDrive = [](const TTreeChange& change) {
    return change.Kind == TTreeChange::Added && IsDriveKind(change.EntryKind);
  };
  FDrivesChanged = FDrivesChanged || std::any_of(changes.begin(), changes.end(), isDrive);
  Tell([changes = std::move(changes)](IDeskView& view) { view.TreeChanged(changes); });
}

void TDesk::FollowProgress() {
  const TProgressSnapshot::TKind running = FCommands->Running();
  const TDrives& drives = FEngine.Drives();
  const std::int64_t now = SteadyMilliseconds();
  const auto read = static_cast<std::int64_t>(FEngine.Reader().BytesRead());
  if (running != FProgress.Kind) {
    FProgress = TProgressSnapshot();
    FProgress.Kind = running;
    FReadBefore = static_cast<std::uint64_t>(read);
    const int drive = FCommands->BusyDrive();
    if (!drives.IsWrongNumber(drive)) FProgress.Caption = drives.List[static_cast<std::size_t>(drive)].Caption;
  } else if (running == TProgressSnapshot::None || now - FProgressTold < ProgressInterval) {
    return;
  }
  FProgressTold = now;
  FProgress.Bytes = read - static_cast<std::int64_t>(FReadBefore);
  FProgress.Found = FEngine.Analysing ? FEngine.Files().FoundCount : 0;
  FProgress.Unreadable = drives.UnreadableSectors();
  Tell([progress = FProgress](IDeskView& view) { view.ProgressChanged(progress); });
}

// ---- questions ------------------------------------------------------------------------------

template <typename TAnswer>
TAnswer TDesk::AskWindow(TAnswer fallback, std::function<void(IDeskView&, std::function<void(TAnswer)>)> ask) {
  const auto answer = std::make_shared<std::optional<TAnswer>>();
  Tell([this, ask = std::move(ask), answer](IDeskView& view) {
    ask(view, [this, answer](TAnswer given) { FHost.Question([answer, given] { *answer = given; }); });
  });
  FHost.ServeUntil([&] { return answer->has_value(); }, false);
  return answer->value_or(fallback);
}

// ---- recovery wizard ------------------------------------------------------------------------

void TDesk::RunRecoveryMaster(TfRecoveryMaster& master) {
  FMaster = &master;
  FMasterDone = false;
  bool opened = false;
  master.OnPage = [&](int) { PublishRecoveryPage(!std::exchange(opened, true)); };
  master.OnBeforeRecovery = [this](TfrmSaveProgress& progress) {
    FRecoveredFiles = 0;
    progress.OnProgress = [this, &progress](double, std::int64_t) { PublishRecovery(progress); };
    progress.OnFile = [this, &progress](const TFileOutcome&, bool) {
      ++FRecoveredFiles;
      PublishRecovery(progress);
    };
  };
  Flush();
  master.Show();
  FHost.ServeUntil([this] { return FMasterDone; }, true);
  FMaster = nullptr;
  Tell([settings = FSettings.Recovery](IDeskView& view) { view.RecoveryClosed(settings); });
}

void TDesk::PublishRecovery(const TfrmSaveProgress& progress) {
  const std::int64_t now = SteadyMilliseconds();
  if (now - FProgressTold < ProgressInterval) return;
  FProgressTold = now;
  TRecoveryProgress news;
  news.Bytes = progress.RecoveredSize;
  news.Total = progress.RecoverySize;
  news.Ratio = news.Total > 0 ? std::min(1.0, static_cast<double>(news.Bytes) / static_cast<double>(news.Total)) : 0;
  news.Files = FRecoveredFiles;
  const TFiles& files = FEngine.Files();
  if (!files.IsWrongNumber(progress.CurrentRecoveringFile)) {
    news.Name = files.List[static_cast<std::size_t>(progress.CurrentRecoveringFile)].FileInfo.strName;
  }
  Tell([news](IDeskView& view) { view.RecoveryProgressChanged(news); });
}

void TDesk::PublishRecoveryPage(bool justOpened) {
  TRecoveryPage page;
  page.Page = FMaster->FActivePage();
  page.JustOpened = justOpened;
  page.RecoverType = FMaster->RecoverType;
  page.Remember = FMaster->Remember;
  const TfrmSaveOptions& options = FMaster->Options;
  page.Path = options.Path;
  page.RestoreFolders = options.RestoreFolders;
  page.ADS = options.ADS;
  page.CanReplaceSymbols = options.CanReplaceSymbols;
  page.UnknownSymbols = options.UnknownSymbols;
  page.SpaceRequiredText = options.SpaceRequiredText;
  page.SpaceAvailableText = options.SpaceAvailableText;
  if (FMaster->TargetError() != 0) {
    page.TargetError = FEngine.Language().Utf8(
        TText::ErrorOf, {options.Path, SystemErrorText(FEngine.Language(), FMaster->TargetError())});
  }
  if (page.Page == TfRecoveryMaster::Finish && FMaster->Progress() != nullptr) {
    page.Summary = FMaster->Progress()->Summary();
  }
  Tell([page](IDeskView& view) { view.RecoveryPageChanged(page); });
}

void TDesk::Apply(const TRecoveryForm& form) {
  FMaster->RecoverType = form.RecoverType;
  FMaster->Remember = form.Remember;
  TfrmSaveOptions& options = FMaster->Options;
  options.ChangePath(form.Path);
  options.RestoreFolders = form.RestoreFolders;
  options.ADS = form.ADS;
  options.CanReplaceSymbols = form.CanReplaceSymbols;
  if (!form.UnknownSymbols.empty()) options.TypeSymbol(form.UnknownSymbols.front());
}

void TDesk::RecoveryNext(TRecoveryForm form) {
  Command([this, form = std::move(form)] {
    if (FMaster == nullptr) return;
    const int before = FMaster->FActivePage();
    if (before == TfRecoveryMaster::SaveOptions) {
      Apply(form);
    } else {
      FMaster->RecoverType = form.RecoverType;
      FMaster->Remember = form.Remember;
    }
    FMaster->Next();
    // A page that was not left has something to say.
    if (FMaster->FActivePage() == before) PublishRecoveryPage(false);
  });
}

void TDesk::RecoveryChangePath(std::string path) {
  Command([this, path = std::move(path)] {
    if (FMaster == nullptr || FMaster->FActivePage() != TfRecoveryMaster::SaveOptions) return;
    FMaster->Options.ChangePath(path);
    PublishRecoveryPage(false);
  });
}

void TDesk::StopRecovery() { FEngine.Recovering = false; }

void TDesk::RecoveryClose() {
  FEngine.Recovering = false;
  Command([this] { FMasterDone = true; });
}

}  // namespace brenlow
