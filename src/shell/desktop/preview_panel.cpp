// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/preview_panel.h"

#include <QFormLayout>
#include <QLabel>
#include <QVBoxLayout>

#include "core/language.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

constexpr int IconSize = 64;

}  // namespace

void FillProperties(QFormLayout& layout, const TLanguage& texts, const std::vector<TProperty>& lines) {
  while (layout.rowCount() > 0) layout.removeRow(0);
  for (const TProperty& line : lines) {
    auto* label = new QLabel(Text(texts, line.Label));
    label->setForegroundRole(QPalette::PlaceholderText);
    auto* value = new QLabel(ToQt(line.Value));
    value->setTextFormat(Qt::PlainText);
    value->setWordWrap(true);
    value->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    layout.addRow(label, value);
  }
}

TfrPreview::TfrPreview(const TLanguage& texts, QWidget* parent)
    : QWidget(parent), FTexts(texts), FIcon(new QLabel(this)), FName(new QLabel(this)) {
  setObjectName(QStringLiteral("TfrPreview"));
  FName->setObjectName(QStringLiteral("lblPreviewName"));
  FIcon->setAlignment(Qt::AlignHCenter);
  FName->setAlignment(Qt::AlignHCenter);
  FName->setWordWrap(true);
  FName->setTextFormat(Qt::PlainText);
  FName->setTextInteractionFlags(Qt::TextSelectableByMouse);
  QFont bold = FName->font();
  bold.setBold(true);
  FName->setFont(bold);
  auto* layout = new QVBoxLayout(this);
  layout->addSpacing(8);
  layout->addWidget(FIcon);
  layout->addWidget(FName);
  layout->addSpacing(8);
  FLines = new QFormLayout;
  FLines->setRowWrapPolicy(QFormLayout::WrapLongRows);
  layout->addLayout(FLines);
  layout->addStretch(1);
  Clear();
}

void TfrPreview::Show(const TProperties& properties) {
  FShown = properties;
  FIcon->setPixmap(IconOf(properties.Row).pixmap(QSize(IconSize, IconSize), devicePixelRatioF()));
  // Long names without blanks have to break somewhere.
  QString name = ToQt(properties.Row.Name);
  for (qsizetype i = 24; i < name.size(); i += 25) name.insert(i, QChar(0x200B));
  FName->setText(name);
  FillProperties(*FLines, FTexts, properties.General);
}

void TfrPreview::Clear() {
  FShown = TProperties();
  FIcon->clear();
  FName->setText(Text(FTexts, TText::PreviewNothing));
  FillProperties(*FLines, FTexts, {});
}

void TfrPreview::ChangeLanguage() {
  if (FShown.Row.Number < 0) Clear();
}

}  // namespace brenlow::desktop
