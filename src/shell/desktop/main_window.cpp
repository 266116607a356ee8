// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/main_window.h"

#include <QAction>
#include <QCheckBox>
#include <QCloseEvent>
#include <QDragEnterEvent>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QStackedWidget>
#include <QTabBar>
#include <QUrl>

#include "shell/desktop/analyse_master.h"
#include "shell/desktop/banner.h"
#include "shell/desktop/conflict_forms.h"
#include "shell/desktop/disk_manager.h"
#include "shell/desktop/file_list.h"
#include "shell/desktop/file_model.h"
#include "shell/desktop/find_partitions_form.h"
#include "shell/desktop/folder_tree.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/navigation.h"
#include "shell/desktop/preview_panel.h"
#include "shell/desktop/recovery_form.h"
#include "shell/desktop/recovery_list_panel.h"
#include "shell/desktop/status_bar.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

constexpr int DeviceLook = 2000;  // milliseconds between two checks of the system's devices
constexpr auto MountPrefix = "dsk_file ";
constexpr auto DrivePrefix = "path_";

/// A dialog that ends with an answer, whichever way it is closed.
template <typename TFormType, typename TAnswer>
void OpenQuestion(TFormType* form, std::function<void(TAnswer)> answer) {
  form->setAttribute(Qt::WA_DeleteOnClose);
  form->setWindowModality(Qt::WindowModal);
  QObject::connect(form, &QDialog::finished, form, [form, answer = std::move(answer)] { answer(form->Answer()); });
  form->open();
}

}  // namespace

TfMain::TfMain(TSettings& settings, TLanguage language, std::string languages)
    : FSettings(settings), FLanguage(std::move(language)), FLanguageFolder(std::move(languages)) {
  setObjectName(QStringLiteral("TfMain"));
  setWindowTitle(QStringLiteral("Brenlow Partition Recovery " BRENLOW_VERSION));
  setWindowIcon(Icon("drive-harddisk"));
  setAcceptDrops(true);
  FController = std::make_unique<TShellController>(settings, FLanguage, *this, [this](TShellController::TJob job) {
    QMetaObject::invokeMethod(this, std::move(job), Qt::QueuedConnection);
  });
  CreateActions();
  CreateFrames();
  CreateMenus();
  CreateToolBars();
  ChangeLanguage();
  ApplySettings();
  ActionsChanged(CheckActionsEnabled({}), {}, {});
  tmrAutoPlay.setSingleShot(true);
  connect(&tmrAutoPlay, &QTimer::timeout, this, [this] { AutoPlay(); });
  tmrDeviceInserted.setInterval(DeviceLook);
  connect(&tmrDeviceInserted, &QTimer::timeout, this, [this] { CheckDevices(); });
}

TfMain::~TfMain() = default;

// ---- start and end --------------------------------------------------------------------------

void TfMain::Start(const QString& argument) {
  FAutoplayLetter = argument;
  FController->Start();
  if (!argument.isEmpty()) {
    tmrAutoPlay.start(0);
  } else if (FSettings.Master.ShowOnStartup) {
    QTimer::singleShot(0, this, [this] { OpenMaster(-1); });
  }
  CheckDevices();
  tmrDeviceInserted.start();
}

void TfMain::SecondStart(const QString& argument) {
  setWindowState(windowState() & ~Qt::WindowMinimized);
  show();
  raise();
  activateWindow();
  if (argument.isEmpty() || Runs()) return;
  FAutoplayLetter = argument;
  tmrAutoPlay.start(0);
}

void TfMain::AutoPlay() {
  const QString argument = std::exchange(FAutoplayLetter, QString());
  if (argument.startsWith(QLatin1String(MountPrefix), Qt::CaseInsensitive)) {
    Mount(argument.mid(static_cast<qsizetype>(qstrlen(MountPrefix))));
  } else if (argument.startsWith(QLatin1String(DrivePrefix), Qt::CaseInsensitive)) {
    const TString wanted = FromQt(argument.mid(static_cast<qsizetype>(qstrlen(DrivePrefix))));
    // After the drives are listed.
    FController->Do([this, wanted](TCommands& commands) {
      const int drive = commands.Jobs().DriveOfPath(wanted);
      FController->Post([this, drive] {
        if (!Runs()) OpenMaster(drive);
      });
    });
  } else if (!argument.isEmpty()) {
    Mount(argument);
  }
}

bool TfMain::EndEngine(std::chrono::milliseconds time) {
  FController->Close();
  return FController->WaitForEnd(time);
}

void TfMain::showEvent(QShowEvent* event) {
  QMainWindow::showEvent(event);
  if (std::exchange(FStarted, true)) return;
  FFileList->View()->setFocus();
}

void TfMain::closeEvent(QCloseEvent* event) {
  if (FClosing) return;
  FStatusBar->Pause(true);
  if (!FSettings.Main.DontAskOnClose && !AskClose()) {
    FStatusBar->Pause(false);
    event->ignore();
    return;
  }
  FClosing = true;
  KeepSettings();
  FController->Close();
  event->accept();
}

bool TfMain::AskClose() {
  QMessageBox box(QMessageBox::Question, windowTitle(),
                  Text(FLanguage, Runs() ? TText::CloseWhileScanning : TText::CloseQuestion), QMessageBox::NoButton,
                  this);
  box.setObjectName(QStringLiteral("msgClose"));
  QPushButton* close = box.addButton(Text(FLanguage, TText::ButtonClose), QMessageBox::AcceptRole);
  box.addButton(Text(FLanguage, TText::ButtonCancel), QMessageBox::RejectRole);
  auto* dontAsk = new QCheckBox(Text(FLanguage, TText::CloseDontAsk), &box);
  box.setCheckBox(dontAsk);
  box.exec();
  if (box.clickedButton() != static_cast<QAbstractButton*>(close)) return false;
  FSettings.Main.DontAskOnClose = dontAsk->isChecked();
  return true;
}

void TfMain::changeEvent(QEvent* event) {
  QMainWindow::changeEvent(event);
  if (event->type() == QEvent::PaletteChange && FFileList != nullptr) {
    for (QAction* action : alMain) action->setIcon(QIcon(action->icon()));
  }
}

// ---- images dropped onto the window ---------------------------------------------------------

void TfMain::dragEnterEvent(QDragEnterEvent* event) {
  const QList<QUrl> urls = event->mimeData()->urls();
  if (!urls.isEmpty() && urls.front().isLocalFile() && !Runs()) event->acceptProposedAction();
}

void TfMain::dropEvent(QDropEvent* event) {
  for (const QUrl& url : event->mimeData()->urls()) {
    if (url.isLocalFile()) Mount(url.toLocalFile());
  }
}

// ---- news from the engine -------------------------------------------------------------------

void TfMain::TreeChanged(const std::vector<TTreeChange>& changes) {
  tvFolders->Apply(changes);
  ExpandResults();
}

void TfMain::DrivesChanged(const std::vector<TDriveSnapshot>& drives) {
  FDrives = drives;
  FDiskManager->Show(drives);
  FFileList->SetDrive(DriveOf(FDrives, FFileList->Place().Drive));
  if (FMaster != nullptr) FMaster->SetDrives(drives, FFileList->Place().Drive);
  ShowHints(FFileList->Place());
}

void TfMain::PlaceChanged(const TPlaceSnapshot& place) {
  FHidden = place.Hidden;
  FNavigation->Show(place);
  FBreadcrumbs->Show(place);
  FFileList->SetDrive(DriveOf(FDrives, place.Drive));
  FFileList->Show(place);
  tvFolders->Select(place.Node);
  FStatusBar->SetSelection(FState.List, FFileList->Model().rowCount(), FHidden);
  TSettings::TFileListDisks& disks = FSettings.FileListDisks;
  TSettings::TFileList& files = FSettings.FileList;
  const bool isDrives = place.Category == TViewCategory::vcDrives;
  (isDrives ? disks.SortIndex : files.SortIndex) = place.SortColumn;
  (isDrives ? disks.SortRevers : files.SortRevers) = place.Sort.Descending ? 0 : 1;
  for (const auto& [action, key] : SortActions) Action(action)->setChecked(place.Sort.Key == key);
  Action(TAction::actSortAscending)->setChecked(!place.Sort.Descending);
  Action(TAction::actSortDescending)->setChecked(place.Sort.Descending);
  SetViewStyle(TAction::actExit);
  ShowHints(place);
  ShowDetails();
}

/// Where the results of a stopped scan are shown, a hint says that they are incomplete.
void TfMain::ShowHints(const TPlaceSnapshot& place) {
  if (Runs() || place.Place == FHintPlace || !place.IsDriveRoot) return;
  const TDriveSnapshot* drive = DriveOf(FDrives, place.Drive);
  if (drive == nullptr) return;
  const TAnalyseInformation state = drive->IsPhysical ? drive->DeepAnalysed : drive->Analysed;
  if (state != TAnalyseInformation::aiPartial) return;
  FHintPlace = place.Place;
  FBanner->Show(TMessageKind::Information, Text(FLanguage, TText::HintPartial, {ToQt(drive->Caption)}),
                {{Text(FLanguage, TText::ButtonAnalyseAgain), [this] { Perform(TAction::actFoldersReopen); }},
                 {Text(FLanguage, TText::ButtonClose), {}}});
}

void TfMain::SelectionChanged(std::uint64_t generation, const TIntegerDynArray& selected) {
  FFileList->Select(generation, selected);
}

void TfMain::RecoveryListChanged(const TListing& listing) {
  FRecoveryList->Show(listing);
  FFileList->Outdate();
  // What was just added should be seen.
  QAction* panel = Action(TAction::actRecoveryList);
  if (!listing.Numbers->empty() && !panel->isChecked()) panel->trigger();
}

void TfMain::ActionsChanged(const TActions& actions, const TShellState& state, const TFileFilter& filter) {
  const bool wasRunning = Runs();
  FState = state;
  for (const TAction action : AllActions) Action(action)->setEnabled(actions.Has(action));
  for (const auto& [action, field] : FilterActions) Action(action)->setChecked(filter.*field);
  FStatusBar->SetSelection(state.List, FFileList->Model().rowCount(), FHidden);
  FStatusBar->SetRecovering(state.Recovering);
  if (FFileList->CurrentRow() == nullptr) ShowDetails();
  if (Runs()) {
    FHintPlace = 0;
  } else if (wasRunning) {
    FBanner->Withdraw(Text(FLanguage, TText::StopAnalyseQuestion));
    FFileList->Outdate();
    FExpandResults = true;
    ExpandResults();
  }
}

/// After a scan its results are one level open, as soon as they are in the tree.
void TfMain::ExpandResults() {
  const QModelIndex current = tvFolders->currentIndex();
  if (!FExpandResults || Runs() || tvFolders->model()->rowCount(current) == 0) return;
  FExpandResults = false;
  if (current.isValid()) tvFolders->expand(current);
}

void TfMain::ProgressChanged(const TProgressSnapshot& progress) {
  FProgress = progress;
  FStatusBar->SetProgress(progress);
  FFileList->SetRunning(progress.Kind);
  if (FFindPartitions != nullptr) FFindPartitions->SetProgress(progress);
}

void TfMain::Message(TMessageKind kind, const std::string& text) { FBanner->Show(kind, ToQt(text)); }

// ---- recovery -------------------------------------------------------------------------------

void TfMain::RecoveryPageChanged(const TRecoveryPage& page) {
  if (FRecoveryForm == nullptr) {
    FRecoveryForm = new TRecoveryMasterForm(*FController, FLanguage, FSettings, this);
    FRecoveryForm->setWindowModality(Qt::WindowModal);
    FRecoveryForm->show();
  }
  FRecoveryForm->Show(page);
}

void TfMain::RecoveryProgressChanged(const TRecoveryProgress& progress) {
  if (FRecoveryForm != nullptr) FRecoveryForm->ShowProgress(progress);
}

void TfMain::RecoveryClosed(const TRecoverySettings& settings) {
  FSettings.Recovery = settings;
  if (FRecoveryForm != nullptr) FRecoveryForm->deleteLater();
  FRecoveryForm = nullptr;
}

QWidget* TfMain::FormParent() { return FRecoveryForm != nullptr ? static_cast<QWidget*>(FRecoveryForm) : this; }

void TfMain::AskRename(const TRenameQuestion& question, std::function<void(TRenameAnswer)> answer) {
  OpenQuestion(new TfRename(question, FLanguage, FormParent()), std::move(answer));
}

void TfMain::AskFileExists(const TFileExistsQuestion& question, std::function<void(TFileExistsAnswer)> answer) {
  OpenQuestion(new TfFileExists(question, FLanguage, FormParent()), std::move(answer));
}

void TfMain::AskFirstCluster(const TString& fileName, const std::vector<std::int64_t>& candidates,
                             std::function<void(TCandidateAnswer)> answer) {
  OpenQuestion(new TfChangeFirstCluster(ToQt(fileName), candidates, FLanguage, FormParent()), std::move(answer));
}

void TfMain::AskYesNo(const std::string& question, std::function<void(bool)> answer) {
  auto* box = new QMessageBox(QMessageBox::Warning, windowTitle(), ToQt(question), QMessageBox::NoButton, FormParent());
  box->setObjectName(QStringLiteral("msgQuestion"));
  QAbstractButton* yes = box->addButton(Text(FLanguage, TText::ButtonYes), QMessageBox::YesRole);
  box->setDefaultButton(box->addButton(Text(FLanguage, TText::ButtonNo), QMessageBox::NoRole));
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->setWindowModality(Qt::WindowModal);
  connect(box, &QDialog::finished, box,
          [box, yes, answer = std::move(answer)] { answer(box->clickedButton() == yes); });
  box->open();
}

}  // namespace brenlow::desktop
