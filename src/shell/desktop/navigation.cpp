// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/navigation.h"

#include <QHBoxLayout>
#include <QToolButton>

#include "core/language.h"
#include "shell/controller.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

constexpr int MaxCrumb = 40;  // characters

}  // namespace

TfrNavigation::TfrNavigation(TShellController& controller, const TLanguage& texts, QWidget* parent)
    : QWidget(parent), FTexts(texts) {
  setObjectName(QStringLiteral("TfrNavigation"));
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(0);
  const auto add = [&](const char* name, const char* icon, const QKeySequence& key, void (TPlaces::*go)()) {
    auto* button = new QToolButton(this);
    button->setObjectName(QLatin1String(name));
    button->setAutoRaise(true);
    button->setIcon(Icon(icon));
    button->setShortcut(key);
    button->setEnabled(false);
    layout->addWidget(button);
    connect(button, &QToolButton::clicked, this,
            [&controller, go] { controller.Ask([go](TCommands& c) { (c.Places().*go)(); }); });
    return button;
  };
  FBack = add("btnBack", "go-previous", QKeySequence(Qt::ALT | Qt::Key_Left), &TPlaces::GoBack);
  FForward = add("btnForward", "go-next", QKeySequence(Qt::ALT | Qt::Key_Right), &TPlaces::GoForward);
  FUp = add("btnUp", "go-up", QKeySequence(Qt::ALT | Qt::Key_Up), &TPlaces::GoUp);
  ChangeLanguage();
}

void TfrNavigation::Show(const TPlaceSnapshot& place) {
  FBack->setEnabled(place.CanGoBack);
  FForward->setEnabled(place.CanGoForward);
  FUp->setEnabled(place.CanGoUp);
}

void TfrNavigation::ChangeLanguage() {
  const auto name = [this](QToolButton* button, TText text) {
    const QString caption = Text(FTexts, text);
    button->setToolTip(caption + QStringLiteral(" (") + button->shortcut().toString(QKeySequence::NativeText) +
                       QLatin1Char(')'));
    button->setAccessibleName(caption);
  };
  name(FBack, TText::GoBack);
  name(FForward, TText::GoForward);
  name(FUp, TText::GoUp);
}

TfrBreadcrumbs::TfrBreadcrumbs(TShellController& controller, QWidget* parent)
    : QWidget(parent), FController(controller), FLayout(new QHBoxLayout(this)) {
  setObjectName(QStringLiteral("TfrBreadcrumbs"));
  FLayout->setContentsMargins(0, 0, 0, 0);
  FLayout->setSpacing(0);
  FLayout->addStretch(1);
  setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
}

void TfrBreadcrumbs::Show(const TPlaceSnapshot& place) {
  if (place.Crumbs == FCrumbs) return;
  FCrumbs = place.Crumbs;
  for (QToolButton* step : std::as_const(FSteps)) step->deleteLater();
  FSteps.clear();
  for (std::size_t i = 0; i < FCrumbs.size(); ++i) {
    auto* step = new QToolButton(this);
    step->setAutoRaise(true);
    QString caption = ToQt(FCrumbs[i]);
    step->setToolTip(caption);
    if (caption.size() > MaxCrumb) caption = caption.left(MaxCrumb - 1) + QStringLiteral("…");
    step->setText((i == 0 ? QString() : QStringLiteral("› ")) +
                  caption.replace(QLatin1Char('&'), QStringLiteral("&&")));
    step->setToolButtonStyle(i == 0 ? Qt::ToolButtonTextBesideIcon : Qt::ToolButtonTextOnly);
    if (i == 0) step->setIcon(Icon("computer"));
    connect(step, &QToolButton::clicked, this,
            [this, i] { FController.Ask([i](TCommands& commands) { commands.Places().GoToCrumb(i); }); });
    FLayout->insertWidget(static_cast<int>(i), step);
    step->show();
    FSteps.append(step);
  }
  Fit();
}

/// The last steps matter most.
void TfrBreadcrumbs::Fit() {
  if (FSteps.isEmpty()) return;
  int room = width() - FSteps.front()->sizeHint().width();
  bool fits = true;
  for (qsizetype i = FSteps.size() - 1; i > 0; --i) {
    room -= FSteps[i]->sizeHint().width();
    fits = fits && (room >= 0 || i == FSteps.size() - 1);
    FSteps[i]->setVisible(fits);
  }
}

void TfrBreadcrumbs::resizeEvent(QResizeEvent*) { Fit(); }

}  // namespace brenlow::desktop
