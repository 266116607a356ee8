// SPDX-License-Identifier: GPL-3.0-or-later
// The list of the machine's drives, with devices of the test's own that come and go.
#include <doctest/doctest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/sector_reader.h"
#include "support/fat_builder.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

TImage Volume(const std::string& text) {
  TFatShape shape;
  shape.TotalSectors = 20480;
  TFatBuilder fat(shape);
  fat.PutEntry(fat.RootAt(), {"FILE    TXT", 0x20, 5, static_cast<std::uint32_t>(text.size())});
  fat.Chain({5});
  fat.Fill(5, text);
  return fat.Image;
}

TImage Disk(const std::string& text) {
  const TImage volume = Volume(text);
  TImage disk(2048 * 512);
  PutTable(disk, 0, {{0x06, 2048, 20480}});
  disk.insert(disk.end(), volume.begin(), volume.end());
  return disk;
}

/// A machine whose devices are put in and taken out. All have the same size.
struct TMachine {
  TEngine Engine;
  std::vector<TSystemDisk> Disks;
  std::vector<TMountedVolume> Mounted;

  TMachine() {
    Engine.Partitions().SystemLists.Disks = [this] { return Disks; };
    Engine.Partitions().SystemLists.MountedVolumes = [this] { return Mounted; };
  }
  void PutIn(const std::string& path, const std::string& serial, TImage image) {
    const auto size = static_cast<std::int64_t>(image.size());
    Disks.push_back({path, "Stick", serial, size, 512, true});
    Engine.Devices().Insert(TextFromPath(path), std::make_unique<TMemoryDevice>(std::move(image)));
  }
  void TakeOut(const std::string& path) {
    std::erase_if(Disks, [&](const TSystemDisk& disk) { return disk.Path == path; });
    Engine.Devices().Insert(TextFromPath(path), std::make_unique<TMemoryDevice>(TImage()));
  }
  void Changed() { Engine.Drives().DeviceInserted(); }
  /// "/dev/sdb 2048 FAT16", a line for each row.
  std::string Rows() {
    std::string rows;
    for (const TDriveInfo& drive : Engine.Drives().List) {
      rows += ToUtf8(drive.Drive) + " " + std::to_string(drive.FirstSector) +
              (drive.DriveTypes.Has(TDriveType::dtPhysical) ? " disk" : "") + (drive.IsSubDrive ? " sub " : " ") +
              ToUtf8(TDrives::GetSystemNameBySystem(drive.FileSystem)) + "\n";
    }
    return rows;
  }
  /// The content of the first file in the table, or "unreadable" where the reader says so.
  std::string Content() {
    TByteDynArray bytes;
    const std::uint64_t failed = Engine.Reader().FailedReads();
    GetFileData(Engine, bytes, Engine.Files().List[0], -1, 0, 100);
    if (Engine.Reader().FailedReads() != failed) return "unreadable";
    return {bytes.begin(), bytes.end()};
  }
};

}  // namespace

TEST_CASE("a disk that is one volume has a row for the volume, mounted or not, and both are analysed") {
  TMachine machine;
  machine.PutIn("/dev/sdb", "1", Volume("whole"));
  machine.PutIn("/dev/sdc", "2", Disk("table"));
  machine.PutIn("/dev/sdd", "3", TImage(20480 * 512));
  SUBCASE("unmounted") {}
  SUBCASE("mounted") { machine.Mounted.push_back({"/dev/sdb", "/dev/sdb", "/media/stick", 0, 20480 * 512, true}); }
  machine.Engine.Drives().Fill();
  CHECK(machine.Rows() ==
        "/dev/sdb 0 FAT16\n/dev/sdc 2048 FAT16\n/dev/sdb 0 disk \n/dev/sdc 0 disk \n/dev/sdd 0 disk \n");
  AnalyseDrive(machine.Engine, 2);
  REQUIRE(machine.Engine.Files().List.size() == 1);
  CHECK(machine.Content() == "whole");
  CHECK(DriveOf(machine.Engine, 2).DeepAnalysed == TAnalyseInformation::aiFull);
}

TEST_CASE("a device that goes and returns has its rows once, and reads again") {
  TMachine machine;
  machine.PutIn("/dev/sda", "system", Disk("system"));
  machine.PutIn("/dev/sdb", "serial", Disk("mine"));
  machine.Engine.Drives().Fill();
  const std::string rows = machine.Rows();
  SUBCASE("nothing was found on it") {
    machine.TakeOut("/dev/sdb");
    machine.Changed();
    CHECK(machine.Rows() == "/dev/sda 2048 FAT16\n/dev/sda 0 disk \n");
    machine.PutIn("/dev/sdb", "serial", Disk("mine"));
    machine.Changed();
    machine.Changed();
    CHECK(std::ranges::count(machine.Rows(), '\n') == 4);
  }
  SUBCASE("it was analysed") {
    AnalyseDrive(machine.Engine, 1);
    REQUIRE(machine.Content() == "mine");
    machine.TakeOut("/dev/sdb");
    machine.Changed();
    CHECK(machine.Rows() == rows);
    CHECK(machine.Content() == "unreadable");
    std::string path = "/dev/sdb";
    SUBCASE("under its name") {}
    SUBCASE("under another one") { path = "/dev/sdc"; }
    machine.PutIn(path, "serial", Disk("mine"));
    machine.Changed();
    machine.Changed();
    CHECK(std::ranges::count(machine.Rows(), '\n') == 4);
    CHECK(machine.Rows().find(path + " 2048 FAT16\n") != std::string::npos);
    CHECK(machine.Content() == "mine");
  }
  SUBCASE("another one comes in its place") {
    AnalyseDrive(machine.Engine, 1);
    machine.TakeOut("/dev/sdb");
    machine.PutIn("/dev/sdb", "other", Disk("yours"));
    machine.Changed();
    CHECK(std::ranges::count(machine.Rows(), '\n') == 6);
    CHECK(machine.Content() == "unreadable");  // and by no means what the other one holds
    machine.TakeOut("/dev/sdb");
    machine.PutIn("/dev/sdb", "serial", Disk("mine"));
    machine.Changed();
    CHECK(machine.Content() == "mine");
    CHECK(std::ranges::count(machine.Rows(), '\n') == 4);
  }
}

TEST_CASE("a device that was gone between two looks is opened anew") {
  TTemporaryFolder folder;
  const std::string path = folder.Path() + "/device";
  const auto write = [&](const std::string& text) {
    const TImage disk = Disk(text);
    std::ofstream(path + ".new", std::ios::binary)
        .write(reinterpret_cast<const char*>(disk.data()), static_cast<std::streamsize>(disk.size()));
    std::filesystem::rename(path + ".new", path);
  };
  write("before");
  TMachine machine;
  const auto size = static_cast<std::int64_t>(std::filesystem::file_size(path));
  machine.Disks = {{path, "Stick", "serial", size, 512, true, 7}};
  machine.Engine.Drives().Fill();
  AnalyseDrive(machine.Engine, 0);
  REQUIRE(machine.Content() == "before");
  write("after!");  // the old handle would go on with the old bytes
  machine.Changed();
  CHECK(machine.Content() == "before");
  machine.Disks[0].Sequence = 8;
  machine.Changed();
  CHECK(machine.Content() == "after!");
  CHECK(machine.Engine.Drives().List.size() == 2);
}
