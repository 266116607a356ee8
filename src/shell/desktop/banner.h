// SPDX-License-Identifier: GPL-3.0-or-later
// Messages and simple questions as a line in the window: they wait for the user, not the user for them.
#pragma once

#include <QFrame>
#include <QList>
#include <functional>

#include "shell/controller.h"

class QHBoxLayout;
class QLabel;
class QToolButton;

namespace brenlow::desktop {

struct TBannerButton {
  QString Caption;
  std::function<void()> Clicked;
};

class TfrBanner final : public QFrame {
 public:
  TfrBanner(const TLanguage& texts, QWidget* parent);
  /// A button hides the banner and runs its action. Without buttons, a cross hides it.
  void Show(TMessageKind kind, const QString& text, const QList<TBannerButton>& buttons = {});
  /// Hides it when it shows this text.
  void Withdraw(const QString& text);
  QString Message() const;

 private:
  const TLanguage& FTexts;
  QLabel* FIcon;
  QLabel* FText;
  QHBoxLayout* FLayout;
  QList<QWidget*> FButtons;
  QToolButton* FClose;
};

}  // namespace brenlow::desktop
