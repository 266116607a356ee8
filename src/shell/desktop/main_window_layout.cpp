// SPDX-License-Identifier: GPL-3.0-or-later
// Actions, frames, menus and tool bars of the main window, and their captions.
#include <QAction>
#include <QActionGroup>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QScreen>
#include <QScrollArea>
#include <QSplitter>
#include <QStackedWidget>
#include <QTabBar>
#include <QToolBar>
#include <QToolButton>
#include <QVBoxLayout>

#include "shell/desktop/banner.h"
#include "shell/desktop/disk_manager.h"
#include "shell/desktop/file_list.h"
#include "shell/desktop/folder_tree.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/main_window.h"
#include "shell/desktop/navigation.h"
#include "shell/desktop/preview_panel.h"
#include "shell/desktop/recovery_list_panel.h"
#include "shell/desktop/status_bar.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

using enum TAction;

}  // namespace

void TfMain::CreateActions() {
  for (const TAction which : AllActions) {
    const TActionInfo& info = InfoOf(which);
    auto* action = new QAction(this);
    action->setObjectName(QString::fromLatin1(info.Name.data(), static_cast<qsizetype>(info.Name.size())));
    if (*info.Icon != '\0') action->setIcon(Icon(info.Icon));
    if (*info.Shortcut != '\0') action->setShortcut(QKeySequence(QLatin1String(info.Shortcut)));
    action->setCheckable(info.Look == TActionLook::Switch);
    connect(action, &QAction::triggered, this, [this, which] { Perform(which); });
    addAction(action);
    alMain[static_cast<std::size_t>(which)] = action;
  }
  auto* styles = new QActionGroup(this);
  for (const TAction style : {actViewLargeIcons, actViewIcons, actViewList, actViewDetails, actViewTile}) {
    styles->addAction(Action(style));
  }
}

void TfMain::CreateFrames() {
  FBanner = new TfrBanner(FLanguage, this);
  TfrTabControl = new QTabBar(this);
  TfrTabControl->setObjectName(QStringLiteral("TfrTabControl"));
  TfrTabControl->setDocumentMode(true);
  TfrTabControl->setDrawBase(false);
  TfrTabControl->setExpanding(false);
  TfrTabControl->addTab(Icon("folder"), QString());
  TfrTabControl->addTab(Icon("drive-harddisk"), QString());
  auto* body = new QWidget(this);
  auto* layout = new QVBoxLayout(body);
  layout->setContentsMargins(4, 0, 4, 0);
  layout->setSpacing(4);
  layout->addWidget(TfrTabControl);
  layout->addWidget(FBanner);
  layout->addWidget(CreatePages(), 1);
  setCentralWidget(body);
  FStatusBar = new TfrStatusBar(*FController, FLanguage, Action(actStopAnalyse), this);
  setStatusBar(FStatusBar);
  ConnectFrames();
}

/// The path above the file list.
QWidget* TfMain::CreateCenter() {
  FNavigation = new TfrNavigation(*FController, FLanguage, this);
  FBreadcrumbs = new TfrBreadcrumbs(*FController, this);
  FFileList = new TfrFileList(*FController, FLanguage, FSettings, this);
  pnCenter = new QWidget(this);
  pnCenter->setObjectName(QStringLiteral("pnCenter"));
  auto* path = new QHBoxLayout;
  path->setContentsMargins(0, 0, 0, 0);
  path->addWidget(FNavigation);
  path->addWidget(FBreadcrumbs, 1);
  auto* center = new QVBoxLayout(pnCenter);
  center->setContentsMargins(0, 0, 0, 0);
  center->setSpacing(2);
  center->addLayout(path);
  center->addWidget(FFileList, 1);
  return pnCenter;
}

/// Preview and recovery list.
QWidget* TfMain::CreateRight() {
  pnRight = new QSplitter(Qt::Vertical, this);
  pnRight->setObjectName(QStringLiteral("pnRight"));
  FPreview = new TfrPreview(FLanguage, this);
  auto* scroll = new QScrollArea(this);
  scroll->setFrameShape(QFrame::NoFrame);
  scroll->setWidgetResizable(true);
  scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  scroll->setWidget(FPreview);
  FPreviewFrame = scroll;
  FRecoveryList = new TfrRecoveryList(*FController, FLanguage, FSettings, Action(actRecoveryFromList), this);
  pnRight->addWidget(FPreviewFrame);
  pnRight->addWidget(FRecoveryList);
  pnRight->setChildrenCollapsible(false);
  return pnRight;
}

/// One page a tab: files, disks.
QWidget* TfMain::CreatePages() {
  tvFolders = new TtvFolders(this);
  pnLeft = tvFolders;
  FSplitter = new QSplitter(this);
  FSplitter->addWidget(pnLeft);
  FSplitter->addWidget(CreateCenter());
  FSplitter->addWidget(CreateRight());
  FSplitter->setStretchFactor(1, 1);
  FSplitter->setChildrenCollapsible(false);
  FDiskManager = new TfrDiskManager(FLanguage, this);
  FPages = new QStackedWidget(this);
  FPages->addWidget(FSplitter);
  FPages->addWidget(FDiskManager);
  return FPages;
}

void TfMain::ConnectFrames() {
  connect(TfrTabControl, &QTabBar::currentChanged, FPages, &QStackedWidget::setCurrentIndex);
  for (const TAction action : {actOpen, actMaster, actFoldersFindPartitions, actFoldersCreateImage, actMountImage,
                               actStopAnalyse, actFindFile, actFilterAllFiles, actFilterExisting, actFilterDeleted}) {
    FFileList->SetAction(action, Action(action));
  }
  connect(tvFolders, &TtvFolders::NodeSelected, this, [this](std::uint32_t node) { FController->SelectNode(node); });
  connect(tvFolders, &TtvFolders::NodeExpanded, this, [this](std::uint32_t node) { FController->ExpandNode(node); });
  connect(tvFolders, &TtvFolders::NodeActivated, this, [this](std::uint32_t node) { FController->OpenNode(node); });
  connect(tvFolders, &QWidget::customContextMenuRequested, this,
          [this](const QPoint& at) { ShowContextMenu(tvFolders->viewport()->mapToGlobal(at), true); });
  connect(FFileList, &TfrFileList::ContextMenuWanted, this, [this](const QPoint& at) { ShowContextMenu(at, false); });
  connect(FFileList, &TfrFileList::CurrentChanged, this, [this] { ShowDetails(); });
  connect(FFileList, &TfrFileList::Activated, this,
          [this](const TFileRow& row) { Perform(row.Kind == TEntryKind::File ? actProperties : actOpen); });
  connect(FDiskManager, &TfrDiskManager::DriveSelected, this, [this](int drive) {
    FController->Ask([drive](TCommands& commands) { commands.Places().ShowDrive(drive); });
  });
  connect(FDiskManager, &TfrDiskManager::DriveActivated, this, [this](int drive) {
    TfrTabControl->setCurrentIndex(0);
    FController->OpenDrive(drive);
  });
  connect(FDiskManager, &TfrDiskManager::ContextMenuWanted, this,
          [this](const QPoint& at) { ShowContextMenu(at, true); });
}

void TfMain::FillMenu(QMenu& menu, std::initializer_list<TAction> actions) {
  for (const TAction action : actions) menu.addAction(Action(action));
  menu.addSeparator();
}

void TfMain::CreateMenus() {
  const auto add = [this](TText caption, QMenu* into = nullptr) {
    QMenu* menu = into == nullptr ? menuBar()->addMenu(QString()) : into->addMenu(QString());
    FMenus.push_back(menu);
    FMenuTexts.push_back(caption);
    return menu;
  };
  QMenu* file = add(TText::MenuFile);
  FillMenu(*file, {actMaster, actOpen, actFoldersReopen, actStopAnalyse});
  FillMenu(*file, {actMountImage, actUnmountImage, actFoldersCreateImage, actFoldersCreateVirtualPartition});
  FillMenu(*file, {actFoldersFindPartitions, actFoldersCloseDisk, actAddCustomFolder});
  FillMenu(*file, {actProperties});
  FillMenu(*file, {actExit});
  QMenu* recover = add(TText::MenuRecoverMenu);
  FillMenu(*recover, {actRecovery, actFoldersRecovery});
  FillMenu(*recover, {actAddToRecoveryList, actRecoveryFromList});
  FillMenu(*recover, {actSelectAll, actInvertSelection});
  QMenu* view = add(TText::MenuView);
  FillMenu(*view, {actViewLargeIcons, actViewIcons, actViewList, actViewDetails, actViewTile});
  QMenu* sort = add(TText::MenuSort, view);
  FillMenu(*sort, {actSortByName, actSortByType, actSortBySize, actSortByStatus, actSortByModified, actSortByCreated,
                   actSortByFreeSize, actSortByFileSystem});
  FillMenu(*sort, {actSortAscending, actSortDescending});
  QMenu* filter = add(TText::MenuFilter, view);
  filter->setObjectName(QStringLiteral("mnFilter"));
  FillMenu(*filter, {actFilterExisting, actFilterDeleted});
  FillMenu(*filter, {actFilterAllFiles, actFilterArchive, actFilterAudio, actFilterDatabase, actFilterDocument,
                     actFilterImage, actFilterVideo});
  view->addSeparator();
  FillMenu(*view, {actPreview, actRecoveryList});
  FillMenu(*view, {actFindFileBar, actImageBar, actWhereBar});
  FillMenu(*view, {actRefresh});
  QMenu* tools = add(TText::MenuTools);
  FillMenu(*tools, {actFindFile, actFoundFileLocation, actWhere});
  FillMenu(*tools, {actSettings});
  QMenu* help = add(TText::MenuHelpMenu);
  FillMenu(*help, {actHelp, actAbout});
}

QToolBar* TfMain::CreateToolBar(const char* name, std::initializer_list<TAction> actions) {
  auto* bar = new QToolBar(this);
  bar->setObjectName(QLatin1String(name));
  bar->setMovable(false);
  bar->setIconSize({22, 22});
  bar->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
  bar->setContextMenuPolicy(Qt::PreventContextMenu);
  for (const TAction action : actions) bar->addAction(Action(action));
  addToolBar(bar);
  return bar;
}

void TfMain::CreateToolBars() {
  tbStandardButtons = CreateToolBar("tbStandardButtons", {actMaster, actOpen, actFoldersReopen});
  tbStandardButtons->addSeparator();
  tbStandardButtons->addAction(Action(actRecovery));
  tbStandardButtons->addAction(Action(actAddToRecoveryList));
  tbStandardButtons->addSeparator();
  tbStandardButtons->addAction(Action(actFoldersFindPartitions));
  // Filters are used often, so their menu has its own button.
  auto* filter = new QToolButton(this);
  filter->setIcon(Icon("view-filter"));
  filter->setMenu(findChild<QMenu*>(QStringLiteral("mnFilter")));
  filter->setPopupMode(QToolButton::InstantPopup);
  filter->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
  filter->setObjectName(QStringLiteral("btnFilter"));
  tbStandardButtons->addWidget(filter);
  tbImage = CreateToolBar("tbImage", {actMountImage, actUnmountImage, actFoldersCreateImage});
  tbWhere = CreateToolBar("tbWhere", {actWhere});
  tbFindFile = CreateToolBar("tbFindFile", {});
  FFindEdit = new QLineEdit(this);
  FFindEdit->setObjectName(QStringLiteral("edtQuickFind"));
  FFindEdit->setClearButtonEnabled(true);
  FFindEdit->setMinimumWidth(140);
  FFindEdit->setMaximumWidth(260);
  FFindEdit->addAction(Icon("edit-find"), QLineEdit::LeadingPosition);
  auto* spring = new QWidget(this);
  spring->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
  tbFindFile->addWidget(spring);
  tbFindFile->addWidget(FFindEdit);
  tbFindFile->addAction(Action(actFindFile));
  connect(FFindEdit, &QLineEdit::returnPressed, this, [this] { FindQuickly(); });
}

void TfMain::ChangeLanguage() {
  for (const TAction which : AllActions) {
    QAction* action = Action(which);
    const QString caption = Text(FLanguage, InfoOf(which).Caption);
    action->setText(caption);
    const QString key = action->shortcut().toString(QKeySequence::NativeText);
    action->setToolTip(key.isEmpty() ? caption : caption + QStringLiteral(" (") + key + QLatin1Char(')'));
  }
  for (std::size_t i = 0; i < FMenus.size(); ++i) FMenus[i]->setTitle(Text(FLanguage, FMenuTexts[i]));
  TfrTabControl->setTabText(0, Text(FLanguage, TText::TabFiles));
  TfrTabControl->setTabText(1, Text(FLanguage, TText::TabDisks));
  if (auto* filter = findChild<QToolButton*>(QStringLiteral("btnFilter")); filter != nullptr) {
    filter->setText(Text(FLanguage, TText::MenuFilter));
  }
  FFindEdit->setPlaceholderText(Text(FLanguage, TText::FindPlaceholder));
  FFindEdit->setAccessibleName(Text(FLanguage, TText::MenuFindFile));
  tvFolders->setAccessibleName(Text(FLanguage, TText::CrumbComputer));
  FNavigation->ChangeLanguage();
  FFileList->ChangeLanguage();
  FPreview->ChangeLanguage();
  FRecoveryList->ChangeLanguage();
  FStatusBar->ChangeLanguage();
  FDiskManager->Show(FDrives);
}

void TfMain::ApplySettings() {
  const TSettings::TMain& main = FSettings.Main;
  const QRect screen = QWidget::screen()->availableGeometry();
  const QSize size(qBound(400, main.Width, screen.width()), qBound(300, main.Height, screen.height()));
  resize(size);
  if (main.Left != 0 || main.Top != 0) {
    move(qBound(screen.left(), main.Left, screen.right() - 100), qBound(screen.top(), main.Top, screen.bottom() - 100));
  }
  if (main.Maximize) setWindowState(windowState() | Qt::WindowMaximized);
  FSplitter->setSizes({main.TreeWidth, size.width() - main.TreeWidth - main.RightPanelsWidth, main.RightPanelsWidth});
  pnRight->setSizes({size.height() - FSettings.RecoveryList.Height, FSettings.RecoveryList.Height});
  const auto show = [this](TAction action, QWidget* panel, bool on) {
    Action(action)->setChecked(on);
    panel->setVisible(on);
  };
  show(actFindFileBar, tbFindFile, main.FindFileBar);
  show(actImageBar, tbImage, main.ImageBar);
  show(actWhereBar, tbWhere, main.WhereBar);
  show(actPreview, FPreviewFrame, FSettings.Preview.IsOn);
  show(actRecoveryList, FRecoveryList, FSettings.RecoveryList.IsOn);
  pnRight->setVisible(FSettings.Preview.IsOn || FSettings.RecoveryList.IsOn);
  TfrTabControl->setCurrentIndex(FSettings.FileList.Tab == 1 ? 1 : 0);
}

void TfMain::KeepSettings() {
  TSettings::TMain& main = FSettings.Main;
  main.Maximize = isMaximized();
  const QRect place = isMaximized() ? normalGeometry() : geometry();
  if (place.isValid()) {
    main.Left = place.left();
    main.Top = place.top();
    main.Width = place.width();
    main.Height = place.height();
  }
  main.TreeWidth = pnLeft->width();
  if (pnRight->isVisible()) main.RightPanelsWidth = pnRight->width();
  main.FindFileBar = Action(actFindFileBar)->isChecked();
  main.ImageBar = Action(actImageBar)->isChecked();
  main.WhereBar = Action(actWhereBar)->isChecked();
  FSettings.Preview.IsOn = Action(actPreview)->isChecked();
  FSettings.RecoveryList.IsOn = Action(actRecoveryList)->isChecked();
  if (FRecoveryList->isVisible()) FSettings.RecoveryList.Height = FRecoveryList->height();
  FSettings.FileList.Tab = TfrTabControl->currentIndex();
  FFileList->KeepSettings();
  FRecoveryList->KeepSettings();
}

}  // namespace brenlow::desktop
