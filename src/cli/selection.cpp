// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/selection.h"

#include <fnmatch.h>

#include <algorithm>

#include "analysis/file_kinds.h"
#include "analysis/files.h"
#include "core/engine.h"
#include "core/text.h"
#include "recovery/master_link.h"

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
  for (const std::string& extension : options.Extensions) {
    FExtensions.push_back(LowerCase(FromUtf8(extension.starts_with('.') ? extension.substr(1) : extension)));
  }
}

bool TSelection::WantsType(TStringView name) const {
  if (!PassesKindFilter(FFilter, name)) return false;
  return FExtensions.empty() ||
         std::find(FExtensions.begin(), FExtensions.end(), LowerCase(Extension(name))) != FExtensions.end();
}

namespace {

/// Notes the files whose path fits.
class TMatches final : public ITreeVisitor {
 public:
  TMatches(const TSelection& selection, TEngine& engine, std::vector<bool>& matches)
      : FSelection(selection), FEngine(engine), FMatches(matches) {}
  bool File(const TTreeEntry& entry) override {
    FMatches[static_cast<std::size_t>(entry.FileNumber)] = FSelection.Wants(FEngine, entry);
    return true;
  }
  bool EnterFolder(const TTreeEntry&) override { return true; }
  void LeaveFolder(const TTreeEntry&) override {}

 private:
  const TSelection& FSelection;
  TEngine& FEngine;
  std::vector<bool>& FMatches;
};

}  // namespace

bool TSelection::PassesFilter(TEngine& engine, int fileNumber, bool parentDeleted) const {
  const TFileInfo& info = engine.Files().List[static_cast<std::size_t>(fileNumber)].FileInfo;
  if (info.blnFolder && (!FFilter.AllFiles || !FGlob.empty() || !FExtensions.empty())) return false;
  if (!info.blnFolder && !WantsType(info.strName)) return false;
  const bool deleted = parentDeleted || info.blnDeleted;
  if (info.blnFolder && !(deleted ? FFilter.Deleted : FFilter.Existing)) return false;
  return engine.Files().IsFiltered(fileNumber, parentDeleted, FFilter);
}

bool TSelection::Wants(TEngine& engine, const TTreeEntry& entry) const {
  if (!PassesFilter(engine, entry.FileNumber, entry.ParentDeleted)) return false;
  return FGlob.empty() || MatchesGlob(ToUtf8(entry.Path));
}

void TSelection::ApplyTo(TRecoveryMasterLink& link, TEngine& engine, const TIntegerDynArray& drives) const {
  if (FGlob.empty()) {
    link.IsFiltered = [this, &engine](int number, bool parentDeleted, const TFileFilter&) {
      return PassesFilter(engine, number, parentDeleted);
    };
    return;
  }
  std::vector<bool> matches(engine.Files().List.size());
  TMatches visitor(*this, engine, matches);
  for (const int number : drives) WalkTree(engine, number, visitor);
  link.IsFiltered = [matches = std::move(matches)](int number, bool, const TFileFilter&) {
    return bool{matches[static_cast<std::size_t>(number)]};
  };
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
