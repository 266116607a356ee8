// SPDX-License-Identifier: GPL-3.0-or-later
// The rows of a file list. Knows the order of all of them, and the content of those seen recently;
// the rest is fetched from the engine when it is painted.
#pragma once

#include <QAbstractTableModel>
#include <QTimer>
#include <unordered_map>
#include <unordered_set>

#include "shell/snapshots.h"

namespace brenlow {
class TShellController;
class TLanguage;
}  // namespace brenlow

namespace brenlow::desktop {

class TFileModel final : public QAbstractTableModel {
  Q_OBJECT
 public:
  enum TColumn { Name, Type, Size, Status, Modified, Created, Location, FileColumns };
  enum TDriveColumn { DriveSize = Size, DriveFree, DriveSystem, DriveColumns };

  TFileModel(TShellController& controller, const TLanguage& texts, QObject* parent);

  /// Shows other rows. Those of the same folder keep the selection. `head`: the content of the
  /// first ones, as far as it has arrived.
  void Show(const TListing& listing, TViewCategory category, bool sameFolder, std::vector<TFileRow> head = {});
  /// What the rows say may have changed: they are fetched again, and shown as they are until then.
  void Outdate();
  void LanguageChanged();
  void SetEncryptedInColor(bool on) { FEncryptedInColor = on; }

  TViewCategory Category() const { return FCategory; }
  std::uint64_t Generation() const { return FListing.Generation; }
  const TIntegerDynArray& Numbers() const { return *FListing.Numbers; }
  int NumberAt(int row) const { return (*FListing.Numbers)[static_cast<std::size_t>(row)]; }
  /// The row of a file number; -1 when it is not shown.
  int RowOf(int number) const;
  /// The content of a row; null until it has arrived.
  const TFileRow* RowAt(int row) const;

  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  bool setData(const QModelIndex& index, const QVariant& value, int role) override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
  Qt::ItemFlags flags(const QModelIndex& index) const override;
  QStringList mimeTypes() const override;
  QMimeData* mimeData(const QModelIndexList& indexes) const override;
  Qt::DropActions supportedDragActions() const override { return Qt::CopyAction; }

 Q_SIGNALS:
  /// The box of a row was clicked.
  void CheckToggled(int number, bool ticked);

 private:
  using TRows = std::unordered_map<int, TFileRow>;
  void Grow(const TListing& listing);
  void Want(int row) const;
  void Fetch();
  void Take(std::vector<TFileRow> rows);
  void RowsChanged(const std::vector<int>& pages);
  bool IsSizeColumn(int column) const;
  QVariant TextOf(const TFileRow& row, int column) const;
  QString TipOf(const TFileRow& row) const;

  TShellController& FController;
  const TLanguage& FTexts;
  TListing FListing;
  TViewCategory FCategory = TViewCategory::vcDrives;
  // Rows by file number: those used lately, and those used before them.
  mutable TRows FYoung;
  mutable TRows FOld;
  /// File numbers whose rows are as the engine has them now; the others are shown, and fetched again.
  mutable std::unordered_set<int> FFresh;
  mutable std::vector<int> FWantedPages;
  bool FWaiting = false;
  bool FEncryptedInColor = true;
  mutable QTimer FFetchTimer;
};

inline constexpr char FilesMimeType[] = "application/x-brenlow-files";

}  // namespace brenlow::desktop
