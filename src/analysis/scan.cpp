// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/scan.h"

#include <utility>

#include "analysis/analysis.h"
#include "analysis/deep/all_fs.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/families.h"

namespace brenlow {
namespace {

/// What the scans of a request need of the engine, and what was there before them.
class TRequestScope {
 public:
  TRequestScope(TEngine& engine, const TScanRequest& request)
      : FEngine(engine),
        FSystems(engine.PartRecSystems),
        FRunning(engine.PartRecRunning),
        FCanFileBeAdded(std::exchange(engine.AllFS().OnCanFileBeAdded, request.WantsType)) {
    engine.PartRecRunning = request.Lost;
    if (!request.Lost) return;
    engine.PartRecSystems = request.Families.Empty() ? ServedFamilies() : request.Families;
    engine.PartRecSystems.Remove(TPartRecSystem::DeepAnalysis);
    if (request.Deep) engine.PartRecSystems.Add(TPartRecSystem::DeepAnalysis);
  }
  ~TRequestScope() {
    FEngine.PartRecSystems = FSystems;
    FEngine.PartRecRunning = FRunning;
    FEngine.AllFS().OnCanFileBeAdded = std::move(FCanFileBeAdded);
  }
  TRequestScope(const TRequestScope&) = delete;
  TRequestScope& operator=(const TRequestScope&) = delete;

 private:
  TEngine& FEngine;
  TPartRecSystems FSystems;
  bool FRunning;
  std::function<bool(TStringView)> FCanFileBeAdded;
};

/// How far the scan of a drive's file systems got; on a disk that is kept with the whole-drive scan.
TAnalyseInformation StateOf(const TDrives& drives, int number) {
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(number)];
  return drives.IsPhysical(number) ? drive.DeepAnalysed : drive.Analysed;
}

}  // namespace

TAnalysingScope::TAnalysingScope(TEngine& engine, int driveNumber) : FEngine(engine), FDrive(driveNumber) {
  engine.AnalyseProgressBase = 0;
  engine.AnalyseProgressScale = 1.0;
  engine.ChangeAnalysingStatus(driveNumber, true);
}

TAnalysingScope::~TAnalysingScope() {
  FEngine.Analysing = false;
  try {
    FEngine.ChangeAnalysingStatus(FDrive, false);
    if (FEngine.OnAnalyseProgress) FEngine.OnAnalyseProgress(0);
  } catch (...) {
    // An exception is on its way already, or there is nobody to tell.
  }
}

bool RunScan(TEngine& engine, const TScanRequest& request) {
  const TDrives& drives = engine.Drives();
  if (drives.IsWrongNumber(request.Drive)) return false;
  const TRequestScope scope(engine, request);
  const auto begin = [&](bool isDeep) {
    if (request.OnBegin) request.OnBegin(isDeep);
  };
  const auto isWhole = [&](TAnalyseInformation state) { return state == TAnalyseInformation::aiFull; };
  if (request.Lost) {
    begin(false);
    AnalyseDrive(engine, request.Drive);
    return isWhole(drives.List[static_cast<std::size_t>(request.Drive)].DeepAnalysed);
  }
  if (request.Fast) {
    begin(false);
    AnalyseDrive(engine, request.Drive);
    if (!isWhole(StateOf(drives, request.Drive))) return false;
  }
  if (!request.Deep) return true;
  begin(true);
  DeepAnalyseDrive(engine, request.Drive, TDeepSizes::ByStructure);
  return isWhole(drives.List[static_cast<std::size_t>(request.Drive)].DeepAnalysed);
}

}  // namespace brenlow
