// SPDX-License-Identifier: GPL-3.0-or-later
// The table of every file and folder found on every drive, in order of discovery.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "core/file_records.h"
#include "core/types.h"

namespace brenlow {

class IFileTree;
class TEngine;

/// A file number is an index into `List`, valid until the next deletion. The table knows a
/// file's folder only as `ParentCluster`; the drive's index leads from there to the content, so a
/// driver may add a file before its folder is known. A wrong number gives false, empty or the
/// default everywhere.
class TFiles {
 public:
  explicit TFiles(TEngine& engine) : FEngine(engine) {}

  TFileArray List;
  int FoundCount = 0;

  IFileTree* Tree = nullptr;  ///< shows the rows; null where nothing does

  std::function<bool(const TFileInfo&)> OnCanBeAdded;
  std::function<void(int)> OnAdded;
  std::function<void(int)> OnBeforeCleared;
  std::function<void(int)> OnBeforeDeepCleared;
  std::function<void()> OnRefreshFileList;
  std::function<bool()> OnGetIsMasterShowing;
  /// Rows went: `newNumbers[old]` is the new number of a row, or `TFileArray::Erased`.
  std::function<void(const std::vector<std::uint32_t>&)> OnNumbersMoved;

  /// The blank state in which a driver starts a record: a ticked folder of that drive.
  static void ClearInfo(TFileInfo& file, int driveNumber);

  /// Enters a file; the result is its number, or -1 when it is refused (a folder that is its own
  /// parent, `OnCanBeAdded`) or memory is out, which leaves `ramFull` true. During a partition
  /// search an object that is known already gives its old number.
  int Add(const TFileInfo& file, std::int64_t parentCluster, bool canIncFoundCount);
  int Add(const TFileInfo& file, std::int64_t parentCluster, bool& ramFull, bool canIncFoundCount);
  bool IsAdded(const TFileInfo& file, std::int64_t parentCluster) const;
  /// The first row of the same drive, parent, kind, name and place; -1 when there is none.
  int GetAddedNumber(const TFileInfo& file, std::int64_t parentCluster) const;
  /// Drops what is kept to find known rows fast.
  void ForgetAdded();

  void DoBeforeAnalyse(int driveNumber);
  /// Gives every parent reference without a folder a numbered folder in the lost-and-found folder, and
  /// breaks circles of folders, so that everything can be reached from the root.
  void DoAfterAnalyse(int driveNumber);
  /// Rows of an analysed drive that no chain of folders leads to from its root: 0, or something is wrong.
  std::int64_t CountUnreached(int driveNumber) const;
  /// The number of the lost-and-found folder of a drive, which is made when missing.
  int AddLostAndFoundDir(int driveNumber);
  /// Makes sure that the tree shows the pseudo-folder of the deep analysis of a drive. Without
  /// `canAddNil` it is collapsed.
  void AddDeepAnalyseDir(int driveNumber, bool canAddNil);
  /// A row that only the folder tree knows (a drive, a custom folder); the result is its number.
  int AddTreeRow(const TFileInfo& row);

  /// Forgets a drive's files. With `deleteDrive` also those without a place in the tree, and the
  /// files of later drives move down by one drive number.
  void Clear(int driveNumber, bool deleteDrive);
  void ClearDeep(int driveNumber);
  void ClearUnselected(int driveNumber);
  /// Removes the rows that `doomed` names.
  void EraseRows(const std::function<bool(const TFileInfo&)>& doomed);
  /// Makes the rows of one drive those of another.
  void MoveToDrive(int from, int to);

  bool IsWrongNumber(std::int64_t number) const {
    return number < 0 || number >= static_cast<std::int64_t>(List.size());
  }
  static bool IsRootDir(const TFileInfo& file) { return file.FirstCluster == SpecialCluster::Root; }
  static bool IsNTFSSystemData(const TFileInfo& file) { return file.FirstCluster == SpecialCluster::NTFSSystemData; }
  static bool IsLostAndFound(const TFileInfo& file) { return file.FirstCluster == SpecialCluster::LostAndFound; }
  static bool IsDeepAnalyse(const TFileInfo& file) { return file.FirstCluster == SpecialCluster::DeepAnalyse; }
  static bool IsUnselected(const TFileInfo& file) { return file.FirstCluster == SpecialCluster::Unselected; }
  bool IsRootDir(int number) const { return !IsWrongNumber(number) && IsRootDir(Info(number)); }
  bool IsLostAndFound(int number) const { return !IsWrongNumber(number) && IsLostAndFound(Info(number)); }
  bool IsCustomFolder(int number) const;
  static bool IsRecycleBin(const TFile& file, std::int64_t parentCluster);

  /// True when a view with this filter shows the entry. A live folder shows with either state, as
  /// it may hold deleted files.
  bool IsFiltered(int number, bool parentDeleted, const TFileFilter& filter) const;
  static bool IsFiltered(bool fileDeleted, bool parentDeleted, bool showExisting, bool showDeleted) {
    return fileDeleted || parentDeleted ? showDeleted : showExisting;
  }

  /// Text of the type column.
  TString GetType(TStringView fileName);
  /// Bytes that the file occupies on its drive.
  std::int64_t GetSizeOnDisk(const TFile& file) const;
  std::int64_t GetSizeInKB(int number) const;
  static constexpr TStringView RefusedCharacters = u"\\/:*?\"<>|";
  /// Position (from 1) of the first character that a target file system may refuse, 0 if none;
  /// the nine characters are tried one after the other: \ / : * ? " < > |
  static int RightName(TStringView fileName);
  /// Forgets cached texts and renames the pseudo-folders.
  void UpdateLanguage();

 private:
  const TFileInfo& Info(int number) const { return List[static_cast<std::size_t>(number)].FileInfo; }
  int DeepAnalyseDir(int driveNumber) const;
  void EraseFiles(const std::function<bool(std::size_t, const TFile&)>& doomed);

  /// Rows by drive, parent, name and kind, made when first asked for: a table of the newest row of
  /// each hash, and for each row the one before it. 8 to 16 bytes a row.
  struct TAddedIndex {
    std::vector<std::uint32_t> Newest;    // a power of two, at least as many as rows
    std::vector<std::uint32_t> Previous;  // by row
  };
  static constexpr std::uint32_t NoRow = 0xFFFFFFFF;

  bool IsSame(std::uint32_t number, const TFileInfo& file, std::int64_t parentCluster) const;
  bool BreakCircles(int driveNumber);
  void FillAddedIndex() const;
  std::uint32_t& NewestOf(const TFileInfo& file, std::int64_t parentCluster) const;

  TEngine& FEngine;
  mutable TAddedIndex FAddedIndex;
  std::map<TString, TString, std::less<>> FFileTypes;  // extension to type text
};

}  // namespace brenlow
