// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

#include "analysis/tree_walk.h"
#include "cli/options.h"
#include "core/file_records.h"

namespace brenlow {
class TEngine;
class TRecoveryMasterLink;
}  // namespace brenlow

namespace brenlow::cli {

/// The entries that the options ask for. Folders pass only when nothing narrows the files down.
class TSelection {
 public:
  explicit TSelection(const TOptions& options);
  bool Wants(TEngine& engine, const TTreeEntry& entry) const;
  /// Whether files with the extension of this name are wanted.
  bool WantsType(TStringView name) const;
  const TFileFilter& Filter() const { return FFilter; }
  /// Lets a recovery of these drives take the same entries.
  void ApplyTo(TRecoveryMasterLink& link, TEngine& engine, const TIntegerDynArray& drives) const;

 private:
  bool PassesFilter(TEngine& engine, int fileNumber, bool parentDeleted) const;
  bool MatchesGlob(const std::string& path) const;

  std::string FGlob;
  std::vector<TString> FExtensions;  // lower case, without a dot; empty for all
  TFileFilter FFilter;
};

}  // namespace brenlow::cli
