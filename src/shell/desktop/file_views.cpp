// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/file_views.h"

#include <QApplication>
#include <QDateTime>
#include <QHeaderView>
#include <QMouseEvent>
#include <QPainter>
#include <QProxyStyle>
#include <QStyleOption>

#include "shell/desktop/file_model.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

constexpr int Margin = 6;
constexpr int BarHeight = 8;

const TFileRow* RowOf(const QModelIndex& index) {
  const auto* model = qobject_cast<const TFileModel*>(index.model());
  return model == nullptr ? nullptr : model->RowAt(index.row());
}

/// How full a volume is, as a bar.
void PaintFill(QPainter* painter, const QPalette& palette, const QRect& rect, double share) {
  painter->save();
  painter->setPen(palette.color(QPalette::Mid));
  painter->setBrush(palette.color(QPalette::Base));
  painter->drawRect(rect);
  QRect used = rect.adjusted(1, 1, 0, 0);
  used.setWidth(static_cast<int>(used.width() * share));
  painter->fillRect(used, share > 0.9 ? QColor(0xDA, 0x44, 0x53) : palette.color(QPalette::Highlight));
  painter->restore();
}

/// On dark palettes the outline of a check box hardly differs from the background.
class TBoxStyle final : public QProxyStyle {
 public:
  using QProxyStyle::QProxyStyle;
  void drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                     const QWidget* widget) const override {
    QProxyStyle::drawPrimitive(element, option, painter, widget);
    if (element != PE_IndicatorItemViewItemCheck) return;
    const bool selected = option->state.testFlag(State_Selected);
    QColor line = option->palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    line.setAlpha(110);
    painter->save();
    painter->setPen(line);
    painter->setBrush(Qt::NoBrush);
    painter->drawRect(option->rect.adjusted(0, 0, -1, -1));
    painter->restore();
  }
};

void UseBoxStyle(QWidget* view) {
  auto* style = new TBoxStyle;
  style->setParent(view);
  view->setStyle(style);
}

}  // namespace

QString TTypeAhead::Add(const QString& typed) {
  const qint64 now = QDateTime::currentMSecsSinceEpoch();
  if (now - FLast > QApplication::keyboardInputInterval()) FText.clear();
  FLast = now;
  FText += typed;
  return FText;
}

// ---- table ----------------------------------------------------------------------------------

TFileTable::TFileTable(QWidget* parent) : TFileView(parent) {
  setObjectName(QStringLiteral("lvFiles"));
  setShowGrid(false);
  setAlternatingRowColors(true);
  setSelectionBehavior(SelectRows);
  setTabKeyNavigation(false);
  setWordWrap(false);
  UseBoxStyle(this);
  verticalHeader()->hide();
  verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
  verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 8);
  horizontalHeader()->setHighlightSections(false);
  horizontalHeader()->setSectionsMovable(true);
  horizontalHeader()->setStretchLastSection(true);
  horizontalHeader()->setSectionsClickable(true);
}

// ---- grid -----------------------------------------------------------------------------------

TFileGrid::TFileGrid(QWidget* parent) : TFileView(parent) {
  setObjectName(QStringLiteral("lvGrid"));
  setUniformItemSizes(true);
  setResizeMode(Adjust);
  setWrapping(true);
  UseBoxStyle(this);
  setItemDelegate(new TFileDelegate(this));
}

void TFileGrid::SetStyle(TViewStyle style) {
  static_cast<TFileDelegate*>(itemDelegate())->SetStyle(style);
  setFlow(style == TViewStyle::List ? TopToBottom : LeftToRight);
  scheduleDelayedItemsLayout();
}

// ---- cells ----------------------------------------------------------------------------------

int TFileDelegate::IconSize() const {
  switch (FStyle) {
    case TViewStyle::LargeIcons:
      return 64;
    case TViewStyle::Icons:
    case TViewStyle::Tile:
      return 48;
    default:
      return 16;
  }
}

QSize TFileDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
  const int line = option.fontMetrics.height();
  switch (FStyle) {
    case TViewStyle::LargeIcons:
    case TViewStyle::Icons:
      return {IconSize() + 8 * Margin, IconSize() + 2 * line + 3 * Margin};
    case TViewStyle::Tile:
      return {270, qMax(IconSize(), 3 * line + BarHeight) + 2 * Margin};
    default:
      return {240, line + 8};
  }
}

QRect TFileDelegate::BoxRect(const QRect& cell) const {
  const int side = QApplication::style()->pixelMetric(QStyle::PM_IndicatorWidth);
  const int top = FStyle == TViewStyle::List ? cell.top() + (cell.height() - side) / 2 : cell.top() + Margin;
  return {cell.left() + Margin, top, side, side};
}

void TFileDelegate::paint(QPainter* painter, const QStyleOptionViewItem& given, const QModelIndex& index) const {
  QStyleOptionViewItem option = given;
  initStyleOption(&option, index);
  const QString name = option.text;
  const QIcon icon = option.icon;
  const QVariant check = index.data(Qt::CheckStateRole);
  option.text.clear();
  option.icon = {};
  option.features &= ~QStyleOptionViewItem::ViewItemFeatures(QStyleOptionViewItem::HasCheckIndicator |
                                                             QStyleOptionViewItem::HasDecoration);
  const QStyle* style = option.widget != nullptr ? option.widget->style() : QApplication::style();
  style->drawControl(QStyle::CE_ItemViewItem, &option, painter, option.widget);

  const QRect cell = option.rect;
  const int side = IconSize();
  const bool selected = (option.state & QStyle::State_Selected) != 0;
  const bool above = FStyle == TViewStyle::LargeIcons || FStyle == TViewStyle::Icons;
  const int boxRoom = check.isValid() && FStyle == TViewStyle::List ? BoxRect(cell).width() + Margin : 0;
  const QRect iconRect =
      above ? QRect(cell.left() + (cell.width() - side) / 2, cell.top() + Margin, side, side)
            : QRect(cell.left() + Margin + boxRoom, cell.top() + (cell.height() - side) / 2, side, side);
  icon.paint(painter, iconRect, Qt::AlignCenter, selected && side <= 22 ? QIcon::Selected : QIcon::Normal);
  if (check.isValid()) {
    QStyleOptionViewItem box = option;
    box.rect = BoxRect(cell);
    box.state.setFlag(QStyle::State_On, check.toInt() == Qt::Checked);
    box.state.setFlag(QStyle::State_Off, check.toInt() != Qt::Checked);
    const bool shown = FStyle == TViewStyle::List || check.toInt() == Qt::Checked ||
                       (option.state & (QStyle::State_MouseOver | QStyle::State_Selected)) != 0;
    if (shown) style->drawPrimitive(QStyle::PE_IndicatorItemViewItemCheck, &box, painter, option.widget);
  }
  painter->save();
  painter->setFont(option.font);
  const QPalette::ColorRole role = selected ? QPalette::HighlightedText : QPalette::Text;
  painter->setPen(option.palette.color(role));
  if (above) {
    const QRect text = cell.adjusted(2, side + 2 * Margin, -2, -2);
    const QString shown = option.fontMetrics.elidedText(name, Qt::ElideMiddle, text.width() * 2 - 16);
    painter->drawText(text, Qt::AlignHCenter | Qt::AlignTop | Qt::TextWrapAnywhere, shown);
  } else if (FStyle == TViewStyle::Tile) {
    PaintTileText(painter, option, index, cell.adjusted(side + 2 * Margin + 2, Margin, -Margin, -Margin));
  } else {
    const QRect text = cell.adjusted(side + 2 * Margin + boxRoom, 0, -2, 0);
    painter->drawText(text, Qt::AlignVCenter, option.fontMetrics.elidedText(name, Qt::ElideMiddle, text.width()));
  }
  painter->restore();
}

/// Name, what it is, and how large; of a volume also how full.
void TFileDelegate::PaintTileText(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index,
                                  const QRect& rect) const {
  const TFileRow* row = RowOf(index);
  const int line = option.fontMetrics.height();
  const auto draw = [&](int number, const QString& text) {
    painter->drawText(QRect(rect.left(), rect.top() + number * line, rect.width(), line), Qt::AlignVCenter,
                      option.fontMetrics.elidedText(text, Qt::ElideMiddle, rect.width()));
  };
  draw(0, index.data(Qt::DisplayRole).toString());
  if (row == nullptr) return;
  if ((option.state & QStyle::State_Selected) == 0) painter->setPen(option.palette.color(QPalette::PlaceholderText));
  QString second = ToQt(row->Type);
  if (!row->FileSystem.empty()) second += QStringLiteral(", ") + ToQt(row->FileSystem);
  draw(1, second);
  const bool knowsFree = row->FreeSize >= 0 && row->Size > 0;
  if (knowsFree) {
    const QRect bar(rect.left(), rect.top() + 2 * line + 2, rect.width(), BarHeight - 2);
    PaintFill(painter, option.palette, bar, 1 - static_cast<double>(row->FreeSize) / static_cast<double>(row->Size));
    painter->drawText(QRect(rect.left(), bar.bottom() + 1, rect.width(), line), Qt::AlignVCenter,
                      SizeOrNothing(row->FreeSize) + QStringLiteral(" / ") + SizeOrNothing(row->Size));
  } else {
    draw(2, SizeOrNothing(row->Size));
  }
}

bool TFileDelegate::editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option,
                                const QModelIndex& index) {
  const QVariant check = index.data(Qt::CheckStateRole);
  if (!check.isValid()) return false;
  if (event->type() == QEvent::KeyPress) {
    if (static_cast<QKeyEvent*>(event)->key() != Qt::Key_Space) return false;
  } else {
    const auto* mouse = static_cast<QMouseEvent*>(event);
    if (event->type() != QEvent::MouseButtonRelease || mouse->button() != Qt::LeftButton) return false;
    if (!BoxRect(option.rect).contains(mouse->position().toPoint())) return false;
  }
  return model->setData(index, check.toInt() == Qt::Checked ? Qt::Unchecked : Qt::Checked, Qt::CheckStateRole);
}

}  // namespace brenlow::desktop
