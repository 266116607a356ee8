// SPDX-License-Identifier: GPL-3.0-or-later
// Writes chosen files of analysed drives to a folder. A failure on one file stops nothing: every
// file has an outcome.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "analysis/tree_walk.h"
#include "core/file_records.h"
#include "recovery/chunk_writer.h"
#include "recovery/target_tree.h"

namespace brenlow {

class TEngine;

enum class TOutcome {
  Whole,
  Short,       ///< fewer bytes than listed could be read
  Unreadable,  ///< as long as listed, but parts of the source could not be read
  Failed,      ///< could not be created or written
};

struct TFileOutcome {
  TOutcome Outcome = TOutcome::Whole;
  std::string Path;     ///< on the target, below its folder
  int SystemError = 0;  ///< errno of a failed file
  std::int64_t Written = 0;
  std::int64_t Listed = 0;
};

struct TRecoverySummary {
  std::int64_t Files = 0;  ///< tried
  std::int64_t Bytes = 0;
  std::int64_t Whole = 0;
  std::int64_t DeletedFiles = 0;
  /// Deleted files whose place belongs to another file by now: written, but hardly their content.
  std::int64_t Overwritten = 0;
  std::vector<TFileOutcome> Faults;  ///< every file that is not whole
  bool TargetFull = false;
  bool Stopped = false;
};

/// What a walk would write.
struct TRecoverySize {
  std::int64_t Files = 0;
  std::int64_t Bytes = 0;
};

/// Tells whether the walk wants an entry; folders are asked too.
using TWanted = std::function<bool(const TTreeEntry&)>;

class TRecovery {
 public:
  TRecovery(TEngine& engine, TWanted wanted) : FEngine(engine), FWanted(std::move(wanted)) {}

  /// Bytes written so far; called for every chunk.
  std::function<void(std::int64_t)> OnProgress;
  /// Every file, when it is done.
  std::function<void(const TTreeEntry&, const TFileOutcome&)> OnFile;

  /// Opens the target. 0, or the errno.
  int SetTarget(const std::string& path) { return FTarget.Open(path); }
  /// Adds up what the walk would write.
  TRecoverySize Measure(int driveNumber);
  /// Writes everything wanted of the drive, in a folder of its own when `subfolder` is not empty.
  void Recover(int driveNumber, TStringView subfolder);

  const TRecoverySummary& Summary() const { return FSummary; }

 private:
  class TVisitor;
  void WriteFile(const TTreeEntry& entry);
  TFileOutcome WriteData(TFile& file, THandle& handle, std::string path);

  TEngine& FEngine;
  TWanted FWanted;
  TTargetTree FTarget;
  TRecoverySummary FSummary;
  TByteDynArray FChunk;
  TChunkWriter FWriter;
};

}  // namespace brenlow
