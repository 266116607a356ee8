// SPDX-License-Identifier: GPL-3.0-or-later
// Whole volumes written by real implementations: contents, damage, specimens of other origin.
#include <doctest/doctest.h>
#include <fmt/format.h>

#include "analysis/analysis.h"
#include "core/sector_reader.h"
#include "fs/driver_contract.h"
#include "fs/fat/fat.h"
#include "support/truth.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

TDriverSpecimen SpecimenOf(int width) {
  TDriverSpecimen specimen;
  specimen.Volume = LoadTestImage(fmt::format("lab-fat{}.img.zst", width));
  specimen.FileSystem = width == 12 ? TFileSystem::fsFAT12 : width == 16 ? TFileSystem::fsFAT16 : TFileSystem::fsFAT32;
  return specimen;
}

}  // namespace

TEST_CASE("FAT12 keeps the driver contract") { CheckDriverContract(SpecimenOf(12)); }
TEST_CASE("FAT16 keeps the driver contract") { CheckDriverContract(SpecimenOf(16)); }
TEST_CASE("FAT32 keeps the driver contract") { CheckDriverContract(SpecimenOf(32)); }

TEST_CASE("volumes used through the kernel's driver give back every live and every referenced deleted file") {
  for (const int width : {12, 16, 32}) {
    CAPTURE(width);
    const auto truth = LoadTruth(fmt::format("lab-fat{}.truth.tsv", width));
    const std::string walk = Walk(SpecimenOf(width).Volume);
    CHECK(CountFound(truth, walk, true) == Count(truth, true));
    CHECK(CountFound(truth, walk, false) == Count(truth, false));
  }
}

TEST_CASE("damage this range, expect so much") {
  const auto truth = LoadTruth("lab-fat32.truth.tsv");
  const int live = Count(truth, true);
  TImage image = SpecimenOf(32).Volume;
  const std::size_t tableStart = 32 * 512;
  SUBCASE("boot sector: its copy serves") {
    std::fill_n(image.begin(), 512, std::uint8_t{0});
    CHECK(CountFound(truth, Walk(image), true) == live);
  }
  SUBCASE("boot sector and copy: nothing, and no fault") {
    std::fill_n(image.begin(), 7 * 512, std::uint8_t{0});
    CHECK(Walk(image).empty());
  }
  SUBCASE("first table unreadable: the second serves") {
    TEngine engine;
    auto device = std::make_unique<TMemoryDevice>(image);
    for (std::int64_t s = 32; s < 100; ++s) device->BadSectors.insert(s);
    engine.Devices().Insert(u"/bad.img", std::move(device));
    const int number = engine.Drives().Mount(u"/bad.img", false);
    AnalyseDrive(engine, number);
    CHECK(CountFound(truth, WalkText(engine, number), true) == live);
  }
  SUBCASE("first table wiped: files in one piece come back, as deleted ones") {
    for (std::size_t i = 0; i < 500 * 512; ++i) image[tableStart + i] = 0;
    const std::string walk = Walk(image);
    int back = 0;
    for (const TTruthLine& line : truth) {
      if (line.Live) back += walk.find(line.Text.substr(line.Text.rfind(' '))) != std::string::npos ? 1 : 0;
    }
    CHECK(back >= live * 85 / 100);
    CHECK(walk.find("deleted") != std::string::npos);
  }
  SUBCASE("cut off at half: nothing of the first half is lost") {
    const std::string whole = Walk(image);
    image.resize(image.size() / 2);
    CHECK(CountFound(truth, Walk(image), true) >= live * 95 / 100);  // this volume is filled from its start
  }
}

TEST_CASE("a quick format leaves the folders: they come back under lost and found") {
  const auto truth = LoadTruth("lab-fat32.truth.tsv");
  TImage image = SpecimenOf(32).Volume;
  // What a quick format does: both tables anew, the root's first cluster empty.
  const auto tableSectors = static_cast<std::size_t>(image[36] | image[37] << 8);
  const std::size_t begin = 32 * 512;
  std::fill(image.begin() + static_cast<std::ptrdiff_t>(begin),
            image.begin() + static_cast<std::ptrdiff_t>(begin + (2 * tableSectors + 1) * 512), std::uint8_t{0});
  for (const std::size_t table : {begin, begin + tableSectors * 512}) {
    for (const std::size_t entry : {0U, 1U, 2U}) {
      for (std::size_t i = 0; i < 4; ++i) image[table + entry * 4 + i] = i < 3 ? 0xFF : 0x0F;
    }
  }
  const std::string walk = Walk(image);
  CHECK(walk.starts_with("Lost and found/\n"));
  int back = 0;
  int inFolders = 0;
  for (const TTruthLine& line : truth) {
    if (!line.Live || line.Path.find('/') == std::string::npos) continue;
    ++inFolders;
    const std::string name = line.Path.substr(line.Path.rfind('/') + 1);
    const std::string crc = line.Text.substr(line.Text.rfind(' '));
    if (walk.find("/" + name + " ") != std::string::npos && walk.find(crc) != std::string::npos) ++back;
  }
  CHECK(back >= inFolders * 90 / 100);
}

TEST_CASE("a deleted folder of many clusters comes back whole, in its own folder") {
  const auto image = LoadSpecimen("fat/deleted-dir.raw.zst");
  if (!image) return;
  const std::string walk = Walk(*image);
  int files = 0;
  for (std::size_t at = walk.find("\ntest/"); at != std::string::npos; at = walk.find("\ntest/", at + 1)) ++files;
  CHECK(files == 500);
  CHECK(walk.find("test_2/2.txt 0 deleted") != std::string::npos);
}

TEST_CASE("damaged and odd specimens read as far as they are sound, and end") {
  struct TRow {
    const char* File;
    const char* Expected;  // must stand in the walk
  };
  const TRow rows[] = {
      {"fat/loop.raw.zst", "test_dir/"},
      {"fat/lfn.raw.zst", "long_name_test.txt 6 "},
      {"fat/sector2048.raw.zst", "test/1.TXT 6 "},
      {"fat/sector4096-cluster512k.raw.zst", "test_test_test_123_123_123.txt 4 "},
      {"fat/dissect-fat12.raw.zst", ""},
      {"fat/undelete-6.raw.zst", "?ir1/dir2/frag3.dat 2027 deleted"},
      {"fat/r2-deleted.raw.zst", "README.md 24 deleted"},
      {"fat/dosfstools-check-circular_chain.raw.zst", "TEST4CLS.TXT 12288"},
      {"fat/dosfstools-check-dot_entries.raw.zst", "DIR/TEST2.TXT 7"},
  };
  for (const TRow& row : rows) {
    const auto image = LoadSpecimen(row.File);
    if (!image) continue;
    const std::string walk = Walk(*image);
    CHECK_MESSAGE(walk.find(row.Expected) != std::string::npos, row.File);
    CHECK_MESSAGE(!walk.empty(), row.File);
  }
}
