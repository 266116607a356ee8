// SPDX-License-Identifier: GPL-3.0-or-later
// What the command line asks for, as plain values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/file_id.h"
#include "core/datetime.h"
#include "core/language.h"

namespace brenlow::cli {

/// Exit status of the program.
inline constexpr int AllDone = 0;
inline constexpr int DoneWithFailures = 1;
inline constexpr int WrongUsage = 2;  // or a source that cannot be read
// A stop by a signal: 128 and its number, see `TStopKey::Status`.

struct TOptions {
  std::vector<std::string> Sources;
  int Drive = 0;  ///< row number as `drives` shows it, from 1; 0 for all that can be analysed
  bool Deleted = false;
  bool Existing = false;
  std::vector<std::string> Kinds;
  std::vector<std::string> Extensions;
  std::vector<std::string> Paths;     ///< patterns; empty for all
  std::vector<std::string> Excludes;  ///< patterns
  std::int64_t MinSize = -1;          ///< bytes; -1 when not given
  std::int64_t MaxSize = -1;
  TDateTime Newer = 0;  ///< modified at that time or later; 0 when not given
  TDateTime Older = 0;  ///< modified before that time
  bool DryRun = false;
  bool ByIds = false;  ///< only what `Ids` names
  TFileIds Ids;
  std::string Out;
  bool Json = false;
  bool Tree = false;
  bool ListStreams = false;
  bool Deep = false;
  bool FastOff = false;  ///< of `Deep` alone
  bool Best = false;     ///< all of it, each where the one before found nothing
  bool Scan = false;     ///< the thorough search for lost partitions
  std::vector<std::string> Systems;
  std::string LostFolders = "auto";
  int CodePage = 437;
  std::string Conflict = "rename";
  std::string ReplaceSymbols = "_";
  bool Flat = false;
  bool AllowExpand = false;
  std::string Candidates = "first";
  std::string Streams = "none";
  std::string LongPaths = "auto";
  std::string Report;
  bool RecoverFound = false;  ///< a scan that is stopped ends, what it found is recovered
  std::int64_t First = -1;    ///< sectors of the drive; -1 when not given
  std::int64_t Count = -1;
  std::string Map;
  std::string BadMap;
  std::int64_t BadTime = -1;  ///< seconds for places that do not read; 0 without a limit, -1 when not given
  bool Retry = false;         ///< searches try every sector of zones that do not read
  bool Compressed = false;
  bool Overwrite = false;
  bool All = false;            ///< of `drives`: partitions that have no row otherwise, too
  bool Quiet = false;          ///< no progress
  bool ProgressLines = false;  ///< progress as lines, also on a terminal
  TLanguage Texts = TLanguage::English();

  const std::string& Source() const { return Sources.front(); }
};

}  // namespace brenlow::cli
