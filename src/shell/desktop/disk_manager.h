// SPDX-License-Identifier: GPL-3.0-or-later
// A map of disks and their volumes, drawn to scale.
#pragma once

#include <QAbstractScrollArea>
#include <vector>

#include "shell/snapshots.h"

namespace brenlow {
class TLanguage;
}

namespace brenlow::desktop {

class TfrDiskManager final : public QAbstractScrollArea {
  Q_OBJECT
 public:
  TfrDiskManager(const TLanguage& texts, QWidget* parent);
  void Show(const std::vector<TDriveSnapshot>& drives);
  int CurrentDrive() const { return FCurrent; }

 Q_SIGNALS:
  void DriveSelected(int drive);
  void DriveActivated(int drive);
  void ContextMenuWanted(const QPoint& global);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;
  void changeEvent(QEvent* event) override;
  bool viewportEvent(QEvent* event) override;

 private:
  /// One source with its volumes and gaps.
  struct TDisk {
    TDriveSnapshot Whole;
    std::vector<TDriveSnapshot> Parts;  // by place
  };
  struct TBox {
    QRect Rect;  // in the whole map, not scrolled
    int Drive;
    bool IsWhole;
  };
  void Lay();
  void LayParts(const TDisk& disk, const QRect& rect);
  const TDriveSnapshot* Find(int drive) const;
  int DriveAt(const QPoint& position) const;
  void Select(int drive);
  void PaintBox(QPainter& painter, const TBox& box, const TDriveSnapshot& drive) const;

  const TLanguage& FTexts;
  std::vector<TDisk> FDisks;
  std::vector<TBox> FBoxes;  // in reading order
  int FCurrent = -1;
  int FHeight = 0;
};

}  // namespace brenlow::desktop
