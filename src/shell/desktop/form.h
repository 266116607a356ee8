// SPDX-License-Identifier: GPL-3.0-or-later
// What the dialogs have in common.
#pragma once

#include <QDialog>
#include <QDialogButtonBox>
#include <functional>
#include <vector>

#include "shell/snapshots.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QVBoxLayout;

namespace brenlow {
class TShellController;
class TLanguage;
}  // namespace brenlow

namespace brenlow::desktop {

class TForm : public QDialog {
 public:
  /// `name`: the form's own, as "TfCreateImage".
  TForm(const char* name, TText title, const TLanguage& texts, QWidget* parent);

 protected:
  QString Caption(TText text, std::initializer_list<QString> arguments = {}) const;
  /// A box with the buttons' captions in the language; the form's "accept" and "reject" follow them.
  QDialogButtonBox* AddButtons(QDialogButtonBox::StandardButtons buttons);
  QVBoxLayout* Body() { return FBody; }
  const TLanguage& Texts() const { return FTexts; }

 private:
  const TLanguage& FTexts;
  QVBoxLayout* FBody;
};

/// Lists drives with their sizes; the data of an entry is the drive's number.
void FillDriveBox(QComboBox& box, const std::vector<TDriveSnapshot>& drives, int current);
const TDriveSnapshot* DriveOf(const std::vector<TDriveSnapshot>& drives, int number);

/// Boxes for a range of sectors of a drive. Sector numbers are larger than a spin box holds.
class TSectorRange final : public QWidget {
 public:
  TSectorRange(const TLanguage& texts, QWidget* parent);
  /// The whole of a drive.
  void SetDrive(const TDriveSnapshot& drive);
  bool IsValid() const;
  std::int64_t First() const;
  std::int64_t Count() const;
  std::function<void()> OnChanged;

 private:
  QLineEdit* FFirst;
  QLineEdit* FCount;
  QLabel* FSize;
  std::int64_t FSectors = 0;
  int FBytesPerSector = 512;
};

}  // namespace brenlow::desktop
