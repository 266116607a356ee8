// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/claims.h"

#include <algorithm>
#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "analysis/file_data.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/text.h"
#include "table/files.h"
#include "table/signatures.h"

namespace brenlow::cli {
namespace {

/// Places in bytes of the source.
class TClaims {
 public:
  explicit TClaims(TEngine& engine) : FEngine(engine) {
    TFiles& files = engine.Files();
    for (std::size_t i = 0; i < files.List.size(); ++i) Add(files.List[i]);
    std::sort(FLive.begin(), FLive.end(), [](const TRange& a, const TRange& b) { return a.First < b.First; });
    // Ranges may lie within others: each gets the farthest end so far.
    for (std::size_t i = 1; i < FLive.size(); ++i) FLive[i].End = std::max(FLive[i].End, FLive[i - 1].End);
  }

  bool Has(const TFileInfo& deep) const {
    const std::int64_t place = PlaceOfSector(deep, deep.FirstCluster);
    // What reaches beyond the row that begins there, up to an end mark of its own, is another file.
    const auto start = FStarts.find(place);
    if (start != FStarts.end() && (deep.aSize <= start->second || !HasEndMark(deep))) return true;
    const auto after = std::upper_bound(FLive.begin(), FLive.end(), place,
                                        [](std::int64_t at, const TRange& range) { return at < range.First; });
    return after != FLive.begin() && place < std::prev(after)->End;
  }

 private:
  struct TRange {
    std::int64_t First;
    std::int64_t End;
  };

  std::int64_t PlaceOfSector(const TFileInfo& file, std::int64_t sector) const {
    const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(file.aDriveNumber)];
    return (drive.FirstSector + sector) * FEngine.Drives().GetBytesPerSector(drive);
  }

  /// Whether the size of a file found by its content was measured, not just taken up to the next file.
  bool HasEndMark(const TFileInfo& deep) const {
    const TFileSignatures& signatures = FEngine.Signatures();
    const int row = signatures.FirstRowOf(u"." + LowerCase(Extension(deep.strName)));
    return row >= 0 && !signatures.Signatures()[static_cast<std::size_t>(row)].Footer.empty();
  }

  void Add(TFile& file) {
    const TFileInfo& info = file.FileInfo;
    if (info.blnFolder || info.aDeepAnalyse || info.aSize <= 0 || FEngine.Drives().IsWrongNumber(info.aDriveNumber))
      return;
    if (PlaceOf(FEngine, file) == TPlaceSource::Estimated || IsOverwritten(FEngine, file)) return;
    GetFileFragments(FEngine, file, FFragments);
    if (FFragments.empty()) return;
    std::int64_t& size = FStarts[PlaceOfSector(info, FFragments.front().FirstSectorInDrive)];
    size = std::max(size, info.aSize);
    if (info.blnDeleted) return;
    for (const TFileFragment& fragment : FFragments) {
      FLive.push_back({PlaceOfSector(info, fragment.FirstSectorInDrive),
                       PlaceOfSector(info, fragment.FirstSectorInDrive + fragment.SectorCount)});
    }
  }

  TEngine& FEngine;
  TFileFragments FFragments;
  std::vector<TRange> FLive;
  std::unordered_map<std::int64_t, std::int64_t> FStarts;  // of files in rows, to the largest size there
};

}  // namespace

void DropClaimedDeepFiles(TEngine& engine) {
  const TClaims claims(engine);
  engine.Files().EraseRows(
      [&](const TFileInfo& info) { return info.aDeepAnalyse && !info.blnFolder && claims.Has(info); });
  // Folders of types that are empty now, then their own folder.
  const auto isEmpty = [&](const TFileInfo& info) {
    return engine.Drives().GetParentClusters(info.aDriveNumber, info.FirstCluster).empty();
  };
  std::unordered_set<const TFileInfo*> empty;
  for (const bool isTop : {false, true}) {
    empty.clear();
    TFiles& files = engine.Files();
    for (std::size_t i = 0; i < files.List.size(); ++i) {
      const TFileInfo& info = files.List[i].FileInfo;
      const bool isDeepFolder = isTop ? TFiles::IsDeepAnalyse(info) : info.blnFolder && info.aDeepAnalyse;
      if (isDeepFolder && isEmpty(info)) empty.insert(&info);
    }
    files.EraseRows([&](const TFileInfo& info) { return empty.contains(&info); });
  }
}

}  // namespace brenlow::cli
