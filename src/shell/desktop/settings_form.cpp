// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/settings_form.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QVBoxLayout>

#include "core/language.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {

TfSettings::TfSettings(const TLanguage& texts, const std::vector<std::string>& languages, TSettings& settings,
                       QWidget* parent)
    : TForm("TfSettings", TText::MenuSettings, texts, parent), FSettings(settings), FLanguage(new QComboBox(this)) {
  FLanguage->setObjectName(QStringLiteral("cmbLanguage"));
  for (const std::string& language : languages) FLanguage->addItem(ToQt(language));
  FLanguage->setCurrentText(ToQt(texts.Name()));
  auto* lines = new QFormLayout;
  lines->addRow(Caption(TText::SettingsLanguage), FLanguage);
  Body()->addLayout(lines);
  Body()->addSpacing(8);
  const auto add = [this](TText caption, bool& value) {
    auto* box = new QCheckBox(Caption(caption), this);
    box->setChecked(value);
    Body()->addWidget(box);
    FSwitches.emplace_back(box, &value);
  };
  add(TText::SettingsMasterOnStartup, settings.Master.ShowOnStartup);
  add(TText::SettingsEncryptedInColor, settings.Main.EncryptedInColor);
  add(TText::SettingsDontAskOnClose, settings.Main.DontAskOnClose);
  add(TText::SettingsRememberOutput, settings.Recovery.Remember);
  Body()->addStretch(1);
  AddButtons(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
  resize(420, sizeHint().height());
}

std::string TfSettings::Language() const { return FLanguage->currentText().toStdString(); }

void TfSettings::accept() {
  for (const auto& [box, value] : FSwitches) *value = box->isChecked();
  FSettings.Main.Language = Language();
  QDialog::accept();
}

}  // namespace brenlow::desktop
