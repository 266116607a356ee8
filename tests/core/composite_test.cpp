// SPDX-License-Identifier: GPL-3.0-or-later
// Drives made of other drives: read through one device of their own, told apart by its key, and right about the
// numbers of others when a drive goes.
#include <doctest/doctest.h>

#include "core/sector_reader.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

/// Two drives, one after the other, read through the engine as an array reads its members.
class TJoined final : public IDevice {
 public:
  TJoined(TEngine& engine, int first, int second) : FEngine(engine), FFirst(first), FSecond(second) {}
  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    const std::int64_t half = SizeOf(FFirst);
    const bool inSecond = position >= half;
    const TDriveInfo& member = DriveOf(FEngine, inSecond ? FSecond : FFirst);
    const std::int64_t at = inSecond ? position - half : position;
    const auto sectors = static_cast<std::int64_t>(buffer.size()) / 512;
    return FEngine.Reader().ReadDeviceSectors(member.Drive, buffer.data(), 512, at / 512, sectors);
  }
  std::int64_t Size() const override { return SizeOf(FFirst) + SizeOf(FSecond); }
  int SectorSize() const override { return 512; }
  std::int64_t NextData(std::int64_t position) override { return std::max(position, SizeOf(FFirst)); }
  void AddOrigins(std::vector<TFileIdentity>& origins) const override {
    for (const int member : {FFirst, FSecond}) {
      FEngine.Devices().Get(DriveOf(FEngine, member).Drive)->AddOrigins(origins);
    }
  }

 private:
  std::int64_t SizeOf(int number) const { return DriveOf(FEngine, number).SectorsCount * 512; }
  TEngine& FEngine;
  int FFirst;
  int FSecond;
};

}  // namespace

TEST_CASE("a composite drive has length, holes and content of its device, under a key of its own") {
  TEngine engine;
  TImage left(64 * 512);
  TImage right(64 * 512);
  right[5 * 512] = 77;
  const int first = Mount(engine, left, u"/left").Number;
  const int second = Mount(engine, right, u"/right").Number;
  const auto join = [&] { return engine.Devices().InsertComposite(std::make_unique<TJoined>(engine, first, second)); };
  TDriveInfo drive;
  drive.Caption = u"Mirror";
  drive.Drive = join();
  drive.BytesPerSector = 512;
  drive.SectorsCount = 128;
  TDriveInfo namesake = drive;
  namesake.Drive = join();
  CHECK(namesake.Drive != drive.Drive);
  const int number = engine.Drives().Add(drive, false);
  const int other = engine.Drives().Add(namesake, false);

  TSectorReader& reader = engine.Reader();
  CHECK(reader.DeviceSectors(DriveOf(engine, number)) == 128);
  CHECK(reader.NextDataSector(DriveOf(engine, number), 3) == 64);
  TByteDynArray sector(512);
  CHECK(reader.ReadDriveSectors(DriveOf(engine, number), sector.data(), 64 + 5, 1) == 512);
  CHECK(sector[0] == 77);

  // The device goes with the last row that reads from it, and only then.
  const TString key = drive.Drive;
  const int part = engine.Drives().AddSubdrive(number, -1);
  engine.Drives().Delete(part);
  CHECK(engine.Devices().Get(key) != nullptr);
  engine.Drives().Delete(number);
  CHECK(engine.Devices().Get(key) == nullptr);
  CHECK(engine.Devices().Get(DriveOf(engine, other - 1).Drive) != nullptr);
}

TEST_CASE("sub-drives of sub-drives are found, and deletion corrects every number") {
  TEngine engine;
  TDrives& drives = engine.Drives();
  const int gone = Mount(engine, TImage(64 * 512), u"/gone").Number;
  const int disk = Mount(engine, TImage(64 * 512), u"/disk").Number;
  const int pool = drives.AddSubdrive(disk, -1);
  const int volume = drives.AddSubdrive(pool, -1);
  const int last = drives.AddSubdrive(disk, -1);
  CHECK(drives.AllSubDrives(disk) == TIntegerDynArray{pool, volume, last});
  CHECK(drives.AllSubDrives(99).empty());
  const std::size_t rows = drives.List.size();
  drives.Delete(gone);
  const int shift = static_cast<int>(rows - drives.List.size());
  REQUIRE(shift > 0);
  CHECK(drives.AllSubDrives(disk - shift) == TIntegerDynArray{pool - shift, volume - shift, last - shift});
  drives.Delete(pool - shift);  // takes its volume along
  CHECK(drives.AllSubDrives(disk - shift) == TIntegerDynArray{last - shift - 2});
}
