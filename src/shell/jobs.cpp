// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/jobs.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <utility>

#include "analysis/scan.h"
#include "core/device_table.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/families.h"
#include "core/language.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "shell/file_view.h"
#include "shell/places.h"
#include "shell/sources.h"
#include "table/files.h"

namespace brenlow {
namespace {

/// The state of the scan that opening a drive asks for.
TAnalyseInformation ScanState(const TDriveInfo& drive) {
  return drive.DriveTypes.Has(TDriveType::dtPhysical) ? drive.DeepAnalysed : drive.Analysed;
}

/// A flag that is set for as long as this lives, also where an exception ends it.
class TFlag {
 public:
  explicit TFlag(bool& flag) : FFlag(flag) { flag = true; }
  ~TFlag() { FFlag = false; }
  TFlag(const TFlag&) = delete;
  TFlag& operator=(const TFlag&) = delete;

 private:
  bool& FFlag;
};

}  // namespace

/// While it lives, no scan runs but the drives are busy.
class TJobs::TSearching {
 public:
  TSearching(TJobs& jobs, int drive) : FJobs(jobs) {
    jobs.FBusyDrive = drive;
    Set(true);
  }
  ~TSearching() { Set(false); }
  TSearching(const TSearching&) = delete;
  TSearching& operator=(const TSearching&) = delete;

 private:
  void Set(bool searching) {
    FJobs.FSearching = searching;
    FJobs.OnStateChanged();
  }
  TJobs& FJobs;
};

TProgressSnapshot::TKind TJobs::Running() const {
  if (FSearching) {
    return FEngine.Drives().CanSave ? TProgressSnapshot::SavingImage : TProgressSnapshot::SearchingPartitions;
  }
  if (!FEngine.Analysing) return TProgressSnapshot::None;
  if (FEngine.PartRecRunning) return TProgressSnapshot::SearchingPartitions;
  return FDeepRunning ? TProgressSnapshot::DeepAnalysing : TProgressSnapshot::Analysing;
}

void TJobs::FillDrives() {
  FEngine.Drives().Fill();
  TFolders& folders = FEngine.Folders();
  for (int i = 0; i < static_cast<int>(FEngine.Drives().List.size()); ++i) folders.AddDrive(i);
  PTreeNode custom = folders.AddCustomFoldersRoot();
  folders.AddDefaultCustomFolders(custom);
  if (custom != nullptr && custom->Children.empty()) folders.DeleteRootGroupNode(custom->Data);
  FView.Refresh();
}

/// True for a folder that shows nothing before an analysis has run.
bool TJobs::IsBlank(const TFileInfo& folder) const {
  const TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(folder.aDriveNumber)) return false;
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(folder.aDriveNumber)];
  if (TFiles::IsDeepAnalyse(folder)) return drive.DeepAnalysed == TAnalyseInformation::aiNone;
  const bool top = TFiles::IsRootDir(folder) || folder.FirstCluster == TCustomFolder::NotFound;
  return top && !HasResults(drive);
}

bool TJobs::NeedsAnalysis(const TTreeNode& node) const {
  const TFiles& files = FEngine.Files();
  return !files.IsWrongNumber(node.Data) && IsBlank(files.List[static_cast<std::size_t>(node.Data)].FileInfo);
}

/// False while something runs, and with a complaint when the device refuses to be read.
bool TJobs::CanScan(int drive) {
  const TDrives& drives = FEngine.Drives();
  if (FEngine.Analysing || IsRecovering() || FSearching || drives.IsWrongNumber(drive)) return false;
  const TString device = drives.List[static_cast<std::size_t>(drive)].Drive;
  if (FEngine.Devices().Get(device) != nullptr) return true;
  OnComplaint(MountComplaint(FEngine.Language(), DevicePath(device), LastFailure(FEngine.Devices())));
  return false;
}

// ---- scans ----------------------------------------------------------------------------------

bool TJobs::Analyse(PTreeNode node, bool isReopen) {
  TFolders& folders = FEngine.Folders();
  if (!folders.NodeCanBeAnalysed(node)) return false;
  const TFileInfo& info = FEngine.Files().List[static_cast<std::size_t>(node->Data)].FileInfo;
  const int drive = info.aDriveNumber;
  if (!FEngine.Drives().IsDiskIn(drive, true) || !CanScan(drive)) return false;
  if (TFiles::IsDeepAnalyse(info)) {
    AnalyseDeep(drive);
    return true;
  }
  if (isReopen) {
    FEngine.Files().Clear(drive, false);
    node = folders.GetDriveRootNode(drive);  // a folder's own node went with its results
  }
  const bool done = folders.AnalyseNode(node, static_cast<bool>(folders.OnShowAnalyseProgress));
  OnDrivesChanged();
  FView.Refresh();
  return done;
}

void TJobs::AnalyseDeep(int drive, TWantsType wantsType) {
  if (!CanScan(drive)) return;
  FEngine.Reader().RenewBadTime();
  TScanRequest request;
  request.Drive = drive;
  request.Deep = true;
  request.WantsType = std::move(wantsType);
  {
    const TFlag deepRunning(FDeepRunning);
    RunScan(FEngine, request);
  }
  FEngine.Folders().FillDriveNodes(FEngine.Folders().GetDriveRootNode(drive));
  OnDrivesChanged();
  FView.Rebuild();
}

void TJobs::RunMaster(const TMasterChoice& choice) {
  TDrives& drives = FEngine.Drives();
  TFolders& folders = FEngine.Folders();
  if (!CanScan(choice.Drive)) return;
  TWantsType wantsType;
  if (!choice.Extensions.empty()) {
    wantsType = [&](TStringView extension) {
      return std::find(choice.Extensions.begin(), choice.Extensions.end(), extension) != choice.Extensions.end();
    };
  }
  FPlaces.SelectNode(folders.GetDriveRootNode(choice.Drive));
  // On a disk one pass looks for volumes and for content.
  if (choice.Lost || (choice.Deep && drives.IsPhysical(choice.Drive))) {
    TPartRecSystems systems = ServedFamilies();
    if (choice.Deep) systems.Add(TPartRecSystem::DeepAnalysis);
    ScanForPartitions(choice.Drive, systems, wantsType);
  } else {
    bool whole = true;
    if (choice.Fast) {
      Analyse(folders.GetDriveRootNode(choice.Drive), true);
      whole = ScanState(drives.List[static_cast<std::size_t>(choice.Drive)]) == TAnalyseInformation::aiFull;
    }
    if (choice.Deep && whole) AnalyseDeep(choice.Drive, wantsType);
  }
}

void TJobs::FindPartitions(int drive, std::int64_t firstSector, std::int64_t sectorsCount,
                           const TFileSystems& systems) {
  if (!CanScan(drive)) return;
  const TSearching searching(*this, drive);
  FEngine.Drives().Find(drive, firstSector, sectorsCount, systems);
}

void TJobs::ScanForPartitions(int drive, const TPartRecSystems& systems, TWantsType wantsType) {
  if (!CanScan(drive)) return;
  FEngine.Reader().RenewBadTime();
  TScanRequest request;
  request.Drive = drive;
  request.Lost = true;
  request.Deep = systems.Has(TPartRecSystem::DeepAnalysis);
  request.Families = systems;
  request.Families.Remove(TPartRecSystem::DeepAnalysis);
  request.WantsType = std::move(wantsType);
  RunScan(FEngine, request);
  FEngine.Folders().FillDriveNodes(FEngine.Folders().GetDriveRootNode(drive));
  OnDrivesChanged();
  FView.Refresh();
}

/// Not during a search for partitions, which drops most of what it starts.
bool TJobs::ShowNewSubDrives() {
  const TDrives& drives = FEngine.Drives();
  if (Running() != TProgressSnapshot::Analysing || drives.IsWrongNumber(FBusyDrive)) return false;
  bool any = false;
  for (const int sub : drives.List[static_cast<std::size_t>(FBusyDrive)].SubDrives) {
    if (drives.IsEmpty(sub) || FEngine.Folders().GetDriveRootNode(sub) != nullptr) continue;
    any = FEngine.Folders().AddDrive(sub) != nullptr || any;
  }
  return any;
}

// ---- drives and images ----------------------------------------------------------------------

int TJobs::Mount(const std::string& path) {
  TDrives& drives = FEngine.Drives();
  const TString key = SourceKey(path);
  for (int i = 0; i < static_cast<int>(drives.List.size()); ++i) {
    const TDriveInfo& drive = drives.List[static_cast<std::size_t>(i)];
    if (drive.Drive != key || drive.FirstSector != 0 || drive.IsSubDrive) continue;
    if (drives.IsMounted(i)) OnComplaint(FEngine.Language().Utf8(TText::ImageIsMounted, {path}));
    FPlaces.SelectNode(FEngine.Folders().GetDriveRootNode(i));
    return i;
  }
  TMountFailure failure;
  const int number = drives.Mount(key, true, &failure);
  if (number < 0) {
    OnComplaint(MountComplaint(FEngine.Language(), path, failure));
  } else {
    FPlaces.SelectNode(FEngine.Folders().GetDriveRootNode(number));
  }
  return number;
}

int TJobs::CreateVirtual(int drive, std::int64_t firstSector, std::int64_t sectorsCount) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(drive)) return -1;
  const TDriveInfo& parent = drives.List[static_cast<std::size_t>(drive)];
  if (firstSector < 0 || sectorsCount <= 0 || firstSector > parent.SectorsCount - sectorsCount) return -1;
  const int number = drives.CreateVirtual(drive, parent.FirstSector + firstSector, sectorsCount);
  if (number >= 0) FPlaces.SelectNode(FEngine.Folders().GetDriveRootNode(number));
  return number;
}

TImageResult TJobs::CreateImage(int drive, std::int64_t firstSector, std::int64_t sectorsCount,
                                const std::string& fileName, bool compressed, const std::string& mapFile) {
  if (!CanScan(drive)) {
    TImageResult refused;
    refused.SystemError = EIO;
    refused.Path = fileName;
    return refused;
  }
  const TSearching searching(*this, drive);
  FEngine.Reader().ForgetFaults();
  return FEngine.Drives().Save(drive, firstSector, sectorsCount, fileName, compressed, mapFile);
}

void TJobs::AddCustomFolder(const std::string& path) {
  TFolders& folders = FEngine.Folders();
  PTreeNode group = folders.AddCustomFoldersRoot();
  const TString caption = TextFromPath(std::filesystem::path(path).filename().string());
  if (folders.AddCustomFolder(group, path, caption, -1) >= 0) return;
  if (group != nullptr && group->Children.empty()) folders.DeleteRootGroupNode(group->Data);
  OnComplaint(FEngine.Language().Utf8(TText::FolderOnNoDrive, {path}));
}

int TJobs::DriveOfPath(const TString& path) const {
  const std::vector<TDriveInfo>& list = FEngine.Drives().List;
  // The whole device before the volumes on it.
  for (const bool whole : {true, false}) {
    for (std::size_t i = 0; i < list.size(); ++i) {
      const bool named = list[i].Drive == path || list[i].DriveLetter == path;
      if (named && !list[i].IsSubDrive && (!whole || list[i].FirstSector == 0)) return static_cast<int>(i);
    }
  }
  return -1;
}

void TJobs::DevicesChanged() {
  FEngine.Drives().DeviceInserted();
  OnDrivesChanged();
  FView.Rebuild();
}

void TJobs::CloseDisks(const TIntegerDynArray& fileNumbers, bool onlyMounted) {
  const TFiles& files = FEngine.Files();
  TDrives& drives = FEngine.Drives();
  TIntegerDynArray numbers;
  for (const int number : fileNumbers) {
    if (!files.IsRootDir(number)) continue;
    const int drive = files.List[static_cast<std::size_t>(number)].FileInfo.aDriveNumber;
    if (drives.CanCloseDisk(drive) && (!onlyMounted || drives.IsMounted(drive))) numbers.push_back(drive);
  }
  drives.CloseDisks(std::move(numbers));
  FView.Refresh();
}

}  // namespace brenlow
