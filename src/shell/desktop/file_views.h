// SPDX-License-Identifier: GPL-3.0-or-later
// The two views of a file list: a table with columns, and entries side by side.
#pragma once

#include <QListView>
#include <QStyledItemDelegate>
#include <QTableView>

namespace brenlow::desktop {

class TFileModel;

/// In the order in which the settings count them.
enum class TViewStyle { LargeIcons, Icons, Details, List, Tile };
inline constexpr int ViewStyleCount = 5;

/// Typing the first letters of a name: the names of most rows are not here, so the engine looks.
class TTypeAhead {
 public:
  /// Takes a typed text; the whole of what is looked for now.
  QString Add(const QString& typed);

 private:
  QString FText;
  qint64 FLast = 0;  // milliseconds
};

class TFileTable final : public QTableView {
  Q_OBJECT
 public:
  explicit TFileTable(QWidget* parent);
  void keyboardSearch(const QString& search) override;

 Q_SIGNALS:
  void LookedFor(const QString& start);
  void Activated(const QModelIndex& index);

 protected:
  void keyPressEvent(QKeyEvent* event) override;

 private:
  TTypeAhead FTypeAhead;
};

/// Lists of millions of rows are laid out in rows of equal cells, which costs next to nothing.
class TFileGrid final : public QListView {
  Q_OBJECT
 public:
  explicit TFileGrid(QWidget* parent);
  void SetStyle(TViewStyle style);
  void keyboardSearch(const QString& search) override;

 Q_SIGNALS:
  void LookedFor(const QString& start);
  void Activated(const QModelIndex& index);

 protected:
  void keyPressEvent(QKeyEvent* event) override;

 private:
  TTypeAhead FTypeAhead;
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
