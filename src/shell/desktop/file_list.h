// SPDX-License-Identifier: GPL-3.0-or-later
// The file list in the middle, with what it says when it is empty.
#pragma once

#include <QItemSelection>
#include <QTimer>
#include <QWidget>

#include "shell/actions.h"
#include "shell/desktop/file_views.h"
#include "shell/settings.h"
#include "shell/snapshots.h"

class QAction;
class QLabel;
class QStackedWidget;
class QVBoxLayout;

namespace brenlow {
class TShellController;
class TLanguage;
}  // namespace brenlow

namespace brenlow::desktop {

class TFileModel;

class TfrFileList final : public QWidget {
  Q_OBJECT
 public:
  TfrFileList(TShellController& controller, const TLanguage& texts, TSettings& settings, QWidget* parent);

  void Show(const TPlaceSnapshot& place);
  /// The drives' state, for the message in an empty list.
  void SetDrive(const TDriveSnapshot* drive);
  void SetRunning(TProgressSnapshot::TKind running);
  /// Actions that an empty list offers: each is shown as a button.
  void SetAction(TAction action, QAction* button);
  void SetViewStyle(TViewStyle style);
  TViewStyle ViewStyle() const;
  void Select(std::uint64_t generation, const TIntegerDynArray& numbers);
  /// Tells the engine what is selected, which otherwise happens a little later.
  void SendSelection();
  void SelectAll();
  void InvertSelection();
  /// Shows the ticks as they are now.
  void Outdate();
  void ChangeLanguage();
  /// Columns and styles, for the settings.
  void KeepSettings();
  TFileModel& Model() { return *FModel; }
  QAbstractItemView* View() const;
  const TPlaceSnapshot& Place() const { return *FPlace; }
  /// The row that has the focus; null when there is none, or it has not come yet.
  const TFileRow* CurrentRow() const;

 Q_SIGNALS:
  void Activated(const TFileRow& row);
  /// The focus went to another row, or its content came.
  void CurrentChanged();
  void ContextMenuWanted(const QPoint& global);

 private:
  void MakeEmptyPage();
  void ConnectRows();
  template <typename TView>
  void Connect(TView& view);
  void LookFor(const QString& start);
  void SortBy(int column);
  void ApplyColumns();
  void ShowSortIndicator();
  void UpdateEmpty();
  void ShowEmpty(const QString& title, const QString& text, std::initializer_list<TAction> actions);
  int& StyleSetting() const;

  TShellController& FController;
  const TLanguage& FTexts;
  TSettings& FSettings;
  TFileModel* FModel;
  QStackedWidget* FStack;
  TFileTable* FTable;
  TFileGrid* FGrid;
  QWidget* FEmpty;
  QLabel* FEmptyTitle;
  QLabel* FEmptyText;
  QVBoxLayout* FEmptyButtons;
  std::unique_ptr<TPlaceSnapshot> FPlace;
  std::unique_ptr<TDriveSnapshot> FDrive;
  TProgressSnapshot::TKind FRunning = TProgressSnapshot::None;
  std::vector<std::pair<TAction, QAction*>> FActions;
  QTimer FSelectionTimer;
  bool FColumnsAreDrives = true;
  bool FHasColumns = false;
};

}  // namespace brenlow::desktop
