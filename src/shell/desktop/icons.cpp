// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/icons.h"

#include <QApplication>
#include <QFile>
#include <QHash>
#include <QIconEngine>
#include <QPainter>
#include <QPalette>
#include <QPixmapCache>
#include <QSvgRenderer>

#include "table/file_kinds.h"

namespace brenlow::desktop {
namespace {

constexpr int Sizes[] = {16, 22, 64};  // pixels that the set draws for
constexpr int MaxPlain = 22;           // pixels of drawings that are hardly more than an outline

/// The drawing nearest to a size: the smallest one that is not smaller, or the largest.
QByteArray Drawing(const QString& name, int size) {
  QByteArray found;
  for (const int drawn : Sizes) {
    QFile file(QStringLiteral(":/icons/%1.%2.svg").arg(name).arg(drawn));
    if (!file.open(QIODevice::ReadOnly)) continue;
    found = file.readAll();
    if (drawn >= size) break;
  }
  return found;
}

/// The set names the colours by class; the values are those of a light palette.
void PutColours(QByteArray& svg, const QPalette& palette) {
  const QByteArray text = palette.color(QPalette::Active, QPalette::WindowText).name().toLatin1();
  svg.replace("#232629", text);
  svg.replace("#4d4d4d", text);
}

class TSvgEngine final : public QIconEngine {
 public:
  TSvgEngine(QString name, bool deleted) : FName(std::move(name)), FDeleted(deleted) {}

  void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State state) override {
    const qreal ratio = painter->device()->devicePixelRatioF();
    painter->drawPixmap(rect, scaledPixmap(rect.size() * ratio, mode, state, ratio));
  }
  QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
    return scaledPixmap(size, mode, state, 1);
  }
  QPixmap scaledPixmap(const QSize& size, QIcon::Mode mode, QIcon::State, qreal) override {
    const QPalette palette = QApplication::palette();
    const QString key =
        QStringLiteral("%1/%2/%3/%4/%5").arg(FName).arg(size.height()).arg(mode).arg(FDeleted).arg(palette.cacheKey());
    QPixmap pixmap;
    if (QPixmapCache::find(key, &pixmap)) return pixmap;
    pixmap = Draw(size, mode, palette);
    QPixmapCache::insert(key, pixmap);
    return pixmap;
  }
  QIconEngine* clone() const override { return new TSvgEngine(FName, FDeleted); }

 private:
  QPixmap Draw(const QSize& size, QIcon::Mode mode, const QPalette& palette) const {
    QByteArray svg = Drawing(FName, size.height());
    PutColours(svg, palette);
    QSvgRenderer renderer(svg);
    QPixmap pixmap(size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    if (mode == QIcon::Disabled) painter.setOpacity(0.35);
    if (FDeleted) painter.setOpacity(0.55);
    renderer.render(&painter, QRectF(QPointF(), size));
    if (mode == QIcon::Selected && size.height() <= MaxPlain) {
      // Whatever colours a small drawing has, on a selection it stands out like the text.
      painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
      painter.fillRect(QRect(QPoint(), size), palette.color(QPalette::Active, QPalette::HighlightedText));
      painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    }
    if (FDeleted) DrawMark(painter, size);
    return pixmap;
  }

  /// A small red cross in the corner, so that the text's colour is not the only mark.
  static void DrawMark(QPainter& painter, const QSize& size) {
    const qreal side = qMax<qreal>(6, size.height() * 0.4);
    const QRectF corner(size.width() - side, size.height() - side, side, side);
    painter.setOpacity(1);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0xDA, 0x44, 0x53));
    painter.drawEllipse(corner);
    painter.setPen(QPen(Qt::white, qMax<qreal>(1, side / 7)));
    const QRectF cross = corner.adjusted(side * 0.3, side * 0.3, -side * 0.3, -side * 0.3);
    painter.drawLine(cross.topLeft(), cross.bottomRight());
    painter.drawLine(cross.topRight(), cross.bottomLeft());
  }

  QString FName;
  bool FDeleted;
};

QIcon Made(const char* name, bool deleted) {
  static QHash<QString, QIcon> made;
  const QString key = QLatin1String(name) + (deleted ? QLatin1String("-deleted") : QLatin1String());
  QIcon& icon = made[key];
  if (icon.isNull()) icon = QIcon(new TSvgEngine(QLatin1String(name), deleted));
  return icon;
}

const char* NameOf(TEntryKind kind) {
  switch (kind) {
    case TEntryKind::Group:
      return "computer";
    case TEntryKind::PhysicalDrive:
    case TEntryKind::Volume:
    case TEntryKind::UnknownVolume:
    case TEntryKind::UnallocatedSpace:
    case TEntryKind::FoundVolume:
    case TEntryKind::VirtualVolume:
      return "drive-harddisk";
    case TEntryKind::RemovableDrive:
      return "drive-removable-media-usb";
    case TEntryKind::Image:
      return "media-optical";
    case TEntryKind::Folder:
      return "folder";
    case TEntryKind::LostAndFound:
      return "folder-temp";
    case TEntryKind::DeepAnalysis:
      return "system-search";
    case TEntryKind::RecycleBin:
      return "user-trash";
    case TEntryKind::File:
      return "unknown";
  }
  return "unknown";
}

const char* NameOfFile(TStringView name) {
  constexpr std::pair<TContentKind, const char*> kinds[] = {
      {TContentKind::Document, "x-office-document"},
      {TContentKind::Image, "image-x-generic"},
      {TContentKind::Audio, "audio-x-generic"},
      {TContentKind::Video, "video-x-generic"},
      {TContentKind::Archive, "package-x-generic"},
      {TContentKind::Database, "application-vnd.oasis.opendocument.database"}};
  // Many extensions are in several tables; the first match is what most people mean.
  for (const auto& [kind, icon] : kinds) {
    if (IsOfKind(kind, name)) return icon;
  }
  return "text-x-generic";
}

}  // namespace

QIcon Icon(const char* name) { return Made(name, false); }

QIcon IconOf(TEntryKind kind) { return Made(NameOf(kind), false); }

QIcon DeletedIconOf(TEntryKind kind) { return Made(NameOf(kind), true); }

QIcon IconOf(const TFileRow& row) {
  const char* name = row.Kind == TEntryKind::File ? NameOfFile(row.Name) : NameOf(row.Kind);
  return Made(name, row.Status != TEntryStatus::Existing);
}

}  // namespace brenlow::desktop
