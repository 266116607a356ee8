// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "analysis/tree_walk.h"
#include "cli/file_id.h"
#include "cli/options.h"
#include "core/file_records.h"

namespace brenlow {
class TEngine;
}  // namespace brenlow

namespace brenlow::cli {

/// The entries that the options ask for. Folders pass only when nothing narrows the files down.
class TSelection {
 public:
  explicit TSelection(const TOptions& options);
  /// Visits the entries of a drive that are wanted.
  void Walk(TEngine& engine, int driveNumber, ITreeVisitor& visitor) const;
  /// Whether files with the extension of this name are wanted.
  bool WantsType(TStringView name) const;
  const TFileFilter& Filter() const { return FFilter; }
  /// How many of the requested ids no walk has found.
  std::int64_t MissingIds() const { return static_cast<std::int64_t>(FIds.size() - FFoundIds.size()); }
  /// Whether an entry of these drives is wanted. The answer uses this selection and the engine.
  using TTest = std::function<bool(int fileNumber, bool parentDeleted)>;
  TTest Test(TEngine& engine, const TIntegerDynArray& drives) const;

 private:
  class TSieve;
  bool NeedsWalk() const { return !FPaths.empty() || !FExcludes.empty() || FByIds; }
  bool NarrowsFiles() const;
  bool PassesFilter(TEngine& engine, int fileNumber, bool parentDeleted) const;
  bool FitsSizeAndTime(const TFileInfo& info) const;

  std::vector<std::string> FPaths;  // empty for all
  std::vector<std::string> FExcludes;
  std::vector<TString> FExtensions;  // lower case, without a dot; empty for all
  std::int64_t FMinSize;
  std::int64_t FMaxSize;
  TDateTime FNewer;
  TDateTime FOlder;
  TFileFilter FFilter;
  bool FByIds;
  TFileIds FIds;
  mutable TFileIds FFoundIds;
};

}  // namespace brenlow::cli
