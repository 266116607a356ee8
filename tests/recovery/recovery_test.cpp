// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/recovery.h"

#include <doctest/doctest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "analysis/analysis.h"
#include "recovery/safe_name.h"
#include "support/fat_builder.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;
namespace filesystem = std::filesystem;

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {(std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>()};
}

/// Files named by the caller, two clusters each, in the root of a FAT16 volume.
TFatBuilder VolumeOf(const std::vector<std::u16string>& names) {
  TFatBuilder fat(TFatShape{});
  std::size_t at = fat.RootAt();
  std::uint32_t cluster = 10;
  for (const std::u16string& name : names) {
    at += fat.PutLongEntry(at, name, {"FILE" + std::to_string(cluster) + "  TXT", 0x20, cluster, 600});
    fat.Chain({cluster, cluster + 1});
    fat.Fill(cluster, std::string(600, static_cast<char>('a' + cluster % 26)));
    cluster += 2;
  }
  return fat;
}

struct TFixture {
  TEngine Engine;
  TTemporaryFolder Target;
  TMounted Source;
  TRecovery Recovery{Engine, [](const TTreeEntry&) { return true; }};

  explicit TFixture(const TFatBuilder& fat) : Source(Mount(Engine, fat.Image)) {
    AnalyseDrive(Engine, Source.Number);
    Engine.Recovering = true;
    REQUIRE(Recovery.SetTarget(Target.Path()) == 0);
  }
  const TRecoverySummary& Run() {
    Recovery.Recover(Source.Number, u"");
    return Recovery.Summary();
  }
};

}  // namespace

TEST_CASE("hostile names become harmless ones") {
  CHECK(SafeName(u"plain.txt") == "plain.txt");
  CHECK(SafeName(u"a:b/c\\d*?.txt") == "a_b_c_d__.txt");
  CHECK(SafeName(u"..") == "_..");
  CHECK(SafeName(u".") == "_.");
  CHECK(SafeName(u"") == "_");
  CHECK(SafeName(u"...") == "_...");
  CHECK(SafeName(TStringView(u"nul\0tab\t", 8)) == "nul_tab_");
  CHECK(SafeName(u".hidden") == ".hidden");
  CHECK(SafeName(u"x:y", u'-') == "x-y");
  // Cut before the extension, never inside a character.
  const std::string cut = SafeName(std::u16string(200, u'Ж') + u".jpeg");
  CHECK(cut.size() <= 255);
  CHECK(cut.size() >= 253);
  CHECK(cut.ends_with("Ж.jpeg"));
  CHECK(NumberedName("a.txt", 2) == "a (2).txt");
  CHECK(NumberedName(".profile", 3) == ".profile (3)");
  CHECK(NumberedName(cut, 12).size() <= 255);
  CHECK(NumberedName(cut, 12).ends_with(" (12).jpeg"));
}

TEST_CASE("files, times and outcomes") {
  TFixture t(VolumeOf({u"one.txt", u"two?.txt"}));
  const TRecoverySummary& summary = t.Run();
  CHECK(summary.Files == 2);
  CHECK(summary.Whole == 2);
  CHECK(summary.Bytes == 1200);
  CHECK(summary.Faults.empty());
  CHECK(ReadFile(t.Target.Path() + "/one.txt") == std::string(600, 'k'));
  CHECK(ReadFile(t.Target.Path() + "/two_.txt") == std::string(600, 'm'));
  struct stat status {};
  REQUIRE(::stat((t.Target.Path() + "/one.txt").c_str(), &status) == 0);
  CHECK(status.st_mtim.tv_sec == 1620062406);  // 2021-05-03 17:20:06 UTC
}

TEST_CASE("nothing is overwritten and no link is followed") {
  TFixture t(VolumeOf({u"one.txt", u"evil.txt", u"../up.txt"}));
  const std::string target = t.Target.Path();
  std::ofstream(target + "/one.txt") << "mine";
  TTemporaryFolder elsewhere;
  filesystem::create_symlink(elsewhere.Path() + "/stolen", target + "/evil.txt");
  const TRecoverySummary& summary = t.Run();
  CHECK(summary.Whole == 3);
  CHECK(ReadFile(target + "/one.txt") == "mine");
  CHECK(ReadFile(target + "/one (2).txt").size() == 600);
  CHECK(ReadFile(target + "/evil (2).txt").size() == 600);
  CHECK(filesystem::is_empty(elsewhere.Path()));
  CHECK(ReadFile(target + "/.._up.txt").size() == 600);
}

TEST_CASE("folders: a link in the way is not entered, a file in the way is passed") {
  TFatBuilder fat(TFatShape{});
  fat.PutEntry(fat.RootAt(), {"DIR        ", 0x10, 5});
  fat.Chain({5});
  fat.PutDots(5, 0);
  fat.PutEntry(fat.ClusterAt(5) + 64, {"INSIDE  TXT", 0x20, 9, 3});
  fat.Chain({9});
  fat.Fill(9, "abc");
  TFixture t(fat);
  TTemporaryFolder elsewhere;
  filesystem::create_directory_symlink(elsewhere.Path(), t.Target.Path() + "/DIR");
  std::string path;
  t.Recovery.OnFile = [&](const TTreeEntry&, const TFileOutcome& outcome) { path = outcome.Path; };
  CHECK(t.Run().Whole == 1);
  CHECK(path == "DIR (2)/INSIDE.TXT");
  CHECK(filesystem::is_empty(elsewhere.Path()));
  CHECK(ReadFile(t.Target.Path() + "/DIR (2)/INSIDE.TXT") == "abc");
  struct stat status {};
  REQUIRE(::stat((t.Target.Path() + "/DIR (2)").c_str(), &status) == 0);
  CHECK(status.st_mtim.tv_sec == 1620062406);
}

TEST_CASE("an unreadable place is an outcome of its file only") {
  const TFatBuilder fat = VolumeOf({u"one.txt", u"two.txt", u"three.txt"});
  TFixture t(fat);
  t.Source.Device->BadSectors = {static_cast<std::int64_t>(fat.ClusterAt(12) / 512)};
  const TRecoverySummary& summary = t.Run();
  CHECK(summary.Whole == 2);
  REQUIRE(summary.Faults.size() == 1);
  CHECK(summary.Faults[0].Outcome == TOutcome::Unreadable);
  CHECK(summary.Faults[0].Path == "two.txt");
  CHECK(ReadFile(t.Target.Path() + "/two.txt").size() == 600);
}

TEST_CASE("a stop keeps the files written up to then") {
  TFixture t(VolumeOf({u"one.txt", u"two.txt", u"three.txt"}));
  t.Recovery.OnFile = [&](const TTreeEntry&, const TFileOutcome&) { t.Engine.Recovering = false; };
  const TRecoverySummary& summary = t.Run();
  CHECK(summary.Stopped);
  CHECK(summary.Files == 1);
  CHECK(ReadFile(t.Target.Path() + "/one.txt").size() == 600);
  CHECK_FALSE(filesystem::exists(t.Target.Path() + "/two.txt"));
}

TEST_CASE("large files: reading and writing overlap, byte for byte, and a full target is told") {
  TFatBuilder fat(TFatShape{16, 512, 4, 1, 2, 512, 60000});
  constexpr std::uint32_t clusters = 2500;  // 5 MB, every second cluster
  std::vector<std::uint32_t> chain;
  std::string content;
  for (std::uint32_t i = 0; i < clusters; ++i) {
    chain.push_back(10 + 2 * i);
    std::string piece(2048, static_cast<char>('a' + i % 26));
    piece.replace(0, 6, std::to_string(100000 + i));
    fat.Fill(chain.back(), piece);
    content += piece;
  }
  fat.Chain(chain);
  content.resize(content.size() - 777);
  fat.PutEntry(fat.RootAt(), {"LARGE   BIN", 0x20, 10, static_cast<std::uint32_t>(content.size())});
  TFixture t(fat);
  CHECK(t.Run().Whole == 1);
  CHECK((ReadFile(t.Target.Path() + "/LARGE.BIN") == content));

  TChunkWriter writer;
  const THandle full(::open("/dev/full", O_WRONLY));
  REQUIRE(full.Valid());
  TByteDynArray chunk(1000, 1);
  writer.Write(full.Get(), chunk);
  CHECK(writer.Finish() == ENOSPC);
  CHECK(writer.Finish() == 0);
  const THandle fine(::open((t.Target.Path() + "/again").c_str(), O_WRONLY | O_CREAT, 0600));
  for (int i = 0; i < 50; ++i) {
    chunk.assign(1000, static_cast<std::uint8_t>(i));
    CHECK(writer.Write(fine.Get(), chunk) == 0);
  }
  CHECK(writer.Finish() == 0);
  const std::string again = ReadFile(t.Target.Path() + "/again");
  REQUIRE(again.size() == 50000);
  for (std::size_t i = 0; i < again.size(); ++i) REQUIRE(again[i] == static_cast<char>(i / 1000));
}

TEST_CASE("very deep trees are written without exhausting descriptors") {
  TFatBuilder fat(TFatShape{16, 512, 1, 1, 2, 512, 16384});
  constexpr std::uint32_t depth = 1500;
  fat.PutEntry(fat.RootAt(), {"D          ", 0x10, 10});
  for (std::uint32_t i = 0; i < depth; ++i) {
    fat.Chain({10 + i});
    fat.PutDots(10 + i, i == 0 ? 0 : 9 + i);
    const bool last = i + 1 == depth;
    fat.PutEntry(fat.ClusterAt(10 + i) + 64,
                 {last ? "DEEP    TXT" : "D          ", static_cast<std::uint8_t>(last ? 0x20 : 0x10),
                  last ? 5 : 11 + i, last ? 4U : 0});
  }
  fat.Chain({5});
  fat.Fill(5, "deep");
  TFixture t(fat);
  CHECK(t.Run().Whole == 1);
}
