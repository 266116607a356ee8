// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/chunk_writer.h"

#include <utility>

#include "recovery/file_sink.h"

namespace brenlow {

TChunkWriter::~TChunkWriter() {
  {
    const std::lock_guard lock(FMutex);
    FEnding = true;
  }
  FChanged.notify_all();
  for (TStage* stage : {&FAppend, &FHash}) {
    if (stage->Thread.joinable()) stage->Thread.join();
  }
}

int TChunkWriter::Write(TFileSink& sink, TByteDynArray& chunk) {
  const int error = HandOver({&sink, std::move(chunk)});
  chunk = TByteDynArray();
  const std::lock_guard lock(FMutex);
  if (!FSpare.empty()) {
    chunk = std::move(FSpare.back());
    FSpare.pop_back();
  }
  return error;
}

int TChunkWriter::WriteHole(TFileSink& sink, std::int64_t length) { return HandOver({&sink, {}, length}); }

int TChunkWriter::HandOver(TJob job) {
  std::unique_lock lock(FMutex);
  FChanged.wait(lock, [this] { return FUnderWay < MaxChunks || FError != 0; });
  if (FError != 0) return FError;
  const auto shared = std::make_shared<TJob>(std::move(job));
  ++FUnderWay;
  Enter(FAppend, shared);
  if (shared->Sink->HasDigest()) Enter(FHash, shared);
  FChanged.notify_all();
  return 0;
}

void TChunkWriter::Enter(TStage& stage, const std::shared_ptr<TJob>& job) {
  ++job->StagesLeft;
  stage.Waiting.push_back(job);
  if (!stage.Thread.joinable()) stage.Thread = std::thread([this, &stage] { Run(stage); });
}

int TChunkWriter::Finish() {
  std::unique_lock lock(FMutex);
  FChanged.wait(lock, [this] { return FUnderWay == 0; });
  return std::exchange(FError, 0);
}

int TChunkWriter::Append(TJob& job) {
  job.Sink->AppendHole(job.Hole);
  return job.Sink->Append(job.Bytes);
}

int TChunkWriter::Hash(TJob& job) {
  job.Sink->HashZeros(job.Hole);
  job.Sink->Hash(job.Bytes);
  return 0;
}

void TChunkWriter::Run(TStage& stage) {
  std::unique_lock lock(FMutex);
  for (;;) {
    FChanged.wait(lock, [&] { return FEnding || !stage.Waiting.empty(); });
    if (stage.Waiting.empty()) return;
    const std::shared_ptr<TJob> job = std::move(stage.Waiting.front());
    stage.Waiting.pop_front();
    const bool skip = FError != 0;
    lock.unlock();
    const int error = skip ? 0 : stage.Work(*job);
    lock.lock();
    if (error != 0) FError = error;
    if (--job->StagesLeft > 0) continue;
    if (job->Hole == 0) FSpare.push_back(std::move(job->Bytes));
    --FUnderWay;
    FChanged.notify_all();
  }
}

}  // namespace brenlow
