// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/disk_manager.h"

#include <QContextMenuEvent>
#include <QHelpEvent>
#include <QPainter>
#include <QScrollBar>
#include <QToolTip>
#include <algorithm>

#include "core/language.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

constexpr int Margin = 8;
constexpr int HeadWidth = 190;  // of the box for the whole disk
constexpr int RowHeight = 84;
constexpr int LeastPart = 56;  // a small volume must be seen and hit

QColor ColourOf(const TDriveSnapshot& drive) {
  const QString system = ToQt(drive.FileSystem);
  if (drive.Kind == TEntryKind::UnallocatedSpace) return {0x9A, 0x9A, 0x9A};
  if (system.startsWith(QLatin1String("NTFS"))) return {0x3D, 0x8E, 0xD9};
  if (system.startsWith(QLatin1String("FAT"))) return {0x2E, 0x9E, 0x5B};
  if (system.isEmpty()) return {0xC2, 0x8B, 0x2C};
  return {0x8E, 0x5B, 0xC2};
}

bool IsWhole(const TDriveSnapshot& drive) { return drive.IsPhysical || drive.Kind == TEntryKind::Image; }

}  // namespace

TfrDiskManager::TfrDiskManager(const TLanguage& texts, QWidget* parent) : QAbstractScrollArea(parent), FTexts(texts) {
  setObjectName(QStringLiteral("TfrDiskManager"));
  setFocusPolicy(Qt::StrongFocus);
  setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
}

/// Volumes and gaps are drawn on their disk, and so is what was found inside others
/// where nothing else is.
void TfrDiskManager::Show(const std::vector<TDriveSnapshot>& drives) {
  FDisks.clear();
  for (const TDriveSnapshot& drive : drives) {
    if (IsWhole(drive)) FDisks.push_back({drive, {}});
  }
  for (const TDriveSnapshot& drive : drives) {
    if (IsWhole(drive) || drive.IsSubDrive) continue;
    auto disk = std::find_if(FDisks.begin(), FDisks.end(),
                             [&](const TDisk& known) { return known.Whole.Device == drive.Device; });
    if (disk == FDisks.end()) {
      FDisks.push_back({drive, {}});
    } else {
      disk->Parts.push_back(drive);
    }
  }
  for (TDisk& disk : FDisks) {
    std::stable_sort(disk.Parts.begin(), disk.Parts.end(),
                     [](const TDriveSnapshot& a, const TDriveSnapshot& b) { return a.FirstSector < b.FirstSector; });
  }
  if (Find(FCurrent) == nullptr) FCurrent = -1;
  Lay();
}

const TDriveSnapshot* TfrDiskManager::Find(int drive) const {
  for (const TDisk& disk : FDisks) {
    if (disk.Whole.Number == drive) return &disk.Whole;
    for (const TDriveSnapshot& part : disk.Parts) {
      if (part.Number == drive) return &part;
    }
  }
  return nullptr;
}

void TfrDiskManager::Lay() {
  FBoxes.clear();
  int top = Margin;
  const int width = viewport()->width() - 2 * Margin;
  for (const TDisk& disk : FDisks) {
    FBoxes.push_back({QRect(Margin, top, HeadWidth, RowHeight), disk.Whole.Number, true});
    LayParts(disk, QRect(Margin + HeadWidth + 4, top, qMax(width - HeadWidth - 4, LeastPart), RowHeight));
    top += RowHeight + Margin;
  }
  FHeight = top;
  verticalScrollBar()->setPageStep(viewport()->height());
  verticalScrollBar()->setSingleStep(RowHeight / 3);
  verticalScrollBar()->setRange(0, qMax(0, FHeight - viewport()->height()));
  viewport()->update();
}

/// Each part gets its share of the room, but never less than can be seen.
void TfrDiskManager::LayParts(const TDisk& disk, const QRect& rect) {
  if (disk.Parts.empty()) {
    FBoxes.push_back({rect, disk.Whole.Number, false});
    return;
  }
  double total = 0;
  for (const TDriveSnapshot& part : disk.Parts) total += static_cast<double>(qMax<std::int64_t>(part.Size(), 1));
  const int count = static_cast<int>(disk.Parts.size());
  const int least = qMin(LeastPart, rect.width() / count);
  const int shared = rect.width() - least * count;
  int left = rect.left();
  for (const TDriveSnapshot& part : disk.Parts) {
    const int width = least + static_cast<int>(shared * (static_cast<double>(part.Size()) / total));
    FBoxes.push_back({QRect(left, rect.top(), width - 2, rect.height()), part.Number, false});
    left += width;
  }
}

void TfrDiskManager::PaintBox(QPainter& painter, const TBox& box, const TDriveSnapshot& drive) const {
  const QPalette& colours = palette();
  const bool current = drive.Number == FCurrent;
  QRect inner = box.Rect;
  painter.setPen(colours.color(QPalette::Mid));
  if (box.IsWhole) {
    painter.setBrush(colours.color(QPalette::AlternateBase));
    painter.drawRect(inner.adjusted(0, 0, -1, -1));
    IconOf(drive.Kind).paint(&painter, QRect(inner.left() + 8, inner.top() + 8, 22, 22));
    inner.adjust(36, 6, -4, -6);
  } else {
    const bool gap = drive.Kind == TEntryKind::UnallocatedSpace;
    painter.setBrush(colours.color(QPalette::Base));
    painter.drawRect(inner.adjusted(0, 0, -1, -1));
    painter.fillRect(QRect(inner.left() + 1, inner.top() + 1, inner.width() - 2, 8), ColourOf(drive));
    if (gap) painter.fillRect(inner.adjusted(1, 9, -1, -1), QBrush(colours.color(QPalette::Mid), Qt::BDiagPattern));
    // The part in use, from the bottom of the box.
    if (drive.FreeSize >= 0 && drive.Size() > 0) {
      QColor used = ColourOf(drive);
      used.setAlpha(40);
      const double share = 1 - static_cast<double>(drive.FreeSize) / static_cast<double>(drive.Size());
      painter.fillRect(
          QRect(inner.left() + 1, inner.top() + 9, static_cast<int>((inner.width() - 2) * share), inner.height() - 10),
          used);
    }
    inner.adjust(6, 12, -4, -4);
  }
  painter.setPen(colours.color(QPalette::Text));
  const QFontMetrics metrics(font());
  int line = 0;
  const auto write = [&](const QString& text) {
    if (text.isEmpty()) return;
    painter.drawText(QRect(inner.left(), inner.top() + line++ * metrics.height(), inner.width(), metrics.height()),
                     Qt::AlignVCenter, metrics.elidedText(text, Qt::ElideRight, inner.width()));
  };
  write(ToQt(drive.Caption));
  write(SizeOrNothing(drive.Size()));
  write(box.IsWhole ? ToQt(drive.Device) : ToQt(drive.FileSystem));
  if (!box.IsWhole) write(ToQt(drive.PartitionType));
  if (!current) return;
  painter.setPen(QPen(colours.color(QPalette::Highlight), 2));
  painter.setBrush(Qt::NoBrush);
  painter.drawRect(box.Rect.adjusted(1, 1, -2, -2));
}

void TfrDiskManager::paintEvent(QPaintEvent*) {
  QPainter painter(viewport());
  if (FBoxes.empty()) {
    painter.drawText(viewport()->rect(), Qt::AlignCenter, Text(FTexts, TText::EmptyNoDrives));
    return;
  }
  painter.translate(0, -verticalScrollBar()->value());
  for (const TBox& box : FBoxes) {
    if (const TDriveSnapshot* drive = Find(box.Drive); drive != nullptr) PaintBox(painter, box, *drive);
  }
}

void TfrDiskManager::resizeEvent(QResizeEvent*) { Lay(); }

void TfrDiskManager::changeEvent(QEvent* event) {
  if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange) Lay();
  QAbstractScrollArea::changeEvent(event);
}

int TfrDiskManager::DriveAt(const QPoint& position) const {
  const QPoint at = position + QPoint(0, verticalScrollBar()->value());
  for (const TBox& box : FBoxes) {
    if (box.Rect.contains(at)) return box.Drive;
  }
  return -1;
}

void TfrDiskManager::Select(int drive) {
  if (drive < 0 || drive == FCurrent) return;
  FCurrent = drive;
  for (const TBox& box : FBoxes) {
    if (box.Drive != drive) continue;
    const int top = verticalScrollBar()->value();
    if (box.Rect.top() < top) verticalScrollBar()->setValue(box.Rect.top() - Margin);
    const int beyond = box.Rect.bottom() + Margin - top - viewport()->height();
    if (beyond > 0) verticalScrollBar()->setValue(top + beyond);
  }
  viewport()->update();
  Q_EMIT DriveSelected(drive);
}

void TfrDiskManager::mousePressEvent(QMouseEvent* event) { Select(DriveAt(event->pos())); }

void TfrDiskManager::mouseDoubleClickEvent(QMouseEvent* event) {
  if (const int drive = DriveAt(event->pos()); drive >= 0) Q_EMIT DriveActivated(drive);
}

void TfrDiskManager::keyPressEvent(QKeyEvent* event) {
  const auto current =
      std::find_if(FBoxes.begin(), FBoxes.end(), [this](const TBox& box) { return box.Drive == FCurrent; });
  const auto at = static_cast<int>(current - FBoxes.begin());
  const int count = static_cast<int>(FBoxes.size());
  const bool forward = event->key() == Qt::Key_Right || event->key() == Qt::Key_Down;
  const bool back = event->key() == Qt::Key_Left || event->key() == Qt::Key_Up;
  if ((forward || back) && count > 0) {
    const int next = at == count ? 0 : std::clamp(at + (forward ? 1 : -1), 0, count - 1);
    Select(FBoxes[static_cast<std::size_t>(next)].Drive);
  } else if ((event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) && FCurrent >= 0) {
    Q_EMIT DriveActivated(FCurrent);
  } else {
    QAbstractScrollArea::keyPressEvent(event);
  }
}

void TfrDiskManager::contextMenuEvent(QContextMenuEvent* event) {
  if (event->reason() == QContextMenuEvent::Mouse) Select(DriveAt(event->pos()));
  if (FCurrent >= 0) Q_EMIT ContextMenuWanted(event->globalPos());
}

bool TfrDiskManager::viewportEvent(QEvent* event) {
  if (event->type() != QEvent::ToolTip) return QAbstractScrollArea::viewportEvent(event);
  const auto* help = static_cast<QHelpEvent*>(event);
  const TDriveSnapshot* drive = Find(DriveAt(help->pos()));
  if (drive == nullptr) {
    QToolTip::hideText();
    return true;
  }
  QString tip = ToQt(drive->Caption) + QLatin1Char('\n') + SizeOrNothing(drive->Size());
  if (!drive->FileSystem.empty()) tip += QStringLiteral(", ") + ToQt(drive->FileSystem);
  tip += QLatin1Char('\n') + Text(FTexts, TText::PropertyFirstSector) + QStringLiteral(": ") +
         QString::number(drive->FirstSector);
  QToolTip::showText(help->globalPos(), tip, viewport());
  return true;
}

}  // namespace brenlow::desktop
