// SPDX-License-Identifier: GPL-3.0-or-later
// What a source or volume is taken for: boot area, then table, then copies of lost boot sectors.
#include <doctest/doctest.h>

#include <algorithm>
#include <string_view>

#include "analysis/analysis.h"
#include "core/language.h"
#include "support/fat_builder.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;
using namespace std::literals;

namespace {

void Put(TImage& image, std::size_t at, std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) image[at + i] = static_cast<std::uint8_t>(text[i]);
}

void Wipe(TImage& image, std::size_t sector, std::size_t count = 1) {
  std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(sector * 512), count * 512, std::uint8_t{0});
}

TImage Stick() { return LoadTestImage("demo-stick.img.zst"); }

/// The NTFS volume of the tests with the copy of its boot sector as the last of 12 MiB.
TImage Ntfs() {
  TImage image = LoadTestImage("lab-ntfs.img.zst");
  image.resize(12 << 20);
  std::uint64_t sectors = image.size() / 512 - 1;
  for (std::size_t i = 0; i < 8; ++i, sectors >>= 8) image[0x28 + i] = static_cast<std::uint8_t>(sectors);
  std::copy_n(image.begin(), 512, image.end() - 512);
  return image;
}

/// A FAT16 volume with one file.
TImage SmallVolume(int sectors = 20480) {
  TFatShape shape;
  shape.TotalSectors = sectors;
  TFatBuilder fat(shape);
  fat.PutEntry(fat.RootAt(), {"NEW     TXT", 0x20, 5, 7});
  fat.Chain({5});
  fat.Fill(5, "content");
  return fat.Image;
}

/// "FAT32 0 copy", for each volume that is known, in their order.
std::string Volumes(TEngine& engine) {
  std::string text;
  for (const TDriveInfo& drive : engine.Drives().List) {
    if (drive.DriveTypes.Has(TDriveType::dtPhysical) || drive.FileSystem == TFileSystem::fsUnknown) continue;
    text += ToUtf8(TDrives::GetSystemNameBySystem(drive.FileSystem)) + " " + std::to_string(drive.FirstSector) +
            (drive.GeometrySource == TPlaceSource::FromCopy ? " copy\n" : "\n");
  }
  return text;
}

std::string VolumesOf(const TImage& image) {
  TEngine engine;
  Mount(engine, image);
  return Volumes(engine);
}

std::string FilesOf(TEngine& engine, int drive) {
  AnalyseDrive(engine, drive);
  std::string walk = WalkText(engine, drive);
  const std::size_t boot = walk.find("$System data/$Boot ");
  if (boot != std::string::npos) walk.erase(boot, walk.find('\n', boot) - boot);
  return walk;
}

/// A volume behind a table with one entry of type 7.
TImage DiskOfType7(const TImage& volume) {
  TImage disk(2048 * 512);
  PutTable(disk, 0, {{0x07, 2048, static_cast<std::uint32_t>(volume.size() / 512)}});
  disk.insert(disk.end(), volume.begin(), volume.end());
  return disk;
}

TImage Refs() {
  TImage volume(20480 * 512);
  Put(volume, 3, "ReFS\0\0\0\0"sv);
  Put(volume, 120, std::string(390, '\xF4'));  // boot code, where others have a table
  Put(volume, 510, "\x55\xAA");
  return volume;
}

}  // namespace

TEST_CASE("a whole source whose first sectors cannot be read is known by the copy, with all of its files") {
  for (const bool isNtfs : {false, true}) {
    const TImage image = isNtfs ? Ntfs() : Stick();
    TEngine sound;
    const std::string expected = FilesOf(sound, Mount(sound, image).Number);
    REQUIRE(expected.size() > 500);
    for (const bool fails : {true, false}) {
      CAPTURE(isNtfs);
      CAPTURE(fails);
      TImage damaged = image;
      if (!fails) Wipe(damaged, 0);
      auto device = std::make_unique<TMemoryDevice>(damaged);
      if (fails) device->BadSectors = {0};
      TEngine engine;
      engine.Devices().Insert(u"/bad.img", std::move(device));
      const int number = engine.Drives().Mount(u"/bad.img", false);
      CHECK(Volumes(engine) == (isNtfs ? "NTFS 0 copy\n" : "FAT32 0 copy\n"));
      CHECK(FilesOf(engine, number) == expected);
    }
  }
}

TEST_CASE("a table goes before the copies of the volume that was there; what is sound of both is listed") {
  TImage disk = Stick();
  const std::size_t tableAt = static_cast<std::size_t>(disk[14]) * 512;
  const auto start = static_cast<std::uint32_t>(disk.size() / 512);
  const std::string live = "FAT16 " + std::to_string(start) + "\n";
  const TImage added = SmallVolume();
  disk.insert(disk.end(), added.begin(), added.end());
  SUBCASE("the boot sector is overwritten") {
    Wipe(disk, 0);
    PutTable(disk, 0, {{0x06, start, 20480}});
    CHECK(VolumesOf(disk) == live + "FAT32 0 copy\n");
    TEngine engine;
    const TMounted source = Mount(engine, disk);
    CHECK(engine.Drives().IsPhysical(source.Number));
    CHECK(DriveOf(engine, source.Number).Volumes.size() == engine.Drives().List.size() - 1);
    CHECK(FilesOf(engine, 1).starts_with("NEW.TXT 7"));
    const int old = static_cast<int>(engine.Drives().List.size()) - 1;
    CHECK(DriveOf(engine, old).DriveTypes.Has(TDriveType::dtVolume));
    CHECK(FilesOf(engine, old).find("beach 3.png") != std::string::npos);
  }
  SUBCASE("the copy alone is left of it") {
    Wipe(disk, 0);
    PutTable(disk, 0, {{0x06, start, 20480}});
    std::fill(disk.begin() + static_cast<std::ptrdiff_t>(tableAt),
              disk.begin() + static_cast<std::ptrdiff_t>(start) * 512, std::uint8_t{0});
    CHECK(VolumesOf(disk) == live);
  }
  SUBCASE("the table was written into the boot sector") {
    PutTable(disk, 0, {{0x06, start, 20480}});
    CHECK(VolumesOf(disk) == live + "FAT32 0\n");
  }
  SUBCASE("entries that lead nowhere, or to the volume itself, are no table beside a boot sector") {
    PutTable(disk, 0, {{0x06, start - 77, 20480}, {0x0C, 0, start}});
    CHECK(VolumesOf(disk) == "FAT32 0\n");
  }
}

TEST_CASE("a volume that another system formatted later is that system's, and the old one beside it") {
  const TImage ntfs = Ntfs();
  TImage image = ntfs;
  const TImage fat = SmallVolume(static_cast<int>(image.size() / 512));
  std::copy_n(fat.begin(), 700 * 512, image.begin());
  CHECK(VolumesOf(image) == "FAT16 0\nNTFS 0 copy\n");
  CHECK(VolumesOf(DiskOfType7(image)) == "FAT16 2048\nNTFS 2048 copy\n");
  // Without its table of records it is nothing to show, unless it is all that is known.
  TImage bare(image.size());
  std::copy_n(ntfs.end() - 512, 512, bare.end() - 512);
  CHECK(VolumesOf(bare) == "NTFS 0 copy\n");
  std::copy_n(fat.begin(), 700 * 512, bare.begin());
  CHECK(VolumesOf(bare) == "FAT16 0\n");
}

TEST_CASE("what has no driver is called by its name, not by its type or a leftover") {
  const TImage refs = Refs();
  TEngine engine;
  TString message;
  engine.OnMessage = [&](const TEngineMessage& m) { message = m.Text; };
  Mount(engine, DiskOfType7(refs));
  CHECK(Volumes(engine) == "ReFS 2048\n");
  CHECK_FALSE(engine.Drives().CanBeAnalysed(1));
  AnalyseDrive(engine, 1);
  CHECK(DriveOf(engine, 1).Analysed == TAnalyseInformation::aiFull);
  CHECK(message.find(u"ReFS") != TString::npos);

  CHECK(VolumesOf(refs) == "ReFS 0\n");  // the boot code is no table
  TImage gone = refs;
  Wipe(gone, 0);
  CHECK(VolumesOf(DiskOfType7(gone)) == "NTFS 2048\n");  // the type's word, where nothing else is known

  const struct {
    std::size_t At;
    std::string_view Text;
    std::string_view Name;
  } systems[] = {{3, "ReFS\0\0\0\0"sv, "ReFS"},
                 {0, "XFSB"sv, ""},
                 {32, "NXSB"sv, ""},
                 {3, "-FVE-FS-\0\2\10\0"sv, "BitLocker"},
                 {0, "LUKS\xBA\xBE"sv, "LUKS"},
                 {1024, "H+\0\4"sv, "HFS+"},
                 {65600, "_BHRfS_M"sv, "Btrfs"},
                 {4086, "SWAPSPACE2"sv, "Linux swap"},
                 {32769, "CD001"sv, ""},
                 {32768, "\1CD001"sv, "ISO 9660"},
                 {1080, "\x53\xEF"sv, ""},
                 {4096, "\xFC\x4E\x2B\xA9"sv, "Linux RAID"}};
  for (const auto& system : systems) {
    TImage volume(20480 * 512);
    Put(volume, system.At, system.Text);
    Put(volume, 510, "\x55\xAA");
    CAPTURE(system.Name);
    CHECK(VolumesOf(volume) == (system.Name.empty() ? "" : std::string(system.Name) + " 0\n"));
  }
}

TEST_CASE("a superblock that formatting has left does not hide the live volume") {
  TImage image = SmallVolume();
  Put(image, 65536 + 64, "_BHRfS_M");
  CHECK(VolumesOf(image) == "FAT16 0\n");
  // Nor does it hide a table, even one without its end mark.
  TImage disk = DiskOfType7(Ntfs());
  Put(disk, 65536 + 64, "_BHRfS_M");
  CHECK(VolumesOf(disk) == "NTFS 2048\n");
  disk[510] = 0;
  CHECK(VolumesOf(disk) == "NTFS 2048\n");
}
