// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/file_list.h"

#include <QAction>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QPointer>
#include <QStackedWidget>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>

#include "core/engine.h"
#include "core/language.h"
#include "core/text.h"
#include "shell/controller.h"
#include "shell/desktop/file_model.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"
#include "table/files.h"

namespace brenlow::desktop {
TfrFileList::TfrFileList(TShellController& controller, const TLanguage& texts, TSettings& settings, QWidget* parent)
    : QWidget(parent),
      FController(controller),
      FTexts(texts),
      FSettings(settings),
      FModel(new TFileModel(controller, texts, this)),
      FStack(new QStackedWidget(this)),
      FTable(new TFileTable(this)),
      FGrid(new TFileGrid(this)),
      FEmpty(new QWidget(this)),
      FPlace(std::make_unique<TPlaceSnapshot>()) {
  setObjectName(QStringLiteral("TfrFileList"));
  FTable->setModel(FModel);
  FGrid->setModel(FModel);
  FGrid->setSelectionModel(FTable->selectionModel());
  FStack->addWidget(FTable);
  FStack->addWidget(FGrid);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(FStack);

  MakeEmptyPage();
  Connect(*FTable);
  Connect(*FGrid);
  ConnectRows();
  FSelectionTimer.setSingleShot(true);
  FSelectionTimer.setInterval(0);
  connect(&FSelectionTimer, &QTimer::timeout, this, &TfrFileList::SendSelection);
  SetViewStyle(ViewStyle());
  Outdate();
}

/// The page shown when there are no rows.
void TfrFileList::MakeEmptyPage() {
  FEmpty->setObjectName(QStringLiteral("pnEmpty"));
  FEmpty->setAutoFillBackground(true);
  FEmpty->setBackgroundRole(QPalette::Base);
  FEmptyTitle = new QLabel(FEmpty);
  FEmptyText = new QLabel(FEmpty);
  QFont font = FEmptyTitle->font();
  font.setPointSizeF(font.pointSizeF() * 1.4);
  FEmptyTitle->setFont(font);
  for (QLabel* label : {FEmptyTitle, FEmptyText}) {
    label->setAlignment(Qt::AlignHCenter);
    label->setWordWrap(true);
  }
  auto* column = new QVBoxLayout(FEmpty);
  column->addStretch(2);
  column->addWidget(FEmptyTitle);
  column->addWidget(FEmptyText);
  FEmptyButtons = new QVBoxLayout;
  FEmptyButtons->setSpacing(6);
  column->addSpacing(12);
  column->addLayout(FEmptyButtons);
  column->addStretch(3);
  FStack->addWidget(FEmpty);
}

void TfrFileList::ConnectRows() {
  connect(FTable->horizontalHeader(), &QHeaderView::sectionClicked, this, &TfrFileList::SortBy);
  connect(FTable->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] { FSelectionTimer.start(); });
  connect(FTable->selectionModel(), &QItemSelectionModel::currentRowChanged, this, &TfrFileList::CurrentChanged);
  connect(FModel, &QAbstractItemModel::modelReset, this, [this] { FSelectionTimer.start(); });
  connect(FModel, &QAbstractItemModel::dataChanged, this, [this](const QModelIndex& from, const QModelIndex& to) {
    const int row = FTable->currentIndex().row();
    if (row >= from.row() && row <= to.row()) Q_EMIT CurrentChanged();
  });
  connect(FModel, &TFileModel::CheckToggled, this, [this](int number, bool ticked) {
    // A tick on one of several selected rows is meant for all of them.
    const QModelIndex index = FModel->index(FModel->RowOf(number), 0);
    const bool all = FTable->selectionModel()->isSelected(index);
    FController.Ask([=, generation = FModel->Generation()](TCommands& commands) {
      if (generation != commands.View().Generation()) return;
      const TIntegerDynArray& selected = commands.View().Selected();
      const bool several = all && std::find(selected.begin(), selected.end(), number) != selected.end();
      commands.Recoveries().PutOnList(several ? selected : TIntegerDynArray{number}, ticked);
    });
  });
}

template <typename TView>
void TfrFileList::Connect(TView& view) {
  connect(&view, &QWidget::customContextMenuRequested, this,
          [this, &view](const QPoint& at) { Q_EMIT ContextMenuWanted(view.viewport()->mapToGlobal(at)); });
  view.OnLookedFor = [this](const QString& start) { LookFor(start); };
  view.OnActivated = [this](const QModelIndex& index) {
    if (const TFileRow* row = FModel->RowAt(index.row()); row != nullptr) Q_EMIT Activated(*row);
  };
}

QAbstractItemView* TfrFileList::View() const {
  if (ViewStyle() == TViewStyle::Details) return FTable;
  return FGrid;
}

const TFileRow* TfrFileList::CurrentRow() const {
  const QModelIndex current = FTable->currentIndex();
  return current.isValid() ? FModel->RowAt(current.row()) : nullptr;
}

// ---- what is shown --------------------------------------------------------------------------

void TfrFileList::Show(const TPlaceSnapshot& place) {
  const bool samePlace = place.Place == FPlace->Place;
  const bool sameOrder = place.Sort == FPlace->Sort;
  const bool sameColumns = FHasColumns && FColumnsAreDrives == (place.Category == TViewCategory::vcDrives);
  if (!sameColumns) KeepSettings();
  *FPlace = place;
  FModel->Show(place.Listing, place.Category, samePlace, place.Head);
  FSelectionTimer.start();
  if (!sameColumns) {
    ApplyColumns();
    SetViewStyle(ViewStyle());
  }
  ShowSortIndicator();
  if (!samePlace || (!sameOrder && !FTable->currentIndex().isValid())) {
    FTable->scrollToTop();
    FGrid->scrollToTop();
  } else if (!sameOrder) {
    View()->scrollTo(FTable->currentIndex());
  }
  UpdateEmpty();
}

void TfrFileList::SetDrive(const TDriveSnapshot* drive) {
  FDrive = drive == nullptr ? nullptr : std::make_unique<TDriveSnapshot>(*drive);
  UpdateEmpty();
}

void TfrFileList::SetRunning(TProgressSnapshot::TKind running) {
  if (running == FRunning) return;
  FRunning = running;
  UpdateEmpty();
}

void TfrFileList::SetAction(TAction action, QAction* button) { FActions.emplace_back(action, button); }

void TfrFileList::Outdate() {
  FModel->SetEncryptedInColor(FSettings.Main.EncryptedInColor);
  FModel->Outdate();
}

void TfrFileList::ChangeLanguage() {
  FModel->LanguageChanged();
  UpdateEmpty();
}

/// An empty list says why it is empty and what to do next.
void TfrFileList::UpdateEmpty() {
  const auto text = [this](TText id) { return Text(FTexts, id); };
  if (FModel->rowCount() > 0) {
    FStack->setCurrentWidget(View());
    return;
  }
  const bool scans = FRunning != TProgressSnapshot::None;
  if (FPlace->Category == TViewCategory::vcSearchResults) {
    ShowEmpty(text(TText::EmptySearch), text(TText::EmptySearchHint), {TAction::actFindFile});
  } else if (FPlace->Category == TViewCategory::vcDrives) {
    ShowEmpty(text(TText::EmptyNoDrives), text(TText::EmptyNoDrivesHint), {TAction::actMountImage});
  } else if (scans) {
    ShowEmpty(text(TText::EmptyScanning), text(TText::EmptyScanningHint), {TAction::actStopAnalyse});
  } else if (FPlace->Hidden > 0) {
    ShowEmpty(CountText(FTexts, TText::EmptyFilteredOne, TText::EmptyFilteredMany, FPlace->Hidden),
              text(TText::EmptyFilteredHint),
              {TAction::actFilterAllFiles, TAction::actFilterExisting, TAction::actFilterDeleted});
  } else if (FDrive != nullptr && FPlace->IsDriveRoot && !FDrive->HasResults()) {
    const QString hint =
        FDrive->CanBeAnalysed || FDrive->IsPhysical ? text(TText::EmptyDriveHint) : text(TText::EmptyUnknownDriveHint);
    ShowEmpty(
        ToQt(FDrive->Caption), hint,
        {TAction::actOpen, TAction::actMaster, TAction::actFoldersFindPartitions, TAction::actFoldersCreateImage});
  } else if (FDrive != nullptr && FPlace->IsDeepFolder && FDrive->DeepAnalysed == TAnalyseInformation::aiNone) {
    ShowEmpty(text(TText::EmptyDeep), text(TText::EmptyDeepHint), {TAction::actOpen});
  } else if (FDrive != nullptr && FPlace->IsDriveRoot) {
    ShowEmpty(text(TText::EmptyNothingFound), text(TText::EmptyNothingFoundHint),
              {TAction::actMaster, TAction::actFoldersFindPartitions});
  } else {
    ShowEmpty(text(TText::EmptyFolder), QString(), {});
  }
}

void TfrFileList::ShowEmpty(const QString& title, const QString& text, std::initializer_list<TAction> actions) {
  const QWidget* focus = focusWidget();
  const bool hadFocus = focus != nullptr && focus->hasFocus();
  QWidget* first = nullptr;
  FEmptyTitle->setText(title);
  FEmptyText->setText(text);
  while (QLayoutItem* item = FEmptyButtons->takeAt(0)) {
    if (item->widget() != nullptr) item->widget()->deleteLater();
    delete item;
  }
  for (const TAction action : actions) {
    const auto found =
        std::find_if(FActions.begin(), FActions.end(), [&](const auto& known) { return known.first == action; });
    if (found == FActions.end()) continue;
    auto* button = new QToolButton(FEmpty);
    button->setDefaultAction(found->second);
    if (action == TAction::actOpen) {
      button->setText(Text(FTexts, FPlace->IsDeepFolder ? TText::ButtonDeepAnalyse : TText::ButtonAnalyse));
    }
    button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    button->setMinimumWidth(220);
    button->setFocusPolicy(Qt::StrongFocus);
    FEmptyButtons->addWidget(button, 0, Qt::AlignHCenter);
    if (FEmptyButtons->count() == 1) first = button;
  }
  FStack->setCurrentWidget(FEmpty);
  // The keyboard focus moves from the list to what can be done now.
  if (first != nullptr && hadFocus) first->setFocus();
}

// ---- styles and columns ---------------------------------------------------------------------

int& TfrFileList::StyleSetting() const {
  return FPlace->Category == TViewCategory::vcDrives ? FSettings.FileListDisks.ViewStyle : FSettings.FileList.ViewStyle;
}

TViewStyle TfrFileList::ViewStyle() const {
  return static_cast<TViewStyle>(std::clamp(StyleSetting(), 0, ViewStyleCount - 1));
}

void TfrFileList::SetViewStyle(TViewStyle style) {
  StyleSetting() = static_cast<int>(style);
  FGrid->SetStyle(style);
  const QModelIndex current = FTable->currentIndex();
  if (FStack->currentWidget() != FEmpty) FStack->setCurrentWidget(View());
  if (current.isValid()) View()->scrollTo(current);
}

void TfrFileList::KeepSettings() {
  if (!FHasColumns) return;
  const auto keep = [this](auto& widths) {
    // The last column stretches: its width is the window's.
    for (int i = 0; i + 1 < static_cast<int>(widths.size()); ++i) {
      widths[static_cast<std::size_t>(i)] = FTable->columnWidth(i);
    }
  };
  if (FColumnsAreDrives) {
    keep(FSettings.FileListDisks.ColumnWidths);
  } else {
    keep(FSettings.FileList.ColumnWidths);
  }
}

void TfrFileList::ApplyColumns() {
  FColumnsAreDrives = FPlace->Category == TViewCategory::vcDrives;
  FHasColumns = true;
  const auto apply = [this](const auto& widths) {
    for (int i = 0; i < static_cast<int>(widths.size()); ++i) {
      FTable->setColumnWidth(i, widths[static_cast<std::size_t>(i)]);
    }
  };
  if (FColumnsAreDrives) {
    apply(FSettings.FileListDisks.ColumnWidths);
  } else {
    apply(FSettings.FileList.ColumnWidths);
  }
}

void TfrFileList::SortBy(int column) {
  FController.Ask([column](TCommands& commands) { commands.View().SortByColumn(column); });
}

void TfrFileList::ShowSortIndicator() {
  FTable->horizontalHeader()->setSortIndicatorShown(true);
  FTable->horizontalHeader()->setSortIndicator(FPlace->SortColumn,
                                               FPlace->Sort.Descending ? Qt::DescendingOrder : Qt::AscendingOrder);
}

// ---- selection ------------------------------------------------------------------------------

void TfrFileList::SendSelection() {
  FSelectionTimer.stop();
  TIntegerDynArray numbers;
  for (const QItemSelectionRange& range : FTable->selectionModel()->selection()) {
    if (range.left() != 0) continue;  // each row once, by its name
    for (int row = range.top(); row <= range.bottom(); ++row) numbers.push_back(FModel->NumberAt(row));
  }
  FController.SelectFiles(FModel->Generation(), std::move(numbers));
}

void TfrFileList::Select(std::uint64_t generation, const TIntegerDynArray& numbers) {
  if (generation != FModel->Generation() || numbers.size() != 1) return;
  const int row = FModel->RowOf(numbers.front());
  if (row < 0) return;
  FTable->selectionModel()->setCurrentIndex(FModel->index(row, 0),
                                            QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
  View()->scrollTo(FModel->index(row, 0));
  View()->setFocus();
}

void TfrFileList::SelectAll() { View()->selectAll(); }

void TfrFileList::InvertSelection() {
  if (FModel->rowCount() == 0) return;
  const QItemSelection all(FModel->index(0, 0), FModel->index(FModel->rowCount() - 1, FModel->columnCount() - 1));
  FTable->selectionModel()->select(all, QItemSelectionModel::Toggle);
}

/// The engine finds the next name with that beginning; the window only has those on screen.
void TfrFileList::LookFor(const QString& start) {
  const TListing listing = FPlace->Listing;
  const int count = FModel->rowCount();
  if (count == 0) return;
  const QModelIndex current = FTable->currentIndex();
  // Further letters of a search may match the current row; a first letter searches from the next one.
  const int from = current.isValid() ? current.row() + (start.size() > 1 ? 0 : 1) : 0;
  const TString wanted = LowerCase(FromQt(start));
  const auto look = [=](TEngine& engine, TCommands& commands) {
    if (commands.View().Generation() != listing.Generation) return -1;
    for (int i = 0; i < count; ++i) {
      const int number = (*listing.Numbers)[static_cast<std::size_t>((from + i) % count)];
      if (engine.Files().IsWrongNumber(number)) continue;
      const TStringView name = engine.Files().List[static_cast<std::size_t>(number)].FileInfo.strName;
      if (name.size() >= wanted.size() && LowerCase(name.substr(0, wanted.size())) == wanted) return number;
    }
    return -1;
  };
  FController.Fetch<int>(look, [self = QPointer<TfrFileList>(this), generation = listing.Generation](int number) {
    if (self != nullptr && number >= 0) self->Select(generation, {number});
  });
}

}  // namespace brenlow::desktop
