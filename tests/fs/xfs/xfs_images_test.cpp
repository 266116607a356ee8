// SPDX-License-Identifier: GPL-3.0-or-later
// Whole XFS volumes written by the real system: contents, damage, specimens of other origin.
#include <doctest/doctest.h>
#include <fmt/format.h>

#include <algorithm>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/sector_reader.h"
#include "fs/driver_contract.h"
#include "fs/xfs/xfs.h"
#include "support/truth.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

constexpr std::size_t Block = 4096;              // bytes, of all of these volumes
constexpr std::size_t GroupSize = 4096 * Block;  // of `xfs-groups`

TImage LabImage(int version) { return LoadTestImage(fmt::format("lab-xfs{}.img.zst", version)); }

void Wipe(TImage& image, std::size_t from, std::size_t size) {
  std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(from), size, std::uint8_t{0});
}

/// Deleted files of a drive by what is said of them: whole, doubtful, overwritten.
struct TClaims {
  int Whole = 0;
  int Doubtful = 0;
  int Overwritten = 0;
};

TClaims ClaimsOf(TEngine& engine, int number) {
  TClaims claims;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    const TFile& file = engine.Files().List[i];
    if (!file.FileInfo.blnDeleted || file.FileInfo.blnFolder || file.FileInfo.aDriveNumber != number) continue;
    if (IsOverwritten(engine, file)) {
      ++claims.Overwritten;
    } else if (PlaceOf(engine, file) == TPlaceSource::Estimated) {
      ++claims.Doubtful;
    } else {
      ++claims.Whole;
    }
  }
  return claims;
}

constexpr std::string_view GroupFiles[] = {"one.txt 58890", "folder/two.txt 118890", "folder/deeper/three.txt 178890"};

int CountGroupFiles(const std::string& walk) {
  return static_cast<int>(std::count_if(std::begin(GroupFiles), std::end(GroupFiles),
                                        [&](std::string_view file) { return walk.find(file) != std::string::npos; }));
}

}  // namespace

TEST_CASE("XFS version 5 keeps the driver contract") { CheckDriverContract({LabImage(5), TFileSystem::fsXFS}); }
TEST_CASE("XFS version 4 keeps the driver contract") { CheckDriverContract({LabImage(4), TFileSystem::fsXFS}); }

TEST_CASE("XFS volumes written by the kernel give back every live file and every deleted one whose content is there") {
  for (const int version : {4, 5}) {
    CAPTURE(version);
    const auto truth = LoadTruth(fmt::format("lab-xfs{}.truth.tsv", version));
    const std::string walk = Walk(LabImage(version));
    CHECK(CountFound(truth, walk, true) == Count(truth, true));
    CHECK(CountFound(truth, walk, false) == Count(truth, false));
  }
}

TEST_CASE("no deleted file whose blocks are in use again is called whole") {
  for (const int version : {4, 5}) {
    CAPTURE(version);
    const auto truth = LoadTruth(fmt::format("lab-xfs{}.truth.tsv", version));
    TEngine engine;
    const int number = Mount(engine, LabImage(version)).Number;
    AnalyseDrive(engine, number);
    const TClaims claims = ClaimsOf(engine, number);
    CHECK(claims.Whole + claims.Doubtful == Count(truth, false));
    CHECK(claims.Overwritten > 0);
  }
}

TEST_CASE("damage to an XFS volume costs what lies there") {
  const TImage image = LabImage(5);
  const auto truth = LoadTruth("lab-xfs5.truth.tsv");
  SUBCASE("without its log, names and sizes of deleted files are gone, and none is called whole") {
    TImage damaged = image;
    std::size_t log = 0;
    while (log < damaged.size() && !(damaged[log] == 0xFE && damaged[log + 1] == 0xED && damaged[log + 2] == 0xBA))
      log += 512;
    REQUIRE(log < damaged.size());
    Wipe(damaged, log, 1368 * Block);
    TEngine engine;
    const int number = Mount(engine, damaged).Number;
    AnalyseDrive(engine, number);
    CHECK(CountFound(truth, WalkText(engine, number), true) == Count(truth, true));
    const TClaims claims = ClaimsOf(engine, number);
    CHECK(claims.Whole == 0);
    CHECK(claims.Doubtful > 0);
  }
  SUBCASE("without the tree of inodes they are found by their marks") {
    TImage damaged = image;
    Wipe(damaged, 2 * 512, 4);
    CHECK(CountFound(truth, Walk(damaged), true) == Count(truth, true));
  }
  SUBCASE("without the tree of free blocks no deleted file is called whole") {
    TImage damaged = image;
    Wipe(damaged, 512, 512);
    TEngine engine;
    const int number = Mount(engine, damaged).Number;
    AnalyseDrive(engine, number);
    CHECK(CountFound(truth, WalkText(engine, number), true) == Count(truth, true));
    CHECK(ClaimsOf(engine, number).Whole == 0);
  }
}

TEST_CASE("copies of the superblock of XFS serve when the first one is gone") {
  TImage image = LoadTestImage("xfs-groups.img.zst");
  CHECK(CountGroupFiles(Walk(image)) == 3);
  SUBCASE("its sector alone: the header after it says where the next group is") {
    Wipe(image, 0, Block);
    CHECK(CountGroupFiles(Walk(image)) == 3);
  }
  SUBCASE("with all headers of the first group") {
    Wipe(image, 0, 4 * Block);
    TEngine engine;
    const int number = Mount(engine, image).Number;
    REQUIRE(DriveOf(engine, number).FileSystem == TFileSystem::fsXFS);
    CHECK(DriveOf(engine, number).GeometrySource == TPlaceSource::FromCopy);
    AnalyseDrive(engine, number);
    CHECK(CountGroupFiles(WalkText(engine, number)) == 3);
  }
  SUBCASE("and the second one") {
    Wipe(image, 0, 4 * Block);
    Wipe(image, GroupSize, Block);
    CHECK(CountGroupFiles(Walk(image)) == 3);
  }
  SUBCASE("of a volume that is cut off: what lay there is lost") {
    Wipe(image, 0, Block);
    image.resize(2 * GroupSize + 8 * Block);
    CHECK(CountGroupFiles(Walk(image)) == 2);
  }
}

TEST_CASE("searches find an XFS volume on and off the grid, and by a copy of its superblock") {
  const TImage volume = LoadTestImage("xfs-groups.img.zst");
  for (const bool wiped : {false, true}) {
    for (const std::size_t start : {2048U, 12345U}) {
      CAPTURE(wiped);
      CAPTURE(start);
      TImage disk((start + 4096) * 512 + volume.size());
      std::copy(volume.begin(), volume.end(), disk.begin() + static_cast<std::ptrdiff_t>(start * 512));
      if (wiped) Wipe(disk, start * 512, Block);
      for (const bool thorough : {false, true}) {
        CAPTURE(thorough);
        TEngine engine;
        const int number = Mount(engine, disk).Number;
        if (thorough) {
          engine.PartRecRunning = true;
          engine.PartRecSystems = {TPartRecSystem::XFS};
          AnalyseDrive(engine, number);
        } else {
          engine.Drives().Find(number, 0, DriveOf(engine, number).SectorsCount, {TFileSystem::fsXFS});
        }
        REQUIRE(DriveOf(engine, number).SubDrives.size() == 1);
        const int found = DriveOf(engine, number).SubDrives.front();
        CHECK(DriveOf(engine, found).FirstSector == static_cast<std::int64_t>(start));
        engine.PartRecRunning = false;
        if (!thorough) AnalyseDrive(engine, found);
        CHECK(CountGroupFiles(WalkText(engine, found)) == 3);
      }
    }
  }
}

TEST_CASE("specimens of XFS of other origin give their files") {
  if (const auto image = LoadSpecimen("xfs/dissect.raw.zst")) {
    const std::string walk = Walk(*image);
    CHECK(walk.find("test_file 13 ") != std::string::npos);
    CHECK(walk.find("test_dir/test_file 15 ") != std::string::npos);
  }
  if (const auto image = LoadSpecimen("xfs/empty-v4.raw.zst")) {
    TEngine engine;
    const int number = Mount(engine, *image).Number;
    AnalyseDrive(engine, number);
    CHECK(DriveOf(engine, number).VolumeName == u"test-xfs");
    CHECK(DriveOf(engine, number).Analysed == TAnalyseInformation::aiFull);
    CHECK(engine.Files().List.empty());
  }
}
