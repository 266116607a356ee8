// SPDX-License-Identifier: GPL-3.0-or-later
// What the window does with drives: scans, searches, images, mounting and closing. One job runs at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "analysis/folders.h"
#include "analysis/scan.h"
#include "core/file_records.h"
#include "core/images/image_writer.h"
#include "core/types.h"
#include "shell/snapshots.h"

namespace brenlow {

class TEngine;
class TFileView;
class TPlaces;

/// What the analysis wizard was told to do.
struct TMasterChoice {
  int Drive = -1;
  bool Fast = true;   ///< the file system; on a disk, those of its volumes
  bool Deep = false;  ///< every sector, by content
  bool Lost = false;  ///< every sector, for lost partitions
  /// Extensions (".jpg") that the deep analysis looks for; empty for all.
  std::vector<TString> Extensions;
};

class TJobs {
 public:
  TJobs(TEngine& engine, TPlaces& places, TFileView& view) : FEngine(engine), FPlaces(places), FView(view) {}

  // Set by the owner.
  std::function<bool()> IsRecovering;  ///< while a recovery runs, no job begins
  /// A job begins or ends.
  std::function<void()> OnStateChanged;
  std::function<void()> OnDrivesChanged;
  /// What could not be done, and what the user can do about it.
  std::function<void(const std::string&)> OnComplaint;

  /// What runs, and on which drive.
  TProgressSnapshot::TKind Running() const;
  int BusyDrive() const { return FBusyDrive; }
  void SetBusyDrive(int drive) { FBusyDrive = drive; }
  /// A search for partitions runs, or an image is written.
  bool IsSearching() const { return FSearching; }

  /// Lists the system's drives and puts them into the tree.
  void FillDrives();
  /// The only way in which a drive or a folder node is analysed. `isReopen` throws its results away first. On the
  /// folder of the deep analysis that scan runs.
  bool Analyse(PTreeNode node, bool isReopen);
  void AnalyseDeep(int drive, TWantsType wantsType = nullptr);
  /// All that the wizard was told to do, one after another until the user stops it.
  void RunMaster(const TMasterChoice& choice);
  /// Mounts an image and shows it; its drive number, or -1.
  int Mount(const std::string& path);
  /// The quick search for partitions: sectors from the start of the drive.
  void FindPartitions(int drive, std::int64_t firstSector, std::int64_t sectorsCount, const TFileSystems& systems);
  /// The thorough one.
  void ScanForPartitions(int drive, const TPartRecSystems& systems, TWantsType wantsType = nullptr);
  /// Puts volumes of a disk under analysis into the tree as soon as something was found on them. True when there are
  /// new ones.
  bool ShowNewSubDrives();
  /// A drive over sectors of another one, counted from that drive's start; its number, or -1.
  int CreateVirtual(int drive, std::int64_t firstSector, std::int64_t sectorsCount);
  TImageResult CreateImage(int drive, std::int64_t firstSector, std::int64_t sectorsCount, const std::string& fileName,
                           bool compressed, const std::string& mapFile);
  void AddCustomFolder(const std::string& path);
  /// Closes the drives among these rows, as far as they can be; with `onlyMounted` only images.
  void CloseDisks(const TIntegerDynArray& fileNumbers, bool onlyMounted);
  /// The drive of a device path, or of a drive's key; -1 when there is none.
  int DriveOfPath(const TString& path) const;
  /// Devices came or went.
  void DevicesChanged();

  /// True for a folder that shows nothing before an analysis has run.
  bool IsBlank(const TFileInfo& folder) const;
  bool NeedsAnalysis(const TTreeNode& node) const;

 private:
  class TSearching;
  bool CanScan(int drive);

  TEngine& FEngine;
  TPlaces& FPlaces;
  TFileView& FView;
  bool FSearching = false;
  bool FDeepRunning = false;
  int FBusyDrive = -1;
};

}  // namespace brenlow
