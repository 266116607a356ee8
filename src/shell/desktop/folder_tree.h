// SPDX-License-Identifier: GPL-3.0-or-later
// The tree of drives and folders on the left: a mirror of the engine's tree, as far as that is filled.
#pragma once

#include <QAbstractItemModel>
#include <QTimer>
#include <QTreeView>
#include <memory>
#include <unordered_map>
#include <vector>

#include "shell/snapshots.h"

namespace brenlow::desktop {

class TFolderTreeModel final : public QAbstractItemModel {
  Q_OBJECT
 public:
  explicit TFolderTreeModel(QObject* parent);

  void Apply(const std::vector<TTreeChange>& changes);
  QModelIndex IndexOf(std::uint32_t number) const;
  std::uint32_t NumberOf(const QModelIndex& index) const;
  TEntryKind KindOf(const QModelIndex& index) const;

  QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
  QModelIndex parent(const QModelIndex& child) const override;
  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex&) const override { return 1; }
  bool hasChildren(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;

 Q_SIGNALS:
  void Collapse(const QModelIndex& index);

 private:
  struct TNode {
    std::uint32_t Number = 0;
    TNode* Parent = nullptr;
    int Row = 0;
    QString Caption;
    TEntryKind Kind = TEntryKind::Group;
    bool Deleted = false;
    bool HasNil = false;
    std::vector<std::unique_ptr<TNode>> Children;
  };
  TNode* NodeAt(const QModelIndex& index) const;
  TNode* Find(std::uint32_t number) const;
  QModelIndex IndexOf(const TNode* node) const;
  std::size_t Add(const std::vector<TTreeChange>& changes, std::size_t first);
  void Remove(TNode* node);
  void Sort(TNode* node, const std::vector<std::uint32_t>& order);
  void Change(TNode* node, const TTreeChange& change);
  void Forget(const TNode& node);
  static void Renumber(TNode& parent, std::size_t from);

  std::unique_ptr<TNode> FRoot;
  std::unordered_map<std::uint32_t, TNode*> FNodes;
};

/// `pnLeft`'s tree.
class TtvFolders final : public QTreeView {
  Q_OBJECT
 public:
  explicit TtvFolders(QWidget* parent);
  TFolderTreeModel& Tree() { return *FModel; }
  void Apply(const std::vector<TTreeChange>& changes);
  /// Selects what the file list shows, without a signal.
  void Select(std::uint32_t node);

 Q_SIGNALS:
  void NodeSelected(std::uint32_t node);
  /// Opened: the children of its children should be made ready.
  void NodeExpanded(std::uint32_t node);
  /// Double click or Enter.
  void NodeActivated(std::uint32_t node);

 protected:
  void currentChanged(const QModelIndex& current, const QModelIndex& previous) override;
  void keyPressEvent(QKeyEvent* event) override;

 private:
  TFolderTreeModel* FModel;
  QTimer tmrtvFoldersChanged;
  bool FSelecting = false;
};

}  // namespace brenlow::desktop
