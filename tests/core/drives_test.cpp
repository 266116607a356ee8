// SPDX-License-Identifier: GPL-3.0-or-later
#include <doctest/doctest.h>

#include <string_view>

#include "analysis/analysis.h"
#include "core/device/source_guard.h"
#include "core/device/system_disks.h"
#include "core/language.h"
#include "support/fat_builder.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

constexpr std::uint32_t SectorsOf10MiB = 20480;

/// A disk with volumes of the given starts, each a FAT16 with one file.
TImage DiskWith(const std::vector<std::uint32_t>& starts, std::size_t sectors) {
  TImage image(sectors * 512);
  std::vector<TTableEntry> entries;
  for (const std::uint32_t start : starts) {
    TFatShape shape;
    shape.TotalSectors = SectorsOf10MiB;
    TFatBuilder fat(shape);
    fat.PutEntry(fat.RootAt(), {"FILE    TXT", 0x20, 5, 9});
    fat.Chain({5});
    fat.Fill(5, "content " + std::to_string(start % 10));
    std::copy(fat.Image.begin(), fat.Image.end(), image.begin() + static_cast<std::ptrdiff_t>(start) * 512);
    entries.push_back({0x06, start, SectorsOf10MiB});
  }
  PutTable(image, 0, entries);
  return image;
}

}  // namespace

TEST_CASE("mounting a disk lists it, its volumes and its large gaps") {
  TEngine engine;
  const TMounted disk = Mount(engine, DiskWith({2048, 65536}, 131072));
  REQUIRE(disk.Number == 0);
  TDrives& drives = engine.Drives();
  REQUIRE(drives.List.size() == 5);
  CHECK(drives.IsPhysical(0));
  CHECK(drives.List[0].Volumes == TIntegerDynArray{1, 2, 3, 4});
  CHECK(drives.List[1].FirstSector == 2048);
  CHECK(drives.List[1].FileSystem == TFileSystem::fsFAT16);
  CHECK(drives.List[2].FirstSector == 65536);
  CHECK(drives.List[3].ReceivedType == TReceivedType::rtByUnallocatedSpace);
  CHECK(drives.List[3].FirstSector == 2048 + SectorsOf10MiB);
  CHECK(drives.List[4].FirstSector == 65536 + SectorsOf10MiB);
  CHECK_FALSE(drives.CanBeAnalysed(3));
  CHECK(engine.Drives().GetPartitionTypeCaption(drives.List[1]) == u"primary");
  CHECK(engine.Drives().GetPartitionTypeCaption(drives.List[3]).empty());
  // The same source twice is one drive.
  CHECK(drives.Mount(u"/test.img", false) == 0);
}

TEST_CASE("small partitions get no row, those with a lost boot sector take the table's word") {
  TImage image = DiskWith({2048}, 65536);
  PutTable(image, 0, {{0x06, 2048, SectorsOf10MiB}, {0x06, 40000, 16383}, {0x0B, 30000, 16384}, {0x06, 65536, 90000}});
  TEngine engine;
  Mount(engine, image);
  TDrives& drives = engine.Drives();
  CHECK(std::none_of(drives.List.begin(), drives.List.end(),
                     [](const TDriveInfo& d) { return d.FirstSector == 40000 || d.FirstSector == 65536; }));
  const auto named =
      std::find_if(drives.List.begin(), drives.List.end(), [](const TDriveInfo& d) { return d.FirstSector == 30000; });
  REQUIRE(named != drives.List.end());
  CHECK(named->FileSystem == TFileSystem::fsFAT32);
}

TEST_CASE("an image of a disk with native 4 KiB sectors is understood") {
  TFatBuilder fat(TFatShape{16, 4096, 1, 1, 2, 512, 8192});
  fat.PutEntry(fat.RootAt(), {"FILE    TXT", 0x20, 5, 9});
  fat.Chain({5});
  fat.Fill(5, "content 4");
  TImage disk(10000 * 4096);
  std::copy(fat.Image.begin(), fat.Image.end(), disk.begin() + 256 * 4096);
  disk[446 + 4] = 0xEE;
  disk[446 + 8] = 1;
  const auto put = [&](std::size_t at, std::uint64_t value) {
    for (std::size_t i = 0; i < 8; ++i) disk[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
  };
  put(4096 + 12, 92);
  put(4096 + 72, 2);
  put(4096 + 80, (std::uint64_t{128} << 32) | 128);
  put(2 * 4096, 0x11);
  put(2 * 4096 + 32, 256);
  put(2 * 4096 + 40, 256 + 8191);
  SUBCASE("told by the place of the header, whatever the volumes hold") {
    std::fill(disk.begin() + 256 * 4096, disk.end(), std::uint8_t{0});
    constexpr std::string_view signature = "EFI PART";
    std::copy(signature.begin(), signature.end(), disk.begin() + 4096);
    TEngine engine;
    Mount(engine, disk);
    REQUIRE(engine.Drives().List.size() == 2);
    CHECK(DriveOf(engine, 1).BytesPerSector == 4096);
    return;
  }
  SUBCASE("told by its volume") {}
  TEngine engine;
  Mount(engine, disk);
  REQUIRE(engine.Drives().List.size() == 2);
  CHECK(DriveOf(engine, 0).BytesPerSector == 4096);
  CHECK(DriveOf(engine, 1).FirstSector == 256);
  AnalyseDrive(engine, 1);
  CHECK(WalkText(engine, 1).starts_with("FILE.TXT 9 2021"));
}

TEST_CASE("a disk is analysed as its volumes, and a stop keeps what was found") {
  TEngine engine;
  const TMounted disk = Mount(engine, DiskWith({2048, 32768}, 65536));
  SUBCASE("to the end") {
    AnalyseDrive(engine, disk.Number);
    const TDriveInfo& drive = DriveOf(engine, disk.Number);
    REQUIRE(drive.SubDrives.size() == 2);
    CHECK(drive.DeepAnalysed == TAnalyseInformation::aiFull);
    CHECK(DriveOf(engine, 1).Analysed == TAnalyseInformation::aiNone);  // the volumes themselves stay as they were
    CHECK(WalkText(engine, drive.SubDrives[0]).starts_with("FILE.TXT 9 2021-05-03T17:20:06"));
    CHECK(DriveOf(engine, drive.SubDrives[1]).IsSubDrive);
    AnalyseDrive(engine, disk.Number);  // anew: nothing is doubled
    CHECK(DriveOf(engine, disk.Number).SubDrives.size() == 2);
    CHECK(engine.Files().List.size() == 2);
  }
  SUBCASE("stopped after the first volume") {
    engine.Files().OnAdded = [&](int) { engine.Analysing = false; };
    AnalyseDrive(engine, disk.Number);
    CHECK(DriveOf(engine, disk.Number).DeepAnalysed == TAnalyseInformation::aiPartial);
    CHECK(DriveOf(engine, disk.Number).SubDrives.size() == 1);
    CHECK(engine.Files().List.size() == 1);
  }
  SUBCASE("without volumes") {
    DriveOf(engine, disk.Number).Volumes.clear();
    AnalyseDrive(engine, disk.Number);
    CHECK(DriveOf(engine, disk.Number).DeepAnalysed == TAnalyseInformation::aiFull);
  }
}

TEST_CASE("deleting a drive closes up numbers everywhere") {
  TEngine engine;
  TDrives& drives = engine.Drives();
  const int first = Mount(engine, DiskWith({2048}, 32768), u"/one.img").Number;
  const int second = Mount(engine, DiskWith({2048}, 32768), u"/two.img").Number;
  AnalyseDrive(engine, second + 1);
  REQUIRE(engine.Files().List.size() == 1);
  TIntegerDynArray deleted;
  drives.OnDeleted = [&](int number) { deleted.push_back(number); };
  drives.Delete(first);
  CHECK(deleted.size() == 2);
  CHECK(drives.List[0].Drive == u"/two.img");
  CHECK(drives.List[0].Volumes == TIntegerDynArray{1});
  CHECK(engine.Files().List[0].FileInfo.aDriveNumber == 1);
  CHECK(WalkText(engine, 1).starts_with("FILE.TXT 9"));
  drives.Delete(99);
  CHECK(drives.List.size() == 2);
}

TEST_CASE("sources that are no disks are refused with their reason") {
  TEngine engine;
  TMountFailure failure;
  CHECK(engine.Drives().Mount(u"/does/not/exist", false, &failure) == -1);
  CHECK(failure.SystemError == ENOENT);
  engine.Devices().Insert(u"/tiny", std::make_unique<TMemoryDevice>(TImage(511)));
  CHECK(engine.Drives().Mount(u"/tiny", false, &failure) == -1);
  CHECK(failure.TooSmall);
}

TEST_CASE("a floppy is left alone unless asked for, and its disk is waited for") {
  TEngine engine;
  TDriveInfo drive;
  drive.Drive = u"/dev/no-floppy";
  drive.DriveLetter = u"A";
  drive.DriveTypes = {TDriveType::dtVolume};
  drive.FileSystem = TFileSystem::fsFAT12;
  const int number = engine.Drives().Add(drive, false);
  CHECK_FALSE(engine.Drives().GetInfo(DriveOf(engine, number), false, true, false));
  CHECK(engine.Drives().GetSize(DriveOf(engine, number), false) == 0);
  int asked = 0;
  engine.OnAskRetry = [&](const TString& question) {
    CHECK(question.find(u"A:") != TString::npos);
    if (++asked == 2) engine.Devices().Insert(drive.Drive, std::make_unique<TMemoryDevice>(TImage(512)));
    return true;
  };
  CHECK_FALSE(engine.Drives().IsDiskIn(number, false));
  CHECK(engine.Drives().IsDiskIn(number, true));
  CHECK(asked == 2);
  CHECK(engine.Drives().IsDiskIn(99, true));
}

TEST_CASE("a target on the source is recognised") {
  const auto LiesOnSource = [](const std::string& folder, const std::string& source) {
    TSourceGuard guard;
    if (const auto identity = IdentityOf(source)) guard.Add(*identity);
    return guard.LiesOnSource(folder);
  };
  const auto volumes = ListMountedVolumes();
  if (volumes.empty()) MESSAGE("no block device is mounted here: skipped");
  for (const TMountedVolume& volume : volumes) {
    CHECK(LiesOnSource(volume.MountPoint, volume.DevicePath));
    CHECK(LiesOnSource(volume.MountPoint, volume.DiskPath));
  }
  CHECK_FALSE(LiesOnSource("/", "/etc/passwd"));
  CHECK_FALSE(LiesOnSource("/does/not/exist", "/dev/null"));
}

TEST_CASE("a drive without a known file system counts as analysed, with a message") {
  TEngine engine;
  const int number = Mount(engine, TImage(1 << 20)).Number;
  DriveOf(engine, number).DriveTypes.Remove(TDriveType::dtPhysical);
  std::vector<TText> messages;
  engine.OnMessage = [&](const TEngineMessage& m) { messages.push_back(m.Id); };
  AnalyseDrive(engine, number);
  REQUIRE_FALSE(messages.empty());
  CHECK((messages.front() == TText::NothingToAnalyse));
  CHECK(DriveOf(engine, number).Analysed == TAnalyseInformation::aiFull);
  CHECK_FALSE(engine.Analysing);
}
