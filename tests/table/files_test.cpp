// SPDX-License-Identifier: GPL-3.0-or-later
#include "table/files.h"

#include <doctest/doctest.h>

#include "analysis/folders.h"
#include "analysis/tree_walk.h"
#include "support/images.h"
#include "table/file_kinds.h"
#include "table/signatures.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

struct TFixture {
  TEngine Engine;
  TFiles& Files = Engine.Files();

  explicit TFixture(int drives = 1) {
    for (int i = 0; i < drives; ++i) Engine.Drives().Add(TDriveInfo(), false);
  }
  int Add(TStringView name, std::int64_t key, std::int64_t parent, bool folder = false, int drive = 0,
          bool deleted = false) {
    TFileInfo info;
    TFiles::ClearInfo(info, drive);
    info.strName = name;
    info.FirstCluster = key;
    info.blnFolder = folder;
    info.blnDeleted = deleted;
    info.aSize = 10;
    return Files.Add(info, parent, true);
  }
  TInt64DynArray Under(std::int64_t parent, int drive = 0) { return Engine.Drives().GetParentClusters(drive, parent); }
};

}  // namespace

TEST_CASE("a fresh record is a ticked folder without a place") {
  TFileInfo info;
  TFiles::ClearInfo(info, 3);
  CHECK(bool{info.blnFolder});
  CHECK(bool{info.blnChecked});
  CHECK(info.FirstSector == -1);
  CHECK(info.DataStartingSector == -1);
  CHECK(info.aDriveNumber == 3);
}

TEST_CASE("candidates: none, one in place, many, of any value, in copies of their own") {
  for (const TInt64DynArray& values : {TInt64DynArray{},
                                       {0},
                                       {-1},
                                       {7},
                                       {INT64_MAX / 2},
                                       {INT64_MIN / 2},
                                       {INT64_MAX},
                                       {INT64_MIN},
                                       {3, INT64_MAX, -9}}) {
    TCandidateList list;
    for (const std::int64_t value : values) list.push_back(value);
    TCandidateList copy = list;
    TCandidateList moved = std::move(list);
    copy.push_back(5);
    REQUIRE(moved.size() == values.size());
    for (std::size_t i = 0; i < values.size(); ++i) CHECK(moved[i] == values[i]);
    REQUIRE(copy.size() == values.size() + 1);
    CHECK(copy[values.size()] == 5);
    copy = moved;
    CHECK(copy.size() == values.size());
    copy.clear();
    CHECK(copy.empty());
  }
}

TEST_CASE("adding: refusals, counts, duplicates only during a partition search") {
  TFixture t;
  CHECK(t.Add(u"loop", 5, 5, true) == -1);
  CHECK(t.Add(u"nowhere", 5, -8, false, 7) == -1);
  CHECK(t.Add(u"a", 5, -8) == 0);
  CHECK(t.Add(u"a", 5, -8) == 1);
  CHECK(t.Files.List[0].FileInfo.DefaultSize == 10);
  t.Engine.PartRecRunning = true;
  CHECK(t.Add(u"a", 5, -8) == 0);
  CHECK(t.Add(u"A", 5, -8) == 2);
  CHECK(t.Add(u"a", 6, -8) == 3);
  CHECK(t.Add(u"a", 5, -8, true) == 4);
  CHECK(t.Files.FoundCount == 5);
  CHECK(t.Engine.Folders().FoundCount == 1);
  t.Files.OnCanBeAdded = [](const TFileInfo&) { return false; };
  CHECK(t.Add(u"z", 9, -8) == -1);
}

TEST_CASE("the same place by sector counts, -1 never does") {
  TFixture t;
  TFileInfo info;
  TFiles::ClearInfo(info, 0);
  info.strName = u"x";
  info.FirstCluster = 1;
  t.Files.Add(info, -8, true);
  info.FirstCluster = 2;
  CHECK_FALSE(t.Files.IsAdded(info, -8));
  t.Files.List[0].FileInfo.DataStartingSector = info.DataStartingSector = 77;
  CHECK(t.Files.IsAdded(info, -8));
}

TEST_CASE("what has no folder goes to lost and found, what has no place does not") {
  TFixture t;
  t.Files.DoBeforeAnalyse(0);
  t.Add(u"child of 40", 1, 40);
  t.Add(u"known", 30, -8, true);
  t.Add(u"child of 30", 2, 30);
  t.Add(u"child of 20", 3, 20);
  t.Add(u"placeless", 4, -1);
  t.Add(u"system", 5, -9);
  t.Files.DoAfterAnalyse(0);
  const TInt64DynArray lost = t.Under(SpecialCluster::LostAndFound);
  REQUIRE(lost.size() == 2);
  CHECK(t.Files.List[static_cast<std::size_t>(lost[0])].FileInfo.strName == u"Folder 20");
  CHECK(bool{t.Files.List[static_cast<std::size_t>(lost[0])].FileInfo.blnDeleted});
  CHECK(t.Files.List[static_cast<std::size_t>(lost[1])].FileInfo.FirstCluster == 40);
  CHECK(t.Files.FoundCount == 6);  // pseudo-folders are no finds
  CHECK(DriveOf(t.Engine, 0).FileFirstClusters.empty());
}

TEST_CASE("clearing renumbers the rows and buckets of the other drives") {
  TFixture t(3);
  t.Add(u"0a", 1, -8, false, 0);
  t.Add(u"1a", 1, -8, false, 1);
  t.Add(u"0b", 2, -1, false, 0);
  t.Add(u"2a", 1, -8, false, 2);
  t.Add(u"1b", 2, -8, false, 1);
  t.Files.Clear(0, false);  // keeps what has no place in the tree
  REQUIRE(t.Files.List.size() == 4);
  CHECK(t.Files.List[1].FileInfo.strName == u"0b");
  CHECK(t.Under(-8, 1) == TInt64DynArray{0, 3});
  CHECK(t.Under(-8, 2) == TInt64DynArray{2});
  t.Files.ClearUnselected(0);
  CHECK(t.Files.List.size() == 3);
  t.Files.Clear(1, true);
  REQUIRE(t.Files.List.size() == 1);
  CHECK(t.Files.List[0].FileInfo.aDriveNumber == 1);  // drive 2 is about to become drive 1
  CHECK(t.Under(-8, 2) == TInt64DynArray{0});
}

TEST_CASE("filters: state and kind, live folders show with either") {
  TFixture t;
  const int live = t.Add(u"a.JPG", 1, -8);
  const int deleted = t.Add(u"b.txt", 2, -8, false, 0, true);
  const int folder = t.Add(u"dir", 3, -8, true);
  TFileFilter filter;
  filter.Existing = false;
  CHECK_FALSE(t.Files.IsFiltered(live, false, filter));
  CHECK(t.Files.IsFiltered(live, true, filter));
  CHECK(t.Files.IsFiltered(deleted, false, filter));
  CHECK(t.Files.IsFiltered(folder, false, filter));
  filter = TFileFilter();
  filter.AllFiles = false;
  filter.Image = true;
  CHECK(t.Files.IsFiltered(live, false, filter));
  CHECK_FALSE(t.Files.IsFiltered(deleted, false, filter));
  CHECK(t.Files.IsFiltered(folder, false, filter));
  filter.Document = true;
  CHECK(t.Files.IsFiltered(deleted, false, filter));
  CHECK_FALSE(t.Files.IsFiltered(99, false, filter));
  CHECK(IsOfKind(TContentKind::Archive, u"x.7z"));
  CHECK(IsOfKind(TContentKind::Video, u"x.zm3"));
  CHECK_FALSE(IsOfKind(TContentKind::Archive, u"7z"));
}

TEST_CASE("names: what a target refuses, recycle bins, types") {
  CHECK(TFiles::RightName(u"ok.txt") == 0);
  CHECK(TFiles::RightName(u"a?b") == 2);
  CHECK(TFiles::RightName(u"a:b/c") == 4);  // the slash is asked for before the colon
  TFixture t;
  const auto bin = [&](TStringView name, bool folder = true) {
    return TFiles::IsRecycleBin(t.Files.List[static_cast<std::size_t>(t.Add(name, 9, -8, folder))], -8);
  };
  CHECK(bin(u"$Recycle.Bin"));
  CHECK(bin(u"?ecycler"));
  CHECK(bin(u".Trash-1000"));
  CHECK_FALSE(bin(u"$RECYCLE.BIN", false));
  CHECK(t.Files.GetType(u"a.b.jpg") == u"JPEG Image");
  CHECK(t.Files.GetType(u"a.xyz") == u"XYZ file");
  CHECK(t.Files.GetType(u"Makefile") == u"File");
}

TEST_CASE("signatures: alternatives, wildcards, lengths") {
  const TFileSignatures signatures;
  CHECK(signatures.Signatures().size() == 79);
  bool found = false;
  bool same = false;
  const std::uint8_t id3[] = {0x49, 0x44, 0x33, 0};
  signatures.CheckSignatureByFileExt(u".mp3", id3, 0, found, same);
  CHECK((found && same));
  signatures.CheckSignatureByFileExt(u".jpg", id3, 0, found, same);
  CHECK((found && !same));
  signatures.CheckSignatureByFileExt(u".xyz", id3, 0, found, same);
  CHECK_FALSE(found);
  signatures.CheckSignatureByFileExt(u".png", id3, 0, found, same);  // shorter than the header
  CHECK_FALSE(found);
  CHECK(ParseHexSignature("ffXx0a") == std::vector<std::int16_t>{255, -1, 10});
}

TEST_CASE("the tree walk shows shared content once, under the live folder, and ends on loops") {
  TFixture t;
  t.Add(u"old", 10, -8, true, 0, true);
  t.Add(u"new", 10, -8, true);
  t.Add(u"file", 11, 10);
  t.Add(u"back", 10, 10, true, 0, true);  // refused: its own parent
  t.Add(u"sub", 12, 10, true);
  t.Add(u"up", 10, 12, true, 0, true);
  CHECK(WalkText(t.Engine, 0) == "new/\nnew/file 10  00000000\nnew/sub/\nnew/sub/up/ deleted\nold/ deleted\n");
}
