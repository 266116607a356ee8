// SPDX-License-Identifier: GPL-3.0-or-later
// The questions that interrupt a recovery. A window shows dialogs for them, the command line answers
// from its options.
#pragma once

#include "core/file_records.h"
#include "core/types.h"
#include "recovery/recovery_types.h"

namespace brenlow {

/// A name holds characters that a target may refuse.
struct TRenameQuestion {
  TString OldName;
  bool IsFolder = false;   ///< changes the wording only
  TString UnknownSymbols;  ///< what the box for the replacement holds
};
struct TRenameAnswer {
  enum TResult { OK, Skip, SkipAll };
  TResult Result = Skip;
  TString NewName;  ///< with OK; refused characters left in it are asked about again
  /// The check box: refused characters are replaced from now on, without more questions.
  bool CanReplaceSymbols = false;
  TString UnknownSymbols;  ///< with the check box on
};

/// A name is taken on the target.
struct TFileExistsQuestion {
  TString Name;
  TString Path;      ///< folder on the target
  TString Proposal;  ///< a name that is free
};
struct TFileExistsAnswer {
  TRenameResult Result = TRenameResult::rrSkip;
  TString NewName;  ///< with `rrRename`
};

/// A deleted file may begin at several places.
struct TCandidateAnswer {
  bool All = false;
  std::size_t Chosen = 0;  ///< index into `FirstClusters`, without `All`
};

class IRecoveryQuestions {
 public:
  virtual ~IRecoveryQuestions() = default;
  virtual TRenameAnswer Rename(const TRenameQuestion& question) = 0;
  virtual TFileExistsAnswer FileExists(const TFileExistsQuestion& question) = 0;
  virtual TCandidateAnswer ChooseFirstCluster(const TFile& file) = 0;
  /// The target lies on the drive that the files come from. True to go on.
  virtual bool SaveToSameDrive() = 0;
  /// The files are listed with more than `TfrmSaveProgress::MaxExpansion` times the size of their source.
  /// Both in bytes. True to go on.
  virtual bool MuchLargerThanSource(std::int64_t listed, std::int64_t source) = 0;
  /// Stop the running recovery?
  virtual bool CancelRecovery() = 0;
};

}  // namespace brenlow
