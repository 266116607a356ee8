// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/banner.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QToolButton>

#include "core/language.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

constexpr int IconSize = 22;

/// A tint of the window's own colour, so that text stays readable on light and dark palettes.
QColor Tinted(const QColor& window, const QColor& tint) {
  const auto mix = [](int a, int b) { return (a * 3 + b) / 4; };
  return {mix(window.red(), tint.red()), mix(window.green(), tint.green()), mix(window.blue(), tint.blue())};
}

}  // namespace

TfrBanner::TfrBanner(const TLanguage& texts, QWidget* parent)
    : QFrame(parent), FTexts(texts), FIcon(new QLabel(this)), FText(new QLabel(this)), FClose(new QToolButton(this)) {
  setObjectName(QStringLiteral("TfrBanner"));
  setFrameShape(StyledPanel);
  setAutoFillBackground(true);
  FText->setObjectName(QStringLiteral("lblBanner"));
  FText->setWordWrap(true);
  FText->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  FText->setTextFormat(Qt::PlainText);
  FClose->setObjectName(QStringLiteral("btnCloseBanner"));
  FClose->setAutoRaise(true);
  FClose->setIcon(Icon("window-close"));
  connect(FClose, &QToolButton::clicked, this, &QWidget::hide);
  FLayout = new QHBoxLayout(this);
  FLayout->setContentsMargins(8, 4, 4, 4);
  FLayout->addWidget(FIcon);
  FLayout->addWidget(FText, 1);
  FLayout->addWidget(FClose);
  hide();
}

void TfrBanner::Show(TMessageKind kind, const QString& text, const QList<TBannerButton>& buttons) {
  const bool isError = kind == TMessageKind::Error;
  const bool isWarning = kind == TMessageKind::Warning;
  QPalette colours = parentWidget()->palette();
  const QColor tint = isError     ? QColor(0xDA, 0x44, 0x53)
                      : isWarning ? QColor(0xF6, 0x74, 0x00)
                                  : QColor(0x3D, 0xAE, 0xE9);
  colours.setColor(QPalette::Window, Tinted(colours.color(QPalette::Window), tint));
  setPalette(colours);
  const char* icon = isError ? "dialog-error" : isWarning ? "dialog-warning" : "dialog-information";
  FIcon->setPixmap(Icon(icon).pixmap(IconSize));
  FText->setText(text);
  for (QWidget* button : std::as_const(FButtons)) button->deleteLater();
  FButtons.clear();
  for (const TBannerButton& wanted : buttons) {
    auto* button = new QPushButton(wanted.Caption, this);
    button->setObjectName(QStringLiteral("btnBanner%1").arg(FButtons.size()));
    connect(button, &QPushButton::clicked, this, [this, clicked = wanted.Clicked] {
      hide();
      if (clicked) clicked();
    });
    FLayout->insertWidget(FLayout->count() - 1, button);
    FButtons.append(button);
  }
  FClose->setToolTip(Text(FTexts, TText::ButtonClose));
  FClose->setVisible(buttons.isEmpty());
  show();
  if (!FButtons.isEmpty()) FButtons.front()->setFocus();
}

void TfrBanner::Withdraw(const QString& text) {
  if (FText->text() == text) hide();
}

QString TfrBanner::Message() const { return isHidden() ? QString() : FText->text(); }

}  // namespace brenlow::desktop
