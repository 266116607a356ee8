// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

#include "analysis/tree_walk.h"
#include "cli/options.h"
#include "core/file_records.h"

namespace brenlow {
class TEngine;
}

namespace brenlow::cli {

/// The entries that the options ask for. Folders pass only when nothing narrows the files down.
class TSelection {
 public:
  explicit TSelection(const TOptions& options);
  bool Wants(TEngine& engine, const TTreeEntry& entry) const;

 private:
  bool MatchesGlob(const std::string& path) const;

  std::string FGlob;
  TFileFilter FFilter;
};

}  // namespace brenlow::cli
