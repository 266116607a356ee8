// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/file_writer.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "analysis/file_data.h"
#include "core/engine.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "recovery/content_check.h"
#include "recovery/file_sink.h"
#include "recovery/master_link.h"
#include "recovery/questions.h"
#include "recovery/safe_name.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr std::int64_t ChunkSize = 0x20000;     // bytes; bounds the memory whatever the file's size
constexpr std::int64_t StretchSize = 0x400000;  // bytes that the system copies at a time: 40 ms of a slow disk
// From this size on reading and writing overlap; below, the hand-over costs more than it saves.
constexpr std::int64_t LargeFile = 1 << 20;       // bytes
constexpr int MostStreamNames = 1000;             // tried for one stream
constexpr std::int64_t LargestAttribute = 65536;  // bytes; XATTR_SIZE_MAX of Linux

/// Puts the first cluster of a row back when it goes.
class TFirstClusterKeeper {
 public:
  explicit TFirstClusterKeeper(TFileInfo& info) : FInfo(info), FFirstCluster(info.FirstCluster) {}
  ~TFirstClusterKeeper() { FInfo.FirstCluster = FFirstCluster; }
  TFirstClusterKeeper(const TFirstClusterKeeper&) = delete;
  TFirstClusterKeeper& operator=(const TFirstClusterKeeper&) = delete;

 private:
  TFileInfo& FInfo;
  std::int64_t FFirstCluster;
};

}  // namespace

bool IsFullTarget(int error) { return error == ENOSPC || error == EDQUOT; }

TFileOutcomes TFileWriter::Recovery(int fileNumber, const TTargetFile& target) {
  TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(fileNumber)) return {};
  TFile& file = files.List[static_cast<std::size_t>(fileNumber)];
  FindFirstClusters(FEngine, file);
  return WriteCandidates(file, fileNumber, target);
}

TFileOutcomes TFileWriter::WriteCandidates(TFile& file, int fileNumber, const TTargetFile& target) {
  TFileInfo& info = file.FileInfo;
  if (info.FirstClusters.size() < 2 || FQuestions == nullptr) return {WriteFile(fileNumber, target)};
  const TCandidateAnswer answer = FQuestions->ChooseFirstCluster(file);
  if (!answer.All) {
    if (answer.Chosen < info.FirstClusters.size()) info.FirstCluster = info.FirstClusters[answer.Chosen];
    return {WriteFile(fileNumber, target)};
  }
  const TFirstClusterKeeper keeper(info);
  if (OnMoreToCome) OnMoreToCome(static_cast<std::int64_t>(info.FirstClusters.size() - 1) * info.aSize);
  TFileOutcomes outcomes;
  for (std::size_t i = 0; i < info.FirstClusters.size() && FEngine.Recovering; ++i) {
    info.FirstCluster = info.FirstClusters[i];
    TTargetFile place = target;
    // Further candidates never take the place of another file.
    if (i > 0) place = {FTarget.Claim(NumberedName(target.Name, static_cast<int>(i) + 1)), false};
    if (i > 0 && FTarget.Exists(place.Name)) place.Name = FTarget.FreeName(target.Name);
    outcomes.push_back(WriteFile(fileNumber, place));
  }
  return outcomes;
}

TFileOutcome TFileWriter::WriteFile(int fileNumber, const TTargetFile& target) {
  const TFileInfo& info = FEngine.Files().List[static_cast<std::size_t>(fileNumber)].FileInfo;
  TFileOutcome outcome;
  outcome.FileNumber = fileNumber;
  outcome.Path = target.Name;
  outcome.Listed = info.aSize;
  if (info.Kind == TFileKind::SymbolicLink && WriteLink(fileNumber, target, outcome)) return outcome;
  THandle handle;
  // A target that was full once is asked first, so that not all of the source is read for nothing.
  const std::int64_t free = FTargetWasFull ? FTarget.FreeBytes() : -1;
  outcome.SystemError = free >= 0 && free < info.aSize ? ENOSPC : FTarget.CreatePartial(handle);
  if (outcome.SystemError == 0) {
    WriteData(fileNumber, outcome, handle.Get());
    SetTimes(handle.Get(), info.TimeStamp);
    // A full network target may tell only now.
    if (::close(handle.Release()) != 0 && outcome.SystemError == 0) outcome.SystemError = errno;
    const bool finished = outcome.SystemError == 0 && !outcome.Stopped;
    if (finished) outcome.SystemError = Finish(outcome.Path, target.Replace);
    if (!finished || outcome.SystemError != 0) outcome.Path = FTarget.KeepPartial(target.Name);
  }
  FTargetWasFull = FTargetWasFull || IsFullTarget(outcome.SystemError);
  if (outcome.SystemError != 0) {
    outcome.Outcome = TOutcome::Failed;
  } else if (outcome.Written < outcome.Listed) {
    outcome.Outcome = TOutcome::Short;
  }
  return outcome;
}

/// A symbolic link becomes one again where the target has such links and nothing speaks against where it led.
/// False when it is to be written as a file that holds the path.
bool TFileWriter::WriteLink(int fileNumber, const TTargetFile& target, TFileOutcome& outcome) {
  if (outcome.Listed < 1 || outcome.Listed >= PATH_MAX || FLink.GetFileDoubt(fileNumber) >= TContentDoubt::Overwritten)
    return false;
  const TSectorReader& reader = FEngine.Reader();
  const std::uint64_t badReads = reader.FailedReads() + reader.EstimatedReads();
  FLink.GetFileData(FChunk, fileNumber, -1, 0, outcome.Listed);
  const std::string leadsTo(FChunk.begin(), FChunk.end());
  if (static_cast<std::int64_t>(leadsTo.size()) != outcome.Listed || leadsTo.find('\0') != std::string::npos ||
      reader.FailedReads() + reader.EstimatedReads() != badReads)
    return false;
  if (FTarget.MakeLink(target.Name, leadsTo, target.Replace, FLink.GetFileTimes(fileNumber)) != 0) return false;
  outcome.Written = outcome.Listed;
  if (OnProgress) OnProgress(outcome.Written);
  return true;
}

/// Gives the file just written its name, or another one where someone was faster.
int TFileWriter::Finish(std::string& name, bool replace) {
  int error = FTarget.Finish(name, replace);
  // A folder, or a source, cannot be replaced.
  if (error == EEXIST || error == EISDIR) {
    name = FTarget.FreeName(name);
    error = FTarget.Finish(name, false);
  }
  return error;
}

/// Writes what comes next of a file. The result is the count of bytes; 0 at the end of what can be read, or after an
/// error.
std::int64_t TFileWriter::WriteNext(int fileNumber, TFileOutcome& outcome, TFileSink& sink, TContentCheck& content) {
  const bool large = outcome.Listed >= LargeFile;
  if (large) {
    if (const std::int64_t size = WriteStretch(fileNumber, outcome, sink); size > 0) return size;
    if (outcome.SystemError != 0) return 0;
  }
  FLink.GetFileData(FChunk, fileNumber, -1, outcome.Written, std::min(ChunkSize, outcome.Listed - outcome.Written));
  if (FChunk.empty()) return 0;
  content.Take(FChunk);
  const auto size = static_cast<std::int64_t>(FChunk.size());
  outcome.SystemError = large ? FWriter.Write(sink, FChunk) : sink.Write(FChunk);
  return outcome.SystemError == 0 ? size : 0;
}

/// Holes of a live file stay holes, and bytes that nobody here has to see are copied by the system. What it cannot copy
/// is read, which knows what to do about it.
std::int64_t TFileWriter::WriteStretch(int fileNumber, TFileOutcome& outcome, TFileSink& sink) {
  if (FLink.GetFileDeleted(fileNumber)) return 0;
  const std::int64_t wanted = std::min(StretchSize, outcome.Listed - outcome.Written);
  const TFileStretch stretch = FLink.GetFileStretch(fileNumber, -1, outcome.Written, wanted);
  if (stretch.IsHole && stretch.Length > 0) {
    outcome.SystemError = FWriter.WriteHole(sink, stretch.Length);
    return outcome.SystemError == 0 ? stretch.Length : 0;
  }
  if (stretch.Length < 1 || sink.HasDigest()) return 0;
  if (!TFileSink::CanCopy(stretch.Position, outcome.Written)) return 0;
  outcome.SystemError = FWriter.Finish();
  return outcome.SystemError == 0 ? sink.CopyFrom(stretch.File, stretch.Position, stretch.Length) : 0;
}

/// Fills in what was written and how it went.
void TFileWriter::WriteData(int fileNumber, TFileOutcome& outcome, int handle) {
  const std::uint64_t failedReads = FEngine.Reader().FailedReads();
  const std::uint64_t estimatedReads = FEngine.Reader().EstimatedReads();
  const bool large = outcome.Listed >= LargeFile;
  TFileSink sink(handle, FOptions.Digests);
  TContentCheck content(FEngine, FEngine.Files().List[static_cast<std::size_t>(fileNumber)]);
  while (outcome.Written < outcome.Listed) {
    const std::int64_t size = WriteNext(fileNumber, outcome, sink, content);
    if (size == 0) break;
    outcome.Written += size;
    if (OnProgress) OnProgress(size);
    FEngine.Pump();
    if (!FEngine.Recovering && outcome.Written < outcome.Listed) {
      outcome.Stopped = true;
      break;
    }
  }
  if (large) {
    const int error = FWriter.Finish();
    if (outcome.SystemError == 0) outcome.SystemError = error;
  }
  if (outcome.SystemError == 0) outcome.SystemError = sink.Finish();
  outcome.Digest = sink.Digest();
  if (outcome.Written == 0) {
    if (FLink.GetFileDoubt(fileNumber) != TContentDoubt::NameOnly) return;
    outcome.Doubt = TContentDoubt::NameOnly;
    outcome.Outcome = TOutcome::Doubtful;
    return;
  }
  const TFile& file = FEngine.Files().List[static_cast<std::size_t>(fileNumber)];
  outcome.Doubt = DoubtOf(FEngine, file);
  if (outcome.Doubt < TContentDoubt::Overwritten && FEngine.Reader().EstimatedReads() != estimatedReads) {
    outcome.Doubt = TContentDoubt::PlaceEstimated;
  }
  if (outcome.Doubt < TContentDoubt::Overwritten) outcome.Doubt = content.Doubt();
  if (outcome.Doubt >= TContentDoubt::Overwritten) {
    outcome.Outcome = IsOverwritten(outcome.Doubt) ? TOutcome::Overwritten : TOutcome::Doubtful;
  }
  if (FEngine.Reader().FailedReads() != failedReads) outcome.Outcome = TOutcome::Unreadable;
}

// ---- alternate data streams -----------------------------------------------------------------

void TFileWriter::RecoveryAllADS(int fileNumber, const TTargetFile& target) {
  // The streams of a file system's own files (bad clusters, security) mean nothing elsewhere.
  const TFiles& files = FEngine.Files();
  const bool known = !files.IsWrongNumber(fileNumber);
  if (known && files.List[static_cast<std::size_t>(fileNumber)].ParentCluster == SpecialCluster::NTFSSystemData) return;
  const bool native = FOptions.ADS && FTarget.IsNTFS();
  const TStreamMode mode = native ? TStreamMode::Attributes : FOptions.Streams;
  const TADSDynArray streams = FLink.GetStreams(fileNumber);
  for (std::size_t i = 0; i < streams.size(); ++i) {
    if (streams[i].IsSystem) continue;
    const auto number = static_cast<int>(i);
    bool written = false;
    const std::uint64_t failedReads = FEngine.Reader().FailedReads();
    const std::uint64_t estimatedReads = FEngine.Reader().EstimatedReads();
    switch (mode) {
      case TStreamMode::None:
        ++StreamsLeft;
        continue;
      case TStreamMode::Files:
        written = WriteStreamFile(fileNumber, number, streams[i], target);
        break;
      case TStreamMode::Attributes:
        written = WriteStreamAttribute(fileNumber, number, streams[i], target);
        break;
    }
    const bool whole =
        written && FEngine.Reader().FailedReads() == failedReads && FEngine.Reader().EstimatedReads() == estimatedReads;
    ++(whole ? StreamsWritten : StreamsFailed);
  }
}

bool TFileWriter::WriteStreamFile(int fileNumber, int adsNumber, const TADS& stream, const TTargetFile& target) {
  THandle handle;
  if (FTarget.CreatePartial(handle) != 0) return false;
  TFileSink sink(handle.Get(), false);
  std::int64_t written = 0;
  int error = 0;
  while (error == 0 && written < stream.aSize && FEngine.Recovering) {
    FLink.GetFileData(FChunk, fileNumber, adsNumber, written, std::min(ChunkSize, stream.aSize - written));
    if (FChunk.empty()) break;
    error = sink.Write(FChunk);
    written += static_cast<std::int64_t>(FChunk.size());
    FEngine.Pump();
  }
  if (error == 0) error = sink.Finish();
  handle.Close();
  const std::string name = SafeName(stream.Name);
  if (error == 0 && written == stream.aSize && FinishStream(name, target) == 0) return true;
  FTarget.KeepPartial(StreamFileName(target.Name, name, 1));
  return false;
}

/// Gives the stream just written a name of its own, with the first number that is free. 0, or the errno.
int TFileWriter::FinishStream(const std::string& stream, const TTargetFile& target) {
  int error = EEXIST;
  for (int number = 1; number <= MostStreamNames && (error == EEXIST || error == EISDIR); ++number) {
    const std::string name = StreamFileName(target.Name, stream, number);
    // Streams of this run never take each other's place.
    if (FTarget.ClaimExactly(name)) error = FTarget.Finish(name, target.Replace);
  }
  return error;
}

/// On NTFS mounted by ntfs-3g such an attribute is the stream itself.
bool TFileWriter::WriteStreamAttribute(int fileNumber, int adsNumber, const TADS& stream, const TTargetFile& target) {
  if (stream.aSize > LargestAttribute) return false;
  TByteDynArray bytes;
  while (static_cast<std::int64_t>(bytes.size()) < stream.aSize) {
    const auto start = static_cast<std::int64_t>(bytes.size());
    FLink.GetFileData(FChunk, fileNumber, adsNumber, start, stream.aSize - start);
    if (FChunk.empty()) return false;
    bytes.insert(bytes.end(), FChunk.begin(), FChunk.end());
  }
  const THandle handle = FTarget.OpenFile(target.Name);
  for (int number = 1; handle.Valid() && number <= MostStreamNames; ++number) {
    const std::string name = StreamAttributeName(SafeName(stream.Name), number);
    if (::fsetxattr(handle.Get(), name.c_str(), bytes.data(), bytes.size(), XATTR_CREATE) == 0) return true;
    if (errno != EEXIST) return false;
  }
  return false;
}

}  // namespace brenlow
