// SPDX-License-Identifier: GPL-3.0-or-later
// The two views of a file list: a table with columns, and entries side by side.
#pragma once

#include <QKeyEvent>
#include <QListView>
#include <QStyledItemDelegate>
#include <QTableView>
#include <functional>

namespace brenlow::desktop {

class TFileModel;

/// In the order in which the settings count them.
enum class TViewStyle { LargeIcons, Icons, Details, List, Tile };
inline constexpr int ViewStyleCount = 5;

/// Typing the first letters of a name: the names of most rows are not here, so the engine looks.
class TTypeAhead {
 public:
  /// Takes typed text; returns all that has been typed for this search.
  QString Add(const QString& typed);

 private:
  QString FText;
  qint64 FLast = 0;  // milliseconds
};

/// What both views have in common.
template <typename TView>
class TFileView : public TView {
 public:
  explicit TFileView(QWidget* parent) : TView(parent) {
    this->setSelectionMode(TView::ExtendedSelection);
    this->setEditTriggers(TView::NoEditTriggers);
    this->setDragEnabled(true);
    this->setDragDropMode(TView::DragOnly);
    this->setContextMenuPolicy(Qt::CustomContextMenu);
    QObject::connect(this, &TView::doubleClicked, this, [this](const QModelIndex& index) { Activate(index); });
  }
  std::function<void(const QString& start)> OnLookedFor;
  std::function<void(const QModelIndex&)> OnActivated;  ///< double click or Enter

  void keyboardSearch(const QString& search) override {
    if (OnLookedFor) OnLookedFor(FTypeAhead.Add(search));
  }

 protected:
  void keyPressEvent(QKeyEvent* event) override {
    const bool isEnter = event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
    if (isEnter && this->currentIndex().isValid()) {
      Activate(this->currentIndex());
    } else {
      TView::keyPressEvent(event);
    }
  }

 private:
  void Activate(const QModelIndex& index) {
    if (OnActivated) OnActivated(index);
  }
  TTypeAhead FTypeAhead;
};

class TFileTable final : public TFileView<QTableView> {
 public:
  explicit TFileTable(QWidget* parent);
};

/// Lists of millions of rows are laid out in rows of equal cells, which costs next to nothing.
class TFileGrid final : public TFileView<QListView> {
 public:
  explicit TFileGrid(QWidget* parent);
  void SetStyle(TViewStyle style);
};

/// Draws the cells of `TFileGrid`.
class TFileDelegate final : public QStyledItemDelegate {
 public:
  explicit TFileDelegate(QObject* parent) : QStyledItemDelegate(parent) {}
  void SetStyle(TViewStyle style) { FStyle = style; }
  void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
  QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
  bool editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option,
                   const QModelIndex& index) override;

 private:
  int IconSize() const;
  QRect BoxRect(const QRect& cell) const;
  void PaintTileText(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index,
                     const QRect& rect) const;

  TViewStyle FStyle = TViewStyle::Tile;
};

}  // namespace brenlow::desktop
