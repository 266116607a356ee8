// SPDX-License-Identifier: GPL-3.0-or-later
// The main window.
#pragma once

#include <QMainWindow>
#include <QPointer>
#include <QTimer>
#include <array>
#include <memory>

#include "shell/controller.h"
#include "shell/settings.h"

class QAction;
class QActionGroup;
class QLineEdit;
class QMenu;
class QSplitter;
class QTabBar;
class QStackedWidget;
class QToolBar;

namespace brenlow::desktop {

class TFileModel;
class TRecoveryMasterForm;
class TfAnalyseMaster;
class TfFindPartitions;
class TfrBanner;
class TfrBreadcrumbs;
class TfrDiskManager;
class TfrFileList;
class TfrNavigation;
class TfrPreview;
class TfrRecoveryList;
class TfrStatusBar;
class TtvFolders;

class TfMain final : public QMainWindow, public IShellView {
  Q_OBJECT
 public:
  /// `languages`: the folder of the language files. The settings are read and written there.
  TfMain(TSettings& settings, TLanguage language, std::string languages);
  ~TfMain() override;

  /// Lists the drives, and does what the command line says: "dsk_file PATH" mounts an image, "path_DRIVE"
  /// opens the wizard for a drive; the path of a file or device alone is mounted too.
  void Start(const QString& argument);
  /// A second start of the program has come.
  void SecondStart(const QString& argument);
  /// Stops the engine. False when it does not answer within the time.
  bool EndEngine(std::chrono::milliseconds time);

  QAction* Action(TAction action) const { return alMain[static_cast<std::size_t>(action)]; }
  TShellController& Controller() { return *FController; }
  TfrFileList& FileList() { return *FFileList; }
  TtvFolders& Folders() { return *tvFolders; }
  TfrBanner& Banner() { return *FBanner; }
  const std::vector<TDriveSnapshot>& Drives() const { return FDrives; }
  const TShellState& State() const { return FState; }
  const TProgressSnapshot& Progress() const { return FProgress; }

  // IShellView
  void TreeChanged(const std::vector<TTreeChange>& changes) override;
  void DrivesChanged(const std::vector<TDriveSnapshot>& drives) override;
  void PlaceChanged(const TPlaceSnapshot& place) override;
  void SelectionChanged(std::uint64_t generation, const TIntegerDynArray& selected) override;
  void RecoveryListChanged(const TListing& listing) override;
  void ActionsChanged(const TActions& actions, const TShellState& state, const TFileFilter& filter) override;
  void ProgressChanged(const TProgressSnapshot& progress) override;
  void Message(TMessageKind kind, const std::string& text) override;
  void RecoveryPageChanged(const TRecoveryPage& page) override;
  void RecoveryProgressChanged(const TRecoveryProgress& progress) override;
  void RecoveryClosed(const TRecoverySettings& settings) override;
  void AskRename(const TRenameQuestion& question, std::function<void(TRenameAnswer)> answer) override;
  void AskFileExists(const TFileExistsQuestion& question, std::function<void(TFileExistsAnswer)> answer) override;
  void AskFirstCluster(const TString& fileName, const std::vector<std::int64_t>& candidates,
                       std::function<void(TCandidateAnswer)> answer) override;
  void AskYesNo(const std::string& question, std::function<void(bool)> answer) override;

 protected:
  void showEvent(QShowEvent* event) override;
  void closeEvent(QCloseEvent* event) override;
  void changeEvent(QEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  // main_window_layout.cpp
  void CreateActions();
  void CreateFrames();
  QWidget* CreateCenter();
  QWidget* CreateRight();
  QWidget* CreatePages();
  void ConnectFrames();
  void CreateMenus();
  void CreateToolBars();
  QToolBar* CreateToolBar(const char* name, std::initializer_list<TAction> actions);
  void FillMenu(QMenu& menu, std::initializer_list<TAction> actions);
  void ChangeLanguage();
  void ApplySettings();
  void KeepSettings();

  // main_window_actions.cpp
  struct TOwnActions;
  void Perform(TAction action);
  void OpenMaster(int drive);
  void MountImage(TAction action);
  bool AskClose();
  void Mount(const QString& path);
  void FindQuickly();
  void ShowDetails();
  void ShowContextMenu(const QPoint& at, bool ofTree);
  void PopUpContextMenu(const QPoint& at, bool ofTree);
  void SetViewStyle(TAction action);
  void CheckDevices();
  void AutoPlay();
  void ShowHints(const TPlaceSnapshot& place);
  void ExpandResults();
  QWidget* FormParent();
  bool Runs() const { return FState.Analysing || FState.Recovering || FState.Searching; }

  TSettings& FSettings;
  TLanguage FLanguage;
  std::string FLanguageFolder;
  std::unique_ptr<TShellController> FController;
  std::array<QAction*, ActionCount> alMain{};
  std::vector<QMenu*> FMenus;
  std::vector<TText> FMenuTexts;
  QSplitter* FSplitter = nullptr;
  QSplitter* pnRight = nullptr;
  QWidget* pnLeft = nullptr;
  QWidget* pnCenter = nullptr;
  QStackedWidget* FPages = nullptr;
  QTabBar* TfrTabControl = nullptr;
  TtvFolders* tvFolders = nullptr;
  TfrFileList* FFileList = nullptr;
  TfrBreadcrumbs* FBreadcrumbs = nullptr;
  TfrNavigation* FNavigation = nullptr;
  TfrPreview* FPreview = nullptr;
  QWidget* FPreviewFrame = nullptr;
  TfrRecoveryList* FRecoveryList = nullptr;
  TfrStatusBar* FStatusBar = nullptr;
  TfrDiskManager* FDiskManager = nullptr;
  TfrBanner* FBanner = nullptr;
  QToolBar *tbStandardButtons = nullptr, *tbImage = nullptr, *tbWhere = nullptr, *tbFindFile = nullptr;
  QLineEdit* FFindEdit = nullptr;
  TRecoveryMasterForm* FRecoveryForm = nullptr;
  QPointer<TfAnalyseMaster> FMaster;  // while they are open
  QPointer<TfFindPartitions> FFindPartitions;

  std::vector<TDriveSnapshot> FDrives;
  TShellState FState;
  TProgressSnapshot FProgress;
  int FHidden = 0;
  std::uint64_t FHintPlace = 0;  // the place that a hint was shown for
  QString FAutoplayLetter;
  QTimer tmrAutoPlay;
  QTimer tmrDeviceInserted;
  QByteArray FDevices;  // the system's devices when last checked
  bool FStarted = false;
  bool FExpandResults = false;
  bool FClosing = false;
};

}  // namespace brenlow::desktop
