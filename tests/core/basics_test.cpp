// SPDX-License-Identifier: GPL-3.0-or-later
// Numbers, text and times: the ground that everything else stands on.
#include <doctest/doctest.h>

#include "core/datetime.h"
#include "core/file_records.h"
#include "core/numbers.h"
#include "core/parent_clusters.h"
#include "core/sizes.h"
#include "core/text.h"

using namespace brenlow;

TEST_CASE("a field that does not fit reads as 0, at every size and place") {
  const std::uint8_t bytes[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x88};
  CHECK(ReadNumber(bytes, true, 4, 0) == 0x04030201);
  CHECK(ReadNumber(bytes, false, 3, 1) == 0x020304);
  CHECK(ReadNumber(bytes, true, 8, 0) == 0x8807060504030201);
  CHECK(ReadSignedNumber(bytes, true, 8, 0) < 0);
  CHECK(ReadSignedNumber(bytes, true, 1, 7) == -0x78);
  CHECK(ReadSignedNumber(bytes, true, 2, 0) == 0x0201);
  for (std::size_t size = 1; size <= 8; ++size) {
    CHECK(ReadNumber(bytes, true, size, 8 - size) != 0);
    CHECK(ReadNumber(bytes, true, size, 9 - size) == 0);
    CHECK(ReadNumber(bytes, true, size, SIZE_MAX) == 0);
  }
  CHECK(ReadNumber(bytes, true, 0, 0) == 0);
  CHECK(ReadNumber(bytes, true, 9, 0) == 0);
}

TEST_CASE("text survives the way in and out") {
  CHECK(ToUtf8(FromUtf8("Фото 🎉 ½")) == "Фото 🎉 ½");
  const char16_t lone[] = {u'a', 0xD800, u'b', 0};
  CHECK(ToUtf8(lone) ==
        "a\xEF\xBF\xBD"
        "b");
  bool valid = true;
  CHECK(FromUtf8("a\xC0\xAFz", &valid) == u"a\uFFFD\uFFFDz");
  CHECK_FALSE(valid);
  // A path may hold any byte, and must come back byte for byte.
  const std::string path = "/tmp/b\xFF\xC3(\xED\xA0\x80/x";
  CHECK(PathFromText(TextFromPath(path)) == path);
  CHECK(LowerCase(u"ÄÖÜ ŒABC Жук") == u"äöü Œabc жук");
  CHECK(Trim(u"  a b \t") == u"a b");
  CHECK(Extension(u"a.tar.gz") == u"gz");
  CHECK(Extension(u"none").empty());
}

TEST_CASE("times: civil dates both ways, with fractions, and unknown ones") {
  const TDateTime time = EncodeDate(2021, 5, 3) + EncodeTime(17, 20, 6, 130);
  CHECK(IsoTime(time) == "2021-05-03T17:20:06.130");
  CHECK(IsoTime(EncodeDate(2000, 2, 29)) == "2000-02-29T00:00:00");
  CHECK(IsoTime(EncodeDate(1899, 12, 31)) == "1899-12-31T00:00:00");
  CHECK(IsoTime(0).empty());
  CHECK(IsoTime(1e300).empty());
  CHECK(EncodeDate(2021, 2, 29) == 0);
  CHECK(EncodeDate(2021, 13, 1) == 0);
  std::timespec unix{};
  CHECK(ToUnixTime(EncodeDate(2021, 5, 3), unix));
  CHECK(unix.tv_sec == 1620000000);
  CHECK_FALSE(ToUnixTime(0, unix));
}

TEST_CASE("sizes for people") {
  CHECK(SizeText(0) == "0 bytes");
  CHECK(SizeText(1023) == "1023 bytes");
  CHECK(SizeText(1536) == "1.50 KB");
  CHECK(SizeText(1048575) == "1.00 MB");
  CHECK(SizeText(std::int64_t{3} << 40) == "3.00 TB");
}

TEST_CASE("the parent index keeps order, forgets and renumbers") {
  TParentClusters index;
  for (std::uint32_t file = 0; file < 9; ++file) index.Add(std::int64_t{file % 3} - 8, file, file == 4);
  index.Add(INT64_MAX, 9, true);
  CHECK(index.Folders(-7) == TInt64DynArray{4});
  CHECK(index.Folders(-8).empty());
  CHECK(index.Files(-7) == TInt64DynArray{1, 4, 7});
  CHECK(index.Numbers() == TInt64DynArray{-8, -7, -6, INT64_MAX});
  const TParentClusters copy = index;  // must not write into the original's buckets

  CHECK(index.Delete(-7, 7));
  CHECK_FALSE(index.Delete(-7, 7));
  index.Add(-7, 10, false);
  CHECK(index.Files(-7) == TInt64DynArray{1, 4, 10});
  CHECK(copy.Files(-7) == TInt64DynArray{1, 4, 7});

  // Files 0 and 4 are gone, the others move down.
  std::vector<std::uint32_t> moved = {TFileArray::Erased, 0, 1, 2, TFileArray::Erased, 3, 4, 5, 6, 7, 8};
  index.Renumber(moved);
  CHECK(index.Files(-8) == TInt64DynArray{2, 4});
  CHECK(index.Files(-7) == TInt64DynArray{0, 8});
  CHECK(index.Folders(-7).empty());

  TParentClusters other;
  other.Add(-7, 100, false);
  other.Merge(index);
  CHECK(other.Files(-7) == TInt64DynArray{100, 0, 8});
  CHECK(other.Folders(INT64_MAX) == TInt64DynArray{7});
  CHECK(index.Empty());
}

TEST_CASE("file rows keep their addresses and own their names") {
  TFileArray rows;
  std::u16string name = u"first";
  TFileInfo info;
  info.strName = name;
  info.FirstClusters.push_back(7);
  rows.Add(info, -8);
  const TFile* first = &rows[0];
  name = u"XXXXX";
  for (int i = 0; i < 20000; ++i) {
    const std::u16string other = NumberText(i);
    info.strName = other;
    rows.Add(info, i);
  }
  CHECK(first == &rows[0]);
  CHECK(rows[0].FileInfo.strName == u"first");
  CHECK(rows[20000].FileInfo.strName == u"19999");
  std::vector<std::uint32_t> moved;
  CHECK(rows.EraseIf([](std::size_t index, const TFile&) { return index % 2 == 1; }, &moved) == 10000);
  CHECK(rows.size() == 10001);
  CHECK(moved[2] == 1);
  CHECK(moved[1] == TFileArray::Erased);
  CHECK(rows[10000].FileInfo.strName == u"19999");
  CHECK(rows[0].FileInfo.FirstClusters[0] == 7);
}
