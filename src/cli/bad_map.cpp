// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/bad_map.h"

#include <cerrno>

#include "cli/console.h"
#include "cli/options.h"
#include "core/datetime.h"
#include "core/device/source_guard.h"
#include "core/device_table.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/images/rescue_map.h"
#include "core/sector_reader.h"
#include "shell/sources.h"

namespace brenlow::cli {
namespace {

constexpr std::int64_t KeepInterval = 5000;  // milliseconds

}  // namespace

bool TBadMap::Open() {
  const std::string& path = FOptions.BadMap;
  if (path.empty()) return true;
  FKey = SourceKey(FOptions.Source());
  IDevice* device = FEngine.Devices().Get(FKey);
  const TSourceGuard guard = FEngine.Drives().SourceGuard();
  if (guard.Forbids(path) || guard.Forbids(TRescueMap::SuccessorName(path))) {
    Complain(FOptions.Texts.Utf8(TText::TargetOnSource, {path}));
    return false;
  }
  TRescueMap known(0);
  const int error = TRescueMap::Load(path, known);
  if (error == 0 && device != nullptr && known.Size() == device->Size()) {
    FEngine.Reader().AddKnownFaults(FKey, known);
  } else if (error != ENOENT) {
    Complain(FOptions.Texts.Utf8(TText::ImageMapWrong, {path}));
    return false;
  }
  FIsOpen = true;
  FLastKept = SteadyMilliseconds();
  FEngine.Reader().OnFault = [this] {
    if (SteadyMilliseconds() - FLastKept >= KeepInterval) Keep();
  };
  return true;
}

TBadMap::~TBadMap() {
  if (!FIsOpen) return;
  FEngine.Reader().OnFault = nullptr;
  Keep();
}

void TBadMap::Keep() {
  FLastKept = SteadyMilliseconds();
  const TRescueMap* places = FEngine.Reader().KnownFaults(FKey);
  if (places == nullptr) return;
  const int error = places->Save(FOptions.BadMap);
  if (error != 0 && !FHasFailed)
    Complain(FOptions.Texts.Utf8(TText::ErrorOf, {FOptions.BadMap, SystemErrorText(FOptions.Texts, error)}));
  FHasFailed = error != 0;
}

}  // namespace brenlow::cli
