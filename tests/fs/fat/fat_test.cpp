// SPDX-License-Identifier: GPL-3.0-or-later
// Cases that no tool writes, on volumes built byte by byte.
#include "fs/fat/fat.h"

#include <doctest/doctest.h>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/sector_reader.h"
#include "fs/fat/fat_entry.h"
#include "fs/fat/fat_layout.h"
#include "support/fat_builder.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

struct TFixture {
  TEngine Engine;
  TMounted Source;

  explicit TFixture(const TFatBuilder& fat) : Source(Mount(Engine, fat.Image)) {
    REQUIRE(Source.Number >= 0);
    AnalyseDrive(Engine, Source.Number);
    Engine.Recovering = true;  // deleted files are followed through free clusters
  }
  TDriveInfo& Drive() { return DriveOf(Engine, Source.Number); }
  std::string Walk() {
    const std::string text = WalkText(Engine, Source.Number);
    Engine.Recovering = true;
    return text;
  }
  TFile& File(TStringView name) {
    for (std::size_t i = 0; i < Engine.Files().List.size(); ++i) {
      if (Engine.Files().List[i].FileInfo.strName == name) return Engine.Files().List[i];
    }
    FAIL("no such file: " << ToUtf8(name));
    return Engine.Files().List[0];
  }
  std::string Data(TStringView name, std::int64_t start = 0, std::int64_t size = 1 << 20) {
    TByteDynArray data;
    GetFileData(Engine, data, File(name), -1, start, size);
    return {data.begin(), data.end()};
  }
};

TFatShape Fat32Shape(int sectors, int perCluster = 1) { return {32, 512, perCluster, 32, 2, 0, sectors}; }

std::string Cluster(char c, std::size_t size = 512) { return std::string(size, c); }

}  // namespace

TEST_CASE("recognition: the few things that are tested") {
  TEngine engine;
  const TFAT& driver = engine.FAT();
  TFatBuilder fat(TFatShape{});
  CHECK(driver.IsPartition(fat.Image, 0));
  const auto with = [&](std::size_t at, std::uint32_t value) {
    TFatBuilder changed(TFatShape{});
    changed.Put16(at, value);
    return driver.IsPartition(changed.Image, 0);
  };
  CHECK_FALSE(with(11, 0));
  CHECK_FALSE(with(11, 768));  // a multiple of 512, but no power of two
  CHECK_FALSE(with(11, 1536));
  CHECK(with(11, 4096));
  CHECK_FALSE(with(510, 0x55));
  fat.Image[13] = 3;
  CHECK_FALSE(driver.IsPartition(fat.Image, 0));
  fat.Image[13] = 1;
  CHECK(driver.IsPartition(fat.Image, 0));
  CHECK_FALSE(driver.IsPartition(std::span(fat.Image).first(511), 0));
  CHECK_FALSE(driver.IsPartition(fat.Image, fat.Image.size() + 1));
}

TEST_CASE("FAT12 or FAT16: the sum adds the tables, the table's own size corrects it") {
  TEngine engine;
  TFatShape shape{12, 512, 1, 1, 2, 512, 4085 + 1 - 26};
  TFatBuilder fat(shape);
  // total - reserved + tables = 4085 - exactly on the border
  fat.Put32(32, static_cast<std::uint32_t>(4085 + 1 - 2 * fat.TableSectors));
  CHECK(engine.FAT().GetFileSystem(fat.Image, 0) == TFileSystem::fsFAT16);
  fat.Put32(32, static_cast<std::uint32_t>(4084 + 1 - 2 * fat.TableSectors));
  CHECK(engine.FAT().GetFileSystem(fat.Image, 0) == TFileSystem::fsFAT12);
  // The count of tables comes from the buffer's start, whatever the boot sector at `start` says.
  TImage shifted(512, 0);
  shifted.insert(shifted.end(), fat.Image.begin(), fat.Image.begin() + 512);
  CHECK(engine.FAT().GetFileSystem(shifted, 512) == TFileSystem::fsFAT12);

  // A volume that the sum calls FAT16 though its table has no room for 16-bit entries.
  TFatBuilder border(TFatShape{12, 512, 1, 1, 2, 512, 4110});
  border.PutEntry(border.RootAt(), {"CHAIN   TXT", 0x20, 3, 1024});
  border.Chain({3, 9});
  border.Fill(3, Cluster('a'));
  border.Fill(9, Cluster('b'));
  CHECK(engine.FAT().GetFileSystem(border.Image, 0) == TFileSystem::fsFAT16);
  TFixture t(border);
  CHECK(t.Drive().FileSystem == TFileSystem::fsFAT12);
  CHECK(t.Data(u"CHAIN.TXT") == Cluster('a') + Cluster('b'));
}

TEST_CASE("entries: states, names, times") {
  TFatBuilder fat(TFatShape{});
  std::size_t at = fat.RootAt();
  fat.PutEntry(at, {"VOLUME LAB ", 0x08});
  fat.PutEntry(at += 32, {"LIVE    TXT", 0x21, 5, 3});
  fat.Chain({5});
  fat.PutEntry(at += 32, {"EMPTY   TXT", 0x20, 0, 0});
  fat.PutEntry(at += 32, {"NOPLACE TXT", 0x20, 0, 1});  // says live, the table says no
  fat.PutEntry(at += 32, {"\xE5"
                          "ELETED TXT",
                          0x20, 7, 4});
  fat.PutEntry(at += 32, {"\x05"
                          "ANJI   TXT",
                          0x20, 0, 0});  // 0x05 stands for 0xE5
  fat.PutEntry(at += 32, {"lower   TXT", 0x20, 0, 0, 0x10});
  fat.PutEntry(at += 32, {"SMALL   TXT", 0x20, 0, 0, 0x18});
  fat.PutEntry(at += 32, {"UTF8\xC2\xAA   X  ", 0x20, 0, 0});  // 0xAA would be U+00AC on page 437
  fat.PutEntry(at += 32, {"NODOT      ", 0x20, 0, 0});
  at += fat.PutLongEntry(at + 32, u"A long name, Фото 🎉.jpeg", {"ALONGN~1JPE", 0x20, 0, 0});
  at += fat.PutLongEntry(at + 32, u"deleted long name.txt", {"DELETE~1TXT", 0x20, 0, 0}, true);
  // Behind the end mark, in the same sector as it happens: listed as deleted.
  fat.PutEntry(at + 32, {std::string("\0AST    TXT", 11), 0x20, 9, 2});
  TFixture t(fat);
  CHECK(t.Drive().VolumeName == u"VOLUME LAB");
  CHECK_FALSE(bool{t.File(u"LIVE.TXT").FileInfo.blnDeleted});
  CHECK(bool{t.File(u"LIVE.TXT").FileInfo.Atributes.blnReadOnly});
  CHECK_FALSE(bool{t.File(u"EMPTY.TXT").FileInfo.blnDeleted});
  CHECK(bool{t.File(u"NOPLACE.TXT").FileInfo.blnDeleted});
  CHECK(bool{t.File(u"?ELETED.TXT").FileInfo.blnDeleted});
  CHECK_FALSE(bool{t.File(u"σANJI.TXT").FileInfo.blnDeleted});
  t.File(u"lower.txt");
  t.File(u"small.txt");
  t.File(u"UTF8ª.X");
  t.File(u"NODOT");
  CHECK(IsoTime(t.File(u"A long name, Фото 🎉.jpeg").FileInfo.TimeStamp.dtModified) == "2021-05-03T17:20:06");
  CHECK(bool{t.File(u"deleted long name.txt").FileInfo.blnDeleted});
  CHECK(bool{t.File(u"?AST.TXT").FileInfo.blnDeleted});
  CHECK(IsoTime(t.File(u"LIVE.TXT").FileInfo.TimeStamp.dtAccessed) == "2021-05-03T00:00:00");
  CHECK(t.Drive().Analysed == TAnalyseInformation::aiFull);
}

TEST_CASE("long names: order by position, one checksum, orphans attach to the next entry") {
  const auto oem = fat::CodePage437();
  TFatBuilder fat(TFatShape{});
  const std::size_t at = fat.RootAt();
  fat.PutLongEntry(at, u"stranger piece", {"OTHER   TXT", 0x20});
  fat.PutLongEntry(at + 64, u"the name that counts.txt", {"COUNTS~1TXT", 0x20});
  fat::TEntryParser parser(oem);
  TFileInfo info;
  const auto entry = [&](std::size_t i) { return std::span<const std::uint8_t>(fat.Image).subspan(at + 32 * i, 32); };
  // Entry 0 and 1 are pieces of "stranger piece", 2 and 3 of the other name, 4 its 8.3 entry.
  for (std::size_t i = 0; i < 4; ++i) CHECK(parser.Parse(entry(i), false, info) == fat::TEntryParser::TResult::NoFile);
  CHECK(parser.Parse(entry(4), false, info) == fat::TEntryParser::TResult::File);
  CHECK(info.strName == u"the name that counts.txt");
  // The dots and the end.
  const TImage dots(32, ' ');
  CHECK(parser.Parse(dots, false, info) == fat::TEntryParser::TResult::End);
  CHECK_FALSE(parser.LastWasAllZero());
  CHECK(parser.Parse(TImage(32, 0), false, info) == fat::TEntryParser::TResult::End);
  CHECK(parser.LastWasAllZero());
}

TEST_CASE("times with hundredths and impossible dates") {
  const auto oem = fat::CodePage437();
  fat::TEntryParser parser(oem);
  TFatBuilder fat(TFatShape{});
  fat.PutEntry(0, {"A       TXT", 0x20});
  fat.Image[13] = 150;
  TFileInfo info;
  parser.Parse(std::span(fat.Image).first(32), false, info);
  CHECK(IsoTime(info.TimeStamp.dtCreated) == "2021-05-03T17:20:07.500");
  fat.Put16(24, (41 << 9) | (13 << 5) | 1);
  fat.Put16(16, 0);
  parser.Parse(std::span(fat.Image).first(32), false, info);
  CHECK(info.TimeStamp.dtModified == 0);
  CHECK(info.TimeStamp.dtCreated == 0);
}

TEST_CASE("deleted files are followed through free clusters, wrapping at the end") {
  TFatBuilder fat(TFatShape{});
  fat.PutEntry(fat.RootAt(), {"\xE5"
                              "GAP    BIN",
                              0x20, 5, 1536});
  fat.PutEntry(fat.RootAt() + 32, {"USED    BIN", 0x20, 6, 1024});
  fat.Chain({6, 7});
  fat.Fill(5, Cluster('a'));
  fat.Fill(6, Cluster('X'));
  fat.Fill(7, Cluster('X'));
  fat.Fill(8, Cluster('b'));
  fat.Fill(9, Cluster('c'));
  TFixture t(fat);
  CHECK(t.Data(u"?GAP.BIN") == Cluster('a') + Cluster('b') + Cluster('c'));
  CHECK(t.Data(u"?GAP.BIN", 600, 10) == std::string(10, 'b'));
  CHECK(t.Data(u"USED.BIN") == Cluster('X', 1024));
  TFileFragments fragments;
  GetFileFragments(t.Engine, t.File(u"?GAP.BIN"), fragments);
  REQUIRE(fragments.size() == 2);
  CHECK(fragments[0].SectorCount == 1);
  CHECK(fragments[1].FirstSectorInFile == 1);
  CHECK(fragments[1].SectorCount == 2);

  TFAT& driver = t.Engine.FAT();
  const auto highest = static_cast<std::uint32_t>(fat::ClusterRoom(t.Drive()) + 2);
  CHECK(driver.GetNextRecoveryCluster(t.Drive(), 6) == 7);
  CHECK(driver.GetNextRecoveryCluster(t.Drive(), highest) == 2);
  t.Engine.Recovering = false;  // a preview shows what a recovery writes
  CHECK(driver.GetNextRecoveryCluster(t.Drive(), 5) == 8);
  CHECK(t.Data(u"?GAP.BIN") == Cluster('a') + Cluster('b') + Cluster('c'));
}

TEST_CASE("an unreadable cluster repeats the last good one, so that offsets stay") {
  TFatBuilder fat(TFatShape{});
  fat.PutEntry(fat.RootAt(), {"FILE    BIN", 0x20, 10, 5 * 512 - 100});
  fat.Chain({10, 11, 12, 20, 21});
  char c = 'a';
  for (const std::uint32_t cluster : {10U, 11U, 12U, 20U, 21U}) fat.Fill(cluster, Cluster(c++));
  TFixture t(fat);
  const auto sectorOf = [&](std::uint32_t cluster) { return static_cast<std::int64_t>(fat.ClusterAt(cluster) / 512); };
  t.Source.Device->BadSectors = {sectorOf(11), sectorOf(20)};
  CHECK(t.Data(u"FILE.BIN") == Cluster('a', 1024) + Cluster('c', 1024) + Cluster('e', 412));
  CHECK(t.Data(u"FILE.BIN", 512, 1024) == Cluster('a') + Cluster('c'));
  t.Source.Device->BadSectors.clear();
  t.Engine.Reader().ForgetFaults();
  CHECK(t.Data(u"FILE.BIN", 500, 30) == std::string(12, 'a') + std::string(18, 'b'));
}

TEST_CASE("folders: deleted ones, loops, shared clusters, garbage in a sector") {
  TFatBuilder fat(TFatShape{});
  const std::size_t root = fat.RootAt();
  fat.PutEntry(root, {"DIR        ", 0x10, 5});
  fat.PutEntry(root + 32, {"\xE5"
                           "ELDIR     ",
                           0x10, 8});
  fat.PutEntry(root + 64, {"SELF       ", 0x10, 9});
  fat.PutEntry(root + 96, {"NODIR      ", 0x10, 12});  // no dots there: listed, not walked
  fat.Chain({5, 6});
  fat.Link(6, 5);  // the chain loops
  fat.PutDots(5, 0);
  for (std::size_t i = 2; i < 16; ++i)
    fat.PutEntry(fat.ClusterAt(5) + i * 32, {"F" + std::to_string(10 + i) + "     TXT", 0x20});
  fat.PutEntry(fat.ClusterAt(6), {"IN6     TXT", 0x20});
  fat.PutEntry(fat.ClusterAt(6) + 32, {".          ", 0x20});  // ends its sector only
  fat.PutEntry(fat.ClusterAt(6) + 64, {"HIDDEN  TXT", 0x20});
  fat.PutDots(8, 0);
  fat.PutEntry(fat.ClusterAt(8) + 64, {"INDEL   TXT", 0x20, 40, 3});
  fat.Chain({9});
  fat.PutDots(9, 0);
  fat.PutEntry(fat.ClusterAt(9) + 64, {"ME         ", 0x10, 9});
  fat.Chain({12});
  fat.Fill(12, Cluster('g'));
  TFixture t(fat);
  const std::string walk = t.Walk();
  CHECK(walk.find("DIR/F12.TXT 0") != std::string::npos);
  CHECK(walk.find("DIR/IN6.TXT 0") != std::string::npos);
  CHECK(walk.find("IN6.TXT", walk.find("IN6.TXT") + 1) == std::string::npos);
  CHECK(walk.find("HIDDEN") == std::string::npos);
  CHECK(walk.find("?ELDIR/INDEL.TXT 3 deleted") != std::string::npos);
  CHECK(walk.find("SELF/\n") != std::string::npos);
  CHECK(walk.find("SELF/ME") == std::string::npos);
  CHECK(walk.find("NODIR/\n") != std::string::npos);
}

TEST_CASE("a thousand folders whose chains run into one another cost no more than their clusters") {
  TFatBuilder fat(TFatShape{16, 512, 1, 1, 2, 512, 16384});
  constexpr std::uint32_t shared = 5000;
  constexpr std::uint32_t length = 4000;
  std::vector<std::uint32_t> chain;
  for (std::uint32_t i = 0; i < length; ++i) chain.push_back(shared + i);
  fat.Chain(chain);
  for (std::uint32_t i = 0; i < length; ++i) {
    for (std::size_t e = 0; e < 16; ++e) fat.PutEntry(fat.ClusterAt(shared + i) + e * 32, {"ENTRY   TXT", 0x20});
  }
  for (std::uint32_t i = 0; i < 500; ++i) {
    fat.PutEntry(fat.RootAt() + i * 32, {"D" + std::to_string(1000 + i) + "      ", 0x10, 10 + i});
    fat.PutDots(10 + i, 0);
    for (std::size_t e = 2; e < 16; ++e) fat.PutEntry(fat.ClusterAt(10 + i) + e * 32, {"OWN     TXT", 0x20});
    fat.Link(10 + i, shared);
  }
  TFixture t(fat);
  CHECK(t.Engine.Files().List.size() == 500 + 500 * 14 + length * 16);
}

TEST_CASE("the rest of a folder behind the end of a file that took its cluster") {
  TFatBuilder fat(TFatShape{16, 512, 4, 1, 2, 512, 60000});
  fat.PutEntry(fat.RootAt(), {"TAKER   BIN", 0x20, 48, 4096 + 700});
  fat.Chain({48, 49, 50});
  for (const std::uint32_t cluster : {48U, 49U}) fat.Fill(cluster, std::string(2048, 'x'));
  fat.Fill(50, std::string(700, 'x'));
  // A deleted folder whose place the file has taken claims nothing of the file's chain.
  fat.PutEntry(fat.RootAt() + 32, {"\xE5"
                                   "OLDER     ",
                                   0x10, 48});
  const std::size_t rest = fat.ClusterAt(50) + 2 * 512;
  fat.PutLongEntry(rest, u"survivor of the folder.txt", {"SURVIV~1TXT", 0x20, 60, 5}, true);
  fat.Fill(60, "alive");
  TFixture t(fat);
  CHECK(t.Walk().find("Lost and found/Folder 50/survivor of the folder.txt 5 deleted") != std::string::npos);
  CHECK(t.Data(u"survivor of the folder.txt") == "alive");
  CHECK(t.Data(u"TAKER.BIN") == std::string(4096 + 700, 'x'));
}

TEST_CASE("FAT32: a wiped high half of a deleted folder is found again") {
  TFatBuilder fat(Fat32Shape(140000));
  const std::uint32_t folder = 66000;
  fat.PutEntry(fat.ClusterAt(2), {"\xE5"
                                  "ELDIR     ",
                                  0x10, folder & 0xFFFF});
  fat.PutEntry(fat.ClusterAt(2) + 32, {"KEEP    TXT", 0x20, 0, 0});
  fat.PutDots(folder, 0);
  fat.PutEntry(fat.ClusterAt(folder) + 64, {"\xE5"
                                            "NSIDE  TXT",
                                            0x20, 0, 0});
  TFixture t(fat);
  CHECK(t.Walk().find("?ELDIR/?NSIDE.TXT 0 deleted") != std::string::npos);
  CHECK(t.File(u"?ELDIR").FileInfo.FirstCluster == folder);
}

TEST_CASE("FAT32: candidates for the first cluster of a deleted file") {
  TFatBuilder fat(Fat32Shape(210000));
  const std::size_t root = fat.ClusterAt(2);
  const auto deleted = [&](std::size_t index, const std::string& name, std::uint32_t cluster, std::uint32_t size) {
    fat.PutEntry(root + 32 * index, {name, 0x20, cluster & 0xFFFF, size});
    fat.Image[root + 32 * index] = 0xE5;
  };
  const std::string jpg = "\xFF\xD8\xFF photo";
  SUBCASE("by signature, all that match") {
    deleted(0, "PHOTO   JPG", 1000, 600);
    fat.Link(1000, fat.EndMark());
    fat.Fill(1000 + 65536, jpg);
    fat.Fill(1000 + 2 * 65536, jpg);
    TFixture t(fat);
    t.Engine.FAT().ChangeFileFirstCluster(t.File(u"?HOTO.JPG").FileInfo);
    const TFileInfo& info = t.File(u"?HOTO.JPG").FileInfo;
    REQUIRE(info.FirstClusters.size() == 2);
    CHECK(info.FirstCluster == 1000 + 65536);
    CHECK(t.Data(u"?HOTO.JPG").starts_with(jpg));
  }
  SUBCASE("without one: behind free space or a chain's end, and all free") {
    deleted(0, "TEXT    TXT", 1000, 1024);
    fat.Link(1001, fat.EndMark());        // k = 0: in use
    fat.Link(999 + 65536, 1000 + 65536);  // k = 1: in the middle of a chain
    fat.Link(1000 + 65536, 0);
    fat.Fill(1000 + 2 * 65536, "here it is");  // k = 2: free
    TFixture t(fat);
    CHECK(t.Data(u"?EXT.TXT").starts_with("here it is"));
    CHECK(bool{t.File(u"?EXT.TXT").FileInfo.FirstClustersChanged});
  }
  SUBCASE("whoever keeps high halves is believed; blank space holds no file") {
    deleted(0, "TEXT    TXT", 1000, 300);
    fat.Link(999, 1500);  // in the middle of a chain, so that the rule would go on to k = 1
    fat.Fill(1000, "as found");
    SUBCASE("blank") {}
    SUBCASE("kept") {
      fat.Fill(1000 + 65536, "something else");
      fat.PutEntry(root + 64, {"\xE5"
                               "IGH    TXT",
                               0x20, 70000, 5});
    }
    fat.PutEntry(root + 32, {"KEEP    TXT", 0x20, 0, 0});
    TFixture t(fat);
    CHECK(t.Data(u"?EXT.TXT").starts_with("as found"));
  }
}

TEST_CASE("the end mark of FAT32 comes back as a number outside the table, and is never read") {
  TFatBuilder fat(Fat32Shape(100000));
  fat.PutEntry(fat.ClusterAt(2), {"SHORT   BIN", 0x20, 10, 2000});
  fat.Chain({10, 11});  // 2000 bytes want four clusters
  fat.Fill(10, Cluster('a'));
  fat.Fill(11, Cluster('b'));
  TFixture t(fat);
  CHECK(fat::NextCluster(t.Drive(), 11) == 0x0FFFFFFF);
  CHECK(fat::NextCluster(t.Drive(), 0x0FFFFFFF) == 0);
  const std::string data = t.Data(u"SHORT.BIN");
  CHECK(data.size() == 2000);
  CHECK(data.starts_with(Cluster('a') + Cluster('b')));
  CHECK(t.Engine.FAT().IsClusterBad(t.Drive(), 0x0FFFFFF7));
  CHECK(t.Engine.FAT().IsClusterEOF(t.Drive(), 0x0FFFFFF8));
}

TEST_CASE("a table too large for its volume is not loaded") {
  TFatBuilder fat(TFatShape{});
  TEngine engine;
  const int number = Mount(engine, fat.Image).Number;
  TDriveInfo drive = DriveOf(engine, number);
  TLongWordDynArray table;
  engine.FAT().FillTable(drive, table, 0);
  CHECK(table.size() == static_cast<std::size_t>(fat::ClusterRoom(drive)) + 2);
  FATInfo(drive).FATSize = 0xFFFFFF;
  engine.FAT().FillTable(drive, table, 0);
  CHECK(table.empty());
}

TEST_CASE("partition search: cluster size from two folders, then the waiting ones") {
  // Four sectors a cluster; no boot sector, only folders that name themselves.
  TFatShape shape{16, 512, 4, 1, 2, 512, 60000};
  TFatBuilder fat(shape);
  fat.PutEntry(fat.RootAt(), {"ROOTFILETXT", 0x20, 0, 0});
  for (const std::uint32_t folder : {10U, 30U, 31U}) {
    fat.PutDots(folder, 0);
    fat.PutEntry(fat.ClusterAt(folder) + 64, {"IN" + std::to_string(folder) + "    TXT", 0x20, 0, 0});
  }
  std::fill_n(fat.Image.begin(), 512, std::uint8_t{0});
  TEngine engine;
  const int number = Mount(engine, fat.Image).Number;
  engine.PartRecRunning = true;
  engine.Analysing = true;
  const int sub = engine.Drives().PartRecAddSubdrive(number, TFileSystem::fsFAT16);
  for (const std::uint32_t folder : {10U, 30U, 31U}) {
    const std::size_t at = fat.ClusterAt(folder);
    engine.FAT().PartRecAnalyseSector(std::span(fat.Image).subspan(at, 2048), 0, sub,
                                      static_cast<std::int64_t>(at / 512));
  }
  const TFATInfo& info = FATInfo(DriveOf(engine, sub));
  CHECK(info.SectorsPerCluster == 4);
  CHECK(info.DataFirstSector == static_cast<std::uint32_t>(fat.FirstDataSector));
  CHECK(info.RootDirMaxFiles == 512);
  engine.Files().DoAfterAnalyse(sub);
  const std::string walk = WalkText(engine, sub);
  CHECK(walk.find("ROOTFILE.TXT") != std::string::npos);
  for (const char* name : {"Folder 10/IN10.TXT", "Folder 30/IN30.TXT", "Folder 31/IN31.TXT"}) {
    CHECK_MESSAGE(walk.find(name) != std::string::npos, name);
  }
}

TEST_CASE("partition search: a folder confirms the boot sector that computes its place") {
  TFatShape shape{16, 512, 2, 1, 2, 512, 30000};
  TFatBuilder fat(shape);
  fat.PutEntry(fat.RootAt(), {"ROOTFILETXT", 0x20, 0, 0});
  fat.PutDots(25, 0);
  TImage disk(40000 * 512);
  constexpr std::int64_t start = 777;
  std::copy(fat.Image.begin(), fat.Image.end(), disk.begin() + start * 512);
  TEngine engine;
  const int number = Mount(engine, disk).Number;
  engine.PartRecRunning = true;
  engine.Analysing = true;
  TDriveInfo found = DriveOf(engine, number);
  found.FirstSector = start;
  found.FileSystem = TFileSystem::fsUnknown;
  found.SectorsCount = shape.TotalSectors;
  REQUIRE(engine.FAT().GetDriveInfo(found, false));
  TDriveInfo other = found;
  other.FirstSector = start + 1;  // a candidate whose clusters lie elsewhere
  engine.Drives().PartRecInfo.FoundDrives = {found, other};
  const std::int64_t sector = start + static_cast<std::int64_t>(fat.ClusterAt(25) / 512);
  engine.FAT().PartRecAnalyseForNewDrive(disk, static_cast<std::size_t>(sector) * 512, number, sector);
  REQUIRE(DriveOf(engine, number).SubDrives.size() == 1);
  const int sub = DriveOf(engine, number).SubDrives[0];
  CHECK(DriveOf(engine, sub).FirstSector == start);
  CHECK(engine.Drives().PartRecInfo.FoundDrives.size() == 1);
  CHECK(WalkText(engine, sub).find("ROOTFILE.TXT") != std::string::npos);
}
