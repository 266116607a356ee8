// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/sector_reader.h"

#include <doctest/doctest.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "core/device_table.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

struct TFixture {
  TEngine Engine;
  TMemoryDevice* Device = nullptr;
  TDriveInfo Drive;

  explicit TFixture(std::size_t sectors = 64) {
    TImage image(sectors * 512);
    for (std::size_t i = 0; i < image.size(); ++i) image[i] = static_cast<std::uint8_t>(i / 512);
    auto device = std::make_unique<TMemoryDevice>(std::move(image));
    Device = device.get();
    Engine.Devices().Insert(u"/test.img", std::move(device));
    Drive.Drive = u"/test.img";
    Drive.BytesPerSector = 512;
    Drive.SectorsCount = static_cast<std::int64_t>(sectors);
  }
  std::uint32_t Read(std::int64_t sector, std::int64_t count = 1) {
    return Engine.Reader().ReadDriveSectors(Drive, Buffer.data(), sector, count);
  }
  std::array<std::uint8_t, 64 * 512> Buffer{};
};

}  // namespace

TEST_CASE("reads beyond the end of a drive that failed there cost no access") {
  TFixture t;
  CHECK(t.Read(0) == 512);
  CHECK(t.Read(70) == 0);
  const int accesses = t.Device->Accesses;
  CHECK(t.Read(70) == 0);
  CHECK(t.Read(1000) == 0);
  CHECK(t.Device->Accesses == accesses);
  CHECK(t.Read(66) == 0);  // below the stored failure, though beyond the end
  CHECK(t.Device->Accesses == accesses + 1);
  CHECK(t.Read(3) == 512);  // inside the drive nothing is skipped, and nothing forgotten
  CHECK(t.Read(66) == 0);
  CHECK(t.Device->Accesses == accesses + 2);

  t.Drive.SectorsCount = 0;  // a drive of unknown size is never skipped
  CHECK(t.Read(66) == 0);
  CHECK(t.Device->Accesses == accesses + 3);
}

TEST_CASE("what was not read stays untouched, short reads and hostile numbers") {
  TFixture t;
  t.Buffer.fill(0xEE);
  CHECK(t.Read(62, 4) == 1024);
  CHECK(t.Buffer[1023] == 63);
  CHECK(t.Buffer[1024] == 0xEE);
  t.Device->BadSectors = {10};
  CHECK(t.Read(9, 3) == 0);
  CHECK(t.Read(11) == 512);
  const auto failed = t.Engine.Reader().FailedReads();
  CHECK(t.Read(INT64_MAX, 1) == 0);
  CHECK(t.Read(-1, 1) == 0);
  CHECK(t.Read(0, INT64_MAX) == 0);
  CHECK(t.Read(0, 0) == 0);
  CHECK(t.Engine.Reader().FailedReads() > failed);
}

TEST_CASE("byte access gives exactly the bytes asked for, zeros where nothing reads") {
  TFixture t;
  CHECK(t.Engine.Drives().GetDriveData(t.Drive, 511, 1) == TByteDynArray{0});
  const TByteDynArray middle = t.Engine.Drives().GetDriveData(t.Drive, 5 * 512 + 510, 4);
  CHECK(middle == TByteDynArray{5, 5, 6, 6});
  t.Device->BadSectors = {7};
  CHECK(t.Engine.Drives().GetDriveData(t.Drive, 7 * 512 + 3, 5) == TByteDynArray(5, 0));
  CHECK(t.Engine.Drives().GetDriveData(t.Drive, 64 * 512, 1).empty());
  CHECK(t.Engine.Drives().GetDriveData(t.Drive, 64 * 512 - 1, 9).size() == 9);
  CHECK(t.Engine.Drives().GetDriveData(99, 0, 1).empty());
  CHECK(t.Engine.Drives().GetBytesPerSector(99) == 512);
}

TEST_CASE("a failed open stays failed until another path is read or all is closed") {
  TTemporaryFolder folder;
  const TString late = TextFromPath(folder.Path() + "/late.img");
  const TString other = TextFromPath(folder.Path() + "/other.img");
  TDeviceTable devices;
  CHECK(devices.Get(late) == nullptr);
  CHECK(devices.LastError() == ENOENT);
  const auto create = [](const TString& path) { std::ofstream(PathFromText(path)) << std::string(1024, 'x'); };
  create(late);
  create(other);
  CHECK(devices.Get(late) == nullptr);
  CHECK(devices.Get(other) != nullptr);
  CHECK(devices.Get(late) != nullptr);
  CHECK(devices.Get(other) != nullptr);  // both stay open at once
  CHECK(devices.Get(late)->Size() == 1024);
  CHECK(OpenDevice(folder.Path()).Error == EISDIR);
  // A file that took the name of an open one is seen once that was closed.
  std::ofstream(PathFromText(other) + ".new") << std::string(2048, 'y');
  std::filesystem::rename(PathFromText(other) + ".new", PathFromText(other));
  CHECK(devices.Get(other)->Size() == 1024);
  devices.Close(other);
  CHECK(devices.Get(other)->Size() == 2048);
  // A device of the program's own goes before the file of that name, and stays when all is closed.
  devices.Insert(other, std::make_unique<TMemoryDevice>(TImage(512)));
  CHECK(devices.Get(other)->Size() == 512);
  devices.CloseAll();
  CHECK(devices.Get(other)->Size() == 512);
}

TEST_CASE("what failed beyond the end of one drive is not held against another one in the same variable") {
  TEngine engine;
  auto device = std::make_unique<TMemoryDevice>(TImage(200 * 512));
  device->BadSectors = {120};
  engine.Devices().Insert(u"/two.img", std::move(device));
  TDriveInfo drive;
  drive.Drive = u"/two.img";
  drive.BytesPerSector = 512;
  drive.SectorsCount = 100;
  TByteDynArray sector(512);
  const auto read = [&](std::int64_t at) { return engine.Reader().ReadDriveSectors(drive, sector.data(), at, 1); };
  CHECK(read(120) == 0);
  CHECK(read(130) == 0);  // not asked for any more
  drive.FirstSector = 50;
  drive.SectorsCount = 50;
  CHECK(read(130) == 512);
}

TEST_CASE("drive keys: short texts are numbers and letters, long ones paths") {
  CHECK(DevicePath(u"ABC") == "\\\\.\\ABC:");
  CHECK(DevicePath(u"999") == "\\\\.\\PhysicalDrive999");
  CHECK(DevicePath(u"\\\\.\\X:") == "\\\\.\\X:");
  CHECK(DevicePath(u"/a/b") == "/a/b");
}
