// SPDX-License-Identifier: GPL-3.0-or-later
// FAT volumes in the thorough search: never less than their plain analysis, and without a boot sector as
// much as their tables and folders tell.
#include <doctest/doctest.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "analysis/analysis.h"
#include "core/language.h"
#include "fs/fat/fat.h"
#include "fs/fat/fat_layout.h"
#include "support/fat_builder.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

/// What every formatter writes and the builder leaves out: the media byte, in the first entries too.
void PutMedia(TFatBuilder& fat) {
  fat.Image[21] = 0xF8;
  fat.Link(0, fat.EndMark() & ~7U);
  fat.Link(1, fat.EndMark());
}

void WipeBoot(TFatBuilder& fat) {
  std::fill_n(fat.Image.begin(), static_cast<std::size_t>(fat.Shape.Reserved) * 512, std::uint8_t{0});
}

void Scan(TEngine& engine, int number) {
  engine.PartRecSystems = {TPartRecSystem::FAT, TPartRecSystem::NTFS};
  engine.PartRecRunning = true;
  AnalyseDrive(engine, number);
  engine.PartRecRunning = false;
}

/// The lines of all that a drive and its sub-drives hold.
std::multiset<std::string> LinesOf(TEngine& engine, int number) {
  std::string text = WalkText(engine, number);
  for (const int sub : DriveOf(engine, number).SubDrives) text += WalkText(engine, sub);
  std::multiset<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.insert(line);
  return lines;
}

std::multiset<std::string> PlainLines(const TImage& image) {
  TEngine engine;
  const int number = Mount(engine, image).Number;
  AnalyseDrive(engine, number);
  return LinesOf(engine, number);
}

/// A source after a search, and the volume that it found.
struct TSearched {
  TEngine Engine;
  int Number = -1;

  explicit TSearched(TImage image) {
    // The search leaves out a last block that is not full.
    image.resize((image.size() + 512 * 512 - 1) / (512 * 512) * (512 * 512));
    Number = Mount(Engine, std::move(image)).Number;
    Scan(Engine, Number);
  }
  TDriveInfo& Volume() {
    const TIntegerDynArray& subs = DriveOf(Engine, Number).SubDrives;
    return DriveOf(Engine, subs.empty() ? Number : subs.front());
  }
  bool Has(const std::string& line) {
    const auto lines = LinesOf(Engine, Number);
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.starts_with(line); });
  }
};

/// A folder with a file of three clusters that do not lie in a row.
void PutFolder(TFatBuilder& fat, std::size_t entryAt, const std::string& name, std::uint32_t cluster) {
  fat.PutEntry(entryAt, {name + "    ", 0x10, cluster});
  fat.Chain({cluster});
  fat.PutDots(cluster, 0);
  const auto size = static_cast<std::uint32_t>(3 * fat.ClusterSize());
  fat.PutEntry(fat.ClusterAt(cluster) + 64, {"IN" + name.substr(0, 6) + "BIN", 0x20, cluster + 100, size});
  fat.Chain({cluster + 100, cluster + 202, cluster + 104});
  for (const std::uint32_t c : {cluster + 100, cluster + 202, cluster + 104}) {
    fat.Fill(c, std::string(fat.ClusterSize(), static_cast<char>('a' + c % 26)));
  }
}

}  // namespace

TEST_CASE("thorough search: small volumes with a sound boot sector, their deleted folders and fragments") {
  struct TRow {
    TFatShape Shape;
    TFileSystem System;
  };
  for (const TRow& row : {TRow{{12, 512, 1, 1, 2, 224, 2560}, TFileSystem::fsFAT12},  // a floppy
                          TRow{{12, 512, 4, 1, 2, 512, 8192}, TFileSystem::fsFAT12},  // 4 MiB
                          TRow{{16, 512, 1, 1, 2, 512, 16384}, TFileSystem::fsFAT16}}) {
    CAPTURE(row.Shape.TotalSectors);
    TFatBuilder fat(row.Shape);
    PutMedia(fat);
    PutFolder(fat, fat.RootAt(), "PHOTOS  ", 10);
    // A deleted folder of three clusters.
    fat.PutEntry(fat.RootAt() + 32, {"\xE5LDER      ", 0x10, 400});
    fat.PutDots(400, 0);
    const std::size_t perCluster = fat.ClusterSize() / 32;
    for (std::size_t i = 2; i < 3 * perCluster - 3; ++i) {
      const std::size_t at = fat.ClusterAt(400 + static_cast<std::uint32_t>(i / perCluster)) + i % perCluster * 32;
      fat.PutEntry(at, {"\xE5" + std::to_string(100 + i) + "    TXT", 0x20, 600 + static_cast<std::uint32_t>(i), 20});
    }
    // Two rows with the same name and place.
    fat.PutEntry(fat.RootAt() + 64, {"AGAIN   TXT", 0x20, 9, 3});
    fat.PutEntry(fat.RootAt() + 96, {"AGAIN   TXT", 0x20, 9, 30});
    fat.Chain({9});
    TSearched t(fat.Image);
    CHECK(t.Volume().FileSystem == row.System);
    CHECK(t.Volume().GeometrySource == TPlaceSource::Stored);
    const auto plain = PlainLines(fat.Image);
    CHECK(plain.size() > 20);
    CHECK(LinesOf(t.Engine, t.Number) == plain);
  }
}

TEST_CASE("thorough search: the image of a floppy in a file is no volume") {
  TFatBuilder floppy(TFatShape{12, 512, 1, 1, 2, 224, 2560});
  PutMedia(floppy);
  floppy.PutDots(5, 0);
  TFatBuilder fat(TFatShape{16, 512, 4, 1, 2, 512, 40960});
  PutMedia(fat);
  PutFolder(fat, fat.RootAt(), "PHOTOS  ", 10);
  fat.PutEntry(fat.RootAt() + 32, {"FLOPPY  IMG", 0x20, 500, 2560 * 512});
  std::vector<std::uint32_t> chain;
  for (std::uint32_t i = 0; i < 640; ++i) chain.push_back(500 + i);
  fat.Chain(chain);
  std::copy(floppy.Image.begin(), floppy.Image.end(),
            fat.Image.begin() + static_cast<std::ptrdiff_t>(fat.ClusterAt(500)));
  TSearched t(fat.Image);
  CHECK(DriveOf(t.Engine, t.Number).SubDrives.empty());  // the one volume is the drive
  CHECK(LinesOf(t.Engine, t.Number) == PlainLines(fat.Image));
}

TEST_CASE("thorough search: a volume without boot sectors is known by its tables") {
  struct TRow {
    std::string What;
    std::vector<std::uint32_t> Folders;  // their clusters
    std::string Extension;               // of a file of the root that begins like a PNG
    TPlaceSource Source;
  };
  const std::vector<TRow> rows{{"two folders", {10, 700}, "PNG", TPlaceSource::Stored},
                               {"a folder and a picture of the root", {10}, "PNG", TPlaceSource::Stored},
                               {"one picture only", {}, "PNG", TPlaceSource::Estimated},
                               {"nothing but the room that it fills", {}, "TXT", TPlaceSource::Estimated}};
  for (const int width : {16, 32}) {
    for (const int perCluster : {1, 8}) {
      for (const TRow& row : rows) {
        CAPTURE(width);
        CAPTURE(perCluster);
        CAPTURE(row.What);
        TFatBuilder fat(width == 32 ? TFatShape{32, 512, perCluster, 32, 2, 0, 70 * 512 * perCluster}
                                    : TFatShape{16, 512, perCluster, 1, 2, 512, 40 * 512 * perCluster});
        PutMedia(fat);
        fat.PutEntry(fat.RootAt(), {"STICK LABEL", 0x08});
        fat.PutEntry(fat.RootAt() + 32, {"PICTURE " + row.Extension, 0x20, 3000, 20});
        fat.Chain({3000});
        fat.Fill(3000, "\x89PNG\r\n\x1A\n");
        for (std::size_t i = 0; i < row.Folders.size(); ++i) {
          PutFolder(fat, fat.RootAt() + 64 + i * 32, "DIR" + std::to_string(i) + "    ", row.Folders[i]);
        }
        const auto plain = PlainLines(fat.Image);
        WipeBoot(fat);
        TSearched t(fat.Image);
        CHECK(LinesOf(t.Engine, t.Number) == plain);
        CHECK(t.Volume().GeometrySource == row.Source);
        CHECK(t.Volume().VolumeName == u"STICK LABEL");
      }
    }
  }
}

TEST_CASE("thorough search: without tables, two folders are an estimate and a third one confirms it") {
  for (const int folders : {2, 3}) {
    CAPTURE(folders);
    TFatBuilder fat(TFatShape{16, 512, 4, 1, 2, 512, 60000});
    const std::uint32_t clusters[] = {10, 30, 61};
    for (int i = 0; i < folders; ++i) {
      PutFolder(fat, fat.RootAt() + static_cast<std::size_t>(i) * 32, "DIR" + std::to_string(i) + "    ", clusters[i]);
    }
    std::fill_n(fat.Image.begin(), fat.RootAt(), std::uint8_t{0});
    TSearched t(fat.Image);
    CHECK(t.Has("DIR0/INDIR0"));
    CHECK(FATInfo(t.Volume()).SectorsPerCluster == 4);
    CHECK(t.Volume().GeometrySource == (folders == 2 ? TPlaceSource::Estimated : TPlaceSource::Stored));
  }
}

TEST_CASE("thorough search: folders without a volume fill no more rows than they may, and the user is told") {
  constexpr int folders = 40;
  TFatBuilder fat(TFatShape{16, 512, 4, 1, 2, 512, 60000});
  for (int i = 0; i < folders; ++i) {
    PutFolder(fat, fat.RootAt() + static_cast<std::size_t>(i) * 32, "DIR" + std::to_string(i) + "    ",
              static_cast<std::uint32_t>(1000 + 300 * i));
  }
  std::fill_n(fat.Image.begin(), fat.RootAt(), std::uint8_t{0});
  for (const std::int64_t limit : {25, 1000}) {
    TEngine engine;
    int messages = 0;
    engine.OnMessage = [&](const TEngineMessage& m) { messages += m.Id == TText::TooManyUnplaced ? 1 : 0; };
    engine.FAT().MaxUnplacedRows = limit;
    const int number = Mount(engine, fat.Image).Number;
    Scan(engine, number);
    const auto rows = static_cast<std::int64_t>(LinesOf(engine, number).size());
    CHECK((limit == 25) == (messages == 1));
    CHECK(rows <= limit + 4);  // and the drives, "Lost and found"
    CHECK((limit == 25) == (rows < 2 * folders));
  }
}
