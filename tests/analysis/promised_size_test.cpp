// SPDX-License-Identifier: GPL-3.0-or-later
// Volumes that promise far more than their source has.
#include <doctest/doctest.h>

#include "analysis/analysis.h"
#include "support/cpu_time.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("a boot sector that promises 2 TB does not make scans walk them") {
  TImage image = LoadTestImage("lab-ntfs.img.zst");
  const std::uint64_t sectors = 0xFF800000;
  for (std::size_t i = 0; i < 8; ++i) image[0x28 + i] = static_cast<std::uint8_t>(sectors >> (8 * i));
  for (const bool search : {true, false}) {
    CAPTURE(search);
    TEngine engine;
    Mount(engine, image);
    REQUIRE(DriveOf(engine, 0).SectorsCount >= std::int64_t{0xFF800000});
    engine.PartRecSystems = {TPartRecSystem::FAT, TPartRecSystem::NTFS};
    engine.PartRecRunning = search;
    const TCpuTime time;
    if (search) {
      AnalyseDrive(engine, 0);
    } else {
      DeepAnalyseDrive(engine, 0);
    }
    CHECK(time.Seconds() < 10);
    CHECK(DriveOf(engine, 0).DeepAnalysed == TAnalyseInformation::aiFull);
    CHECK(engine.Files().List.size() > (search ? 80 : 10));
  }
}
