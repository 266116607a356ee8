// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/outcome_lines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "cli/file_fields.h"
#include "core/device/caller.h"
#include "core/engine.h"
#include "recovery/master_link.h"
#include "table/files.h"

namespace brenlow::cli {
namespace {

const char* OutcomeName(TOutcome outcome) {
  switch (outcome) {
    case TOutcome::Whole:
      return "whole";
    case TOutcome::Short:
      return "short";
    case TOutcome::Unreadable:
      return "unreadable";
    case TOutcome::Doubtful:
      return "doubtful";
    case TOutcome::Overwritten:
      return "overwritten";
    case TOutcome::Failed:
      return "failed";
    case TOutcome::Skipped:
      return "skipped";
  }
  return "";
}

/// Whether a regular file ends within a line, as a power failure may leave it.
bool EndsWithinLine(const std::string& path) {
  const THandle file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file.Valid() || ::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  char last = '\n';
  return status.st_size > 0 && ::pread(file.Get(), &last, 1, status.st_size - 1) == 1 && last != '\n';
}

}  // namespace

// ---- the report -----------------------------------------------------------------------------

int TReportFile::Open(const std::string& path) {
  FHandle = THandle(OpenOrCreate(AT_FDCWD, path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC, 0666));
  if (!FHandle.Valid()) return errno;
  if (EndsWithinLine(path)) Write("\n");
  return FError;
}

void TReportFile::Write(std::string_view line) {
  while (FError == 0 && !line.empty()) {
    const ssize_t done = ::write(FHandle.Get(), line.data(), line.size());
    if (done >= 0) {
      line.remove_prefix(static_cast<std::size_t>(done));
    } else if (errno != EINTR) {
      FError = errno;
    }
  }
}

int TReportFile::Close() {
  const int handle = FHandle.Release();
  if (handle >= 0 && ::close(handle) != 0 && FError == 0) FError = errno;
  return std::exchange(FError, 0);
}

// ---- the lines ------------------------------------------------------------------------------

void TOutcomeLines::Write(const TFileOutcome& outcome, bool parentDeleted) {
  if (!FOptions.Json && FOptions.Report.empty()) return;
  const std::string line = Line(outcome, parentDeleted);
  if (FOptions.Json) FOutput.Write(line);
  if (!FOptions.Report.empty()) FReport.Write(line);
}

std::string TOutcomeLines::Line(const TFileOutcome& outcome, bool parentDeleted) const {
  TString path;
  for (const TString& folder : FLink.GetFilePath(outcome.FileNumber)) path += folder + u'/';
  path += FLink.GetFileName(outcome.FileNumber);
  const TFile& file = FEngine.Files().List[static_cast<std::size_t>(outcome.FileNumber)];
  const TTreeEntry entry{outcome.FileNumber, &file, path, 0, parentDeleted};
  const bool failed = outcome.Outcome == TOutcome::Failed;
  return FileFields(FEngine, entry, outcome.Doubt)
      .Text("target", outcome.Path)
      .Text("outcome", std::string(OutcomeName(outcome.Outcome)))
      .Number("written", outcome.Written)
      .TextOrNull("sha256", outcome.Digest)
      .Number("errno", outcome.SystemError)
      .TextOrNull("error", failed ? SystemErrorText(TLanguage::English(), outcome.SystemError) : "")
      .Take();
}

void TOutcomeLines::WriteSummary(const TRecoverySummary& summary, std::int64_t wanted, bool stopped) {
  if (!FOptions.Json) return;
  TJsonLine line;
  FOutput.Write(line.Flag("summary", true)
                    .HostPath("target", FOptions.Out)
                    .Number("files", wanted)
                    .Number("bytes", summary.Bytes)
                    .Number("whole", summary.Whole)
                    .Number("short", summary.Short)
                    .Number("unreadable", summary.Unreadable)
                    .Number("doubtful", summary.Doubtful)
                    .Number("failed", summary.Failed)
                    .Number("skipped", summary.Skipped)
                    .Number("deleted", summary.DeletedFiles)
                    .Number("overwritten", summary.Overwritten)
                    .Number("streams_written", summary.StreamsWritten)
                    .Number("streams_left", summary.StreamsLeft)
                    .Number("streams_failed", summary.StreamsFailed)
                    .Flag("target_full", summary.TargetFull)
                    .Flag("stopped", stopped)
                    .Take());
}

int TOutcomeLines::Close() {
  FOutput.Flush();
  return FReport.Close();
}

}  // namespace brenlow::cli
