// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/create_virtual_form.h"

#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "core/language.h"
#include "shell/controller.h"

namespace brenlow::desktop {

TfCreateVirtualPartition::TfCreateVirtualPartition(TShellController& controller, const TLanguage& texts,
                                                   const std::vector<TDriveSnapshot>& drives, int drive,
                                                   QWidget* parent)
    : TForm("TfCreateVirtualPartition", TText::CreateVirtualTitle, texts, parent),
      FController(controller),
      FDrive(new QComboBox(this)),
      FRange(new TSectorRange(texts, this)) {
  auto* hint = new QLabel(Caption(TText::CreateVirtualHint), this);
  hint->setWordWrap(true);
  Body()->addWidget(hint);
  auto* lines = new QFormLayout;
  FDrive->setObjectName(QStringLiteral("cmbDrive"));
  lines->addRow(Caption(TText::FormDrive), FDrive);
  Body()->addLayout(lines);
  Body()->addWidget(FRange);
  QDialogButtonBox* buttons = AddButtons(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
  buttons->button(QDialogButtonBox::Ok)->setText(Caption(TText::ButtonCreate));
  FRange->OnChanged = [this, buttons] { buttons->button(QDialogButtonBox::Ok)->setEnabled(FRange->IsValid()); };
  connect(FDrive, &QComboBox::currentIndexChanged, this, [this, drives] {
    if (const TDriveSnapshot* chosen = DriveOf(drives, FDrive->currentData().toInt()); chosen != nullptr) {
      FRange->SetDrive(*chosen);
    }
  });
  FillDriveBox(*FDrive, drives, drive);
  resize(460, sizeHint().height());
}

void TfCreateVirtualPartition::accept() {
  if (!FRange->IsValid()) return;
  FController.Do([drive = FDrive->currentData().toInt(), first = FRange->First(), count = FRange->Count()](
                     TCommands& commands) { commands.Jobs().CreateVirtual(drive, first, count); });
  QDialog::accept();
}

}  // namespace brenlow::desktop
