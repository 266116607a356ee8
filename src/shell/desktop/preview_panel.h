// SPDX-License-Identifier: GPL-3.0-or-later
// The right panel with the details of the entry in focus.
#pragma once

#include <QWidget>

#include "shell/snapshots.h"

class QFormLayout;
class QLabel;

namespace brenlow {
class TLanguage;
}

namespace brenlow::desktop {

class TfrPreview final : public QWidget {
 public:
  TfrPreview(const TLanguage& texts, QWidget* parent);
  void Show(const TProperties& properties);
  void Clear();
  void ChangeLanguage();

 private:
  const TLanguage& FTexts;
  QLabel* FIcon;
  QLabel* FName;
  QFormLayout* FLines;
  TProperties FShown;
};

/// Lines of a property sheet: labels and values that can be selected and copied.
void FillProperties(QFormLayout& layout, const TLanguage& texts, const std::vector<TProperty>& lines);

}  // namespace brenlow::desktop
