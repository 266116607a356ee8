// SPDX-License-Identifier: GPL-3.0-or-later
// One line of JSON for each file of a recovery: on standard output and in the report.
#pragma once

#include <string>
#include <string_view>

#include "cli/console.h"
#include "cli/options.h"
#include "recovery/recovery_types.h"
#include "recovery/target_tree.h"

namespace brenlow {
class TRecoveryMasterLink;
}  // namespace brenlow

namespace brenlow::cli {

/// The file of `--report`. What it holds stays: lines are added after it, each written out at once, so
/// that a run that is killed or run again loses none.
class TReportFile {
 public:
  /// 0, or the errno.
  int Open(const std::string& path);
  void Write(std::string_view line);
  /// The errno of the first failure, or 0.
  int Close();

 private:
  THandle FHandle;
  int FError = 0;
};

class TOutcomeLines {
 public:
  TOutcomeLines(TEngine& engine, const TRecoveryMasterLink& link, const TOptions& options)
      : FEngine(engine), FLink(link), FOptions(options) {}

  /// 0, or the errno.
  int OpenReport() { return FOptions.Report.empty() ? 0 : FReport.Open(FOptions.Report); }
  void Write(const TFileOutcome& outcome, bool parentDeleted);
  /// The last line on standard output with `--json`: what has become of all files. `wanted` is their
  /// number as selected.
  void WriteSummary(const TRecoverySummary& summary, std::int64_t wanted, bool stopped);
  void FlushIfDue() { FOutput.FlushIfDue(); }
  /// 0, or the errno of the report.
  int Close();

 private:
  std::string Line(const TFileOutcome& outcome, bool parentDeleted) const;

  TEngine& FEngine;
  const TRecoveryMasterLink& FLink;
  const TOptions& FOptions;
  TOutput FOutput;
  TReportFile FReport;
};

}  // namespace brenlow::cli
