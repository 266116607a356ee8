// SPDX-License-Identifier: GPL-3.0-or-later
// Lost partitions: the quick search by boot sectors and the thorough one in one pass.
#include <doctest/doctest.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "analysis/analysis.h"
#include "support/fat_builder.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

constexpr std::int64_t StickAt = 63;  // no border of anything
constexpr std::int64_t Gap = 1001;

void PutBytes(TImage& image, std::size_t at, std::uint64_t value, int size) {
  for (int i = 0; i < size; ++i, value >>= 8)
    image[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value);
}

TImage Stick() { return LoadTestImage("demo-stick.img.zst"); }

/// The NTFS volume of the tests, grown to 12 MiB, which a search takes notice of.
TImage Ntfs() {
  TImage image = LoadTestImage("lab-ntfs.img.zst");
  image.resize(12 << 20);
  PutBytes(image, 0x28, image.size() / 512 - 1, 8);
  std::copy_n(image.begin(), 512, image.end() - 512);
  return image;
}

/// A disk without a table: the FAT32 stick, a gap, the NTFS volume, and some room.
struct TDisk {
  TImage Image;
  std::int64_t StickSectors = 0;
  std::int64_t NtfsAt = 0;
  std::int64_t NtfsSectors = 0;

  TDisk() : Image(StickAt * 512) {
    const TImage stick = Stick();
    const TImage ntfs = Ntfs();
    StickSectors = static_cast<std::int64_t>(stick.size() / 512);
    Image.insert(Image.end(), stick.begin(), stick.end());
    Image.resize(Image.size() + Gap * 512);
    NtfsAt = static_cast<std::int64_t>(Image.size() / 512);
    NtfsSectors = static_cast<std::int64_t>(ntfs.size() / 512);
    Image.insert(Image.end(), ntfs.begin(), ntfs.end());
    Image.resize((Image.size() / 512 + 2000) / 512 * 512 * 512);
  }
  void Wipe(std::int64_t sector) { std::fill_n(Image.begin() + sector * 512, 512, std::uint8_t{0}); }
  void WipeBootSectors() {
    Wipe(StickAt);
    Wipe(NtfsAt);
  }
};

using TFound = std::vector<std::string>;

std::string Place(const TDriveInfo& drive) {
  return std::string(TDrives::GetSystemNameBySystem(drive.FileSystem).size() == 4 ? "NTFS " : "FAT32 ") +
         std::to_string(drive.FirstSector) + "+" + std::to_string(drive.SectorsCount);
}

TFound FindIn(TEngine& engine, std::int64_t first, std::int64_t count, const TFileSystems& systems = {}) {
  TFound found;
  engine.Drives().OnFound = [&](int number) {
    const std::string place = Place(DriveOf(engine, number));
    if (std::find(found.begin(), found.end(), place) == found.end()) found.push_back(place);
  };
  engine.Drives().Find(0, first, count, systems);
  std::sort(found.begin(), found.end());
  return found;
}

void Scan(TEngine& engine, TPartRecSystems systems = {TPartRecSystem::FAT, TPartRecSystem::NTFS}) {
  engine.PartRecSystems = systems;
  engine.PartRecRunning = true;
  AnalyseDrive(engine, 0);
  engine.PartRecRunning = false;
}

TFound SubDrives(TEngine& engine) {
  TFound found;
  for (const int sub : DriveOf(engine, 0).SubDrives) found.push_back(Place(DriveOf(engine, sub)));
  std::sort(found.begin(), found.end());
  return found;
}

/// What a volume gives when it is analysed alone, without what only a search through free space finds.
std::set<std::string> Lines(const std::string& walk) {
  std::set<std::string> lines;
  std::istringstream text(walk);
  for (std::string line; std::getline(text, line);) {
    // Nor the content of the boot sectors, which the tests wipe.
    const bool special = line.find("Lost and found") == 0 || line.find("$System data/$Boot") == 0;
    if (!special) lines.insert(line);
  }
  return lines;
}
std::set<std::string> LinesAlone(TImage volume) {
  TEngine engine;
  Mount(engine, std::move(volume));
  AnalyseDrive(engine, 0);
  return Lines(WalkText(engine, 0));
}

int SubOf(TEngine& engine, TFileSystem system) {
  for (const int sub : DriveOf(engine, 0).SubDrives) {
    if (DriveOf(engine, sub).FileSystem == system) return sub;
  }
  return -1;
}

}  // namespace

TEST_CASE("quick search: volumes off any grid, also by the copies of their boot sectors, each once") {
  for (const bool wiped : {false, true}) {
    CAPTURE(wiped);
    TDisk disk;
    if (wiped) disk.WipeBootSectors();
    TEngine engine;
    REQUIRE(Mount(engine, disk.Image).Number == 0);
    const std::int64_t all = DriveOf(engine, 0).SectorsCount;
    const TFound both = {"FAT32 63+" + std::to_string(disk.StickSectors),
                         "NTFS " + std::to_string(disk.NtfsAt) + "+" + std::to_string(disk.NtfsSectors - 1)};
    CHECK(FindIn(engine, 0, 0).empty());
    CHECK(FindIn(engine, 0, all, {TFileSystem::fsNTFS}) == TFound{both[1]});
    CHECK(engine.Drives().FoundCount == 1);
    CHECK(FindIn(engine, 0, all) == both);
    CHECK(engine.Drives().FoundCount == 1);  // the other one was known
    const std::size_t drives = engine.Drives().List.size();
    CHECK(FindIn(engine, 100, all - 100) == TFound{both[1]});
    CHECK(engine.Drives().List.size() == drives);
    CHECK_FALSE(engine.Drives().CanSearch);

    // A found volume is a drive like any other.
    const int number = static_cast<int>(drives) - 1;
    CHECK(engine.Drives().CanCloseDisk(number));
    AnalyseDrive(engine, number);
    const auto alone = LinesAlone(Stick());
    const auto found = Lines(WalkText(engine, number));
    CHECK(std::includes(found.begin(), found.end(), alone.begin(), alone.end()));
  }
}

TEST_CASE("quick search: what is no volume is not listed, and clearing the flag stops it") {
  // Too small; longer than the disk; a boot sector inside a volume with nothing behind it.
  TImage image(64 << 20);
  TFatShape shape;
  shape.TotalSectors = 20000;
  const TFatBuilder small(shape);
  std::copy(small.Image.begin(), small.Image.end(), image.begin() + 1000 * 512);
  const TImage stick = Stick();
  std::copy_n(stick.begin(), 40 * 512, image.end() - (1 << 20));
  TEngine engine;
  Mount(engine, image);
  CHECK(FindIn(engine, 0, DriveOf(engine, 0).SectorsCount).empty());

  TDisk disk;
  std::copy_n(disk.Image.begin() + StickAt * 512, 512, disk.Image.begin() + (StickAt + 20000) * 512);
  TEngine other;
  Mount(other, disk.Image);
  CHECK(FindIn(other, 0, DriveOf(other, 0).SectorsCount).size() == 2);

  TEngine stopped;
  Mount(stopped, disk.Image);
  stopped.Drives().OnFound = [&](int) { stopped.Drives().CanSearch = false; };
  stopped.Drives().Find(0, 0, DriveOf(stopped, 0).SectorsCount, {});
  CHECK(stopped.Drives().FoundCount == 1);
}

TEST_CASE("thorough search: both volumes with their files, with and without boot sectors") {
  const auto stick = LinesAlone(Stick());
  const auto ntfs = LinesAlone(Ntfs());
  for (const bool wiped : {false, true}) {
    CAPTURE(wiped);
    TDisk disk;
    if (wiped) disk.WipeBootSectors();
    TEngine engine;
    Mount(engine, disk.Image);
    Scan(engine);
    CHECK(SubDrives(engine) ==
          TFound{"FAT32 63+" + std::to_string(disk.StickSectors),
                 "NTFS " + std::to_string(disk.NtfsAt) + "+" + std::to_string(disk.NtfsSectors - 1)});
    REQUIRE(DriveOf(engine, 0).SubDrives.size() == 2);
    CHECK(DriveOf(engine, 0).DeepAnalysed == TAnalyseInformation::aiFull);
    const auto foundStick = Lines(WalkText(engine, SubOf(engine, TFileSystem::fsFAT32)));
    const auto foundNtfs = Lines(WalkText(engine, SubOf(engine, TFileSystem::fsNTFS)));
    CHECK(std::includes(foundStick.begin(), foundStick.end(), stick.begin(), stick.end()));
    CHECK(std::includes(foundNtfs.begin(), foundNtfs.end(), ntfs.begin(), ntfs.end()));
  }
}

TEST_CASE("thorough search: files of a volume without any boot sector come from their records") {
  TDisk disk;
  disk.WipeBootSectors();
  disk.Wipe(disk.NtfsAt + disk.NtfsSectors - 1);
  disk.Wipe(StickAt + 6);
  TEngine engine;
  Mount(engine, disk.Image);
  Scan(engine);
  const auto namesOf = [](TEngine& of) {
    std::set<TString> names;
    for (std::size_t i = 0; i < of.Files().List.size(); ++i) {
      const TFileInfo& info = of.Files().List[i].FileInfo;
      if (!info.blnFolder) names.insert(TString(info.strName));
    }
    return names;
  };
  TEngine alone;
  Mount(alone, Ntfs());
  AnalyseDrive(alone, 0);
  const auto expected = namesOf(alone);
  const auto found = namesOf(engine);
  CHECK(expected.size() > 80);
  CHECK(std::includes(found.begin(), found.end(), expected.begin(), expected.end()));
}

TEST_CASE("thorough search: the table's volumes in place, one volume that is the whole drive, deep in the same pass") {
  TDisk disk;
  PutTable(disk.Image, 0,
           {{0x0C, StickAt, static_cast<std::uint32_t>(disk.StickSectors)},
            {0x07, static_cast<std::uint32_t>(disk.NtfsAt), static_cast<std::uint32_t>(disk.NtfsSectors)}});
  TEngine engine;
  Mount(engine, disk.Image);
  REQUIRE(DriveOf(engine, 0).Volumes.size() >= 2);
  Scan(engine, {TPartRecSystem::FAT, TPartRecSystem::NTFS, TPartRecSystem::DeepAnalysis});
  REQUIRE(SubDrives(engine).size() == 2);
  CHECK(SubDrives(engine)[0] == "FAT32 63+" + std::to_string(disk.StickSectors));
  const auto stick = LinesAlone(Stick());
  const auto found = Lines(WalkText(engine, SubOf(engine, TFileSystem::fsFAT32)));
  CHECK(std::includes(found.begin(), found.end(), stick.begin(), stick.end()));
  CHECK(WalkText(engine, 0).find("Deep analysis/Portable Network Graphic (.png)/File 00001.png") != std::string::npos);

  TEngine alone;
  Mount(alone, Stick());
  Scan(alone);
  CHECK(DriveOf(alone, 0).SubDrives.empty());
  CHECK(DriveOf(alone, 0).FileSystem == TFileSystem::fsFAT32);
  const auto merged = Lines(WalkText(alone, 0));
  CHECK(std::includes(merged.begin(), merged.end(), stick.begin(), stick.end()));
}

TEST_CASE("thorough search: a stop keeps what was found; nothing on a drive smaller than a block") {
  TDisk disk;
  TEngine engine;
  const TMounted source = Mount(engine, disk.Image);
  source.Device->OnRead = [&] {
    if (engine.PartRecRunning && SubOf(engine, TFileSystem::fsFAT32) >= 0 && engine.Files().FoundCount > 5) {
      engine.Analysing = false;
    }
  };
  Scan(engine);
  CHECK(SubDrives(engine) == TFound{"FAT32 63+" + std::to_string(disk.StickSectors)});
  CHECK(DriveOf(engine, 0).DeepAnalysed == TAnalyseInformation::aiPartial);

  TEngine tiny;
  Mount(tiny, TImage(511 * 512));
  Scan(tiny);
  CHECK(tiny.Files().List.empty());
  CHECK(DriveOf(tiny, 0).SubDrives.empty());
}
