// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "shell/desktop/form.h"
#include "shell/file_search.h"
#include "shell/settings.h"

class QCheckBox;
class QDateEdit;
class QFormLayout;

namespace brenlow::desktop {

/// Finds files by name, size and date. Remembers what was asked in the settings.
class TfFindFile final : public TForm {
 public:
  /// `drive`: the drive shown, -1 for none.
  TfFindFile(TShellController& controller, const TLanguage& texts, TSettings& settings, int drive, QWidget* parent);
  void accept() override;

 private:
  void AddSizeLine(QFormLayout& lines);
  void AddDateLine(QFormLayout& lines);
  void Keep();
  TFindOptions Options() const;

  TShellController& FController;
  TSettings& FSettings;
  int FDriveNumber;
  QLineEdit* FText;
  QCheckBox* FCase;
  QCheckBox* FWords;
  QCheckBox* FBySize = nullptr;
  QComboBox* FSizeType = nullptr;
  QComboBox* FSizeAtLeast = nullptr;
  QLineEdit* FSizeKB = nullptr;
  QCheckBox* FByDate = nullptr;
  QComboBox* FDateKind = nullptr;
  QComboBox* FDateType = nullptr;
  QDateEdit* FFrom = nullptr;
  QDateEdit* FTo = nullptr;
  QCheckBox* FHidden;
  QCheckBox* FSystem;
  QCheckBox* FThisDrive;
};

/// The options of a plain search by name, with what the settings remember.
TFindOptions QuickFind(const QString& text, const TSettings& settings, int drive);

}  // namespace brenlow::desktop
