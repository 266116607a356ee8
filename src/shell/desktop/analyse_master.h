// SPDX-License-Identifier: GPL-3.0-or-later
// The analysis wizard: which drive, what happened, which kinds of files.
#pragma once

#include "shell/desktop/form.h"
#include "shell/settings.h"

class QCheckBox;
class QLabel;
class QListWidget;
class QPushButton;
class QRadioButton;
class QStackedWidget;
class QTreeWidget;

namespace brenlow::desktop {

class TfAnalyseMaster final : public TForm {
  Q_OBJECT
 public:
  TfAnalyseMaster(TShellController& controller, const TLanguage& texts, TSettings& settings, QWidget* parent);
  /// The drives to choose from, which may change while the form is open.
  void SetDrives(const std::vector<TDriveSnapshot>& drives, int current);

 Q_SIGNALS:
  void MountWanted();

 private:
  enum TPage { ChooseDrive, AnalyseType, FileTypes };
  QWidget* MakeDrivePage();
  QWidget* MakeTypePage();
  QWidget* MakeFilesPage();
  QRadioButton* AddChoice(QWidget* page, const char* name, TText title, TText hint);
  void Go(TPage page);
  void Next();
  void Back();
  void UpdateButtons();
  void FilterTypes(const QString& text);
  void CheckAll(bool checked);
  std::vector<TString> ChosenExtensions() const;
  void Start();
  bool NeedsFileTypes() const;
  int ChosenDrive() const;

  TShellController& FController;
  TSettings& FSettings;
  std::vector<TDriveSnapshot> FDrives;
  QStackedWidget* FPages;
  QLabel* FTitle;
  QListWidget* FDriveList = nullptr;
  QRadioButton* FFast = nullptr;
  QRadioButton* FFull = nullptr;
  QRadioButton* FDeep = nullptr;
  QRadioButton* FLost = nullptr;
  QTreeWidget* FTypes = nullptr;
  QCheckBox* FShowOnStartup;
  QPushButton* FBack;
  QPushButton* FNext;
};

}  // namespace brenlow::desktop
