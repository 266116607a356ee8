// SPDX-License-Identifier: GPL-3.0-or-later
// The verb `recover`.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "analysis/files.h"
#include "cli/commands.h"
#include "cli/file_fields.h"
#include "cli/findings.h"
#include "cli/selection.h"
#include "cli/session.h"
#include "cli/verb_options.h"
#include "core/sizes.h"
#include "core/text.h"
#include "recovery/master_link.h"
#include "recovery/questions.h"
#include "recovery/save_progress.h"

namespace brenlow::cli {
namespace {

constexpr std::size_t MostFaultsShown = 100;

/// The options answer what a window would ask.
class TOptionAnswers final : public IRecoveryQuestions {
 public:
  explicit TOptionAnswers(const TOptions& options) : FOptions(options) {}
  TRenameAnswer Rename(const TRenameQuestion&) override { return {}; }
  TFileExistsAnswer FileExists(const TFileExistsQuestion&) override {
    if (FOptions.Conflict == "replace") return {TRenameResult::rrReplaceAll, {}};
    return {FOptions.Conflict == "skip" ? TRenameResult::rrSkipAll : TRenameResult::rrRenameAll, {}};
  }
  TCandidateAnswer ChooseFirstCluster(const TFile&) override { return {FOptions.Candidates == "all", 0}; }
  bool SaveToSameDrive() override { return false; }
  bool LargerThanFAT() override { return true; }
  bool CancelRecovery() override { return true; }

 private:
  const TOptions& FOptions;
};

TRecoveryOptions RecoveryOptions(const TOptions& options) {
  TRecoveryOptions result;
  result.Path = options.Out;
  result.RestoreFolders = !options.Flat;
  result.CanReplaceSymbols = true;
  result.UnknownSymbols = FromUtf8(options.ReplaceSymbols);
  result.NumberDoubles = true;
  result.Digests = !options.Report.empty();
  if (options.Streams == "files") result.Streams = TStreamMode::Files;
  if (options.Streams == "xattr") result.Streams = TStreamMode::Attributes;
  if (options.LongPaths == "keep") result.LongPaths = TLongPaths::Keep;
  if (options.LongPaths == "shorten") result.LongPaths = TLongPaths::Shorten;
  return result;
}

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
    case TOutcome::Failed:
      return "failed";
    case TOutcome::Skipped:
      return "skipped";
  }
  return "";
}

std::string FaultText(const TLanguage& texts, const TFileOutcome& fault) {
  switch (fault.Outcome) {
    case TOutcome::Short:
      return texts.Utf8(fault.Stopped ? TText::FaultStopped : TText::FaultShort,
                        {SizeText(fault.Written), SizeText(fault.Listed)});
    case TOutcome::Unreadable:
      return texts.Utf8(TText::FaultUnreadable);
    case TOutcome::Doubtful:
      return texts.Utf8(TText::FaultDoubtful);
    case TOutcome::Failed:
      return texts.Utf8(TText::FaultFailed, {SystemErrorText(texts, fault.SystemError)});
    default:
      return "";
  }
}

/// One line of JSON for each file: on standard output, and with a digest in the report.
class TOutcomeLines {
 public:
  TOutcomeLines(TEngine& engine, const TRecoveryMasterLink& link, const TOptions& options)
      : FEngine(engine), FLink(link), FOptions(options) {}

  /// 0, or the errno.
  int OpenReport() {
    if (FOptions.Report.empty()) return 0;
    FReport.open(FOptions.Report, std::ios::binary | std::ios::trunc);
    return FReport ? 0 : errno;
  }
  void Write(const TFileOutcome& outcome, bool parentDeleted) {
    if (!FOptions.Json && FOptions.Report.empty()) return;
    TString path;
    for (const TString& folder : FLink.GetFilePath(outcome.FileNumber)) path += folder + u'/';
    path += FLink.GetFileName(outcome.FileNumber);
    if (FOptions.Json) {
      const TFile& file = FEngine.Files().List[static_cast<std::size_t>(outcome.FileNumber)];
      const TTreeEntry entry{outcome.FileNumber, &file, path, 0, parentDeleted};
      FOutput.Write(FileFields(FEngine, entry)
                        .Text("target", outcome.Path)
                        .Text("outcome", std::string(OutcomeName(outcome.Outcome)))
                        .Take());
    }
    if (!FOptions.Report.empty()) FReport << ReportLine(outcome, path, parentDeleted);
  }
  void FlushIfDue() { FOutput.FlushIfDue(); }
  /// False when the report could not be written.
  bool Close() {
    FOutput.Flush();
    if (FOptions.Report.empty()) return true;
    FReport.close();
    return !FReport.fail();
  }

 private:
  std::string ReportLine(const TFileOutcome& outcome, const TString& path, bool parentDeleted) const {
    TJsonLine line;
    line.Number("drive", FLink.GetFileDriveNumber(outcome.FileNumber) + 1)
        .Text("path", path)
        .Text("target", outcome.Path)
        .Text("outcome", std::string(OutcomeName(outcome.Outcome)))
        .Flag("deleted", parentDeleted || FLink.GetFileDeleted(outcome.FileNumber))
        .Number("size", outcome.Listed)
        .Number("written", outcome.Written)
        .TextOrNull("sha256", outcome.Digest);
    const bool failed = outcome.Outcome == TOutcome::Failed;
    line.TextOrNull("error", failed ? SystemErrorText(TLanguage::English(), outcome.SystemError) : "");
    return line.Take();
  }

  TEngine& FEngine;
  const TRecoveryMasterLink& FLink;
  const TOptions& FOptions;
  TOutput FOutput;
  std::ofstream FReport;
};

void PrintFaults(std::FILE* out, const TLanguage& texts, const TRecoverySummary& summary) {
  const std::int64_t count = summary.FaultCount();
  if (count == 0) return;
  const auto line = [out](const std::string& text) { std::fprintf(out, "%s\n", text.c_str()); };
  line(texts.Utf8(TText::SumFaults, {FilesText(texts, count)}));
  const std::size_t shown = std::min(summary.Faults.size(), MostFaultsShown);
  for (std::size_t i = 0; i < shown; ++i) {
    line("  " + Printable(summary.Faults[i].Path) + ": " + FaultText(texts, summary.Faults[i]));
  }
  const std::int64_t more = count - static_cast<std::int64_t>(shown);
  if (more > 0) line("  " + texts.Utf8(TText::SumMoreFaults, {std::to_string(more)}));
}

void PrintSummary(const TRecoverySummary& summary, std::int64_t wanted, const TOptions& options, bool stopped) {
  const TLanguage& texts = options.Texts;
  std::FILE* out = options.Json ? stderr : stdout;
  const auto line = [out](const std::string& text) { std::fprintf(out, "%s\n", text.c_str()); };
  line(
      texts.Utf8(TText::SumRecovered, {std::to_string(summary.Whole), FilesText(texts, wanted), SizeText(summary.Bytes),
                                       Printable(options.Out), std::to_string(summary.DeletedFiles)}));
  if (summary.Overwritten > 0) line(texts.Utf8(TText::SumOverwritten, {FilesText(texts, summary.Overwritten)}));
  if (summary.Skipped > 0) line(texts.Utf8(TText::SumSkipped, {FilesText(texts, summary.Skipped)}));
  if (summary.StreamsLeft > 0) {
    line(texts.Utf8(summary.StreamsLeft == 1 ? TText::SumStreamsOne : TText::SumStreamsMany,
                    {std::to_string(summary.StreamsLeft)}));
  }
  if (summary.StreamsFailed > 0) line(texts.Utf8(TText::SumStreamsFailed, {std::to_string(summary.StreamsFailed)}));
  PrintFaults(out, texts, summary);
  if (summary.TargetFull) line(texts.Utf8(TText::SumFull));
  if (stopped) line(texts.Utf8(TText::SumStopped));
}

/// Refuses targets that would destroy what is to be recovered. 0 when the target will do.
int CheckTarget(TEngine& engine, const TOptions& options) {
  std::error_code error;
  const TSourceGuard guard = engine.Drives().SourceGuard();
  if (guard.Forbids(options.Out)) {
    Complain(options.Texts.Utf8(TText::TargetOnSource, {options.Out}));
  } else if (!options.Report.empty() && guard.Forbids(options.Report)) {
    Complain(options.Texts.Utf8(TText::ReportOnSource, {options.Report}));
  } else if (std::filesystem::exists(options.Out, error) && !std::filesystem::is_directory(options.Out, error)) {
    Complain(options.Texts.Utf8(TText::TargetNotAFolder, {options.Out}));
  } else {
    return 0;
  }
  return WrongUsage;
}

/// Everything at the top of a drive.
TOperation<void(TSelectedFiles&, const TFileFilter&)> TopOf(TEngine& engine, int drive) {
  TOperation<void(TSelectedFiles&, const TFileFilter&)> operation;
  operation = [&engine, drive](TSelectedFiles& files, const TFileFilter&) {
    for (const std::int64_t number : engine.Drives().GetParentClusters(drive, SpecialCluster::Root)) {
      files.push_back({static_cast<int>(number), false});
    }
    std::stable_partition(files.begin(), files.end(), [&](const TSelectedFile& file) {
      return !engine.Files().List[static_cast<std::size_t>(file.FileIndex)].FileInfo.blnDeleted;
    });
  };
  return operation;
}

int ComplainOf(const TOptions& options, const std::string& path, int error) {
  Complain(options.Texts.Utf8(TText::ErrorOf, {path, SystemErrorText(options.Texts, error)}));
  return WrongUsage;
}

/// The one character of `--replace-symbols`, which must not be a refused one itself.
std::string CheckReplacement(const std::string& text) {
  const TString character = FromUtf8(text);
  const bool fits = character.size() == 1 && character[0] >= u' ' && TFiles::RightName(character) == 0;
  return fits ? "" : "one character, none of \\ / : * ? \" < > |";
}

}  // namespace

void AddRecoverOptions(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  const auto choice = [&](const char* name, std::string& value, TText help, std::vector<std::string> values) {
    verb.add_option(name, value, texts.Utf8(help))
        ->check(CLI::IsMember(std::move(values)))
        ->type_name("HOW")
        ->capture_default_str();
  };
  AddSourceOption(verb, options);
  AddFilterOptions(verb, options);
  AddRangeOptions(verb, options);
  AddSearchOptions(verb, options);
  verb.add_option("--out", options.Out, texts.Utf8(TText::HelpOut))->required()->type_name("DIR");
  choice("--conflict", options.Conflict, TText::HelpConflict, {"rename", "skip", "replace"});
  verb.add_option("--replace-symbols", options.ReplaceSymbols, texts.Utf8(TText::HelpReplaceSymbols))
      ->check(CheckReplacement)
      ->type_name("C")
      ->capture_default_str();
  verb.add_flag("--flat", options.Flat, texts.Utf8(TText::HelpFlat));
  choice("--candidates", options.Candidates, TText::HelpCandidates, {"first", "all"});
  choice("--streams", options.Streams, TText::HelpStreams, {"none", "files", "xattr"});
  choice("--long-paths", options.LongPaths, TText::HelpLongPaths, {"auto", "keep", "shorten"});
  verb.add_flag("--recover-found", options.RecoverFound, texts.Utf8(TText::HelpRecoverFound));
  verb.add_option("--report", options.Report, texts.Utf8(TText::HelpReport))->type_name("FILE");
}

int RecoverFiles(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  if (MountSource(engine, options.Source(), options.Map) < 0) return WrongUsage;
  if (const int status = CheckTarget(engine, options); status != 0) return status;
  TProgressLine progress(options);
  const TAnalysed analysed = Analyse(engine, options, progress);
  if (analysed.Drives.empty()) return analysed.WrongDrive ? WrongUsage : DoneWithFailures;
  const bool scanStopped = TStopKey::Pressed();
  const int scanStatus = TStopKey::Status();
  if (scanStopped && !options.RecoverFound) {
    ComplainOfStoppedScan(engine, options, analysed);
    return scanStatus;
  }

  const TSelection selection(options);
  TOptionAnswers answers(options);
  TRecoveryMasterLink link(engine);
  selection.ApplyTo(link, engine, analysed.Drives);
  TfrmSaveProgress recovery(engine, link, RecoveryOptions(options), &answers);
  recovery.Filter = selection.Filter();
  if (const int error = recovery.PrepareInfo(); error != 0) return ComplainOf(options, options.Out, error);
  TOutcomeLines lines(engine, link, options);
  if (const int error = lines.OpenReport(); error != 0) return ComplainOf(options, options.Report, error);
  for (const int number : analysed.Drives) {
    link.GetSelectedFiles = TopOf(engine, number);
    recovery.PrepareRecovery(false);
  }
  const bool nothing = recovery.RecoveryFiles == 0 || CountFiles(engine, analysed.Drives) == 0;
  if (nothing && !scanStopped) {
    ComplainOfNothing(engine, options, analysed.Drives);
    return DoneWithFailures;
  }
  progress.Begin(options.Texts.Utf8(TText::RecoveringFiles));
  const TStopKey stop(engine);
  bool isStopTold = false;
  engine.OnPump = [&] {
    if (TStopKey::Pressed() && !isStopTold) {
      progress.Clear();
      Complain(options.Texts.Utf8(TText::StoppingAfterFile));
      isStopTold = true;
    }
    lines.FlushIfDue();
    const double total = static_cast<double>(std::max<std::int64_t>(recovery.RecoverySize, 1));
    progress.Show(std::min(static_cast<double>(recovery.RecoveredSize) / total, 1.0), recovery.RecoveredSize,
                  FilesText(options.Texts, recovery.Summary().Files));
  };
  recovery.OnFile = [&](const TFileOutcome& outcome, bool parentDeleted) {
    lines.Write(outcome, parentDeleted);
    if (TStopKey::Pressed()) engine.Recovering = false;  // the file in hand is done
  };
  engine.Recovering = true;
  for (const int number : analysed.Drives) {
    if (!engine.Recovering) break;
    TString subfolder;
    if (analysed.Drives.size() > 1) {
      const TString& name = Drive(engine, number).VolumeName;
      subfolder = NumberText(number + 1) + u" " + (name.empty() ? engine.Language()[TText::Volume] : name);
    }
    link.GetSelectedFiles = TopOf(engine, number);
    recovery.Recovery(false, subfolder);
  }
  engine.Recovering = false;
  engine.OnPump = nullptr;
  recovery.CloseInfo();
  progress.Clear();
  const bool reported = lines.Close();
  const TRecoverySummary& summary = recovery.Summary();
  const bool stopped = scanStopped || summary.Stopped;
  PrintSummary(summary, recovery.RecoveryFiles, options, stopped);
  if (!reported) ComplainOf(options, options.Report, EIO);
  if (stopped) return TStopKey::Pressed() ? TStopKey::Status() : scanStatus;
  const bool sound = summary.FaultCount() == 0 && summary.StreamsFailed == 0 && analysed.AllReadable && reported;
  return sound ? AllDone : DoneWithFailures;
}

}  // namespace brenlow::cli
