// SPDX-License-Identifier: GPL-3.0-or-later
// Files in several records, compressed streams with damage, and a bitmap of records that cannot be
// read: on volumes built record by record.
#include <doctest/doctest.h>

#include <string>

#include "analysis/file_data.h"
#include "core/lznt1.h"
#include "fs/ntfs/volume_builder.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

constexpr std::size_t ClusterSize = 4096;

/// Bytes that can be told apart by where they stand, and that compress.
TImage Pattern(std::size_t size, int seed) {
  TImage bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<std::uint8_t>(i % 64 < 8 ? (i / 64 * 131 + i % 8 * 29 + static_cast<std::size_t>(seed) * 7)
                                                    : static_cast<std::size_t>(seed) + 1);
  }
  return bytes;
}

TByteDynArray Part(const TImage& bytes, std::size_t from, std::size_t until) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.begin() + static_cast<std::ptrdiff_t>(until)};
}

/// A volume with the compressed file "c.bin" of eight units in record 40. Unit i has its stream from
/// cluster `100 + 16 i` on.
struct TCompressedFile {
  static constexpr std::size_t Unit = 16 * ClusterSize;
  static constexpr std::size_t Units = 8;
  TNtfsVolume Volume;
  TImage Content = Pattern(Units * Unit - 1000, 3);

  TCompressedFile() {
    TNtfsPiece piece;
    piece.Size = static_cast<std::int64_t>(Content.size());
    piece.UnitPower = 4;
    for (std::size_t i = 0; i < Units; ++i) {
      TByteDynArray packed;
      const auto plain = Part(Content, i * Unit, std::min((i + 1) * Unit, Content.size()));
      REQUIRE(CompressLZNT1(plain, packed, plain.size()));
      const auto clusters = static_cast<std::int64_t>((packed.size() + ClusterSize - 1) / ClusterSize);
      REQUIRE(clusters < 16);
      REQUIRE(clusters > 2);
      piece.Runs.push_back({Cluster(i), clusters});
      piece.Runs.push_back({-1, 16 - clusters});
      Volume.Fill(Cluster(i), packed);
    }
    Volume.Record(40, TNtfsRecord({40, 1}).Name(NtfsRoot, u"c.bin", piece.Size).Data(piece));
  }
  static std::int64_t Cluster(std::size_t unit) { return 100 + 16 * static_cast<std::int64_t>(unit); }
};

/// How many of the 4 KiB blocks are right, and whether all others are zeros.
int RightBlocks(const TByteDynArray& read, const TImage& content, bool& restIsZero) {
  int right = 0;
  restIsZero = true;
  for (std::size_t at = 0; at < content.size(); at += ClusterSize) {
    const std::size_t end = std::min(at + ClusterSize, content.size());
    if (end > read.size()) return right;
    const bool same =
        std::equal(read.begin() + static_cast<std::ptrdiff_t>(at), read.begin() + static_cast<std::ptrdiff_t>(end),
                   content.begin() + static_cast<std::ptrdiff_t>(at));
    right += same ? 1 : 0;
    for (std::size_t i = at; i < end && !same; ++i) restIsZero = restIsZero && read[i] == 0;
  }
  return right;
}

}  // namespace

TEST_CASE("NTFS: a compressed file with damage keeps everything else in its place") {
  constexpr int blocks = 128;
  TCompressedFile file;
  bool restIsZero = false;
  SUBCASE("none") {
    TAnalysedNtfs t(file.Volume);
    const auto content = t.Read(u"c.bin");
    CHECK(content.Whole);
    CHECK(content.Bytes == TByteDynArray(file.Content.begin(), file.Content.end()));
    const auto piece = t.Read(u"c.bin", 300'001, 70'000);
    CHECK(piece.Bytes == Part(file.Content, 300'001, 370'001));
  }
  SUBCASE("the first chunk of a unit: the others of the unit come back") {
    std::fill_n(file.Volume.Image.begin() + TCompressedFile::Cluster(2) * 4096 + 2, 40, std::uint8_t{0xFF});
    TAnalysedNtfs t(file.Volume);
    const auto content = t.Read(u"c.bin");
    CHECK_FALSE(content.Whole);
    CHECK(content.Bytes.size() == file.Content.size());
    CHECK(RightBlocks(content.Bytes, file.Content, restIsZero) == blocks - 1);
    CHECK(restIsZero);
    // Only what is touched counts as damaged.
    CHECK(t.Read(u"c.bin", 0, 2 * 65536).Whole);
    CHECK(t.Read(u"c.bin", 3 * 65536, 65536).Whole);
  }
  SUBCASE("a unit that is no stream at all") {
    std::fill_n(file.Volume.Image.begin() + TCompressedFile::Cluster(5) * 4096, 4096, std::uint8_t{0xFF});
    TAnalysedNtfs t(file.Volume);
    const auto content = t.Read(u"c.bin");
    CHECK_FALSE(content.Whole);
    CHECK(content.Bytes.size() == file.Content.size());
    CHECK(RightBlocks(content.Bytes, file.Content, restIsZero) >= blocks - 16);
    CHECK(t.Read(u"c.bin", 6 * 65536, 65536).Bytes == Part(file.Content, 6 * 65536, 7 * 65536));
  }
  SUBCASE("an unreadable cluster: the chunks before it, and all other units") {
    TAnalysedNtfs t(file.Volume, {(TCompressedFile::Cluster(1) + 1) * 8});
    const auto content = t.Read(u"c.bin");
    CHECK_FALSE(content.Whole);
    CHECK(content.Bytes.size() == file.Content.size());
    CHECK(RightBlocks(content.Bytes, file.Content, restIsZero) > blocks - 16);
    CHECK(restIsZero);
  }
}

TEST_CASE("NTFS: a file with a lost or foreign extension record") {
  const TImage first = Pattern(2 * ClusterSize, 1);
  const TImage second = Pattern(3 * ClusterSize, 2);
  const TImage third = Pattern(ClusterSize, 3);
  constexpr std::int64_t size = 6 * 4096;
  TNtfsVolume volume;
  volume.Fill(100, first).Fill(200, second).Fill(300, third);
  const TNtfsReference own{40, 3}, middle{41, 1}, last{42, 1};
  const auto base = [&](bool inUse) {
    return TNtfsRecord({own.Number, inUse ? own.Sequence : own.Sequence + 1}, false, inUse)
        .List({{0x80, own, 0}, {0x80, middle, 2}, {0x80, last, 5}})
        .Name(NtfsRoot, u"f.bin", size)
        .Data(TNtfsPiece{{{100, 2}}, size});
  };
  const TNtfsRecord middleRecord = TNtfsRecord(middle).Base(own).Data(TNtfsPiece{{{200, 3}}, 0, 2});
  const TNtfsRecord lastRecord = TNtfsRecord(last).Base(own).Data(TNtfsPiece{{{300, 1}}, 0, 5});
  TImage whole = first;
  whole.insert(whole.end(), second.begin(), second.end());
  whole.insert(whole.end(), third.begin(), third.end());
  volume.Record(40, base(true)).Record(41, middleRecord).Record(42, lastRecord);
  const auto sizeOnDisk = [](TAnalysedNtfs& t) { return t.Engine.Files().GetSizeOnDisk(t.File(u"f.bin")); };

  SUBCASE("all there; also when it was deleted, which counts the records' sequence numbers up") {
    for (const bool inUse : {true, false}) {
      volume.Record(40, base(inUse));
      TAnalysedNtfs t(volume);
      const auto content = t.Read(u"f.bin");
      CHECK(content.Whole);
      CHECK(content.Bytes == Part(whole, 0, whole.size()));
      CHECK(sizeOnDisk(t) == size);
    }
  }
  SUBCASE("the middle one cannot be read, or belongs to another file: zeros for it, and it is told") {
    std::set<std::int64_t> bad;
    SUBCASE("unreadable") {
      bad = {TNtfsVolume::TableCluster * 8 + 41 * 2, TNtfsVolume::TableCluster * 8 + 41 * 2 + 1};
    }
    SUBCASE("another number") {
      volume.Record(41, TNtfsRecord(middle).Base({50, 3}).Data(TNtfsPiece{{{400, 3}}, 0, 2}));
    }
    SUBCASE("another use of the same number") {
      volume.Record(41, TNtfsRecord(middle).Base({40, 2}).Data(TNtfsPiece{{{400, 3}}, 0, 2}));
    }
    TAnalysedNtfs t(volume, bad);
    const auto content = t.Read(u"f.bin");
    CHECK_FALSE(content.Whole);
    TImage expected = whole;
    std::fill_n(expected.begin() + 2 * 4096, 3 * 4096, std::uint8_t{0});
    CHECK(content.Bytes == Part(expected, 0, expected.size()));
    CHECK(t.Read(u"f.bin", 0, 2 * 4096).Whole);
    CHECK(sizeOnDisk(t) == 3 * 4096);
    TFileFragments fragments;
    GetFileFragments(t.Engine, t.File(u"f.bin"), fragments);
    for (const TFileFragment& fragment : fragments) CHECK(fragment.FirstSectorInDrive != 400 * 8);
  }
  SUBCASE("the last one is past everything: the file is listed, and too short") {
    volume.Record(40, TNtfsRecord(own)
                          .List({{0x80, own, 0}, {0x80, {std::int64_t{1} << 40, 1}, 2}})
                          .Name(NtfsRoot, u"f.bin", size)
                          .Data(TNtfsPiece{{{100, 2}}, size}));
    TAnalysedNtfs t(volume);
    const auto content = t.Read(u"f.bin");
    CHECK_FALSE(content.Whole);
    CHECK(content.Bytes == Part(whole, 0, 2 * 4096));
  }
  SUBCASE("the one with the start is gone: the size is an estimate, and the rest is in its place") {
    volume.Record(40, TNtfsRecord(own).List({{0x80, middle, 0}, {0x80, last, 5}}).Name(NtfsRoot, u"f.bin"));
    volume.Record(41, TNtfsRecord({41, 9}).Base({60, 1}).Data("foreign"));
    TAnalysedNtfs t(volume);
    const TFileInfo& info = t.File(u"f.bin").FileInfo;
    CHECK(info.aSize == size);
    CHECK((PlaceOf(t.Engine, t.File(u"f.bin")) == TPlaceSource::Estimated));
    const auto content = t.Read(u"f.bin");
    CHECK_FALSE(content.Whole);
    TImage expected(5 * ClusterSize);
    expected.insert(expected.end(), third.begin(), third.end());
    CHECK(content.Bytes == Part(expected, 0, expected.size()));
  }
  SUBCASE("a name in an extension record of another use does not count") {
    volume.Record(40, TNtfsRecord(own).List({{0x30, middle, 0}, {0x30, own, 0}}).Name(NtfsRoot, u"f.bin").Data("x"));
    volume.Record(41, TNtfsRecord(middle).Base({40, 1}).Name(NtfsRoot, u"foreign.bin"));
    TAnalysedNtfs t(volume);
    CHECK(t.Has("f.bin"));
    CHECK_FALSE(t.Has("foreign.bin"));
  }
}

TEST_CASE("NTFS: where the bitmap of the table cannot be read, the records tell what is in use") {
  constexpr std::int64_t bitmap = 90;
  TNtfsVolume volume(128, 2560, bitmap);
  volume.File({40, 1}, NtfsRoot, u"live.txt", "x").File({41, 2}, NtfsRoot, u"gone.txt", "x", false);
  volume.File({42, 1}, NtfsRoot, u"freed.txt", "x");
  volume.Image[bitmap * 4096 + 42 / 8] &= static_cast<std::uint8_t>(~(1U << 42 % 8));
  {
    TAnalysedNtfs t(volume);
    CHECK(t.Has("live.txt"));
    CHECK(t.Has("gone.txt deleted"));
    CHECK(t.Has("freed.txt deleted"));
  }
  TAnalysedNtfs t(volume, {bitmap * 8});
  CHECK(t.Has("live.txt"));
  CHECK(t.Has("gone.txt deleted"));
  CHECK(t.Has("freed.txt"));
}

TEST_CASE("NTFS: a file in more records than one table's fragment, and one whose record reads in half") {
  constexpr int pieces = 600;  // records of a file that is all fragments
  TNtfsVolume volume(1024, 2560);
  const TNtfsReference own{40, 1}, half{41, 1};
  TImage list;
  TImage whole;
  const auto listed = [&](TNtfsReference record, std::int64_t vcn) {
    TImage entry(0x20);
    TNtfsRecord::PutInto(entry, 0, 4, 0x80);
    TNtfsRecord::PutInto(entry, 4, 2, 0x20);
    TNtfsRecord::PutInto(entry, 8, 8, static_cast<std::uint64_t>(vcn));
    TNtfsRecord::PutReferenceInto(entry, 0x10, record);
    list.insert(list.end(), entry.begin(), entry.end());
  };
  for (int i = 0; i < pieces; ++i) {
    const TNtfsReference at{i == 0 ? own.Number : 100 + i, 1};
    const TImage content = Pattern(ClusterSize, i);
    volume.Fill(400 + 2 * i, content);
    whole.insert(whole.end(), content.begin(), content.end());
    listed(at, i);
    if (i > 0) volume.Record(at.Number, TNtfsRecord(at).Base(own).Data(TNtfsPiece{{{400 + 2 * i, 1}}, 0, i}));
  }
  const auto size = static_cast<std::int64_t>(whole.size());
  volume.Fill(300, list).Record(own.Number,
                                TNtfsRecord(own)
                                    .NonResident(0x20, TNtfsPiece{{{300, 8}}, static_cast<std::int64_t>(list.size())})
                                    .Name(NtfsRoot, u"fragments.bin", size)
                                    .Data(TNtfsPiece{{{400, 1}}, size}));
  volume.File(half, NtfsRoot, u"half.txt", "content in the first sector");
  TAnalysedNtfs t(volume, {TNtfsVolume::TableCluster * 8 + half.Number * 2 + 1});
  const auto fragments = t.Read(u"fragments.bin");
  CHECK(fragments.Whole);
  CHECK(fragments.Bytes == Part(whole, 0, whole.size()));
  const auto content = t.Read(u"half.txt");
  CHECK(Text(content.Bytes) == "content in the first sector");
  CHECK_FALSE(content.Whole);  // what else the record held is not known
}
