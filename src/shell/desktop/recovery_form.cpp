// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/recovery_form.h"

#include <QCheckBox>
#include <QDesktopServices>
#include <QFileDialog>
#include <QFormLayout>
#include <QGridLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QRegularExpressionValidator>
#include <QStackedWidget>
#include <QToolButton>
#include <QTreeWidget>
#include <QUrl>
#include <QVBoxLayout>

#include "core/language.h"
#include "core/sizes.h"
#include "shell/desktop/ui_text.h"
#include "shell/progress_text.h"

namespace brenlow::desktop {
namespace {

constexpr int BarSteps = 1000;

QString Number(std::int64_t number) { return QLocale().toString(static_cast<qlonglong>(number)); }

}  // namespace

TRecoveryMasterForm::TRecoveryMasterForm(TShellController& controller, const TLanguage& texts, TSettings& settings,
                                         QWidget* parent)
    : TForm("TfRecoveryMaster", TText::MenuRecovery, texts, parent),
      FController(controller),
      FSettings(settings),
      FPages(new QStackedWidget(this)) {
  FPages->addWidget(MakeKindPage());
  FPages->addWidget(MakeOptionsPage());
  FPages->addWidget(MakeProgressPage());
  FPages->addWidget(MakeFinishPage());
  Body()->addWidget(FPages, 1);
  QDialogButtonBox* buttons = AddButtons(QDialogButtonBox::Cancel);
  FCancel = buttons->button(QDialogButtonBox::Cancel);
  FNext = buttons->addButton(Caption(TText::ButtonNext), QDialogButtonBox::ActionRole);
  FNext->setObjectName(QStringLiteral("btnNext"));
  FNext->setDefault(true);
  connect(FNext, &QPushButton::clicked, this, [this] { Next(); });
  resize(560, 360);
}

// ---- pages ----------------------------------------------------------------------------------

QWidget* TRecoveryMasterForm::MakeKindPage() {
  auto* page = new QWidget(this);
  page->setObjectName(QStringLiteral("TfrmCheckRecoverType"));
  auto* layout = new QVBoxLayout(page);
  FSave = new QRadioButton(Caption(TText::OutputSave), page);
  FSave->setChecked(true);
  layout->addWidget(FSave);
  FRemember = new QCheckBox(Caption(TText::OutputRemember), page);
  layout->addStretch(1);
  layout->addWidget(FRemember);
  return page;
}

QWidget* TRecoveryMasterForm::MakeOptionsPage() {
  auto* page = new QWidget(this);
  page->setObjectName(QStringLiteral("TfrmSaveOptions"));
  auto* layout = new QGridLayout(page);
  FPath = new QLineEdit(page);
  FPath->setObjectName(QStringLiteral("edtPath"));
  auto* browse = new QToolButton(page);
  browse->setText(QStringLiteral("…"));
  browse->setAccessibleName(Caption(TText::ButtonBrowse));
  auto* label = new QLabel(Caption(TText::SaveOutputFolder), page);
  label->setBuddy(FPath);
  FFolders = new QCheckBox(Caption(TText::SaveFolders), page);
  FADS = new QCheckBox(Caption(TText::SaveADS), page);
  FReplace = new QCheckBox(Caption(TText::SaveReplaceSymbols), page);
  FFolders->setObjectName(QStringLiteral("cbFolders"));
  FReplace->setObjectName(QStringLiteral("cbReplaceSymbols"));
  FSymbol = new QLineEdit(page);
  FSymbol->setMaxLength(1);
  FSymbol->setMaximumWidth(40);
  FSymbol->setValidator(
      new QRegularExpressionValidator(QRegularExpression(QStringLiteral("[^\\\\/:*?\"<>|]")), FSymbol));
  FRequired = new QLabel(page);
  FAvailable = new QLabel(page);
  FError = new QLabel(page);
  FError->setObjectName(QStringLiteral("lblError"));
  FError->setWordWrap(true);
  FError->hide();
  layout->addWidget(label, 0, 0, 1, 3);
  layout->addWidget(FPath, 1, 0, 1, 2);
  layout->addWidget(browse, 1, 2);
  layout->addWidget(FError, 2, 0, 1, 3);
  layout->addWidget(FFolders, 3, 0, 1, 3);
  layout->addWidget(FADS, 4, 0, 1, 3);
  layout->addWidget(FReplace, 5, 0);
  layout->addWidget(FSymbol, 5, 1, 1, 2, Qt::AlignLeft);
  layout->setRowStretch(6, 1);
  layout->addWidget(FRequired, 7, 0, 1, 3);
  layout->addWidget(FAvailable, 8, 0, 1, 3);
  layout->setColumnStretch(1, 1);
  connect(browse, &QToolButton::clicked, this, [this] { Browse(); });
  connect(FPath, &QLineEdit::textEdited, this, [this](const QString& path) {
    FError->hide();
    FController.RecoveryChangePath(PathFromQt(path));
    UpdateButtons();
  });
  connect(FReplace, &QCheckBox::toggled, FSymbol, &QWidget::setEnabled);
  return page;
}

QWidget* TRecoveryMasterForm::MakeProgressPage() {
  auto* page = new QWidget(this);
  page->setObjectName(QStringLiteral("TfrmSaveProgress"));
  auto* layout = new QVBoxLayout(page);
  FFile = new QLabel(page);
  FFile->setObjectName(QStringLiteral("lblRecoveryFile"));
  FFile->setTextFormat(Qt::PlainText);
  FRecovered = new QLabel(page);
  FBar = new QProgressBar(page);
  FBar->setRange(0, BarSteps);
  layout->addStretch(1);
  layout->addWidget(FFile);
  layout->addWidget(FBar);
  layout->addWidget(FRecovered);
  layout->addStretch(2);
  return page;
}

QWidget* TRecoveryMasterForm::MakeFinishPage() {
  auto* page = new QWidget(this);
  page->setObjectName(QStringLiteral("TfrmFinish"));
  auto* layout = new QVBoxLayout(page);
  FSummary = new QLabel(page);
  FSummary->setObjectName(QStringLiteral("lblSummary"));
  FSummary->setWordWrap(true);
  FSummary->setTextInteractionFlags(Qt::TextSelectableByMouse);
  FFaults = new QTreeWidget(page);
  FFaults->setObjectName(QStringLiteral("lvFaults"));
  FFaults->setRootIsDecorated(false);
  FFaults->setUniformRowHeights(true);
  FFaults->setHeaderLabels({Caption(TText::MenuSortByName), Caption(TText::FaultReason)});
  FFaults->header()->resizeSection(0, 300);
  FOpenFolder = new QPushButton(Caption(TText::ButtonOpenFolder), page);
  FOpenFolder->setAutoDefault(false);
  FAutoClose = new QCheckBox(Caption(TText::FinishAutoClose), page);
  FAutoClose->setChecked(FSettings.Master.AutoClose);
  layout->addWidget(FSummary);
  layout->addWidget(FFaults, 1);
  layout->addWidget(FOpenFolder, 0, Qt::AlignLeft);
  layout->addWidget(FAutoClose);
  connect(FOpenFolder, &QPushButton::clicked, this,
          [this] { QDesktopServices::openUrl(QUrl::fromLocalFile(FTarget)); });
  connect(FAutoClose, &QCheckBox::toggled, this, [this](bool on) { FSettings.Master.AutoClose = on; });
  return page;
}

// ---- what the engine says -------------------------------------------------------------------

void TRecoveryMasterForm::Show(const TRecoveryPage& page) {
  const bool samePage = page.Page == FPage && !page.JustOpened;
  FPage = page.Page;
  FRequired->setText(ToQt(page.SpaceRequiredText));
  FAvailable->setText(ToQt(page.SpaceAvailableText));
  FError->setText(ToQt(page.TargetError));
  FError->setVisible(!page.TargetError.empty());
  switch (page.Page) {
    case TfRecoveryMaster::OutputKind:
      FRemember->setChecked(page.Choices.Remember);
      FPages->setCurrentIndex(0);
      break;
    case TfRecoveryMaster::SaveOptions:
      if (!samePage) {
        FPath->setText(PathToQt(page.Choices.Path));
        FFolders->setChecked(page.Choices.RestoreFolders);
        FADS->setChecked(page.Choices.ADS);
        FReplace->setChecked(page.Choices.CanReplaceSymbols);
        FSymbol->setText(ToQt(page.Choices.UnknownSymbols));
        FSymbol->setEnabled(page.Choices.CanReplaceSymbols);
        FPages->setCurrentIndex(1);
        FPath->setFocus();
      }
      break;
    case TfRecoveryMaster::SaveProgress:
      FClock.start();
      FTarget = FPath->text();
      FPages->setCurrentIndex(2);
      break;
    case TfRecoveryMaster::Finish:
      ShowSummary(page.Summary);
      FPages->setCurrentIndex(3);
      break;
    default:
      break;
  }
  UpdateButtons();
  if (page.Page == TfRecoveryMaster::Finish) FNext->setFocus();
  if (page.Page == TfRecoveryMaster::Finish && FSettings.Master.AutoClose && page.Summary.IsAllWell()) {
    reject();
  }
}

void TRecoveryMasterForm::ShowProgress(const TRecoveryProgress& progress) {
  const double seconds = static_cast<double>(FClock.elapsed()) / 1000;
  if (!progress.Name.empty()) {
    FFile->setText(FFile->fontMetrics().elidedText(ToQt(progress.Name), Qt::ElideMiddle, FPages->width() - 24));
  }
  FBar->setValue(static_cast<int>(progress.Ratio * BarSteps));
  QString text =
      Caption(TText::ProgressRecoveredOf, {ToQt(SizeText(progress.Bytes)), ToQt(SizeText(progress.Total)),
                                           CountText(Texts(), TText::FilesOne, TText::FilesMany, progress.Files)});
  if (const std::string rate = RateText(progress.Bytes, seconds); !rate.empty())
    text += QStringLiteral(", ") + ToQt(rate);
  if (const double left = SecondsLeft(progress.Ratio, seconds); left >= 0) {
    text += QStringLiteral(", ") + Caption(TText::TimeLeft, {ToQt(DurationText(left))});
  }
  FRecovered->setText(text);
}

void TRecoveryMasterForm::ShowSummary(const TRecoverySummary& summary) {
  QStringList lines;
  lines << Caption(
      summary.Stopped ? TText::FinishStopped : TText::FinishDone,
      {CountText(Texts(), TText::FilesOne, TText::FilesMany, summary.Whole), ToQt(SizeText(summary.Bytes))});
  const auto add = [&](std::int64_t count, TText text) {
    if (count > 0) lines << Caption(text, {Number(count)});
  };
  add(summary.Overwritten, TText::FinishOverwritten);
  add(summary.Short, TText::FinishShort);
  add(summary.Unreadable, TText::FinishUnreadable);
  add(summary.Doubtful, TText::FinishDoubtful);
  add(summary.Failed, TText::FinishFailed);
  add(summary.Skipped, TText::FinishSkipped);
  add(summary.StreamsLeft, TText::FinishStreamsLeft);
  if (summary.TargetFull) lines << Caption(TText::FinishTargetFull);
  FSummary->setText(lines.join(QLatin1Char('\n')));
  FFaults->clear();
  for (const TFileOutcome& fault : summary.Faults) {
    QString reason;
    switch (fault.Outcome) {
      case TOutcome::Short:
        reason = Caption(TText::FaultShortOf, {ToQt(SizeText(fault.Written)), ToQt(SizeText(fault.Listed))});
        break;
      case TOutcome::Unreadable:
        reason = Caption(TText::FaultHasBadPlaces);
        break;
      case TOutcome::Doubtful:
      case TOutcome::Overwritten:
        reason = Caption(DoubtText(fault.Doubt));
        break;
      case TOutcome::Skipped:
        reason = Caption(TText::FaultNameRefused);
        break;
      default:
        reason = ToQt(SystemErrorText(Texts(), fault.SystemError));
        break;
    }
    new QTreeWidgetItem(FFaults, {PathToQt(fault.Path), reason});
  }
  FFaults->setVisible(!summary.Faults.empty());
}

// ---- what the user does ---------------------------------------------------------------------

void TRecoveryMasterForm::Browse() {
  const QString folder = QFileDialog::getExistingDirectory(this, Caption(TText::SaveOutputFolder), FPath->text());
  if (folder.isEmpty()) return;
  FPath->setText(folder);
  FController.RecoveryChangePath(PathFromQt(folder));
  UpdateButtons();
}

TRecoverySettings TRecoveryMasterForm::Choices() const {
  TRecoverySettings choices;
  choices.Remember = FRemember->isChecked();
  choices.Path = PathFromQt(FPath->text());
  choices.RestoreFolders = FFolders->isChecked();
  choices.ADS = FADS->isChecked();
  choices.CanReplaceSymbols = FReplace->isChecked();
  choices.UnknownSymbols = FromQt(FSymbol->text());
  return choices;
}

void TRecoveryMasterForm::Next() {
  if (FPage == TfRecoveryMaster::Finish) {
    reject();
    return;
  }
  FNext->setEnabled(false);
  FController.RecoveryNext(Choices());
}

void TRecoveryMasterForm::UpdateButtons() {
  const bool runs = FPage == TfRecoveryMaster::SaveProgress;
  const bool finished = FPage == TfRecoveryMaster::Finish;
  FNext->setVisible(!runs);
  FCancel->setVisible(!finished);
  FNext->setText(Caption(finished                                 ? TText::ButtonClose
                         : FPage == TfRecoveryMaster::SaveOptions ? TText::MenuRecovery
                                                                  : TText::ButtonNext));
  FCancel->setText(Caption(runs ? TText::ButtonStop : TText::ButtonCancel));
  FNext->setEnabled(FPage != TfRecoveryMaster::SaveOptions || FPath->text().startsWith(QLatin1Char('/')));
}

/// While files are written it only stops that; the summary follows.
void TRecoveryMasterForm::reject() {
  if (FPage == TfRecoveryMaster::SaveProgress) {
    FCancel->setEnabled(false);
    FController.StopRecovery();
    return;
  }
  FController.RecoveryClose();
  hide();
}

}  // namespace brenlow::desktop
