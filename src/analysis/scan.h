// SPDX-License-Identifier: GPL-3.0-or-later
// One scan as users ask for it, and the scopes that set what a scan needs and take it back, however it ends.
#pragma once

#include <functional>

#include "core/types.h"

namespace brenlow {

class TEngine;

/// Whether files of an extension (".jpg") are wanted by their content; unset for all.
using TWantsType = std::function<bool(TStringView extension)>;

struct TScanRequest {
  int Drive = -1;
  /// The file system of the drive, or those of a disk's volumes.
  bool Fast = false;
  /// Every sector, for files by their content. After `Fast` unless that was stopped; with `Lost` in the same
  /// pass.
  bool Deep = false;
  /// Every sector, for volumes that no table tells of. Takes the place of `Fast`.
  bool Lost = false;
  /// What `Lost` looks for; all that have a driver when empty.
  TPartRecSystems Families;
  TWantsType WantsType;
  /// Called before each scan of the request: the deep one has its own progress.
  std::function<void(bool isDeep)> OnBegin;
};

/// Runs the scans of a request. False when it was stopped (`TEngine::Analysing` cleared); what was found stays.
/// An exception from a callback leaves nothing behind but what was found.
bool RunScan(TEngine& engine, const TScanRequest& request);

/// A scan is running: sets `TEngine::Analysing` and the progress of a whole scan, and tells those who watch; at the
/// end takes it back, and sets the progress to 0.
class TAnalysingScope {
 public:
  TAnalysingScope(TEngine& engine, int driveNumber);
  ~TAnalysingScope();
  TAnalysingScope(const TAnalysingScope&) = delete;
  TAnalysingScope& operator=(const TAnalysingScope&) = delete;

 private:
  TEngine& FEngine;
  int FDrive;
};

}  // namespace brenlow
