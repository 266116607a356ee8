// SPDX-License-Identifier: GPL-3.0-or-later
// Volumes with places that cannot be read, and places that have to be guessed: what comes back, and
// what is said of it.
#include <doctest/doctest.h>

#include <set>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/sector_reader.h"
#include "fs/fat/fat.h"
#include "fs/fat/fat_layout.h"
#include "support/fat_builder.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

std::string Letters(char c, std::size_t size = 512) { return std::string(size, c); }

/// A volume of which some sectors cannot be read, analysed.
struct TDamaged {
  TEngine Engine;
  int Number = -1;

  TDamaged(const TFatBuilder& fat, const std::set<std::int64_t>& badSectors) {
    auto device = std::make_unique<TMemoryDevice>(fat.Image);
    device->BadSectors = badSectors;
    Engine.Devices().Insert(u"/bad.img", std::move(device));
    Number = Engine.Drives().Mount(u"/bad.img", false);
    REQUIRE(Number >= 0);
    AnalyseDrive(Engine, Number);
    Engine.Recovering = true;
  }
  TDriveInfo& Drive() { return DriveOf(Engine, Number); }
  std::string Walk() {
    const std::string text = WalkText(Engine, Number);
    Engine.Recovering = true;
    return text;
  }
  TFile* Find(TStringView name) {
    for (std::size_t i = 0; i < Engine.Files().List.size(); ++i) {
      if (Engine.Files().List[i].FileInfo.strName == name) return &Engine.Files().List[i];
    }
    return nullptr;
  }
  TFile& File(TStringView name) {
    TFile* file = Find(name);
    REQUIRE_MESSAGE(file != nullptr, ToUtf8(name));
    return *file;
  }
  std::string Data(TStringView name) {
    TByteDynArray data;
    GetFileData(Engine, data, File(name), -1, 0, 1 << 20);
    return {data.begin(), data.end()};
  }
  /// Whether reading the file took a guess.
  bool IsGuess(TStringView name) {
    const auto before = Engine.Reader().EstimatedReads();
    Data(name);
    return Engine.Reader().EstimatedReads() != before;
  }
  TPlaceSource Place(TStringView name) { return PlaceOf(Engine, File(name)); }
};

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

/// Names F10, F11, ... in the rest of a folder's cluster.
void FillFolder(TFatBuilder& fat, std::size_t at, int from, int count) {
  for (int i = 0; i < count; ++i, at += 32) {
    std::string name = "F" + std::to_string(from + i);
    name.resize(8, ' ');
    fat.PutEntry(at, {name + "TXT", 0x20});
  }
}

TFatEntry Deleted(std::string name, std::uint8_t attributes, std::uint32_t lowHalf, std::uint32_t size) {
  name[0] = '\xE5';
  return {name, attributes, lowHalf & 0xFFFF, size};
}

}  // namespace

TEST_CASE("an unreadable sector of the table comes from the other one; what neither gives is a guess") {
  // A sector of the table holds 256 entries: the second one those from 256 on.
  TFatBuilder fat(TFatShape{16, 512, 1, 1, 2, 512, 16384});
  fat.PutEntry(fat.RootAt(), {"CHAIN   BIN", 0x20, 300, 1024});
  fat.Chain({300, 400});
  fat.PutEntry(fat.RootAt() + 32, {"ROW     BIN", 0x20, 310, 1024});
  fat.Chain({310, 311});
  fat.PutEntry(fat.RootAt() + 64, {"SINGLE  BIN", 0x20, 320, 512});
  fat.Chain({320});
  fat.PutEntry(fat.RootAt() + 96, {"FAR     BIN", 0x20, 1000, 1024});
  fat.Chain({1000, 1500});
  fat.PutEntry(fat.RootAt() + 128, Deleted("GONE    BIN", 0x20, 330, 512));
  char c = 'a';
  for (const std::uint32_t cluster : {300U, 400U, 310U, 311U, 320U, 1000U, 1500U, 330U})
    fat.Fill(cluster, Letters(c++));
  const std::int64_t first = 1 + 1;
  const std::int64_t second = 1 + fat.TableSectors + 1;
  SUBCASE("one table") {
    TDamaged t(fat, {first});
    CHECK(t.Data(u"CHAIN.BIN") == Letters('a') + Letters('b'));
    CHECK_FALSE(t.IsGuess(u"CHAIN.BIN"));
    CHECK(FATInfo(t.Drive()).UnknownEntries.empty());
    // The first table counts where it can be read.
    const auto entryAt = static_cast<std::size_t>(1 + fat.TableSectors) * 512 + 1000 * 2;
    fat.Put16(entryAt, 0);
    TDamaged differs(fat, {first});
    CHECK(differs.Data(u"FAR.BIN") == Letters('f') + Letters('g'));
  }
  SUBCASE("both tables") {
    TDamaged t(fat, {first, second});
    REQUIRE(FATInfo(t.Drive()).UnknownEntries.size() == 1);
    CHECK(FATInfo(t.Drive()).UnknownEntries[0].First == 256);
    CHECK(FATInfo(t.Drive()).UnknownEntries[0].End == 512);
    CHECK_FALSE(bool{t.File(u"CHAIN.BIN").FileInfo.blnDeleted});
    CHECK(t.IsGuess(u"CHAIN.BIN"));
    CHECK(t.Place(u"CHAIN.BIN") == TPlaceSource::Estimated);
    CHECK(t.Data(u"ROW.BIN") == Letters('c') + Letters('d'));
    CHECK(t.IsGuess(u"ROW.BIN"));
    CHECK_FALSE(t.IsGuess(u"SINGLE.BIN"));
    CHECK(t.Place(u"SINGLE.BIN") == TPlaceSource::Stored);
    CHECK_FALSE(t.IsGuess(u"FAR.BIN"));
    CHECK(t.Place(u"FAR.BIN") == TPlaceSource::Stored);
    CHECK(t.Place(u"?ONE.BIN") == TPlaceSource::Estimated);  // taken by another or not: unknown
    CHECK_FALSE(IsOverwritten(t.Engine, t.File(u"?ONE.BIN")));
  }
}

TEST_CASE("entries of an unreadable table sector, at each width") {
  struct TRow {
    int Width;
    std::uint32_t First;  // of the entries with a byte in the table's second sector
    std::uint32_t End;
  };
  for (const TRow& row : {TRow{12, 341, 683}, TRow{16, 256, 512}, TRow{32, 128, 256}}) {
    CAPTURE(row.Width);
    TFatBuilder fat(row.Width == 32 ? TFatShape{32, 512, 1, 32, 2, 0, 70000}
                                    : TFatShape{row.Width, 512, 1, 1, 2, 512, row.Width == 12 ? 3000 : 16384});
    fat.PutEntry(fat.RootAt(), {"FILE    BIN", 0x20, 900, 10});
    fat.PutEntry(fat.RootAt() + 32, {"FILE2   BIN", 0x20, 900, 10});
    fat.Chain({900});
    const std::int64_t table = fat.Shape.Reserved + 1;
    TDamaged t(fat, {table, table + fat.TableSectors});
    REQUIRE(FATInfo(t.Drive()).UnknownEntries.size() == 1);
    CHECK(FATInfo(t.Drive()).UnknownEntries[0].First == row.First);
    CHECK(FATInfo(t.Drive()).UnknownEntries[0].End == row.End);
  }
}

TEST_CASE("tables that cannot be read at all cost few attempts, and what lies behind them is known") {
  TFatBuilder fat(TFatShape{32, 512, 1, 32, 2, 0, 300000});
  fat.PutEntry(fat.RootAt(), {"LATE    BIN", 0x20, 290000, 1024});
  fat.Chain({290000, 290500});
  std::set<std::int64_t> bad;
  for (int i = 0; i < 1600; ++i) bad.insert({32 + i, 32 + fat.TableSectors + i});
  auto device = std::make_unique<TMemoryDevice>(fat.Image);
  TMemoryDevice& source = *device;
  device->BadSectors = bad;
  TEngine engine;
  engine.Devices().Insert(u"/bad.img", std::move(device));
  TDriveInfo drive = DriveOf(engine, engine.Drives().Mount(u"/bad.img", false));
  TLongWordDynArray table;
  std::vector<fat::TClusterRange> unknown;
  source.Accesses = 0;
  engine.FAT().FillTable(drive, table, 0, &unknown);
  CHECK(source.Accesses < 1200);
  REQUIRE(unknown.size() == 1);
  CHECK(unknown[0].End == 1600 * 128);
  CHECK(table[290000] == 290500);
}

TEST_CASE("what has to be guessed is not called whole: short chains, gaps in deleted files") {
  TFatBuilder fat(TFatShape{});
  fat.PutEntry(fat.RootAt(), {"SHORT   BIN", 0x20, 5, 1024});
  fat.Chain({5});
  fat.PutEntry(fat.RootAt() + 32, Deleted("GAP     BIN", 0x20, 10, 1024));
  fat.Chain({11});
  fat.PutEntry(fat.RootAt() + 64, Deleted("ROW     BIN", 0x20, 20, 1024));
  fat.PutEntry(fat.RootAt() + 96, {"TAKER   BIN", 0x20, 11, 512});
  TDamaged t(fat, {});
  CHECK(t.IsGuess(u"SHORT.BIN"));
  CHECK(t.IsGuess(u"?AP.BIN"));
  CHECK_FALSE(t.IsGuess(u"?OW.BIN"));
  CHECK_FALSE(t.IsGuess(u"TAKER.BIN"));
}

TEST_CASE("a bad sector in a folder costs its own entries only") {
  for (const int perCluster : {1, 4}) {
    CAPTURE(perCluster);
    TFatBuilder fat(TFatShape{16, 512, perCluster, 1, 2, 512, 60000});
    FillFolder(fat, fat.RootAt(), 100, 48);
    fat.PutEntry(fat.RootAt(), {"DIR        ", 0x10, 5});
    fat.PutEntry(fat.RootAt() + 40 * 32, {"LATE       ", 0x10, 40});
    fat.Chain({5, 6, 7});
    const std::size_t perFolderCluster = fat.ClusterSize() / 32;
    fat.PutDots(5, 0);
    FillFolder(fat, fat.ClusterAt(5) + 64, 200, static_cast<int>(perFolderCluster) - 2);
    FillFolder(fat, fat.ClusterAt(6), 400, static_cast<int>(perFolderCluster));
    FillFolder(fat, fat.ClusterAt(7), 600, 10);
    fat.Chain({40});
    fat.PutDots(40, 0);
    FillFolder(fat, fat.ClusterAt(40) + 64, 800, 3);
    const auto sectorOf = [](std::size_t at) { return static_cast<std::int64_t>(at / 512); };
    SUBCASE("in the middle") {
      TDamaged t(fat, {sectorOf(fat.RootAt()) + 1, sectorOf(fat.ClusterAt(6))});
      const std::string walk = t.Walk();
      CHECK(Has(walk, "F115.TXT "));
      CHECK_FALSE(Has(walk, "F116.TXT "));  // in the root's second sector
      CHECK(Has(walk, "LATE/F802.TXT "));
      CHECK(Has(walk, "DIR/F200.TXT "));
      CHECK_FALSE(Has(walk, "F400.TXT "));
      if (perCluster > 1) CHECK(Has(walk, "DIR/F416.TXT "));
      CHECK(Has(walk, "DIR/F609.TXT "));
    }
    SUBCASE("at its start: the entry and the table speak for it") {
      TDamaged t(fat, {sectorOf(fat.RootAt()), sectorOf(fat.ClusterAt(40)), sectorOf(fat.ClusterAt(5))});
      const std::string walk = t.Walk();
      CHECK(Has(walk, "F116.TXT "));
      CHECK(Has(walk, "LATE/\n"));
      CHECK_FALSE(Has(walk, "DIR/"));  // its entry is in the root's first sector
    }
    SUBCASE("at the start of a folder with an entry") {
      TDamaged t(fat, {sectorOf(fat.ClusterAt(5))});
      const std::string walk = t.Walk();
      if (perCluster > 1) CHECK(Has(walk, "DIR/F214.TXT "));
      CHECK(Has(walk, "DIR/F400.TXT "));
      CHECK(Has(walk, "DIR/F609.TXT "));
    }
  }
}

TEST_CASE("a long name cut off by a bad sector keeps what is left of it, and its extension") {
  TFatBuilder fat(TFatShape{});
  // Fourteen short names, and a name of four pieces: two in the bad first sector, two behind it.
  FillFolder(fat, fat.RootAt(), 10, 14);
  fat.PutLongEntry(fat.RootAt() + 14 * 32, u"Holiday in the mountains with all of them.jpeg", {"HOLIDA~1JPE", 0x20});
  // And one whose entry lies in a bad sector: its pieces go to nobody.
  FillFolder(fat, fat.RootAt() + 19 * 32, 30, 11);
  fat.PutLongEntry(fat.RootAt() + 30 * 32, u"The end of the sector cuts it", {"THEEND~1   ", 0x20});
  FillFolder(fat, fat.RootAt() + 48 * 32, 50, 3);
  const auto root = static_cast<std::int64_t>(fat.RootAt() / 512);
  TDamaged t(fat, {root, root + 2});
  CHECK(t.Find(u"Holiday in the mountains w.jpe") != nullptr);
  CHECK(t.Find(u"F50.TXT") != nullptr);
  CHECK(t.Find(u"F30.TXT") != nullptr);
}

TEST_CASE("live folders whose entries cannot be read are joined by their own entries") {
  TFatBuilder fat(TFatShape{32, 512, 1, 32, 2, 0, 140000});
  // root / OUTER (70) / INNER (60) / LEAF (50). Entries: OUTER in the bad root, INNER in a bad sector of
  // OUTER, LEAF in a good sector of INNER. Numbers fall, so that the search meets children first.
  const auto folder = [&](std::uint32_t cluster, std::uint32_t parent) {
    fat.PutDots(cluster, parent);
    fat.PutEntry(fat.ClusterAt(cluster) + 64, {"IN" + std::to_string(cluster) + "    TXT", 0x20, cluster + 1, 3});
    fat.Chain({cluster + 1});
    fat.Fill(cluster + 1, "abc");
  };
  folder(70, 0);
  fat.Chain({70, 80});
  FillFolder(fat, fat.ClusterAt(70) + 96, 10, 13);
  fat.PutEntry(fat.ClusterAt(80), {"INNER      ", 0x10, 60});
  folder(60, 70);
  fat.Chain({60});
  fat.PutEntry(fat.ClusterAt(60) + 96, {"LEAF       ", 0x10, 50});
  folder(50, 60);
  fat.Chain({50});
  fat.PutEntry(fat.RootAt(), {"OUTER      ", 0x10, 70});
  fat.PutEntry(fat.RootAt() + 32, {"ALSO    TXT", 0x20});
  // A folder of a deleted tree keeps its place in lost and found.
  fat.PutDots(90, 0);
  fat.PutEntry(fat.ClusterAt(90) + 64, {"OLD     TXT", 0x20});
  const auto sectorOf = [&](std::uint32_t cluster) { return static_cast<std::int64_t>(fat.ClusterAt(cluster) / 512); };
  SUBCASE("names that are lost become numbers, in the folder that holds them") {
    TDamaged t(fat, {sectorOf(2), sectorOf(80)});
    const std::string walk = t.Walk();
    CHECK(Has(walk, "Folder 70/IN70.TXT 3 2021"));
    CHECK(Has(walk, "Folder 70/Folder 60/IN60.TXT 3 2021"));
    CHECK(Has(walk, "Folder 70/Folder 60/LEAF/IN50.TXT 3 2021"));
    CHECK_FALSE(Has(walk, "Folder 50"));
    CHECK(Has(walk, "Lost and found/Folder 90/OLD.TXT"));
    CHECK_FALSE(Has(walk, "Lost and found/Folder 70"));
  }
  SUBCASE("names that are there are used") {
    TDamaged t(fat, {sectorOf(2)});
    CHECK(Has(t.Walk(), "Folder 70/INNER/LEAF/IN50.TXT 3 2021"));
  }
  SUBCASE("folders that name each other as parents") {
    fat.PutDots(70, 60);
    TDamaged t(fat, {sectorOf(2), sectorOf(80)});
    const std::string walk = t.Walk();
    CHECK(Has(walk, "IN70.TXT 3 2021"));
    CHECK(Has(walk, "IN60.TXT 3 2021"));
    CHECK(Has(walk, "IN50.TXT 3 2021"));
  }
  SUBCASE("no table at all: the rest of a folder goes where its folders say that they lie") {
    std::set<std::int64_t> bad = {sectorOf(2)};
    for (std::int64_t s = 32; s < 32 + 2 * fat.TableSectors; ++s) bad.insert(s);
    TDamaged t(fat, bad);
    const std::string walk = t.Walk();
    CHECK(Has(walk, "Folder 70/IN70.TXT 3 2021"));
    CHECK(Has(walk, "Folder 70/INNER/LEAF/IN50.TXT 3 2021"));
    CHECK(t.Place(u"IN50.TXT") == TPlaceSource::Stored);  // one cluster needs no table
  }
}

TEST_CASE("lost folders are looked for up to the last cluster, not in the next volume") {
  TFatBuilder fat(TFatShape{16, 512, 2, 1, 2, 512, 30000});
  fat.PutEntry(fat.RootAt(), {"KEEP    TXT", 0x20});
  const auto lastCluster = static_cast<std::uint32_t>((30000 - fat.FirstDataSector) / 2 + 1);
  for (const std::uint32_t cluster : {lastCluster, lastCluster + 2}) {
    fat.Image.resize(std::max(fat.Image.size(), fat.ClusterAt(cluster) + 4096));
    fat.PutDots(cluster, 0);
    fat.PutEntry(fat.ClusterAt(cluster) + 64, {cluster == lastCluster ? "LAST    TXT" : "BEYOND  TXT", 0x20});
  }
  TImage disk(2048 * 512);
  disk.insert(disk.end(), fat.Image.begin(), fat.Image.end());
  disk.resize(disk.size() + (9 << 20));
  PutTable(disk, 0, {{0x06, 2048, 30000}});
  TEngine engine;
  const int number = Mount(engine, disk).Number;
  engine.FAT().LostFolderSearch = TLostFolderSearch::Always;
  AnalyseDrive(engine, number);
  bool last = false;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    const TStringView name = engine.Files().List[i].FileInfo.strName;
    CHECK(name != u"BEYOND.TXT");
    last = last || name == u"LAST.TXT";
  }
  CHECK(last);
}

TEST_CASE("FAT32: the signature is looked at before the number as found is believed") {
  TFatBuilder fat(TFatShape{32, 512, 1, 32, 2, 0, 210000});
  const std::string jpg = "\xFF\xD8\xFF photo";
  fat.PutEntry(fat.RootAt(), Deleted("PHOTO   JPG", 0x20, 1000, 600));
  fat.PutEntry(fat.RootAt() + 32, Deleted("TEXT    TXT", 0x20, 3000, 600));
  fat.PutEntry(fat.RootAt() + 64, {"\xE5KEPT   TXT", 0x20, 70000, 5});  // somebody keeps high halves here
  fat.PutEntry(fat.RootAt() + 96, {"LIVE    JPG", 0x20, 2000, 400});
  fat.Chain({2000});
  fat.Fill(2000, jpg + "live");
  fat.PutEntry(fat.RootAt() + 128, Deleted("OTHER   JPG", 0x20, 2000, 400));
  fat.Fill(2000 + 65536, jpg + "other");
  fat.Fill(3000, "as found");
  SUBCASE("only elsewhere") {
    fat.Fill(1000, "no photo");
    fat.Fill(1000 + 65536, jpg);
    TDamaged t(fat, {});
    REQUIRE(FATInfo(t.Drive()).HighHalvesKept);
    CHECK(t.Data(u"?HOTO.JPG").starts_with(jpg));
    CHECK(t.Place(u"?HOTO.JPG") == TPlaceSource::ByContent);
    CHECK(t.File(u"?HOTO.JPG").FileInfo.FirstClusters.size() == 1);
    CHECK(t.Data(u"?EXT.TXT").starts_with("as found"));
    CHECK(t.Place(u"?EXT.TXT") == TPlaceSource::Stored);
  }
  SUBCASE("as found, and the others stay candidates; free places come first") {
    fat.Fill(1000, jpg + " as found");
    fat.Fill(1000 + 65536, jpg);
    TDamaged t(fat, {});
    CHECK(t.Data(u"?HOTO.JPG").starts_with(jpg + " as found"));
    CHECK(t.File(u"?HOTO.JPG").FileInfo.FirstClusters.size() == 2);
    CHECK(t.Place(u"?HOTO.JPG") == TPlaceSource::Stored);
    CHECK(t.Data(u"?THER.JPG").starts_with(jpg + "other"));
    CHECK(t.File(u"?THER.JPG").FileInfo.FirstClusters.size() == 2);
  }
  SUBCASE("an unreadable candidate ends nothing") {
    fat.Fill(1000 + 65536, jpg);
    TDamaged t(fat, {static_cast<std::int64_t>(fat.ClusterAt(1000) / 512)});
    CHECK(t.Data(u"?HOTO.JPG").starts_with(jpg));
  }
}

TEST_CASE("FAT32: guessed high halves are marked, those that can only be zero are not") {
  TFatBuilder fat(TFatShape{32, 512, 1, 32, 2, 0, 140000});
  fat.PutEntry(fat.RootAt(), Deleted("ONLY    TXT", 0x20, 1000, 600));
  fat.PutEntry(fat.RootAt() + 32, Deleted("EITHER  TXT", 0x20, 2000, 600));
  fat.Fill(2000, "here");
  fat.Fill(2000 + 65536, "or there");
  TDamaged blank(fat, {});
  CHECK(blank.Place(u"?NLY.TXT") == TPlaceSource::Stored);  // nothing seems to lie above
  fat.PutEntry(fat.RootAt() + 64, {"HIGH    TXT", 0x20, 70000, 5});
  fat.Chain({70000});
  TDamaged t(fat, {});
  CHECK(t.Place(u"?NLY.TXT") == TPlaceSource::Estimated);  // nobody has looked yet
  t.Data(u"?NLY.TXT");
  t.Data(u"?ITHER.TXT");
  CHECK(t.Place(u"?NLY.TXT") == TPlaceSource::Stored);
  CHECK(t.Place(u"?ITHER.TXT") == TPlaceSource::Estimated);
}

TEST_CASE("FAT32: a deleted folder is looked for in free space first") {
  TFatBuilder fat(TFatShape{32, 512, 1, 32, 2, 0, 140000});
  fat.PutEntry(fat.RootAt(), Deleted("ZERO       ", 0x10, 0, 0));
  fat.PutDots(65536, 0);
  fat.PutEntry(fat.ClusterAt(65536) + 64, {"INZERO  TXT", 0x20});
  fat.PutEntry(fat.RootAt() + 32, Deleted("GONE       ", 0x10, 500, 0));
  fat.PutEntry(fat.RootAt() + 64, {"LIVE       ", 0x10, 500});
  fat.Chain({500});
  fat.PutDots(500, 0);
  fat.PutEntry(fat.ClusterAt(500) + 64, {"INLIVE  TXT", 0x20});
  fat.PutDots(500 + 65536, 0);
  fat.PutEntry(fat.ClusterAt(500 + 65536) + 64, {"INGONE  TXT", 0x20});
  TDamaged t(fat, {});
  const std::string walk = t.Walk();
  CHECK(Has(walk, "?ERO/INZERO.TXT"));
  CHECK(Has(walk, "?ONE/INGONE.TXT"));
  CHECK(Has(walk, "LIVE/INLIVE.TXT"));
  CHECK_FALSE(Has(walk, "?ONE/INLIVE.TXT"));
}

TEST_CASE("FAT32: a damaged cluster size is put right by a folder, or told") {
  for (const int stated : {2, 8, 64}) {
    for (const bool withFolder : {true, false}) {
      CAPTURE(stated);
      CAPTURE(withFolder);
      TFatBuilder fat(TFatShape{32, 512, 1, 32, 2, 0, 70000});
      fat.Chain({2});
      fat.PutEntry(fat.RootAt(), {"FILE    TXT", 0x20, 3000, 512});
      fat.Chain({3000});
      fat.Fill(3000, Letters('x'));
      fat.PutEntry(fat.RootAt() + 32, {"\xE5NDLESSTXT", 0x20, 4000, 70000 * 512});  // no entry: longer than the volume
      if (withFolder) {
        fat.PutEntry(fat.RootAt() + 64, {"DIR        ", 0x10, 10});
        fat.Chain({10});
        fat.PutDots(10, 0);
      }
      fat.Image[13] = static_cast<std::uint8_t>(stated);
      TDamaged t(fat, {});
      CHECK(t.Drive().GeometrySource == (withFolder ? TPlaceSource::Stored : TPlaceSource::Estimated));
      if (withFolder) CHECK(t.Data(u"FILE.TXT") == Letters('x'));
      CHECK(t.Find(u"?NDLESS.TXT") == nullptr);
    }
  }
}
