// SPDX-License-Identifier: GPL-3.0-or-later
// What the main window does, without a window: selection, filters, navigation, and every action as a
// command on the engine.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "analysis/folders.h"
#include "core/file_records.h"
#include "core/images/image_writer.h"
#include "recovery/recovery_list.h"
#include "recovery/recovery_types.h"
#include "shell/actions.h"
#include "shell/file_order.h"
#include "shell/file_search.h"
#include "shell/settings.h"
#include "shell/snapshots.h"

namespace brenlow {

class IRecoveryQuestions;
class TEngine;
class TFolderIndex;
class TLanguage;
class TfRecoveryMaster;

/// What the commands ask the user.
class IShellQuestions {
 public:
  virtual ~IShellQuestions() = default;
  virtual bool StopAnalyse() = 0;
  /// An image file to mount; nothing when the user thinks better of it.
  virtual std::optional<std::string> ImageFile() = 0;
};

/// What the file list shows.
struct TShownPlace {
  enum TKind : std::uint8_t { Computer, Group, Folder, Search } Kind = Computer;
  std::int64_t GroupData = 0;  ///< `TTreeNode::Data` of a group
  TIntegerDynArray Chain;      ///< file numbers of a folder and those above it, the drive's first
  TFindOptions Options;        ///< of a search
  std::uint64_t Id = 0;        ///< of the visit, never used twice
};

/// What the analysis wizard was told to do.
struct TMasterChoice {
  int Drive = -1;
  bool Fast = true;   ///< the file system; on a disk, those of its volumes
  bool Deep = false;  ///< every sector, by content
  bool Lost = false;  ///< every sector, for lost partitions
  /// Extensions (".jpg") that the deep analysis looks for; empty for all.
  std::vector<TString> Extensions;
};

class TCommands {
 public:
  TCommands(TEngine& engine, TSettings& settings, IShellQuestions& questions, IRecoveryQuestions& recoveryQuestions);
  ~TCommands();
  TCommands(const TCommands&) = delete;
  TCommands& operator=(const TCommands&) = delete;

  /// The wizard is made and wants to be shown; when this returns it is over.
  std::function<void(TfRecoveryMaster&)> OnRecoveryMaster;
  /// Which actions can be chosen may have changed.
  std::function<void(const TActions&)> OnActionsChanged;
  /// The file list shows something else.
  std::function<void()> OnFileListChanged;
  /// Something else is selected, by other means than `SelectFiles`.
  std::function<void()> OnSelectionChanged;
  std::function<void()> OnRecoveryListChanged;
  std::function<void()> OnDrivesChanged;
  /// What could not be done, and what the user can do about it.
  std::function<void(const std::string&)> OnComplaint;

  // ---- what is shown and selected ----
  /// Fills the list of drives and puts them into the tree.
  void FillDrives();
  /// Shows all drives.
  void ShowComputer();
  /// Shows what is in a node of the tree; null shows all drives.
  void SelectNode(PTreeNode node);
  /// The node of what is shown, or the one nearest to it that the tree has; null when all drives are.
  PTreeNode SelectedNode() const;
  /// Shows a folder or drive that stands in the list, without analysing it.
  void ShowFolder(int fileNumber);
  /// Shows a drive of the registry, without analysing it.
  void ShowDrive(int drive);
  /// Shows the folder that a file lies in and selects the file.
  void ShowLocation(int fileNumber);
  void Find(TFindOptions options);
  void GoBack();
  void GoForward();
  void GoUp();
  /// The step of the path with that index, see `TPlaceSnapshot::Crumbs`.
  void GoToCrumb(std::size_t index);
  /// The rows of the file list: what the place holds and the filter passes, sorted.
  const TIntegerDynArray& ShownFiles() const { return *FShown; }
  TPlaceSnapshot Place() const;
  bool ShowsSearch() const { return FPlace.Kind == TShownPlace::Search; }
  /// Looks whether the scan that runs has brought something new into what is shown.
  bool HasGrown() const;
  /// Puts volumes of a disk under analysis into the tree as soon as something was found on them. True
  /// when there are new ones.
  bool ShowNewSubDrives();
  /// Makes the list anew; what is selected stays.
  void Rebuild();
  void Sort(TSortOrder order);
  /// A click on the head of a column: sorts by it, the second time the other way round.
  void SortByColumn(int column);
  void SelectFiles(TIntegerDynArray fileNumbers);
  const TIntegerDynArray& SelectedFiles() const { return FSelected; }
  const TFileFilter& Filter() const { return FFilter; }
  const TRecoveryList& RecoveryList() const { return FRecoveryList; }
  /// Its files in the order of its panel.
  TIntegerDynArray ShownRecoveryList() const;
  /// Columns as those of the file list.
  void SortRecoveryList(int column, bool descending);
  void ShowRecoveryList(bool shown);
  void Tick(const TIntegerDynArray& fileNumbers, bool ticked);
  /// Rises whenever file numbers change their meaning.
  std::uint64_t Generation() const { return FGeneration; }
  /// Path of the folder of a file, from its drive on.
  TString LocationOf(int fileNumber);
  /// True when a folder above a file of the place, of a search or of the recovery list is deleted:
  /// the file counts as deleted as well.
  bool InDeletedFolder(int fileNumber) const;

  // ---- commands ----
  /// What runs, and on which drive.
  TProgressSnapshot::TKind Running() const;
  int BusyDrive() const { return FBusyDrive; }
  TShellState State() const;
  TActions EnabledActions() const { return CheckActionsEnabled(State()); }
  /// Carries an action out. False when it cannot be chosen now, or is the window's own (a form, a panel).
  bool Execute(TAction action);
  /// The one way in which a drive or a folder node is analysed. `isReopen` throws its results away
  /// first. On the folder of the deep analysis that scan runs.
  bool Analyse(PTreeNode node, bool isReopen);
  void AnalyseDeep(int drive);
  /// True for a node that shows nothing before its drive is analysed.
  bool NeedsAnalysis(const TTreeNode& node) const;
  /// Shows a node; what shows nothing without an analysis is analysed first.
  void OpenNode(PTreeNode node);
  /// All that the wizard was told to do, one after another until the user stops it.
  void RunMaster(const TMasterChoice& choice);
  /// Mounts an image and shows it; its drive number, or -1.
  int Mount(const std::string& path);
  /// The quick search for partitions: sectors from the start of the drive.
  void FindPartitions(int drive, std::int64_t firstSector, std::int64_t sectorsCount, const TFileSystems& systems);
  /// The thorough one.
  void ScanForPartitions(int drive, const TPartRecSystems& systems);
  /// A drive over sectors of another one, counted from that drive's start; its number, or -1.
  int CreateVirtual(int drive, std::int64_t firstSector, std::int64_t sectorsCount);
  TImageResult CreateImage(int drive, std::int64_t firstSector, std::int64_t sectorsCount, const std::string& fileName,
                           bool compressed, const std::string& mapFile);
  void AddCustomFolder(const std::string& path);
  /// The drive of a device path, or of a drive's key; -1 when there is none.
  int DriveOfPath(const TString& path) const;
  /// Devices came or went.
  void DevicesChanged();
  void ChangeLanguage(TLanguage language);
  void ChangeRecoveringStatus(bool status);
  /// The selection of a sender, for the recovery.
  TSelectedFiles GetSelectedFiles(TRecoverySender sender) const;

 private:
  class TSearching;
  void Changed();
  void DrivesChanged();
  void Complain(const std::string& text);
  bool CanScan(int drive);
  void GoTo(TShownPlace place);
  void RefreshFileList();
  TIntegerDynArray NumbersOf(const TShownPlace& place, int& hidden) const;
  TShownPlace FolderPlace(const TTreeNode* node) const;
  bool IsThere(const TShownPlace& place) const;
  void MoveNumbers(const std::vector<std::uint32_t>& newNumbers);
  void NodeGone(const TTreeNode& node);
  TIntegerDynArray ChainOf(int fileNumber);
  const TFolderIndex& FolderIndex(int drive) const;
  bool PlaceIsDeleted() const;
  TSelectionState StateOf(const TIntegerDynArray& fileNumbers) const;
  bool IsBlank(const TFileInfo& folder) const;
  bool ExecuteFilter(TAction action);
  bool ExecuteSort(TAction action);
  void Open();
  void CloseDisks(const TIntegerDynArray& fileNumbers, bool onlyMounted);
  void Recover(TRecoverySender sender);
  std::map<int, TString> DriveFolders(const TSelectedFiles& selected) const;
  int PlaceFolder() const { return FPlace.Chain.empty() ? -1 : FPlace.Chain.back(); }
  TIntegerDynArray PlaceAsList() const;
  TViewCategory Category() const;
  TSortOrder& Order();
  void TakeOrders();

  TEngine& FEngine;
  TSettings& FSettings;
  IShellQuestions& FQuestions;
  IRecoveryQuestions& FRecoveryQuestions;
  TRecoveryList FRecoveryList;
  TFileFilter FFilter;
  TShownPlace FPlace;
  std::vector<TShownPlace> FBack;
  std::vector<TShownPlace> FForward;
  std::uint64_t FLastPlaceId = 0;
  std::shared_ptr<const TIntegerDynArray> FShown = std::make_shared<const TIntegerDynArray>();
  std::uint64_t FShownVersion = 0;  // of the folder's content
  int FHidden = 0;
  TIntegerDynArray FSelected;
  TSortOrder FFileOrder;
  TSortOrder FDriveOrder;
  TSortOrder FRecoveryListOrder;
  std::uint64_t FGeneration = 1;
  mutable std::map<int, std::unique_ptr<TFolderIndex>> FFolderIndexes;  // by drive
  mutable std::pair<std::uint64_t, std::size_t> FFolderIndexState;
  bool FRecoveryListShown = false;
  bool FRecovering = false;
  bool FSearching = false;
  bool FDeepRunning = false;
  int FBusyDrive = -1;
};

}  // namespace brenlow
