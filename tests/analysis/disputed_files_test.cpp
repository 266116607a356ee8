// SPDX-License-Identifier: GPL-3.0-or-later
// Deleted files whose clusters belong, or belonged, to something else as well: each must be told, and no
// other one.
#include "analysis/disputed_files.h"

#include <doctest/doctest.h>

#include <map>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/cluster_use.h"
#include "fs/ntfs/volume_builder.h"
#include "support/fat_builder.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

using TDoubts = std::map<std::string, TContentDoubt>;

/// The doubts of all files, by name.
TDoubts DoubtsOf(TEngine& engine) {
  TDoubts doubts;
  const TFileArray& list = engine.Files().List;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const TFileInfo& info = list[i].FileInfo;
    if (!info.blnFolder && info.blnDeleted) doubts[ToUtf8(info.strName)] = DoubtOf(engine, list[i]);
  }
  return doubts;
}

std::string TextOf(const TDoubts& doubts) {
  std::string text;
  for (const auto& [name, doubt] : doubts) text += name + "=" + std::to_string(static_cast<int>(doubt)) + " ";
  return text;
}

/// A record's times, as days from some day on; 0 for none.
TImage Times(int created, int modified) {
  constexpr std::uint64_t day = 864'000'000'000;
  TImage value(0x30);
  const auto at = [&](int days) { return days == 0 ? 0 : (150'000 + static_cast<std::uint64_t>(days)) * day; };
  TNtfsRecord::PutInto(value, 0, 8, at(created));
  TNtfsRecord::PutInto(value, 8, 8, at(modified));
  return value;
}

struct TNtfsCase {
  std::u16string Name;
  std::vector<TNtfsRun> Runs;
  int Created = 0;
  int Modified = 0;
  TContentDoubt Doubt = TContentDoubt::None;
};

}  // namespace

TEST_CASE("clusters in use: of a row however long, at all borders") {
  TByteDynArray bits(200, 0);
  for (const unsigned used : {0U, 7U, 8U, 511U, 512U, 1599U})
    bits[used / 8] |= static_cast<std::uint8_t>(1U << used % 8);
  const TClusterUse use(bits);
  for (std::int64_t first = 0; first < 1610; ++first) {
    for (const std::int64_t count : {0, 1, 2, 63, 512, 5000}) {
      bool any = false;
      for (const int used : {0, 7, 8, 511, 512, 1599}) any = any || (used >= first && used < first + count);
      REQUIRE(use.IsAnyUsed({first, count}) == any);
    }
  }
  CHECK(use.IsUsed(511));
  CHECK_FALSE(use.IsUsed(510));
  CHECK_FALSE(use.IsUsed(99999));
  CHECK_FALSE(TClusterUse().IsKnown());
}

TEST_CASE("NTFS: deleted files that lost clusters to what came after them") {
  using enum TContentDoubt;
  const std::vector<TNtfsCase> cases{
      {u"alone", {{100, 2}, {-1, 3}, {110, 1}}, 1, 1, None},
      {u"start used", {{200, 2}}, 1, 1, Overwritten},
      {u"later piece used", {{210, 2}, {300, 1}}, 1, 1, PartlyOverwritten},
      {u"old", {{400, 4}}, 1, 2, LaterFile},
      {u"new", {{450, 1}, {402, 1}}, 3, 1, None},  // copied: modified before it was made
      {u"grew", {{500, 2}}, 1, 9, Contested},
      {u"beside what grew", {{501, 1}}, 3, 4, Contested},
      {u"untimed", {{600, 2}}, 0, 0, Contested},
      {u"with untimed", {{601, 2}}, 5, 5, Contested},
      {u"under an index", {{700, 1}}, 1, 1, LaterFile},
  };
  TDoubts wanted{{"linked", None}, {"resident", Unchecked}};
  TNtfsVolume volume;
  std::string bitmap(320, '\0');
  for (const int used : {200, 300}) bitmap[static_cast<std::size_t>(used) / 8] = static_cast<char>(1U << used % 8);
  const auto gone = [](int number, bool folder = false) { return TNtfsRecord({number, 2}, folder, false); };
  int number = 40;
  for (const TNtfsCase& c : cases) {
    wanted[ToUtf8(c.Name)] = c.Doubt;
    const std::int64_t size = 2 * 4096;
    volume.Record(number, gone(number)
                              .Resident(0x10, Times(c.Created, c.Modified))
                              .Name(NtfsRoot, c.Name, size)
                              .Data(TNtfsPiece{c.Runs, size}));
    ++number;
  }
  volume.Record(60, gone(60).Name({5, 5}, u"linked").Name({61, 1}, u"linked").Data(TNtfsPiece{{{800, 1}}, 4096}));
  volume.Folder({61, 1}, NtfsRoot, u"folder");
  volume.Record(62, gone(62).Name(NtfsRoot, u"resident").Data("some text"));
  volume.Record(63, gone(63, true)
                        .Resident(0x10, Times(5, 5))
                        .Name(NtfsRoot, u"gone folder")
                        .NonResident(0xA0, TNtfsPiece{{{700, 1}}, 4096}));
  SUBCASE("by the volume's map") { volume.Record(6, TNtfsRecord({6, 6}).Name(NtfsRoot, u"$Bitmap").Data(bitmap)); }
  SUBCASE("without a map, by the live files") {
    volume.Record(65, TNtfsRecord({65, 1}).Name(NtfsRoot, u"live 1").Data(TNtfsPiece{{{199, 2}}, 8192}));
    volume.Record(66, TNtfsRecord({66, 1}).Name(NtfsRoot, u"live 2").Data(TNtfsPiece{{{300, 1}}, 4096}));
    // An entry at the place of a live file made at the same moment: the same state of it, or an earlier one.
    const auto enter = [&](TNtfsRecord record, const TString& name, int cluster, int modified) {
      return record.Resident(0x10, Times(1, modified)).Name(NtfsRoot, name).Data(TNtfsPiece{{{cluster, 1}}, 4096});
    };
    volume.Record(67, enter(gone(67), u"moved", 810, 2));
    volume.Record(68, enter(TNtfsRecord({68, 1}), u"live 3", 810, 2));
    volume.Record(69, enter(gone(69), u"written since", 820, 2));
    volume.Record(70, enter(TNtfsRecord({70, 1}), u"live 4", 820, 9));
    wanted["moved"] = None;
    wanted["written since"] = Overwritten;
  }
  TAnalysedNtfs t(volume);
  CHECK(TextOf(DoubtsOf(t.Engine)) == TextOf(wanted));
}

TEST_CASE("FAT: deleted files beyond their first cluster are assumptions, which others refute") {
  using enum TContentDoubt;
  TFatBuilder fat(TFatShape{16, 512, 1, 1, 2, 512, 16384});
  struct TCase {
    std::string Name;  // 11 bytes; deleted ones have lost the first
    std::uint32_t Cluster;
    std::uint32_t Clusters;
    TContentDoubt Doubt;
    std::string Shown;
  };
  const std::vector<TCase> cases{
      {"\xE5"
       "LONE   TXT",
       100, 2, None, "?LONE.TXT"},
      {"\xE5"
       "ROUND  TXT",
       200, 3, PlaceEstimated, "?ROUND.TXT"},  // the second cluster is in use
      {"\xE5"
       "IRST   TXT",
       300, 4, Contested, "?IRST.TXT"},
      {"\xE5"
       "XCOND  TXT",
       303, 1, Contested, "?XCOND.TXT"},
      {"\xE5XNAMED TXT", 400, 1, None, "?XNAMED.TXT"},  // its place is that of a live file of its size
      {"\xE5XKEN   TXT", 410, 1, Overwritten, "?XKEN.TXT"},
      {"\xE5NDER   TXT", 499, 3, PartlyOverwritten, "?NDER.TXT"},  // a deleted folder is still to be seen there
  };
  TDoubts wanted;
  std::size_t at = fat.RootAt();
  for (const TCase& c : cases) {
    fat.PutEntry(at, {c.Name, 0x20, c.Cluster, c.Clusters * 512});
    at += 32;
    wanted[c.Shown] = c.Doubt;
  }
  fat.PutEntry(at, {"RENAMED TXT", 0x20, 400, 512});
  fat.PutEntry(at + 32, {"LONGER  TXT", 0x20, 410, 513});
  fat.PutEntry(at + 64, {"\xE5OLDER     ", 0x10, 500});
  for (const std::uint32_t used : {201U, 400U, 410U}) fat.Chain({used});
  fat.PutDots(500, 0);
  fat.PutEntry(fat.ClusterAt(500) + 64, {"\xE5NSIDE  TXT", 0x20, 510, 512});
  wanted["?NSIDE.TXT"] = None;
  TEngine engine;
  AnalyseDrive(engine, Mount(engine, fat.Image).Number);
  CHECK(TextOf(DoubtsOf(engine)) == TextOf(wanted));
}

TEST_CASE("FAT formatted over: what was alive to the end has its first cluster, and its rest lay anywhere") {
  using enum TContentDoubt;
  TFatBuilder fat(TFatShape{16, 512, 1, 1, 2, 512, 60000});
  const struct {
    std::string Name;
    std::uint32_t Cluster;
    std::uint32_t Clusters;
    TContentDoubt Doubt;
    std::string Shown;
  } cases[] = {
      {"ALONE   TXT", 100, 3, None, "ALONE.TXT"},
      {"SMALL   TXT", 200, 1, None, "SMALL.TXT"},  // what was deleted cannot have it any more
      {"\xE5MALL   TXT", 199, 2, PartlyOverwritten, "?MALL.TXT"},
      {"LONG    TXT", 300, 4, Contested, "LONG.TXT"},
      {"BETWEEN TXT", 302, 1, None, "BETWEEN.TXT"},
      {"\xE5TART   TXT", 300, 1, Overwritten, "?TART.TXT"},
      {"\xE5WAY    TXT", 900, 1, Contested, "?WAY.TXT"},  // nothing says so, but the rest of LONG may lie there
  };
  TDoubts wanted;
  std::size_t at = fat.RootAt();
  for (const auto& c : cases) {
    fat.PutEntry(at, {c.Name, 0x20, c.Cluster, c.Clusters * 512});  // and no entry in the table
    at += 32;
    wanted[c.Shown] = c.Doubt;
  }
  TEngine engine;
  AnalyseDrive(engine, Mount(engine, fat.Image).Number);
  CHECK(TextOf(DoubtsOf(engine)) == TextOf(wanted));
}

TEST_CASE("FAT32: files whose high half is found only when they are written are compared then") {
  TFatBuilder fat(TFatShape{32, 512, 1, 32, 2, 0, 140000});
  const auto deleted = [&](std::size_t index, const std::string& name, std::uint32_t cluster, std::uint32_t clusters) {
    fat.PutEntry(fat.ClusterAt(2) + 32 * index, {name, 0x20, cluster & 0xFFFF, clusters * 512});
    fat.Image[fat.ClusterAt(2) + 32 * index] = 0xE5;
    fat.Fill(cluster, "\xFF\xD8\xFF photo");
  };
  deleted(0, "ALONE   JPG", 66000, 2);
  deleted(1, "WIDE    JPG", 67000, 3);
  deleted(2, "INSIDE  JPG", 67002, 1);
  deleted(3, "LEFTOUT JPG", 68000, 1);
  fat.PutEntry(fat.ClusterAt(2) + 128, {"LIVE    TXT", 0x20, 70000, 512});
  fat.Chain({70000});
  TEngine engine;
  AnalyseDrive(engine, Mount(engine, fat.Image).Number);
  using enum TContentDoubt;
  CHECK(TextOf(DoubtsOf(engine)) == TextOf({{"?LONE.JPG", PlaceEstimated},
                                            {"?IDE.JPG", PlaceEstimated},
                                            {"?NSIDE.JPG", PlaceEstimated},
                                            {"?EFTOUT.JPG", PlaceEstimated}}));
  TInt64DynArray chosen;
  const TFileArray& list = engine.Files().List;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (IsPlaceOpen(engine, list[i]) && list[i].FileInfo.strName != u"?EFTOUT.JPG") {
      chosen.push_back(static_cast<std::int64_t>(i));
    }
  }
  engine.Recovering = true;
  SettlePlaces(engine, chosen);
  CHECK(
      TextOf(DoubtsOf(engine)) ==
      TextOf(
          {{"?LONE.JPG", None}, {"?IDE.JPG", Contested}, {"?NSIDE.JPG", Contested}, {"?EFTOUT.JPG", PlaceEstimated}}));
}
