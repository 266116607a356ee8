// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/find_partitions_form.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QHeaderView>
#include <QLabel>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QStackedWidget>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "core/drives.h"
#include "core/families.h"
#include "core/language.h"
#include "shell/controller.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"
#include "shell/entries.h"

namespace brenlow::desktop {
namespace {

/// A search looks for the first families of the table unless told otherwise.
bool IsCheckedAtFirst(const TFamily& family) { return &family - Families().data() < 3; }

}  // namespace

TfFindPartitions::TfFindPartitions(TShellController& controller, const TLanguage& texts,
                                   const std::vector<TDriveSnapshot>& drives, int drive, QWidget* parent)
    : TForm("TfFindPartitions", TText::FindPartitionsTitle, texts, parent),
      FController(controller),
      FDrives(drives),
      FPages(new QStackedWidget(this)) {
  FPages->addWidget(MakeOptions(drive));
  FPages->addWidget(MakeResults());
  Body()->addWidget(FPages);
  QDialogButtonBox* buttons = AddButtons(QDialogButtonBox::Close);
  FStart = buttons->addButton(Caption(TText::ButtonSearch), QDialogButtonBox::ActionRole);
  FStart->setObjectName(QStringLiteral("btnSearch"));
  FStart->setDefault(true);
  FOpen = buttons->addButton(Caption(TText::MenuOpen), QDialogButtonBox::ActionRole);
  FOpen->hide();
  connect(FStart, &QPushButton::clicked, this, [this] { Search(); });
  connect(FOpen, &QPushButton::clicked, this, [this] { Open(); });
  resize(560, 420);
}

QWidget* TfFindPartitions::MakeOptions(int drive) {
  auto* page = new QWidget(this);
  page->setObjectName(QStringLiteral("frmFindPartitionsOptions"));
  auto* layout = new QVBoxLayout(page);
  layout->setContentsMargins(0, 0, 0, 0);
  FDrive = new QComboBox(page);
  FDrive->setObjectName(QStringLiteral("cmbDrive"));
  FillDriveBox(*FDrive, FDrives, drive);
  auto* lines = new QFormLayout;
  lines->addRow(Caption(TText::FormDrive), FDrive);
  layout->addLayout(lines);

  auto* quick = new QRadioButton(Caption(TText::FindPartitionsQuick), page);
  FThorough = new QRadioButton(Caption(TText::FindPartitionsThorough), page);
  FThorough->setObjectName(QStringLiteral("rbThorough"));
  quick->setChecked(true);
  layout->addWidget(quick);
  layout->addWidget(FThorough);

  auto* systems = new QGroupBox(Caption(TText::FindPartitionsSystems), page);
  auto* grid = new QGridLayout(systems);
  for (const TFamily& family : Families()) {
    if (!ServedFamilies().Has(family.Bit)) continue;
    const auto caption = static_cast<int>(family.Caption.size());
    auto* check = new QCheckBox(QLatin1String(family.Caption.data(), caption), systems);
    check->setChecked(IsCheckedAtFirst(family));
    const int at = static_cast<int>(FSystems.size());
    grid->addWidget(check, at / 4, at % 4);
    FSystems.emplace_back(check, family.Bit);
  }
  layout->addWidget(systems);

  auto* size = new QGroupBox(Caption(TText::FindPartitionsSize), page);
  auto* sizeLayout = new QVBoxLayout(size);
  FRange = new TSectorRange(Texts(), size);
  sizeLayout->addWidget(FRange);
  layout->addWidget(size);
  layout->addStretch(1);
  FRange->OnChanged = [this] {
    if (FStart != nullptr) FStart->setEnabled(FRange->IsValid());
  };
  connect(FThorough, &QRadioButton::toggled, size, &QWidget::setDisabled);  // it takes whole drives
  const auto show = [this] {
    if (const TDriveSnapshot* chosen = DriveOf(FDrives, FDrive->currentData().toInt()); chosen != nullptr) {
      FRange->SetDrive(*chosen);
    }
  };
  connect(FDrive, &QComboBox::currentIndexChanged, this, show);
  show();
  return page;
}

QWidget* TfFindPartitions::MakeResults() {
  auto* page = new QWidget(this);
  page->setObjectName(QStringLiteral("frmFindPartitionsResults"));
  auto* layout = new QVBoxLayout(page);
  layout->setContentsMargins(0, 0, 0, 0);
  FFound = new QTreeWidget(page);
  FFound->setObjectName(QStringLiteral("lvFound"));
  FFound->setRootIsDecorated(false);
  FFound->setUniformRowHeights(true);
  FFound->setHeaderLabels({Caption(TText::MenuSortByName), Caption(TText::HeadSystem), Caption(TText::MenuSortBySize),
                           Caption(TText::PropertyFirstSector)});
  FFound->header()->resizeSection(0, 220);
  FBar = new QProgressBar(page);
  FBar->setRange(0, 1000);
  layout->addWidget(FFound);
  layout->addWidget(FBar);
  connect(FFound, &QTreeWidget::itemDoubleClicked, this, [this] { Open(); });
  connect(FFound, &QTreeWidget::currentItemChanged, this,
          [this](QTreeWidgetItem* item) { FOpen->setEnabled(item != nullptr && !FRunning); });
  return page;
}

void TfFindPartitions::Search() {
  const int drive = FDrive->currentData().toInt();
  TPartRecSystems chosen;
  for (const auto& [box, system] : FSystems) {
    if (box->isChecked()) chosen.Add(system);
  }
  FPages->setCurrentIndex(1);
  FStart->hide();
  FOpen->show();
  FOpen->setEnabled(false);
  FRunning = true;
  const QPointer<TfFindPartitions> self(this);
  if (FThorough->isChecked()) {
    // With all boxes clear every system counts.
    if (chosen.Empty()) chosen = ServedFamilies();
    FController.Do([&controller = FController, drive, chosen, self](TCommands& commands) {
      commands.Jobs().ScanForPartitions(drive, chosen);
      controller.ForDrives(
          [self](const std::vector<TDriveSnapshot>& found) {
            if (self == nullptr) return;
            for (const TDriveSnapshot& volume : found) self->AddFound(volume);
            self->Finished();
          },
          drive);
    });
    return;
  }
  FController.Do([&controller = FController, drive, first = FRange->First(), count = FRange->Count(),
                  systems = SystemsOf(chosen), self](TCommands& commands) {
    controller.WatchFound([self](const TDriveSnapshot& volume) {
      if (self != nullptr) self->AddFound(volume);
    });
    commands.Jobs().FindPartitions(drive, first, count, systems);
    controller.WatchFound({});
    controller.Post([self] {
      if (self != nullptr) self->Finished();
    });
  });
}

void TfFindPartitions::AddFound(const TDriveSnapshot& drive) {
  for (int i = 0; i < FFound->topLevelItemCount(); ++i) {
    if (FFound->topLevelItem(i)->data(0, Qt::UserRole).toInt() == drive.Number) return;
  }
  auto* item = new QTreeWidgetItem(FFound, {ToQt(drive.Caption), ToQt(drive.FileSystem), SizeOrNothing(drive.Size()),
                                            QString::number(drive.FirstSector)});
  item->setIcon(0, IconOf(drive.Kind));
  item->setData(0, Qt::UserRole, drive.Number);
}

void TfFindPartitions::Finished() {
  FRunning = false;
  FBar->setValue(FBar->maximum());
  if (FFound->topLevelItemCount() == 0) {
    new QTreeWidgetItem(FFound, {Caption(TText::FindPartitionsNothing)});
    FFound->topLevelItem(0)->setFlags(Qt::NoItemFlags);
    FFound->setFirstColumnSpanned(0, {}, true);
    return;
  }
  FFound->setCurrentItem(FFound->topLevelItem(0));
  FFound->setFocus();
  FOpen->setEnabled(true);
  FOpen->setDefault(true);
}

void TfFindPartitions::SetProgress(const TProgressSnapshot& progress) {
  if (FRunning && progress.Kind == TProgressSnapshot::SearchingPartitions) {
    FBar->setValue(static_cast<int>(progress.Position * FBar->maximum()));
  }
}

void TfFindPartitions::Open() {
  const QTreeWidgetItem* item = FFound->currentItem();
  if (item == nullptr || FRunning) return;
  FController.OpenDrive(item->data(0, Qt::UserRole).toInt());
  QDialog::accept();
}

/// What was found up to now stays.
void TfFindPartitions::reject() {
  if (FRunning) FController.StopAnalyse();
  QDialog::reject();
}

}  // namespace brenlow::desktop
