// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/tree_relay.h"

#include <algorithm>
#include <utility>

#include "core/engine.h"
#include "shell/entries.h"
#include "table/files.h"

namespace brenlow {

std::uint32_t TTreeRelay::NumberOf(const TTreeNode* node) const {
  const auto found = FNumbers.find(node);
  return found == FNumbers.end() ? 0 : found->second;
}

PTreeNode TTreeRelay::NodeOf(std::uint32_t number) const {
  const auto found = FNodes.find(number);
  return found == FNodes.end() ? nullptr : const_cast<PTreeNode>(found->second);
}

TTreeChange TTreeRelay::Describe(TTreeChange::TKind kind, const TTreeNode& node) const {
  TTreeChange change;
  change.Kind = kind;
  change.Node = NumberOf(&node);
  change.Caption = node.Caption;
  change.HasNil = node.HasNil;
  change.EntryKind = TEntryKind::Group;
  if (!FEngine.Files().IsWrongNumber(node.Data)) {
    const TFile& file = FEngine.Files().List[static_cast<std::size_t>(node.Data)];
    change.EntryKind = KindOf(FEngine, file);
    change.Deleted = file.FileInfo.blnDeleted;
  }
  return change;
}

void TTreeRelay::NodeAdded(const TTreeNode& node) {
  FNumbers[&node] = ++FLastNumber;
  FNodes[FLastNumber] = &node;
  TTreeChange change = Describe(TTreeChange::Added, node);
  change.Parent = NumberOf(node.Parent);
  const auto& siblings = node.Parent->Children;
  // Nearly all come at the end.
  auto at = std::prev(siblings.end());
  while (at->get() != &node) --at;
  change.Index = static_cast<int>(at - siblings.begin());
  FChanges.push_back(std::move(change));
}

void TTreeRelay::Forget(const TTreeNode& node) {
  for (const auto& child : node.Children) Forget(*child);
  FNodes.erase(NumberOf(&node));
  FNumbers.erase(&node);
}

void TTreeRelay::NodeDeleted(const TTreeNode& node) {
  TTreeChange change;
  change.Kind = TTreeChange::Removed;
  change.Node = NumberOf(&node);
  FChanges.push_back(std::move(change));
  Forget(node);
}

void TTreeRelay::NodeChanged(const TTreeNode& node) { FChanges.push_back(Describe(TTreeChange::Changed, node)); }

void TTreeRelay::ChildrenSorted(const TTreeNode& node) {
  TTreeChange change;
  change.Kind = TTreeChange::Sorted;
  change.Node = NumberOf(&node);
  for (const auto& child : node.Children) change.Order.push_back(NumberOf(child.get()));
  FChanges.push_back(std::move(change));
}

void TTreeRelay::Collapse(const TTreeNode& node) {
  TTreeChange change;
  change.Kind = TTreeChange::Collapsed;
  change.Node = NumberOf(&node);
  FChanges.push_back(std::move(change));
}

std::vector<TTreeChange> TTreeRelay::Take() { return std::exchange(FChanges, {}); }

}  // namespace brenlow
