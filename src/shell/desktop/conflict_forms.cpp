// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/conflict_forms.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRegularExpressionValidator>
#include <QVBoxLayout>

#include "core/language.h"
#include "shell/desktop/ui_text.h"
#include "table/files.h"

namespace brenlow::desktop {
namespace {

QLabel* PlainLabel(const QString& text, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setTextFormat(Qt::PlainText);
  label->setWordWrap(true);
  return label;
}

QRegularExpressionValidator* NoRefusedCharacters(QObject* parent) {
  return new QRegularExpressionValidator(QRegularExpression(QStringLiteral("[^\\\\/:*?\"<>|]*")), parent);
}

}  // namespace

TfRename::TfRename(const TRenameQuestion& question, const TLanguage& texts, QWidget* parent)
    : TForm("TfRename", question.IsFolder ? TText::RenameFolderTitle : TText::RenameFileTitle, texts, parent),
      FName(new QLineEdit(ToQt(question.OldName), this)),
      FReplace(new QCheckBox(Caption(TText::RenameReplace), this)),
      FSymbol(new QLineEdit(ToQt(question.UnknownSymbols), this)),
      FError(PlainLabel(QString(), this)) {
  FName->setObjectName(QStringLiteral("edtNewName"));
  FSymbol->setMaxLength(1);
  FSymbol->setMaximumWidth(40);
  FSymbol->setValidator(NoRefusedCharacters(FSymbol));
  FSymbol->setEnabled(false);
  FError->hide();
  auto* lines = new QFormLayout;
  lines->addRow(Caption(TText::RenameOldName), PlainLabel(ToQt(question.OldName), this));
  lines->addRow(Caption(TText::RenameNewName), FName);
  Body()->addLayout(lines);
  auto* replace = new QHBoxLayout;
  replace->addWidget(FReplace);
  replace->addWidget(FSymbol);
  replace->addStretch(1);
  Body()->addLayout(replace);
  Body()->addWidget(FError);
  connect(FReplace, &QCheckBox::toggled, FSymbol, &QWidget::setEnabled);
  QDialogButtonBox* buttons = AddButtons(QDialogButtonBox::NoButton);
  const auto add = [&](TText caption, TRenameAnswer::TResult result) {
    QPushButton* button = buttons->addButton(Caption(caption), QDialogButtonBox::ActionRole);
    connect(button, &QPushButton::clicked, this, [this, result] {
      if (result == TRenameAnswer::OK) {
        Rename();
        return;
      }
      FAnswer.Result = result;
      accept();
    });
    return button;
  };
  add(TText::RenameRename, TRenameAnswer::OK)->setDefault(true);
  add(TText::RenameSkip, TRenameAnswer::Skip);
  add(TText::RenameSkipAll, TRenameAnswer::SkipAll);
  resize(460, sizeHint().height());
}

/// A name that is still not right is shown with its first bad character selected.
void TfRename::Rename() {
  const TString name = FromQt(FName->text());
  const int bad = TFiles::RightName(name);
  if (bad != 0 && !FReplace->isChecked()) {
    FError->setText(Caption(TText::RenameBadSymbols, {QStringLiteral("\\ / : * ? \" < > |")}));
    FError->show();
    FName->setFocus();
    FName->setSelection(bad - 1, 1);
    return;
  }
  FAnswer.Result = TRenameAnswer::OK;
  FAnswer.NewName = name;
  FAnswer.CanReplaceSymbols = FReplace->isChecked();
  FAnswer.UnknownSymbols = FromQt(FSymbol->text().isEmpty() ? QStringLiteral("_") : FSymbol->text());
  accept();
}

TfFileExists::TfFileExists(const TFileExistsQuestion& question, const TLanguage& texts, QWidget* parent)
    : TForm("TfFileExists", TText::ExistsTitle, texts, parent) {
  auto* name = PlainLabel(ToQt(question.Name), this);
  auto* path = PlainLabel(ToQt(question.Path), this);
  name->setObjectName(QStringLiteral("lblName"));
  path->setObjectName(QStringLiteral("lblPath"));
  auto* newName = new QLineEdit(ToQt(question.Proposal), this);
  newName->setObjectName(QStringLiteral("edtNewName"));
  newName->setValidator(NoRefusedCharacters(newName));
  auto* lines = new QFormLayout;
  lines->addRow(Caption(TText::ExistsName), name);
  lines->addRow(Caption(TText::ExistsPath), path);
  lines->addRow(Caption(TText::ExistsNewName), newName);
  Body()->addLayout(lines);
  constexpr std::pair<TText, TRenameResult> choices[] = {
      {TText::ExistsReplace, TRenameResult::rrReplace}, {TText::ExistsReplaceAll, TRenameResult::rrReplaceAll},
      {TText::ExistsSkip, TRenameResult::rrSkip},       {TText::ExistsSkipAll, TRenameResult::rrSkipAll},
      {TText::ExistsRename, TRenameResult::rrRename},   {TText::ExistsRenameAll, TRenameResult::rrRenameAll}};
  auto* grid = new QGridLayout;
  int at = 0;
  for (const auto& [caption, result] : choices) {
    auto* button = new QPushButton(Caption(caption), this);
    button->setObjectName(QStringLiteral("btnExists%1").arg(at));
    button->setAutoDefault(result == TRenameResult::rrRename);
    grid->addWidget(button, at % 2, at / 2);
    ++at;
    connect(button, &QPushButton::clicked, this, [this, result = result, newName] {
      FAnswer = {result, FromQt(newName->text())};
      accept();
    });
  }
  Body()->addLayout(grid);
  resize(460, sizeHint().height());
}

TfChangeFirstCluster::TfChangeFirstCluster(const QString& fileName, const std::vector<std::int64_t>& candidates,
                                           const TLanguage& texts, QWidget* parent)
    : TForm("TfChangeFirstCluster", TText::CandidatesTitle, texts, parent) {
  Body()->addWidget(PlainLabel(Caption(TText::CandidatesQuestion, {fileName}), this));
  auto* list = new QListWidget(this);
  for (const std::int64_t cluster : candidates) {
    list->addItem(Caption(TText::PropertyFirstCluster) + QStringLiteral(" ") + QString::number(cluster));
  }
  list->setCurrentRow(0);
  Body()->addWidget(list);
  QDialogButtonBox* buttons = AddButtons(QDialogButtonBox::Ok);
  QPushButton* all = buttons->addButton(Caption(TText::CandidatesAll), QDialogButtonBox::ActionRole);
  connect(list, &QListWidget::currentRowChanged, this,
          [this](int row) { FAnswer.Chosen = static_cast<std::size_t>(qMax(row, 0)); });
  connect(all, &QPushButton::clicked, this, [this] {
    FAnswer.All = true;
    accept();
  });
}

}  // namespace brenlow::desktop
