// SPDX-License-Identifier: GPL-3.0-or-later
// Lost NTFS volumes: without boot sectors, without the start of their table, one behind the other, with
// old copies of their records, cut off by bad sectors or a stop.
#include <doctest/doctest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/sector_reader.h"
#include "fs/ntfs/ntfs.h"
#include "fs/ntfs/ntfs_traces.h"
#include "support/fat_builder.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;
using namespace brenlow::ntfs;

namespace {

constexpr std::int64_t TableSector = 32;  // of the volume of the tests
constexpr std::int64_t ClusterSectors = 8;

void Put(TImage& image, std::int64_t at, int size, std::uint64_t value) {
  for (int i = 0; i < size; ++i, value >>= 8)
    image[static_cast<std::size_t>(at + i)] = static_cast<std::uint8_t>(value);
}
std::uint64_t Get(const TImage& image, std::int64_t at, int size) {
  std::uint64_t value = 0;
  for (int i = size - 1; i >= 0; --i) value = value << 8 | image[static_cast<std::size_t>(at + i)];
  return value;
}
void WipeSectors(TImage& image, std::int64_t sector, std::int64_t count) {
  std::fill_n(image.begin() + sector * 512, count * 512, std::uint8_t{0});
}

/// Byte of the first attribute of a record that is of a type and not resident.
std::int64_t AttributeAt(const TImage& image, std::int64_t record, std::uint32_t type) {
  std::int64_t at = record + static_cast<std::int64_t>(Get(image, record + 0x14, 2));
  while (Get(image, at, 4) != type || Get(image, at + 8, 1) != 1)
    at += static_cast<std::int64_t>(Get(image, at + 4, 4));
  return at;
}

/// The NTFS volume of the tests, grown to 12 MiB, which a search takes notice of.
TImage Volume() {
  constexpr std::int64_t badClusters = 8;  // the record whose stream is as long as the volume
  TImage image = LoadTestImage("lab-ntfs.img.zst");
  image.resize(12 << 20);
  Put(image, 0x28, 8, image.size() / 512 - 1);
  std::copy_n(image.begin(), 512, image.end() - 512);
  const std::int64_t bad = AttributeAt(image, (TableSector + 2 * badClusters) * 512, AttrData);
  Put(image, bad + 0x18, 8, (image.size() / 512 - 1) / ClusterSectors - 1);
  return image;
}
std::int64_t Sectors(const TImage& image) { return static_cast<std::int64_t>(image.size() / 512); }
std::int64_t MirrorSector(const TImage& image) {
  return static_cast<std::int64_t>(Get(image, 0x38, 8)) * ClusterSectors;
}

TImage WithoutBoot(TImage image) {
  WipeSectors(image, 0, 1);
  WipeSectors(image, Sectors(image) - 1, 1);
  return image;
}
/// Without the first records of the table and all of its mirror.
TImage WithoutRecords(TImage image, std::int64_t records) {
  WipeSectors(image, MirrorSector(image), 8);
  WipeSectors(image, TableSector, records * 2);
  return image;
}

/// A disk of volumes, with room before each of them.
struct TDisk {
  TImage Image;
  std::vector<std::int64_t> Starts;
  TDisk& Add(const TImage& volume, std::int64_t gap) {
    Image.resize(Image.size() + static_cast<std::size_t>(gap) * 512);
    Starts.push_back(Sectors(Image));
    Image.insert(Image.end(), volume.begin(), volume.end());
    return *this;
  }
  TImage Whole() {
    TImage image = Image;
    image.resize((image.size() / 512 + 1500) / 512 * 512 * 512);
    return image;
  }
};

void Scan(TEngine& engine) {
  engine.PartRecSystems = {TPartRecSystem::NTFS};
  engine.PartRecRunning = true;
  AnalyseDrive(engine, 0);
  engine.PartRecRunning = false;
}

/// Lines of files and folders, without the files of the system itself and what lies outside of the tree.
std::set<std::string> Lines(const std::string& walk, bool live = false) {
  std::set<std::string> lines;
  std::istringstream text(walk);
  for (std::string line; std::getline(text, line);) {
    const bool special = line.find("Lost and found") == 0 || line.find("$System data") == 0;
    if (special || line.find("/$Extend") != std::string::npos) continue;
    if (!live || line.find(" deleted") == std::string::npos) lines.insert(line);
  }
  return lines;
}
std::set<std::string> LinesAlone() {
  TEngine engine;
  Mount(engine, Volume());
  AnalyseDrive(engine, 0);
  return Lines(WalkText(engine, 0), true);
}
bool Holds(TEngine& engine, int drive, const std::set<std::string>& wanted) {
  const auto found = Lines(WalkText(engine, drive));
  for (const std::string& line : wanted) {
    if (!found.contains(line)) MESSAGE("not found: " << line);
  }
  return std::includes(found.begin(), found.end(), wanted.begin(), wanted.end());
}

std::vector<std::pair<std::int64_t, std::int64_t>> Places(TEngine& engine, std::vector<int>& subs) {
  std::vector<std::pair<std::int64_t, std::int64_t>> places;
  subs = DriveOf(engine, 0).SubDrives;
  std::sort(subs.begin(), subs.end(),
            [&](int a, int b) { return DriveOf(engine, a).FirstSector < DriveOf(engine, b).FirstSector; });
  for (const int sub : subs) places.emplace_back(DriveOf(engine, sub).FirstSector, DriveOf(engine, sub).SectorsCount);
  return places;
}
using TPlaces = std::vector<std::pair<std::int64_t, std::int64_t>>;

int CountRows(TEngine& engine, TStringView name) {
  int count = 0;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    if (engine.Files().List[i].FileInfo.strName == name) ++count;
  }
  return count;
}

/// All records as before NTFS 3.1, without numbers of their own.
TImage WithoutOwnNumbers(TImage image) {
  for (std::int64_t at = 0; at < static_cast<std::int64_t>(image.size()); at += 512) {
    if (!IsMFT(image, static_cast<std::size_t>(at)) || Get(image, at + 4, 2) != 0x30) continue;
    Put(image, at + 0x2A, 6, Get(image, at + 0x30, 6));
    Put(image, at + 4, 2, 0x2A);
  }
  return image;
}

/// A record of a file in the root without a number of its own, as before NTFS 3.1. Its content stands
/// in the second sector.
TImage OldRecord(const std::u16string& name, const std::string& content) {
  TImage record(1024);
  std::memcpy(record.data(), "FILE", 4);
  Put(record, 0x14, 2, 0x38);
  Put(record, 0x16, 2, 1);
  Put(record, 0x38, 4, AttrFileName);
  Put(record, 0x3C, 4, 0x200);
  Put(record, 0x48, 4, 0x42 + 2 * name.size());
  Put(record, 0x4C, 2, 0x18);
  Put(record, 0x50, 6, 5);
  Put(record, 0x90, 1, name.size());
  Put(record, 0x91, 1, 1);
  for (std::size_t i = 0; i < name.size(); ++i) Put(record, static_cast<std::int64_t>(0x92 + 2 * i), 2, name[i]);
  Put(record, 0x238, 4, AttrData);
  Put(record, 0x23C, 4, 0x80);
  Put(record, 0x248, 4, content.size());
  Put(record, 0x24C, 2, 0x18);
  std::copy(content.begin(), content.end(), record.begin() + 0x250);
  Put(record, 0x2B8, 4, AttrEnd);
  return record;
}
void PutRecord(TImage& image, std::int64_t sector, const TImage& record) {
  std::copy(record.begin(), record.end(), image.begin() + sector * 512);
}

std::u16string Letter(int number) { return std::u16string(1, static_cast<char16_t>(u'a' + number)); }

/// A record of a folder with a number, the index of which lies in one run.
TImage FolderRecord(std::uint64_t number, std::uint64_t blockSize, std::uint64_t lcn, std::uint64_t clusters) {
  TImage record(1024);
  std::memcpy(record.data(), "FILE", 4);
  Put(record, 4, 2, 0x30);
  Put(record, 0x14, 2, 0x38);
  Put(record, 0x16, 2, 3);
  Put(record, 0x1C, 4, 1024);
  Put(record, 0x2C, 4, number);
  Put(record, 0x38, 4, AttrIndexRoot);
  Put(record, 0x3C, 4, 0x40);
  Put(record, 0x48, 4, 0x20);
  Put(record, 0x4C, 2, 0x18);
  Put(record, 0x50, 4, AttrFileName);
  Put(record, 0x58, 4, blockSize);
  Put(record, 0x78, 4, AttrIndexAllocation);
  Put(record, 0x7C, 4, 0x60);
  Put(record, 0x80, 1, 1);
  Put(record, 0x81, 1, 4);
  Put(record, 0x82, 2, 0x40);
  Put(record, 0x90, 8, clusters - 1);
  Put(record, 0x98, 2, 0x48);
  const std::u16string name = u"$I30";
  for (std::size_t i = 0; i < name.size(); ++i) Put(record, static_cast<std::int64_t>(0xB8 + 2 * i), 2, name[i]);
  Put(record, 0xC0, 1, 0x44);
  Put(record, 0xC1, 4, clusters);
  Put(record, 0xC5, 4, lcn);
  Put(record, 0xD8, 4, AttrEnd);
  return record;
}
TImage IndexBlock(std::uint64_t folder, std::uint64_t vcn) {
  TImage block(512);
  std::memcpy(block.data(), "INDX", 4);
  Put(block, 0x10, 8, vcn);
  Put(block, 0x18, 4, 0x28);
  Put(block, 0x40 + 0x0A, 2, 0x42 + 2);
  Put(block, 0x40 + 0x10, 6, folder);
  Put(block, 0x40 + 0x50, 1, 1);
  return block;
}

}  // namespace

TEST_CASE("geometry by vote: folders and their index blocks give start and cluster size, whatever these are") {
  for (const std::int64_t perCluster : {1, 2, 8, 128, 4096}) {
    CAPTURE(perCluster);
    TSearchTraces traces;
    const std::int64_t start = 54321;
    const std::int64_t inBlock = 8;  // sectors
    for (std::uint64_t folder = 40; folder < 44; ++folder) {
      const std::uint64_t lcn = 1000 + folder * folder;
      const std::uint64_t clusters = static_cast<std::uint64_t>(std::max<std::int64_t>(16 / perCluster, 1));
      traces.NoteSector(FolderRecord(folder, 4096, lcn, clusters), start + 100 + static_cast<std::int64_t>(folder) * 2,
                        512);
      // The second block of the index: counted in clusters, or in units of 512 bytes.
      const std::uint64_t vcn = static_cast<std::uint64_t>(perCluster <= inBlock ? inBlock / perCluster : inBlock);
      const std::int64_t first = start + static_cast<std::int64_t>(lcn) * perCluster;
      traces.NoteSector(IndexBlock(folder, 0), first, 512);
      if (perCluster != 4096) traces.NoteSector(IndexBlock(folder, vcn), first + inBlock, 512);
      // Copies elsewhere, and blocks of folders that are not there.
      traces.NoteSector(IndexBlock(folder, 0), 9'000'000 + static_cast<std::int64_t>(folder * 1001), 512);
      traces.NoteSector(IndexBlock(folder + 100, 0), first + 100, 512);
    }
    const std::vector<TGeometry> volumes = traces.Volumes({}, 0, 512);
    REQUIRE(volumes.size() == 1);
    CHECK(volumes[0].FirstSector == start);
    CHECK(volumes[0].SectorsPerCluster == perCluster);
    CHECK(volumes[0].Votes >= 4);
    // Known, or inside of what is known, it is nothing new.
    const TGeometry same{start, static_cast<int>(perCluster), 0, 100, 0};
    CHECK(traces.Volumes(std::span(&same, 1), 0, 512).empty());
    const TGeometry around{start - 10, 8, 0, 100'000'000, 0};
    CHECK(traces.Volumes(std::span(&around, 1), 0, 512).empty());
  }
}

TEST_CASE("geometry by vote: hostile numbers of traces end soon") {
  TSearchTraces traces;
  TImage folder = FolderRecord(5, 4096, 7, 3);
  TImage block = IndexBlock(5, 0);
  for (std::int64_t i = 0; i < 400'000; ++i) {
    Put(folder, 0x2C, 4, static_cast<std::uint64_t>(i % 3 == 0 ? 5 : i));
    Put(block, 0x50, 6, static_cast<std::uint64_t>(i % 3 == 0 ? 5 : i));
    traces.NoteSector(folder, 1'000'000 + i * 7, 512);
    traces.NoteSector(block, 5'000'000 + i * 13, 512);
  }
  CHECK(traces.Volumes({}, 0, 512).size() <= 64);
  CHECK(traces.Table(0, INT64_MAX / 2).size() <= 1U << 20);
}

TEST_CASE("volumes without boot sectors and without the start of their tables: each file with its content") {
  const auto alone = LinesAlone();
  REQUIRE(alone.size() > 60);
  for (const std::int64_t lost : {0, 28}) {
    CAPTURE(lost);
    TImage one = Volume();
    if (lost > 0) one = WithoutRecords(one, lost);
    one = WithoutBoot(one);
    TDisk disk;
    disk.Add(one, 63).Add(one, lost > 0 ? 1001 : 1000);
    TEngine engine;
    Mount(engine, disk.Whole());
    Scan(engine);
    std::vector<int> subs;
    const auto places = Places(engine, subs);
    REQUIRE(places.size() == 2);
    for (std::size_t i = 0; i < 2; ++i) {
      CHECK(places[i].first == disk.Starts[i]);
      if (lost == 0) CHECK(places[i].second == (Sectors(one) - 1) / ClusterSectors * ClusterSectors);
      CHECK(NTFSInfo(DriveOf(engine, subs[i])).SectorsPerCluster == 8);
      CHECK(DriveOf(engine, subs[i]).GeometrySource == TPlaceSource::FromCopy);
      CHECK(Holds(engine, subs[i], alone));
    }
  }
}

TEST_CASE("a single folder speaks for a volume: its files come, marked as placed by estimate") {
  TImage image(12 << 20);
  const std::string content(6000, 'x');
  const std::int64_t data = 800;  // cluster
  std::copy(content.begin(), content.end(), image.begin() + data * 4096);
  PutRecord(image, 200, FolderRecord(40, 4096, 900, 1));
  PutRecord(image, 900 * 8, IndexBlock(40, 0));
  TImage file = OldRecord(u"placed.txt", "");
  Put(file, 0x240, 1, 1);  // not resident: two clusters
  Put(file, 0x250, 8, 1);
  Put(file, 0x258, 2, 0x40);
  Put(file, 0x268, 8, content.size());
  Put(file, 0x270, 8, content.size());
  Put(file, 0x248, 8, 0);
  Put(file, 0x278, 1, 0x21);
  Put(file, 0x279, 1, 2);
  Put(file, 0x27A, 2, static_cast<std::uint64_t>(data));
  PutRecord(image, 204, file);
  PutRecord(image, 206, OldRecord(u"inside.txt", "some words"));
  TEngine engine;
  Mount(engine, image);
  Scan(engine);
  int seen = 0;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    TFile& row = engine.Files().List[i];
    if (row.FileInfo.blnFolder) continue;
    ++seen;
    TByteDynArray bytes;
    GetFileData(engine, bytes, row, -1, 0, 10'000);
    const bool resident = row.FileInfo.strName == u"inside.txt";
    CHECK(std::string(bytes.begin(), bytes.end()) == (resident ? "some words" : content));
    CHECK(PlaceOf(engine, row) == (resident ? TPlaceSource::Stored : TPlaceSource::Estimated));
  }
  CHECK(seen == 2);
}

TEST_CASE("a boot sector is confirmed without record 0, and without any of the system's records") {
  const auto alone = LinesAlone();
  for (const std::int64_t lost : {1, 28}) {
    CAPTURE(lost);
    TDisk disk;
    disk.Add(WithoutRecords(Volume(), lost), 63);
    TEngine engine;
    Mount(engine, disk.Whole());
    if (lost == 1) {
      engine.Drives().Find(0, 0, DriveOf(engine, 0).SectorsCount, {});
      CHECK(engine.Drives().FoundCount == 1);
    }
    Scan(engine);
    std::vector<int> subs;
    CHECK(Places(engine, subs) == TPlaces{{63, Sectors(Volume()) - 1}});
    REQUIRE(subs.size() == 1);
    CHECK(Holds(engine, subs[0], alone));
  }
}

TEST_CASE("volumes one right behind the other are both found, with their exact sizes") {
  const TImage one = Volume();
  TDisk disk;
  disk.Add(one, 2048).Add(one, 0);
  TImage image = disk.Whole();
  PutTable(image, 0, {{0x07, 2048, static_cast<std::uint32_t>(Sectors(one))}});
  const std::pair<std::int64_t, std::int64_t> second{disk.Starts[1], Sectors(one) - 1};
  TEngine quick;
  Mount(quick, image);
  TPlaces found;
  quick.Drives().OnFound = [&](int number) {
    found.emplace_back(DriveOf(quick, number).FirstSector, DriveOf(quick, number).SectorsCount);
  };
  quick.Drives().Find(0, 0, DriveOf(quick, 0).SectorsCount, {TFileSystem::fsNTFS});
  CHECK(quick.Drives().FoundCount == 1);
  CHECK(std::count(found.begin(), found.end(), second) >= 1);

  TEngine thorough;
  Mount(thorough, image);
  Scan(thorough);
  std::vector<int> subs;
  CHECK(Places(thorough, subs) == TPlaces{{2048, Sectors(one)}, second});
}

TEST_CASE(
    "the table of a confirmed volume is entered once, in pieces too; copies of records beside it add nothing live") {
  // The table's second half moves to the end of the volume.
  TImage image = Volume();
  constexpr std::int64_t keptClusters = 20;
  constexpr std::int64_t movedTo = 2000;  // cluster
  const std::int64_t table = TableSector * 512;
  const auto pieceAt = table + keptClusters * 4096;
  const std::int64_t tableBytes = 60 * 4096;
  std::copy(image.begin() + pieceAt, image.begin() + table + tableBytes, image.begin() + movedTo * 4096);
  std::fill(image.begin() + pieceAt, image.begin() + table + tableBytes, std::uint8_t{0});
  for (const std::int64_t record : {table, MirrorSector(image) * 512}) {
    const std::int64_t at = AttributeAt(image, record, AttrData);
    const std::int64_t clusters = static_cast<std::int64_t>(Get(image, at + 0x18, 8)) + 1;
    REQUIRE(clusters > keptClusters);
    const std::int64_t runs = at + static_cast<std::int64_t>(Get(image, at + 0x20, 2));
    Put(image, runs, 1, 0x11);
    Put(image, runs + 1, 1, keptClusters);
    Put(image, runs + 2, 1, TableSector / ClusterSectors);
    Put(image, runs + 3, 1, 0x21);
    Put(image, runs + 4, 1, static_cast<std::uint64_t>(clusters - keptClusters));
    Put(image, runs + 5, 2, movedTo - TableSector / ClusterSectors);
    Put(image, runs + 7, 1, 0);
  }
  // Old copies, as a shadow copy keeps them: of records, and one of a file that had another name then.
  TImage copied = image;
  std::copy_n(image.begin() + table + 0x6000, 0x8000, copied.begin() + 2500 * 4096);
  std::copy_n(image.begin() + movedTo * 4096, 0x8000, copied.begin() + 2600 * 4096);

  const auto rowsOf = [](TEngine& engine, int drive, bool live) {
    std::multiset<std::string> rows;
    std::istringstream text(WalkText(engine, drive));
    for (std::string line; std::getline(text, line);) {
      if (!live || line.find(" deleted") == std::string::npos) rows.insert(line);
    }
    return rows;
  };
  for (const bool boot : {true, false}) {
    for (const TImage& volume : {image, copied, WithoutOwnNumbers(image)}) {
      if (!boot && OwnNumber(std::span(volume).subspan(TableSector * 512)) < 0) continue;
      CAPTURE(boot);
      TEngine alone;
      Mount(alone, volume);
      AnalyseDrive(alone, 0);
      const auto expected = rowsOf(alone, 0, true);
      REQUIRE(expected.size() > 100);
      TDisk disk;
      disk.Add(boot ? volume : WithoutBoot(volume), 63);
      TEngine engine;
      Mount(engine, disk.Whole());
      Scan(engine);
      REQUIRE(DriveOf(engine, 0).SubDrives.size() == 1);
      auto found = rowsOf(engine, DriveOf(engine, 0).SubDrives.front(), true);
      auto wanted = expected;
      const auto dropBoot = [](std::multiset<std::string>& rows) {
        std::erase_if(rows, [](const std::string& row) { return row.find("$System data/$Boot") == 0; });
      };
      dropBoot(found);
      dropBoot(wanted);
      for (const std::string& row : found) {
        if (found.count(row) > wanted.count(row)) MESSAGE("too often: " << row);
      }
      CHECK(found == wanted);
    }
  }
}

TEST_CASE("an unreadable boot sector: the copy serves, inside the stated size and behind it") {
  const auto alone = LinesAlone();
  const TImage one = Volume();
  for (const std::int64_t stated : {Sectors(one), Sectors(one) - 1}) {
    CAPTURE(stated);
    TDisk disk;
    disk.Add(one, 2048);
    TImage image = disk.Whole();
    PutTable(image, 0, {{0x07, 2048, static_cast<std::uint32_t>(stated)}});
    TEngine engine;
    const TMounted source = Mount(engine, image);
    source.Device->BadSectors = {2048};
    Scan(engine);
    std::vector<int> subs;
    CHECK(Places(engine, subs) == TPlaces{{2048, stated}});
    REQUIRE(subs.size() == 1);
    CHECK(Holds(engine, subs[0], alone));
  }
  // The end test of the reader looks at failures beyond the end only, of that very drive.
  TImage noOldCopy = one;
  WipeSectors(noOldCopy, 12287, 1);  // of the time when the volume was half as long
  TEngine engine;
  const TMounted source = Mount(engine, noOldCopy);
  source.Device->BadSectors = {0};
  TDriveInfo volume = DriveOf(engine, 0);
  NTFSInfo(volume) = TNTFSInfo();
  volume.SectorsCount = Sectors(one) - 1;
  CHECK(engine.NTFS().GetDriveInfo(volume, false, true));
  source.Device->BadSectors = {Sectors(one) - 1};
  TByteDynArray sector(512);
  CHECK(engine.Reader().ReadDriveSectors(volume, sector.data(), Sectors(one) - 1, 1) == 0);
  volume.Drive = u"/other.img";
  engine.Devices().Insert(u"/other.img", std::make_unique<TMemoryDevice>(one));
  CHECK(engine.Reader().ReadDriveSectors(volume, sector.data(), Sectors(one) - 1, 1) == 512);
}

TEST_CASE("rows that wait for a number survive a known partition and a stop") {
  TImage image(40 << 20);
  for (int i = 0; i < 20; ++i) PutRecord(image, 100 + 2 * i, OldRecord(u"waits" + Letter(i), "text"));
  PutTable(image, 0, {{0x07, 20000, 30000}});
  for (const bool stops : {false, true}) {
    CAPTURE(stops);
    TEngine engine;
    const TMounted source = Mount(engine, image);
    if (stops) {
      source.Device->OnRead = [&] {
        if (engine.PartRecRunning && engine.Files().FoundCount >= 20) engine.Analysing = false;
      };
    }
    Scan(engine);
    CHECK((DriveOf(engine, 0).DeepAnalysed == TAnalyseInformation::aiFull) == !stops);
    for (int i = 0; i < 20; ++i) CHECK(CountRows(engine, u"waits" + Letter(i)) == 1);
  }
}

TEST_CASE(
    "a record across the end of a block is read whole; a stop leaves candidates with the geometry found by then") {
  TImage image(12 << 20);
  const std::string content = "the words in the second sector";
  PutRecord(image, 511, OldRecord(u"across.txt", content));
  TEngine engine;
  Mount(engine, image);
  Scan(engine);
  REQUIRE(CountRows(engine, u"across.txt") == 1);
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    TFile& row = engine.Files().List[i];
    if (row.FileInfo.strName != u"across.txt") continue;
    CHECK(row.FileInfo.aSize == static_cast<std::int64_t>(content.size()));
  }

  const auto alone = LinesAlone();
  TDisk disk;
  disk.Add(WithoutBoot(WithoutRecords(Volume(), 28)), 63);
  TEngine stopped;
  const TMounted source = Mount(stopped, disk.Whole());
  int blocks = 0;
  source.Device->OnRead = [&] {
    if (stopped.PartRecRunning && ++blocks > 20) stopped.Analysing = false;
  };
  Scan(stopped);
  source.Device->OnRead = nullptr;
  REQUIRE(DriveOf(stopped, 0).SubDrives.size() == 1);
  CHECK(DriveOf(stopped, 0).DeepAnalysed == TAnalyseInformation::aiPartial);
  CHECK(Holds(stopped, DriveOf(stopped, 0).SubDrives.front(), alone));
}
