// SPDX-License-Identifier: GPL-3.0-or-later
// The registry of drives: bytes of a drive, values as detected, found volumes, devices that fail.
#include <doctest/doctest.h>

#include <fstream>

#include "analysis/analysis.h"
#include "support/fat_builder.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

/// A FAT16 volume of 10 MiB and a label.
TFatBuilder LabelledVolume(const std::string& label = "LABEL      ") {
  TFatShape shape;
  shape.TotalSectors = 20481;
  TFatBuilder fat(shape);
  fat.PutEntry(fat.RootAt(), {label, 0x08, 0, 0});
  fat.PutEntry(fat.RootAt() + 32, {"FILE    TXT", 0x20, 5, 7});
  fat.Chain({5});
  fat.Fill(5, "content");
  return fat;
}

}  // namespace

TEST_CASE("byte access: a bad sector costs itself and its neighbours, absurd sizes give nothing") {
  TImage image(256 * 512, 0xAB);
  TEngine engine;
  const TMounted disk = Mount(engine, image);
  disk.Device->BadSectors = {100};
  TDrives& drives = engine.Drives();
  const TByteDynArray bytes = drives.GetDriveData(disk.Number, 10, 200 * 512);
  REQUIRE(bytes.size() == 200 * 512);
  CHECK(bytes[50 * 512] == 0xAB);
  CHECK(bytes[100 * 512] == 0);
  CHECK(bytes[150 * 512] == 0xAB);
  for (const std::int64_t size : {INT64_MAX, INT64_MAX - 511, std::int64_t{1} << 40, std::int64_t{-1}}) {
    CHECK(drives.GetDriveData(disk.Number, 0, size).empty());
  }
}

TEST_CASE("taking the detected values back forgets name and free space of what was there") {
  TEngine engine;
  const TMounted source = Mount(engine, LabelledVolume().Image);
  TDriveInfo& drive = DriveOf(engine, source.Number);
  REQUIRE(drive.VolumeName == u"LABEL");
  const std::int64_t free = drive.aFreeSize;
  const TFatBuilder other = LabelledVolume("OTHER      ");
  source.Device->Image = other.Image;
  drive.aFreeSize = 1;
  engine.Drives().ResetDefaultInfo(source.Number);
  CHECK(DriveOf(engine, source.Number).VolumeName == u"OTHER");
  CHECK(DriveOf(engine, source.Number).aFreeSize == free);
}

TEST_CASE("volumes that the quick search finds are members of the drive that they lie in") {
  const TFatBuilder fat = LabelledVolume();
  TImage disk(65536 * 512);
  std::copy(fat.Image.begin(), fat.Image.end(), disk.begin() + 4096 * 512);
  TEngine engine;
  const TMounted source = Mount(engine, disk);
  engine.Drives().Find(source.Number, 0, 65536, {});
  REQUIRE(DriveOf(engine, source.Number).SubDrives == TIntegerDynArray{1});
  CHECK(DriveOf(engine, 1).IsSubDrive);
  CHECK(DriveOf(engine, 1).DriveTypes.Has(TDriveType::dtFound));
}

TEST_CASE("a failed open is tried again after any other device, and by mounting") {
  TTemporaryFolder folder;
  const TString late = TextFromPath(folder.Path() + "/late.img");
  const auto create = [](const TString& path) { std::ofstream(PathFromText(path)) << std::string(4096, 'x'); };
  TEngine engine;
  TDeviceTable& devices = engine.Devices();
  SUBCASE("one that is open already") {
    const TString open = TextFromPath(folder.Path() + "/open.img");
    create(open);
    REQUIRE(devices.Get(open) != nullptr);
    CHECK(devices.Get(late) == nullptr);
    create(late);
    CHECK(devices.Get(late) == nullptr);
    CHECK(devices.Get(open) != nullptr);
    CHECK(devices.Get(late) != nullptr);
  }
  SUBCASE("one of the caller's own") {
    devices.Insert(u"/inserted.img", std::make_unique<TMemoryDevice>(TImage(512)));
    CHECK(devices.Get(late) == nullptr);
    create(late);
    CHECK(devices.Get(u"/inserted.img") != nullptr);
    CHECK(devices.Get(late) != nullptr);
  }
  SUBCASE("the user asks for it again") {
    TMountFailure failure;
    CHECK(engine.Drives().Mount(late, false, &failure) == -1);
    CHECK(failure.SystemError == ENOENT);
    create(late);
    CHECK(engine.Drives().Mount(late, false, &failure) == 0);
    CHECK(failure.SystemError == 0);
  }
}
