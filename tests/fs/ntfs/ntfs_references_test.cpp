// SPDX-License-Identifier: GPL-3.0-or-later
// Folders by the sequence numbers of their records, on volumes built record by record.
#include "fs/ntfs/ntfs_references.h"

#include <doctest/doctest.h>

#include <string>

#include "fs/ntfs/volume_builder.h"

using namespace brenlow;
using namespace brenlow::test;
using namespace brenlow::ntfs;

TEST_CASE("NTFS references: a use of a record is told by its sequence number") {
  CHECK(IsSameUse({7, true}, 7));
  CHECK_FALSE(IsSameUse({7, true}, 6));
  CHECK(IsSameUse({7, false}, 6));  // freed since
  CHECK(IsSameUse({7, false}, 7));  // freed by one that counts later
  CHECK_FALSE(IsSameUse({7, false}, 5));
  CHECK_FALSE(IsSameUse({7, false}, 8));
  CHECK(IsSameUse({1, false}, 0xFFFF));  // 0 is left out
  CHECK(IsSameUse({7, true}, 0));        // says nothing
  TRecordUses uses;
  uses.Enter(1000, {3, true}, false);
  uses.Enter(1000, {4, true}, false);  // not certain: the first one stays
  CHECK(uses.Agrees({1000, 3}));
  uses.Enter(1000, {4, true}, true);
  CHECK_FALSE(uses.Agrees({1000, 3}));
  CHECK_FALSE(uses.Agrees({1001, 1}));
  CHECK_FALSE(uses.IsKnown(-1));
  for (const TReference reference : {TReference{5, 5}, {0, 1}, {(std::int64_t{1} << 46) - 1, 0xFFFF}}) {
    const std::int64_t key = ReferenceKey(reference);
    CHECK(IsReferenceKey(key));
    CHECK(ReferenceOf(key).Number == reference.Number);
    CHECK(ReferenceOf(key).Sequence == reference.Sequence);
  }
  CHECK(ReferenceKey({77, 0}) == 77);
  CHECK(ReferenceKey({std::int64_t{1} << 46, 3}) == std::int64_t{1} << 46);
}

TEST_CASE("NTFS: live files below a folder whose parent is another use of its record are not lost") {
  // A lies in record 41, sequence 3; record 41 is B, sequence 2, which lies in A.
  TNtfsVolume volume;
  volume.Folder({40, 1}, {41, 3}, u"A").Folder({41, 2}, {40, 1}, u"B").File({42, 1}, {41, 2}, u"f.txt", "still here");
  for (const bool thorough : {false, true}) {
    CAPTURE(thorough);
    TAnalysedNtfs t(volume, {}, thorough);
    CHECK(t.Has("Lost and found/Folder 41/A/B/f.txt"));
    CHECK(Text(t.Read(u"f.txt").Bytes) == "still here");
    CHECK(t.Engine.Files().CountUnreached(t.Number) == 0);
  }
}

TEST_CASE("NTFS: a chain of folders that closes on itself is broken at its weakest link") {
  constexpr int count = 60;
  TNtfsVolume volume;
  for (int i = 0; i < count; ++i) {
    // Each lies in the one before it, the first in the last.
    volume.Folder({40 + i, 1}, {40 + (i + count - 1) % count, 1}, u"chain" + FromUtf8(std::to_string(i)));
  }
  volume.File({40 + count, 1}, {40 + count - 1, 1}, u"deep.txt", "at the end");
  volume.File({41 + count, 1}, {40, 1}, u"high.txt", "at the start");
  volume.Folder({120, 1}, {120, 1}, u"itself").File({121, 1}, {120, 1}, u"in it.txt", "x");
  for (const bool thorough : {false, true}) {
    CAPTURE(thorough);
    TAnalysedNtfs t(volume, {}, thorough);
    CHECK(t.Engine.Files().CountUnreached(t.Number) == 0);
    CHECK(t.Has("Lost and found/chain0/high.txt"));
    CHECK(t.Has("Lost and found/itself/in it.txt"));
    CHECK(t.Paths().find("chain58/chain59/deep.txt\n") != std::string::npos);
    CHECK(t.Paths().find("deleted") == std::string::npos);
  }
}

TEST_CASE("NTFS: a deleted link of a circle of folders is weaker than a live one") {
  TNtfsVolume volume;
  volume.Folder({40, 1}, {41, 1}, u"first").Folder({41, 2}, {40, 1}, u"second", false);
  volume.File({42, 1}, {40, 1}, u"f.txt", "x");
  TAnalysedNtfs t(volume);
  CHECK(t.Engine.Files().CountUnreached(t.Number) == 0);
  CHECK(t.Has("Lost and found/second/first/f.txt deleted"));
}

TEST_CASE("NTFS: what was deleted with its folder does not appear in the folder that got the record") {
  const TNtfsReference secret{40, 1};
  TNtfsVolume volume;
  volume.Folder({40, 2}, NtfsRoot, u"Holiday").File({41, 1}, {40, 2}, u"beach.jpg", "new");
  volume.File({42, 2}, secret, u"gone.jpg", "old", false).File({43, 2}, secret, u"gone too.jpg", "old", false);
  volume.File({44, 2}, {40, 2}, u"later.jpg", "new", false);
  // A folder that was deleted, and whose record is still free, keeps its own.
  volume.Folder({50, 2}, NtfsRoot, u"Old", false).File({51, 2}, {50, 1}, u"kept.jpg", "old", false);
  TAnalysedNtfs t(volume);
  CHECK(t.Has("Holiday/beach.jpg"));
  CHECK(t.Has("Holiday/later.jpg deleted"));
  CHECK(t.Has("Old/kept.jpg deleted"));
  CHECK(t.Has("Lost and found/Folder 40/gone.jpg deleted"));
  CHECK(t.Has("Lost and found/Folder 40/gone too.jpg deleted"));
  // Children before their parents in the table, and two uses of one number apart.
  volume.File({30, 1}, {40, 2}, u"early.jpg", "x").File({31, 2}, {40, 7}, u"other.jpg", "x", false);
  TAnalysedNtfs again(volume);
  CHECK(again.Has("Holiday/early.jpg"));
  CHECK(again.Has("Lost and found/Folder 40 (2)/other.jpg deleted"));
}

TEST_CASE("NTFS: a file whose folder's record cannot be read is live in a numbered folder") {
  TNtfsVolume volume;
  volume.Folder({40, 1}, NtfsRoot, u"bad").File({41, 1}, {40, 1}, u"f.txt", "x");
  const std::int64_t sector = TNtfsVolume::TableCluster * 8 + 40 * 2;
  TAnalysedNtfs t(volume, {sector, sector + 1});
  CHECK(t.Has("Lost and found/Folder 40/f.txt"));
  CHECK(t.Engine.Files().CountUnreached(t.Number) == 0);
}
