// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/recovery_master.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "core/device/source_guard.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/sector_reader.h"
#include "core/sizes.h"
#include "core/text.h"
#include "recovery/questions.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr std::int64_t LargestFATFile = 0xFFFFFFFF;  // bytes

std::filesystem::path NearestFolder(const std::string& path) {
  std::error_code error;
  std::filesystem::path at(path);
  if (!at.is_absolute()) return {};
  while (!std::filesystem::exists(at, error) && at.has_relative_path()) at = at.parent_path();
  return at;
}

bool OnSameVolume(const std::string& path, const std::string& mountPoint) {
  struct stat a {
  }, b{};
  const std::filesystem::path nearest = NearestFolder(path);
  return !nearest.empty() && ::stat(nearest.c_str(), &a) == 0 && ::stat(mountPoint.c_str(), &b) == 0 &&
         a.st_dev == b.st_dev;
}

}  // namespace

std::int64_t FreeSpaceOf(const std::string& path) {
  struct statvfs status {};
  const std::filesystem::path nearest = NearestFolder(path);
  if (nearest.empty() || ::statvfs(nearest.c_str(), &status) != 0) return -1;
  return static_cast<std::int64_t>(status.f_bavail) * static_cast<std::int64_t>(status.f_frsize);
}

// ---- options --------------------------------------------------------------------------------

void TfrmSaveOptions::PrepareInfo(std::int64_t spaceRequired) {
  SpaceRequiredText = FLanguage.Utf8(TText::SaveSpaceRequired, {SizeText(spaceRequired)});
  ChangePath(Path);
}

void TfrmSaveOptions::ChangePath(std::string path) {
  Path = std::move(path);
  const std::int64_t free = FreeSpaceOf(Path);
  SpaceAvailableText = free < 0 ? "" : FLanguage.Utf8(TText::SaveSpaceAvailable, {SizeText(free)});
}

void TfrmSaveOptions::ApplySettings(bool toForm) {
  if (toForm) {
    // A path of this system begins with a slash; the default of the settings names none.
    const char* home = std::getenv("HOME");
    const std::string word = FLanguage.Utf8(TText::SaveDefaultFolder);
    Path = FSettings.Path.starts_with('/') ? FSettings.Path : std::string(home == nullptr ? "" : home) + "/" + word;
    RestoreFolders = FSettings.Folders;
    ADS = FSettings.ADS;
    CanReplaceSymbols = FSettings.CanReplaceSymbols;
    UnknownSymbols = FromUtf8(FSettings.UnknownSymbols).substr(0, 1);
    if (UnknownSymbols.empty() || TFiles::RightName(UnknownSymbols) != 0) UnknownSymbols = u"_";
  } else {
    FSettings.Path = Path;
    FSettings.Folders = RestoreFolders;
    FSettings.ADS = ADS;
    FSettings.CanReplaceSymbols = CanReplaceSymbols;
    FSettings.UnknownSymbols = ToUtf8(UnknownSymbols);
  }
}

bool TfrmSaveOptions::TypeSymbol(char16_t key) {
  if (TFiles::RightName(TStringView(&key, 1)) != 0) return false;
  if (key >= u' ') UnknownSymbols = key;  // backspace and enter pass
  return true;
}

TRecoveryOptions TfrmSaveOptions::Options() const {
  TRecoveryOptions options;
  options.Path = Path;
  options.RestoreFolders = RestoreFolders;
  options.ADS = ADS;
  options.CanReplaceSymbols = CanReplaceSymbols;
  options.UnknownSymbols = UnknownSymbols;
  return options;
}

// ---- pages ----------------------------------------------------------------------------------

TfRecoveryMaster::TfRecoveryMaster(TEngine& engine, TRecoverySettings& settings, IRecoveryQuestions& questions,
                                   TRecoverySender sender)
    : Link(engine),
      Options(engine.Language(), settings),
      FEngine(engine),
      FSettings(settings),
      FQuestions(questions),
      FRecoverySender(sender) {
  if (sender == TRecoverySender::rsRecoveryList) Filter = {true, true, true, false, false, false, false, false, false};
}

void TfRecoveryMaster::ShowPage(int page) {
  FPage = page;
  if (OnPage) OnPage(page);
}

void TfRecoveryMaster::Show() {
  Remember = FSettings.Remember;
  if (FSettings.Type >= 0 && FSettings.Type <= 2) RecoverType = static_cast<TRecoverType>(FSettings.Type);
  ShowPage(OutputKind);
  if (Remember) Next();
}

void TfRecoveryMaster::Next() {
  switch (FPage) {
    case OutputKind:
      LeaveOutputKind();
      break;
    case SaveOptions:
      LeaveSaveOptions();
      break;
    case SaveProgress:
      if (FQuestions.CancelRecovery()) FEngine.Recovering = false;
      break;
    default:
      break;
  }
}

void TfRecoveryMaster::LeaveOutputKind() {
  FSettings.Remember = Remember;
  FSettings.Type = static_cast<int>(RecoverType);
  if (RecoverType == TRecoverType::rtCreateZIP) {
    ShowPage(ZIPOptions);
  } else if (RecoverType == TRecoverType::rtUploadFTP) {
    ShowPage(FTPOptions);
  } else {
    TfrmSaveProgress measure(FEngine, Link, Options.Options(), nullptr);
    measure.Filter = Filter;
    measure.PrepareRecovery(IsMasterResults);
    FLargerThanFAT = FLargerThanFAT && measure.RecoverySize > LargestFATFile;
    Options.PrepareInfo(measure.RecoverySize);
    ShowPage(SaveOptions);
  }
}

void TfRecoveryMaster::LeaveSaveOptions() {
  const bool isOnSource = IsOnSource();
  if ((IsSameDrive() || isOnSource) && !FQuestions.SaveToSameDrive()) return;
  Options.ApplySettings(false);
  TRecoveryOptions options = Options.Options();
  options.MayLieOnSource = isOnSource;
  FProgress = std::make_unique<TfrmSaveProgress>(FEngine, Link, options, &FQuestions);
  FProgress->Filter = Filter;
  FProgress->PrepareRecovery(IsMasterResults);
  if (!FProgress->MayBeWritten()) return;
  FTargetError = FProgress->PrepareInfo();
  if (FTargetError != 0) return;
  if (FLargerThanFAT && FProgress->Target().IsFAT32() && !FQuestions.LargerThanFAT()) {
    FProgress.reset();
    return;
  }
  FProgress->PrepareRecovery(IsMasterResults);
  ShowPage(SaveProgress);
  if (OnBeforeRecovery) OnBeforeRecovery(*FProgress);
  FEngine.Reader().RenewBadTime();
  FEngine.Recovering = true;
  FProgress->Recovery(IsMasterResults);
  FEngine.Recovering = false;
  FProgress->CloseInfo();
  FSettings.CanReplaceSymbols = FProgress->Options().CanReplaceSymbols;
  FSettings.UnknownSymbols = ToUtf8(FProgress->Options().UnknownSymbols);
  ShowPage(Finish);
}

/// True when the target lies on a device that results came from, mounted or not.
bool TfRecoveryMaster::IsOnSource() const { return FEngine.Drives().SourceGuard().LiesOnSource(Options.Path); }

/// The warning concerns what the user sees as one drive: the mounted volume in focus.
bool TfRecoveryMaster::IsSameDrive() const {
  const bool applies = FRecoverySender == TRecoverySender::rsFolders ||
                       (FRecoverySender == TRecoverySender::rsFiles && !IsSearchResults);
  const TDrives& drives = FEngine.Drives();
  if (!applies || drives.IsWrongNumber(drives.Current)) return false;
  const TDriveInfo& current = drives.List[static_cast<std::size_t>(drives.Current)];
  const std::size_t first = TDrives::IsFloppy(drives.List.front()) ? 1 : 0;
  if (drives.List.size() - first < 2 || current.DriveLetter.empty()) return false;
  return OnSameVolume(Options.Path, PathFromText(current.DriveLetter));
}

}  // namespace brenlow
