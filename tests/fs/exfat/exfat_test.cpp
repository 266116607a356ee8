// SPDX-License-Identifier: GPL-3.0-or-later
// Volumes built slot by slot: entries, deleted files and what speaks for them, folders, boot regions.
#include <doctest/doctest.h>

#include <random>
#include <set>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "fs/cluster_set.h"
#include "fs/exfat/exfat_claims.h"
#include "table/files.h"
#include "volume_builder.h"

namespace brenlow::test {

TAnalysed::TAnalysed(const TImage& image) : Number(Mount(Engine, image).Number) {
  REQUIRE(Number >= 0);
  AnalyseDrive(Engine, Number);
}

TFile* TAnalysed::Row(const std::string& name) {
  TFileArray& list = Engine.Files().List;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (ToUtf8(list[i].FileInfo.strName) == name) return &list[i];
  }
  return nullptr;
}

std::string TAnalysed::Content(const std::string& name) {
  TFile* row = Row(name);
  if (row == nullptr) return "none";
  TByteDynArray bytes;
  GetFileData(Engine, bytes, *row, -1, 0, row->FileInfo.aSize);
  return {bytes.begin(), bytes.end()};
}

std::string TAnalysed::State(const std::string& name) {
  TFile* row = Row(name);
  if (row == nullptr) return "none";
  if (IsOverwritten(Engine, *row)) return "overwritten";
  if (PlaceOf(Engine, *row) == TPlaceSource::Estimated) return "doubtful";
  return row->FileInfo.blnDeleted ? "whole" : "live";
}

}  // namespace brenlow::test

using namespace brenlow;
using namespace brenlow::test;
using namespace brenlow::exfat;

namespace {

constexpr std::uint32_t Stamp = 0x52B16DA5;
constexpr std::uint32_t Day = 1U << 16;  // in the stamps of entries

std::string Text(std::size_t count, char letter) { return std::string(count, letter); }

}  // namespace

TEST_CASE("entries tell name, attributes, size and times with zone and 10 ms") {
  TExFatBuilder volume;
  volume.AddToRoot({.Name = "a"});
  volume.AddToRoot(
      {.Name = "more than thirty characters make a name.txt", .Cluster = 10, .Size = 700, .Hundredths = 123});
  volume.AddToRoot({.Name = "east", .Zone = 0x80 | 8});
  volume.AddToRoot({.Name = "west", .Zone = 0x80 | (0x7F & -20)});
  volume.AddToRoot({.Name = "nowhere", .Zone = 0});
  TAnalysed drive(volume.Image);
  REQUIRE(drive.Row("a") != nullptr);
  const TFile* file = drive.Row("more than thirty characters make a name.txt");
  REQUIRE(file != nullptr);
  CHECK(file->FileInfo.aSize == 700);
  CHECK(file->FileInfo.Atributes.blnArchive);
  CHECK(file->ParentCluster == SpecialCluster::Root);
  const TDateTime utc = drive.Row("a")->FileInfo.TimeStamp.dtModified;
  const auto hours = [&](const char* name) { return (drive.Row(name)->FileInfo.TimeStamp.dtModified - utc) * 24; };
  CHECK(hours("east") == doctest::Approx(-2));
  CHECK(hours("west") == doctest::Approx(5));
  CHECK(IsoTime(drive.Row("nowhere")->FileInfo.TimeStamp.dtModified) == "2021-05-17T13:45:10");
  const double later = file->FileInfo.TimeStamp.dtCreated - drive.Row("a")->FileInfo.TimeStamp.dtCreated;
  CHECK(std::abs(later * 86400 - 1.23) < 0.001);
}

TEST_CASE("bytes after the valid length are zeros, and a chain is followed") {
  TExFatBuilder volume;
  volume.AddToRoot({.Name = "short", .Cluster = 10, .Size = 1000, .ValidSize = 600});
  volume.AddToRoot({.Name = "chain", .Cluster = 20, .Size = 1200, .Chain = true});
  volume.Chain({20, 30, 25});
  for (const std::uint32_t cluster : {10U, 11U, 20U, 25U, 30U}) {
    volume.Fill(cluster, static_cast<char>('a' + cluster % 26));
    volume.Use(cluster);
  }
  TAnalysed drive(volume.Image);
  CHECK(drive.Content("short") == Text(512, 'k') + Text(88, 'l') + std::string(400, '\0'));
  CHECK(drive.Content("chain") == Text(512, 'u') + Text(512, 'e') + Text(176, 'z'));
  CHECK(drive.State("chain") == "live");
}

TEST_CASE("a deleted file is whole where its clusters are free and nothing newer had them") {
  TExFatBuilder volume;
  volume.AddToRoot({.Name = "free", .Cluster = 10, .Size = 1500, .Deleted = true});
  volume.AddToRoot({.Name = "taken", .Cluster = 20, .Size = 1500, .Deleted = true});
  volume.Use(22);
  volume.AddToRoot({.Name = "older", .Cluster = 30, .Size = 1024, .Deleted = true});
  volume.AddToRoot({.Name = "newer", .Cluster = 31, .Size = 512, .Deleted = true, .Created = Stamp + Day});
  volume.AddToRoot({.Name = "one", .Cluster = 40, .Size = 1024, .Deleted = true, .Modified = Stamp + 3 * Day});
  volume.AddToRoot({.Name = "two", .Cluster = 41, .Size = 512, .Deleted = true, .Created = Stamp + Day});
  volume.AddToRoot({.Name = "before", .Cluster = 50, .Size = 600, .Deleted = true});
  volume.AddToRoot({.Name = "renamed", .Cluster = 50, .Size = 600, .Deleted = true});
  volume.AddToRoot({.Name = "beyond", .Cluster = 590, .Size = 100000, .Deleted = true});
  TAnalysed drive(volume.Image);
  CHECK(drive.State("free") == "whole");
  CHECK(drive.State("taken") == "overwritten");
  CHECK(drive.State("older") == "overwritten");
  CHECK(drive.State("newer") == "whole");
  CHECK(drive.State("one") == "doubtful");  // changed after the other was made
  CHECK(drive.State("two") == "doubtful");
  CHECK(drive.State("before") == "whole");  // one file under two names
  CHECK(drive.State("renamed") == "whole");
  CHECK(drive.State("beyond") == "doubtful");
}

TEST_CASE("a deleted file in pieces is whole only with its whole chain") {
  TExFatBuilder volume;
  const auto add = [&](const std::string& name, std::uint32_t cluster) {
    volume.AddToRoot({.Name = name, .Cluster = cluster, .Size = 1200, .Chain = true, .Deleted = true});
  };
  add("whole", 20);
  volume.Chain({20, 30, 25});
  add("gone", 100);
  add("long", 110);
  volume.Chain({110, 111, 112, 113});
  add("loop", 120);
  volume.Chain({120, 121});
  volume.Link(121, 120);
  for (const std::uint32_t cluster : {20U, 25U, 30U}) volume.Fill(cluster, static_cast<char>('a' + cluster % 26));
  TAnalysed drive(volume.Image);
  CHECK(drive.State("whole") == "whole");
  CHECK(drive.Content("whole") == Text(512, 'u') + Text(512, 'e') + Text(176, 'z'));
  for (const char* name : {"gone", "long", "loop"}) CHECK(drive.State(name) == "doubtful");
}

TEST_CASE("what is left of entries that were partly written over is told") {
  TExFatBuilder volume(4);
  const auto wipe = [&](std::size_t at, std::size_t size) {
    for (std::size_t i = 0; i < size; i += 32) volume.Image[at + i] = 0xA0;
  };
  std::size_t at = volume.AddToRoot({.Name = "own name.txt", .Cluster = 10, .Size = 700, .Deleted = true});
  wipe(at, 32);
  at = volume.AddToRoot({.Name = "other name.txt", .Cluster = 12, .Size = 700, .Deleted = true});
  wipe(at, 32);
  volume.Image[at + 66] = 'x';  // the name is not the one that the stream entry was hashed with
  at = volume.AddToRoot({.Name = "only a name", .Cluster = 14, .Size = 700, .Deleted = true});
  wipe(at, 64);
  at = volume.AddToRoot({.Name = "a name that takes two.txt", .Cluster = 16, .Size = 700, .Deleted = true});
  wipe(at + 96, 32);
  at = volume.AddToRoot({.Name = "flipped bit", .Cluster = 18, .Size = 700, .Deleted = true});
  volume.Image[at + 52] ^= 4;
  TAnalysed drive(volume.Image);
  CHECK(drive.State("own name.txt") == "whole");
  CHECK(drive.State("xther name.txt") == "none");
  CHECK(drive.State("File 12") == "doubtful");
  CHECK(drive.State("only a name") == "overwritten");
  CHECK(drive.State("a name that tak") == "whole");
  CHECK(drive.State("flipped bit") == "doubtful");
}

TEST_CASE("folders end at their length, at ten unknown slots and at loops") {
  TExFatBuilder volume;
  const auto folder = [&](const std::string& name, std::uint32_t cluster, std::uint64_t size, bool chain) {
    volume.AddToRoot({.Name = name, .Cluster = cluster, .Size = size, .Chain = chain, .Folder = true});
    volume.Use(cluster);
  };
  const auto fill = [&](std::uint32_t cluster, const std::string& prefix) {
    for (std::size_t i = 0; i < 5; ++i) {
      volume.PutSet(volume.At(cluster) + i * 96, {.Name = prefix + std::to_string(i)});
    }
    volume.Image[volume.At(cluster) + 480] = 0x20;  // no end mark
  };
  folder("full", 50, 512, false);
  fill(50, "full");
  fill(51, "stranger");
  volume.Use(51);
  folder("loop", 60, 2048, true);
  fill(60, "loop");
  volume.Link(60, 60);
  folder("odd", 70, 512, false);
  for (std::size_t i = 0; i < 10; ++i) volume.Image[volume.At(70) + 32 * i] = 0x88;
  volume.PutSet(volume.At(70) + 320, {.Name = "after ten"});
  folder("bad", 80, 512, false);
  for (std::size_t i = 0; i < 11; ++i) volume.Image[volume.At(80) + 32 * i] = 0x88;
  volume.PutSet(volume.At(80) + 352, {.Name = "after eleven"});
  TAnalysed drive(volume.Image);
  CHECK(drive.State("full4") == "live");
  CHECK(drive.State("stranger0") == "none");
  CHECK(drive.State("loop4") == "live");
  CHECK(drive.State("after ten") == "live");
  CHECK(drive.State("after eleven") == "none");
}

TEST_CASE("a deleted folder is walked while its clusters are free, and leads nowhere after that") {
  TExFatBuilder volume;
  for (const std::uint32_t cluster : {50U, 60U, 70U}) {
    volume.PutSet(volume.At(cluster), {.Name = "in " + std::to_string(cluster), .Cluster = cluster + 1, .Size = 100});
  }
  volume.AddToRoot({.Name = "gone", .Cluster = 50, .Size = 512, .Folder = true, .Deleted = true});
  volume.AddToRoot({.Name = "old name", .Cluster = 60, .Size = 512, .Folder = true, .Deleted = true});
  volume.AddToRoot({.Name = "new name", .Cluster = 60, .Size = 512, .Folder = true});
  volume.Use(60);
  TAnalysed drive(volume.Image);
  const std::string text = WalkText(drive.Engine, drive.Number);
  CHECK(text.find("gone/in 50 100 deleted") != std::string::npos);
  CHECK(text.find("new name/in 60 100 2021") != std::string::npos);
  CHECK(text.find("old name/in 60") == std::string::npos);
  CHECK(text.find("Lost and found/Folder 70/in 70 100 deleted") != std::string::npos);
}

TEST_CASE("a folder whose table entries are gone is put together by the checksum of the set at its seam") {
  TExFatBuilder volume;
  // 512 bytes hold five sets of three slots, and the first slot of a sixth.
  const auto fill = [&](std::uint32_t cluster, std::uint32_t next) {
    TByteDynArray slots;
    for (int i = 0; i < 10; ++i) {
      const std::string name = "file " + std::to_string(cluster) + "-" + std::to_string(i);
      const TByteDynArray set = TExFatBuilder::Set({.Name = name, .Cluster = 300, .Size = 10});
      slots.insert(slots.end(), set.begin(), set.end());
    }
    std::copy_n(slots.begin(), 512, volume.Image.begin() + static_cast<std::ptrdiff_t>(volume.At(cluster)));
    std::copy(slots.begin() + 512, slots.end(), volume.Image.begin() + static_cast<std::ptrdiff_t>(volume.At(next)));
  };
  fill(50, 90);
  fill(60, 80);  // the two go on in clusters the other way round
  TAnalysed drive(volume.Image);
  const std::string text = WalkText(drive.Engine, drive.Number);
  for (const char* line : {"Folder 50/file 50-0 10", "Folder 50/file 50-5 10", "Folder 50/file 50-9 10",
                           "Folder 60/file 60-5 10", "Folder 60/file 60-9 10"}) {
    CHECK_MESSAGE(text.find(line) != std::string::npos, line);
  }
}

TEST_CASE("with two tables and bitmaps the active ones count") {
  for (const bool second : {false, true}) {
    CAPTURE(second);
    TExFatBuilder volume(1, 600, 2);
    volume.RootEntry(3, 0x81, 500, (volume.Clusters + 7) / 8);
    volume.Image[volume.At(4) + 97] = 1;
    volume.RootEnd += 32;
    volume.Use(500);
    volume.AddToRoot({.Name = "chain", .Cluster = 20, .Size = 1024, .Chain = true});
    volume.AddToRoot({.Name = "deleted", .Cluster = 40, .Size = 100, .Deleted = true});
    volume.Chain({4}, 1);
    volume.Chain({20, 25}, 0);
    volume.Chain({20, 26}, 1);
    volume.Fill(25, 'a');
    volume.Fill(26, 'b');
    volume.Use(40, 500);
    volume.Image[0x6A] = second ? 1 : 0;
    TAnalysed drive(volume.Image);
    CHECK(drive.Content("chain").substr(512) == Text(512, second ? 'b' : 'a'));
    CHECK(drive.State("deleted") == (second ? "overwritten" : "whole"));
  }
}

TEST_CASE("the copy of the boot region serves where the first is gone or damaged") {
  TExFatBuilder volume;
  volume.AddToRoot({.Name = "file", .Cluster = 10, .Size = 5});
  volume.Fill(10, 'x');
  SUBCASE("sound") {}
  SUBCASE("gone") { std::fill_n(volume.Image.begin(), 12 * 512, std::uint8_t{0}); }
  SUBCASE("damaged where no test looks") { volume.Image[0x58] ^= 3; }
  SUBCASE("the copy is damaged") { volume.Image[12 * 512 + 0x58] ^= 3; }
  SUBCASE("the checksums of both") { volume.Image[11 * 512] ^= 3, volume.Image[23 * 512] ^= 3; }
  TAnalysed drive(volume.Image);
  CHECK(drive.Drive().FileSystem == TFileSystem::fsExFAT);
  CHECK(drive.Content("file") == "xxxxx");
}

TEST_CASE("a boot sector that promises too much costs nothing") {
  TExFatBuilder volume;
  volume.AddToRoot({.Name = "file", .Cluster = 10, .Size = 5});
  volume.AddToRoot({.Name = "huge", .Cluster = 11, .Size = 1ULL << 62, .Chain = true});
  volume.AddToRoot({.Name = "gone", .Cluster = 12, .Size = 1ULL << 62, .Chain = true, .Deleted = true});
  volume.Put(0x48, 1ULL << 40, 8);
  volume.Put(0x5C, 0xFFFFFFF0, 4);
  volume.RootEntry(1, 0x81, 2, 1ULL << 29);
  volume.SealBoot();
  TAnalysed drive(volume.Image);
  CHECK(drive.State("gone") == "doubtful");
  CHECK(drive.Content("file").size() == 5);
  TByteDynArray bytes;
  GetFileData(drive.Engine, bytes, *drive.Row("huge"), -1, 1LL << 40, 1000);
  CHECK(bytes.size() <= 1000);
}

TEST_CASE("of files in one place the one made last is whole: every overlap, against a plain comparison") {
  std::mt19937 random(3);
  const auto pick = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
  for (int round = 0; round < 200; ++round) {
    std::vector<TClaims::TClaim> claims;
    TClaims settled;
    for (int i = pick(1, 12); i > 0; --i) {
      const int first = pick(2, 40);
      const double created = pick(0, 8);
      claims.push_back({first, first + pick(1, 10), first, created, created == 0 ? 0 : created + pick(0, 2)});
      settled.Add(claims.back());
    }
    settled.Settle();
    for (const TClaims::TClaim& claim : claims) {
      bool overwritten = false;
      bool shared = false;
      const double from = claim.Created == 0 ? -1e9 : claim.Created;
      const double until = claim.Created == 0 ? 1e9 : claim.Modified;
      for (const TClaims::TClaim& other : claims) {
        const bool same = other.Start == claim.Start && other.Created == claim.Created;
        if (same || other.First >= claim.End || claim.First >= other.End) continue;
        overwritten = overwritten || (other.Created != 0 && other.Created > until);
        shared = shared || (other.Created == 0 ? 1e9 : other.Modified) >= from;
      }
      const auto expected = overwritten ? TClaims::TVerdict::Overwritten
                            : shared    ? TClaims::TVerdict::Shared
                                        : TClaims::TVerdict::Alone;
      CHECK(settled.Judge(claim) == expected);
    }
  }
}

TEST_CASE("a set of clusters answers as a plain set does, across its pages") {
  constexpr std::int64_t last = 600000;
  std::mt19937 random(5);
  const auto pick = [&](std::int64_t high) { return std::uniform_int_distribution<std::int64_t>(0, high)(random); };
  TClusterSet set(last);
  std::set<std::int64_t> plain;
  for (int i = 0; i < 300; ++i) {
    const std::int64_t first = pick(last);
    const std::int64_t count = i % 3 == 0 ? pick(500) : 1;
    set.AddRange(first, first + count);
    for (std::int64_t c = first; c < std::min(first + count, last + 1); ++c) plain.insert(c);
  }
  CHECK(set.Count() == static_cast<std::int64_t>(plain.size()));
  CHECK_FALSE(set.Add(last + 1));
  for (int i = 0; i < 2000; ++i) {
    const std::int64_t first = pick(last);
    const std::int64_t end = std::min(first + pick(3000), last + 1);
    const auto next = plain.lower_bound(first);
    CHECK(set.FirstIn(first, end) == (next == plain.end() ? end : std::min(*next, end)));
    std::int64_t gap = first;
    while (gap < end && plain.contains(gap)) ++gap;
    CHECK(set.FirstNotIn(first, end) == gap);
    CHECK(set.Has(first) == plain.contains(first));
  }
}
