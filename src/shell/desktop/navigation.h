// SPDX-License-Identifier: GPL-3.0-or-later
// Back, forward and up, and the path of what is shown.
#pragma once

#include <QWidget>

#include "shell/snapshots.h"

class QHBoxLayout;
class QToolButton;

namespace brenlow {
class TShellController;
class TLanguage;
}  // namespace brenlow

namespace brenlow::desktop {

class TfrNavigation final : public QWidget {
 public:
  TfrNavigation(TShellController& controller, const TLanguage& texts, QWidget* parent);
  void Show(const TPlaceSnapshot& place);
  void ChangeLanguage();

 private:
  const TLanguage& FTexts;
  QToolButton* FBack;
  QToolButton* FForward;
  QToolButton* FUp;
};

/// Each step of the path is a button; those that do not fit are left out after the first.
class TfrBreadcrumbs final : public QWidget {
 public:
  TfrBreadcrumbs(TShellController& controller, QWidget* parent);
  void Show(const TPlaceSnapshot& place);

 protected:
  void resizeEvent(QResizeEvent* event) override;

 private:
  void Fit();

  TShellController& FController;
  QHBoxLayout* FLayout;
  std::vector<TString> FCrumbs;
  QList<QToolButton*> FSteps;
};

}  // namespace brenlow::desktop
