// SPDX-License-Identifier: GPL-3.0-or-later
// The recovery list: files that were ticked, dragged or sent here.
#pragma once

#include <QWidget>

#include "shell/settings.h"
#include "shell/snapshots.h"

class QAction;
class QLabel;
class QToolButton;

namespace brenlow {
class TShellController;
class TLanguage;
}  // namespace brenlow

namespace brenlow::desktop {

class TFileModel;
class TFileTable;

class TfrRecoveryList final : public QWidget {
  Q_OBJECT
 public:
  TfrRecoveryList(TShellController& controller, const TLanguage& texts, TSettings& settings, QAction* recover,
                  QWidget* parent);
  void Show(const TListing& listing);
  void ChangeLanguage();
  void KeepSettings();

 protected:
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  void RemoveSelected();
  void SortBy(int column);
  void ShowSortIndicator();

  TShellController& FController;
  const TLanguage& FTexts;
  TSettings& FSettings;
  QLabel* FTitle;
  QLabel* FHint;
  QToolButton* FRecover;
  QToolButton* FRemove;
  TFileModel* FModel;
  TFileTable* FTable;
};

}  // namespace brenlow::desktop
