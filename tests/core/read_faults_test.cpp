// SPDX-License-Identifier: GPL-3.0-or-later
// Disks that fail: what is asked of them, and how often.
#include <doctest/doctest.h>

#include <algorithm>
#include <array>

#include "analysis/analysis.h"
#include "core/sector_reader.h"
#include "support/failing_device.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

constexpr std::int64_t Sectors = 20000;

/// A disk of which sector N is full of the number N (of its low byte, never 0).
struct TDisk {
  TEngine Engine;
  TFailingDevice* Device = nullptr;
  TDriveInfo Drive;
  TByteDynArray Buffer = TByteDynArray(Sectors * 512);

  explicit TDisk(std::int64_t failureMilliseconds) {
    TImage image(Sectors * 512);
    for (std::size_t i = 0; i < image.size(); ++i) image[i] = Content(static_cast<std::int64_t>(i / 512));
    auto device = std::make_unique<TFailingDevice>(std::move(image));
    Device = device.get();
    Device->FailureMilliseconds = failureMilliseconds;
    Engine.Devices().Insert(u"/bad.img", std::move(device));
    Engine.Reader().Clock = [this] { return Device->Clock * 1000; };
    Drive.Drive = u"/bad.img";
    Drive.BytesPerSector = 512;
    Drive.SectorsCount = Sectors;
  }
  static std::uint8_t Content(std::int64_t sector) { return static_cast<std::uint8_t>(sector % 255 + 1); }

  /// A pass over the disk as scans do it, or over a file that fills it. The sectors not read.
  std::int64_t Pass(TReadEffort effort) {
    constexpr std::int64_t block = 256;
    Engine.Analysing = effort == TReadEffort::Scan;
    Engine.Recovering = effort == TReadEffort::Content;
    std::int64_t unread = 0;
    for (std::int64_t first = 0; first < Sectors; first += block) {
      const auto count = static_cast<std::size_t>(std::min(block, Sectors - first) * 512);
      unread += Engine.Reader().ReadOrZero(
          Drive, std::span(Buffer).subspan(static_cast<std::size_t>(first) * 512, count), first, effort);
    }
    Engine.Analysing = Engine.Recovering = false;
    return unread;
  }
  /// How many sectors that read are not in the buffer, plus those that are there and do not read.
  std::int64_t WrongSectors() const {
    std::int64_t wrong = 0;
    for (std::int64_t i = 0; i < Sectors; ++i) {
      const std::uint8_t expected = Device->IsBad(i * 512) ? 0 : Content(i);
      wrong += Buffer[static_cast<std::size_t>(i * 512)] != expected ? 1 : 0;
    }
    return wrong;
  }
  std::int64_t FailedReads() const { return static_cast<std::int64_t>(Device->Failures.size()); }
};

}  // namespace

TEST_CASE("a sector that failed is not asked for again in a run") {
  for (const bool givesWhatLiesBefore : {false, true}) {
    TDisk disk(0);
    disk.Device->GivesWhatLiesBefore = givesWhatLiesBefore;
    for (const std::int64_t sector : {100, 101, 102, 5000, 19999}) disk.Device->FailSectors(sector);
    CHECK(disk.Pass(TReadEffort::Content) == 5);
    CHECK(disk.WrongSectors() == 0);
    CHECK(disk.Device->MostTriesOfASector() <= 2);  // in a large request, and alone
    const std::int64_t failed = disk.FailedReads();
    CHECK(failed <= 8);
    const std::uint64_t told = disk.Engine.Reader().FailedReads();
    CHECK(disk.Pass(TReadEffort::Content) == 5);
    CHECK(disk.Pass(TReadEffort::Scan) == 5);
    CHECK(disk.FailedReads() == failed);
    CHECK(disk.Engine.Reader().FailedReads() > told);  // it still counts as a failure, for those who ask
    CHECK(disk.Engine.Reader().Unread().Sectors == 5);
    CHECK(disk.Engine.Reader().Unread().LeftOut == 0);
    // What comes before a known bad place reads; the place itself is no access.
    CHECK(disk.Engine.Reader().ReadDriveSectors(disk.Drive, disk.Buffer.data(), 98, 8) == 1024);
    const std::int64_t accesses = disk.Device->Accesses;
    CHECK(disk.Engine.Reader().ReadDriveSectors(disk.Drive, disk.Buffer.data(), 100, 8) == 0);
    CHECK(disk.Device->Accesses == accesses);

    disk.Device->Heal();
    disk.Engine.Reader().ForgetFaults();
    CHECK(disk.Pass(TReadEffort::Content) == 0);
    CHECK(disk.WrongSectors() == 0);
  }
}

TEST_CASE("the same large request is not failed twice: the second time its bad sector is found") {
  TDisk disk(0);
  disk.Device->FailSectors(40);
  const auto read = [&] { return disk.Engine.Reader().ReadDriveSectors(disk.Drive, disk.Buffer.data(), 32, 16); };
  CHECK(read() == 0);
  CHECK(read() == 8 * 512);
  CHECK(disk.FailedReads() == 2);
  CHECK(read() == 8 * 512);
  CHECK(disk.FailedReads() == 2);
}

TEST_CASE("what a scan left out and reads comes whole in one request for the content of a file") {
  TDisk disk(100);
  disk.Device->FailSectors(1003);
  disk.Pass(TReadEffort::Scan);
  const auto read = [&](std::int64_t first, std::int64_t count) {
    disk.Engine.Recovering = true;
    return disk.Engine.Reader().ReadDriveSectors(disk.Drive, disk.Buffer.data(), first, count) / 512;
  };
  REQUIRE(disk.Engine.Reader().IsLeftOut(disk.Drive, 1001));
  REQUIRE(disk.Engine.Reader().IsLeftOut(disk.Drive, 1005));
  CHECK(read(1004, 8) == 8);  // half of it left out, half of it read before
  CHECK(read(996, 16) == 7);
  CHECK(disk.Buffer[6 * 512] == TDisk::Content(1002));
}

TEST_CASE("a place beyond the end that failed is asked for again once the source may have changed") {
  for (const bool all : {false, true}) {
    TDisk disk(0);
    disk.Drive.SectorsCount = 100;
    disk.Device->FailSectors(100);
    const auto read = [&] { return disk.Engine.Reader().ReadDriveSectors(disk.Drive, disk.Buffer.data(), 100, 1); };
    CHECK(read() == 0);
    disk.Device->Heal();
    CHECK(read() == 0);
    all ? disk.Engine.Reader().ForgetFaults() : disk.Engine.Reader().ForgetFaults(disk.Drive.Drive);
    CHECK(read() == 512);
  }
}

TEST_CASE("scans of a slow disk: a bad zone costs a few failures, single bad sectors nothing but themselves") {
  TDisk zone(100);
  zone.Engine.Reader().BadTimeLimit = INT64_MAX;
  zone.Device->FailSectors(3000, 2048);
  zone.Pass(TReadEffort::Scan);
  CHECK(zone.WrongSectors() == 0);  // its end was found to the sector
  CHECK(zone.FailedReads() < 30);
  CHECK(zone.Engine.Reader().Unread().LeftOut + zone.Engine.Reader().Unread().Sectors == 2048);
  const std::int64_t failed = zone.FailedReads();
  zone.Pass(TReadEffort::Scan);
  CHECK(zone.FailedReads() == failed);

  // The content of files is worth each sector, once; and --retry all of it to scans, too.
  zone.Pass(TReadEffort::Content);
  CHECK(zone.FailedReads() <= 2048 + 30);
  CHECK(zone.Engine.Reader().Unread().Sectors == 2048);
  TDisk retry(100);
  retry.Device->FailSectors(3000, 500);
  retry.Engine.Reader().TriesEverySector = true;
  retry.Pass(TReadEffort::Scan);
  CHECK(retry.Engine.Reader().Unread().Sectors == 500);

  TDisk strewn(100);
  for (std::int64_t sector = 50; sector < Sectors; sector += 400) strewn.Device->FailSectors(sector);
  strewn.Pass(TReadEffort::Scan);
  CHECK(strewn.FailedReads() <= 2 * 50);
  CHECK(strewn.Pass(TReadEffort::Content) == 50);
  CHECK(strewn.WrongSectors() == 0);

  TDisk half(100);
  half.Device->FailSectors(Sectors / 2, Sectors / 2);
  half.Pass(TReadEffort::Scan);
  CHECK(half.WrongSectors() == 0);
  CHECK(half.FailedReads() < 40);
}

TEST_CASE("scans find what reads between a bad zone and a last sector that fails") {
  for (const std::int64_t before : {1000, 300, 40}) {
    CAPTURE(before);
    TDisk disk(100);
    disk.Device->FailSectors(Sectors - before, before * 6 / 10);
    disk.Device->FailSectors(Sectors - 1);
    disk.Pass(TReadEffort::Scan);
    CHECK(disk.WrongSectors() <= 7);  // the 4 KiB with the last sector
    CHECK(disk.FailedReads() < 40);
  }
}

TEST_CASE("a scan gives up 4 KiB for a slow bad sector, and not a sector more for a fast one") {
  for (const std::int64_t milliseconds : {0, 100}) {
    TDisk disk(milliseconds);
    disk.Device->FailSectors(1003);
    CHECK(disk.Pass(TReadEffort::Scan) == (milliseconds == 0 ? 1 : 8));
    CHECK(disk.FailedReads() == 2);
    CHECK(disk.Pass(TReadEffort::Content) == 1);  // its neighbours come with the content
    CHECK(disk.WrongSectors() == 0);
  }
}

TEST_CASE("failures take no more than the time that there is for them") {
  TDisk disk(1000);
  disk.Engine.Reader().BadTimeLimit = 60'000'000;
  disk.Device->FailSectors(Sectors / 2, Sectors / 4);
  disk.Pass(TReadEffort::Content);
  CHECK(disk.Engine.Reader().WasOutOfTime());
  CHECK(disk.Device->Clock < 80'000);
  const auto unread = disk.Engine.Reader().Unread();
  CHECK(unread.Sectors > 40);
  CHECK(unread.Sectors + unread.LeftOut == Sectors / 4);
  CHECK(disk.WrongSectors() == 0);

  // Strewn over the disk, they end the search for content early; all that is missing is told.
  TDisk strewn(1000);
  strewn.Engine.Reader().BadTimeLimit = 10'000'000;
  for (std::int64_t sector = 10; sector < Sectors; sector += 20) strewn.Device->FailSectors(sector);
  const std::int64_t missing = strewn.Pass(TReadEffort::Content);
  CHECK(strewn.Device->Clock < 40'000);
  CHECK(missing == strewn.Engine.Reader().Unread().Sectors + strewn.Engine.Reader().Unread().LeftOut);
  strewn.Engine.Reader().RenewBadTime();
  strewn.Engine.Reader().BadTimeLimit = INT64_MAX;
  CHECK(strewn.Pass(TReadEffort::Content) == Sectors / 20);
  CHECK(strewn.WrongSectors() == 0);
}
