// SPDX-License-Identifier: GPL-3.0-or-later
// The recovery wizard on screen.
#pragma once

#include <QElapsedTimer>

#include "shell/controller.h"
#include "shell/desktop/form.h"

class QCheckBox;
class QLabel;
class QProgressBar;
class QPushButton;
class QRadioButton;
class QStackedWidget;
class QTreeWidget;

namespace brenlow::desktop {

class TRecoveryMasterForm final : public TForm {
 public:
  TRecoveryMasterForm(TShellController& controller, const TLanguage& texts, TSettings& settings, QWidget* parent);
  void Show(const TRecoveryPage& page);
  void ShowProgress(const TRecoveryProgress& progress);
  void reject() override;

 private:
  QWidget* MakeKindPage();      // TfrmCheckRecoverType
  QWidget* MakeOptionsPage();   // TfrmSaveOptions
  QWidget* MakeProgressPage();  // TfrmSaveProgress
  QWidget* MakeFinishPage();
  void ShowSummary(const TRecoverySummary& summary);
  TRecoverySettings Choices() const;
  void Next();
  void UpdateButtons();
  void Browse();

  TShellController& FController;
  TSettings& FSettings;
  int FPage = TfRecoveryMaster::OutputKind;
  QStackedWidget* FPages;
  QRadioButton* FSave = nullptr;
  QCheckBox* FRemember = nullptr;
  QLineEdit* FPath = nullptr;
  QCheckBox* FFolders = nullptr;
  QCheckBox* FADS = nullptr;
  QCheckBox* FReplace = nullptr;
  QLineEdit* FSymbol = nullptr;
  QLabel* FRequired = nullptr;
  QLabel* FAvailable = nullptr;
  QLabel* FError = nullptr;
  QLabel* FFile = nullptr;
  QLabel* FRecovered = nullptr;
  QProgressBar* FBar = nullptr;
  QLabel* FSummary = nullptr;
  QTreeWidget* FFaults = nullptr;
  QCheckBox* FAutoClose = nullptr;
  QPushButton* FNext = nullptr;
  QPushButton* FCancel = nullptr;
  QPushButton* FOpenFolder = nullptr;
  QElapsedTimer FClock;
  QString FTarget;
};

}  // namespace brenlow::desktop
