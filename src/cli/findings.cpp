// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/findings.h"

#include "analysis/tree_walk.h"
#include "cli/rows.h"
#include "cli/session.h"

namespace brenlow::cli {
namespace {

/// Counts files outside of the folder of NTFS system data.
class TFileCount final : public ITreeVisitor {
 public:
  bool File(const TTreeEntry&) override {
    if (FSystemDepth < 0) ++Files;
    return true;
  }
  bool EnterFolder(const TTreeEntry& entry) override {
    const bool isSystem = entry.File->FileInfo.FirstCluster == SpecialCluster::NTFSSystemData;
    if (FSystemDepth < 0 && isSystem) FSystemDepth = entry.Depth;
    return true;
  }
  void LeaveFolder(const TTreeEntry& entry) override {
    if (FSystemDepth == entry.Depth) FSystemDepth = -1;
  }

  std::int64_t Files = 0;

 private:
  int FSystemDepth = -1;
};

}  // namespace

std::int64_t CountFiles(TEngine& engine, const TIntegerDynArray& drives) {
  TFileCount count;
  for (const int number : drives) WalkTree(engine, number, count);
  return count.Files;
}

void ComplainOfNothing(TEngine& engine, const TOptions& options, const TIntegerDynArray& drives) {
  const TLanguage& texts = options.Texts;
  if (const std::int64_t found = CountFiles(engine, drives); found > 0) {
    Complain(texts.Utf8(TText::NothingSelected, {FilesText(texts, found)}));
    return;
  }
  for (const int number : drives) {
    const TDriveInfo& drive = Drive(engine, number);
    if (drive.GeometrySource != TPlaceSource::FromCopy) continue;
    Complain(texts.Utf8(TText::KnownByCopy, {RowText(engine, number), SystemName(drive)}));
  }
  const bool searched = options.Scan || options.FastOff;
  Complain(texts.Utf8(options.Best                 ? TText::NothingFoundAtAll
                      : !searched && !options.Deep ? TText::NothingFoundScan
                      : !options.Deep              ? TText::NothingFoundDeep
                                                   : TText::NothingFoundAtAll,
                      {options.Source()}));
}

}  // namespace brenlow::cli
