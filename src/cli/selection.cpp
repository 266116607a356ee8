// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/selection.h"

#include <fnmatch.h>

#include "analysis/files.h"
#include "core/engine.h"
#include "core/text.h"

namespace brenlow::cli {

TSelection::TSelection(const TOptions& options) : FGlob(options.PathGlob) {
  FFilter.Existing = options.Existing || !options.Deleted;
  FFilter.Deleted = options.Deleted || !options.Existing;
  FFilter.AllFiles = options.Kinds.empty();
  for (const std::string& kind : options.Kinds) {
    if (kind == "archive") FFilter.Archive = true;
    if (kind == "audio") FFilter.Audio = true;
    if (kind == "database") FFilter.Database = true;
    if (kind == "document") FFilter.Document = true;
    if (kind == "image") FFilter.Image = true;
    if (kind == "video") FFilter.Video = true;
  }
}

bool TSelection::Wants(TEngine& engine, const TTreeEntry& entry) const {
  if (entry.File->FileInfo.blnFolder && (!FFilter.AllFiles || !FGlob.empty())) return false;
  if (entry.File->FileInfo.blnFolder && !(entry.Deleted() ? FFilter.Deleted : FFilter.Existing)) return false;
  if (!engine.Files().IsFiltered(entry.FileNumber, entry.ParentDeleted, FFilter)) return false;
  return FGlob.empty() || MatchesGlob(ToUtf8(entry.Path));
}

/// A pattern without a slash is compared with the name, one with a slash with the whole path.
bool TSelection::MatchesGlob(const std::string& path) const {
  if (FGlob.find('/') != std::string::npos) {
    const char* pattern = FGlob.c_str() + (FGlob.front() == '/' ? 1 : 0);
    return fnmatch(pattern, path.c_str(), FNM_CASEFOLD) == 0;
  }
  return fnmatch(FGlob.c_str(), path.substr(path.rfind('/') + 1).c_str(), FNM_CASEFOLD) == 0;
}

}  // namespace brenlow::cli
