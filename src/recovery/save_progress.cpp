// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/save_progress.h"

#include <algorithm>
#include <cerrno>

#include "core/engine.h"
#include "core/text.h"
#include "recovery/long_path.h"
#include "recovery/questions.h"
#include "recovery/safe_name.h"
#include "table/files.h"

namespace brenlow {

TString WithoutRefusedCharacters(TString name, char16_t replacement) {
  for (auto c = name.rbegin(); c != name.rend(); ++c) {
    if (TFiles::RefusedCharacters.find(*c) != TStringView::npos) *c = replacement;
  }
  return name;
}

TfrmSaveProgress::TfrmSaveProgress(TEngine& engine, const TRecoveryMasterLink& link, const TRecoveryOptions& options,
                                   IRecoveryQuestions* questions)
    : FEngine(engine),
      FLink(link),
      FOptions(options),
      FQuestions(questions),
      FWriter(engine, link, FTarget, FOptions, questions) {
  FWriter.OnProgress = [this](std::int64_t size) { SetRecoveryProgress(size); };
  FWriter.OnMoreToCome = [this](std::int64_t size) { AddRecoveryProgress(size); };
}

int TfrmSaveProgress::PrepareInfo() {
  FRenameResult = TRenameResult::rrSkip;
  CurrentRecoveringFile = -1;
  RecoveredSize = RecoverySize = RecoveryFiles = ListedSize = 0;
  FMeasuredDrives.clear();
  FOpenPlaces.clear();
  FShownRatio = 0;
  FSummary = TRecoverySummary();
  FPlaces.clear();
  return FTarget.Open(FOptions.Path, FLink.SourceGuard(), FOptions.MayLieOnSource);
}

void TfrmSaveProgress::PrepareRecovery(bool isMasterResults) { Walk(true, isMasterResults, TTargetTree::Root); }

void TfrmSaveProgress::Recovery(bool isMasterResults, TStringView subfolder) {
  FLink.SettlePlaces(FOpenPlaces);
  FOpenPlaces.clear();
  TPlace start = TTargetTree::Root;
  if (!subfolder.empty()) start = FTarget.Folder(start, subfolder, {}, true);
  Walk(false, isMasterResults, start);
  FSummary.StreamsWritten = FWriter.StreamsWritten;
  FSummary.StreamsLeft = FWriter.StreamsLeft;
  FSummary.StreamsFailed = FWriter.StreamsFailed;
}

void TfrmSaveProgress::CloseInfo() {
  FTarget.SetFolderTimes();
  FTarget.Close();
}

// ---- progress -------------------------------------------------------------------------------

void TfrmSaveProgress::SetRecoveryProgress(std::int64_t size) {
  RecoveredSize += size;
  FSummary.Bytes += size;
  const double ratio =
      RecoverySize > 0 ? std::min(static_cast<double>(RecoveredSize) / static_cast<double>(RecoverySize), 1.0) : 0;
  if (ratio <= FShownRatio) return;
  FShownRatio = ratio;
  if (OnProgress) OnProgress(ratio, RecoveredSize);
}

bool TfrmSaveProgress::GoOn() {
  FEngine.Pump();
  return FEngine.Recovering;
}

// ---- the walk -------------------------------------------------------------------------------

void TfrmSaveProgress::Walk(bool measure, bool isMasterResults, TPlace start) {
  FSkipAllNames = false;
  FEntered.clear();
  FSkipped.clear();
  TSelectedFiles selected;
  FLink.GetSelectedFiles(selected, Filter);
  // Folders whose content shows under another entry come last: it may have been written by then.
  std::stable_partition(selected.begin(), selected.end(), [&](const TSelectedFile& entry) {
    return !FLink.GetFileIsFolder(entry.FileIndex) || FLink.OwnsContent(entry.FileIndex);
  });
  if (!measure) {
    const bool oneFile = selected.size() == 1 && !FLink.GetFileIsFolder(selected.front().FileIndex);
    CurrentRecoveringFile = oneFile ? selected.front().FileIndex : -1;
  }
  for (const TSelectedFile& entry : selected) {
    if (FLink.IsFileWrongNumber(entry.FileIndex)) continue;
    // Folders and files of such a list come from anywhere: those of one name must stay apart.
    const bool rebuild = !measure && FOptions.RestoreFolders && isMasterResults;
    const TPlace place = rebuild ? PlaceOf(FLink.GetFilePath(entry.FileIndex), start) : start;
    if (FLink.GetFileIsFolder(entry.FileIndex)) {
      FolderStep(entry.FileIndex, place, entry.blnDeleted, measure);
    } else if (FLink.IsFiltered(entry.FileIndex, entry.blnDeleted, Filter)) {
      FileStep(entry.FileIndex, place, entry.blnDeleted, measure);
    }
    // A measurement is not a recovery: nobody can have stopped it.
    if (!GoOn() && !measure) {
      FSummary.Stopped = true;
      return;
    }
  }
}

/// A folder on the target by the names of the folders from `start` down.
TfrmSaveProgress::TPlace TfrmSaveProgress::PlaceOf(const std::vector<TString>& folders, TPlace start) {
  TPlace place = start;
  TString path = NumberText(start);
  for (const TString& name : folders) {
    path += u'/' + name;
    const auto [known, isNew] = FPlaces.try_emplace(path, place);
    if (isNew) known->second = FTarget.Folder(place, name, {}, true);
    place = known->second;
  }
  return place;
}

void TfrmSaveProgress::FolderStep(int folderNumber, TPlace place, bool parentDeleted, bool measure) {
  const bool restore = !measure && FOptions.RestoreFolders;
  TPlace start = place;
  bool skipped = false;
  if (restore) {
    TString name(FLink.GetFileName(folderNumber));
    skipped = !RenameStep(name, true);
    start = FTarget.Folder(place, name, FLink.GetFileTimes(folderNumber));
  }
  const bool isNew = EnterFirst(folderNumber, skipped);
  std::deque<TWaiting> waiting{{folderNumber, start, parentDeleted, isNew, skipped}};
  while (!waiting.empty()) {
    const TWaiting folder = waiting.front();
    waiting.pop_front();
    const bool make = restore && !folder.Skipped;
    if (make && FLink.IsFiltered(folder.FolderNumber, folder.ParentDeleted, Filter)) FTarget.Enter(folder.Place);
    if (folder.HasContent) FolderContent(folder, place, measure, waiting);
    if (!FEngine.Recovering && !measure) return;
  }
}

/// Notes that a folder's content is walked; false when it was already. Damaged folders may lie
/// within each other.
bool TfrmSaveProgress::EnterFirst(int folderNumber, bool skipped) {
  const auto firstCluster = static_cast<std::uint64_t>(FLink.GetFileFirstCluster(folderNumber));
  const auto key = static_cast<std::int64_t>(firstCluster * 4096U) + FLink.GetFileDriveNumber(folderNumber);
  return (skipped ? FSkipped : FEntered).insert(key).second;
}

/// Writes the files of a folder and queues its folders. `flat`: where files go without folders.
void TfrmSaveProgress::FolderContent(const TWaiting& folder, TPlace flat, bool measure, std::deque<TWaiting>& waiting) {
  const bool restore = !measure && FOptions.RestoreFolders;
  const bool deleted = folder.ParentDeleted || FLink.GetFileDeleted(folder.FolderNumber);
  const int drive = FLink.GetFileDriveNumber(folder.FolderNumber);
  TInt64DynArray children = FLink.GetParentClusters(drive, FLink.GetFileFirstCluster(folder.FolderNumber));
  // A live file keeps its name; a deleted one of the same name is numbered.
  std::stable_partition(children.begin(), children.end(),
                        [&](std::int64_t n) { return !FLink.GetFileDeleted(static_cast<int>(n)); });
  for (const std::int64_t child : children) {
    const auto number = static_cast<int>(child);
    if (FLink.IsFileWrongNumber(number)) continue;
    if (!FLink.GetFileIsFolder(number)) {
      if (!FLink.IsFiltered(number, deleted, Filter)) continue;
      if (folder.Skipped) {
        SkipFile(number, TString(FLink.GetFileName(number)), folder.Place, deleted);
      } else {
        FileStep(number, restore ? folder.Place : flat, deleted, measure);
      }
    } else {
      TPlace place = folder.Place;
      bool skipped = folder.Skipped;
      if (restore) {
        TString name(FLink.GetFileName(number));
        skipped = skipped || !RenameStep(name, true);
        place = FTarget.Folder(folder.Place, name, FLink.GetFileTimes(number));
      }
      const bool isNew = FLink.OwnsContent(number) && EnterFirst(number, skipped);
      if (isNew || (restore && !skipped)) waiting.push_back({number, place, deleted, isNew, skipped});
    }
    if (!GoOn() && !measure) {
      FSummary.Stopped = true;
      return;
    }
  }
}

// ---- one file -------------------------------------------------------------------------------

void TfrmSaveProgress::FileStep(int fileNumber, TPlace place, bool parentDeleted, bool measure) {
  if (measure) {
    MeasureFile(fileNumber);
    return;
  }
  CurrentRecoveringFile = fileNumber;
  TString name(FLink.GetFileName(fileNumber));
  if (!RenameStep(name, false)) {
    SkipFile(fileNumber, name, place, parentDeleted);
    return;
  }
  ++FSummary.Files;
  SaveStep(fileNumber, name, place, parentDeleted);
}

/// A file that is not written because its name, or that of a folder above it, was refused.
void TfrmSaveProgress::SkipFile(int fileNumber, const TString& name, TPlace place, bool parentDeleted) {
  ++FSummary.Files;
  ++FSummary.SkippedForNames;
  TFileOutcome outcome;
  outcome.FileNumber = fileNumber;
  outcome.Outcome = TOutcome::Skipped;
  outcome.Path = FTarget.PathOf(place) + SafeName(name);
  outcome.Listed = FLink.GetFileSize(fileNumber);
  if (FSummary.Faults.size() < TRecoverySummary::MaxFaults) FSummary.Faults.push_back(outcome);
  Record(std::move(outcome), parentDeleted);
}

// ---- measuring ------------------------------------------------------------------------------

void TfrmSaveProgress::MeasureFile(int fileNumber) {
  const std::int64_t size = FLink.GetFileSize(fileNumber);
  RecoverySize += std::clamp<std::int64_t>(size, 0, INT64_MAX - RecoverySize);
  ++RecoveryFiles;
  if (FLink.IsPlaceOpen(fileNumber)) FOpenPlaces.push_back(fileNumber);
  const int number = FLink.GetFileDriveNumber(fileNumber);
  auto drive = FMeasuredDrives.find(number);
  if (drive == FMeasuredDrives.end()) {
    TRecoveryDrive found;
    if (!FLink.GetDrive(number, found)) return;
    drive = FMeasuredDrives.emplace(number, std::move(found)).first;
  }
  const auto add = [this, &of = drive->second](std::int64_t bytes) {
    bytes = of.StoresInLess ? bytes : std::min(bytes, of.Size);
    ListedSize += std::clamp<std::int64_t>(bytes, 0, INT64_MAX - ListedSize);
  };
  add(size);
  if (FOptions.Streams != TStreamMode::Files) return;
  for (const TADS& stream : FLink.GetStreams(fileNumber)) {
    if (!stream.IsSystem) add(stream.aSize);
  }
}

std::int64_t TfrmSaveProgress::SourceSize() const {
  std::map<TString, std::int64_t> devices;  // several drives may lie on one
  for (const auto& [number, drive] : FMeasuredDrives) {
    std::int64_t& size = devices[drive.Device];
    size = std::max(size, drive.DeviceSize);
  }
  std::int64_t sum = 0;
  for (const auto& [key, size] : devices) sum += size;
  return sum;
}

bool TfrmSaveProgress::MayBeWritten() const {
  const std::int64_t source = SourceSize();
  if (source <= 0 || ListedSize / MaxExpansion <= source) return true;
  return FQuestions != nullptr && FQuestions->MuchLargerThanSource(ListedSize, source);
}

// ---- names ----------------------------------------------------------------------------------

/// Deals with characters that a target may refuse. False skips the file or folder.
bool TfrmSaveProgress::RenameStep(TString& name, bool isFolder) {
  if (TFiles::RightName(name) == 0) return true;
  if (FSkipAllNames) return false;
  if (FOptions.CanReplaceSymbols && !FOptions.UnknownSymbols.empty()) {
    name = WithoutRefusedCharacters(std::move(name), FOptions.UnknownSymbols.front());
    return true;
  }
  const TString oldName = name;
  while (FQuestions != nullptr) {
    const TRenameAnswer answer = FQuestions->Rename({oldName, isFolder, FOptions.UnknownSymbols});
    FSkipAllNames = answer.Result == TRenameAnswer::SkipAll;
    if (answer.Result != TRenameAnswer::OK) return false;
    name = answer.NewName;
    if (answer.CanReplaceSymbols && !answer.UnknownSymbols.empty()) {
      FOptions.CanReplaceSymbols = true;
      FOptions.UnknownSymbols = answer.UnknownSymbols;
      name = WithoutRefusedCharacters(std::move(name), FOptions.UnknownSymbols.front());
    }
    if (TFiles::RightName(name) == 0) return true;
  }
  return false;
}

/// Applies the rule for long paths where the target asks for it: the name and the place change.
TfrmSaveProgress::TPlace TfrmSaveProgress::Shortened(TString& name, TPlace place) {
  const bool shorten = FOptions.LongPaths == TLongPaths::Shorten ||
                       (FOptions.LongPaths == TLongPaths::OnWindowsFileSystems && FTarget.IsOfWindows());
  if (!shorten) return place;
  const TString root = TextFromPath(FTarget.Path() + "/");
  const TString path = root + FromUtf8(FTarget.PathOf(place)) + name;
  const TString shorter = ShortenLongPath(path, u'/');
  if (shorter == path) return place;
  const std::size_t nameStart = shorter.rfind(u'/') + 1;
  name = shorter.substr(nameStart);
  // The target folder itself is the user's: a cut that would leave it stops there.
  if (!shorter.starts_with(root)) return TTargetTree::Root;
  std::vector<TString> folders;
  for (std::size_t at = root.size(); at < nameStart; at += folders.back().size() + 1) {
    folders.push_back(shorter.substr(at, shorter.find(u'/', at) - at));
  }
  return PlaceOf(folders, TTargetTree::Root);
}

void TfrmSaveProgress::SaveStep(int fileNumber, const TString& name, TPlace place, bool parentDeleted) {
  TString shortName = name;
  place = Shortened(shortName, place);
  TTargetFile file{SafeName(shortName), false};
  TFileOutcomes outcomes;
  const int error = FTarget.Enter(place);
  const bool wanted = error != 0 || ResolveConflict(file, place);
  if (error != 0 || !wanted) {
    outcomes.emplace_back().FileNumber = fileNumber;
    outcomes.back().Path = file.Name;
    outcomes.back().Listed = FLink.GetFileSize(fileNumber);
    outcomes.back().SystemError = error;
    outcomes.back().Outcome = error != 0 ? TOutcome::Failed : TOutcome::Skipped;
  } else {
    outcomes = FLink.Recovery(FWriter, fileNumber, file);
    const bool written = !outcomes.empty() && outcomes.front().Outcome != TOutcome::Failed && !outcomes.front().Stopped;
    if (written) FLink.RecoveryAllADS(FWriter, fileNumber, {outcomes.front().Path, file.Replace});
  }
  const std::string folder = FTarget.PathOf(place);
  for (TFileOutcome& outcome : outcomes) {
    outcome.Path.insert(0, folder);
    Record(std::move(outcome), parentDeleted);
  }
}

/// Settles a name that is taken. False when the file is to be left out.
bool TfrmSaveProgress::ResolveConflict(TTargetFile& file, TPlace place) {
  if (FOptions.NumberDoubles) {
    file.Name = FTarget.Claim(file.Name);
    if (FTarget.HoldsOnlyClaimed()) return true;
  }
  while (FTarget.Exists(file.Name)) {
    if (FRenameResult == TRenameResult::rrSkipAll) return false;
    // The answer "replace" cannot mean the source itself: the file goes beside it.
    if (FRenameResult == TRenameResult::rrReplaceAll && FTarget.IsSource(file.Name)) {
      file.Name = FTarget.FreeName(file.Name);
      continue;
    }
    if (FRenameResult == TRenameResult::rrReplaceAll) {
      file.Replace = true;
      return true;
    }
    const std::string proposal = FTarget.FreeName(file.Name);
    if (FRenameResult == TRenameResult::rrRenameAll) {
      file.Name = proposal;
      continue;
    }
    if (FQuestions == nullptr) return false;
    const TString path = TextFromPath(FTarget.Path() + "/" + FTarget.PathOf(place));
    const TFileExistsAnswer answer = FQuestions->FileExists({FromUtf8(file.Name), path, FromUtf8(proposal)});
    FRenameResult = answer.Result;
    switch (answer.Result) {
      case TRenameResult::rrReplace:
      case TRenameResult::rrReplaceAll:
        if (FTarget.IsSource(file.Name)) {
          file.Name = proposal;
          break;
        }
        file.Replace = true;
        return true;
      case TRenameResult::rrRename:
        file.Name = SafeName(answer.NewName);
        break;
      case TRenameResult::rrRenameAll:
        file.Name = proposal;
        break;
      case TRenameResult::rrSkip:
      case TRenameResult::rrSkipAll:
        return false;
    }
  }
  return true;
}

void TfrmSaveProgress::Record(TFileOutcome outcome, bool parentDeleted) {
  switch (outcome.Outcome) {
    case TOutcome::Whole:
      ++FSummary.Whole;
      break;
    case TOutcome::Short:
      ++FSummary.Short;
      break;
    case TOutcome::Unreadable:
      ++FSummary.Unreadable;
      break;
    case TOutcome::Doubtful:
      ++FSummary.Doubtful;
      break;
    case TOutcome::Overwritten:
      ++FSummary.Overwritten;
      break;
    case TOutcome::Failed:
      ++FSummary.Failed;
      break;
    case TOutcome::Skipped:
      ++FSummary.Skipped;
      break;
  }
  FSummary.TargetFull = FSummary.TargetFull || IsFullTarget(outcome.SystemError);
  const bool written = outcome.Outcome != TOutcome::Skipped && outcome.Outcome != TOutcome::Failed;
  if (written && (parentDeleted || FLink.GetFileDeleted(outcome.FileNumber))) ++FSummary.DeletedFiles;
  if (OnFile) OnFile(outcome, parentDeleted);
  const bool fault = outcome.Outcome != TOutcome::Whole && outcome.Outcome != TOutcome::Skipped;
  if (fault && FSummary.Faults.size() < TRecoverySummary::MaxFaults) FSummary.Faults.push_back(std::move(outcome));
}

}  // namespace brenlow
