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

TEST_CASE("NTFS: thousands of uses of one number cost no more than so many folders") {
  constexpr int records = 8192;
  TNtfsVolume volume(records, 2560, 2400);
  for (int i = 64; i < records; ++i) volume.File({i, 2}, {40, i}, u"f" + FromUtf8(std::to_string(i)), "x", false);
  TAnalysedNtfs t(volume);
  CHECK(t.Engine.Files().CountUnreached(t.Number) == 0);
  CHECK(t.Has("Lost and found/Folder 40 (8128)/f8191 deleted"));
}

TEST_CASE("NTFS: a file whose folder's record cannot be read is live in a numbered folder") {
  TNtfsVolume volume;
  volume.Folder({40, 1}, NtfsRoot, u"bad").File({41, 1}, {40, 1}, u"f.txt", "x");
  const std::int64_t sector = TNtfsVolume::TableCluster * 8 + 40 * 2;
  TAnalysedNtfs t(volume, {sector, sector + 1});
  CHECK(t.Has("Lost and found/Folder 40/f.txt"));
  CHECK(t.Engine.Files().CountUnreached(t.Number) == 0);
}

TEST_CASE("NTFS: a folder that is gone has its old name where an index, a record or the log still tells it") {
  TNtfsVolume volume;
  volume.Folder({40, 2}, NtfsRoot, u"Holiday").Folder({45, 7}, NtfsRoot, u"Other");
  volume.File({42, 2}, {40, 1}, u"gone.jpg", "old", false).File({43, 2}, {45, 3}, u"left.jpg", "old", false);
  volume.File({44, 2}, {45, 4}, u"unknown.jpg", "old", false).File({46, 2}, {47, 1}, u"logged.jpg", "old", false);
  // In the free room of an index block of the root, with another use of the record before it.
  TImage block(4096);
  std::memcpy(block.data(), "INDX", 4);
  const TImage other = TNtfsRecord::IndexEntry({40, 2}, NtfsRoot, u"Holiday");
  const TImage entry = TNtfsRecord::IndexEntry({40, 1}, NtfsRoot, u"Secret");
  std::copy(other.begin(), other.end(), block.begin() + 0x100);
  std::copy(entry.begin(), entry.end(), block.begin() + 0x800);
  volume.Fill(500, block);
  volume.Record(5, TNtfsRecord({5, 5}, true).Name(NtfsRoot, u".").NonResident(0xA0, TNtfsPiece{{{500, 1}}, 4096}));
  // And in what lies behind the attributes of a small folder's record.
  volume.Record(50, TNtfsRecord({50, 1}, true)
                        .Name(NtfsRoot, u"Small")
                        .Leftover(TNtfsRecord::IndexEntry({45, 3}, {50, 1}, u"Old name")));
  // And in the log: a restart page, and a page of records with an entry that was put into an index.
  TImage log(4 * 4096);
  std::memcpy(log.data(), "RSTR", 4);
  log[0x15] = 0x10;         // pages of 4 KiB
  log[0x18] = 0x30;         // where the restart area begins, in which
  log[0x30 + 0x19] = 0x40;  // the size of the log
  log[0x30 + 0x26] = 0x40;  // and the start of the records in a page stand
  std::memcpy(&log[2 * 4096], "RCRD", 4);
  const TImage logged = TNtfsRecord::IndexEntry({47, 1}, NtfsRoot, u"Logged");
  std::copy(logged.begin(), logged.end(), log.begin() + 2 * 4096 + 0x100);
  const auto size = static_cast<std::int64_t>(log.size());
  volume.Fill(600, log).Record(2, TNtfsRecord({2, 2}).Name(NtfsRoot, u"$LogFile").Data(TNtfsPiece{{{600, 4}}, size}));
  TAnalysedNtfs t(volume);
  CHECK(t.Has("Lost and found/Logged/logged.jpg deleted"));
  CHECK(t.Has("Lost and found/Secret/gone.jpg deleted"));
  CHECK(t.Has("Lost and found/Old name/left.jpg deleted"));
  CHECK(t.Has("Lost and found/Folder 45/unknown.jpg deleted"));
  CHECK(t.Has("Holiday"));
}

TEST_CASE("NTFS: records with content and without a name are listed by number and type") {
  const std::string picture = "\xFF\xD8\xFF\xE0 a picture by its first bytes, as long as it has them";
  TNtfsVolume volume;
  volume.Record(40, TNtfsRecord({40, 1}).Data(picture)).Record(41, TNtfsRecord({41, 2}, false, false).Data("plain"));
  volume.Record(42, TNtfsRecord({42, 1}).Data(""));  // as records kept for later are
  volume.Record(43, TNtfsRecord({43, 1}, true)).File({44, 1}, {43, 1}, u"f.txt", "x");
  for (const bool thorough : {false, true}) {
    CAPTURE(thorough);
    TAnalysedNtfs t(volume, {}, thorough);
    CHECK(t.Has("Lost and found/File 40.jpg"));
    CHECK(t.Has("Lost and found/File 41 deleted"));
    CHECK(t.Paths().find("File 42") == std::string::npos);
    CHECK(t.Has("Lost and found/Folder 43/f.txt"));
    CHECK(Text(t.Read(u"File 40.jpg").Bytes) == picture);
  }
}

TEST_CASE("NTFS: folders whose records were freed are as live as what still lies in them") {
  TNtfsVolume volume;
  volume.Folder({40, 2}, NtfsRoot, u"Gone", false).Folder({42, 2}, {40, 1}, u"Inner", false);
  volume.Folder({44, 2}, {40, 1}, u"Empty", false).File({45, 2}, {44, 1}, u"old.txt", "x", false);
  volume.File({43, 1}, {42, 1}, u"deep.txt", "x");
  for (const bool thorough : {false, true}) {
    CAPTURE(thorough);
    TAnalysedNtfs t(volume, {}, thorough);
    CHECK(t.Has("Gone/Inner/deep.txt"));
    CHECK(t.Has("Gone/Empty deleted"));
    CHECK(t.Has("Gone/Empty/old.txt deleted"));
  }
}
