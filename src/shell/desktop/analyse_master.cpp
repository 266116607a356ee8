// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/analyse_master.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRadioButton>
#include <QStackedWidget>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <map>

#include "core/language.h"
#include "core/text.h"
#include "shell/controller.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"
#include "table/signatures.h"

namespace brenlow::desktop {

TfAnalyseMaster::TfAnalyseMaster(TShellController& controller, const TLanguage& texts, TSettings& settings,
                                 QWidget* parent)
    : TForm("TfAnalyseMaster", TText::MenuMaster, texts, parent),
      FController(controller),
      FSettings(settings),
      FPages(new QStackedWidget(this)),
      FTitle(new QLabel(this)) {
  QFont font = FTitle->font();
  font.setPointSizeF(font.pointSizeF() * 1.4);
  FTitle->setFont(font);
  Body()->addWidget(FTitle);
  FPages->addWidget(MakeDrivePage());
  FPages->addWidget(MakeTypePage());
  FPages->addWidget(MakeFilesPage());
  Body()->addWidget(FPages, 1);
  FShowOnStartup = new QCheckBox(Caption(TText::SettingsMasterOnStartup), this);
  FShowOnStartup->setChecked(settings.Master.ShowOnStartup);
  connect(FShowOnStartup, &QCheckBox::toggled, this, [this](bool on) { FSettings.Master.ShowOnStartup = on; });
  Body()->addWidget(FShowOnStartup);
  QDialogButtonBox* buttons = AddButtons(QDialogButtonBox::Cancel);
  FBack = buttons->addButton(Caption(TText::GoBack), QDialogButtonBox::ActionRole);
  FNext = buttons->addButton(Caption(TText::ButtonNext), QDialogButtonBox::ActionRole);
  FBack->setObjectName(QStringLiteral("btnBack"));
  FNext->setObjectName(QStringLiteral("btnNext"));
  FNext->setDefault(true);
  connect(FBack, &QPushButton::clicked, this, [this] { Back(); });
  connect(FNext, &QPushButton::clicked, this, [this] { Next(); });
  resize(620, 480);
  Go(ChooseDrive);
}

// ---- pages ----------------------------------------------------------------------------------

QWidget* TfAnalyseMaster::MakeDrivePage() {
  auto* page = new QWidget(this);
  auto* layout = new QVBoxLayout(page);
  layout->setContentsMargins(0, 0, 0, 0);
  FDriveList = new QListWidget(page);
  FDriveList->setObjectName(QStringLiteral("lbDrives"));
  FDriveList->setIconSize({32, 32});
  FDriveList->setSpacing(2);
  layout->addWidget(FDriveList);
  auto* mount = new QPushButton(Icon("media-mount"), Caption(TText::MasterMountImage), page);
  layout->addWidget(mount, 0, Qt::AlignLeft);
  connect(mount, &QPushButton::clicked, this, &TfAnalyseMaster::MountWanted);
  connect(FDriveList, &QListWidget::currentRowChanged, this, [this] { UpdateButtons(); });
  connect(FDriveList, &QListWidget::itemDoubleClicked, this, [this] { Next(); });
  return page;
}

QRadioButton* TfAnalyseMaster::AddChoice(QWidget* page, const char* name, TText title, TText hint) {
  auto* choice = new QRadioButton(Caption(title), page);
  choice->setObjectName(QLatin1String(name));
  QFont bold = choice->font();
  bold.setBold(true);
  choice->setFont(bold);
  auto* label = new QLabel(Caption(hint), page);
  label->setWordWrap(true);
  label->setIndent(24);
  page->layout()->addWidget(choice);
  page->layout()->addWidget(label);
  connect(choice, &QRadioButton::toggled, this, [this] { UpdateButtons(); });
  return choice;
}

QWidget* TfAnalyseMaster::MakeTypePage() {
  auto* page = new QWidget(this);
  auto* layout = new QVBoxLayout(page);
  layout->setContentsMargins(0, 0, 0, 0);
  FFast = AddChoice(page, "rbFast", TText::MasterFast, TText::MasterFastHint);
  FFull = AddChoice(page, "rbFull", TText::MasterFull, TText::MasterFullHint);
  FDeep = AddChoice(page, "rbDeep", TText::MasterDeep, TText::MasterDeepHint);
  FLost = AddChoice(page, "rbLost", TText::MasterLost, TText::MasterLostHint);
  FFast->setChecked(true);
  layout->addStretch(1);
  return page;
}

QWidget* TfAnalyseMaster::MakeFilesPage() {
  auto* page = new QWidget(this);
  auto* layout = new QVBoxLayout(page);
  layout->setContentsMargins(0, 0, 0, 0);
  auto* search = new QLineEdit(page);
  search->setPlaceholderText(Caption(TText::MasterSearchTypes));
  search->setClearButtonEnabled(true);
  layout->addWidget(search);
  FTypes = new QTreeWidget(page);
  FTypes->setObjectName(QStringLiteral("tvTypes"));
  FTypes->setHeaderHidden(true);
  layout->addWidget(FTypes);
  auto* row = new QHBoxLayout;
  auto* all = new QPushButton(Caption(TText::MenuSelectAll), page);
  auto* none = new QPushButton(Caption(TText::MasterSelectNone), page);
  row->addWidget(all);
  row->addWidget(none);
  row->addStretch(1);
  layout->addLayout(row);
  const TFileSignatures signatures;
  std::map<int, QTreeWidgetItem*> groups;
  for (const TMasterFileType& type : signatures.DeepFileTypes()) {
    QTreeWidgetItem*& group = groups[type.Group];
    if (group == nullptr) {
      const int text = signatures.DeepFileTypeGroups()[static_cast<std::size_t>(type.Group)];
      group = new QTreeWidgetItem(FTypes, {ToQt(Texts().At("MasterFileTypes", text))});
      group->setFlags(group->flags() | Qt::ItemIsUserCheckable | Qt::ItemIsAutoTristate);
    }
    auto* item = new QTreeWidgetItem(group, {ToQt(type.Caption)});
    item->setData(0, Qt::UserRole, ToQt(u"." + LowerCase(type.Ext)));
    item->setCheckState(0, Qt::Checked);
  }
  connect(search, &QLineEdit::textChanged, this, [this](const QString& text) { FilterTypes(text); });
  connect(all, &QPushButton::clicked, this, [this] { CheckAll(true); });
  connect(none, &QPushButton::clicked, this, [this] { CheckAll(false); });
  connect(FTypes, &QTreeWidget::itemChanged, this, [this] { UpdateButtons(); });
  return page;
}

void TfAnalyseMaster::FilterTypes(const QString& text) {
  for (int g = 0; g < FTypes->topLevelItemCount(); ++g) {
    QTreeWidgetItem* group = FTypes->topLevelItem(g);
    bool any = false;
    for (int i = 0; i < group->childCount(); ++i) {
      const bool fits = group->child(i)->text(0).contains(text, Qt::CaseInsensitive);
      group->child(i)->setHidden(!fits);
      any = any || fits;
    }
    group->setHidden(!any);
    group->setExpanded(any && !text.isEmpty());
  }
}

void TfAnalyseMaster::CheckAll(bool checked) {
  for (int g = 0; g < FTypes->topLevelItemCount(); ++g) {
    QTreeWidgetItem* group = FTypes->topLevelItem(g);
    for (int i = 0; i < group->childCount(); ++i) {
      if (!group->child(i)->isHidden()) group->child(i)->setCheckState(0, checked ? Qt::Checked : Qt::Unchecked);
    }
  }
}

/// Empty when every type is wanted.
std::vector<TString> TfAnalyseMaster::ChosenExtensions() const {
  std::vector<TString> chosen;
  bool all = true;
  for (int g = 0; g < FTypes->topLevelItemCount(); ++g) {
    const QTreeWidgetItem* group = FTypes->topLevelItem(g);
    for (int i = 0; i < group->childCount(); ++i) {
      const bool checked = group->child(i)->checkState(0) == Qt::Checked;
      all = all && checked;
      if (checked) chosen.push_back(FromQt(group->child(i)->data(0, Qt::UserRole).toString()));
    }
  }
  if (all) chosen.clear();
  return chosen;
}

void TfAnalyseMaster::SetDrives(const std::vector<TDriveSnapshot>& drives, int current) {
  // Another drive than before: an image was mounted from here.
  const bool grew = !FDrives.empty() && drives.size() > FDrives.size();
  const int wanted = grew || ChosenDrive() < 0 ? current : ChosenDrive();
  FDrives = drives;
  FDriveList->clear();
  for (const TDriveSnapshot& drive : drives) {
    if (drive.IsSubDrive) continue;
    QString text = ToQt(drive.Caption) + QLatin1Char('\n') + SizeOrNothing(drive.Size());
    if (!drive.FileSystem.empty()) text += QStringLiteral(", ") + ToQt(drive.FileSystem);
    text += QStringLiteral(" – ") + ToQt(drive.Device);
    auto* item = new QListWidgetItem(IconOf(drive.Kind), text, FDriveList);
    item->setData(Qt::UserRole, drive.Number);
    if (drive.Number == wanted) FDriveList->setCurrentItem(item);
  }
  UpdateButtons();
}

int TfAnalyseMaster::ChosenDrive() const {
  const QListWidgetItem* item = FDriveList->currentItem();
  return item == nullptr ? -1 : item->data(Qt::UserRole).toInt();
}

// ---- buttons --------------------------------------------------------------------------------

bool TfAnalyseMaster::NeedsFileTypes() const { return FFull->isChecked() || FDeep->isChecked(); }

void TfAnalyseMaster::Go(TPage page) {
  constexpr TText titles[] = {TText::MasterChooseDrive, TText::MasterWhatHappened, TText::MasterWhichFiles};
  FPages->setCurrentIndex(page);
  FTitle->setText(Caption(titles[page]));
  UpdateButtons();
}

void TfAnalyseMaster::UpdateButtons() {
  if (FTypes == nullptr || FPages->count() <= FileTypes) return;  // still being made
  const int page = FPages->currentIndex();
  const bool last = page == FileTypes || (page == AnalyseType && !NeedsFileTypes());
  FBack->setEnabled(page != ChooseDrive);
  FNext->setText(Caption(last ? TText::ButtonStart : TText::ButtonNext));
  bool anyType = page != FileTypes;
  for (int g = 0; g < FTypes->topLevelItemCount() && !anyType; ++g) {
    anyType = FTypes->topLevelItem(g)->checkState(0) != Qt::Unchecked;
  }
  FNext->setEnabled(ChosenDrive() >= 0 && anyType);
}

void TfAnalyseMaster::Next() {
  if (!FNext->isEnabled()) return;
  const int page = FPages->currentIndex();
  if (page == ChooseDrive) {
    const TDriveSnapshot* drive = DriveOf(FDrives, ChosenDrive());
    // Without a file system there is nothing for the fast analysis.
    const bool fast = drive != nullptr && (drive->CanBeAnalysed || drive->IsPhysical);
    FFast->setEnabled(fast);
    FFull->setEnabled(fast);
    if (!fast && (FFast->isChecked() || FFull->isChecked())) FLost->setChecked(true);
    Go(AnalyseType);
  } else if (page == AnalyseType && NeedsFileTypes()) {
    Go(FileTypes);
  } else {
    Start();
  }
}

void TfAnalyseMaster::Back() { Go(FPages->currentIndex() == FileTypes ? AnalyseType : ChooseDrive); }

void TfAnalyseMaster::Start() {
  TMasterChoice choice;
  choice.Drive = ChosenDrive();
  choice.Fast = FFast->isChecked() || FFull->isChecked();
  choice.Deep = NeedsFileTypes();
  choice.Lost = FLost->isChecked();
  if (choice.Deep) choice.Extensions = ChosenExtensions();
  FController.Do([choice](TCommands& commands) { commands.Jobs().RunMaster(choice); });
  accept();
}

}  // namespace brenlow::desktop
