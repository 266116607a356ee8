// SPDX-License-Identifier: GPL-3.0-or-later
// What a run takes for its own, and what it calls written.
#include <doctest/doctest.h>
#include <unistd.h>

#include "core/sector_reader.h"
#include "recovery_fixture.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("only names that a run gives count as leftovers of one") {
  TFixture t(VolumeOf({u"one.txt"}));
  for (const char* name : {".brenlow-partial-12-0badcafe", ".brenlow-partial", ".brenlow-partial.txt",
                           ".brenlow-partial-of-mine", ".brenlow-partial-12-notes", ".brenlow-partial-12-"}) {
    t.Put(name, "text");
  }
  t.Run();
  CHECK_FALSE(t.Has(".brenlow-partial-12-0badcafe"));
  CHECK_FALSE(t.Has(".brenlow-partial"));  // of older versions
  for (const std::string name :
       {".brenlow-partial.txt", ".brenlow-partial-of-mine", ".brenlow-partial-12-notes", ".brenlow-partial-12-"}) {
    CAPTURE(name);
    CHECK(t.Content(name) == "text");
  }
}

TEST_CASE("a stream with bytes that could not be read, or that are a guess, is kept but not called written") {
  for (const bool isGuess : {false, true}) {
    TFixture t(VolumeOf({u"one.txt"}));
    t.Options.Streams = TStreamMode::Files;
    t.Link.Streams = [](int) {
      TADSDynArray streams(1);
      streams[0].Name = u"Notes";
      streams[0].aSize = 8;
      return streams;
    };
    const TFileTableLink defaults(t.Engine);
    t.Link.Data = [&](TByteDynArray& result, int number, int ads, std::int64_t start, std::int64_t size) {
      if (ads < 0) return defaults.GetFileData(result, number, ads, start, size);
      isGuess ? t.Engine.Reader().NoteEstimatedRead() : t.Engine.Reader().NoteFailedRead();
      result.assign(static_cast<std::size_t>(size), 0);
    };
    const TRecoverySummary& summary = t.Run();
    CHECK(summary.StreamsWritten == 0);
    CHECK(summary.StreamsFailed == 1);
    CHECK(t.Content("one.txt:Notes").size() == 8);
    CHECK(summary.Whole == 1);
  }
}

TEST_CASE("a part that the target gives no name of its own is not the next run's leftover") {
  TTemporaryFolder folder;
  std::string name;
  {
    TTargetTree target;
    REQUIRE(target.Open(folder.Path(), TSourceGuard()) == 0);
    THandle handle;
    REQUIRE(target.CreatePartial(handle) == 0);
    REQUIRE(::write(handle.Get(), "half", 4) == 4);
    name = target.KeepPartial("no such folder/big.bin");
  }
  TTargetTree next;
  REQUIRE(next.Open(folder.Path(), TSourceGuard()) == 0);
  CHECK(ReadFile(folder.Path() + "/" + name) == "half");
}

TEST_CASE("a target folder that was made for nothing goes again, one that was there stays") {
  TTemporaryFolder folder;
  const std::string fresh = folder.Path() + "/new/below";
  std::filesystem::create_directory(folder.Path() + "/mine");
  for (const std::string& path : {fresh, folder.Path() + "/mine"}) {
    TTargetTree target;
    REQUIRE(target.Open(path, TSourceGuard()) == 0);
    CHECK(std::filesystem::is_directory(path));
  }
  CHECK_FALSE(std::filesystem::exists(folder.Path() + "/new"));
  CHECK(std::filesystem::is_directory(folder.Path() + "/mine"));
  TTargetTree target;
  REQUIRE(target.Open(fresh, TSourceGuard()) == 0);
  THandle handle;
  REQUIRE(target.CreatePartial(handle) == 0);
  REQUIRE(target.Finish("one.txt", false) == 0);
  target.Close();
  CHECK(std::filesystem::exists(fresh + "/one.txt"));
}
