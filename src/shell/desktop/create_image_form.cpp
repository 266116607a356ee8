// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/create_image_form.h"

#include <QCheckBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QToolButton>
#include <QVBoxLayout>
#include <cerrno>

#include "core/drives.h"
#include "core/language.h"
#include "core/sizes.h"
#include "core/text.h"
#include "shell/controller.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

/// The message when the copy has ended.
std::pair<TMessageKind, std::string> ResultText(const TLanguage& texts, const TImageResult& result, std::int64_t size,
                                                const std::string& map) {
  if (result.SystemError == EINVAL) return {TMessageKind::Error, texts.Utf8(TText::ImageMapWrong, {map})};
  if (result.SystemError == TSourceGuard::Refused) {
    return {TMessageKind::Error, texts.Utf8(TText::TargetOnSource, {result.Path})};
  }
  if (result.SystemError != 0) {
    return {TMessageKind::Error, texts.Utf8(TText::ErrorOf, {result.Path, SystemErrorText(texts, result.SystemError)})};
  }
  if (result.Stopped) return {TMessageKind::Warning, texts.Utf8(TText::ImageStopped, {result.Path})};
  std::string text = texts.Utf8(TText::ImageWritten, {result.Path, SizeText(size)});
  if (result.UnreadableSectors == 0) return {TMessageKind::Information, text};
  const TText count = result.UnreadableSectors == 1 ? TText::UnreadableSectorsOne : TText::UnreadableSectorsMany;
  text += " " + texts.Utf8(TText::ImageUnreadable, {texts.Utf8(count, {std::to_string(result.UnreadableSectors)})});
  return {TMessageKind::Warning, text};
}

}  // namespace

TfCreateImage::TfCreateImage(TShellController& controller, const TLanguage& texts, TSettings& settings,
                             const TDriveSnapshot& drive, QWidget* parent)
    : TForm("TfCreateImage", TText::CreateImageTitle, texts, parent),
      FController(controller),
      FSettings(settings),
      FDrive(drive),
      FFile(new QLineEdit(this)),
      FRaw(new QRadioButton(Caption(TText::CreateImageRaw), this)),
      FCompressed(new QRadioButton(Caption(TText::CreateImageCompressed), this)),
      FMap(new QCheckBox(Caption(TText::CreateImageMap), this)),
      FRange(new TSectorRange(texts, this)) {
  FFile->setObjectName(QStringLiteral("edtFile"));
  const QString folder = settings.MountImage.Create.empty()
                             ? QStandardPaths::writableLocation(QStandardPaths::HomeLocation)
                             : ToQt(settings.MountImage.Create);
  QString name = ToQt(drive.Caption);
  name.replace(QRegularExpression(QStringLiteral("[^\\w.-]+")), QStringLiteral("_"));
  FFile->setText(QDir(folder).filePath(QFileInfo(name).completeBaseName() + QStringLiteral(".dsk")));
  auto* browse = new QToolButton(this);
  browse->setText(QStringLiteral("…"));
  browse->setAccessibleName(Caption(TText::ButtonBrowse));
  connect(browse, &QToolButton::clicked, this, [this] { Browse(); });
  auto* file = new QHBoxLayout;
  file->addWidget(FFile, 1);
  file->addWidget(browse);

  auto* lines = new QFormLayout;
  lines->addRow(Caption(TText::PropertySource), new QLabel(ToQt(drive.Caption), this));
  lines->addRow(Caption(TText::CreateImageFile), file);
  lines->addRow(Caption(TText::CreateImageForm), FRaw);
  lines->addRow(QString(), FCompressed);
  lines->addRow(QString(), FMap);
  Body()->addLayout(lines);
  auto* range = new QGroupBox(Caption(TText::RangeTitle), this);
  auto* rangeLayout = new QVBoxLayout(range);
  rangeLayout->addWidget(FRange);
  Body()->addWidget(range);
  FRange->SetDrive(drive);
  FRaw->setChecked(true);
  FMap->setChecked(true);
  FMap->setToolTip(Caption(TText::CreateImageMapHint));
  FButtons = AddButtons(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
  FButtons->button(QDialogButtonBox::Ok)->setText(Caption(TText::MenuCreateImage));
  connect(FCompressed, &QRadioButton::toggled, FMap, &QWidget::setDisabled);
  connect(FFile, &QLineEdit::textChanged, this, [this] { UpdateButtons(); });
  FRange->OnChanged = [this] { UpdateButtons(); };
  FController.Fetch<TSourceGuard>(
      [number = drive.Number](TEngine& engine, TCommands&) { return engine.Drives().SourceGuard(number); },
      [self = QPointer<TfCreateImage>(this)](TSourceGuard guard) {
        if (!self) return;
        self->FGuard = std::move(guard);
        self->UpdateButtons();
      });
  UpdateButtons();
  resize(560, sizeHint().height());
}

void TfCreateImage::Browse() {
  const QString filter = Caption(TText::ImageFilterOwn) + QStringLiteral(" (*.dsk)");
  const QString file = QFileDialog::getSaveFileName(this, windowTitle(), FFile->text(), filter, nullptr,
                                                    QFileDialog::DontConfirmOverwrite);
  if (!file.isEmpty()) FFile->setText(file);
}

void TfCreateImage::UpdateButtons() {
  FButtons->button(QDialogButtonBox::Ok)->setEnabled(FGuard && !FFile->text().isEmpty() && FRange->IsValid());
}

bool TfCreateImage::AgreesToReplace(const QString& file) {
  return QMessageBox::question(this, windowTitle(), Caption(TText::ReplaceFile, {file})) == QMessageBox::Yes;
}

void TfCreateImage::accept() {
  const std::string file = ImageName(PathFromQt(QFileInfo(FFile->text()).absoluteFilePath()));
  const QString shown = PathToQt(file);
  const QString folder = QFileInfo(shown).absolutePath();
  const bool compressed = FCompressed->isChecked();
  const std::string map = compressed || !FMap->isChecked() ? std::string() : file + ".map";
  for (const std::string& path : PathsOfImage(file, map)) {
    if (!FGuard || !FGuard->Forbids(path)) continue;
    QMessageBox::warning(this, windowTitle(), Caption(TText::TargetOnSource, {PathToQt(path)}));
    return;
  }
  const bool resumes = !map.empty() && QFileInfo::exists(PathToQt(map));
  if (QFileInfo::exists(shown) && !resumes && !AgreesToReplace(shown)) return;
  FSettings.MountImage.Create = folder.toStdString();
  const std::int64_t size = FRange->Count() * FDrive.BytesPerSector;
  FController.Do([drive = FDrive.Number, first = FRange->First(), count = FRange->Count(), file, compressed, map, size,
                  &controller = FController, texts = Texts()](TCommands& commands) {
    const TImageResult result = commands.Jobs().CreateImage(drive, first, count, file, compressed, map);
    const auto [kind, text] = ResultText(texts, result, size, map);
    controller.Notify(kind, text);
  });
  QDialog::accept();
}

}  // namespace brenlow::desktop
