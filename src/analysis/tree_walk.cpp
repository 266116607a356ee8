// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/tree_walk.h"

#include <algorithm>
#include <vector>

#include "core/drives.h"
#include "core/engine.h"
#include "table/files.h"
#include "table/folder_index.h"

namespace brenlow {
namespace {

class TWalker {
 public:
  TWalker(TEngine& engine, int driveNumber, ITreeVisitor& visitor)
      : FFiles(engine.Files()),
        FDrives(engine.Drives()),
        FDriveNumber(driveNumber),
        FVisitor(visitor),
        FFolders(FFiles, driveNumber) {}

  void Run() {
    Push(SpecialCluster::Root, -1, false);
    while (!FStack.empty()) {
      TLevel& level = FStack.back();
      if (level.Next == level.Files.size()) {
        Pop();
        continue;
      }
      const auto number = static_cast<int>(level.Files[level.Next++]);
      const TFile& file = FFiles.List[static_cast<std::size_t>(number)];
      const std::size_t length = FPath.size();
      if (!FPath.empty()) FPath += u'/';
      FPath += file.FileInfo.strName;
      const bool parentDeleted = level.Deleted;
      const TTreeEntry entry{number, &file, FPath, static_cast<int>(FStack.size()) - 1, parentDeleted};
      if (!file.FileInfo.blnFolder) {
        if (!FVisitor.File(entry)) return;
        FPath.resize(length);
        continue;
      }
      if (!FVisitor.EnterFolder(entry)) return;
      const bool owns = FFolders.Owner(file.FileInfo.FirstCluster) == number;
      Push(owns ? file.FileInfo.FirstCluster : SpecialCluster::NoKnownPlace, number,
           parentDeleted || file.FileInfo.blnDeleted);
      FStack.back().PathLength = length;
    }
  }

 private:
  struct TLevel {
    TInt64DynArray Files;
    std::size_t Next = 0;
    int FolderNumber = -1;
    std::size_t PathLength = 0;  // of the path above the folder
    bool Deleted = false;
  };

  void Push(std::int64_t parent, int folderNumber, bool deleted) {
    TLevel level;
    level.Files = FDrives.GetParentClusters(FDriveNumber, parent);
    std::erase_if(level.Files, [&](std::int64_t n) { return FFiles.IsWrongNumber(n); });
    std::stable_partition(level.Files.begin(), level.Files.end(), [&](std::int64_t n) {
      return !FFiles.List[static_cast<std::size_t>(n)].FileInfo.blnDeleted;
    });
    level.FolderNumber = folderNumber;
    level.Deleted = deleted;
    FStack.push_back(std::move(level));
  }

  void Pop() {
    const int number = FStack.back().FolderNumber;
    const std::size_t length = FStack.back().PathLength;
    FStack.pop_back();
    if (number < 0) return;
    const bool parentDeleted = FStack.back().Deleted;
    FVisitor.LeaveFolder({number, &FFiles.List[static_cast<std::size_t>(number)], FPath,
                          static_cast<int>(FStack.size()) - 1, parentDeleted});
    FPath.resize(length);
  }

  TFiles& FFiles;
  TDrives& FDrives;
  int FDriveNumber;
  ITreeVisitor& FVisitor;
  TFolderIndex FFolders;
  std::vector<TLevel> FStack;
  TString FPath;
};

}  // namespace

void WalkTree(TEngine& engine, int driveNumber, ITreeVisitor& visitor) { TWalker(engine, driveNumber, visitor).Run(); }

}  // namespace brenlow
