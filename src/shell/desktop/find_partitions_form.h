// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "shell/desktop/form.h"

class QCheckBox;
class QProgressBar;
class QPushButton;
class QRadioButton;
class QStackedWidget;
class QTreeWidget;

namespace brenlow::desktop {

/// "Find Lost Partitions": options, then results that come while the search runs.
class TfFindPartitions final : public TForm {
 public:
  TfFindPartitions(TShellController& controller, const TLanguage& texts, const std::vector<TDriveSnapshot>& drives,
                   int drive, QWidget* parent);
  void SetProgress(const TProgressSnapshot& progress);
  void reject() override;

 private:
  QWidget* MakeOptions(int drive);  // frmFindPartitionsOptions
  QWidget* MakeResults();           // frmFindPartitionsResults
  void Search();
  void AddFound(const TDriveSnapshot& drive);
  void Open();
  void Finished();

  TShellController& FController;
  std::vector<TDriveSnapshot> FDrives;
  QStackedWidget* FPages;
  QComboBox* FDrive = nullptr;
  QRadioButton* FThorough = nullptr;
  TSectorRange* FRange = nullptr;
  std::vector<std::pair<QCheckBox*, TPartRecSystem>> FSystems;
  QTreeWidget* FFound = nullptr;
  QProgressBar* FBar = nullptr;
  QPushButton* FStart = nullptr;
  QPushButton* FOpen = nullptr;
  bool FRunning = false;
};

}  // namespace brenlow::desktop
