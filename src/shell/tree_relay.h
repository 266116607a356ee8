// SPDX-License-Identifier: GPL-3.0-or-later
// Notes the changes of the folder tree as values, for a view on another thread.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "analysis/folders.h"
#include "shell/snapshots.h"

namespace brenlow {

class TEngine;

class TTreeRelay final : public IFolderTreeView {
 public:
  explicit TTreeRelay(TEngine& engine) : FEngine(engine) {}

  void NodeAdded(const TTreeNode& node) override;
  void NodeDeleted(const TTreeNode& node) override;
  void NodeChanged(const TTreeNode& node) override;
  void ChildrenSorted(const TTreeNode& node) override;
  void Collapse(const TTreeNode& node) override;
  void SetWaitCursor(bool) override {}  // the window never waits

  /// The changes since the last call, in their order.
  std::vector<TTreeChange> Take();
  bool HasChanges() const { return !FChanges.empty(); }
  /// The number of a node; 0 when it is not known.
  std::uint32_t NumberOf(const TTreeNode* node) const;
  /// Null for a node that is gone.
  PTreeNode NodeOf(std::uint32_t number) const;

 private:
  TTreeChange Describe(TTreeChange::TKind kind, const TTreeNode& node) const;
  void Forget(const TTreeNode& node);

  TEngine& FEngine;
  std::vector<TTreeChange> FChanges;
  std::unordered_map<const TTreeNode*, std::uint32_t> FNumbers;
  std::unordered_map<std::uint32_t, const TTreeNode*> FNodes;
  std::uint32_t FLastNumber = 0;
};

}  // namespace brenlow
