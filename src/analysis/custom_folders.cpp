// SPDX-License-Identifier: GPL-3.0-or-later
// The part of the folder tree that offers folders of the host system as starting points.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "analysis/folders.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/text.h"
#include "table/files.h"

namespace brenlow {
namespace {

/// The drive whose mount point is the longest beginning of a path; -1 when there is none.
int DriveOfPath(const TDrives& drives, const std::string& path) {
  int best = -1;
  std::size_t longest = 0;
  for (int i = 0; i < static_cast<int>(drives.List.size()); ++i) {
    const std::string mount = PathFromText(drives.List[static_cast<std::size_t>(i)].DriveLetter);
    const bool above = mount == "/" || path == mount || path.starts_with(mount + "/");
    if (mount.empty() || !above || mount.size() <= longest) continue;
    longest = mount.size();
    best = i;
  }
  return best;
}

/// The user's folders as the desktop standard names them (xdg-user-dirs: user-dirs.dirs).
std::vector<std::string> UserFolders(const std::string& home) {
  std::vector<std::string> folders{home};
  const char* config = std::getenv("XDG_CONFIG_HOME");
  std::ifstream file((config != nullptr ? config : home + "/.config") + std::string("/user-dirs.dirs"));
  for (std::string line; std::getline(file, line);) {
    const std::size_t start = line.find("=\"");
    if (!line.starts_with("XDG_") || start == std::string::npos || !line.ends_with('"')) continue;
    std::string path = line.substr(start + 2, line.size() - start - 3);
    if (path.starts_with("$HOME/")) path.replace(0, 5, home);
    if (std::find(folders.begin(), folders.end(), path) == folders.end()) folders.push_back(path);
  }
  return folders;
}

/// The folder of that name below a parent; live before deleted, equal before equal but for case.
std::int64_t FindFolder(TEngine& engine, int drive, std::int64_t parent, const TString& name) {
  int bestRank = 0;
  std::int64_t best = TCustomFolder::NotFound;
  for (const std::int64_t number : engine.Drives().GetParentFolders(drive, parent)) {
    if (engine.Files().IsWrongNumber(number)) continue;
    const TFileInfo& info = engine.Files().List[static_cast<std::size_t>(number)].FileInfo;
    if (LowerCase(info.strName) != LowerCase(name)) continue;
    const int rank = (info.strName == name ? 2 : 1) + (info.blnDeleted ? 0 : 2);
    if (rank <= bestRank) continue;
    bestRank = rank;
    best = info.FirstCluster;
  }
  return best;
}

}  // namespace

void TFolders::AddDefaultCustomFolders(PTreeNode parent) {
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home != '/') return;
  for (const std::string& path : UserFolders(home)) {
    std::error_code error;
    if (!std::filesystem::is_directory(path, error)) continue;
    const TString caption = path == home ? FEngine.Language()[TText::HomeFolder]
                                         : TextFromPath(std::filesystem::path(path).filename().string());
    AddCustomFolder(parent, path, caption, -1);
  }
}

int TFolders::AddCustomFolder(PTreeNode parent, const std::string& path, TStringView caption, int iconIndex) {
  const int drive = DriveOfPath(FEngine.Drives(), path);
  if (FolderTreeView == nullptr || drive < 0) return -1;
  TCustomFolder folder{path, TString(caption), iconIndex, -1, nullptr};
  folder.TN = AddParent(caption, drive, TCustomFolder::NotFound, iconIndex, parent);
  folder.FileIndex = static_cast<int>(folder.TN->Data);
  AddNil(folder.TN);
  CustomFolders.push_back(std::move(folder));
  return static_cast<int>(CustomFolders.size()) - 1;
}

TCustomFolder* TFolders::CustomFolderOf(std::int64_t fileNumber) {
  const auto found = std::find_if(CustomFolders.begin(), CustomFolders.end(),
                                  [&](const TCustomFolder& folder) { return folder.FileIndex == fileNumber; });
  return found == CustomFolders.end() ? nullptr : &*found;
}

bool TFolders::IsCustomFolder(int fileNumber) const {
  return std::any_of(CustomFolders.begin(), CustomFolders.end(),
                     [&](const TCustomFolder& folder) { return folder.FileIndex == fileNumber; });
}

int TFolders::CustomFoldersInDrive(int driveNumber) const {
  return static_cast<int>(std::count_if(CustomFolders.begin(), CustomFolders.end(), [&](const TCustomFolder& folder) {
    const TFileInfo* info = InfoOf(folder.TN);
    return info != nullptr && info->aDriveNumber == driveNumber;
  }));
}

/// Gives the row of a custom folder the place that its path has on the analysed drive.
void TFolders::ResolveCustomFolder(TCustomFolder& folder) {
  TFileInfo& row = FEngine.Files().List[static_cast<std::size_t>(folder.FileIndex)].FileInfo;
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(row.aDriveNumber)];
  const std::filesystem::path below =
      std::filesystem::path(folder.Path).lexically_relative(PathFromText(drive.DriveLetter));
  std::int64_t place = SpecialCluster::Root;
  for (const std::filesystem::path& name : below) {
    if (name == ".") continue;
    place = FindFolder(FEngine, row.aDriveNumber, place, TextFromPath(name.string()));
    if (place == TCustomFolder::NotFound) break;
  }
  row.FirstCluster = place;
}

void TFolders::UpdateCustomFolders(PTreeNode parent, int driveNumber) {
  for (TCustomFolder& folder : CustomFolders) {
    const TFileInfo* info = InfoOf(folder.TN);
    if (info == nullptr || info->aDriveNumber != driveNumber) continue;
    if (parent != nullptr && folder.TN->Parent != parent) continue;
    ResolveCustomFolder(folder);
    if (folder.TN->HasNil) FillNode(folder.TN);
    FillNodes(folder.TN, false);
  }
}

bool TFolders::AnalyseCustomFolder(TCustomFolder& folder, bool canShowProgress) {
  const int driveNumber = FEngine.Files().List[static_cast<std::size_t>(folder.FileIndex)].FileInfo.aDriveNumber;
  const TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return true;
  if (drives.List[static_cast<std::size_t>(driveNumber)].Analysed == TAnalyseInformation::aiNone) {
    AnalyseNode(GetDriveRootNode(driveNumber), canShowProgress);
  }
  UpdateCustomFolders(nullptr, driveNumber);
  return true;
}

}  // namespace brenlow
