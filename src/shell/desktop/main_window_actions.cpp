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
#include <algorithm>
#include <iterator>

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

/// Acts on the node of the tree.
bool IsOfTree(TAction action) { return InfoOf(action).Name.starts_with("actFolders"); }

}  // namespace

/// What the window does itself, or before the engine does its part.
struct TfMain::TOwnActions {
  /// What the banner said concerns something else.
  static void HideBannerAndExecute(TfMain& w, TAction action) {
    w.FBanner->hide();
    w.FController->Execute(action);
  }

  static void SelectAll(TfMain& w, TAction) { w.FFileList->SelectAll(); }

  static void InvertSelection(TfMain& w, TAction) { w.FFileList->InvertSelection(); }

  static void CloseWindow(TfMain& w, TAction) { w.close(); }

  static void ShowBars(TfMain& w, TAction) {
    w.tbFindFile->setVisible(w.Action(actFindFileBar)->isChecked());
    w.tbWhere->setVisible(w.Action(actWhereBar)->isChecked());
    w.tbImage->setVisible(w.Action(actImageBar)->isChecked());
  }

  static void ShowPanels(TfMain& w, TAction action) {
    const bool preview = w.Action(actPreview)->isChecked();
    const bool list = w.Action(actRecoveryList)->isChecked();
    w.FPreviewFrame->setVisible(preview);
    w.FRecoveryList->setVisible(list);
    w.pnRight->setVisible(preview || list);
    if (action == actPreview) w.ShowDetails();
    if (action != actRecoveryList) return;
    w.FController->Ask([list](TCommands& commands) { commands.Recoveries().ShowList(list); });
  }

  static void AskStopAnalyse(TfMain& w, TAction) {
    w.FBanner->Show(TMessageKind::Warning, Text(w.FLanguage, TText::StopAnalyseQuestion),
                    {{Text(w.FLanguage, TText::ButtonStop), [&w] { w.FController->StopAnalyse(); }},
                     {Text(w.FLanguage, TText::ButtonContinue), {}}});
  }

  static void OpenWhere(TfMain& w, TAction) {
    Open(new TfWhereFiles(w.FLanguage,
                          {{w.Action(actFindFile), TText::WhereFind},
                           {w.Action(actMaster), TText::WhereMaster},
                           {w.Action(actFoldersFindPartitions), TText::WherePartitions},
                           {w.Action(actMountImage), TText::WhereImage}},
                          &w));
  }

  static void OpenHelp(TfMain& w, TAction) { Open(new TfHelp(w.FLanguage, &w)); }

  static void OpenAbout(TfMain& w, TAction) { Open(new TfAbout(w.FLanguage, &w)); }

  static void OpenSettings(TfMain& w, TAction) {
    auto* form = new TfSettings(w.FLanguage, TLanguage::Names(w.FLanguageFolder), w.FSettings, &w);
    QObject::connect(form, &QDialog::accepted, &w, [&w, form] {
      w.FFileList->Outdate();
      TLanguage chosen;
      if (form->Language() == w.FLanguage.Name() || !TLanguage::Load(w.FLanguageFolder, form->Language(), chosen))
        return;
      w.FLanguage = chosen;
      w.ChangeLanguage();
      w.ShowDetails();
      w.FController->Do([chosen](TCommands& commands) { commands.ChangeLanguage(chosen); });
    });
    Open(form);
  }

  static void OpenMasterHere(TfMain& w, TAction) {
    w.OpenMaster(w.FState.List.Drive >= 0 ? w.FState.List.Drive : w.FFileList->Place().Drive);
  }

  /// The drive that an action is about; -1 when there is none.
  static int DriveFor(TfMain& w, TAction action) {
    // A drive that is marked in the list is meant before the place that it is shown in.
    return IsOfTree(action) && w.FState.List.Drive < 0 ? w.FState.Tree.Drive : w.FState.List.Drive;
  }

  static void OpenFindFile(TfMain& w, TAction) {
    Open(new TfFindFile(*w.FController, w.FLanguage, w.FSettings, w.FFileList->Place().Drive, &w));
  }

  static void OpenFindPartitions(TfMain& w, TAction action) {
    w.FFindPartitions = Open(new TfFindPartitions(*w.FController, w.FLanguage, w.FDrives, DriveFor(w, action), &w));
  }

  static void OpenCreateVirtual(TfMain& w, TAction action) {
    Open(new TfCreateVirtualPartition(*w.FController, w.FLanguage, w.FDrives, DriveFor(w, action), &w));
  }

  static void OpenCreateImage(TfMain& w, TAction action) {
    if (const TDriveSnapshot* source = DriveOf(w.FDrives, DriveFor(w, action)); source != nullptr) {
      Open(new TfCreateImage(*w.FController, w.FLanguage, w.FSettings, *source, &w));
    }
  }

  static void OpenProperties(TfMain& w, int fileNumber) {
    const auto make = [fileNumber](TEngine& engine, TCommands& commands) {
      TProperties properties = MakeProperties(engine, fileNumber, commands.Places().InDeletedFolder(fileNumber));
      if (!IsDriveKind(properties.Row.Kind)) properties.Path = commands.Places().LocationOf(fileNumber);
      return properties;
    };
    w.FController->Fetch<TProperties>(make, [self = QPointer<TfMain>(&w)](TProperties properties) {
      if (self != nullptr && properties.Row.Number >= 0) {
        Open(new TfProperties(properties, self->FLanguage, self->FSettings, self));
      }
    });
  }

  static void OpenPropertiesOfSelection(TfMain& w, TAction action) {
    const bool ofTree = IsOfTree(action) || w.FState.List.Number < 0;
    OpenProperties(w, ofTree ? w.FState.Tree.Number : w.FState.List.Number);
  }

  static void AskCustomFolder(TfMain& w, TAction action) {
    const QString folder = QFileDialog::getExistingDirectory(&w, w.Action(action)->text(), QDir::homePath());
    if (folder.isEmpty()) return;
    w.FController->Do([path = PathFromQt(folder)](TCommands& commands) { commands.Jobs().AddCustomFolder(path); });
  }
};

/// All other actions go to the engine.
void TfMain::Perform(TAction action) {
  struct TRow {
    TAction Action;
    void (*Run)(TfMain& window, TAction action);
  };
  static constexpr TRow actions[] = {
      {actStopAnalyse, &TOwnActions::AskStopAnalyse},
      {actSelectAll, &TOwnActions::SelectAll},
      {actInvertSelection, &TOwnActions::InvertSelection},
      {actMountImage, [](TfMain& w, TAction which) { w.MountImage(which); }},
      {actFoldersMountImage, [](TfMain& w, TAction which) { w.MountImage(which); }},
      {actMaster, &TOwnActions::OpenMasterHere},
      {actWhere, &TOwnActions::OpenWhere},
      {actOpen, &TOwnActions::HideBannerAndExecute},
      {actRecovery, &TOwnActions::HideBannerAndExecute},
      {actFindFile, &TOwnActions::OpenFindFile},
      {actFindPartitions, &TOwnActions::OpenFindPartitions},
      {actFoldersFindPartitions, &TOwnActions::OpenFindPartitions},
      {actCreateVirtualPartition, &TOwnActions::OpenCreateVirtual},
      {actFoldersCreateVirtualPartition, &TOwnActions::OpenCreateVirtual},
      {actCreateImage, &TOwnActions::OpenCreateImage},
      {actFoldersCreateImage, &TOwnActions::OpenCreateImage},
      {actProperties, &TOwnActions::OpenPropertiesOfSelection},
      {actFoldersProperties, &TOwnActions::OpenPropertiesOfSelection},
      {actAddCustomFolder, &TOwnActions::AskCustomFolder},
      {actViewLargeIcons, [](TfMain& w, TAction which) { w.SetViewStyle(which); }},
      {actViewIcons, [](TfMain& w, TAction which) { w.SetViewStyle(which); }},
      {actViewList, [](TfMain& w, TAction which) { w.SetViewStyle(which); }},
      {actViewDetails, [](TfMain& w, TAction which) { w.SetViewStyle(which); }},
      {actViewTile, [](TfMain& w, TAction which) { w.SetViewStyle(which); }},
      {actFindFileBar, &TOwnActions::ShowBars},
      {actWhereBar, &TOwnActions::ShowBars},
      {actImageBar, &TOwnActions::ShowBars},
      {actPreview, &TOwnActions::ShowPanels},
      {actRecoveryList, &TOwnActions::ShowPanels},
      {actSettings, &TOwnActions::OpenSettings},
      {actHelp, &TOwnActions::OpenHelp},
      {actAbout, &TOwnActions::OpenAbout},
      {actExit, &TOwnActions::CloseWindow},
  };
  const auto own =
      std::find_if(std::begin(actions), std::end(actions), [action](const TRow& row) { return row.Action == action; });
  if (own != std::end(actions)) {
    own->Run(*this, action);
  } else {
    FController->Execute(action);
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

void TfMain::OpenMaster(int drive) {
  if (FMaster != nullptr || Runs()) return;
  FMaster = new TfAnalyseMaster(*FController, FLanguage, FSettings, this);
  FMaster->SetDrives(FDrives, drive);
  connect(FMaster, &TfAnalyseMaster::MountWanted, this, [this] { MountImage(actMountImage); });
  Open(FMaster.data());
}

void TfMain::MountImage(TAction) {
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
  FController->Do([file = PathFromQt(path)](TCommands& commands) { commands.Jobs().Mount(file); });
}

void TfMain::FindQuickly() {
  const QString text = FFindEdit->text().trimmed();
  if (text.isEmpty()) return;
  FSettings.Find.Text = text.toStdString();
  FController->Ask(
      [options = QuickFind(text, FSettings, -1)](TCommands& commands) { commands.Places().Find(options); });
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
  FController->Fetch<TProperties>(
      [number](TEngine& engine, TCommands& commands) {
        return MakeGeneralProperties(engine, number, commands.Places().InDeletedFolder(number));
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
    if (node != 0 && node != FFileList->Place().Node) FController->SelectNode(node);
  } else {
    FFileList->SendSelection();
  }
  FController->Fetch<bool>([](TEngine&, TCommands&) { return true; },
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
                      [this, node] { FController->OpenNode(node); });
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
  // While a scan runs they are checked again later.
  if (devices == FDevices || Runs() || FRecoveryForm != nullptr) return;
  FDevices = devices;
  FController->Do([](TCommands& commands) { commands.Jobs().DevicesChanged(); });
}

}  // namespace brenlow::desktop
