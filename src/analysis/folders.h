// SPDX-License-Identifier: GPL-3.0-or-later
// The tree of drives and folders that the user walks, made from the flat file table as far as it is
// opened.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/file_records.h"
#include "core/types.h"
#include "table/file_tree.h"

namespace brenlow {

class TEngine;
struct TDriveInfo;

/// The groups at the top of the tree, in their order there.
enum class TRootGroup {
  MyComputer,
  PhysicalDrives,
  RaidVolumes,
  RaidPhysicalDrives,
  FoundPartitions,
  MountedPartitions,
  CustomFolders
};

/// A node. `Data` is a file number of `TFiles.List`; a group has a negative one of its own.
struct TTreeNode {
  std::int64_t Data = -1;
  TTreeNode* Parent = nullptr;
  std::vector<std::unique_ptr<TTreeNode>> Children;
  TString Caption;
  int ImageIndex = -1;
  /// The placeholder child: there may be content that was not read yet.
  bool HasNil = false;
};
using PTreeNode = TTreeNode*;

/// What shows the tree. It is told of every change and keeps no state of its own but what is open.
class IFolderTreeView {
 public:
  virtual ~IFolderTreeView() = default;
  virtual void NodeAdded(const TTreeNode& node) = 0;
  /// Before it goes, with all below it.
  virtual void NodeDeleted(const TTreeNode& node) = 0;
  /// Its caption, or whether it has a placeholder.
  virtual void NodeChanged(const TTreeNode& node) = 0;
  virtual void ChildrenSorted(const TTreeNode& node) = 0;
  virtual void Collapse(const TTreeNode& node) = 0;
  virtual void SetWaitCursor(bool on) = 0;
};

struct TFolder {
  int Id = -1;  ///< file number
  PTreeNode TN = nullptr;
};

/// A folder of the host system offered as a starting point.
struct TCustomFolder {
  /// `FirstCluster` of a row whose folder was not found (yet): no folder has that number.
  static constexpr std::int64_t NotFound = INT64_MIN;
  std::string Path;
  TString Caption;
  int IconIndex = -1;
  int FileIndex = -1;  ///< row of the file table; its `FirstCluster` is that of the folder once the drive is analysed
  PTreeNode TN = nullptr;
};
using TCustomFolders = std::vector<TCustomFolder>;

/// Wrong numbers and null nodes are ignored; without a view there is no tree.
class TFolders final : public IFileTree {
 public:
  explicit TFolders(TEngine& engine) : FEngine(engine) { FRoot.Data = NoData; }

  std::vector<TFolder> List;
  int FoundCount = 0;  ///< folders found by the analysis in hand
  TCustomFolders CustomFolders;

  std::function<void()> OnBeforeCleared;
  std::function<void(const TTreeNode&)> OnBeforeNodeDeleted;
  std::function<bool()> OnGetIsAnalyseProgressShowing;
  /// Runs `AnalyseDrive` of that drive under a progress display.
  std::function<void(int driveNumber)> OnShowAnalyseProgress;

  void AssignTreeView(IFolderTreeView* view);
  /// Above all groups; not shown itself.
  const TTreeNode& Root() const { return FRoot; }

  // ---- root groups ----
  PTreeNode AddMyComputer() { return AddRootGroup(TRootGroup::MyComputer); }
  PTreeNode AddPhysicalDrives() { return AddRootGroup(TRootGroup::PhysicalDrives); }
  PTreeNode AddFoundPartitions() { return AddRootGroup(TRootGroup::FoundPartitions); }
  PTreeNode AddMountedPartitions() { return AddRootGroup(TRootGroup::MountedPartitions); }
  PTreeNode AddRaidVolumes() { return AddRootGroup(TRootGroup::RaidVolumes); }
  PTreeNode AddRaidPhysicalDrives() { return AddRootGroup(TRootGroup::RaidPhysicalDrives); }
  PTreeNode AddCustomFoldersRoot() { return AddRootGroup(TRootGroup::CustomFolders); }
  /// A node that stands for "nothing selected", at the end or before another.
  PTreeNode AddUnselectedNode() { return InsertUnselectedNode(nullptr); }
  PTreeNode InsertUnselectedNode(PTreeNode sibling);
  static std::int64_t GroupData(TRootGroup group) { return FirstGroupData - static_cast<std::int64_t>(group); }
  PTreeNode GetRootGroupNode(std::int64_t nodeData) const;
  void DeleteRootGroupNode(std::int64_t nodeData);

  // ---- drives ----
  /// A node with a row of its own in the file table.
  PTreeNode AddParent(TStringView caption, int driveNumber, std::int64_t firstCluster, int imageIndex,
                      PTreeNode parent);
  /// Puts a drive into the group that it belongs to, or below the drive that it is part of.
  PTreeNode AddDrive(int driveNumber);
  /// The group that a drive stands in.
  PTreeNode GetRootNode(int driveNumber) const;
  PTreeNode GetDriveRootNode(int driveNumber) const;
  /// The node of the drive inside which a sub-drive was found.
  PTreeNode GetSubDriveParentNode(int subDriveNumber) const;
  void PartRecChangeDriveCaption(int driveNumber, TStringView newName);

  // ---- folders ----
  /// False when the number is no folder.
  bool Add(PTreeNode parent, int fileNumber);
  /// The same with the children in order afterwards; the new node, or null.
  PTreeNode AddSorted(PTreeNode parent, int fileNumber);
  void AddDeep(int fileNumber) override;
  void FolderFound() override { ++FoundCount; }
  void ShowDeepDir(int driveNumber, int fileNumber, bool canAddNil, bool canCollapse) override;
  void AddNil(PTreeNode parent);
  void DeleteNil(PTreeNode node);
  /// Fills each child of a node, so that a node that the user opens has its grandchildren ready.
  /// Above 48 children the wait cursor shows meanwhile, if it may.
  void FillNodes(PTreeNode node, bool canChangeCursor);
  void FillDriveNodes(PTreeNode node);
  void FolderListCleared(int driveNumber) override;
  void DeepListCleared(int driveNumber) override;
  void DriveDeleted(int driveNumber) override;
  /// The node that shows a file number; null when there is none.
  PTreeNode NodeOf(int fileNumber) const;
  /// The pseudo-folder of the deep analysis of a drive; null when the tree has none.
  PTreeNode GetDeepNode(int driveNumber) const;
  void Collapse(PTreeNode node);
  void MoveNumbers(const std::vector<std::uint32_t>& newNumbers) override;

  // ---- custom folders ----
  /// The user's own folders, as far as they are there and lie on a known drive.
  void AddDefaultCustomFolders(PTreeNode parent);
  /// Index of the new custom folder; -1 when the path lies on no known drive.
  int AddCustomFolder(PTreeNode parent, const std::string& path, TStringView caption, int iconIndex);
  /// Looks up the custom folders of a drive in its results and shows what is in them.
  void UpdateCustomFolders(PTreeNode parent, int driveNumber);
  int CustomFoldersInDrive(int driveNumber) const;
  bool IsCustomFolder(int fileNumber) const override;

  // ---- analysis and content ----
  bool NodeCanBeAnalysed(const TTreeNode* node) const;
  /// The road from a selected node to an analysis. False when there is nothing to analyse, or an
  /// analysis shows its progress already.
  bool AnalyseNode(PTreeNode node, bool canShowProgress);
  /// The numbers of all files and folders below a folder that pass the filter.
  void GetFilesInside(int fileNumber, const TFileFilter& filter, TIntegerDynArray& files,
                      TIntegerDynArray& folders) const;
  void UpdateLanguage();

 private:
  static constexpr std::int64_t NoData = -1;
  static constexpr std::int64_t FirstGroupData = -100;

  PTreeNode AddRootGroup(TRootGroup group);
  PTreeNode InsertNode(PTreeNode parent, std::size_t at, std::int64_t data, TStringView caption, int imageIndex);
  void DeleteNode(PTreeNode node);
  void DeleteChildren(PTreeNode node);
  void Forget(const std::vector<const TTreeNode*>& nodes);
  void TellDeleted(const TTreeNode& node) const;
  void SortChildren(PTreeNode node);
  void FillNode(PTreeNode node);
  void FillSubDrives(PTreeNode node, int driveNumber);
  void FillLostAndFound(PTreeNode node, int driveNumber);
  void ResolveCustomFolder(TCustomFolder& folder);
  bool AnalyseCustomFolder(TCustomFolder& folder, bool canShowProgress);
  TCustomFolder* CustomFolderOf(std::int64_t fileNumber);
  const TFileInfo* InfoOf(const TTreeNode* node) const;
  bool IsPlainChild(const TTreeNode& child) const;
  TString GroupCaption(TRootGroup group) const;

  TEngine& FEngine;
  IFolderTreeView* FolderTreeView = nullptr;
  TTreeNode FRoot;
};

}  // namespace brenlow
