// SPDX-License-Identifier: GPL-3.0-or-later
// Whole volumes written by real implementations: contents, damage, partition searches, specimens of other origin.
#include <doctest/doctest.h>

#include <algorithm>
#include <sstream>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "fs/driver_contract.h"
#include "support/truth.h"
#include "table/files.h"
#include "volume_builder.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

constexpr std::size_t Sector = 512;

TImage Lab() { return LoadTestImage("lab-exfat.img.zst"); }

void Wipe(TImage& image, std::size_t sector, std::size_t count) {
  std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(sector * Sector), count * Sector, std::uint8_t{0});
}

/// A disk with the volume at a place where no partition begins, and room after it.
TImage DiskWith(const TImage& volume, std::size_t sector) {
  TImage disk(24 << 20);
  std::copy(volume.begin(), volume.end(), disk.begin() + static_cast<std::ptrdiff_t>(sector * Sector));
  return disk;
}

/// A volume of more than 10 MiB with folders in folders, and files whose content is their name.
TImage Tree() {
  TExFatBuilder volume(8, 3000);
  std::uint32_t free = 10;
  const auto fill = [&](const std::string& text) {
    std::copy(text.begin(), text.end(), volume.Image.begin() + static_cast<std::ptrdiff_t>(volume.At(free)));
    volume.Use(free);
    return free++;
  };
  for (int i = 0; i < 6; ++i) {
    const std::string name = "folder " + std::to_string(i);
    const std::uint32_t folder = free++;
    const std::uint32_t inner = free++;
    free += static_cast<std::uint32_t>(i % 3);
    volume.Use(folder);
    volume.Use(inner);
    volume.AddToRoot({.Name = name, .Cluster = folder, .Size = 4096, .Folder = true});
    std::size_t at = volume.At(folder);
    for (int j = 0; j < 3; ++j) {
      const std::string file = name + "-" + std::to_string(j);
      at = volume.PutSet(at, {.Name = file, .Cluster = fill(file), .Size = file.size()});
    }
    at = volume.PutSet(at, {.Name = "inner", .Cluster = inner, .Size = 4096, .Folder = true});
    const std::string file = name + " inner";
    volume.PutSet(volume.At(inner), {.Name = file, .Cluster = fill(file), .Size = file.size()});
  }
  return volume.Image;
}

std::string LinesOf(TEngine& engine, int number) {
  std::string text = WalkText(engine, number);
  for (const int sub : DriveOf(engine, number).SubDrives) text += WalkText(engine, sub);
  return text;
}

std::string Searched(const TImage& disk) {
  TEngine engine;
  const int number = Mount(engine, disk).Number;
  engine.PartRecSystems = {TPartRecSystem::FAT, TPartRecSystem::exFAT, TPartRecSystem::NTFS};
  engine.PartRecRunning = true;
  AnalyseDrive(engine, number);
  engine.PartRecRunning = false;
  return LinesOf(engine, number);
}

/// How many lines of `expected` stand in the text.
int CountLines(const std::string& expected, const std::string& text) {
  std::istringstream in(expected);
  int found = 0;
  for (std::string line; std::getline(in, line);) found += text.find(line + "\n") != std::string::npos ? 1 : 0;
  return found;
}

int LinesIn(const std::string& text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

}  // namespace

TEST_CASE("exFAT keeps the driver contract") { CheckDriverContract({Lab(), TFileSystem::fsExFAT}); }

TEST_CASE("a volume used through the kernel's driver gives back every live and every referenced deleted file") {
  const auto truth = LoadTruth("lab-exfat.truth.tsv");
  const TImage image = Lab();
  const std::string walk = Walk(image);
  CHECK(CountFound(truth, walk, true) == Count(truth, true));
  CHECK(CountFound(truth, walk, false) == Count(truth, false));
  // What is neither doubtful nor overwritten is what was written; checksums of sets fit as the kernel computes them.
  TAnalysed drive(image);
  const TFileArray& list = drive.Engine.Files().List;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (!list[i].FileInfo.blnDeleted) CHECK(PlaceOf(drive.Engine, list[i]) == TPlaceSource::Stored);
  }
}

TEST_CASE("a volume is found wherever it lies, with its boot sector, by the copy and without either") {
  const TImage volume = Tree();
  const std::string expected = Walk(volume);
  REQUIRE(LinesIn(expected) == 36);
  for (const std::size_t place : {std::size_t{2048}, std::size_t{5003}}) {
    CAPTURE(place);
    TImage disk = DiskWith(volume, place);
    CHECK(CountLines(expected, Searched(disk)) == 36);
    Wipe(disk, place, 12);
    CHECK(CountLines(expected, Searched(disk)) == 36);
    Wipe(disk, place + 12, 12);
    CHECK(CountLines(expected, Searched(disk)) == 36);
    // Without the root, too: folders vote for the geometry, and only the names of the first level are gone.
    const std::size_t root = place + (volume[0x58] | volume[0x59] << 8) + 16;
    Wipe(disk, root - 16, 24);
    const std::string found = Searched(disk);
    CHECK(found.find("inner/folder 5 inner 14 ") != std::string::npos);
    CHECK(found.find("/folder 3-2 10 ") != std::string::npos);
  }
}

TEST_CASE("the quick search finds a volume once, by its boot sector or the copy") {
  for (const bool wiped : {false, true}) {
    CAPTURE(wiped);
    TImage disk = DiskWith(Tree(), 5003);
    if (wiped) Wipe(disk, 5003, 12);
    TEngine engine;
    const int number = Mount(engine, disk).Number;
    engine.Drives().Find(number, 0, static_cast<std::int64_t>(disk.size() / Sector), {});
    REQUIRE(DriveOf(engine, number).SubDrives.size() == 1);
    const TDriveInfo& found = DriveOf(engine, DriveOf(engine, number).SubDrives[0]);
    CHECK(found.FileSystem == TFileSystem::fsExFAT);
    CHECK(found.FirstSector == 5003);
  }
}

TEST_CASE("a quick format leaves the folders: they come back under lost and found, and no guess is called whole") {
  TImage image = Lab();
  const auto field = [&](std::size_t at) { return std::size_t{image[at]} | std::size_t{image[at + 1]} << 8; };
  const std::size_t heap = field(0x58);
  const std::size_t root = heap + ((field(0x60) - 2) << image[0x6D]);
  const auto truth = LoadTruth("lab-exfat.truth.tsv");
  Wipe(image, field(0x50), field(0x54));
  Wipe(image, heap, std::size_t{1} << image[0x6D]);
  Wipe(image, root, std::size_t{1} << image[0x6D]);
  TAnalysed drive(image);
  const std::string walk = WalkText(drive.Engine, drive.Number);
  int inFolders = 0;
  int back = 0;
  for (const TTruthLine& line : truth) {
    if (!line.Live || line.Path.find('/') == std::string::npos) continue;
    ++inFolders;
    const std::string crc = line.Text.substr(line.Text.rfind(' '));
    if (walk.find(line.Path.substr(line.Path.rfind('/'))) != std::string::npos && walk.find(crc) != std::string::npos)
      ++back;
  }
  CHECK(back >= inFolders * 85 / 100);
}

TEST_CASE("specimens of exFAT read as their truth says, damaged ones as far as they are sound") {
  const struct {
    const char* File;
    const char* Expected;  // must stand in the walk
  } rows[] = {
      {"exfat/dissect.raw.zst", "directory/putty.exe 454657 "},
      {"exfat/windows.raw.zst", "598/99.bin 2 "},
      {"exfat/orphan.raw.zst", "/399.txt 0 deleted"},
      {"exfat/damaged-bad_dentries.raw.zst", "fe_count_more/file_01 0 "},
      {"exfat/damaged-bad_root.raw.zst", "temp78 0 "},
      {"exfat/damaged-loop_chain.raw.zst", "dir_01/child_05 8192 "},
      {"exfat/damaged-unused-dentries.raw.zst", "dir6/file9 0 deleted"},
  };
  for (const auto& row : rows) {
    const auto image = LoadSpecimen(row.File);
    if (!image) continue;
    CAPTURE(std::string(row.File));
    CHECK(Walk(*image).find(row.Expected) != std::string::npos);
  }
}
