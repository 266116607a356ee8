// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/find_file_form.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateEdit>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpressionValidator>
#include <QVBoxLayout>

#include "core/language.h"
#include "shell/controller.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

constexpr std::int64_t KB = 1024;
constexpr std::int64_t MB = 1024 * KB;
enum TSizeType { Small, Medium, Large, SpecifySize };
enum TDateType { LastWeek, LastMonth, LastYear, SpecifyDates };

TDateTime FromQtDate(const QDate& date) { return EncodeDate(date.year(), date.month(), date.day()); }

}  // namespace

TFindOptions QuickFind(const QString& text, const TSettings& settings, int drive) {
  TFindOptions options;
  options.Text = FromQt(text);
  options.CaseSensitive = settings.Find.CaseSensitive;
  options.WholeWords = settings.Find.WholeWords;
  options.HiddenFiles = settings.Find.HiddenFiles;
  options.SystemFiles = settings.Find.SystemFiles;
  options.Drive = drive;
  return options;
}

TfFindFile::TfFindFile(TShellController& controller, const TLanguage& texts, TSettings& settings, int drive,
                       QWidget* parent)
    : TForm("TfFindFile", TText::MenuFindFile, texts, parent),
      FController(controller),
      FSettings(settings),
      FDriveNumber(drive),
      FText(new QLineEdit(ToQt(settings.Find.Text), this)),
      FCase(new QCheckBox(Caption(TText::FindCaseSensitive), this)),
      FWords(new QCheckBox(Caption(TText::FindWholeWords), this)),
      FHidden(new QCheckBox(Caption(TText::FindHidden), this)),
      FSystem(new QCheckBox(Caption(TText::FindSystem), this)),
      FThisDrive(new QCheckBox(Caption(TText::FindThisDrive), this)) {
  FText->setObjectName(QStringLiteral("edtFind"));
  FText->setPlaceholderText(Caption(TText::FindPlaceholder));
  FText->setClearButtonEnabled(true);
  FText->selectAll();
  auto* lines = new QFormLayout;
  lines->addRow(Caption(TText::FindName), FText);
  auto* flags = new QHBoxLayout;
  flags->addWidget(FCase);
  flags->addWidget(FWords);
  flags->addStretch(1);
  lines->addRow(QString(), flags);
  AddSizeLine(*lines);
  AddDateLine(*lines);
  auto* attributes = new QHBoxLayout;
  attributes->addWidget(FHidden);
  attributes->addWidget(FSystem);
  attributes->addStretch(1);
  lines->addRow(QString(), attributes);
  lines->addRow(QString(), FThisDrive);
  Body()->addLayout(lines);
  const TSettings::TFind& find = settings.Find;
  FCase->setChecked(find.CaseSensitive);
  FWords->setChecked(find.WholeWords);
  FHidden->setChecked(find.HiddenFiles);
  FSystem->setChecked(find.SystemFiles);
  FThisDrive->setChecked(drive >= 0);
  FThisDrive->setEnabled(drive >= 0);
  QDialogButtonBox* buttons = AddButtons(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
  buttons->button(QDialogButtonBox::Ok)->setText(Caption(TText::ButtonSearch));
  resize(520, sizeHint().height());
}

void TfFindFile::AddSizeLine(QFormLayout& lines) {
  const TSettings::TFind& find = FSettings.Find;
  FBySize = new QCheckBox(Caption(TText::MenuSortBySize), this);
  FBySize->setObjectName(QStringLiteral("cbBySize"));
  FSizeType = new QComboBox(this);
  FSizeType->setObjectName(QStringLiteral("cmbSizeType"));
  FSizeType->addItems({Caption(TText::FindSmall), Caption(TText::FindMedium), Caption(TText::FindLarge),
                       Caption(TText::FindSpecifySize)});
  FSizeAtLeast = new QComboBox(this);
  FSizeAtLeast->addItems({Caption(TText::FindAtLeast), Caption(TText::FindAtMost)});
  FSizeKB = new QLineEdit(QString::number(find.SizeSpecify), this);
  FSizeKB->setObjectName(QStringLiteral("edtSizeKB"));
  FSizeKB->setValidator(new QRegularExpressionValidator(QRegularExpression(QStringLiteral("[0-9]{1,9}")), FSizeKB));
  auto* row = new QHBoxLayout;
  row->addWidget(FSizeType);
  row->addWidget(FSizeAtLeast);
  row->addWidget(FSizeKB, 1);
  row->addWidget(new QLabel(QStringLiteral("KB"), this));
  lines.addRow(FBySize, row);
  const auto enable = [this] {
    const bool on = FBySize->isChecked();
    const bool specify = on && FSizeType->currentIndex() == SpecifySize;
    FSizeType->setEnabled(on);
    FSizeAtLeast->setEnabled(specify);
    FSizeKB->setEnabled(specify);
  };
  connect(FBySize, &QCheckBox::toggled, this, enable);
  connect(FSizeType, &QComboBox::currentIndexChanged, this, enable);
  FBySize->setChecked(find.BySize);
  FSizeType->setCurrentIndex(find.SizeType);
  FSizeAtLeast->setCurrentIndex(find.SizeAtLeast);
  enable();
}

void TfFindFile::AddDateLine(QFormLayout& lines) {
  const TSettings::TFind& find = FSettings.Find;
  FByDate = new QCheckBox(Caption(TText::FindDate), this);
  FByDate->setObjectName(QStringLiteral("cbByDate"));
  FDateKind = new QComboBox(this);
  FDateKind->addItems({Caption(TText::MenuSortByModified), Caption(TText::MenuSortByCreated)});
  FDateType = new QComboBox(this);
  FDateType->setObjectName(QStringLiteral("cmbDateType"));
  FDateType->addItems({Caption(TText::FindLastWeek), Caption(TText::FindLastMonth), Caption(TText::FindLastYear),
                       Caption(TText::FindSpecifyDates)});
  FFrom = new QDateEdit(QDate::currentDate().addMonths(-1), this);
  FFrom->setObjectName(QStringLiteral("edtFrom"));
  FTo = new QDateEdit(QDate::currentDate(), this);
  FTo->setObjectName(QStringLiteral("edtTo"));
  for (QDateEdit* edit : {FFrom, FTo}) edit->setCalendarPopup(true);
  auto* row = new QHBoxLayout;
  row->addWidget(FDateKind);
  row->addWidget(FDateType);
  row->addWidget(FFrom);
  row->addWidget(FTo);
  row->addStretch(1);
  lines.addRow(FByDate, row);
  const auto enable = [this] {
    const bool on = FByDate->isChecked();
    const bool specify = on && FDateType->currentIndex() == SpecifyDates;
    FDateKind->setEnabled(on);
    FDateType->setEnabled(on);
    FFrom->setEnabled(specify);
    FTo->setEnabled(specify);
  };
  connect(FByDate, &QCheckBox::toggled, this, enable);
  connect(FDateType, &QComboBox::currentIndexChanged, this, enable);
  FByDate->setChecked(find.ByDate);
  FDateKind->setCurrentIndex(find.DateCreated);
  FDateType->setCurrentIndex(find.DateType);
  enable();
}

void TfFindFile::Keep() {
  TSettings::TFind& find = FSettings.Find;
  find.Text = FText->text().toStdString();
  find.CaseSensitive = FCase->isChecked();
  find.WholeWords = FWords->isChecked();
  find.BySize = FBySize->isChecked();
  find.ByDate = FByDate->isChecked();
  find.HiddenFiles = FHidden->isChecked();
  find.SystemFiles = FSystem->isChecked();
  find.SizeType = FSizeType->currentIndex();
  find.SizeAtLeast = FSizeAtLeast->currentIndex();
  find.SizeSpecify = FSizeKB->text().toInt();
  find.DateCreated = FDateKind->currentIndex();
  find.DateType = FDateType->currentIndex();
}

TFindOptions TfFindFile::Options() const {
  const TSettings::TFind& find = FSettings.Find;
  TFindOptions options = QuickFind(FText->text(), FSettings, FThisDrive->isChecked() ? FDriveNumber : -1);
  if (find.BySize) {
    const std::int64_t size = find.SizeSpecify * KB;
    if (find.SizeType == Small) options.MaxSize = 100 * KB;
    if (find.SizeType == Medium) options.MaxSize = MB;
    if (find.SizeType == Large) options.MinSize = MB;
    if (find.SizeType == SpecifySize) (find.SizeAtLeast == 0 ? options.MinSize : options.MaxSize) = size;
  }
  if (find.ByDate) {
    options.ByCreated = find.DateCreated == 1;
    const QDate today = QDate::currentDate();
    QDate from = FFrom->date();
    if (find.DateType == LastWeek) from = today.addDays(-7);
    if (find.DateType == LastMonth) from = today.addMonths(-1);
    if (find.DateType == LastYear) from = today.addYears(-1);
    options.From = FromQtDate(from);
    // The whole of the last day counts.
    if (find.DateType == SpecifyDates) options.To = FromQtDate(FTo->date().addDays(1));
  }
  return options;
}

void TfFindFile::accept() {
  Keep();
  TFindOptions options = Options();
  if (options.Empty()) {
    FText->setFocus();
    return;
  }
  FController.Ask([options](TCommands& commands) { commands.Places().Find(options); });
  QDialog::accept();
}

}  // namespace brenlow::desktop
