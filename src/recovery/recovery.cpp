// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/recovery.h"

#include <unistd.h>

#include <cerrno>

#include "analysis/analysis.h"
#include "analysis/files.h"
#include "core/engine.h"
#include "core/sector_reader.h"

namespace brenlow {
namespace {

constexpr std::int64_t ChunkSize = 0x20000;  // bytes; bounds the memory whatever the file's size
// From this size on reading and writing overlap; below, the hand-over costs more than it saves.
constexpr std::int64_t LargeFile = 1 << 20;  // bytes

bool IsFullTarget(int error) { return error == ENOSPC || error == EDQUOT; }

class TMeasure final : public ITreeVisitor {
 public:
  explicit TMeasure(const TWanted& wanted) : FWanted(wanted) {}
  bool File(const TTreeEntry& entry) override {
    if (!FWanted(entry)) return true;
    ++Size.Files;
    Size.Bytes += entry.File->FileInfo.aSize;
    return true;
  }
  bool EnterFolder(const TTreeEntry&) override { return true; }
  void LeaveFolder(const TTreeEntry&) override {}
  TRecoverySize Size;

 private:
  const TWanted& FWanted;
};

}  // namespace

class TRecovery::TVisitor final : public ITreeVisitor {
 public:
  explicit TVisitor(TRecovery& recovery) : FRecovery(recovery) {}
  bool File(const TTreeEntry& entry) override {
    if (FRecovery.FWanted(entry)) FRecovery.WriteFile(entry);
    return GoOn();
  }
  bool EnterFolder(const TTreeEntry& entry) override {
    const TFileInfo& info = entry.File->FileInfo;
    FRecovery.FTarget.Push(info.strName, info.TimeStamp);
    if (FRecovery.FWanted(entry)) FRecovery.FTarget.EnsureCreated();
    return GoOn();
  }
  void LeaveFolder(const TTreeEntry&) override { FRecovery.FTarget.Pop(); }

 private:
  bool GoOn() {
    FRecovery.FEngine.Pump();
    if (!FRecovery.FEngine.Recovering) FRecovery.FSummary.Stopped = true;
    return !FRecovery.FSummary.Stopped && !FRecovery.FSummary.TargetFull;
  }
  TRecovery& FRecovery;
};

TRecoverySize TRecovery::Measure(int driveNumber) {
  TMeasure measure(FWanted);
  WalkTree(FEngine, driveNumber, measure);
  return measure.Size;
}

void TRecovery::Recover(int driveNumber, TStringView subfolder) {
  if (!subfolder.empty()) FTarget.Push(subfolder, {});
  TVisitor visitor(*this);
  if (!FSummary.Stopped && !FSummary.TargetFull) WalkTree(FEngine, driveNumber, visitor);
  if (!subfolder.empty()) FTarget.Pop();
}

void TRecovery::WriteFile(const TTreeEntry& entry) {
  TFile& file = FEngine.Files().List[static_cast<std::size_t>(entry.FileNumber)];
  THandle handle;
  std::string path;
  ++FSummary.Files;
  if (entry.Deleted()) ++FSummary.DeletedFiles;
  const int error = FTarget.CreateFile(file.FileInfo.strName, handle, path);
  TFileOutcome outcome;
  if (error != 0) {
    outcome = {TOutcome::Failed, std::move(path), error, 0, file.FileInfo.aSize};
  } else {
    outcome = WriteData(file, handle, std::move(path));
    if (IsOverwritten(FEngine, file)) ++FSummary.Overwritten;
  }
  if (OnFile) OnFile(entry, outcome);
  FSummary.TargetFull = FSummary.TargetFull || IsFullTarget(outcome.SystemError);
  if (outcome.Outcome == TOutcome::Whole) {
    ++FSummary.Whole;
  } else if (!FSummary.Stopped || outcome.Outcome != TOutcome::Short) {
    FSummary.Faults.push_back(std::move(outcome));
  }
}

TFileOutcome TRecovery::WriteData(TFile& file, THandle& handle, std::string path) {
  const std::int64_t size = file.FileInfo.aSize;
  const std::uint64_t failedReads = FEngine.Reader().FailedReads();
  const bool large = size >= LargeFile;
  TFileOutcome outcome{TOutcome::Whole, std::move(path), 0, 0, size};
  while (outcome.Written < size) {
    GetFileData(FEngine, FChunk, file, -1, outcome.Written, std::min(ChunkSize, size - outcome.Written));
    if (FChunk.empty()) break;
    const auto chunkSize = static_cast<std::int64_t>(FChunk.size());
    outcome.SystemError = large ? FWriter.Write(handle.Get(), FChunk) : WriteAll(handle.Get(), FChunk);
    if (outcome.SystemError != 0) break;
    outcome.Written += chunkSize;
    FSummary.Bytes += chunkSize;
    if (OnProgress) OnProgress(FSummary.Bytes);
    FEngine.Pump();
    if (!FEngine.Recovering) {
      FSummary.Stopped = true;
      break;
    }
  }
  if (large) {
    const int error = FWriter.Finish();
    if (outcome.SystemError == 0) outcome.SystemError = error;
  }
  SetTimes(handle.Get(), file.FileInfo.TimeStamp);
  // A full network target may tell only now.
  if (::close(handle.Release()) != 0 && outcome.SystemError == 0) outcome.SystemError = errno;
  if (outcome.SystemError != 0) {
    outcome.Outcome = TOutcome::Failed;
  } else if (outcome.Written < size) {
    outcome.Outcome = TOutcome::Short;
  } else if (FEngine.Reader().FailedReads() != failedReads) {
    outcome.Outcome = TOutcome::Unreadable;
  }
  return outcome;
}

}  // namespace brenlow
