// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/form.h"

#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpressionValidator>
#include <QVBoxLayout>
#include <algorithm>

#include "core/language.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {

TForm::TForm(const char* name, TText title, const TLanguage& texts, QWidget* parent)
    : QDialog(parent), FTexts(texts), FBody(new QVBoxLayout(this)) {
  setObjectName(QLatin1String(name));
  setWindowTitle(Text(texts, title));
}

QString TForm::Caption(TText text, std::initializer_list<QString> arguments) const {
  return Text(FTexts, text, arguments);
}

QDialogButtonBox* TForm::AddButtons(QDialogButtonBox::StandardButtons buttons) {
  auto* box = new QDialogButtonBox(buttons, this);
  constexpr std::pair<QDialogButtonBox::StandardButton, TText> captions[] = {
      {QDialogButtonBox::Ok, TText::ButtonOK},
      {QDialogButtonBox::Cancel, TText::ButtonCancel},
      {QDialogButtonBox::Close, TText::ButtonClose}};
  for (const auto& [kind, caption] : captions) {
    if (QPushButton* button = box->button(kind); button != nullptr) button->setText(Text(FTexts, caption));
  }
  connect(box, &QDialogButtonBox::accepted, this, &QDialog::accept);
  connect(box, &QDialogButtonBox::rejected, this, &QDialog::reject);
  FBody->addWidget(box);
  return box;
}

void FillDriveBox(QComboBox& box, const std::vector<TDriveSnapshot>& drives, int current) {
  box.clear();
  for (const TDriveSnapshot& drive : drives) {
    QString caption = ToQt(drive.Caption);
    if (!drive.FileSystem.empty()) caption += QStringLiteral(" – ") + ToQt(drive.FileSystem);
    caption += QStringLiteral(" (") + SizeOrNothing(drive.Size()) + QLatin1Char(')');
    box.addItem(IconOf(drive.Kind), caption, drive.Number);
    if (drive.Number == current) box.setCurrentIndex(box.count() - 1);
  }
}

const TDriveSnapshot* DriveOf(const std::vector<TDriveSnapshot>& drives, int number) {
  const auto found =
      std::find_if(drives.begin(), drives.end(), [number](const TDriveSnapshot& d) { return d.Number == number; });
  return found == drives.end() ? nullptr : &*found;
}

TSectorRange::TSectorRange(const TLanguage& texts, QWidget* parent)
    : QWidget(parent), FFirst(new QLineEdit(this)), FCount(new QLineEdit(this)), FSize(new QLabel(this)) {
  FFirst->setObjectName(QStringLiteral("edtFirstSector"));
  FCount->setObjectName(QStringLiteral("edtSectorsCount"));
  auto* layout = new QFormLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addRow(Text(texts, TText::RangeFirst), FFirst);
  layout->addRow(Text(texts, TText::RangeCount), FCount);
  layout->addRow(Text(texts, TText::PropertySize), FSize);
  for (QLineEdit* edit : {FFirst, FCount}) {
    edit->setValidator(new QRegularExpressionValidator(QRegularExpression(QStringLiteral("[0-9]{1,18}")), edit));
    connect(edit, &QLineEdit::textChanged, this, [this] {
      FSize->setText(IsValid() ? SizeOrNothing(Count() * FBytesPerSector) : QStringLiteral("–"));
      if (OnChanged) OnChanged();
    });
  }
}

void TSectorRange::SetDrive(const TDriveSnapshot& drive) {
  FSectors = drive.SectorsCount;
  FBytesPerSector = drive.BytesPerSector;
  FFirst->setText(QStringLiteral("0"));
  FCount->setText(QString::number(drive.SectorsCount));
}

std::int64_t TSectorRange::First() const { return FFirst->text().toLongLong(); }
std::int64_t TSectorRange::Count() const { return FCount->text().toLongLong(); }
bool TSectorRange::IsValid() const { return Count() > 0 && First() < FSectors && Count() <= FSectors - First(); }

}  // namespace brenlow::desktop
