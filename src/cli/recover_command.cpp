// SPDX-License-Identifier: GPL-3.0-or-later
// The verb `recover`.
#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "cli/bad_map.h"
#include "cli/commands.h"
#include "cli/file_fields.h"
#include "cli/findings.h"
#include "cli/outcome_lines.h"
#include "cli/rows.h"
#include "cli/selection.h"
#include "cli/session.h"
#include "cli/verb_options.h"
#include "core/sector_reader.h"
#include "core/sizes.h"
#include "core/text.h"
#include "recovery/master_link.h"
#include "recovery/questions.h"
#include "recovery/recovery_master.h"
#include "recovery/save_progress.h"
#include "table/files.h"

namespace brenlow::cli {
namespace {

constexpr std::size_t MaxFaultsShown = 100;

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
  bool MuchLargerThanSource(std::int64_t, std::int64_t) override { return FOptions.AllowExpand; }
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
  result.Digests = options.Json || !options.Report.empty();
  if (options.Streams == "files") result.Streams = TStreamMode::Files;
  if (options.Streams == "xattr") result.Streams = TStreamMode::Attributes;
  if (options.LongPaths == "keep") result.LongPaths = TLongPaths::Keep;
  if (options.LongPaths == "shorten") result.LongPaths = TLongPaths::Shorten;
  return result;
}

std::string FaultText(const TLanguage& texts, const TFileOutcome& fault) {
  switch (fault.Outcome) {
    case TOutcome::Short:
      return texts.Utf8(fault.Stopped ? TText::FaultStopped : TText::FaultShort,
                        {SizeText(fault.Written), SizeText(fault.Listed)});
    case TOutcome::Unreadable:
      return texts.Utf8(TText::FaultUnreadable);
    case TOutcome::Doubtful:
    case TOutcome::Overwritten:
      return texts.Utf8(DoubtText(fault.Doubt));
    case TOutcome::Failed:
      return texts.Utf8(TText::FaultFailed, {SystemErrorText(texts, fault.SystemError)});
    default:
      return "";
  }
}

void PrintFaults(std::FILE* out, const TLanguage& texts, const TRecoverySummary& summary) {
  const std::int64_t count = summary.FaultCount();
  if (count == 0) return;
  const auto line = [out](const std::string& text) { std::fprintf(out, "%s\n", text.c_str()); };
  line(texts.Utf8(TText::SumFaults, {FilesText(texts, count)}));
  const std::size_t shown = std::min(summary.Faults.size(), MaxFaultsShown);
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
  const auto counted = [&](std::int64_t count, TText text) {
    if (count > 0) line(texts.Utf8(text, {FilesText(texts, count)}));
  };
  line(texts.Utf8(TText::SumRecovered, {std::to_string(summary.Whole), FilesText(texts, wanted),
                                        SizeText(summary.Bytes), Printable(options.Out)}));
  counted(summary.DeletedFiles, TText::SumDeleted);
  counted(summary.Overwritten, TText::SumOverwritten);
  counted(summary.Skipped, TText::SumSkipped);
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

/// The top of one drive after another, and of all that is below it what the options ask for.
class TSelectionLink final : public TFileTableLink {
 public:
  using TFileTableLink::TFileTableLink;
  int Drive = -1;          ///< whose top is selected
  TSelection::TTest Test;  ///< none takes all that passes the filter

  bool IsFiltered(int fileNumber, bool parentDeleted, const TFileFilter& filter) const override {
    return Test ? Test(fileNumber, parentDeleted) : TFileTableLink::IsFiltered(fileNumber, parentDeleted, filter);
  }
  void GetSelectedFiles(TSelectedFiles& files, const TFileFilter&) const override {
    for (const std::int64_t number : GetParentClusters(Drive, SpecialCluster::Root)) {
      files.push_back({static_cast<int>(number), false});
    }
    std::stable_partition(files.begin(), files.end(),
                          [this](const TSelectedFile& file) { return !GetFileDeleted(file.FileIndex); });
  }
};

/// Bytes free on the target, -1 when that is not known.
std::int64_t TargetFree(const TOptions& options) {
  std::error_code error;
  return FreeSpaceOf(std::filesystem::absolute(options.Out, error).string());
}

std::string FreeText(const TOptions& options) {
  const std::int64_t free = TargetFree(options);
  return free < 0 ? "?" : SizeText(free);
}

/// A line for people: on standard output, unless that is for JSON.
void Say(const TOptions& options, const std::string& text) {
  std::fprintf(options.Json ? stderr : stdout, "%s\n", Printable(text).c_str());
  std::fflush(options.Json ? stderr : stdout);
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

/// Opens the target and the report, so that a wrong one costs no scan, and says what room there is.
/// 0, or the exit status.
int OpenTarget(const TOptions& options, TfrmSaveProgress& recovery, TOutcomeLines& lines) {
  if (options.DryRun) return 0;
  if (const int error = recovery.PrepareInfo(); error != 0) return ComplainOf(options, options.Out, error);
  if (const int error = lines.OpenReport(); error != 0) return ComplainOf(options, options.Report, error);
  Say(options, options.Texts.Utf8(TText::TargetReady, {options.Out, FreeText(options)}));
  return 0;
}

/// Whether everything selected has room on the target; complains when it has not.
bool HasRoom(const TOptions& options, const TfrmSaveProgress& recovery) {
  const std::int64_t free = TargetFree(options);
  if (free < 0 || recovery.RecoverySize <= free) return true;
  Complain(options.Texts.Utf8(TText::TooLittleRoom, {SizeText(recovery.RecoverySize), SizeText(free)}));
  return false;
}

/// Prints the files that a recovery would write.
class TPlan final : public ITreeVisitor {
 public:
  TPlan(TEngine& engine, TOutput& output) : FEngine(engine), FOutput(output) {}
  bool File(const TTreeEntry& entry) override {
    FOutput.Write(FileFields(FEngine, entry).Text("outcome", std::string("planned")).Take());
    return true;
  }
  bool EnterFolder(const TTreeEntry&) override { return true; }
  void LeaveFolder(const TTreeEntry&) override {}

 private:
  TEngine& FEngine;
  TOutput& FOutput;
};

/// Says what a recovery would do, and writes nothing.
int TellPlan(TEngine& engine, const TOptions& options, const TSelection& selection, const TIntegerDynArray& drives,
             const TfrmSaveProgress& recovery) {
  if (options.Json) {
    TOutput output;
    TPlan plan(engine, output);
    for (const int number : drives) selection.Walk(engine, number, plan);
  }
  Say(options, options.Texts.Utf8(TText::DryRun, {FilesText(options.Texts, recovery.RecoveryFiles),
                                                  SizeText(recovery.RecoverySize), options.Out, FreeText(options)}));
  return HasRoom(options, recovery) ? AllDone : DoneWithFailures;
}

/// Writes what is selected of the drives, with progress, until it is done or stopped.
void WriteFiles(TEngine& engine, const TOptions& options, const TIntegerDynArray& drives, TSelectionLink& link,
                TfrmSaveProgress& recovery, TOutcomeLines& lines, TProgressLine& progress) {
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
                  FilesText(options.Texts, recovery.Summary().Files) + UnreadDetail(engine, options));
  };
  recovery.OnFile = [&](const TFileOutcome& outcome, bool parentDeleted) {
    lines.Write(outcome, parentDeleted);
    if (TStopKey::Pressed()) engine.Recovering = false;  // the current file is done
  };
  engine.Recovering = true;
  for (const int number : drives) {
    if (!engine.Recovering) break;
    link.Drive = number;
    recovery.Recovery(false, drives.size() > 1 ? RowFolder(engine, number) : TString());
  }
  engine.Recovering = false;
  engine.OnPump = nullptr;
  recovery.CloseInfo();
  progress.Clear();
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
  AddBestOption(verb, options);
  verb.add_option("--out", options.Out, texts.Utf8(TText::HelpOut))->required()->type_name("DIR");
  choice("--conflict", options.Conflict, TText::HelpConflict, {"rename", "skip", "replace"});
  verb.add_option("--replace-symbols", options.ReplaceSymbols, texts.Utf8(TText::HelpReplaceSymbols))
      ->check(CheckReplacement)
      ->type_name("C")
      ->capture_default_str();
  verb.add_flag("--flat", options.Flat, texts.Utf8(TText::HelpFlat));
  verb.add_flag("--allow-expand", options.AllowExpand, texts.Utf8(TText::HelpAllowExpand));
  choice("--candidates", options.Candidates, TText::HelpCandidates, {"first", "all"});
  choice("--streams", options.Streams, TText::HelpStreams, {"none", "files", "xattr"});
  choice("--long-paths", options.LongPaths, TText::HelpLongPaths, {"auto", "keep", "shorten"});
  verb.add_flag("--dry-run", options.DryRun, texts.Utf8(TText::HelpDryRun));
  verb.add_flag("--recover-found", options.RecoverFound, texts.Utf8(TText::HelpRecoverFound));
  verb.add_option("--report", options.Report, texts.Utf8(TText::HelpReport))->type_name("FILE");
}

int RecoverFiles(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  if (MountSource(engine, options, options.Source(), options.Map) < 0) return WrongUsage;
  TBadMap badMap(engine, options);
  if (!badMap.Open()) return WrongUsage;
  if (const int status = CheckTarget(engine, options); status != 0) return status;
  TOptionAnswers answers(options);
  TSelectionLink link(engine);
  TfrmSaveProgress recovery(engine, link, RecoveryOptions(options), &answers);
  TOutcomeLines lines(engine, link, options);
  if (const int status = OpenTarget(options, recovery, lines); status != 0) return status;
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
  link.Test = selection.Test(engine, analysed.Drives);
  recovery.Filter = selection.Filter();
  for (const int number : analysed.Drives) {
    link.Drive = number;
    recovery.PrepareRecovery(false);
  }
  const std::int64_t missingIds = selection.MissingIds();
  if (missingIds > 0) Complain(options.Texts.Utf8(TText::MissingIds, {std::to_string(missingIds)}));
  const bool nothing = recovery.RecoveryFiles == 0 || CountFiles(engine, analysed.Drives) == 0;
  if (nothing && !scanStopped) {
    ComplainOfNothing(engine, options, analysed.Drives);
    lines.WriteSummary(recovery.Summary(), 0, false);
    return DoneWithFailures;
  }
  if (options.DryRun) return TellPlan(engine, options, selection, analysed.Drives, recovery);
  if (!recovery.MayBeWritten()) {
    Complain(options.Texts.Utf8(TText::MuchLarger, {SizeText(recovery.ListedSize), SizeText(recovery.SourceSize())}));
    return WrongUsage;
  }
  HasRoom(options, recovery);
  WriteFiles(engine, options, analysed.Drives, link, recovery, lines, progress);
  const TRecoverySummary& summary = recovery.Summary();
  const bool stopped = scanStopped || summary.Stopped;
  lines.WriteSummary(summary, recovery.RecoveryFiles, stopped);
  const int reportError = lines.Close();
  PrintSummary(summary, recovery.RecoveryFiles, options, stopped);
  ComplainOfUnread(engine, options);
  if (reportError != 0) ComplainOf(options, options.Report, reportError);
  if (stopped) return TStopKey::Pressed() ? TStopKey::Status() : scanStatus;
  const bool sound = summary.FaultCount() == 0 && summary.StreamsFailed == 0 && analysed.AllReadable &&
                     reportError == 0 && missingIds == 0;
  return sound ? AllDone : DoneWithFailures;
}

}  // namespace brenlow::cli
