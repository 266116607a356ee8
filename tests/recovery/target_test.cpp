// SPDX-License-Identifier: GPL-3.0-or-later
// What is asked of the target: one run at a time, whole files or none, nothing passed over in silence.
#include <doctest/doctest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "recovery/file_writer.h"
#include "recovery/recovery_master.h"
#include "recovery/safe_name.h"
#include "recovery_fixture.h"

using namespace brenlow;
using namespace brenlow::test;
namespace fs = std::filesystem;

namespace {

std::set<std::string> NamesIn(const std::string& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename().string());
  return names;
}

void WriteText(const THandle& handle, const std::string& text) {
  REQUIRE(::write(handle.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()));
}

/// A folder with a refused name holds a file and a good folder with another; a good one lies beside it.
TFatBuilder VolumeWithRefusedFolder() {
  TFatBuilder fat(TFatShape{});
  std::size_t at = fat.RootAt();
  at += fat.PutLongEntry(at, u"bad?", {"BAD        ", 0x10, 5});
  at += fat.PutLongEntry(at, u"good", {"GOOD       ", 0x10, 7});
  fat.Chain({5});
  fat.Chain({6});
  fat.Chain({7});
  fat.PutDots(5, 0);
  fat.PutDots(6, 5);
  fat.PutDots(7, 0);
  fat.PutEntry(fat.ClusterAt(5) + 64, {"ONE     TXT", 0x20, 10, 3});
  fat.PutEntry(fat.ClusterAt(5) + 96, {"BELOW      ", 0x10, 6});
  fat.PutEntry(fat.ClusterAt(6) + 64, {"TWO     TXT", 0x20, 11, 3});
  fat.PutEntry(fat.ClusterAt(7) + 64, {"THREE   TXT", 0x20, 12, 3});
  for (const std::uint32_t cluster : {10U, 11U, 12U}) {
    fat.Chain({cluster});
    fat.Fill(cluster, "abc");
  }
  return fat;
}

}  // namespace

TEST_CASE("two runs into one folder: the second is told, and may begin when the first is over") {
  const TTemporaryFolder folder;
  TTargetTree first;
  REQUIRE(first.Open(folder.Path(), TSourceGuard()) == 0);
  {
    TTargetTree second;
    CHECK(second.Open(folder.Path(), TSourceGuard()) == EWOULDBLOCK);
    // Another folder is another matter, and so is one inside.
    CHECK(second.Open(folder.Path() + "/inside", TSourceGuard()) == 0);
  }
  first.Close();
  CHECK(NamesIn(folder.Path()).empty());  // the folder inside was made for nothing
  TTargetTree third;
  CHECK(third.Open(folder.Path(), TSourceGuard()) == 0);
  CHECK(third.Open(folder.Path(), TSourceGuard()) == 0);  // by the same run

  // A lock file of a run that was killed holds nobody up; what only has its name stays.
  third.Close();
  const TTemporaryFolder other;
  std::ofstream(other.Path() + "/.brenlow-lock") << "mine";
  fs::create_symlink("elsewhere", folder.Path() + "/.brenlow-lock");
  for (const std::string& path : {other.Path(), folder.Path()}) {
    TTargetTree tree;
    CHECK(tree.Open(path, TSourceGuard()) == 0);
  }
  CHECK(ReadFile(other.Path() + "/.brenlow-lock") == "mine");
  CHECK(fs::is_symlink(folder.Path() + "/.brenlow-lock"));
  CHECK_FALSE(fs::exists(folder.Path() + "/elsewhere"));
}

TEST_CASE("files that are written at the same time never meet, and are there whole or not at all") {
  const TTemporaryFolder folder;
  fs::create_directories(folder.Path() + "/sub");
  TTargetTree outer;
  TTargetTree inner;
  REQUIRE(outer.Open(folder.Path(), TSourceGuard()) == 0);
  REQUIRE(inner.Open(folder.Path() + "/sub", TSourceGuard()) == 0);
  inner.UseNamedFiles();
  THandle mine;
  THandle theirs;
  REQUIRE(inner.CreatePartial(theirs) == 0);
  WriteText(theirs, "their");
  // The outer run comes by and cleans up: the other one is alive.
  REQUIRE(outer.Enter(outer.Folder(TTargetTree::Root, u"sub", {}, true)) == 0);
  REQUIRE(outer.CreatePartial(mine) == 0);
  WriteText(mine, "mine");
  WriteText(theirs, "s");
  CHECK_FALSE(fs::exists(folder.Path() + "/sub/x"));
  CHECK(outer.Finish("x", false) == 0);
  CHECK(inner.Finish("x", false) == EEXIST);
  CHECK(ReadFile(folder.Path() + "/sub/x") == "mine");
  CHECK(inner.Finish("x", true) == 0);
  CHECK(ReadFile(folder.Path() + "/sub/x") == "theirs");
  // A file that was begun and given up leaves nothing.
  REQUIRE(outer.CreatePartial(mine) == 0);
  WriteText(mine, "lost");
  outer.Close();
  inner.Close();
  CHECK(NamesIn(folder.Path() + "/sub") == std::set<std::string>{"x"});
  CHECK(NamesIn(folder.Path()) == std::set<std::string>{"sub"});
}

TEST_CASE("leftovers of dead runs go, in every folder that is entered, and nothing else does") {
  TFatBuilder fat = VolumeWithRefusedFolder();
  TFixture t(fat);
  const std::string& top = t.Target.Path();
  fs::create_directories(top + "/good");
  fs::create_directories(top + "/untouched");
  for (const char* name : {".brenlow-partial", ".brenlow-partial-77-0badcafe", "good/.brenlow-partial-1-1", "good/mine",
                           "untouched/.brenlow-partial-1-1", ".brenlow-partial-9-alive", ".brenlow"}) {
    t.Put(name, "left");
  }
  const THandle alive(::open((top + "/.brenlow-partial-9-alive").c_str(), O_RDWR | O_CLOEXEC));
  REQUIRE(::flock(alive.Get(), LOCK_EX | LOCK_NB) == 0);
  CHECK(t.Run().FaultCount() == 0);
  CHECK(NamesIn(top) == std::set<std::string>{"good", "bad_", "untouched", ".brenlow-partial-9-alive", ".brenlow"});
  CHECK(NamesIn(top + "/good") == std::set<std::string>{"mine", "THREE.TXT"});
  CHECK(NamesIn(top + "/untouched").size() == 1);
  // A source stays, even with such a name.
  t.Put(".brenlow-partial-3-3", "source");
  TSourceGuard guard;
  guard.Add(*IdentityOf(top + "/.brenlow-partial-3-3"));
  TTargetTree tree;
  CHECK(tree.Open(top, guard) == 0);
  CHECK(t.Content(".brenlow-partial-3-3") == "source");
}

TEST_CASE("where files cannot be made without a name they have one that nobody else has") {
  // An NTFS or FAT target is rare on a test machine: a folder where unnamed files fail stands for it.
  const TTemporaryFolder folder;
  std::set<std::string> seen;
  for (int i = 0; i < 3; ++i) {
    TTargetTree tree;
    REQUIRE(tree.Open(folder.Path(), TSourceGuard()) == 0);
    tree.UseNamedFiles();
    THandle handle;
    REQUIRE(tree.CreatePartial(handle) == 0);
    WriteText(handle, "text");
    const std::set<std::string> names = NamesIn(folder.Path());
    const std::string name = *std::find_if(names.begin(), names.end(), [](const std::string& n) {
      return n.starts_with(".brenlow-partial-" + std::to_string(::getpid()) + "-");
    });
    CHECK(seen.insert(name).second);
    if (i == 0) CHECK(tree.Finish("done", false) == 0);
    if (i == 1) CHECK(tree.KeepPartial("done") == "done.partial");
    if (i == 2) CHECK(tree.Finish("done", true) == 0);
    handle.Close();
  }
  CHECK(NamesIn(folder.Path()) == std::set<std::string>{"done", "done.partial"});
}

TEST_CASE("a folder that is skipped: every file below it is counted and named") {
  for (const bool all : {false, true}) {
    TFixture t(VolumeWithRefusedFolder());
    t.Options.CanReplaceSymbols = false;
    t.Script.Names = {{all ? TRenameAnswer::SkipAll : TRenameAnswer::Skip, {}, false, {}}};
    std::set<std::string> told;
    t.OnFile = [&](const TFileOutcome& outcome, bool) {
      if (outcome.Outcome == TOutcome::Skipped) told.insert(outcome.Path);
    };
    const TRecoverySummary& summary = t.Run();
    CHECK(summary.Files == 3);
    CHECK(summary.Whole == 1);
    CHECK(summary.Skipped == 2);
    CHECK(summary.SkippedForNames == 2);
    CHECK(summary.Faults.size() == 2);
    CHECK_FALSE(summary.IsAllWell());
    CHECK(told == std::set<std::string>{"bad_/ONE.TXT", "bad_/BELOW/TWO.TXT"});
    CHECK(NamesIn(t.Target.Path()) == std::set<std::string>{"good"});
    CHECK(t.Script.Asked.size() == 1);
  }
  // Taken names that are skipped are the user's own choice.
  TFixture t(VolumeOf({u"a.txt"}));
  t.Put("a.txt", "mine");
  t.Script.Exists = {{TRenameResult::rrSkipAll, {}}};
  CHECK(t.Run().Skipped == 1);
  CHECK(t.Recovery->Summary().IsAllWell());
}

TEST_CASE("more than ten times what the source holds is asked about before anything is made") {
  // 8 MiB of volume whose entries share clusters; each lists as much as the volume can hold at most.
  constexpr std::uint32_t listed = 7 << 20;
  for (const int count : {10, 11}) {
    TFatBuilder fat(TFatShape{});
    for (int i = 0; i < count; ++i) {
      const std::string name = "FILE" + std::to_string(10 + i) + "  BIN";
      fat.PutEntry(fat.RootAt() + static_cast<std::size_t>(i) * 32, {name, 0x20, 10, listed});
    }
    // What no volume of this size can hold counts for no more than the volume.
    fat.PutEntry(fat.RootAt() + static_cast<std::size_t>(count) * 32, {"HUGE    BIN", 0x20, 10, 0xFFFFFFF0});
    TFixture t(fat);
    TRecoverySettings settings;
    settings.Path = t.Target.Path() + "/new";
    TfRecoveryMaster master(t.Engine, t.Link, settings, t.Script, TRecoverySender::rsFiles);
    master.Show();
    master.Next();
    t.Script.GoOn = false;
    master.Next();
    CHECK(t.Script.Asked.size() == (count == 11 ? 1U : 0U));
    CHECK((master.FActivePage() == TfRecoveryMaster::SaveOptions) == (count == 11));
    CHECK(t.Has("new") == (count == 10));
    if (count == 10) continue;
    const std::int64_t volume = 16384 * 512;
    CHECK(t.Script.Asked[0] == std::to_string(11LL * listed + volume) + " of " + std::to_string(volume));
    t.Script.GoOn = true;
    master.Next();
    CHECK(t.Has("new/FILE20.BIN"));
  }
}

TEST_CASE("streams whose names meet on the target are numbered, in files and in attributes") {
  const std::u16string longName(255, u'Ж');
  const TADSDynArray streams = [&] {
    TADSDynArray list;
    for (const std::u16string& name : {std::u16string(u"a?b.txt"), std::u16string(u"a*b.txt"), longName + u"1",
                                       longName + u"2", std::u16string(u"plain"), std::u16string(u"plain")}) {
      TADS stream;
      stream.Name = name;
      stream.aSize = 4;
      list.push_back(stream);
    }
    return list;
  }();
  for (const TStreamMode mode : {TStreamMode::Files, TStreamMode::Attributes}) {
    TFixture t(VolumeOf({u"x.doc"}));
    const TFileTableLink defaults(t.Engine);
    t.Link.Streams = [&](int) { return streams; };
    t.Link.Data = [&](TByteDynArray& result, int file, int stream, std::int64_t start, std::int64_t size) {
      if (stream < 0) return defaults.GetFileData(result, file, stream, start, size);
      const std::string text = "str" + std::to_string(stream);
      result.assign(text.begin(), text.end());
    };
    t.Options.Streams = mode;
    t.Put("x.doc:a_b.txt", "mine");
    const TRecoverySummary& summary = t.Run();
    if (mode == TStreamMode::Attributes && summary.StreamsWritten == 0) {
      MESSAGE("no extended attributes here: skipped");
      continue;
    }
    CHECK(summary.StreamsWritten == 6);
    CHECK(summary.StreamsFailed == 0);
    if (mode == TStreamMode::Attributes) {
      char value[8] = {};
      CHECK(::getxattr((t.Target.Path() + "/x.doc").c_str(), "user.a_b (2).txt", value, sizeof value) == 4);
      CHECK(std::string(value) == "str1");
      continue;
    }
    CHECK(t.Content("x.doc:a_b.txt") == "mine");
    CHECK(t.Content("x.doc:a_b (2).txt") == "str0");
    CHECK(t.Content("x.doc:a_b (3).txt") == "str1");
    CHECK(t.Content("x.doc:plain") == "str4");
    CHECK(t.Content("x.doc:plain (2)") == "str5");
    std::set<std::string> contents;
    for (const std::string& name : NamesIn(t.Target.Path())) {
      if (name.starts_with("x.doc:Ж")) contents.insert(t.Content(name));
    }
    CHECK(contents == std::set<std::string>{"str2", "str3"});
  }
  CHECK(StreamFileName(std::string(255, 'n'), std::string(255, 's'), 1).size() == 255);
  CHECK(StreamAttributeName(std::string(255, 's'), 12).size() == 255);
}
