// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "shell/desktop/form.h"
#include "shell/settings.h"

class QCheckBox;

namespace brenlow::desktop {

/// Options of the program. `settings` changes when the form is accepted.
class TfSettings final : public TForm {
 public:
  TfSettings(const TLanguage& texts, const std::vector<std::string>& languages, TSettings& settings, QWidget* parent);
  void accept() override;
  /// The language that was chosen.
  std::string Language() const;

 private:
  TSettings& FSettings;
  QComboBox* FLanguage;
  std::vector<std::pair<QCheckBox*, bool*>> FSwitches;
};

}  // namespace brenlow::desktop
