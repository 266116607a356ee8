// SPDX-License-Identifier: GPL-3.0-or-later
// Writes the content of one file, and its alternate data streams, into the target's folder in hand.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "core/file_records.h"
#include "recovery/chunk_writer.h"
#include "recovery/recovery_types.h"
#include "recovery/target_tree.h"

namespace brenlow {

class IRecoveryQuestions;
class TContentCheck;
class TFileSink;
class TEngine;
class TRecoveryMasterLink;

/// A name in the target's folder in hand.
struct TTargetFile {
  std::string Name;      ///< safe
  bool Replace = false;  ///< what is there under that name goes
};

class TFileWriter {
 public:
  TFileWriter(TEngine& engine, const TRecoveryMasterLink& link, TTargetTree& target, const TRecoveryOptions& options,
              IRecoveryQuestions* questions)
      : FEngine(engine), FLink(link), FTarget(target), FOptions(options), FQuestions(questions) {}

  /// Bytes just written.
  std::function<void(std::int64_t)> OnProgress;
  /// More will be written than was measured.
  std::function<void(std::int64_t)> OnMoreToCome;
  std::int64_t StreamsWritten = 0;
  std::int64_t StreamsLeft = 0;
  std::int64_t StreamsFailed = 0;

  /// Writes the whole file in chunks, with its times. A deleted file that may begin at several
  /// places gives one file, or one for each place.
  TFileOutcomes Recovery(int fileNumber, const TTargetFile& target);
  /// Writes all streams of a file that was written before, as the target holds them.
  void RecoveryAllADS(int fileNumber, const TTargetFile& target);

 private:
  TFileOutcomes WriteCandidates(TFile& file, int fileNumber, const TTargetFile& target);
  TFileOutcome WriteFile(int fileNumber, const TTargetFile& target);
  bool WriteLink(int fileNumber, const TTargetFile& target, TFileOutcome& outcome);
  int Finish(std::string& name, bool replace);
  void WriteData(int fileNumber, TFileOutcome& outcome, int handle);
  std::int64_t WriteNext(int fileNumber, TFileOutcome& outcome, TFileSink& sink, TContentCheck& content);
  std::int64_t WriteStretch(int fileNumber, TFileOutcome& outcome, TFileSink& sink);
  int FinishStream(const std::string& stream, const TTargetFile& target);
  bool WriteStreamFile(int fileNumber, int adsNumber, const TADS& stream, const TTargetFile& target);
  bool WriteStreamAttribute(int fileNumber, int adsNumber, const TADS& stream, const TTargetFile& target);

  TEngine& FEngine;
  const TRecoveryMasterLink& FLink;
  TTargetTree& FTarget;
  const TRecoveryOptions& FOptions;
  IRecoveryQuestions* FQuestions;  // may be null: then nothing is asked
  TByteDynArray FChunk;
  TChunkWriter FWriter;
  bool FTargetWasFull = false;
};

bool IsFullTarget(int error);

}  // namespace brenlow
