// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/status_bar.h"

#include <QAction>
#include <QLabel>
#include <QProgressBar>
#include <QToolButton>

#include "core/language.h"
#include "shell/controller.h"
#include "shell/desktop/ui_text.h"
#include "shell/progress_text.h"

namespace brenlow::desktop {
namespace {

constexpr int RefreshInterval = 250;  // milliseconds
constexpr qint64 SilenceTime =
    1500;  // without an answer from the engine; then the user is told that it waits for the device
constexpr qint64 BusyTime = 500;
constexpr int BarSteps = 1000;

TText TitleOf(TProgressSnapshot::TKind kind) {
  switch (kind) {
    case TProgressSnapshot::DeepAnalysing:
      return TText::DeepAnalysingDrive;
    case TProgressSnapshot::SearchingPartitions:
      return TText::SearchingPartitions;
    case TProgressSnapshot::SavingImage:
      return TText::SavingImage;
    default:
      return TText::AnalysingDrive;
  }
}

}  // namespace

TfrStatusBar::TfrStatusBar(TShellController& controller, const TLanguage& texts, QAction* stop, QWidget* parent)
    : QStatusBar(parent),
      FController(controller),
      FTexts(texts),
      FText(new QLabel(this)),
      FBar(new QProgressBar(this)),
      FRate(new QLabel(this)),
      FStop(new QToolButton(this)) {
  setObjectName(QStringLiteral("TfrStatusBar"));
  FText->setObjectName(QStringLiteral("lblStatus"));
  FText->setTextFormat(Qt::PlainText);
  FRate->setObjectName(QStringLiteral("lblRate"));
  FBar->setObjectName(QStringLiteral("pbProgress"));
  FBar->setRange(0, BarSteps);
  FBar->setMaximumWidth(220);
  FBar->setMinimumWidth(120);
  FStop->setDefaultAction(stop);
  FStop->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
  addWidget(FText, 1);
  addPermanentWidget(FRate);
  addPermanentWidget(FBar);
  addPermanentWidget(FStop);
  FTimer.setInterval(RefreshInterval);
  connect(&FTimer, &QTimer::timeout, this, [this] { Refresh(); });
  FTimer.start();
  ShowIdle();
}

void TfrStatusBar::SetProgress(const TProgressSnapshot& progress) {
  if (progress.Kind != FProgress.Kind) {
    FClock.start();
    FPausedFor = 0;
    FPausedAt = -1;
  }
  FProgress = progress;
  FHeard.start();
  Refresh();
}

void TfrStatusBar::SetSelection(const TSelectionState& selection, int shown, int hidden) {
  FSelection = selection;
  FShown = shown;
  FHidden = hidden;
  Refresh();
}

void TfrStatusBar::Pause(bool paused) {
  if (paused && FPausedAt < 0) FPausedAt = FClock.elapsed();
  if (!paused && FPausedAt >= 0) FPausedFor += FClock.elapsed() - std::exchange(FPausedAt, -1);
}

void TfrStatusBar::ChangeLanguage() { Refresh(); }

void TfrStatusBar::Refresh() {
  if (!FController.IsBusy()) {
    FBusyFor.invalidate();
  } else if (!FBusyFor.isValid()) {
    FBusyFor.start();
  }
  if (FProgress.Kind != TProgressSnapshot::None) {
    ShowProgress();
  } else {
    ShowIdle();
  }
}

void TfrStatusBar::ShowProgress() {
  const qint64 now = FPausedAt >= 0 ? FPausedAt : FClock.elapsed();
  const double seconds = static_cast<double>(now - FPausedFor) / 1000;
  QString text = Text(FTexts, TitleOf(FProgress.Kind), {ToQt(FProgress.Caption)});
  if (FProgress.Found > 0) {
    text += QStringLiteral(" – ") + CountText(FTexts, TText::FoundOne, TText::FoundMany, FProgress.Found);
  }
  if (FProgress.Unreadable > 0) {
    text += QStringLiteral(", ") +
            CountText(FTexts, TText::UnreadableSectorsOne, TText::UnreadableSectorsMany, FProgress.Unreadable);
  }
  if (FHeard.isValid() && FHeard.elapsed() > SilenceTime) {
    text = Text(FTexts, TText::DeviceSilent, {QString::number(FHeard.elapsed() / 1000)});
  }
  FText->setText(text);
  QString rate = ToQt(RateText(FProgress.Bytes, seconds));
  const double left = SecondsLeft(FProgress.Position, seconds);
  if (left >= 0) rate += QStringLiteral(", ") + Text(FTexts, TText::TimeLeft, {ToQt(DurationText(left))});
  FRate->setText(rate);
  FBar->setRange(0, BarSteps);
  FBar->setValue(static_cast<int>(FProgress.Position * BarSteps));
  FBar->show();
  FRate->show();
  FStop->show();
}

void TfrStatusBar::ShowIdle() {
  const bool busy = !FRecovering && FBusyFor.isValid() && FBusyFor.elapsed() > BusyTime;
  FRate->hide();
  FStop->hide();
  FBar->setVisible(busy);
  if (busy) {
    FBar->setRange(0, 0);
    FText->setText(Text(FTexts, TText::EngineBusy));
    return;
  }
  QString text = CountText(FTexts, TText::EntriesOne, TText::EntriesMany, FShown);
  if (FHidden > 0) text += QStringLiteral(", ") + CountText(FTexts, TText::HiddenOne, TText::HiddenMany, FHidden);
  if (FSelection.Count > 0) {
    text += QStringLiteral(" – ") + CountText(FTexts, TText::SelectedOne, TText::SelectedMany, FSelection.Count);
    if (FSelection.Size > 0) text += QStringLiteral(", ") + SizeOrNothing(FSelection.Size);
  }
  FText->setText(text);
}

}  // namespace brenlow::desktop
