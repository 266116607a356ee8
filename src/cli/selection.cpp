// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/selection.h"

#include <fnmatch.h>

#include <algorithm>

#include "core/engine.h"
#include "core/text.h"
#include "table/file_kinds.h"
#include "table/files.h"

namespace brenlow::cli {

namespace {

/// A pattern without a slash is compared with the name, one with a slash with the whole path.
bool FitsPattern(const std::string& pattern, const std::string& path) {
  if (pattern.find('/') == std::string::npos) {
    return fnmatch(pattern.c_str(), path.c_str() + (path.rfind('/') + 1), FNM_CASEFOLD) == 0;
  }
  return fnmatch(pattern.c_str() + (pattern.front() == '/' ? 1 : 0), path.c_str(), FNM_CASEFOLD) == 0;
}

bool FitsOneOf(const std::vector<std::string>& patterns, const std::string& path) {
  return std::any_of(patterns.begin(), patterns.end(), [&](const auto& pattern) { return FitsPattern(pattern, path); });
}

}  // namespace

TSelection::TSelection(const TOptions& options)
    : FPaths(options.Paths),
      FExcludes(options.Excludes),
      FMinSize(options.MinSize),
      FMaxSize(options.MaxSize),
      FNewer(options.Newer),
      FOlder(options.Older),
      FByIds(options.ByIds),
      FIds(options.Ids) {
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

bool TSelection::NarrowsFiles() const {
  return !FFilter.AllFiles || !FPaths.empty() || !FExtensions.empty() || FMinSize >= 0 || FMaxSize >= 0 ||
         FNewer != 0 || FOlder != 0;
}

/// What has no time fits no bound of it.
bool TSelection::FitsSizeAndTime(const TFileInfo& info) const {
  const TDateTime modified = info.TimeStamp.dtModified;
  if (info.aSize < FMinSize || (FMaxSize >= 0 && info.aSize > FMaxSize)) return false;
  if (FNewer != 0 && (modified == 0 || modified < FNewer)) return false;
  return FOlder == 0 || (modified != 0 && modified < FOlder);
}

bool TSelection::PassesFilter(TEngine& engine, int fileNumber, bool parentDeleted) const {
  const TFileInfo& info = engine.Files().List[static_cast<std::size_t>(fileNumber)].FileInfo;
  if (info.blnFolder && NarrowsFiles()) return false;
  if (!info.blnFolder && (!WantsType(info.strName) || !FitsSizeAndTime(info))) return false;
  const bool deleted = parentDeleted || info.blnDeleted;
  if (info.blnFolder && !(deleted ? FFilter.Deleted : FFilter.Existing)) return false;
  return engine.Files().IsFiltered(fileNumber, parentDeleted, FFilter);
}

/// Passes on to another visitor what is wanted. An excluded folder is left out with all below it, a
/// folder named by its id taken with all below it.
class TSelection::TSieve final : public ITreeVisitor {
 public:
  TSieve(const TSelection& selection, TEngine& engine, ITreeVisitor& visitor)
      : FSelection(selection), FEngine(engine), FVisitor(visitor) {}
  bool File(const TTreeEntry& entry) override { return !IsWanted(entry) || FVisitor.File(entry); }
  bool EnterFolder(const TTreeEntry& entry) override {
    if (FNamedDepth < 0 && IsNamed(entry)) FNamedDepth = entry.Depth;
    const bool wanted = IsWanted(entry);
    if (FExcludedDepth < 0 && IsExcluded(entry)) FExcludedDepth = entry.Depth;
    return !wanted || FVisitor.EnterFolder(entry);
  }
  void LeaveFolder(const TTreeEntry& entry) override {
    if (FExcludedDepth == entry.Depth) FExcludedDepth = -1;
    if (FNamedDepth == entry.Depth) FNamedDepth = -1;
  }

 private:
  bool IsNamed(const TTreeEntry& entry) const {
    if (!FSelection.FByIds) return false;
    const TFileId id = FileId(FEngine, *entry.File);
    const bool named = FSelection.FIds.contains(id);
    if (named) FSelection.FFoundIds.insert(id);
    return named;
  }
  bool IsExcluded(const TTreeEntry& entry) const {
    return !FSelection.FExcludes.empty() && FitsOneOf(FSelection.FExcludes, ToUtf8(entry.Path));
  }
  bool IsWanted(const TTreeEntry& entry) const {
    if (FSelection.FByIds && !IsNamed(entry) && FNamedDepth < 0) return false;
    if (FExcludedDepth >= 0 || !FSelection.PassesFilter(FEngine, entry.FileNumber, entry.ParentDeleted)) return false;
    if (!FSelection.FPaths.empty() && !FitsOneOf(FSelection.FPaths, ToUtf8(entry.Path))) return false;
    return !IsExcluded(entry);
  }

  const TSelection& FSelection;
  TEngine& FEngine;
  ITreeVisitor& FVisitor;
  int FNamedDepth = -1;     // of the folder named by its id in whose content the walk is; -1 when in none
  int FExcludedDepth = -1;  // of the folder in whose content the walk is; -1 when in none
};

void TSelection::Walk(TEngine& engine, int driveNumber, ITreeVisitor& visitor) const {
  TSieve sieve(*this, engine, visitor);
  WalkTree(engine, driveNumber, sieve);
}

namespace {

/// Notes what it is shown.
class TNotes final : public ITreeVisitor {
 public:
  explicit TNotes(std::vector<bool>& noted) : FNoted(noted) {}
  bool File(const TTreeEntry& entry) override {
    FNoted[static_cast<std::size_t>(entry.FileNumber)] = true;
    return true;
  }
  bool EnterFolder(const TTreeEntry& entry) override { return File(entry); }
  void LeaveFolder(const TTreeEntry&) override {}

 private:
  std::vector<bool>& FNoted;
};

}  // namespace

TSelection::TTest TSelection::Test(TEngine& engine, const TIntegerDynArray& drives) const {
  if (!NeedsWalk()) {
    return [this, &engine](int number, bool parentDeleted) { return PassesFilter(engine, number, parentDeleted); };
  }
  std::vector<bool> wanted(engine.Files().List.size());
  TNotes notes(wanted);
  for (const int number : drives) Walk(engine, number, notes);
  return [wanted = std::move(wanted)](int number, bool) { return bool{wanted[static_cast<std::size_t>(number)]}; };
}

}  // namespace brenlow::cli
