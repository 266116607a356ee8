// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/folders.h"

#include <algorithm>
#include <deque>
#include <unordered_set>
#include <utility>

#include "analysis/analysis.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/text.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr std::size_t ManyChildren = 48;  // above it a fill takes long enough for the wait cursor

TRootGroup GroupOf(const TDriveInfo& drive) {
  const TDriveTypes& types = drive.DriveTypes;
  const bool physical = types.Has(TDriveType::dtPhysical);
  if (types.Has(TDriveType::dtMounted)) return TRootGroup::MountedPartitions;
  if (types.Has(TDriveType::dtRaid)) return physical ? TRootGroup::RaidPhysicalDrives : TRootGroup::RaidVolumes;
  if (types.Has(TDriveType::dtFound)) return TRootGroup::FoundPartitions;
  return physical ? TRootGroup::PhysicalDrives : TRootGroup::MyComputer;
}

}  // namespace

void TFolders::AssignTreeView(IFolderTreeView* view) { FolderTreeView = view; }

// ---- nodes ----------------------------------------------------------------------------------

PTreeNode TFolders::InsertNode(PTreeNode parent, std::size_t at, std::int64_t data, TStringView caption,
                               int imageIndex) {
  auto node = std::make_unique<TTreeNode>();
  node->Data = data;
  node->Parent = parent;
  node->Caption = caption;
  node->ImageIndex = imageIndex;
  PTreeNode added = node.get();
  parent->Children.insert(parent->Children.begin() + static_cast<std::ptrdiff_t>(at), std::move(node));
  if (data >= 0) List.push_back({static_cast<int>(data), added});
  if (FolderTreeView != nullptr) FolderTreeView->NodeAdded(*added);
  return added;
}

/// Takes nodes that are about to go, and all below them, out of what refers to them.
void TFolders::Forget(const std::vector<const TTreeNode*>& nodes) {
  std::unordered_set<const TTreeNode*> gone;
  std::deque<const TTreeNode*> waiting(nodes.begin(), nodes.end());
  for (; !waiting.empty(); waiting.pop_front()) {
    gone.insert(waiting.front());
    for (const auto& child : waiting.front()->Children) waiting.push_back(child.get());
  }
  std::erase_if(List, [&](const TFolder& folder) { return gone.contains(folder.TN); });
  for (TCustomFolder& folder : CustomFolders) {
    if (gone.contains(folder.TN)) folder.TN = nullptr;
  }
}

void TFolders::DeleteNode(PTreeNode node) {
  if (node == nullptr || node == &FRoot) return;
  TellDeleted(*node);
  Forget({node});
  auto& siblings = node->Parent->Children;
  siblings.erase(
      std::find_if(siblings.begin(), siblings.end(), [node](const auto& sibling) { return sibling.get() == node; }));
}

void TFolders::DeleteChildren(PTreeNode node) {
  if (node == nullptr || node->Children.empty()) return;
  std::vector<const TTreeNode*> children;
  for (const auto& child : node->Children) {
    TellDeleted(*child);
    children.push_back(child.get());
  }
  Forget(children);
  node->Children.clear();
}

void TFolders::TellDeleted(const TTreeNode& node) const {
  if (OnBeforeNodeDeleted) OnBeforeNodeDeleted(node);
  if (FolderTreeView != nullptr) FolderTreeView->NodeDeleted(node);
}

void TFolders::ShowDeepDir(int driveNumber, int fileNumber, bool canAddNil, bool canCollapse) {
  TTreeNode* node = GetDeepNode(driveNumber);
  if (node == nullptr) node = AddSorted(GetDriveRootNode(driveNumber), fileNumber);
  if (node == nullptr) return;
  if (canAddNil && node->Children.empty()) AddNil(node);
  if (canCollapse) Collapse(node);
}

void TFolders::AddNil(PTreeNode parent) {
  if (parent == nullptr || parent->HasNil) return;
  parent->HasNil = true;
  if (FolderTreeView != nullptr) FolderTreeView->NodeChanged(*parent);
}

void TFolders::DeleteNil(PTreeNode node) {
  if (node == nullptr || !node->HasNil) return;
  node->HasNil = false;
  if (FolderTreeView != nullptr) FolderTreeView->NodeChanged(*node);
}

void TFolders::Collapse(PTreeNode node) {
  if (node != nullptr && FolderTreeView != nullptr) FolderTreeView->Collapse(*node);
}

void TFolders::SortChildren(PTreeNode node) {
  if (node->Children.size() < 2) return;
  std::vector<std::pair<TString, std::unique_ptr<TTreeNode>>> keyed;
  keyed.reserve(node->Children.size());
  for (auto& child : node->Children) keyed.emplace_back(LowerCase(child->Caption), std::move(child));
  std::stable_sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  for (std::size_t i = 0; i < keyed.size(); ++i) node->Children[i] = std::move(keyed[i].second);
  if (FolderTreeView != nullptr) FolderTreeView->ChildrenSorted(*node);
}

PTreeNode TFolders::NodeOf(int fileNumber) const {
  const auto found = std::find_if(List.begin(), List.end(), [&](const TFolder& f) { return f.Id == fileNumber; });
  return found == List.end() ? nullptr : found->TN;
}

const TFileInfo* TFolders::InfoOf(const TTreeNode* node) const {
  const TFiles& files = FEngine.Files();
  if (node == nullptr || files.IsWrongNumber(node->Data)) return nullptr;
  return &files.List[static_cast<std::size_t>(node->Data)].FileInfo;
}

void TFolders::MoveNumbers(const std::vector<std::uint32_t>& newNumbers) {
  const auto moved = [&](std::int64_t number) {
    const auto index = static_cast<std::size_t>(number);
    const bool gone = number < 0 || index >= newNumbers.size() || newNumbers[index] == TFileArray::Erased;
    return gone ? NoData : static_cast<std::int64_t>(newNumbers[index]);
  };
  for (TFolder& folder : List) {
    folder.TN->Data = moved(folder.Id);
    folder.Id = static_cast<int>(folder.TN->Data);
  }
  for (TCustomFolder& folder : CustomFolders) folder.FileIndex = static_cast<int>(moved(folder.FileIndex));
}

// ---- root groups ----------------------------------------------------------------------------

TString TFolders::GroupCaption(TRootGroup group) const {
  constexpr TText texts[] = {TText::GroupMyComputer,         TText::GroupPhysicalDrives,  TText::GroupRaidVolumes,
                             TText::GroupRaidPhysicalDrives, TText::GroupFoundPartitions, TText::GroupMountedPartitions,
                             TText::GroupCustomFolders};
  return FEngine.Language()[texts[static_cast<std::size_t>(group)]];
}

PTreeNode TFolders::AddRootGroup(TRootGroup group) {
  if (FolderTreeView == nullptr) return nullptr;
  const std::int64_t data = GroupData(group);
  if (PTreeNode known = GetRootGroupNode(data); known != nullptr) return known;
  // Groups come before whatever else stands at the top, in their own order.
  std::size_t at = 0;
  while (at < FRoot.Children.size() && FRoot.Children[at]->Data <= FirstGroupData && FRoot.Children[at]->Data > data)
    ++at;
  return InsertNode(&FRoot, at, data, GroupCaption(group), -1);
}

PTreeNode TFolders::GetRootGroupNode(std::int64_t nodeData) const {
  for (const auto& node : FRoot.Children) {
    if (node->Data == nodeData) return node.get();
  }
  return nullptr;
}

void TFolders::DeleteRootGroupNode(std::int64_t nodeData) { DeleteNode(GetRootGroupNode(nodeData)); }

PTreeNode TFolders::InsertUnselectedNode(PTreeNode sibling) {
  if (FolderTreeView == nullptr) return nullptr;
  PTreeNode parent = sibling == nullptr ? &FRoot : sibling->Parent;
  std::size_t at = 0;
  while (at < parent->Children.size() && parent->Children[at].get() != sibling) ++at;
  const TString caption = FEngine.Language()[TText::UnselectedNode];
  TFileInfo row;
  TFiles::ClearInfo(row, -1);
  row.FirstCluster = SpecialCluster::Unselected;
  row.strName = caption;
  return InsertNode(parent, at, FEngine.Files().AddTreeRow(row), caption, -1);
}

// ---- drives ---------------------------------------------------------------------------------

PTreeNode TFolders::AddParent(TStringView caption, int driveNumber, std::int64_t firstCluster, int imageIndex,
                              PTreeNode parent) {
  if (FolderTreeView == nullptr) return nullptr;
  if (parent == nullptr) parent = &FRoot;
  TFileInfo row;
  TFiles::ClearInfo(row, driveNumber);
  row.FirstCluster = firstCluster;
  row.strName = caption;
  row.IconIndex = imageIndex;
  return InsertNode(parent, parent->Children.size(), FEngine.Files().AddTreeRow(row), caption, imageIndex);
}

PTreeNode TFolders::AddDrive(int driveNumber) {
  const TDrives& drives = FEngine.Drives();
  if (FolderTreeView == nullptr || drives.IsWrongNumber(driveNumber)) return nullptr;
  if (PTreeNode known = GetDriveRootNode(driveNumber); known != nullptr) return known;
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(driveNumber)];
  // Volumes of the quick search have a group of their own, whatever drive they were found in.
  const bool belowParent = drive.IsSubDrive && !drive.DriveTypes.Has(TDriveType::dtFound);
  PTreeNode parent = belowParent ? GetSubDriveParentNode(driveNumber) : AddRootGroup(GroupOf(drive));
  PTreeNode node = AddParent(drive.Caption, driveNumber, SpecialCluster::Root, drive.DriveIcon, parent);
  AddNil(node);
  return node;
}

PTreeNode TFolders::GetDriveRootNode(int driveNumber) const {
  for (const TFolder& folder : List) {
    const TFileInfo* info = InfoOf(folder.TN);
    if (info != nullptr && info->aDriveNumber == driveNumber && TFiles::IsRootDir(*info)) return folder.TN;
  }
  return nullptr;
}

PTreeNode TFolders::GetRootNode(int driveNumber) const {
  PTreeNode node = GetDriveRootNode(driveNumber);
  while (node != nullptr && node->Parent != &FRoot) node = node->Parent;
  return node;
}

PTreeNode TFolders::GetSubDriveParentNode(int subDriveNumber) const {
  const TDrives& drives = FEngine.Drives();
  for (int i = 0; i < static_cast<int>(drives.List.size()); ++i) {
    const TIntegerDynArray& subs = drives.List[static_cast<std::size_t>(i)].SubDrives;
    if (std::find(subs.begin(), subs.end(), subDriveNumber) != subs.end()) return GetDriveRootNode(i);
  }
  return nullptr;
}

void TFolders::PartRecChangeDriveCaption(int driveNumber, TStringView newName) {
  PTreeNode node = GetDriveRootNode(driveNumber);
  if (node == nullptr) return;
  node->Caption = newName;
  FEngine.Files().List.Rename(static_cast<std::size_t>(node->Data), newName);
  FolderTreeView->NodeChanged(*node);
}

void TFolders::DriveDeleted(int driveNumber) {
  PTreeNode node = GetDriveRootNode(driveNumber);
  if (node == nullptr) return;
  PTreeNode parent = node->Parent;
  DeleteNode(node);
  if (parent->Parent == &FRoot && parent->Children.empty()) DeleteRootGroupNode(parent->Data);
}

// ---- folders --------------------------------------------------------------------------------

bool TFolders::Add(PTreeNode parent, int fileNumber) {
  const TFiles& files = FEngine.Files();
  if (FolderTreeView == nullptr || parent == nullptr || files.IsWrongNumber(fileNumber)) return false;
  const TFileInfo& info = files.List[static_cast<std::size_t>(fileNumber)].FileInfo;
  if (!info.blnFolder) return false;
  InsertNode(parent, parent->Children.size(), fileNumber, info.strName, info.IconIndex);
  return true;
}

PTreeNode TFolders::AddSorted(PTreeNode parent, int fileNumber) {
  if (!Add(parent, fileNumber)) return nullptr;
  PTreeNode added = parent->Children.back().get();
  SortChildren(parent);
  return added;
}

PTreeNode TFolders::GetDeepNode(int driveNumber) const {
  for (const TFolder& folder : List) {
    const TFileInfo* info = InfoOf(folder.TN);
    if (info != nullptr && info->aDriveNumber == driveNumber && TFiles::IsDeepAnalyse(*info)) return folder.TN;
  }
  return nullptr;
}

void TFolders::AddDeep(int fileNumber) {
  const TFiles& files = FEngine.Files();
  if (FolderTreeView == nullptr || files.IsWrongNumber(fileNumber)) return;
  PTreeNode deep = GetDeepNode(files.List[static_cast<std::size_t>(fileNumber)].FileInfo.aDriveNumber);
  if (deep != nullptr && NodeOf(fileNumber) == nullptr && AddSorted(deep, fileNumber) != nullptr) DeleteNil(deep);
}

/// True for a child that shows that its parent was filled: neither a deep analysis folder nor a
/// drive.
bool TFolders::IsPlainChild(const TTreeNode& child) const {
  const TFileInfo* info = InfoOf(&child);
  return info != nullptr && !TFiles::IsDeepAnalyse(*info) && !TFiles::IsRootDir(*info);
}

/// Puts the folders below a node into the tree, once.
void TFolders::FillNode(PTreeNode node) {
  const TFileInfo* info = InfoOf(node);
  if (FolderTreeView == nullptr || info == nullptr) return;
  const TInt64DynArray folders = FEngine.Drives().GetParentFolders(info->aDriveNumber, info->FirstCluster);
  const bool empty = folders.empty() && FEngine.Drives().IsEmpty(info->aDriveNumber, info->FirstCluster);
  if (!TFiles::IsDeepAnalyse(*info) || !empty) DeleteNil(node);
  const bool filled = std::any_of(node->Children.begin(), node->Children.end(),
                                  [&](const auto& child) { return IsPlainChild(*child); });
  if (!filled) {
    node->Children.reserve(node->Children.size() + folders.size());
    for (const std::int64_t number : folders) {
      const auto fileNumber = static_cast<int>(number);
      if (FEngine.Files().IsWrongNumber(number)) continue;
      const TFileInfo& folder = FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo;
      if (TFiles::IsDeepAnalyse(folder) && NodeOf(fileNumber) != nullptr) continue;
      if (Add(node, fileNumber)) AddNil(node->Children.back().get());
    }
  }
  SortChildren(node);
}

void TFolders::FillNodes(PTreeNode node, bool canChangeCursor) {
  if (FolderTreeView == nullptr || node == nullptr || node->Children.empty()) return;
  if (!NodeCanBeAnalysed(node->Children.front().get())) return;
  const bool showWait = canChangeCursor && node->Children.size() > ManyChildren;
  if (showWait) {
    FolderTreeView->SetWaitCursor(true);
    FEngine.Pump();
  }
  for (std::size_t i = 0; i < node->Children.size(); ++i) FillNode(node->Children[i].get());
  if (showWait) FolderTreeView->SetWaitCursor(false);
  FEngine.Pump();
}

void TFolders::FillDriveNodes(PTreeNode node) {
  const TFileInfo* info = InfoOf(node);
  if (FolderTreeView == nullptr || info == nullptr) return;
  const int driveNumber = info->aDriveNumber;
  FillNode(node);
  FillSubDrives(node, driveNumber);
  FillNodes(node, false);
  UpdateCustomFolders(nullptr, driveNumber);
  FillLostAndFound(node, driveNumber);
  // A disk has its results in its volumes.
  if (!FEngine.Drives().IsPhysical(driveNumber)) FEngine.Files().AddDeepAnalyseDir(driveNumber, true);
}

void TFolders::FillSubDrives(PTreeNode node, int driveNumber) {
  if (FEngine.Drives().IsWrongNumber(driveNumber) || InfoOf(node)->FirstCluster != SpecialCluster::Root) return;
  const TIntegerDynArray subs = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)].SubDrives;
  for (const int sub : subs) {
    PTreeNode drive = AddDrive(sub);
    // A node that came while the scan ran has the caption of that time.
    PartRecChangeDriveCaption(sub, FEngine.Drives().List[static_cast<std::size_t>(sub)].Caption);
    FillDriveNodes(drive);
  }
}

/// The lost and found folder may have come after the node was filled.
void TFolders::FillLostAndFound(PTreeNode node, int driveNumber) {
  for (const std::int64_t number : FEngine.Drives().GetParentFolders(driveNumber, SpecialCluster::Root)) {
    const auto fileNumber = static_cast<int>(number);
    if (!FEngine.Files().IsLostAndFound(fileNumber)) continue;
    if (NodeOf(fileNumber) == nullptr) AddNil(AddSorted(node, fileNumber));
    FillNode(NodeOf(fileNumber));
  }
}

void TFolders::FolderListCleared(int driveNumber) {
  if (OnBeforeCleared) OnBeforeCleared();
  PTreeNode node = GetDriveRootNode(driveNumber);
  if (node != nullptr) {
    Collapse(node);
    DeleteChildren(node);
    AddNil(node);
  }
  for (TCustomFolder& folder : CustomFolders) {
    const TFileInfo* info = InfoOf(folder.TN);
    if (info == nullptr || info->aDriveNumber != driveNumber) continue;
    DeleteChildren(folder.TN);
    FEngine.Files().List[static_cast<std::size_t>(folder.FileIndex)].FileInfo.FirstCluster = TCustomFolder::NotFound;
    AddNil(folder.TN);
  }
}

void TFolders::DeepListCleared(int driveNumber) {
  PTreeNode deep = GetDeepNode(driveNumber);
  DeleteChildren(deep);
  AddNil(deep);
}

// ---- analysis and content -------------------------------------------------------------------

bool TFolders::NodeCanBeAnalysed(const TTreeNode* node) const {
  const TFileInfo* info = InfoOf(node);
  return info != nullptr && !TFiles::IsUnselected(*info) && !FEngine.Drives().IsWrongNumber(info->aDriveNumber);
}

bool TFolders::AnalyseNode(PTreeNode node, bool canShowProgress) {
  const TFileInfo* info = InfoOf(node);
  if (info == nullptr) return false;
  if (TCustomFolder* custom = CustomFolderOf(node->Data); custom != nullptr) {
    return AnalyseCustomFolder(*custom, canShowProgress);
  }
  const TDrives& drives = FEngine.Drives();
  const int driveNumber = info->aDriveNumber;
  if (drives.IsWrongNumber(driveNumber)) return false;
  if (drives.List[static_cast<std::size_t>(driveNumber)].Analysed != TAnalyseInformation::aiNone) {
    Collapse(node);
    DeleteNil(node);
  }
  if (canShowProgress) {
    if (OnGetIsAnalyseProgressShowing && OnGetIsAnalyseProgressShowing()) return false;
    if (OnShowAnalyseProgress) OnShowAnalyseProgress(driveNumber);
  } else {
    AnalyseDrive(FEngine, driveNumber);
  }
  FillDriveNodes(GetDriveRootNode(driveNumber));
  return true;
}

void TFolders::GetFilesInside(int fileNumber, const TFileFilter& filter, TIntegerDynArray& files,
                              TIntegerDynArray& folders) const {
  files.clear();
  folders.clear();
  const TFiles& table = FEngine.Files();
  if (table.IsWrongNumber(fileNumber)) return;
  struct TWaiting {
    int Folder;
    bool Deleted;
  };
  const TFileInfo& start = table.List[static_cast<std::size_t>(fileNumber)].FileInfo;
  std::unordered_set<std::int64_t> entered{start.FirstCluster};  // damaged folders may lie within each other
  std::deque<TWaiting> waiting{{fileNumber, start.blnDeleted}};
  for (; !waiting.empty(); waiting.pop_front()) {
    const TWaiting folder = waiting.front();
    const TFileInfo& info = table.List[static_cast<std::size_t>(folder.Folder)].FileInfo;
    for (const std::int64_t child : FEngine.Drives().GetParentClusters(info.aDriveNumber, info.FirstCluster)) {
      const auto number = static_cast<int>(child);
      if (table.IsWrongNumber(number)) continue;
      const TFileInfo& file = table.List[static_cast<std::size_t>(number)].FileInfo;
      if (table.IsFiltered(number, folder.Deleted, filter)) (file.blnFolder ? folders : files).push_back(number);
      if (file.blnFolder && entered.insert(file.FirstCluster).second) {
        waiting.push_back({number, folder.Deleted || file.blnDeleted});
      }
    }
  }
}

void TFolders::UpdateLanguage() {
  if (FolderTreeView == nullptr) return;
  for (const auto& node : FRoot.Children) {
    if (node->Data > FirstGroupData) continue;
    node->Caption = GroupCaption(static_cast<TRootGroup>(FirstGroupData - node->Data));
    FolderTreeView->NodeChanged(*node);
  }
  TFiles& files = FEngine.Files();
  for (const TFolder& folder : List) {
    const TFileInfo* info = InfoOf(folder.TN);
    if (info == nullptr) continue;
    if (TFiles::IsUnselected(*info)) {
      files.List.Rename(static_cast<std::size_t>(folder.Id), FEngine.Language()[TText::UnselectedNode]);
    } else if (TFiles::IsRootDir(*info) && !FEngine.Drives().IsWrongNumber(info->aDriveNumber)) {
      files.List.Rename(static_cast<std::size_t>(folder.Id),
                        FEngine.Drives().List[static_cast<std::size_t>(info->aDriveNumber)].Caption);
    }
    if (folder.TN->Caption == info->strName) continue;
    folder.TN->Caption = info->strName;
    FolderTreeView->NodeChanged(*folder.TN);
  }
}

}  // namespace brenlow
