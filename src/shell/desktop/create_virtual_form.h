// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "shell/desktop/form.h"

namespace brenlow::desktop {

/// A partition over sectors of a drive that no partition table names.
class TfCreateVirtualPartition final : public TForm {
 public:
  TfCreateVirtualPartition(TShellController& controller, const TLanguage& texts,
                           const std::vector<TDriveSnapshot>& drives, int drive, QWidget* parent);
  void accept() override;

 private:
  TShellController& FController;
  QComboBox* FDrive;
  TSectorRange* FRange;
};

}  // namespace brenlow::desktop
