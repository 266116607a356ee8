// SPDX-License-Identifier: GPL-3.0-or-later
// A scan as users ask for it: which scans run, and what an exception leaves behind.
#include "analysis/scan.h"

#include <doctest/doctest.h>

#include <stdexcept>

#include "analysis/deep/all_fs.h"
#include "core/families.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

bool WantsNothing(TStringView /*extension*/) { return false; }

TScanRequest Request(int drive, bool fast, bool deep, bool lost) {
  TScanRequest request;
  request.Drive = drive;
  request.Fast = fast;
  request.Deep = deep;
  request.Lost = lost;
  return request;
}

}  // namespace

TEST_CASE("a request runs what it names, and its types and families count for it alone") {
  TEngine engine;
  const int number = Mount(engine, LoadTestImage("demo-stick.img.zst")).Number;
  int fast = 0;
  int deep = 0;
  TScanRequest request = Request(number, true, true, false);
  request.OnBegin = [&](bool isDeep) { ++(isDeep ? deep : fast); };
  request.WantsType = WantsNothing;
  CHECK(RunScan(engine, request));
  CHECK(fast == 1);
  CHECK(deep == 1);
  const int whole = engine.Files().FoundCount;
  CHECK(whole == 0);  // of the deep scan, which wanted nothing
  CHECK_FALSE(engine.AllFS().OnCanFileBeAdded);
  request.WantsType = nullptr;
  CHECK(RunScan(engine, request));
  CHECK(engine.Files().FoundCount > 0);

  // Without a family every one that has a driver is looked for: the volume is found by its folders.
  TScanRequest lost = Request(number, false, false, true);
  lost.Families = {TPartRecSystem::NTFS};
  engine.PartRecSystems = {TPartRecSystem::UFS};
  CHECK(RunScan(engine, lost));
  CHECK(engine.Files().FoundCount == 0);
  lost.Families = {};
  CHECK(RunScan(engine, lost));
  CHECK(engine.Files().FoundCount > 0);
  CHECK(engine.PartRecSystems == TPartRecSystems{TPartRecSystem::UFS});
  CHECK_FALSE(engine.PartRecRunning);
  CHECK_FALSE(RunScan(engine, Request(99, true, true, true)));
}

TEST_CASE("a scan that is stopped is not followed by the next one of its request") {
  TEngine engine;
  const int number = Mount(engine, LoadTestImage("demo-stick.img.zst")).Number;
  TScanRequest request = Request(number, true, true, false);
  int begun = 0;
  request.OnBegin = [&](bool) { ++begun; };
  engine.OnAnalyseProgress = [&](double) { engine.Analysing = false; };
  CHECK_FALSE(RunScan(engine, request));
  CHECK(begun == 1);
}

TEST_CASE("an exception inside a scan leaves no flag and no callback, and the next scan is whole") {
  for (const bool lost : {false, true}) {
    for (const bool deep : {false, true}) {
      CAPTURE(lost);
      CAPTURE(deep);
      TEngine engine;
      const int number = Mount(engine, LoadTestImage("demo-stick.img.zst")).Number;
      TScanRequest request = Request(number, !lost && !deep, deep, lost);
      request.WantsType = [](TStringView) { return true; };
      CHECK(RunScan(engine, request));
      const int whole = engine.Files().FoundCount;
      REQUIRE(whole > 0);

      bool status = true;
      engine.OnChangeAnalysingStatus = [&](int, bool on) { status = on; };
      int added = 0;
      engine.Files().OnAdded = [&](int) {
        if (++added == 2) throw std::runtime_error("the window is gone");
      };
      CHECK_THROWS_AS(RunScan(engine, request), std::runtime_error);
      engine.Files().OnAdded = nullptr;
      CHECK_FALSE(engine.Analysing);
      CHECK_FALSE(status);
      CHECK_FALSE(engine.PartRecRunning);
      CHECK(engine.PartRecSystems.Empty());
      CHECK_FALSE(engine.AllFS().OnCanFileBeAdded);
      CHECK(RunScan(engine, request));
      CHECK(engine.Files().FoundCount == whole);
    }
  }
}

TEST_CASE("exceptions from the pump and from the quick search leave both in order") {
  TEngine engine;
  const int number = Mount(engine, LoadTestImage("demo-stick.img.zst")).Number;
  int pumped = 0;
  engine.OnPump = [&] {
    if (++pumped == 1) throw std::runtime_error("the window is gone");
  };
  const auto pump = [&] {
    for (int i = 0; i < 40; ++i) engine.Pump();
  };
  CHECK_THROWS_AS(pump(), std::runtime_error);
  for (int i = 0; i < 1'000'000 && pumped < 2; ++i) pump();
  CHECK(pumped == 2);
  engine.OnPump = nullptr;

  engine.Drives().OnFound = [](int) { throw std::runtime_error("the window is gone"); };
  CHECK_THROWS_AS(engine.Drives().Find(number, 0, 1000, {}), std::runtime_error);
  CHECK_FALSE(engine.Drives().CanSearch);
}
