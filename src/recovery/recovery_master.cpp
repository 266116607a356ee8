// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/recovery_master.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <utility>

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
  ChangePath(std::string(Choices.Path));
}

void TfrmSaveOptions::ChangePath(std::string path) {
  Choices.Path = std::move(path);
  const std::int64_t free = FreeSpaceOf(Choices.Path);
  SpaceAvailableText = free < 0 ? "" : FLanguage.Utf8(TText::SaveSpaceAvailable, {SizeText(free)});
}

void TfrmSaveOptions::ApplySettings(bool toForm) {
  if (!toForm) {
    static_cast<TSaveChoices&>(FSettings) = Choices;
    return;
  }
  Choices = FSettings;
  if (!Choices.Path.starts_with('/')) {
    const char* home = std::getenv("HOME");
    Choices.Path = std::string(home == nullptr ? "" : home) + "/" + FLanguage.Utf8(TText::SaveDefaultFolder);
  }
  Choices.UnknownSymbols = Choices.UnknownSymbols.substr(0, 1);
  const bool usable = !Choices.UnknownSymbols.empty() && TFiles::RightName(Choices.UnknownSymbols) == 0;
  if (!usable) Choices.UnknownSymbols = u"_";
}

bool TfrmSaveOptions::TypeSymbol(char16_t key) {
  if (TFiles::RightName(TStringView(&key, 1)) != 0) return false;
  if (key >= u' ') Choices.UnknownSymbols = key;  // backspace and enter pass
  return true;
}

void TfrmSaveOptions::Take(const TSaveChoices& choices) {
  const TString symbols = std::exchange(Choices, choices).UnknownSymbols;
  Choices.UnknownSymbols = symbols;
  if (!choices.UnknownSymbols.empty()) TypeSymbol(choices.UnknownSymbols.front());
  ChangePath(choices.Path);
}

// ---- pages ----------------------------------------------------------------------------------

TfRecoveryMaster::TfRecoveryMaster(TEngine& engine, const TRecoveryMasterLink& link, TRecoverySettings& settings,
                                   IRecoveryQuestions& questions, TRecoverySender sender)
    : Options(engine.Language(), settings),
      FEngine(engine),
      FLink(link),
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
  RecoverType = FSettings.Type;
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
  FSettings.Type = RecoverType;
  if (RecoverType == TRecoverType::rtCreateZIP) {
    ShowPage(ZIPOptions);
  } else if (RecoverType == TRecoverType::rtUploadFTP) {
    ShowPage(FTPOptions);
  } else {
    TfrmSaveProgress measure(FEngine, FLink, TRecoveryOptions(Options.Choices), nullptr);
    measure.Filter = Filter;
    measure.PrepareRecovery(IsMasterResults);
    Options.PrepareInfo(measure.RecoverySize);
    ShowPage(SaveOptions);
  }
}

void TfRecoveryMaster::LeaveSaveOptions() {
  const bool isOnSource = IsOnSource();
  if ((IsSameDrive() || isOnSource) && !FQuestions.SaveToSameDrive()) return;
  Options.ApplySettings(false);
  TRecoveryOptions options(Options.Choices);
  options.MayLieOnSource = isOnSource;
  FProgress = std::make_unique<TfrmSaveProgress>(FEngine, FLink, options, &FQuestions);
  FProgress->Filter = Filter;
  FProgress->PrepareRecovery(IsMasterResults);
  if (!FProgress->MayBeWritten()) return;
  FTargetError = FProgress->PrepareInfo();
  if (FTargetError != 0) return;
  FProgress->PrepareRecovery(IsMasterResults);
  ShowPage(SaveProgress);
  if (OnBeforeRecovery) OnBeforeRecovery(*FProgress);
  FEngine.Reader().RenewBadTime();
  FEngine.Recovering = true;
  FProgress->Recovery(IsMasterResults);
  FEngine.Recovering = false;
  FProgress->CloseInfo();
  FSettings.CanReplaceSymbols = FProgress->Options().CanReplaceSymbols;
  FSettings.UnknownSymbols = FProgress->Options().UnknownSymbols;
  ShowPage(Finish);
}

/// True when the target is on a device that results came from, mounted or not.
bool TfRecoveryMaster::IsOnSource() const { return FLink.SourceGuard().LiesOnSource(Options.Choices.Path); }

/// The warning concerns what the user sees as one drive: the mounted volume in focus.
bool TfRecoveryMaster::IsSameDrive() const {
  const bool applies = FRecoverySender == TRecoverySender::rsFolders ||
                       (FRecoverySender == TRecoverySender::rsFiles && !IsSearchResults);
  const TDrives& drives = FEngine.Drives();
  if (!applies || drives.IsWrongNumber(drives.Current)) return false;
  const TDriveInfo& current = drives.List[static_cast<std::size_t>(drives.Current)];
  const std::size_t first = TDrives::IsFloppy(drives.List.front()) ? 1 : 0;
  if (drives.List.size() - first < 2 || current.DriveLetter.empty()) return false;
  return OnSameVolume(Options.Choices.Path, PathFromText(current.DriveLetter));
}

}  // namespace brenlow
