// SPDX-License-Identifier: GPL-3.0-or-later
// The analysis of one volume: the tree, the folders that nothing leads to, and what the journal adds.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/drive_records.h"
#include "core/file_records.h"
#include "fs/ext/ext_blocks.h"
#include "fs/ext/ext_directory.h"
#include "fs/ext/ext_history.h"
#include "fs/ext/ext_inode.h"

namespace brenlow {

class TEngine;

namespace ext {

inline constexpr double TreeShare = 0.07;  ///< of the progress of an analysis

/// Takes a row; its number, or -1 to end the walk.
using TRowSink = std::function<int(const TFileInfo&, std::int64_t parentCluster)>;

/// Where the blocks of folders lie: looked up for a block that is met without its folder.
struct TFolderRun {
  std::int64_t First = 0;
  std::int64_t Count = 0;
  std::uint32_t Inode = 0;
  std::uint32_t Life = 0;  ///< 0 for the folder that is there now, else 1 + the index of an earlier life
};

class TVolumeWalk {
 public:
  /// The group table of the drive must be there. The drive must not move meanwhile; its number is -1 for one that
  /// is not registered, of which the tree can be walked.
  TVolumeWalk(TEngine& engine, TDriveInfo& drive, int driveNumber, TRowSink sink);

  /// All that the root leads to, or only what lies in it.
  void WalkTree(bool rootOnly = false);
  /// Folders in blocks that nothing has. With `everywhere` no group is left early.
  void FindLostFolders(bool everywhere);
  /// Bytes that this would read.
  std::int64_t LostFolderSearchSize() const;
  /// Old names and old inodes out of the journal.
  void UseJournal();
  /// Looks through the tables of inodes: reads folders that no name leads to, and notes files of that kind.
  void ReadInodeTables();
  /// Enters the files among them that nothing has led to since.
  void AddNamelessInodes();
  /// Gives folders whose own name is gone one below the folder that their ".." names.
  void AddNamelessFolders();
  /// Deleting clears the size in an inode: what no journal has filled in by now is a name and nothing else.
  void NoteNamesOnly();
  /// True when the root led to nothing that is not deleted.
  bool IsBare() const { return FLiveEntries == 0; }

 private:
  /// A folder that waits to be read.
  struct TWaiting {
    std::uint32_t Inode = 0;
    bool Deleted = false;
    TDataBlocks Blocks;
    TByteDynArray Inline;
  };
  /// A row whose file is gone, or seems to be.
  struct TDeletedRow {
    std::uint32_t Inode = 0;
    int FileNumber = -1;
  };
  /// Entries of a folder with what is known of it.
  struct TFolder {
    std::uint32_t Inode = 0;  ///< 0 for not known
    std::int64_t Key = 0;     ///< the parent of its rows
    bool Lost = false;
    bool Deleted = false;
    std::size_t FirstEntry = 2;  ///< those before it are "." and ".."
  };

  const TExtXInfo& Info() const { return FReader.Info(); }
  bool GoOn();
  /// The number of the row, -1 when it was refused.
  int AddRow(const TFileInfo& info, std::int64_t parent);
  static std::int64_t KeyOf(std::uint32_t inode) { return inode == 2 ? SpecialCluster::Root : std::int64_t{inode}; }

  // The tree.
  void MarkOwnBlocks();
  void ReadFolder(const TWaiting& folder);
  void ReadRun(const TDataBlock& run, bool isFirst);
  void ReadInlineFolder(const TWaiting& folder);
  void WalkBytes(std::span<const std::uint8_t> block, std::int64_t position, bool mayBegin);
  void WalkEntries(const TFolder& folder);
  void FindLiveNames(const TFolder& folder);
  bool IsRepeated(const TDirectoryEntry& entry);
  void AddEntry(const TFolder& folder, const TDirectoryEntry& entry);
  bool FillInfo(const TFolder& folder, const TDirectoryEntry& entry, TFileInfo& info);
  void ApplyInode(const TInode& inode, TFileInfo& info) const;
  void Queue(const TDirectoryEntry& entry, bool deleted);
  void WalkWaiting();

  // Lost folders.
  void SearchRange(std::int64_t first, std::int64_t end, std::int64_t misses);
  std::int64_t ExamineBlocks(std::span<const std::uint8_t> bytes, std::int64_t firstBlock);
  std::uint32_t FolderOf(std::span<const std::uint8_t> block) const;
  std::int64_t LostKeyOf(std::uint32_t inode, std::span<const std::uint8_t> block);
  void ExamineInode(std::uint32_t number, std::span<const std::uint8_t> bytes);
  bool IsWorthReading(std::span<const std::uint8_t> bytes) const;

  // The journal.
  bool IsInUse(std::uint32_t inode);
  bool ReadLife(const TInodeVersion& version, TBlockList blocks, TInode& inode);
  void JudgeLives();
  void NoteFolderChecksums(std::uint32_t inode, std::uint32_t generation);
  std::uint32_t SeedOf(std::uint32_t inode, std::uint32_t generation) const;
  void FindFoldersOfNames();
  void MergeNames();
  void NoteOldFolderBlocks();
  void JoinNames();
  void JoinName(const TOldName& name);
  void NoteNewestNames();
  void EnterName(const TOldName& name, std::int64_t parent, TFileLife* life);
  TFileLife* LifeOfRow(const TFileInfo& row);
  TFileLife* LifeOfRemnant(const TOldName& name);
  void JoinDeletedRows();
  void AddNamelessLives();
  std::int64_t FolderKeyAt(std::uint32_t folder, std::uint32_t order);
  void FillFromLife(TFileLife& life, TFileInfo& info);
  std::size_t IndexOf(const TFileLife& life) { return static_cast<std::size_t>(&life - FHistory.Lives().data()); }
  void FindOverwritten();
  bool IsRenamedAway(const TOldName& name, const TFileLife& life);
  TString NamelessName(std::uint32_t number, const TInode& inode);

  TEngine& FEngine;
  TDriveInfo& FDrive;
  int FDriveNumber;
  TRowSink FSink;
  TVolumeReader FReader;
  TBlockSet FKnown;  // blocks proven to belong to something
  TDirectoryEntries FEntries;
  TByteDynArray FBytes;
  TInode FInode;
  TFileInfo FInfo;
  std::vector<TWaiting> FWaiting;
  std::vector<TWaiting> FWaitingDeleted;
  std::unordered_set<std::uint64_t> FLiveNames;  // of the folder in hand
  std::vector<TFolderRun> FFolderRuns;
  std::unordered_map<std::uint32_t, std::uint32_t> FFolderSeeds;  // checksum seed to inode
  std::vector<TDeletedRow> FDeletedRows;
  std::vector<int> FRowsWithoutContent;                          // of deleted files, as they were entered
  std::unordered_set<std::int64_t> FFolderRows;                  // keys of folders that have a row
  std::unordered_map<std::int64_t, std::uint32_t> FLostParents;  // key of a lost folder to the folder above it
  std::unordered_set<std::uint32_t> FInlineFolders;              // that were met
  std::vector<bool> FShownInodes;                                // of which a row shows the state on the disk
  THistory FHistory;
  std::vector<bool> FTakenLives;          // by life: a later file had some of its blocks
  std::vector<std::uint32_t> FLastNamed;  // by life: when its newest name appeared, in order of time
  std::vector<std::uint32_t> FNameless;   // inodes with content that no name has led to
  std::int64_t FLiveEntries = 0;
  std::int64_t FAnalyzedFolders = 0;
  double FProgressFrom = 0;
  double FProgressShare = 0;
  bool FOnlySound = false;  // blocks of folders count only when they are sound throughout
  bool FRootOnly = false;
  bool FStopped = false;
};

}  // namespace ext
}  // namespace brenlow
