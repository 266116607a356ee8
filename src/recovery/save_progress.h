// SPDX-License-Identifier: GPL-3.0-or-later
// The walk of a recovery: from a selection to files and folders on the target, with all decisions of
// the progress page.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "core/file_records.h"
#include "recovery/file_writer.h"
#include "recovery/master_link.h"
#include "recovery/recovery_types.h"
#include "recovery/target_tree.h"

namespace brenlow {

class IRecoveryQuestions;
class TEngine;

/// A failure on one file stops nothing: every file has an outcome. Clearing `TEngine::Recovering`
/// ends the walk; what was written stays.
class TfrmSaveProgress {
 public:
  /// `questions` may be null: a bad name or one that is taken then skips its file.
  TfrmSaveProgress(TEngine& engine, const TRecoveryMasterLink& link, const TRecoveryOptions& options,
                   IRecoveryQuestions* questions);

  TFileFilter Filter;  ///< of the view that the selection comes from
  /// Ratio of what is written, 0 to 1, and the bytes; only ever rising.
  std::function<void(double ratio, std::int64_t bytes)> OnProgress;
  /// Every file, when it is done.
  std::function<void(const TFileOutcome&, bool parentDeleted)> OnFile;

  TRenameResult FRenameResult = TRenameResult::rrSkip;  ///< the last answer to a taken name
  int CurrentRecoveringFile = -1;                       ///< file number, -1 for none
  std::int64_t RecoveredSize = 0;                       ///< bytes
  std::int64_t RecoverySize = 0;                        ///< bytes, as measured
  std::int64_t RecoveryFiles = 0;                       ///< files, as measured
  /// Bytes that would be written, as measured: streams that become files count too, and no file counts for
  /// more than its drive holds unless its file system can store it in less.
  std::int64_t ListedSize = 0;

  /// Opens the target and takes the state back to its start. 0, or the errno.
  int PrepareInfo();
  bool FDriveNTFS() const { return FTarget.IsNTFS(); }
  const TTargetTree& Target() const { return FTarget; }
  /// Adds up what `Recovery` would write.
  void PrepareRecovery(bool isMasterResults);
  /// Bytes of all devices that the measured files lie on.
  std::int64_t SourceSize() const;
  /// Damaged or hostile sources list more than they can hold: above this many times its size a source is
  /// not recovered without a question.
  static constexpr std::int64_t MaxExpansion = 10;
  /// False when what was measured is beyond that, and the answer to the question was no.
  bool MayBeWritten() const;
  /// Writes the selection. With `isMasterResults` each selected file goes below the folders that it
  /// has on its drive. `subfolder`, when not empty, is a folder of the target to write into.
  void Recovery(bool isMasterResults, TStringView subfolder = {});
  /// Ends the recovery: gives the folders their times.
  void CloseInfo();

  void SetRecoveryProgress(std::int64_t size);
  void AddRecoveryProgress(std::int64_t size) { RecoverySize += size; }

  const TRecoverySummary& Summary() const { return FSummary; }
  /// As they are by now: an answer may have changed them.
  const TRecoveryOptions& Options() const { return FOptions; }

 private:
  using TPlace = TTargetTree::TPlace;
  struct TWaiting {
    int FolderNumber;
    TPlace Place;
    bool ParentDeleted;
    bool HasContent;  // false when its content is walked under another entry
    bool Skipped;     // its name, or that of a folder above it, was refused: so is all of its content
  };

  void Walk(bool measure, bool isMasterResults, TPlace start);
  void FolderStep(int folderNumber, TPlace place, bool parentDeleted, bool measure);
  void FolderContent(const TWaiting& folder, TPlace flat, bool measure, std::deque<TWaiting>& waiting);
  bool EnterFirst(int folderNumber, bool skipped);
  void MeasureFile(int fileNumber);
  void SkipFile(int fileNumber, const TString& name, TPlace place, bool parentDeleted);
  void FileStep(int fileNumber, TPlace place, bool parentDeleted, bool measure);
  bool RenameStep(TString& name, bool isFolder);
  void SaveStep(int fileNumber, const TString& name, TPlace place, bool parentDeleted);
  bool ResolveConflict(TTargetFile& file, TPlace place);
  TPlace PlaceOf(const std::vector<TString>& folders, TPlace start);
  TPlace Shortened(TString& name, TPlace place);
  void Record(TFileOutcome outcome, bool parentDeleted);
  bool GoOn();

  TEngine& FEngine;
  const TRecoveryMasterLink& FLink;
  TRecoveryOptions FOptions;
  IRecoveryQuestions* FQuestions;
  TTargetTree FTarget;
  TFileWriter FWriter;
  TRecoverySummary FSummary;
  double FShownRatio = 0;
  bool FSkipAllNames = false;                          // the answer to a bad name was Skip All
  std::unordered_map<std::u16string, TPlace> FPlaces;  // by start and path
  std::unordered_set<std::int64_t> FEntered;           // folders walked so far
  std::unordered_set<std::int64_t> FSkipped;           // skipped folders, which may still be found elsewhere
  std::map<int, TRecoveryDrive> FMeasuredDrives;       // of the files measured
  TInt64DynArray FOpenPlaces;                          // files measured whose first cluster is to be looked for
};

/// `name` with every refused character replaced, from the last to the first.
TString WithoutRefusedCharacters(TString name, char16_t replacement);

}  // namespace brenlow
