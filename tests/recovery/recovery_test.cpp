// SPDX-License-Identifier: GPL-3.0-or-later
#include <doctest/doctest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "recovery/file_sink.h"
#include "recovery/long_path.h"
#include "recovery/master_link.h"
#include "recovery/questions.h"
#include "recovery/recovery_list.h"
#include "recovery/recovery_master.h"
#include "recovery/safe_name.h"
#include "recovery/save_progress.h"
#include "recovery_fixture.h"
#include "support/fat_builder.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;
namespace filesystem = std::filesystem;

namespace {

constexpr TSelectedFile Select(int number) { return {number, false}; }

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
  CHECK(WithSuffix(cut, ".partial").size() <= 255);
  CHECK(SafeName(u".brenlow-partial") == "_.brenlow-partial");
  CHECK(SafeName(u".Brenlow-Lock") == "_.Brenlow-Lock");
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

TEST_CASE("empty files have their times, and a file that ends early does not stop the others") {
  TFatBuilder fat = VolumeOf({u"short.txt", u"whole.txt"});
  fat.PutEntry(fat.RootAt() + 2 * 64, {"EMPTY   TXT", 0x20, 0, 0});
  TFixture t(fat);
  const TFileTableLink defaults(t.Engine);
  const int cut = t.NumberOf(u"short.txt");
  t.Link.Data = [&](TByteDynArray& result, int number, int ads, std::int64_t start, std::int64_t size) {
    defaults.GetFileData(result, number, ads, start, size);
    if (number == cut) result.resize(start == 0 ? 100 : 0);
  };
  const TRecoverySummary& summary = t.Run();
  CHECK(summary.Short == 1);
  CHECK(summary.Whole == 2);
  REQUIRE(summary.Faults.size() == 1);
  CHECK(summary.Faults[0].Written == 100);
  CHECK(summary.Faults[0].Listed == 600);
  CHECK(t.Content("short.txt") == std::string(100, 'k'));
  CHECK(t.Content("whole.txt").size() == 600);
  struct stat status {};
  REQUIRE(::stat((t.Target.Path() + "/EMPTY.TXT").c_str(), &status) == 0);
  CHECK(status.st_size == 0);
  CHECK(status.st_mtim.tv_sec == 1620062406);
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
  t.OnFile = [&](const TFileOutcome& outcome, bool) { path = outcome.Path; };
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
  t.OnFile = [&](const TFileOutcome&, bool) { t.Engine.Recovering = false; };
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
  TFileSink nowhere(full.Get(), false);
  TByteDynArray chunk(1000, 1);
  writer.Write(nowhere, chunk);
  CHECK(writer.Finish() == ENOSPC);
  CHECK(writer.Finish() == 0);
  const THandle fine(::open((t.Target.Path() + "/again").c_str(), O_WRONLY | O_CREAT, 0600));
  TFileSink sink(fine.Get(), false);
  for (int i = 0; i < 50; ++i) {
    chunk.assign(1000, static_cast<std::uint8_t>(i));
    CHECK(writer.Write(sink, chunk) == 0);
  }
  CHECK(writer.Finish() == 0);
  const std::string again = ReadFile(t.Target.Path() + "/again");
  REQUIRE(again.size() == 50000);
  for (std::size_t i = 0; i < again.size(); ++i) REQUIRE(again[i] == static_cast<char>(i / 1000));
}

TEST_CASE("taken names: every answer") {
  const TFatBuilder fat = VolumeOf({u"a.txt", u"b.txt", u"c.txt"});
  using enum TRenameResult;
  TFixture t(fat);
  for (const char* name : {"a.txt", "a (2).txt", "b.txt", "c.txt"}) t.Put(name, "mine");
  const auto mine = [&](const std::string& name) { return t.Content(name) == "mine"; };

  SUBCASE("replace one, rename one, skip one") {
    // The first new name is taken as well, so the question comes again.
    t.Script.Exists = {{rrReplace, {}}, {rrRename, u"c.txt"}, {rrRename, u"other.txt"}, {rrSkip, {}}};
    const TRecoverySummary& summary = t.Run();
    CHECK(t.Script.Asked ==
          std::vector<std::string>{"a.txt|a (3).txt", "b.txt|b (2).txt", "c.txt|c (2).txt", "c.txt|c (2).txt"});
    CHECK(summary.Whole == 2);
    CHECK(summary.Skipped == 1);
    CHECK(t.Content("a.txt") == std::string(600, 'k'));
    CHECK(t.Content("other.txt") == std::string(600, 'm'));
    CHECK((mine("a (2).txt") && mine("b.txt") && mine("c.txt")));
  }
  SUBCASE("answers for all are asked for once") {
    for (const TRenameResult all : {rrReplaceAll, rrSkipAll, rrRenameAll}) {
      t.Script.Exists = {{all, {}}};
      t.Script.Asked.clear();
      const TRecoverySummary& summary = t.Run();
      CHECK(t.Script.Asked.size() == 1);
      CHECK(summary.Whole == (all == rrSkipAll ? 0 : 3));
      CHECK(summary.Skipped == (all == rrSkipAll ? 3 : 0));
      CHECK(t.Has("a (3).txt") == (all == rrRenameAll));
    }
  }
}

TEST_CASE("files of one run that share a name are all kept, whatever the answer, and keep their names") {
  TFatBuilder fat = VolumeOf({u"a.txt"});
  const std::size_t second = fat.RootAt() + 64;
  fat.PutLongEntry(second, u"a.txt", {"\xE5ILE90  TXT", 0x20, 90, 300}, true);
  fat.Fill(90, std::string(300, 'D'));
  for (const TRenameResult answer : {TRenameResult::rrReplaceAll, TRenameResult::rrSkipAll}) {
    TFixture t(fat);
    t.Options.NumberDoubles = true;
    t.Script.Exists = {{answer, {}}};
    CHECK(t.Run().Whole == 2);
    CHECK(t.Content("a.txt").size() == 600);
    CHECK(t.Content("a (2).txt").size() == 300);
    // What an earlier run has not written yet is written under the same name.
    filesystem::remove(t.Target.Path() + "/a (2).txt");
    t.Run();
    CHECK(t.Content("a (2).txt").size() == 300);
    CHECK_FALSE(t.Has("a (3).txt"));
  }
}

TEST_CASE("refused characters: replaced, asked for, skipped") {
  TFatBuilder fat = VolumeOf({u"a:b.txt", u"c*d?.txt", u"fine.txt"});
  const std::size_t at = fat.RootAt() + 3 * 64;
  fat.PutLongEntry(at, u"bad<dir>", {"BADDIR     ", 0x10, 50});
  fat.Chain({50});
  fat.PutDots(50, 0);
  fat.PutEntry(fat.ClusterAt(50) + 64, {"INSIDE  TXT", 0x20, 60, 3});
  fat.Chain({60});
  TFixture t(fat);
  SUBCASE("replaced") {
    t.Options.UnknownSymbols = u"#!";
    CHECK(t.Run().Whole == 4);
    CHECK((t.Has("a#b.txt") && t.Has("c#d#.txt") && t.Has("bad#dir#/INSIDE.TXT")));
    CHECK(t.Script.Asked.empty());
  }
  SUBCASE("asked until the name is right") {
    t.Options.CanReplaceSymbols = false;
    t.Script.Names = {{TRenameAnswer::OK, u"still:bad", false, {}}, {TRenameAnswer::OK, u"good.txt", false, {}}, {}};
    const TRecoverySummary& summary = t.Run();
    CHECK(t.Script.Asked == std::vector<std::string>{"a:b.txt", "a:b.txt", "c*d?.txt", "bad<dir>"});
    CHECK(t.Content("good.txt").size() == 600);
    CHECK(summary.Whole == 2);
    CHECK(summary.Skipped == 2);  // the file below the folder counts as well
    CHECK_FALSE(t.Has("bad<dir>"));
  }
  SUBCASE("a name may still be bad when its characters are to be replaced from now on") {
    t.Options.CanReplaceSymbols = false;
    t.Script.Names = {{TRenameAnswer::OK, u"new:name", true, u"+"}};
    CHECK(t.Run().Whole == 4);
    CHECK(t.Script.Asked == std::vector<std::string>{"a:b.txt"});
    CHECK((t.Has("new+name") && t.Has("c+d+.txt") && t.Has("bad+dir+/INSIDE.TXT")));
    CHECK(t.Recovery->Options().UnknownSymbols == u"+");
  }
  SUBCASE("Skip All is not asked again") {
    t.Options.CanReplaceSymbols = false;
    t.Script.Names = {{TRenameAnswer::SkipAll, {}, false, {}}};
    CHECK(t.Run().Whole == 1);
    CHECK(t.Script.Asked == std::vector<std::string>{"a:b.txt"});
  }
}

TEST_CASE("deleted files are whole only when neither their volume nor their bytes speak against it") {
  struct TCase {
    std::string Name;
    std::string Begin;
    std::uint32_t Chained;  // the cluster is in use
    TOutcome Outcome;
    TContentDoubt Doubt;
  };
  using enum TContentDoubt;
  const std::vector<TCase> cases{{"\xE5OOD    JPG", "\xFF\xD8\xFF\xE7 of any kind", 0, TOutcome::Whole, None},
                                 {"\xE5XEXT   TXT", "no known header", 0, TOutcome::Whole, None},
                                 {"\xE5RONG   JPG", "\x89PNG", 0, TOutcome::Doubtful, OtherType},
                                 {"\xE5XERO   BIN", "", 0, TOutcome::Doubtful, OnlyZeros},
                                 {"\xE5XAKEN  JPG", "\x89PNG", 1, TOutcome::Overwritten, Overwritten}};
  TFatBuilder fat(TFatShape{});
  std::uint32_t cluster = 10;
  for (const TCase& c : cases) {
    fat.PutEntry(fat.RootAt() + (cluster - 10) * 32, {c.Name, 0x20, cluster, 100});
    fat.Fill(cluster, c.Begin);
    if (c.Chained != 0) fat.Chain({cluster});
    ++cluster;
  }
  TFixture t(fat);
  std::vector<TFileOutcome> outcomes;
  t.OnFile = [&](const TFileOutcome& outcome, bool) { outcomes.push_back(outcome); };
  const TRecoverySummary& summary = t.Run();
  CHECK(summary.Whole == 2);
  CHECK(summary.Doubtful == 2);
  CHECK(summary.Overwritten == 1);
  CHECK(summary.FaultCount() == 3);
  REQUIRE(outcomes.size() == cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i) {
    CAPTURE(cases[i].Name);
    CHECK(outcomes[i].Outcome == cases[i].Outcome);
    CHECK(outcomes[i].Doubt == cases[i].Doubt);
  }
}

TEST_CASE("several first clusters: one file, the chosen one, or all") {
  // The low half of the cluster is 100; places 100 and 65636 both begin like a PNG.
  TFatBuilder fat(TFatShape{32, 512, 1, 32, 2, 0, 70000});
  fat.Chain({2});
  fat.PutEntry(fat.RootAt(), {"\xE5IC     PNG", 0x20, 100, 300});
  const std::string magic = "\x89PNG\r\n\x1A\n";
  fat.Fill(100, magic + std::string(300, 'A'));
  fat.Fill(65636, magic + std::string(300, 'B'));
  const std::string first = (magic + std::string(300, 'A')).substr(0, 300);
  const std::string second = (magic + std::string(300, 'B')).substr(0, 300);
  TFixture t(fat);
  SUBCASE("the chosen one") {
    t.Script.Candidates = {false, 1};
    CHECK(t.Run().Doubtful == 1);  // which of them is right is not known
    CHECK((t.Content("_IC.PNG") == second));
  }
  SUBCASE("all, beside a name that is taken") {
    t.Script.Candidates = {true, 0};
    t.Put("_IC (2).PNG", "mine");
    const TRecoverySummary& summary = t.Run();
    CHECK(summary.Doubtful == 2);
    CHECK(summary.Bytes == 600);
    CHECK(t.Recovery->RecoverySize == 600);
    CHECK((t.Content("_IC.PNG") == first));
    CHECK((t.Content("_IC (3).PNG") == second));
    CHECK(t.Content("_IC (2).PNG") == "mine");
    const auto number = static_cast<std::size_t>(t.NumberOf(u"?IC.PNG"));
    CHECK(t.Engine.Files().List[number].FileInfo.FirstCluster == 100);
  }
}

TEST_CASE("streams: beside the file, as attributes, or counted") {
  TFixture t(VolumeOf({u"one.txt", u"two.txt"}));
  const std::string stream = "the stream";
  t.Link.Streams = [&](int number) {
    TADSDynArray streams(2);
    streams[0].IsSystem = true;
    streams[1].Name = u"Zone:Id";
    streams[1].aSize = static_cast<std::int64_t>(stream.size());
    return number == 0 ? streams : TADSDynArray();
  };
  const TFileTableLink defaults(t.Engine);
  t.Link.Data = [&](TByteDynArray& result, int number, int ads, std::int64_t start, std::int64_t size) {
    if (ads < 0) return defaults.GetFileData(result, number, ads, start, size);
    CHECK(ads == 1);
    result.assign(stream.begin() + start, stream.begin() + start + size);
  };
  SUBCASE("left behind") { CHECK(t.Run().StreamsLeft == 1); }
  SUBCASE("files") {
    t.Options.Streams = TStreamMode::Files;
    CHECK(t.Run().StreamsWritten == 1);
    CHECK(t.Content("one.txt:Zone_Id") == stream);
  }
  SUBCASE("attributes") {
    t.Options.Streams = TStreamMode::Attributes;
    const TRecoverySummary& summary = t.Run();
    if (summary.StreamsFailed == 1) {
      MESSAGE("this file system has no user attributes");
    } else {
      CHECK(summary.StreamsWritten == 1);
      char value[64] = {};
      CHECK(::getxattr((t.Target.Path() + "/one.txt").c_str(), "user.Zone_Id", value, sizeof value) == 10);
      CHECK(stream == value);
    }
  }
}

TEST_CASE("a sink makes holes of zeros and knows the digest") {
  const TTemporaryFolder folder;
  const std::string path = folder.Path() + "/sparse";
  const THandle handle(::open(path.c_str(), O_WRONLY | O_CREAT, 0600));
  TFileSink sink(handle.Get(), true);
  std::string content;
  const auto append = [&](const std::string& piece) {
    content += piece;
    CHECK(sink.Write({reinterpret_cast<const std::uint8_t*>(piece.data()), piece.size()}) == 0);
  };
  append(std::string(5000, 'x') + std::string(300'000, '\0'));
  append(std::string(700'001, '\0') + "y");
  append(std::string(1 << 20, '\0'));
  CHECK(sink.Finish() == 0);
  CHECK((ReadFile(path) == content));
  struct stat status {};
  REQUIRE(::fstat(handle.Get(), &status) == 0);
  CHECK(status.st_blocks * 512 < 100'000);

  TFileSink abc(handle.Get(), true);
  const std::string text = "abc";
  abc.Write({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  CHECK(abc.Digest() == "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");  // FIPS 180-4
}

TEST_CASE("holes and chunks of a large file: the target and the digest are those of all its bytes") {
  const TTemporaryFolder folder;
  const THandle handle(::open((folder.Path() + "/large").c_str(), O_WRONLY | O_CREAT, 0600));
  const THandle plain(::open((folder.Path() + "/plain").c_str(), O_WRONLY | O_CREAT, 0600));
  TFileSink sink(handle.Get(), true);
  TFileSink all(plain.Get(), true);
  TChunkWriter writer;
  for (int i = 0; i < 40; ++i) {
    TByteDynArray chunk(static_cast<std::size_t>(10'000 + i), static_cast<std::uint8_t>(i + 1));
    all.Write(chunk);
    CHECK(writer.Write(sink, chunk) == 0);
    const std::int64_t hole = i % 3 == 0 ? 70'001 : 0;
    all.Write(TByteDynArray(static_cast<std::size_t>(hole)));
    if (hole > 0) CHECK(writer.WriteHole(sink, hole) == 0);
  }
  CHECK(writer.Finish() == 0);
  CHECK(sink.Finish() == 0);
  CHECK(all.Finish() == 0);
  CHECK((ReadFile(folder.Path() + "/large") == ReadFile(folder.Path() + "/plain")));
  CHECK(sink.Digest() == all.Digest());
}

TEST_CASE("a large live file of an image file is copied by the system, and stays itself") {
  std::vector<std::uint32_t> chain;
  for (std::uint32_t cluster = 10; cluster < 3000; ++cluster) chain.push_back(cluster + (cluster > 1500 ? 7 : 0));
  TFatBuilder fat(TFatShape{});
  fat.Chain(chain);
  std::string content;
  for (const std::uint32_t cluster : chain) {
    const std::string piece(512, static_cast<char>('a' + cluster % 23));
    fat.Fill(cluster, piece);
    content += piece;
  }
  content.resize(content.size() - 100);
  fat.PutEntry(fat.RootAt(), {"LIVE    BIN", 0x20, 10, static_cast<std::uint32_t>(content.size())});
  const TTemporaryFolder folder;
  const std::string image = folder.Path() + "/volume.img";
  std::ofstream(image, std::ios::binary)
      .write(reinterpret_cast<const char*>(fat.Image.data()), static_cast<std::streamsize>(fat.Image.size()));
  TEngine engine;
  const int number = engine.Drives().Mount(FromUtf8(image), false);
  REQUIRE(number >= 0);
  AnalyseDrive(engine, number);
  const TFileTableLink link(engine);
  REQUIRE(engine.Files().List.size() == 1);
  // What needs no reading, put together, is what reading gives.
  std::string copied;
  while (copied.size() < content.size()) {
    const TFileStretch stretch = link.GetFileStretch(0, -1, static_cast<std::int64_t>(copied.size()), 100'000);
    REQUIRE(stretch.Length > 0);
    std::string piece(static_cast<std::size_t>(stretch.Length), '\0');
    if (!stretch.IsHole) REQUIRE(::pread(stretch.File, piece.data(), piece.size(), stretch.Position) > 0);
    copied += piece;
  }
  CHECK((copied == content));
  CHECK(link.GetFileStretch(0, -1, static_cast<std::int64_t>(content.size()), 1).Length == 0);
  const TTemporaryFolder target;
  const THandle out(::open((target.Path() + "/copy").c_str(), O_RDWR | O_CREAT, 0600));
  const THandle source(::open(image.c_str(), O_RDONLY));
  TFileSink sink(out.Get(), false);
  const TByteDynArray head(3, 'h');
  sink.Write(head);
  CHECK(sink.CopyFrom(source.Get(), 512, 1000) == 1000);
  sink.Write(head);
  const std::string boot(reinterpret_cast<const char*>(fat.Image.data()) + 512, 1000);
  CHECK((ReadFile(target.Path() + "/copy") == "hhh" + boot + "hhh"));
  CHECK(sink.CopyFrom(source.Get(), static_cast<std::int64_t>(fat.Image.size()) - 10, 1000) == 10);
}

TEST_CASE("long paths") {
  const TString folder(158, u'd');
  const TString exact = TString(250, u'd') + u"/" + TString(8, u'n');
  REQUIRE(exact.size() == 259);
  CHECK(ShortenLongPath(exact, u'/') == exact);
  CHECK(ShortenLongPath(exact + u"n", u'/') == folder + u"/nnnnnnnnn");
  CHECK(ShortenLongPath(folder + u"/" + TString(101, u'n'), u'/') == folder + u"/" + TString(100, u'n'));
  CHECK(ShortenLongPath(folder + u"/" + TString(96, u'n') + u" x  yz", u'/') ==
        folder + u"/" + TString(96, u'n') + u" x");
  CHECK(ShortenLongPath(TString(300, u'n'), u'/') == TString(100, u'n'));

  TFixture t(VolumeOf({TString(200, u'a') + u"1.txt", TString(200, u'a') + u"2.txt"}));
  t.Options.Path += "/" + std::string(80, 'p');
  SUBCASE("kept where the target holds them") {
    CHECK(t.Run().Whole == 2);
    CHECK(t.Content(std::string(80, 'p') + "/" + std::string(200, 'a') + "2.txt").size() == 600);
  }
  SUBCASE("shortened below the target folder, and what meets is numbered") {
    t.Options.LongPaths = TLongPaths::Shorten;
    CHECK(t.Run().Whole == 2);
    CHECK(t.Content(std::string(80, 'p') + "/" + std::string(100, 'a')).size() == 600);
    CHECK(t.Content(std::string(80, 'p') + "/" + std::string(100, 'a') + " (2)").size() == 600);
  }
}

TEST_CASE("a list that is not the file table, and results that get their folders back") {
  TFatBuilder fat(TFatShape{});
  fat.PutEntry(fat.RootAt(), {"DIR        ", 0x10, 5});
  fat.Chain({5});
  fat.PutDots(5, 0);
  fat.PutEntry(fat.ClusterAt(5) + 64, {"SUB        ", 0x10, 6});
  fat.Chain({6});
  fat.PutDots(6, 5);
  fat.PutEntry(fat.ClusterAt(6) + 64, {"DEEP    TXT", 0x20, 9, 3});
  fat.Chain({9});
  fat.Fill(9, "abc");
  TFixture t(fat);
  const int deep = t.NumberOf(u"DEEP.TXT");
  t.Link.Selected = [&](TSelectedFiles& files) { files = {Select(deep)}; };
  SUBCASE("results") {
    t.Run(true);
    CHECK(t.Recovery->CurrentRecoveringFile == deep);
    CHECK(t.Content("DIR/SUB/DEEP.TXT") == "abc");
    t.Options.RestoreFolders = false;
    t.Run(true);
    CHECK(t.Content("DEEP.TXT") == "abc");
  }
  SUBCASE("other operations") {
    t.Link.Name = [](int) { return TString(u"other name"); };
    t.Link.Data = [](TByteDynArray& result, int, int, std::int64_t, std::int64_t size) {
      result.assign(static_cast<std::size_t>(size), 'z');
    };
    t.Run();
    CHECK(t.Content("other name") == "zzz");
    t.Link.Name = nullptr;
    t.Link.Data = nullptr;
    t.Link.Selected = [&](TSelectedFiles& files) { files = {Select(deep), Select(99)}; };
    CHECK(t.Run().Files == 1);
    CHECK(t.Content("DEEP.TXT") == "abc");
  }
  SUBCASE("nothing selected") {
    t.Link.Selected = nullptr;
    CHECK(t.Run().Files == 0);
  }
}

TEST_CASE("in a folder, too, the live file keeps its name and the deleted one of that name is numbered") {
  TFatBuilder fat(TFatShape{});
  fat.PutEntry(fat.RootAt(), {"DIR        ", 0x10, 5});
  fat.Chain({5});
  fat.PutDots(5, 0);
  std::size_t at = fat.ClusterAt(5) + 64;
  at += fat.PutLongEntry(at, u"same name.txt", {"SAMENA~1TXT", 0x20, 9, 3}, true);
  fat.PutLongEntry(at, u"same name.txt", {"SAMENA~2TXT", 0x20, 10, 4});
  fat.Chain({10});
  fat.Fill(9, "old");
  fat.Fill(10, "live");
  TFixture t(fat);
  t.Options.NumberDoubles = true;
  CHECK(t.Run().Whole == 2);
  CHECK(t.Content("DIR/same name.txt") == "live");
  CHECK(t.Content("DIR/same name (2).txt") == "old");
}

TEST_CASE("leftovers of a killed run go, a stop and a full target leave a marked part") {
  TFixture t(VolumeOf({u"one.txt"}));
  TTemporaryFolder elsewhere;
  filesystem::create_symlink(elsewhere.Path() + "/stolen", t.Target.Path() + "/.brenlow-partial");
  CHECK(t.Run().Whole == 1);
  CHECK_FALSE(t.Has(".brenlow-partial"));
  CHECK(filesystem::is_empty(elsewhere.Path()));

  TTargetTree target;
  REQUIRE(target.Open(t.Target.Path(), TSourceGuard()) == 0);
  t.Put("big.bin.partial", "older");
  THandle handle;
  REQUIRE(target.CreatePartial(handle) == 0);
  REQUIRE(::write(handle.Get(), "half", 4) == 4);
  CHECK(target.KeepPartial("big.bin") == "big.bin (2).partial");
  REQUIRE(target.CreatePartial(handle) == 0);
  CHECK(target.KeepPartial("empty.bin") == "empty.bin");
  CHECK_FALSE(t.Has("empty.bin"));
  REQUIRE(target.CreatePartial(handle) == 0);
  CHECK(target.Finish("one.txt", false) == EEXIST);
}

TEST_CASE("the wizard: pages, options and the warning of the same drive") {
  TFixture t(VolumeOf({u"one.txt", u"a:b.txt"}));
  TRecoverySettings settings;
  settings.Path = t.Target.Path() + "/new";
  t.Link.Selected = [&](TSelectedFiles& files) { files = {Select(0), Select(1)}; };
  TfRecoveryMaster master(t.Engine, t.Link, settings, t.Script, TRecoverySender::rsFiles);
  std::vector<int> pages;
  std::vector<double> ratios;
  master.OnPage = [&](int page) { pages.push_back(page); };
  master.OnBeforeRecovery = [&](TfrmSaveProgress& progress) {
    progress.OnProgress = [&](double ratio, std::int64_t) { ratios.push_back(ratio); };
  };
  master.Show();
  CHECK(master.FActivePage() == TfRecoveryMaster::OutputKind);
  master.Next();
  CHECK(master.Options.SpaceRequiredText == "Space required: 1.17 KB");
  CHECK(master.Options.SpaceAvailableText.starts_with("Space available: "));
  CHECK_FALSE(master.Options.TypeSymbol(u':'));
  CHECK(master.Options.TypeSymbol(u'\b'));
  CHECK(master.Options.Choices.UnknownSymbols == u"_");
  CHECK(master.Options.TypeSymbol(u'-'));
  master.Options.Choices.CanReplaceSymbols = true;

  // The drive in focus is mounted where the target lies.
  t.Engine.Drives().Add(TDriveInfo(), false);
  t.Engine.Drives().Current = t.Source.Number;
  DriveOf(t.Engine, t.Source.Number).DriveLetter = TextFromPath(t.Target.Path());
  t.Script.GoOn = false;
  master.Next();
  CHECK(master.FActivePage() == TfRecoveryMaster::SaveOptions);
  CHECK_FALSE(t.Has("new"));
  t.Script.GoOn = true;
  master.Next();
  CHECK(t.Script.Asked == std::vector<std::string>{"same drive", "same drive"});
  CHECK(pages == std::vector<int>{0, 3, 4, 12});
  CHECK(t.Content("new/a-b.txt").size() == 600);
  CHECK(ratios == std::vector<double>{0.5, 1.0});
  CHECK(settings.UnknownSymbols == u"-");
  CHECK_FALSE(t.Engine.Recovering);

  // A remembered choice passes the first page; another kind of output leads elsewhere.
  settings.Remember = true;
  settings.Type = TRecoverType::rtCreateZIP;
  TfRecoveryMaster again(t.Engine, t.Link, settings, t.Script, TRecoverySender::rsRecoveryList);
  again.Show();
  CHECK(again.FActivePage() == TfRecoveryMaster::ZIPOptions);
}

TEST_CASE("the recovery list follows the file table") {
  TFixture t(VolumeOf({u"one.txt", u"two.txt"}));
  const TMounted other = Mount(t.Engine, VolumeOf({u"three.txt"}).Image, u"/other.img");
  AnalyseDrive(t.Engine, other.Number);
  TRecoveryList list(t.Engine);
  t.Engine.Files().OnBeforeCleared = [&](int drive) { list.ClearFiles(drive); };
  t.Engine.Files().OnNumbersMoved = [&](const auto& numbers) { list.MoveNumbers(numbers); };
  const int three = t.NumberOf(u"three.txt");
  list.AddFiles({three, 0, three, 99, 1});
  CHECK(list.Files() == TIntegerDynArray{three, 0, 1});
  list.RemoveFiles({1});
  t.Engine.Files().Clear(t.Source.Number, false);
  CHECK(list.Files() == TIntegerDynArray{t.NumberOf(u"three.txt")});
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
