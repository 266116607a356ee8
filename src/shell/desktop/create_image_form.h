// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>

#include "core/device/source_guard.h"
#include "shell/desktop/form.h"
#include "shell/settings.h"

class QCheckBox;
class QRadioButton;

namespace brenlow::desktop {

/// Copies a drive, or sectors of it, into an image file. The copy itself runs in the main window's
/// status bar.
class TfCreateImage final : public TForm {
 public:
  TfCreateImage(TShellController& controller, const TLanguage& texts, TSettings& settings, const TDriveSnapshot& drive,
                QWidget* parent);
  void accept() override;

 private:
  void Browse();
  void UpdateButtons();
  bool AgreesToReplace(const QString& file);

  TShellController& FController;
  TSettings& FSettings;
  TDriveSnapshot FDrive;
  QLineEdit* FFile;
  QRadioButton* FRaw;
  QRadioButton* FCompressed;
  QCheckBox* FMap;
  TSectorRange* FRange;
  std::optional<TSourceGuard> FGuard;  // once the engine has sent it
  QDialogButtonBox* FButtons;
};

}  // namespace brenlow::desktop
