// SPDX-License-Identifier: GPL-3.0-or-later
// Whole volumes written by real implementations: contents, deleted files, damage, specimens of other origin.
#include <doctest/doctest.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "fs/driver_contract.h"
#include "fs/ext/ext_info.h"
#include "support/truth.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

TImage Damaged(TImage image, std::size_t first, std::size_t count) {
  std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(first), count, std::uint8_t{0});
  return image;
}

int CountText(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

/// What must stand in the walk of every volume of tests/data/ext.
void CheckTree(const std::string& walk) {
  for (const char* line : {"tiny.txt 11 2020-09-13T12:26:40", "folder/lines.txt 360000 ", "folder/holes.bin 3689400 ",
                           "link 16 ", "folder/long link 104 ", "folder/deeper/pipe 0 "}) {
    CHECK_MESSAGE(walk.find(line) != std::string::npos, line);
  }
  CHECK(CountText(walk, "\nmany/name number ") == 300);
  CHECK(CountText(walk, " deleted ") == 0);
}

}  // namespace

TEST_CASE("Ext4 keeps the driver contract") {
  CheckDriverContract({LoadTestImage("lab-ext4.img.zst"), TFileSystem::fsExt4});
}
TEST_CASE("Ext2 keeps the driver contract") {
  CheckDriverContract({LoadTestImage("lab-ext2.img.zst"), TFileSystem::fsExt2});
}

TEST_CASE("volumes used through the kernel's driver give back every live file, and with a journal every deleted one") {
  for (const char* name : {"lab-ext4", "lab-ext2"}) {
    CAPTURE(name);
    const auto truth = LoadTruth(fmt::format("{}.truth.tsv", name));
    const std::string walk = Walk(LoadTestImage(fmt::format("{}.img.zst", name)));
    CHECK(CountFound(truth, walk, true) == Count(truth, true));
    CHECK(CountFound(truth, walk, false) == Count(truth, false));
    for (const TTruthLine& line : truth) {
      const std::string last = "/" + line.Path.substr(line.Path.rfind('/') + 1) + line.Text;
      if (!line.Live) CHECK_MESSAGE(("\n" + walk).find(last) != std::string::npos, line.Path);
    }
  }
}

TEST_CASE("all forms of volumes are read") {
  std::string first;
  for (const char* name : {"rev0", "plain1k", "block64k", "bigalloc", "metabg", "inline", "super2", "casefold"}) {
    CAPTURE(name);
    const std::string walk = Walk(LoadTestImage(fmt::format("ext/{}.img.zst", name)));
    CheckTree(walk);
    // The content is the same everywhere.
    std::string sums;
    for (std::size_t at = 0; at < walk.size();) {
      const std::size_t end = walk.find('\n', at);
      if (end - at > 8 && walk.compare(at, 9, "lost+foun") != 0) sums += walk.substr(end - 8, 8);
      at = end + 1;
    }
    std::string sorted = sums;
    if (first.empty()) first = sorted;
    CHECK(sorted.size() == first.size());
  }
}

TEST_CASE("without a journal only the names of deleted files are left, which no list calls whole") {
  TEngine engine;
  AnalyseDrive(engine, Mount(engine, LoadTestImage("lab-ext2.img.zst")).Number);
  int names = 0;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    const TFile& file = engine.Files().List[i];
    const TFileInfo& info = file.FileInfo;
    if (info.blnFolder || !info.blnDeleted || info.aSize > 0) continue;
    CHECK(DoubtOf(engine, file) == TContentDoubt::NameOnly);
    ++names;
  }
  CHECK(names > 0);
}

TEST_CASE("copies of the superblock serve when the first is gone") {
  for (const char* name : {"plain1k", "super2"}) {
    CAPTURE(name);
    const TImage image = LoadTestImage(fmt::format("ext/{}.img.zst", name));
    CheckTree(Walk(Damaged(image, 0, 2048)));
    // The group table with it.
    CheckTree(Walk(Damaged(image, 0, 4096)));
  }
  // The copy in group 1 too: the other one is in the last group.
  TImage image = Damaged(LoadTestImage("ext/super2.img.zst"), 0, 2048);
  CheckTree(Walk(Damaged(std::move(image), 8193 * 1024, 1024)));
}

TEST_CASE("what a copy of the group table says of bitmaps is out of date") {
  TImage image = LoadTestImage("ext/plain1k.img.zst");
  constexpr std::size_t copyOfTable = 8194 * 1024;
  constexpr std::size_t flags = 18;
  constexpr std::uint8_t bitmapUnused = 2;
  image[copyOfTable + flags] |= bitmapUnused;  // of the first group, which has files
  for (const std::size_t wiped : {std::size_t{2048}, std::size_t{4096}}) {
    CAPTURE(wiped);
    TEngine engine;
    const int number = Mount(engine, Damaged(image, 0, wiped)).Number;
    AnalyseDrive(engine, number);
    REQUIRE_FALSE(ExtXInfo(DriveOf(engine, number)).Groups.empty());
    CHECK_FALSE(ExtXInfo(DriveOf(engine, number)).Groups[0].BlockBitmapUnused);
  }
}

TEST_CASE("the thorough search takes a volume at the word of a copy of its superblock, and begins it where it began") {
  for (const std::size_t before : {std::size_t{0}, std::size_t{7 * 512}}) {
    for (const std::size_t wiped : {std::size_t{0}, std::size_t{4096}}) {
      CAPTURE(before);
      CAPTURE(wiped);
      const TImage volume = Damaged(LoadTestImage("ext/plain1k.img.zst"), 0, wiped);
      TImage image(before, 0xA5);
      image.insert(image.end(), volume.begin(), volume.end());
      TEngine engine;
      const int number = Mount(engine, std::move(image)).Number;
      engine.PartRecSystems = {TPartRecSystem::Ext};
      engine.PartRecRunning = true;
      AnalyseDrive(engine, number);
      engine.PartRecRunning = false;
      const TIntegerDynArray subs = DriveOf(engine, number).SubDrives;
      REQUIRE(subs.size() == (before == 0 ? 0U : 1U));
      const int found = subs.empty() ? number : subs.front();
      CheckTree(WalkText(engine, found));
      CHECK(DriveOf(engine, found).FirstSector == static_cast<std::int64_t>(before / 512));
    }
  }
}

TEST_CASE("a root that is gone leaves its folders below lost and found, with all content") {
  const auto truth = LoadTruth("lab-ext2.truth.tsv");
  TImage image = LoadTestImage("lab-ext2.img.zst");
  const std::size_t table = (image[2048 + 8] | image[2048 + 9] << 8) * std::size_t{1024};
  std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(table + 128), 128, std::uint8_t{0});
  const std::string walk = Walk(image);
  int back = 0;
  for (const TTruthLine& line : truth) {
    const std::string name = line.Path.substr(line.Path.rfind('/') + 1);
    const std::string crc = line.Text.substr(line.Text.rfind(' '));
    if (walk.find("/" + name + " ") != std::string::npos && walk.find(crc) != std::string::npos) ++back;
  }
  CHECK(back >= Count(truth, true) * 95 / 100);
}

TEST_CASE("entries of a lost folder whose inodes are gone count by their names") {
  TImage image = LoadTestImage("lab-ext2.img.zst");
  const auto put = [&](std::size_t at, std::uint32_t inode, std::size_t length, const std::string& name, int type) {
    at += image.size() - 2048;
    for (std::size_t i = 0; i < 4; ++i) image[at + i] = static_cast<std::uint8_t>(inode >> (8 * i));
    image[at + 4] = static_cast<std::uint8_t>(length);
    image[at + 5] = static_cast<std::uint8_t>(length >> 8);
    image[at + 6] = static_cast<std::uint8_t>(name.size());
    image[at + 7] = static_cast<std::uint8_t>(type);
    std::copy(name.begin(), name.end(), image.begin() + static_cast<std::ptrdiff_t>(at + 8));
  };
  std::fill_n(image.end() - 2048, 1024, std::uint8_t{0});
  put(0, 900, 12, ".", 2);
  put(12, 2, 12, "..", 2);
  put(24, 901, 20, "README", 1);
  put(44, 902, 24, "readme.txt", 1);
  put(68, 903, 956, "what*.txt", 1);
  const std::string walk = Walk(image);
  CHECK(walk.find("/README ") == std::string::npos);
  CHECK(walk.find("Folder 900/readme.txt 0 deleted") != std::string::npos);
  CHECK(walk.find("Folder 900/what*.txt 0 deleted") != std::string::npos);
}

TEST_CASE("specimens of other origin read as their truth says") {
  struct TRow {
    const char* File;
    const char* Expected;  // must stand in the walk; empty for no more than an answer
  };
  for (const TRow& row : {TRow{"ext/ext2-view.raw.zst", "lost+found/"},
                          {"ext/ext4-journal-replay.raw.zst", "lost+found/"},
                          {"ext/ext4-dissect.raw.zst", ""},
                          {"ext/ext3-r2.raw.zst", "lost+found/"},
                          {"ext/ext4-advanced-r2.raw.zst", "lost+found/"},
                          {"ext/damaged-f_baddir.raw.zst", ""},
                          {"ext/damaged-f_orphan.raw.zst", "lost+found/"},
                          {"ext/damaged-f_extents.raw.zst", ""},
                          {"ext/damaged-f_badinode.raw.zst", ""},
                          {"ext/damaged-f_lpf.raw.zst", ""},
                          {"ext/damaged-f_h_badroot.raw.zst", ""},
                          {"ext/damaged-j_recover_fast_commit.raw.zst", "a/new 5 "}}) {
    const auto image = LoadSpecimen(row.File);
    if (!image) continue;
    const std::string walk = Walk(*image);
    CHECK_MESSAGE(!walk.empty(), row.File);
    CHECK_MESSAGE(walk.find(row.Expected) != std::string::npos, row.File);
  }
}

TEST_CASE("what was flushed after the last full transaction is taken from the fast commits") {
  const TImage image = LoadTestImage("ext/fast-commits.img.zst");
  const std::string walk = "\n" + Walk(image);
  struct TRow {
    const char* Path;
    const char* Size;
    const char* Sum;
  };
  for (const TRow& row : {TRow{"base/deep/inside.txt", "4321", "7355ed66"},  // in a folder made since
                          {"base/deep/two.txt", "321", "4d75f2fc"},
                          {"base/grow.bin", "110000", "981e33be"},   // appended to
                          {"base/hole.bin", "200008", "cbba26fa"},   // written to beyond its end
                          {"base/new05.txt", "3165", "fbf3e5de"},    // made
                          {"base/renamed.txt", "3295", "3231a292"},  // renamed and appended to
                          {"base/two.txt", "5000", ""}}) {           // untouched
    const std::size_t at = walk.find(fmt::format("\n{} {} ", row.Path, row.Size));
    REQUIRE_MESSAGE(at != std::string::npos, row.Path);
    const std::string line = walk.substr(at + 1, walk.find('\n', at + 1) - at - 1);
    CHECK_MESSAGE(line.ends_with(row.Sum), line);
  }
  CHECK(walk.find("base/old03.txt 3295 deleted") != std::string::npos);
  CHECK(CountText(walk, "\nbase/new") == 6);

  // Commits up to a broken one count; here the first one is.
  const std::string head = {9, 0, 8, 0, 0, 0, 0, 0};
  TImage broken = image;
  const auto found = std::search(broken.begin(), broken.end(), head.begin(), head.end());
  REQUIRE(found != broken.end());
  found[40] ^= 1;
  const std::string before = "\n" + Walk(broken);
  CHECK(CountText(before, "\nbase/new") == 0);
  CHECK(before.find("\nbase/old03.txt 3291 2024") != std::string::npos);
}

TEST_CASE("a volume of which no superblock is left gives names, and none of them counts as a whole file") {
  // One group only, so there is no copy.
  TEngine engine;
  const int number = Mount(engine, Damaged(LoadTestImage("lab-ext2.img.zst"), 0, 2048)).Number;
  engine.PartRecSystems = {TPartRecSystem::Ext};
  engine.PartRecRunning = true;
  AnalyseDrive(engine, number);
  engine.PartRecRunning = false;
  int names = 0;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    const TFile& file = engine.Files().List[i];
    if (file.FileInfo.blnFolder) continue;
    ++names;
    CHECK(DoubtOf(engine, file) == TContentDoubt::NameOnly);
  }
  CHECK(names > 20);
}
