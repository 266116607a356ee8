// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/file_model.h"

#include <QApplication>
#include <QMimeData>
#include <QPalette>
#include <QPointer>
#include <algorithm>

#include "core/language.h"
#include "shell/controller.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

constexpr int PageRows = 64;            // rows of a request
constexpr std::size_t MaxPages = 16;    // of a request; older wishes are those scrolled past
constexpr std::size_t MaxYoung = 8192;  // rows kept, twice

}  // namespace

TFileModel::TFileModel(TShellController& controller, const TLanguage& texts, QObject* parent)
    : QAbstractTableModel(parent), FController(controller), FTexts(texts) {
  FFetchTimer.setSingleShot(true);
  connect(&FFetchTimer, &QTimer::timeout, this, &TFileModel::Fetch);
}

void TFileModel::Show(const TListing& listing, TViewCategory category, bool sameFolder, std::vector<TFileRow> head) {
  const bool sameNumbers = listing.Generation == FListing.Generation;
  if (!sameNumbers) {
    FYoung.clear();
    FOld.clear();
  }
  FFresh.clear();
  Take(std::move(head));
  if (sameFolder && sameNumbers && category == FCategory && listing.Numbers->size() >= FListing.Numbers->size()) {
    Grow(listing);
    return;
  }
  beginResetModel();
  FListing = listing;
  FCategory = category;
  endResetModel();
}

/// New rows are added at the end, then all move to their places, keeping the selection.
void TFileModel::Grow(const TListing& listing) {
  const int before = rowCount();
  const int after = static_cast<int>(listing.Numbers->size());
  if (after > before) {
    TIntegerDynArray grown = *FListing.Numbers;
    grown.resize(static_cast<std::size_t>(after), -1);
    beginInsertRows({}, before, after - 1);
    FListing.Numbers = std::make_shared<const TIntegerDynArray>(std::move(grown));
    endInsertRows();
  }
  Q_EMIT layoutAboutToBeChanged({}, QAbstractItemModel::VerticalSortHint);
  const QModelIndexList old = persistentIndexList();
  std::unordered_map<int, int> places;
  std::vector<int> numbers;
  for (const QModelIndex& index : old) {
    numbers.push_back(NumberAt(index.row()));
    places.emplace(numbers.back(), -1);
  }
  FListing = listing;
  std::size_t missing = places.size();
  for (int row = 0; row < after && missing > 0; ++row) {
    const auto place = places.find(NumberAt(row));
    if (place == places.end()) continue;
    place->second = row;
    --missing;
  }
  QModelIndexList moved;
  moved.reserve(old.size());
  for (qsizetype i = 0; i < old.size(); ++i) {
    const int row = places[numbers[static_cast<std::size_t>(i)]];
    moved.append(row < 0 ? QModelIndex() : index(row, old[i].column()));
  }
  changePersistentIndexList(old, moved);
  Q_EMIT layoutChanged({}, QAbstractItemModel::VerticalSortHint);
}

void TFileModel::Outdate() {
  FFresh.clear();
  if (rowCount() > 0) Q_EMIT dataChanged(index(0, 0), index(rowCount() - 1, columnCount() - 1));
}

void TFileModel::LanguageChanged() {
  Q_EMIT headerDataChanged(Qt::Horizontal, 0, columnCount() - 1);
  Outdate();
}

int TFileModel::RowOf(int number) const {
  const TIntegerDynArray& numbers = Numbers();
  const auto found = std::find(numbers.begin(), numbers.end(), number);
  return found == numbers.end() ? -1 : static_cast<int>(found - numbers.begin());
}

// ---- fetching -------------------------------------------------------------------------------

const TFileRow* TFileModel::RowAt(int row) const {
  const int number = NumberAt(row);
  auto found = FYoung.find(number);
  if (found == FYoung.end()) {
    const auto old = FOld.find(number);
    if (old != FOld.end()) {
      found = FYoung.emplace(number, std::move(old->second)).first;
      FOld.erase(old);
    }
  }
  if (found == FYoung.end() || !FFresh.contains(number)) Want(row);
  return found == FYoung.end() ? nullptr : &found->second;
}

void TFileModel::Want(int row) const {
  const int page = row / PageRows;
  const auto known = std::find(FWantedPages.begin(), FWantedPages.end(), page);
  if (known != FWantedPages.end()) return;
  FWantedPages.push_back(page);
  if (!FWaiting && !FFetchTimer.isActive()) FFetchTimer.start(0);
}

void TFileModel::Fetch() {
  if (FWaiting || FWantedPages.empty()) return;
  std::vector<int> pages = std::move(FWantedPages);
  FWantedPages.clear();
  if (pages.size() > MaxPages) pages.erase(pages.begin(), pages.end() - MaxPages);
  TIntegerDynArray numbers;
  for (const int page : pages) {
    const int end = std::min((page + 1) * PageRows, rowCount());
    for (int row = page * PageRows; row < end; ++row) numbers.push_back(NumberAt(row));
  }
  FWaiting = true;
  FController.FetchRows(FListing.Generation, std::move(numbers),
                        [self = QPointer<TFileModel>(this), pages, listing = FListing](std::vector<TFileRow> rows) {
                          if (self == nullptr) return;
                          const bool same = self->FListing.Generation == listing.Generation;
                          if (same) self->Take(std::move(rows));
                          if (same && self->FListing.Numbers == listing.Numbers) {
                            self->RowsChanged(pages);
                          } else {
                            Q_EMIT self->dataChanged(self->index(0, 0), self->index(self->rowCount() - 1, 0));
                          }
                          self->FWaiting = false;
                          self->Fetch();
                        });
}

void TFileModel::Take(std::vector<TFileRow> rows) {
  if (FYoung.size() > MaxYoung) {
    FOld = std::move(FYoung);
    FYoung.clear();
    FFresh.clear();
  }
  for (TFileRow& row : rows) {
    FFresh.insert(row.Number);
    FOld.erase(row.Number);
    FYoung[row.Number] = std::move(row);
  }
}

void TFileModel::RowsChanged(const std::vector<int>& pages) {
  for (const int page : pages) {
    const int end = std::min((page + 1) * PageRows, rowCount());
    if (page * PageRows < end) Q_EMIT dataChanged(index(page * PageRows, 0), index(end - 1, columnCount() - 1));
  }
}

// ---- what the views ask ---------------------------------------------------------------------

int TFileModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(FListing.Numbers->size());
}

int TFileModel::columnCount(const QModelIndex& parent) const {
  if (parent.isValid()) return 0;
  switch (FCategory) {
    case TViewCategory::vcDrives:
      return DriveColumns;
    case TViewCategory::vcFiles:
      return Location;
    case TViewCategory::vcSearchResults:
      return FileColumns;
  }
  return 0;
}

bool TFileModel::IsSizeColumn(int column) const {
  return column == Size || (FCategory == TViewCategory::vcDrives && column == DriveFree);
}

QVariant TFileModel::TextOf(const TFileRow& row, int column) const {
  if (column == Name) return ToQt(row.Name);
  if (column == Type) return ToQt(row.Type);
  if (column == Size) return SizeOrNothing(row.Size);
  if (FCategory == TViewCategory::vcDrives) {
    return column == DriveFree ? SizeOrNothing(row.FreeSize) : ToQt(row.FileSystem);
  }
  switch (column) {
    case Status:
      if (IsDriveKind(row.Kind)) return QString();
      if (row.Doubt < TContentDoubt::Overwritten || row.Status == TEntryStatus::Overwritten) {
        return StatusText(FTexts, row.Status);
      }
      return StatusText(FTexts, row.Status) + QStringLiteral(", ") +
             Text(FTexts, row.Doubt == TContentDoubt::PlaceEstimated ? TText::MarkEstimated : TText::MarkDoubtful);
    case Modified:
      return TimeOrNothing(row.Modified);
    case Created:
      return TimeOrNothing(row.Created);
    default:
      return ToQt(row.Location);
  }
}

QString TFileModel::TipOf(const TFileRow& row) const {
  QString tip = ToQt(row.Name) + QLatin1Char('\n') + ToQt(row.Type);
  if (row.Size >= 0) tip += QStringLiteral(", ") + SizeOrNothing(row.Size);
  if (row.Status != TEntryStatus::Existing) tip += QLatin1Char('\n') + StatusText(FTexts, row.Status);
  if (row.Doubt >= TContentDoubt::Overwritten) tip += QLatin1Char('\n') + Text(FTexts, DoubtText(row.Doubt));
  if (!row.Location.empty()) tip += QLatin1Char('\n') + ToQt(row.Location);
  return tip;
}

QVariant TFileModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid() || index.row() >= rowCount()) return {};
  const int column = index.column();
  switch (role) {
    case Qt::TextAlignmentRole:
      return IsSizeColumn(column) ? QVariant(Qt::AlignRight | Qt::AlignVCenter) : QVariant();
    case Qt::DisplayRole:
    case Qt::DecorationRole:
    case Qt::ForegroundRole:
    case Qt::ToolTipRole:
    case Qt::CheckStateRole:
      break;
    default:
      return {};
  }
  const TFileRow* row = RowAt(index.row());
  if (row == nullptr) return role == Qt::DisplayRole && column == Name ? QVariant(QStringLiteral("…")) : QVariant();
  switch (role) {
    case Qt::DisplayRole:
      return TextOf(*row, column);
    case Qt::DecorationRole:
      return column == Name ? QVariant(IconOf(*row)) : QVariant();
    case Qt::CheckStateRole:
      if (column != Name || IsDriveKind(row->Kind)) return {};
      return row->Checked ? Qt::Checked : Qt::Unchecked;
    case Qt::ForegroundRole:
      if (row->Encrypted && FEncryptedInColor) return QColor(0x2E, 0x9E, 0x5B);
      if (row->Status == TEntryStatus::Existing && !row->Hidden) return {};
      return QApplication::palette().color(QPalette::PlaceholderText);
    default:
      return TipOf(*row);
  }
}

bool TFileModel::setData(const QModelIndex& index, const QVariant& value, int role) {
  const TFileRow* row = role == Qt::CheckStateRole && index.isValid() ? RowAt(index.row()) : nullptr;
  if (row == nullptr || IsDriveKind(row->Kind)) return false;
  const bool ticked = value.toInt() == Qt::Checked;
  // Shown at once; the engine confirms it.
  FYoung[row->Number].Checked = ticked;
  Q_EMIT dataChanged(index, index);
  Q_EMIT CheckToggled(row->Number, ticked);
  return true;
}

QVariant TFileModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (orientation != Qt::Horizontal) return {};
  if (role == Qt::TextAlignmentRole) {
    return QVariant((IsSizeColumn(section) ? Qt::AlignRight : Qt::AlignLeft) | Qt::AlignVCenter);
  }
  if (role != Qt::DisplayRole) return {};
  constexpr TText files[] = {TText::MenuSortByName,   TText::MenuSortByType,     TText::MenuSortBySize,
                             TText::MenuSortByStatus, TText::MenuSortByModified, TText::MenuSortByCreated,
                             TText::ColumnLocation};
  constexpr TText drives[] = {TText::MenuSortByName, TText::MenuSortByType, TText::MenuSortBySize,
                              TText::MenuSortByFreeSize, TText::MenuSortByFileSystem};
  const bool isDrives = FCategory == TViewCategory::vcDrives;
  if (section < 0 || section >= (isDrives ? int{DriveColumns} : int{FileColumns})) return {};
  return Text(FTexts, isDrives ? drives[section] : files[section]);
}

Qt::ItemFlags TFileModel::flags(const QModelIndex& index) const {
  if (!index.isValid()) return Qt::NoItemFlags;
  Qt::ItemFlags flags = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
  if (FCategory != TViewCategory::vcDrives) {
    flags |= Qt::ItemIsDragEnabled;
    if (index.column() == Name) flags |= Qt::ItemIsUserCheckable;
  }
  return flags;
}

QStringList TFileModel::mimeTypes() const { return {QLatin1String(FilesMimeType)}; }

/// A drag means the selection, which the engine knows: it carries only a marker.
QMimeData* TFileModel::mimeData(const QModelIndexList& indexes) const {
  if (indexes.isEmpty()) return nullptr;
  auto* mime = new QMimeData;
  mime->setData(QLatin1String(FilesMimeType), QByteArray::number(static_cast<qulonglong>(Generation())));
  return mime;
}

}  // namespace brenlow::desktop
