// SPDX-License-Identifier: GPL-3.0-or-later
// Rows whose folder went: they are still reached from the root.
#include <doctest/doctest.h>

#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("what lay in a folder whose row went is found below lost and found") {
  TEngine engine;
  engine.Drives().Add(TDriveInfo(), false);
  TFiles& files = engine.Files();
  const auto add = [&](TStringView name, std::int64_t key, std::int64_t parent, bool isFolder) {
    TFileInfo info;
    TFiles::ClearInfo(info, 0);
    info.strName = name;
    info.FirstCluster = key;
    info.blnFolder = isFolder;
    return files.Add(info, parent, true);
  };
  files.DoBeforeAnalyse(0);
  add(u"erased", 64, SpecialCluster::Root, true);
  add(u"in the erased one", 65, 64, false);
  const int dropped = add(u"dropped", 66, SpecialCluster::Root, true);
  add(u"in the dropped one", 67, 66, false);
  add(u"stays", 68, SpecialCluster::Root, true);
  add(u"in the one that stays", 69, 68, false);
  // As a search drops rows that it takes for another folder, or hands over to another volume.
  TDrives::DeleteParentCluster(DriveOf(engine, 0), SpecialCluster::Root, static_cast<std::uint32_t>(dropped));
  files.EraseRows([](const TFileInfo& info) { return info.strName == u"erased"; });
  files.DoAfterAnalyse(0);
  CHECK(files.CountUnreached(0) == 0);
  const TInt64DynArray lost = engine.Drives().GetParentClusters(0, SpecialCluster::LostAndFound);
  REQUIRE(lost.size() == 2);
  CHECK(files.List[static_cast<std::size_t>(lost[0])].FileInfo.FirstCluster == 64);
  CHECK(files.List[static_cast<std::size_t>(lost[1])].FileInfo.FirstCluster == 66);
}
