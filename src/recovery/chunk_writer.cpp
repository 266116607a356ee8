// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/chunk_writer.h"

#include <utility>

#include "recovery/file_sink.h"

namespace brenlow {

TChunkWriter::~TChunkWriter() {
  if (!FThread.joinable()) return;
  {
    const std::lock_guard lock(FMutex);
    FEnding = true;
  }
  FChanged.notify_all();
  FThread.join();
}

int TChunkWriter::Write(TFileSink& sink, TByteDynArray& chunk) {
  if (!FThread.joinable()) FThread = std::thread([this] { Run(); });
  std::unique_lock lock(FMutex);
  FChanged.wait(lock, [this] { return FJobs.size() < MostChunks || FError != 0; });
  if (FError != 0) return FError;
  FJobs.push_back({&sink, std::move(chunk)});
  chunk = TByteDynArray();
  if (!FSpare.empty()) {
    chunk = std::move(FSpare.back());
    FSpare.pop_back();
  }
  FChanged.notify_all();
  return 0;
}

int TChunkWriter::Finish() {
  std::unique_lock lock(FMutex);
  FChanged.wait(lock, [this] { return FJobs.empty() && !FBusy; });
  return std::exchange(FError, 0);
}

void TChunkWriter::Run() {
  std::unique_lock lock(FMutex);
  for (;;) {
    FChanged.wait(lock, [this] { return FEnding || !FJobs.empty(); });
    if (FJobs.empty()) return;
    TJob job = std::move(FJobs.front());
    FJobs.pop_front();
    FBusy = true;
    const bool skip = FError != 0;
    lock.unlock();
    const int error = skip ? 0 : job.Sink->Write(job.Bytes);
    lock.lock();
    if (error != 0) FError = error;
    FSpare.push_back(std::move(job.Bytes));
    FBusy = false;
    FChanged.notify_all();
  }
}

}  // namespace brenlow
