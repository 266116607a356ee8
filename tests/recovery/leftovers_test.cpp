// SPDX-License-Identifier: GPL-3.0-or-later
// What a run takes for its own, and what it calls written.
#include <doctest/doctest.h>

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
    t.Link.GetStreams = [](int) {
      TADSDynArray streams(1);
      streams[0].Name = u"Notes";
      streams[0].aSize = 8;
      return streams;
    };
    const TRecoveryMasterLink defaults(t.Engine);
    t.Link.GetFileData = [&](TByteDynArray& result, int number, int ads, std::int64_t start, std::int64_t size) {
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
