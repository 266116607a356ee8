// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/recovery_list_panel.h"

#include <QDragEnterEvent>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMimeData>
#include <QShortcut>
#include <QToolButton>
#include <QVBoxLayout>

#include "core/language.h"
#include "shell/controller.h"
#include "shell/desktop/file_model.h"
#include "shell/desktop/file_views.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

constexpr int ShownColumns = 3;  // name, type, size; the last one shown is where the file is from

}  // namespace

TfrRecoveryList::TfrRecoveryList(TShellController& controller, const TLanguage& texts, TSettings& settings,
                                 QAction* recover, QWidget* parent)
    : QWidget(parent),
      FController(controller),
      FTexts(texts),
      FSettings(settings),
      FTitle(new QLabel(this)),
      FHint(new QLabel(this)),
      FRecover(new QToolButton(this)),
      FRemove(new QToolButton(this)),
      FModel(new TFileModel(controller, texts, this)),
      FTable(new TFileTable(this)) {
  setObjectName(QStringLiteral("TfrRecoveryList"));
  setAcceptDrops(true);
  FTable->setObjectName(QStringLiteral("lvRecoveryList"));
  FTable->setModel(FModel);
  FTable->setDragEnabled(false);
  FTable->setContextMenuPolicy(Qt::ActionsContextMenu);
  FRecover->setDefaultAction(recover);
  FRecover->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
  FRemove->setObjectName(QStringLiteral("btnRemoveFromList"));
  FRemove->setIcon(Icon("list-remove"));
  FRemove->setAutoRaise(true);
  connect(FTable->horizontalHeader(), &QHeaderView::sectionClicked, this, &TfrRecoveryList::SortBy);
  connect(FRemove, &QToolButton::clicked, this, &TfrRecoveryList::RemoveSelected);
  auto* remove = new QShortcut(QKeySequence::Delete, FTable);
  remove->setContext(Qt::WidgetShortcut);
  connect(remove, &QShortcut::activated, this, &TfrRecoveryList::RemoveSelected);
  connect(FModel, &TFileModel::CheckToggled, this, [this](int number, bool ticked) {
    FController.Ask([number, ticked](TCommands& commands) { commands.Recoveries().PutOnList({number}, ticked); });
  });
  FHint->setWordWrap(true);
  FHint->setAlignment(Qt::AlignCenter);
  FHint->setForegroundRole(QPalette::PlaceholderText);
  auto* head = new QHBoxLayout;
  head->addWidget(FTitle, 1);
  head->addWidget(FRemove);
  head->addWidget(FRecover);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 4, 0, 0);
  layout->addLayout(head);
  layout->addWidget(FTable, 1);
  layout->addWidget(FHint, 1);
  ChangeLanguage();
  Show({});
}

void TfrRecoveryList::Show(const TListing& listing) {
  KeepSettings();
  FModel->Show(listing, TViewCategory::vcSearchResults, true);
  for (int i = 0; i < FModel->columnCount(); ++i)
    FTable->setColumnHidden(i, i >= ShownColumns && i != TFileModel::Location);
  for (int i = 0; i < ShownColumns; ++i) {
    FTable->setColumnWidth(i, FSettings.RecoveryList.ColumnWidths[static_cast<std::size_t>(i)]);
  }
  ShowSortIndicator();
  const bool empty = listing.Numbers->empty();
  FTable->setVisible(!empty);
  FHint->setVisible(empty);
  FRemove->setEnabled(!empty);
  const auto count = static_cast<std::int64_t>(listing.Numbers->size());
  FTitle->setText(Text(FTexts, TText::MenuRecoveryList) +
                  (empty ? QString() : QStringLiteral(" (%1)").arg(QLocale().toString(static_cast<qlonglong>(count)))));
}

void TfrRecoveryList::KeepSettings() {
  if (FModel->rowCount() == 0) return;
  for (int i = 0; i < ShownColumns; ++i) {
    FSettings.RecoveryList.ColumnWidths[static_cast<std::size_t>(i)] = FTable->columnWidth(i);
  }
}

/// The second click on a column turns the order round.
void TfrRecoveryList::SortBy(int column) {
  TSettings::TRecoveryList& settings = FSettings.RecoveryList;
  settings.SortRevers = column == settings.SortIndex && settings.SortRevers != 0 ? 0 : 1;
  settings.SortIndex = column;
  FController.Ask([column, descending = settings.SortRevers == 0](TCommands& commands) {
    commands.Recoveries().SortList(column, descending);
  });
}

void TfrRecoveryList::ShowSortIndicator() {
  const TSettings::TRecoveryList& settings = FSettings.RecoveryList;
  FTable->horizontalHeader()->setSortIndicatorShown(true);
  FTable->horizontalHeader()->setSortIndicator(settings.SortIndex,
                                               settings.SortRevers == 0 ? Qt::DescendingOrder : Qt::AscendingOrder);
}

void TfrRecoveryList::ChangeLanguage() {
  FHint->setText(Text(FTexts, TText::RecoveryListHint));
  FRemove->setToolTip(Text(FTexts, TText::RecoveryListRemove));
  FRemove->setAccessibleName(FRemove->toolTip());
  FModel->LanguageChanged();
}

void TfrRecoveryList::RemoveSelected() {
  TIntegerDynArray numbers;
  for (const QModelIndex& index : FTable->selectionModel()->selectedRows()) {
    numbers.push_back(FModel->NumberAt(index.row()));
  }
  FController.Ask([numbers, generation = FModel->Generation()](TCommands& commands) {
    if (generation == commands.View().Generation()) commands.Recoveries().PutOnList(numbers, false);
  });
}

void TfrRecoveryList::dragEnterEvent(QDragEnterEvent* event) {
  if (event->mimeData()->hasFormat(QLatin1String(FilesMimeType))) event->acceptProposedAction();
}

void TfrRecoveryList::dropEvent(QDropEvent* event) {
  if (!event->mimeData()->hasFormat(QLatin1String(FilesMimeType))) return;
  event->acceptProposedAction();
  FController.Execute(TAction::actAddToRecoveryList);
}

}  // namespace brenlow::desktop
