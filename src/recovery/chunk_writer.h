// SPDX-License-Identifier: GPL-3.0-or-later
// Writes a large file's chunks on a thread of its own, so that the target is written while the
// source is read. The thread sees nothing of the engine but the bytes and the sink handed over.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
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
  /// Waits until everything is written; the next chunk starts anew. 0, or the errno.
  int Finish();

 private:
  static constexpr std::size_t MostChunks = 4;  // bounds the memory
  struct TJob {
    TFileSink* Sink = nullptr;
    TByteDynArray Bytes;
  };
  void Run();

  std::mutex FMutex;
  std::condition_variable FChanged;
  std::deque<TJob> FJobs;
  std::vector<TByteDynArray> FSpare;
  bool FBusy = false;
  bool FEnding = false;
  int FError = 0;
  std::thread FThread;  // started by the first chunk
};

}  // namespace brenlow
