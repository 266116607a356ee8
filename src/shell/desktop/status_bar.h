// SPDX-License-Identifier: GPL-3.0-or-later
// What runs, how far it is, how fast, how long still, and what it found; else what is selected.
#pragma once

#include <QElapsedTimer>
#include <QStatusBar>
#include <QTimer>

#include "shell/snapshots.h"

class QAction;
class QLabel;
class QProgressBar;
class QToolButton;

namespace brenlow {
class TShellController;
class TLanguage;
}  // namespace brenlow

namespace brenlow::desktop {

class TfrStatusBar final : public QStatusBar {
 public:
  TfrStatusBar(TShellController& controller, const TLanguage& texts, QAction* stop, QWidget* parent);
  void SetProgress(const TProgressSnapshot& progress);
  void SetSelection(const TSelectionState& selection, int shown, int hidden);
  /// The recovery wizard shows its own progress.
  void SetRecovering(bool recovering) { FRecovering = recovering; }
  /// While a question is open the clock stands still.
  void Pause(bool paused);
  void ChangeLanguage();

 private:
  void Refresh();
  void ShowProgress();
  void ShowIdle();

  TShellController& FController;
  const TLanguage& FTexts;
  QLabel* FText;
  QProgressBar* FBar;
  QLabel* FRate;
  QToolButton* FStop;
  TProgressSnapshot FProgress;
  TSelectionState FSelection;
  int FShown = 0;
  int FHidden = 0;
  bool FRecovering = false;
  QElapsedTimer FClock;    // since it began
  qint64 FPausedFor = 0;   // milliseconds of it that do not count
  qint64 FPausedAt = -1;   // by the clock
  QElapsedTimer FHeard;    // since the last news of the engine
  QElapsedTimer FBusyFor;  // since the engine has had something to do
  QTimer FTimer;
};

}  // namespace brenlow::desktop
