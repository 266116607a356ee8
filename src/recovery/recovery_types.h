// SPDX-License-Identifier: GPL-3.0-or-later
// Vocabulary of the recovery.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/types.h"

namespace brenlow {

/// Where the selection is drawn from: the file list, the folder tree, the recovery list.
enum class TRecoverySender { rsFiles, rsFolders, rsRecoveryList };

/// Kind of output.
enum class TRecoverType { rtSave, rtCreateZIP, rtUploadFTP };

/// Answer to a name that is taken on the target.
enum class TRenameResult { rrReplace, rrReplaceAll, rrSkip, rrSkipAll, rrRename, rrRenameAll };

struct TSelectedFile {
  int FileIndex = -1;
  bool blnDeleted = false;  ///< deleted itself or shown in a deleted branch
};
using TSelectedFiles = std::vector<TSelectedFile>;

/// What becomes of alternate data streams on a target that does not hold them itself.
enum class TStreamMode {
  None,        ///< left out and counted
  Files,       ///< a file NAME:STREAM beside the file
  Attributes,  ///< an extended attribute user.STREAM
};

/// Whether paths of more than 259 characters are shortened to what Windows programs can open.
enum class TLongPaths { Keep, Shorten, OnWindowsFileSystems };

/// What the user chooses on the wizard's options page.
struct TSaveChoices {
  std::string Path;                ///< target folder
  bool RestoreFolders = true;      ///< folders are made as they are on the source
  bool ADS = true;                 ///< alternate data streams are written where the target holds them
  bool CanReplaceSymbols = false;  ///< refused characters in names are replaced without asking
  TString UnknownSymbols = u"_";   ///< its first character replaces refused ones
};

/// What the wizard asks and the program remembers between runs.
struct TRecoverySettings : TSaveChoices {
  TRecoverySettings() { Path = "C:\\"; }  // no path of this system: none was chosen yet
  TRecoverType Type = TRecoverType::rtSave;
  bool Remember = false;  ///< the first page passes by itself
};

/// How the files are written.
struct TRecoveryOptions : TSaveChoices {
  TRecoveryOptions() = default;
  explicit TRecoveryOptions(TSaveChoices choices) : TSaveChoices(std::move(choices)) {}
  bool MayLieOnSource = false;  ///< the user was asked and agreed
  TStreamMode Streams = TStreamMode::None;
  TLongPaths LongPaths = TLongPaths::OnWindowsFileSystems;
  /// Files of one run that would get the same name are numbered; the answers to taken names then concern only
  /// what was there before. A run that is repeated thus gives every file the same name.
  bool NumberDoubles = false;
  bool Digests = false;  ///< SHA-256 of everything written, for reports
};

enum class TOutcome {
  Whole,
  Short,        ///< fewer bytes than listed could be read, or the recovery was stopped
  Unreadable,   ///< as long as listed, but parts of the source could not be read
  Doubtful,     ///< as long as listed and readable, but something speaks against the content
  Overwritten,  ///< as long as listed, but the place was given to something else, at least in part
  Failed,       ///< could not be created or written
  Skipped,      ///< left out by the answer to a question
};

struct TFileOutcome {
  int FileNumber = -1;
  TOutcome Outcome = TOutcome::Whole;
  std::string Path;     ///< on the target, below its folder
  int SystemError = 0;  ///< errno of a failed file
  bool Stopped = false;
  std::int64_t Written = 0;                   ///< bytes
  std::int64_t Listed = 0;                    ///< bytes
  TContentDoubt Doubt = TContentDoubt::None;  ///< why it is doubtful or overwritten
  std::string Digest;                         ///< SHA-256 of what was written, in hexadecimal, if asked for
};

using TFileOutcomes = std::vector<TFileOutcome>;

struct TRecoverySummary {
  std::int64_t Files = 0;  ///< visited by the walk, including those that were skipped
  std::int64_t Bytes = 0;  ///< written, streams not counted
  std::int64_t Whole = 0;
  std::int64_t Short = 0;
  std::int64_t Unreadable = 0;
  std::int64_t Doubtful = 0;
  std::int64_t Failed = 0;
  std::int64_t Skipped = 0;
  std::int64_t SkippedForNames = 0;  ///< of these: a name was refused, of the file or of a folder above it
  std::int64_t DeletedFiles = 0;     ///< of the files written
  std::int64_t Overwritten = 0;
  std::int64_t StreamsWritten = 0;
  std::int64_t StreamsLeft = 0;    ///< not wanted on this target
  std::int64_t StreamsFailed = 0;  ///< wanted, but not whole: not all could be read, or the target refused them
  /// The first `MaxFaults` files that are neither whole nor skipped by an answer about a taken name.
  std::vector<TFileOutcome> Faults;
  bool TargetFull = false;
  bool Stopped = false;

  static constexpr std::size_t MaxFaults = 1000;
  std::int64_t FaultCount() const { return Short + Unreadable + Doubtful + Overwritten + Failed; }
  /// Nothing went wrong, and nothing was left out without the user's knowledge.
  bool IsAllWell() const { return FaultCount() == 0 && SkippedForNames == 0 && !Stopped; }
};

}  // namespace brenlow
