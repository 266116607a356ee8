// SPDX-License-Identifier: GPL-3.0-or-later
// What the actions of the main window do.
#include <QAction>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QLineEdit>
#include <QMenu>
#include <QPointer>
#include <QSplitter>
#include <QToolBar>

#include "shell/desktop/analyse_master.h"
#include "shell/desktop/banner.h"
#include "shell/desktop/create_image_form.h"
#include "shell/desktop/create_virtual_form.h"
#include "shell/desktop/file_list.h"
#include "shell/desktop/file_model.h"
#include "shell/desktop/find_file_form.h"
#include "shell/desktop/find_partitions_form.h"
#include "shell/desktop/folder_tree.h"
#include "shell/desktop/help_forms.h"
#include "shell/desktop/main_window.h"
#include "shell/desktop/preview_panel.h"
#include "shell/desktop/properties_form.h"
#include "shell/desktop/recovery_list_panel.h"
#include "shell/desktop/settings_form.h"
#include "shell/desktop/status_bar.h"
#include "shell/desktop/ui_text.h"
#include "shell/entries.h"

namespace brenlow::desktop {
namespace {

using enum TAction;

/// Shown without stopping what runs; gone when closed.
template <typename TFormType>
TFormType* Open(TFormType* form) {
  form->setAttribute(Qt::WA_DeleteOnClose);
  form->setWindowModality(Qt::WindowModal);
  form->open();
  return form;
}

constexpr std::pair<TAction, TViewStyle> Styles[] = {{actViewLargeIcons, TViewStyle::LargeIcons},
                                                     {actViewIcons, TViewStyle::Icons},
                                                     {actViewList, TViewStyle::List},
                                                     {actViewDetails, TViewStyle::Details},
                                                     {actViewTile, TViewStyle::Tile}};

}  // namespace

void TfMain::Perform(TAction action) {
  if (IsWindowAction(action)) {
    PerformInWindow(action);
    return;
  }
  switch (action) {
    case actStopAnalyse:
      AskStopAnalyse();
      break;
    case actSelectAll:
      FFileList->SelectAll();
      break;
    case actInvertSelection:
      FFileList->InvertSelection();
      break;
    case actMountImage:
    case actFoldersMountImage:
      MountImage();
      break;
    case actMaster:
      OpenMaster(FState.List.Drive >= 0 ? FState.List.Drive : FFileList->Place().Drive);
      break;
    case actWhere:
      OpenWhere();
      break;
    case actFindFile:
    case actFindPartitions:
    case actFoldersFindPartitions:
    case actCreateVirtualPartition:
    case actFoldersCreateVirtualPartition:
    case actCreateImage:
    case actFoldersCreateImage:
    case actProperties:
    case actFoldersProperties:
    case actAddCustomFolder:
      OpenForm(action);
      break;
    case actOpen:
    case actRecovery:
      // What was said before concerns something else.
      FBanner->hide();
      FDesk->Execute(action);
      break;
    default:
      FDesk->Execute(action);
      break;
  }
}

void TfMain::PerformInWindow(TAction action) {
  const bool on = Action(action)->isChecked();
  switch (action) {
    case actViewLargeIcons:
    case actViewIcons:
    case actViewList:
    case actViewDetails:
    case actViewTile:
      SetViewStyle(action);
      break;
    case actFindFileBar:
      tbFindFile->setVisible(on);
      break;
    case actWhereBar:
      tbWhere->setVisible(on);
      break;
    case actImageBar:
      tbImage->setVisible(on);
      break;
    case actPreview:
      FPreviewFrame->setVisible(on);
      pnRight->setVisible(on || Action(actRecoveryList)->isChecked());
      ShowDetails();
      break;
    case actRecoveryList:
      FRecoveryList->setVisible(on);
      pnRight->setVisible(on || Action(actPreview)->isChecked());
      FDesk->Ask([on](TCommands& commands) { commands.ShowRecoveryList(on); });
      break;
    case actSettings:
      OpenSettings();
      break;
    case actHelp:
      Open(new TfHelp(FLanguage, this));
      break;
    case actAbout:
      Open(new TfAbout(FLanguage, this));
      break;
    default:
      close();
      break;
  }
}

/// With an action of another kind only shows which style is in force.
void TfMain::SetViewStyle(TAction action) {
  for (const auto& [known, style] : Styles) {
    if (known == action) FFileList->SetViewStyle(style);
  }
  for (const auto& [known, style] : Styles) Action(known)->setChecked(style == FFileList->ViewStyle());
}

// ---- forms ----------------------------------------------------------------------------------

void TfMain::OpenForm(TAction action) {
  const bool ofTree = action == actFoldersFindPartitions || action == actFoldersCreateVirtualPartition ||
                      action == actFoldersCreateImage || action == actFoldersProperties;
  const TSelectionState& selection = ofTree ? FState.Tree : FState.List;
  // A drive that is marked in the list is meant before the place that it is shown in.
  const int drive = ofTree && FState.List.Drive >= 0 ? FState.List.Drive : selection.Drive;
  switch (action) {
    case actFindFile:
      Open(new TfFindFile(*FDesk, FLanguage, FSettings, FFileList->Place().Drive, this));
      break;
    case actFindPartitions:
    case actFoldersFindPartitions:
      FFindPartitions = Open(new TfFindPartitions(*FDesk, FLanguage, FDrives, drive, this));
      break;
    case actCreateVirtualPartition:
    case actFoldersCreateVirtualPartition:
      Open(new TfCreateVirtualPartition(*FDesk, FLanguage, FDrives, drive, this));
      break;
    case actCreateImage:
    case actFoldersCreateImage:
      if (const TDriveSnapshot* source = DriveOf(FDrives, drive); source != nullptr) {
        Open(new TfCreateImage(*FDesk, FLanguage, FSettings, *source, this));
      }
      break;
    case actProperties:
    case actFoldersProperties:
      OpenProperties(selection.Number >= 0 ? selection.Number : FState.Tree.Number);
      break;
    default: {
      const QString folder = QFileDialog::getExistingDirectory(this, Action(action)->text(), QDir::homePath());
      if (folder.isEmpty()) break;
      FDesk->Do([path = PathFromQt(folder)](TCommands& commands) { commands.AddCustomFolder(path); });
      break;
    }
  }
}

void TfMain::OpenMaster(int drive) {
  if (FMaster != nullptr || Runs()) return;
  FMaster = new TfAnalyseMaster(*FDesk, FLanguage, FSettings, this);
  FMaster->SetDrives(FDrives, drive);
  connect(FMaster, &TfAnalyseMaster::MountWanted, this, [this] { MountImage(); });
  Open(FMaster.data());
}

void TfMain::OpenProperties(int fileNumber) {
  const auto make = [fileNumber](TEngine& engine, TCommands& commands) {
    TProperties properties = MakeProperties(engine, fileNumber, commands.InDeletedFolder(fileNumber));
    if (!IsDriveKind(properties.Row.Kind)) properties.Path = commands.LocationOf(fileNumber);
    return properties;
  };
  FDesk->Fetch<TProperties>(make, [self = QPointer<TfMain>(this)](TProperties properties) {
    if (self != nullptr && properties.Row.Number >= 0) {
      Open(new TfProperties(properties, self->FLanguage, self->FSettings, self));
    }
  });
}

void TfMain::OpenWhere() {
  Open(new TfWhereFiles(FLanguage,
                        {{Action(actFindFile), TText::WhereFind},
                         {Action(actMaster), TText::WhereMaster},
                         {Action(actFoldersFindPartitions), TText::WherePartitions},
                         {Action(actMountImage), TText::WhereImage}},
                        this));
}

void TfMain::OpenSettings() {
  auto* form = new TfSettings(FLanguage, TLanguage::Names(FLanguageFolder), FSettings, this);
  connect(form, &QDialog::accepted, this, [this, form] {
    FFileList->Outdate();
    TLanguage chosen;
    if (form->Language() == FLanguage.Name() || !TLanguage::Load(FLanguageFolder, form->Language(), chosen)) return;
    FLanguage = chosen;
    ChangeLanguage();
    ShowDetails();
    FDesk->Do([chosen](TCommands& commands) { commands.ChangeLanguage(chosen); });
  });
  Open(form);
}

void TfMain::AskStopAnalyse() {
  FBanner->Show(TMessageKind::Warning, Text(FLanguage, TText::StopAnalyseQuestion),
                {{Text(FLanguage, TText::ButtonStop), [this] { FDesk->StopAnalyse(); }},
                 {Text(FLanguage, TText::ButtonContinue), {}}});
}

void TfMain::MountImage() {
  const QString filter = Text(FLanguage, TText::ImageFilter) +
                         QStringLiteral(" (*.dsk *.hdd *.vdi *.vhd *.vhdx *.vmdk *.img *.raw *.dd *.iso);;") +
                         Text(FLanguage, TText::AllFilesFilter) + QStringLiteral(" (*)");
  auto* dialog = new QFileDialog(FMaster != nullptr ? static_cast<QWidget*>(FMaster.data()) : this,
                                 Action(actMountImage)->text(), QDir::homePath(), filter);
  dialog->setFileMode(QFileDialog::ExistingFiles);
  connect(dialog, &QFileDialog::filesSelected, this, [this](const QStringList& files) {
    for (const QString& file : files) Mount(file);
  });
  Open(dialog);
}

void TfMain::Mount(const QString& path) {
  FBanner->hide();
  FDesk->Do([file = PathFromQt(path)](TCommands& commands) { commands.Mount(file); });
}

void TfMain::FindQuickly() {
  const QString text = FFindEdit->text().trimmed();
  if (text.isEmpty()) return;
  FSettings.Find.Text = text.toStdString();
  FDesk->Ask([options = QuickFind(text, FSettings, -1)](TCommands& commands) { commands.Find(options); });
}

// ---- details and menus ----------------------------------------------------------------------

void TfMain::ShowDetails() {
  const TFileRow* row = FFileList->CurrentRow();
  if (!Action(actPreview)->isChecked()) return;
  const int number = row != nullptr ? row->Number : FState.Tree.Number;
  if (number < 0) {
    FPreview->Clear();
    return;
  }
  FDesk->Fetch<TProperties>(
      [number](TEngine& engine, TCommands& commands) {
        return MakeGeneralProperties(engine, number, commands.InDeletedFolder(number));
      },
      [self = QPointer<TfMain>(this), number](TProperties properties) {
        if (self == nullptr || properties.Row.Number != number) return;
        self->FPreview->Show(properties);
      });
}

/// The click has selected something: the menu comes when the engine knows of it.
void TfMain::ShowContextMenu(const QPoint& at, bool ofTree) {
  if (ofTree) {
    const std::uint32_t node = tvFolders->Tree().NumberOf(tvFolders->currentIndex());
    if (node != 0 && node != FFileList->Place().Node) FDesk->SelectNode(node);
  } else {
    FFileList->SendSelection();
  }
  FDesk->Fetch<bool>([](TEngine&, TCommands&) { return true; },
                     [self = QPointer<TfMain>(this), at, ofTree](bool) {
                       if (self != nullptr) self->PopUpContextMenu(at, ofTree);
                     });
}

void TfMain::PopUpContextMenu(const QPoint& at, bool ofTree) {
  auto* menu = new QMenu(this);
  menu->setObjectName(QStringLiteral("pmContext"));
  menu->setAttribute(Qt::WA_DeleteOnClose);
  const TSelectionState& selection = ofTree ? FState.Tree : FState.List;
  const auto add = [&](std::initializer_list<TAction> actions) {
    for (const TAction action : actions) {
      if (Action(action)->isEnabled()) menu->addAction(Action(action));
    }
    menu->addSeparator();
  };
  if (ofTree) {
    const std::uint32_t node = FFileList->Place().Node;
    if (selection.Blank && !Runs()) {
      menu->addAction(Action(actOpen)->icon(), Text(FLanguage, TText::ButtonAnalyse), this,
                      [this, node] { FDesk->OpenNode(node); });
    }
    add({actFoldersReopen, actFoldersRecovery, actExpand});
    if (selection.Drive >= 0) {
      add({actFoldersFindPartitions, actFoldersCreateImage, actFoldersCreateVirtualPartition, actFoldersCloseDisk});
    }
    add({actFoldersMountImage, actFoldersProperties});
  } else if (selection.Any) {
    add({actOpen, actRecovery, actAddToRecoveryList, actFoundFileLocation});
    if (selection.Drive >= 0) {
      add({actReopen, actFindPartitions, actCreateImage, actCreateVirtualPartition, actUnmountImage, actCloseDisk});
    }
    add({actSelectAll, actInvertSelection, actProperties});
  } else {
    add({actSelectAll, actMountImage, actRefresh});
    add({actViewLargeIcons, actViewIcons, actViewList, actViewDetails, actViewTile});
  }
  menu->popup(at);
}

// ---- devices that come and go ---------------------------------------------------------------

void TfMain::CheckDevices() {
  QByteArray devices;
  for (const QString& name : QDir(QStringLiteral("/sys/block")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
    QFile size(QStringLiteral("/sys/block/%1/size").arg(name));
    devices += name.toUtf8() + ' ';
    if (size.open(QIODevice::ReadOnly)) devices += size.readAll();
  }
  if (FDevices.isEmpty()) FDevices = devices;
  // While a scan runs the look is taken again later.
  if (devices == FDevices || Runs() || FRecoveryForm != nullptr) return;
  FDevices = devices;
  FDesk->Do([](TCommands& commands) { commands.DevicesChanged(); });
}

}  // namespace brenlow::desktop
