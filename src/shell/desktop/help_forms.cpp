// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/help_forms.h"

#include <QAction>
#include <QCommandLinkButton>
#include <QFile>
#include <QLabel>
#include <QTextBrowser>
#include <QVBoxLayout>

#include "core/language.h"
#include "shell/desktop/icons.h"

namespace brenlow::desktop {

TfAbout::TfAbout(const TLanguage& texts, QWidget* parent) : TForm("TfAbout", TText::MenuAbout, texts, parent) {
  auto* icon = new QLabel(this);
  icon->setPixmap(Icon("drive-harddisk").pixmap(64));
  icon->setAlignment(Qt::AlignHCenter);
  auto* text =
      new QLabel(QStringLiteral("<h3>Brenlow Partition Recovery " BRENLOW_VERSION "</h3>") +
                     Caption(TText::AboutText).toHtmlEscaped().replace(QLatin1Char('\n'), QStringLiteral("<br>")),
                 this);
  text->setTextFormat(Qt::RichText);
  text->setAlignment(Qt::AlignHCenter);
  text->setWordWrap(true);
  Body()->addWidget(icon);
  Body()->addWidget(text);
  AddButtons(QDialogButtonBox::Close);
  resize(420, sizeHint().height());
}

TfHelp::TfHelp(const TLanguage& texts, QWidget* parent) : TForm("TfHelp", TText::MenuHelp, texts, parent) {
  auto* browser = new QTextBrowser(this);
  browser->setSearchPaths({QStringLiteral(":/")});
  QFile guide(QStringLiteral(":/user-guide.md"));
  if (guide.open(QIODevice::ReadOnly)) browser->setMarkdown(QString::fromUtf8(guide.readAll()));
  Body()->addWidget(browser);
  AddButtons(QDialogButtonBox::Close);
  resize(820, 640);
}

TfWhereFiles::TfWhereFiles(const TLanguage& texts, const std::vector<std::pair<QAction*, TText>>& ways, QWidget* parent)
    : TForm("TfWhereFiles", TText::MenuWhere, texts, parent) {
  auto* hint = new QLabel(Caption(TText::WhereIntroduction), this);
  hint->setWordWrap(true);
  Body()->addWidget(hint);
  for (const auto& [action, text] : ways) {
    auto* way = new QCommandLinkButton(action->text().remove(QLatin1Char('&')), Caption(text), this);
    way->setIcon(action->icon());
    way->setEnabled(action->isEnabled());
    Body()->addWidget(way);
    connect(way, &QCommandLinkButton::clicked, this, [this, action = action] {
      accept();
      action->trigger();
    });
  }
  AddButtons(QDialogButtonBox::Close);
  resize(520, sizeHint().height());
}

}  // namespace brenlow::desktop
