// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/master_link.h"

#include <algorithm>
#include <memory>

#include "analysis/file_data.h"
#include "core/drives.h"
#include "core/engine.h"
#include "recovery/file_writer.h"
#include "table/files.h"
#include "table/folder_index.h"

namespace brenlow {
namespace {

constexpr int DeepestPath = 100'000;  // folders; ends a climb in a circle

/// The folder index of the drive asked for last; made anew once the file table has changed.
class TFolderIndexCache {
 public:
  const TFolderIndex& Of(const TFiles& files, int driveNumber) {
    if (!FIndex || FDriveNumber != driveNumber || FRows != files.List.size()) {
      FIndex = std::make_unique<TFolderIndex>(files, driveNumber);
      FDriveNumber = driveNumber;
      FRows = files.List.size();
    }
    return *FIndex;
  }

 private:
  std::unique_ptr<TFolderIndex> FIndex;
  int FDriveNumber = -1;
  std::size_t FRows = 0;
};

std::vector<TString> PathOf(const TFiles& files, const TFolderIndex& folders, int fileNumber) {
  std::vector<TString> path;
  std::int64_t parent = files.List[static_cast<std::size_t>(fileNumber)].ParentCluster;
  for (int i = 0; i < DeepestPath; ++i) {
    const int owner = folders.Owner(parent);
    if (owner < 0) break;
    const TFile& folder = files.List[static_cast<std::size_t>(owner)];
    path.emplace_back(folder.FileInfo.strName);
    parent = folder.ParentCluster;
  }
  std::reverse(path.begin(), path.end());
  return path;
}

}  // namespace

const TFileInfo& TRecoveryMasterLink::Info(int fileNumber) const {
  static const TFileInfo none;
  const TFiles& files = FEngine.Files();
  return files.IsWrongNumber(fileNumber) ? none : files.List[static_cast<std::size_t>(fileNumber)].FileInfo;
}

void TRecoveryMasterLink::ResetToDefaults() {
  TFiles& files = FEngine.Files();
  const auto folders = std::make_shared<TFolderIndexCache>();
  IsFileWrongNumber = [&files](int n) { return files.IsWrongNumber(n); };
  GetFileIsFolder = [this](int n) -> bool { return Info(n).blnFolder; };
  GetFileName = [this](int n) { return Info(n).strName; };
  GetFileSize = [this](int n) { return Info(n).aSize; };
  GetFileDeleted = [this](int n) -> bool { return Info(n).blnDeleted; };
  GetFileIconIndex = [this](int n) { return Info(n).IconIndex; };
  GetFileDriveNumber = [this](int n) { return Info(n).aDriveNumber; };
  GetFileFirstCluster = [this](int n) { return Info(n).FirstCluster; };
  GetFileTimes = [this](int n) { return Info(n).TimeStamp; };
  IsFiltered = [&files](int n, bool parentDeleted, const TFileFilter& filter) {
    return files.IsFiltered(n, parentDeleted, filter);
  };
  IsFilteredByState = [](bool fileDeleted, bool parentDeleted, bool showExisting, bool showDeleted) {
    return TFiles::IsFiltered(fileDeleted, parentDeleted, showExisting, showDeleted);
  };
  GetParentClusters = [this](int drive, std::int64_t number) {
    return FEngine.Drives().GetParentClusters(drive, number);
  };
  OwnsContent = [this, &files, folders](int n) {
    if (files.IsWrongNumber(n)) return false;
    return folders->Of(files, Info(n).aDriveNumber).Owner(Info(n).FirstCluster) == n;
  };
  GetFileData = [this, &files](TByteDynArray& result, int n, int adsNumber, std::int64_t start, std::int64_t size) {
    result.clear();
    if (files.IsWrongNumber(n)) return;
    brenlow::GetFileData(FEngine, result, files.List[static_cast<std::size_t>(n)], adsNumber, start, size);
  };
  GetStreams = [this, &files](int n) {
    TADSDynArray streams;
    if (!files.IsWrongNumber(n)) FillADS(FEngine, files.List[static_cast<std::size_t>(n)], streams);
    return streams;
  };
  Recovery = [](TFileWriter& writer, int n, const TTargetFile& target) { return writer.Recovery(n, target); };
  RecoveryAllADS = [](TFileWriter& writer, int n, const TTargetFile& target) { writer.RecoveryAllADS(n, target); };
  GetSelectedFiles.Reset();
  GetFilePath = [this, &files, folders](int n) {
    if (files.IsWrongNumber(n)) return std::vector<TString>();
    return PathOf(files, folders->Of(files, Info(n).aDriveNumber), n);
  };
}

}  // namespace brenlow
