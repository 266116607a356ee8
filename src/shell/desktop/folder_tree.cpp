// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/folder_tree.h"

#include <QApplication>
#include <QKeyEvent>
#include <algorithm>

#include "shell/desktop/icons.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

constexpr int SelectionDelay = 120;  // milliseconds: moving through the tree by key does not open each folder passed

}  // namespace

// ---- model ----------------------------------------------------------------------------------

TFolderTreeModel::TFolderTreeModel(QObject* parent) : QAbstractItemModel(parent), FRoot(std::make_unique<TNode>()) {
  FNodes[0] = FRoot.get();
}

TFolderTreeModel::TNode* TFolderTreeModel::NodeAt(const QModelIndex& index) const {
  return index.isValid() ? static_cast<TNode*>(index.internalPointer()) : FRoot.get();
}

TFolderTreeModel::TNode* TFolderTreeModel::Find(std::uint32_t number) const {
  const auto found = FNodes.find(number);
  return found == FNodes.end() ? nullptr : found->second;
}

QModelIndex TFolderTreeModel::IndexOf(const TNode* node) const {
  return node == nullptr || node == FRoot.get() ? QModelIndex() : createIndex(node->Row, 0, node);
}

QModelIndex TFolderTreeModel::IndexOf(std::uint32_t number) const { return IndexOf(Find(number)); }

std::uint32_t TFolderTreeModel::NumberOf(const QModelIndex& index) const { return NodeAt(index)->Number; }

TEntryKind TFolderTreeModel::KindOf(const QModelIndex& index) const { return NodeAt(index)->Kind; }

void TFolderTreeModel::Renumber(TNode& parent, std::size_t from) {
  for (std::size_t i = from; i < parent.Children.size(); ++i) parent.Children[i]->Row = static_cast<int>(i);
}

void TFolderTreeModel::Apply(const std::vector<TTreeChange>& changes) {
  for (std::size_t i = 0; i < changes.size(); ++i) {
    const TTreeChange& change = changes[i];
    if (change.Kind == TTreeChange::Added) {
      i = Add(changes, i);
      continue;
    }
    TNode* node = Find(change.Node);
    if (node == nullptr) continue;
    switch (change.Kind) {
      case TTreeChange::Removed:
        Remove(node);
        break;
      case TTreeChange::Changed:
        Change(node, change);
        break;
      case TTreeChange::Sorted:
        Sort(node, change.Order);
        break;
      case TTreeChange::Collapsed:
        Q_EMIT Collapse(IndexOf(node));
        break;
      case TTreeChange::Added:
        break;
    }
  }
}

/// Takes in one addition and those that follow it at the next places of the same parent; the index of
/// the last of them. Folders come by the thousand.
std::size_t TFolderTreeModel::Add(const std::vector<TTreeChange>& changes, std::size_t first) {
  TNode* parent = Find(changes[first].Parent);
  if (parent == nullptr) return first;
  std::size_t last = first;
  const auto follows = [&](std::size_t next) {
    return next < changes.size() && changes[next].Kind == TTreeChange::Added &&
           changes[next].Parent == changes[first].Parent &&
           changes[next].Index == changes[first].Index + static_cast<int>(next - first);
  };
  while (follows(last + 1)) ++last;
  const auto at = std::min(static_cast<std::size_t>(changes[first].Index), parent->Children.size());
  std::vector<std::unique_ptr<TNode>> added;
  for (std::size_t i = first; i <= last; ++i) {
    auto node = std::make_unique<TNode>();
    node->Number = changes[i].Node;
    node->Parent = parent;
    node->Caption = ToQt(changes[i].Caption);
    node->Kind = changes[i].EntryKind;
    node->Deleted = changes[i].Deleted;
    node->HasNil = changes[i].HasNil;
    FNodes[node->Number] = node.get();
    added.push_back(std::move(node));
  }
  beginInsertRows(IndexOf(parent), static_cast<int>(at), static_cast<int>(at + added.size()) - 1);
  parent->Children.insert(parent->Children.begin() + static_cast<std::ptrdiff_t>(at),
                          std::make_move_iterator(added.begin()), std::make_move_iterator(added.end()));
  Renumber(*parent, at);
  endInsertRows();
  return last;
}

void TFolderTreeModel::Forget(const TNode& node) {
  for (const auto& child : node.Children) Forget(*child);
  FNodes.erase(node.Number);
}

void TFolderTreeModel::Remove(TNode* node) {
  TNode* parent = node->Parent;
  const int row = node->Row;
  beginRemoveRows(IndexOf(parent), row, row);
  Forget(*node);
  parent->Children.erase(parent->Children.begin() + row);
  Renumber(*parent, static_cast<std::size_t>(row));
  endRemoveRows();
}

void TFolderTreeModel::Change(TNode* node, const TTreeChange& change) {
  node->Caption = ToQt(change.Caption);
  node->Kind = change.EntryKind;
  node->Deleted = change.Deleted;
  const bool sameNil = node->HasNil == change.HasNil;
  node->HasNil = change.HasNil;
  Q_EMIT dataChanged(IndexOf(node), IndexOf(node));
  if (sameNil || !node->Children.empty()) return;
  // A view asks for a node's expander again only when its layout changes.
  const QList<QPersistentModelIndex> parents{QPersistentModelIndex(IndexOf(node->Parent))};
  Q_EMIT layoutAboutToBeChanged(parents);
  Q_EMIT layoutChanged(parents);
}

void TFolderTreeModel::Sort(TNode* node, const std::vector<std::uint32_t>& order) {
  std::unordered_map<std::uint32_t, std::size_t> places;
  for (std::size_t i = 0; i < order.size(); ++i) places[order[i]] = i;
  const QList<QPersistentModelIndex> parents{QPersistentModelIndex(IndexOf(node))};
  Q_EMIT layoutAboutToBeChanged(parents);
  std::stable_sort(node->Children.begin(), node->Children.end(),
                   [&](const auto& a, const auto& b) { return places[a->Number] < places[b->Number]; });
  Renumber(*node, 0);
  for (const QModelIndex& old : persistentIndexList()) {
    TNode* child = NodeAt(old);
    if (child->Parent == node) changePersistentIndex(old, IndexOf(child));
  }
  Q_EMIT layoutChanged(parents);
}

QModelIndex TFolderTreeModel::index(int row, int column, const QModelIndex& parent) const {
  const TNode* node = NodeAt(parent);
  if (column != 0 || row < 0 || row >= static_cast<int>(node->Children.size())) return {};
  return createIndex(row, 0, node->Children[static_cast<std::size_t>(row)].get());
}

QModelIndex TFolderTreeModel::parent(const QModelIndex& child) const {
  return child.isValid() ? IndexOf(NodeAt(child)->Parent) : QModelIndex();
}

int TFolderTreeModel::rowCount(const QModelIndex& parent) const {
  return static_cast<int>(NodeAt(parent)->Children.size());
}

bool TFolderTreeModel::hasChildren(const QModelIndex& parent) const {
  const TNode* node = NodeAt(parent);
  return !node->Children.empty() || node->HasNil;
}

QVariant TFolderTreeModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid()) return {};
  const TNode* node = NodeAt(index);
  switch (role) {
    case Qt::DisplayRole:
    case Qt::ToolTipRole:
      return node->Caption;
    case Qt::DecorationRole:
      return node->Deleted ? DeletedIconOf(node->Kind) : IconOf(node->Kind);
    case Qt::ForegroundRole:
      return node->Deleted ? QVariant(QApplication::palette().color(QPalette::PlaceholderText)) : QVariant();
    default:
      return {};
  }
}

// ---- view -----------------------------------------------------------------------------------

TtvFolders::TtvFolders(QWidget* parent) : QTreeView(parent), FModel(new TFolderTreeModel(this)) {
  setObjectName(QStringLiteral("tvFolders"));
  setModel(FModel);
  setHeaderHidden(true);
  setUniformRowHeights(true);
  setContextMenuPolicy(Qt::CustomContextMenu);
  setExpandsOnDoubleClick(false);
  tmrtvFoldersChanged.setSingleShot(true);
  tmrtvFoldersChanged.setInterval(SelectionDelay);
  connect(&tmrtvFoldersChanged, &QTimer::timeout, this, [this] {
    if (currentIndex().isValid()) Q_EMIT NodeSelected(FModel->NumberOf(currentIndex()));
  });
  connect(this, &QTreeView::expanded, this,
          [this](const QModelIndex& index) { Q_EMIT NodeExpanded(FModel->NumberOf(index)); });
  connect(this, &QTreeView::doubleClicked, this,
          [this](const QModelIndex& index) { Q_EMIT NodeActivated(FModel->NumberOf(index)); });
  connect(FModel, &TFolderTreeModel::Collapse, this, &QTreeView::collapse);
}

void TtvFolders::Apply(const std::vector<TTreeChange>& changes) {
  FSelecting = true;  // rows that go move the current one; the file list decides what is shown
  FModel->Apply(changes);
  FSelecting = false;
  // Groups are open from the start.
  for (const TTreeChange& change : changes) {
    if (change.Kind == TTreeChange::Added && change.Parent == 0) expand(FModel->IndexOf(change.Node));
  }
}

void TtvFolders::Select(std::uint32_t node) {
  const QModelIndex index = FModel->IndexOf(node);
  tmrtvFoldersChanged.stop();
  FSelecting = true;
  if (index.isValid()) {
    setCurrentIndex(index);
    scrollTo(index);
  } else {
    setCurrentIndex({});
  }
  FSelecting = false;
}

void TtvFolders::currentChanged(const QModelIndex& current, const QModelIndex& previous) {
  QTreeView::currentChanged(current, previous);
  if (!FSelecting && current.isValid()) tmrtvFoldersChanged.start();
}

void TtvFolders::keyPressEvent(QKeyEvent* event) {
  if ((event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) && currentIndex().isValid()) {
    Q_EMIT NodeActivated(FModel->NumberOf(currentIndex()));
    return;
  }
  // Opening all at once would analyse whatever was not.
  if (event->key() == Qt::Key_Asterisk) return;
  QTreeView::keyPressEvent(event);
}

}  // namespace brenlow::desktop
