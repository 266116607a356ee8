// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/file_search.h"

#include <algorithm>
#include <vector>

#include "core/drives.h"
#include "core/engine.h"
#include "core/text.h"
#include "table/files.h"

namespace brenlow {
namespace {

bool IsWordUnit(char16_t c) {
  return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || c >= 0x80;
}

/// `*` matches any text, `?` one unit.
bool MatchesPattern(TStringView name, TStringView pattern) {
  std::size_t n = 0;
  std::size_t p = 0;
  std::size_t star = TStringView::npos;  // the last `*`, and where the name was then
  std::size_t resume = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == u'*') {
      star = p++;
      resume = n;
    } else if (p < pattern.size() && (pattern[p] == u'?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (star != TStringView::npos) {
      p = star + 1;
      n = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == u'*') ++p;
  return p == pattern.size();
}

class TMatcher {
 public:
  explicit TMatcher(const TFindOptions& options)
      : FOptions(options),
        FText(options.CaseSensitive ? options.Text : LowerCase(options.Text)),
        FIsPattern(FText.find_first_of(u"*?") != TString::npos) {}

  bool Fits(const TFileInfo& info) {
    if (info.Atributes.blnHidden && !FOptions.HiddenFiles) return false;
    if (info.Atributes.blnSystem && !FOptions.SystemFiles) return false;
    const bool bySize = FOptions.MinSize >= 0 || FOptions.MaxSize >= 0;
    if (bySize && (info.blnFolder || !FitsSize(info.aSize))) return false;
    if (!FitsTime(FOptions.ByCreated ? info.TimeStamp.dtCreated : info.TimeStamp.dtModified)) return false;
    return FText.empty() || FitsName(info.strName);
  }

 private:
  bool FitsSize(std::int64_t size) const {
    return size >= FOptions.MinSize && (FOptions.MaxSize < 0 || size <= FOptions.MaxSize);
  }

  bool FitsTime(TDateTime time) const {
    if (FOptions.From == 0 && FOptions.To == 0) return true;
    return time != 0 && time >= FOptions.From && (FOptions.To == 0 || time <= FOptions.To);
  }

  bool FitsName(TStringView name) {
    if (!FOptions.CaseSensitive) {
      FLower.assign(name);
      for (char16_t& c : FLower) c = LowerCase(c);
      name = FLower;
    }
    if (FIsPattern) return MatchesPattern(name, FText);
    for (std::size_t at = name.find(FText); at != TStringView::npos; at = name.find(FText, at + 1)) {
      const std::size_t end = at + FText.size();
      const bool whole = (at == 0 || !IsWordUnit(name[at - 1])) && (end == name.size() || !IsWordUnit(name[end]));
      if (whole || !FOptions.WholeWords) return true;
    }
    return false;
  }

  const TFindOptions& FOptions;
  TString FText;
  bool FIsPattern;
  TString FLower;  // room for one name
};

/// Which drives a search looks at.
std::vector<bool> WantedDrives(const TDrives& drives, int drive) {
  std::vector<bool> wanted(drives.List.size(), drive < 0);
  if (drives.IsWrongNumber(drive)) return wanted;
  wanted[static_cast<std::size_t>(drive)] = true;
  for (const int sub : drives.List[static_cast<std::size_t>(drive)].SubDrives)
    wanted[static_cast<std::size_t>(sub)] = true;
  return wanted;
}

}  // namespace

bool TFindOptions::Empty() const { return Text.empty() && MinSize < 0 && MaxSize < 0 && From == 0 && To == 0; }

TIntegerDynArray FindFiles(TEngine& engine, const TFindOptions& options) {
  TIntegerDynArray found;
  const TFiles& files = engine.Files();
  const std::vector<bool> wanted = WantedDrives(engine.Drives(), options.Drive);
  TMatcher matcher(options);
  for (std::size_t i = 0; i < files.List.size(); ++i) {
    const TFile& file = files.List[i];
    const auto drive = static_cast<std::size_t>(file.FileInfo.aDriveNumber);
    if (file.ParentCluster == SpecialCluster::Unselected || drive >= wanted.size() || !wanted[drive]) continue;
    if (matcher.Fits(file.FileInfo)) found.push_back(static_cast<int>(i));
  }
  return found;
}

}  // namespace brenlow
