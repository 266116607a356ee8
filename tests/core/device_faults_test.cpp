// SPDX-License-Identifier: GPL-3.0-or-later
// A device that is pulled out while it is read: what failed then says nothing of it later.
#include <doctest/doctest.h>

#include <memory>
#include <utility>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/sector_reader.h"
#include "support/failing_device.h"
#include "support/fat_builder.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("what failed while a device was pulled out is read when it, or another one of its name, is put in") {
  TFatShape shape;
  shape.TotalSectors = 20480;
  TFatBuilder fat(shape);
  fat.PutEntry(fat.RootAt(), {"FILE    TXT", 0x20, 5, 4});
  fat.Chain({5});
  fat.Fill(5, "mine");
  TImage disk(2048 * 512);
  PutTable(disk, 0, {{0x06, 2048, 20480}});
  disk.insert(disk.end(), fat.Image.begin(), fat.Image.end());

  TEngine engine;
  std::vector<TSystemDisk> disks{{"/dev/sdb", "Stick", "serial", static_cast<std::int64_t>(disk.size()), 512, true}};
  engine.Partitions().SystemLists.Disks = [&] { return disks; };
  engine.Partitions().SystemLists.MountedVolumes = [] { return std::vector<TMountedVolume>(); };
  auto device = std::make_unique<TFailingDevice>(disk, 512);
  TFailingDevice& pulled = *device;
  engine.Devices().Insert(u"/dev/sdb", std::move(device));
  engine.Drives().Fill();
  AnalyseDrive(engine, 0);
  REQUIRE(engine.Files().List.size() > 0);
  const auto content = [&] {
    TByteDynArray bytes;
    GetFileData(engine, bytes, engine.Files().List[0], -1, 0, 4);
    return std::string(bytes.begin(), bytes.end());
  };
  REQUIRE(content() == "mine");
  pulled.FailSectors(0, pulled.Size() / 512);
  CHECK(content() != "mine");
  CHECK(engine.Reader().Unread().Sectors > 0);

  const std::vector<TSystemDisk> before = std::exchange(disks, {});
  engine.Drives().DeviceInserted();
  engine.Devices().Insert(u"/dev/sdb", std::make_unique<TMemoryDevice>(disk));
  disks = before;
  engine.Drives().DeviceInserted();
  CHECK(content() == "mine");
  CHECK(engine.Reader().Unread().Sectors == 0);
}
