// SPDX-License-Identifier: GPL-3.0-or-later
// The verb `recover`.
#include <fmt/format.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

#include "cli/commands.h"
#include "cli/file_fields.h"
#include "cli/selection.h"
#include "cli/session.h"
#include "core/device/system_disks.h"
#include "core/sizes.h"
#include "core/text.h"
#include "recovery/recovery.h"

namespace brenlow::cli {
namespace {

std::string FaultText(const TFileOutcome& fault) {
  switch (fault.Outcome) {
    case TOutcome::Short:
      return fmt::format("only {} of {} could be read", SizeText(fault.Written), SizeText(fault.Listed));
    case TOutcome::Unreadable:
      return "parts of it lie where the source cannot be read";
    case TOutcome::Failed:
      return fmt::format("could not be written: {}", std::strerror(fault.SystemError));
    default:
      return "";
  }
}

const char* OutcomeName(TOutcome outcome) {
  switch (outcome) {
    case TOutcome::Whole:
      return "whole";
    case TOutcome::Short:
      return "short";
    case TOutcome::Unreadable:
      return "unreadable";
    case TOutcome::Failed:
      return "failed";
  }
  return "";
}

std::string FilesText(std::int64_t count) { return fmt::format("{} {}", count, count == 1 ? "file" : "files"); }

void PrintSummary(const TRecoverySummary& summary, std::int64_t wanted, const TOptions& options, bool scanStopped) {
  std::FILE* out = options.Json ? stderr : stdout;
  fmt::print(out, "Recovered {} of {} ({}) to {}; {} of the files written were deleted.\n", summary.Whole,
             FilesText(wanted), SizeText(summary.Bytes), options.Out, summary.DeletedFiles);
  if (summary.Overwritten > 0) {
    fmt::print(out, "{} overwritten: the place belongs to other files now, so the content is probably not theirs.\n",
               FilesText(summary.Overwritten));
  }
  if (!summary.Faults.empty()) {
    fmt::print(out, "{} not whole:\n", FilesText(static_cast<std::int64_t>(summary.Faults.size())));
    for (const TFileOutcome& fault : summary.Faults) {
      fmt::print(out, "  {}: {}\n", Printable(fault.Path), FaultText(fault));
    }
  }
  if (summary.TargetFull)
    fmt::print(out, "The target is full. Free some space or choose another folder, then run this again.\n");
  if (scanStopped || summary.Stopped)
    fmt::print(out, "Stopped before the end: what was found and written up to then is kept.\n");
}

/// Refuses targets that would destroy what is to be recovered. 0 when the target will do.
int CheckTarget(const TOptions& options) {
  std::error_code error;
  std::filesystem::path existing = std::filesystem::absolute(options.Out, error);
  while (!existing.empty() && !std::filesystem::exists(existing, error) && existing != existing.root_path()) {
    existing = existing.parent_path();
  }
  if (LiesOnSource(existing.string(), options.Source())) {
    Complain(
        fmt::format("{} lies on the source itself: writing there could destroy what is to be recovered. Choose a "
                    "folder on another disk.",
                    options.Out));
    return WrongUsage;
  }
  if (std::filesystem::exists(options.Out, error) && !std::filesystem::is_directory(options.Out, error)) {
    Complain(fmt::format("{}: is not a folder.", options.Out));
    return WrongUsage;
  }
  return 0;
}

}  // namespace

int RecoverFiles(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  if (MountSource(engine, options.Source()) < 0) return WrongUsage;
  if (const int status = CheckTarget(options); status != 0) return status;
  const TStopKey stop(engine);
  TProgressLine progress;
  const TAnalysed analysed = Analyse(engine, options, progress);
  if (analysed.Drives.empty()) return analysed.WrongDrive ? WrongUsage : DoneWithFailures;
  const bool scanStopped = TStopKey::Pressed();

  const TSelection selection(options);
  TRecovery recovery(engine, [&](const TTreeEntry& entry) { return selection.Wants(engine, entry); });
  if (const int error = recovery.SetTarget(options.Out); error != 0) {
    Complain(fmt::format("{}: {}.", options.Out, std::strerror(error)));
    return WrongUsage;
  }
  TRecoverySize total;
  for (const int number : analysed.Drives) {
    const TRecoverySize size = recovery.Measure(number);
    total.Files += size.Files;
    total.Bytes += size.Bytes;
  }
  progress.Begin("Recovering");
  recovery.OnProgress = [&](std::int64_t bytes) {
    const double position = total.Bytes > 0 ? static_cast<double>(bytes) / static_cast<double>(total.Bytes) : 1;
    progress.Show(position, bytes, fmt::format("{} files", recovery.Summary().Files));
  };
  TOutput output;
  if (options.Json) {
    recovery.OnFile = [&](const TTreeEntry& entry, const TFileOutcome& outcome) {
      output.Write(FileFields(entry)
                       .Text("target", outcome.Path)
                       .Text("outcome", std::string(OutcomeName(outcome.Outcome)))
                       .Take());
    };
  }
  engine.Recovering = true;
  for (const int number : analysed.Drives) {
    TString subfolder;
    if (analysed.Drives.size() > 1) {
      const TDriveInfo& drive = Drive(engine, number);
      subfolder = NumberText(number + 1) + u" " + (drive.VolumeName.empty() ? TString(u"Volume") : drive.VolumeName);
    }
    recovery.Recover(number, subfolder);
  }
  engine.Recovering = false;
  progress.Clear();
  output.Flush();
  const TRecoverySummary& summary = recovery.Summary();
  PrintSummary(summary, total.Files, options, scanStopped);
  if (scanStopped || summary.Stopped) return StoppedByUser;
  return summary.Faults.empty() && analysed.AllReadable ? AllDone : DoneWithFailures;
}

}  // namespace brenlow::cli
