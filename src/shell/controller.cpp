// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/controller.h"

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
constexpr std::int64_t RefreshInterval = 400;   // and between two checks of a growing folder
constexpr std::int64_t MaxRefreshShare = 10;    // of the time, as 1/n, goes into rebuilding lists
constexpr std::size_t HeadRows = 64;            // that go along with a list, so that it is never seen empty

}  // namespace

/// The engine asks; the window answers while the engine serves other questions.
class TShellController::TQuestions final : public IShellQuestions, public IRecoveryQuestions {
 public:
  explicit TQuestions(TShellController& controller) : FController(controller) {}

  // The window asks these two itself, before it sends the action.
  bool StopAnalyse() override { return true; }
  std::optional<std::string> ImageFile() override { return std::nullopt; }

  TRenameAnswer Rename(const TRenameQuestion& question) override {
    return FController.AskWindow<TRenameAnswer>(
        {}, [question](IShellView& view, auto answer) { view.AskRename(question, std::move(answer)); });
  }
  TFileExistsAnswer FileExists(const TFileExistsQuestion& question) override {
    return FController.AskWindow<TFileExistsAnswer>(
        {}, [question](IShellView& view, auto answer) { view.AskFileExists(question, std::move(answer)); });
  }
  TCandidateAnswer ChooseFirstCluster(const TFile& file) override {
    const TString name(file.FileInfo.strName);
    std::vector<std::int64_t> candidates;
    for (std::size_t i = 0; i < file.FileInfo.FirstClusters.size(); ++i) {
      candidates.push_back(file.FileInfo.FirstClusters[i]);
    }
    return FController.AskWindow<TCandidateAnswer>(
        {}, [=](IShellView& view, auto answer) { view.AskFirstCluster(name, candidates, std::move(answer)); });
  }
  bool SaveToSameDrive() override {
    const TLanguage& language = FController.FEngine.Language();
    return YesNo(language.Utf8(TText::SaveSameDrive) + "\n\n" + language.Utf8(TText::SaveSameDriveQuestion));
  }
  bool MuchLargerThanSource(std::int64_t listed, std::int64_t source) override {
    return YesNo(FController.FEngine.Language().Utf8(TText::SaveMuchLarger, {SizeText(listed), SizeText(source)}));
  }
  // The window stops a recovery at once, see `StopRecovery`.
  bool CancelRecovery() override { return true; }

  bool YesNo(const std::string& question) {
    return FController.AskWindow<bool>(
        false, [question](IShellView& view, auto answer) { view.AskYesNo(question, std::move(answer)); });
  }

 private:
  TShellController& FController;
};

TShellController::TShellController(const TSettings& settings, const TLanguage& language, IShellView& view,
                                   std::function<void(TJob)> post)
    : FView(view), FPost(std::move(post)), FRelay(FEngine) {
  FQuestions = std::make_unique<TQuestions>(*this);
  FEngine.ChangeLanguage(language);
  FEngine.Folders().AssignTreeView(&FRelay);
  FCommands = std::make_unique<TCommands>(FEngine, settings, *FQuestions, *FQuestions);
  FCommands->OnActionsChanged = [this] {
    FActionsChanged = true;
    // The window hears that something begins before its first read, which may take long.
    if (FCommands->Jobs().Running() != FProgress.Kind) Flush();
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
    const bool isImage = FEngine.Drives().IsMounted(FCommands->Jobs().BusyDrive());
    if (message.Id == TText::NothingFoundNoRights && isImage) return;
    Notify(TMessageKind::Warning, ToUtf8(message.Text));
  };
  FEngine.OnAskRetry = [this](const TString& question) { return FQuestions->YesNo(ToUtf8(question)); };
}

TShellController::~TShellController() { Close(); }

// ---- window ---------------------------------------------------------------------------------

void TShellController::Command(TJob job) {
  ++FUnderWay;
  FHost.Command([this, job = std::move(job)] {
    Run(job);
    --FUnderWay;
  });
}

void TShellController::Question(TJob job) {
  ++FUnderWay;
  FHost.Question([this, job = std::move(job)] {
    Run(job);
    --FUnderWay;
  });
}

/// Catches what the engine does not handle itself, such as no memory for a list of millions.
void TShellController::Run(const TJob& job) {
  try {
    job();
    Flush();
  } catch (const std::bad_alloc&) {
    Notify(TMessageKind::Error, FEngine.Language().Utf8(TText::OutOfMemory));
  }
}

void TShellController::Tell(std::function<void(IShellView&)> news) {
  FPost([this, news = std::move(news)] { news(FView); });
}

void TShellController::Start() {
  Command([this] {
    FCommands->Places().ShowComputer();
    FCommands->Jobs().FillDrives();
    FDrivesChanged = FListChanged = true;
  });
}

/// Whether an action is carried out while something runs.
bool TShellController::RunsAtOnce(TAction action) const {
  const TActionOrder order = InfoOf(action).Order;
  return order == TActionOrder::AtOnce || (order == TActionOrder::AtOnceIfOpen && FCommands->State().List.OpensAtOnce);
}

void TShellController::Execute(TAction action) {
  Question([this, action] {
    if (RunsAtOnce(action)) {
      FCommands->Execute(action);
    } else {
      Command([this, action] { FCommands->Execute(action); });
    }
  });
}

void TShellController::Do(std::function<void(TCommands&)> command) {
  Command([this, command = std::move(command)] { command(*FCommands); });
}

void TShellController::Ask(std::function<void(TCommands&)> question) {
  Question([this, question = std::move(question)] { question(*FCommands); });
}

void TShellController::FetchRows(std::uint64_t generation, TIntegerDynArray numbers,
                                 std::function<void(std::vector<TFileRow>)> take) {
  const auto make = [this, generation, numbers = std::move(numbers)](TEngine&, TCommands& commands) {
    return generation == commands.View().Generation() ? MakeRows(numbers) : std::vector<TFileRow>();
  };
  Fetch<std::vector<TFileRow>>(make, std::move(take));
}

std::vector<TFileRow> TShellController::MakeRows(std::span<const int> numbers) {
  std::vector<TFileRow> rows;
  rows.reserve(numbers.size());
  const bool locate = FCommands->Places().ShowsSearch();
  for (const int number : numbers) {
    rows.push_back(MakeRow(FEngine, number, FCommands->Places().InDeletedFolder(number)));
    rows.back().Checked = FCommands->Recoveries().List().Has(number);
    if (locate || rows.back().Checked) rows.back().Location = FCommands->Places().LocationOf(number);
  }
  return rows;
}

void TShellController::SelectFiles(std::uint64_t generation, TIntegerDynArray numbers) {
  Question([this, generation, numbers = std::move(numbers)]() mutable {
    if (generation == FCommands->View().Generation()) FCommands->View().Select(std::move(numbers));
  });
}

void TShellController::SelectNode(std::uint32_t node) {
  Question([this, node] {
    PTreeNode found = FRelay.NodeOf(node);
    if (found != nullptr || node == 0) FCommands->Places().SelectNode(found);
  });
}

void TShellController::ExpandNode(std::uint32_t node) {
  Question([this, node] {
    PTreeNode found = FRelay.NodeOf(node);
    // Groups have all that they hold; what a scan fills now would be taken for all there is.
    if (found == nullptr || FEngine.Files().IsWrongNumber(found->Data) || FEngine.Analysing) return;
    if (FCommands->Jobs().NeedsAnalysis(*found)) {
      OpenNode(node);
    } else {
      FEngine.Folders().FillNodes(found, false);
    }
  });
}

void TShellController::StopAnalyse() { FEngine.StopScans(); }

void TShellController::StopAll() {
  FEngine.StopScans();
  FEngine.Recovering = false;
}

void TShellController::OpenDrive(int drive) {
  Command([this, drive] {
    if (PTreeNode node = FEngine.Folders().GetDriveRootNode(drive); node != nullptr) FCommands->OpenNode(node);
  });
}

void TShellController::OpenNode(std::uint32_t node) {
  Command([this, node] {
    if (PTreeNode found = FRelay.NodeOf(node); found != nullptr) FCommands->OpenNode(found);
  });
}

void TShellController::Notify(TMessageKind kind, const std::string& text) {
  Tell([kind, text](IShellView& view) { view.Message(kind, text); });
}

void TShellController::WatchFound(std::function<void(const TDriveSnapshot&)> take) {
  if (!take) {
    FEngine.Drives().OnFound = nullptr;
    return;
  }
  FEngine.Drives().OnFound = [this, take = std::move(take)](int drive) {
    FPost([take, snapshot = MakeDrive(FEngine, drive)] { take(snapshot); });
  };
}

void TShellController::ForDrives(std::function<void(const std::vector<TDriveSnapshot>&)> take, int inside) {
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

void TShellController::Close() {
  FHost.End();
  StopAll();
}

// ---- news -----------------------------------------------------------------------------------

void TShellController::Pumped() {
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
void TShellController::Refresh() {
  const std::int64_t now = SteadyMilliseconds();
  if (!FEngine.Analysing || now - FPlaceMade < std::max(RefreshInterval, FPlaceCost * MaxRefreshShare)) return;
  const bool newDrives = FCommands->Jobs().ShowNewSubDrives();
  if (!newDrives && !FCommands->View().HasGrown()) return;
  FCommands->View().Rebuild();
  FPlaceMade = SteadyMilliseconds();
  FPlaceCost = FPlaceMade - now;
}

void TShellController::Flush() {
  FollowProgress();
  if (FActionsChanged) PublishActions();
  // The place may need nodes that are not in the tree yet.
  if (FPlaceChanged) PublishPlace();
  PublishTree();
  if (FDrivesChanged) PublishDrives();
  if (std::exchange(FListChanged, false)) {
    const TListing listing{FCommands->View().Generation(),
                           std::make_shared<const TIntegerDynArray>(FCommands->Recoveries().SortedList())};
    Tell([listing](IShellView& view) { view.RecoveryListChanged(listing); });
  }
  if (std::exchange(FSelectionChanged, false)) {
    Tell([generation = FCommands->View().Generation(), selected = FCommands->View().Selected()](IShellView& view) {
      view.SelectionChanged(generation, selected);
    });
  }
}

void TShellController::PublishActions() {
  FActionsChanged = false;
  const TShellState state = FCommands->State();
  Tell([actions = CheckActionsEnabled(state), state, filter = FCommands->View().Filter()](IShellView& view) {
    view.ActionsChanged(actions, state, filter);
  });
}

void TShellController::PublishPlace() {
  FPlaceChanged = false;
  TPlaceSnapshot place = FCommands->Place();
  place.Node = FRelay.NumberOf(FCommands->Places().SelectedNode());
  const std::span<const int> numbers(*place.Listing.Numbers);
  place.Head = MakeRows(numbers.first(std::min(numbers.size(), HeadRows)));
  PublishTree();
  Tell([place = std::move(place)](IShellView& view) { view.PlaceChanged(place); });
}

void TShellController::PublishDrives() {
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
  Tell([drives = std::move(drives)](IShellView& view) { view.DrivesChanged(drives); });
}

void TShellController::PublishTree() {
  if (!FRelay.HasChanges()) return;
  std::vector<TTreeChange> changes = FRelay.Take();
  const auto isDrive = [](const TTreeChange& change) {
    return change.Kind == TTreeChange::Added && IsDriveKind(change.EntryKind);
  };
  FDrivesChanged = FDrivesChanged || std::any_of(changes.begin(), changes.end(), isDrive);
  Tell([changes = std::move(changes)](IShellView& view) { view.TreeChanged(changes); });
}

void TShellController::FollowProgress() {
  const TProgressSnapshot::TKind running = FCommands->Jobs().Running();
  const TDrives& drives = FEngine.Drives();
  const std::int64_t now = SteadyMilliseconds();
  const auto read = static_cast<std::int64_t>(FEngine.Reader().BytesRead());
  if (running != FProgress.Kind) {
    FProgress = TProgressSnapshot();
    FProgress.Kind = running;
    FReadBefore = static_cast<std::uint64_t>(read);
    const int drive = FCommands->Jobs().BusyDrive();
    if (!drives.IsWrongNumber(drive)) FProgress.Caption = drives.List[static_cast<std::size_t>(drive)].Caption;
  } else if (running == TProgressSnapshot::None || now - FProgressTold < ProgressInterval) {
    return;
  }
  FProgressTold = now;
  FProgress.Bytes = read - static_cast<std::int64_t>(FReadBefore);
  FProgress.Found = FEngine.Analysing ? FEngine.Files().FoundCount : 0;
  FProgress.Unreadable = drives.UnreadableSectors();
  Tell([progress = FProgress](IShellView& view) { view.ProgressChanged(progress); });
}

// ---- questions ------------------------------------------------------------------------------

template <typename TAnswer>
TAnswer TShellController::AskWindow(TAnswer fallback,
                                    std::function<void(IShellView&, std::function<void(TAnswer)>)> ask) {
  const auto answer = std::make_shared<std::optional<TAnswer>>();
  Tell([this, ask = std::move(ask), answer](IShellView& view) {
    ask(view, [this, answer](TAnswer given) { FHost.Question([answer, given] { *answer = given; }); });
  });
  FHost.ServeUntil([&] { return answer->has_value(); }, false);
  return answer->value_or(fallback);
}

// ---- recovery wizard ------------------------------------------------------------------------

void TShellController::RunRecoveryMaster(TfRecoveryMaster& master) {
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
  Tell([settings = FCommands->Recoveries().Settings](IShellView& view) { view.RecoveryClosed(settings); });
}

void TShellController::PublishRecovery(const TfrmSaveProgress& progress) {
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
  Tell([news](IShellView& view) { view.RecoveryProgressChanged(news); });
}

void TShellController::PublishRecoveryPage(bool justOpened) {
  TRecoveryPage page;
  page.Page = FMaster->FActivePage();
  page.JustOpened = justOpened;
  const TfrmSaveOptions& options = FMaster->Options;
  static_cast<TSaveChoices&>(page.Choices) = options.Choices;
  page.Choices.Type = FMaster->RecoverType;
  page.Choices.Remember = FMaster->Remember;
  page.SpaceRequiredText = options.SpaceRequiredText;
  page.SpaceAvailableText = options.SpaceAvailableText;
  if (FMaster->TargetError() != 0) {
    page.TargetError = FEngine.Language().Utf8(
        TText::ErrorOf, {options.Choices.Path, SystemErrorText(FEngine.Language(), FMaster->TargetError())});
  }
  if (page.Page == TfRecoveryMaster::Finish && FMaster->Progress() != nullptr) {
    page.Summary = FMaster->Progress()->Summary();
  }
  Tell([page](IShellView& view) { view.RecoveryPageChanged(page); });
}

void TShellController::RecoveryNext(TRecoverySettings choices) {
  Command([this, choices = std::move(choices)] {
    if (FMaster == nullptr) return;
    const int before = FMaster->FActivePage();
    FMaster->RecoverType = choices.Type;
    FMaster->Remember = choices.Remember;
    if (before == TfRecoveryMaster::SaveOptions) FMaster->Options.Take(choices);
    FMaster->Next();
    // A page that was not left has something to say.
    if (FMaster->FActivePage() == before) PublishRecoveryPage(false);
  });
}

void TShellController::RecoveryChangePath(std::string path) {
  Command([this, path = std::move(path)] {
    if (FMaster == nullptr || FMaster->FActivePage() != TfRecoveryMaster::SaveOptions) return;
    FMaster->Options.ChangePath(path);
    PublishRecoveryPage(false);
  });
}

void TShellController::StopRecovery() { FEngine.Recovering = false; }

void TShellController::RecoveryClose() {
  FEngine.Recovering = false;
  Command([this] { FMasterDone = true; });
}

}  // namespace brenlow
