// SPDX-License-Identifier: GPL-3.0-or-later
// Writes a large file's chunks on a thread of its own, and works out their digest on another, so that the target is
// written while the source is read. The threads see nothing of the engine but the bytes and the sink handed over.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "core/types.h"

namespace brenlow {

class TFileSink;

class TChunkWriter {
 public:
  TChunkWriter() = default;
  /// Waits for what was handed over.
  ~TChunkWriter();
  TChunkWriter(const TChunkWriter&) = delete;
  TChunkWriter& operator=(const TChunkWriter&) = delete;

  /// Hands a chunk over for the sink and gives another buffer back in its place. Waits while
  /// enough chunks are under way. 0, or the errno of an earlier chunk, after which nothing more
  /// is written until `Finish`.
  int Write(TFileSink& sink, TByteDynArray& chunk);
  /// The same for a hole of so many bytes.
  int WriteHole(TFileSink& sink, std::int64_t length);
  /// Waits until everything is written; the next chunk starts anew. 0, or the errno.
  int Finish();

 private:
  static constexpr std::size_t MaxChunks = 8;  // bounds the memory
  struct TJob {
    TFileSink* Sink = nullptr;
    TByteDynArray Bytes;
    std::int64_t Hole = 0;
    int StagesLeft = 0;
  };
  /// What is done with every chunk, in order; each stage has a thread, started by its first chunk.
  struct TStage {
    int (*Work)(TJob& job);
    std::deque<std::shared_ptr<TJob>> Waiting = {};
    std::thread Thread = {};
  };

  static int Append(TJob& job);
  static int Hash(TJob& job);
  int HandOver(TJob job);
  void Enter(TStage& stage, const std::shared_ptr<TJob>& job);
  void Run(TStage& stage);

  std::mutex FMutex;
  std::condition_variable FChanged;
  TStage FAppend{&TChunkWriter::Append};
  TStage FHash{&TChunkWriter::Hash};
  std::vector<TByteDynArray> FSpare;
  std::size_t FUnderWay = 0;
  bool FEnding = false;
  int FError = 0;
};

}  // namespace brenlow
