// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/partitions.h"

#include <doctest/doctest.h>

#include <cstring>

#include "core/families.h"
#include "support/fat_builder.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

TVolumes VolumesOf(TImage image, PARTITION_STYLE* style = nullptr, int sectorSize = 512, std::int64_t sectors = 0) {
  TEngine engine;
  TDriveInfo drive;
  drive.Drive = u"/test.img";
  drive.BytesPerSector = sectorSize;
  drive.SectorsCount = sectors != 0 ? sectors : static_cast<std::int64_t>(image.size()) / sectorSize;
  engine.Devices().Insert(drive.Drive, std::make_unique<TMemoryDevice>(std::move(image)));
  TPhysicalDrive disk;
  engine.Partitions().GetPhysicalDrive(drive, disk);
  if (style != nullptr) *style = disk.PartitionStyle;
  return disk.Volumes;
}

std::string Text(const TVolumes& volumes) {
  std::string text;
  for (const TVolume& v : volumes) text += std::to_string(v.StartingSector) + "+" + std::to_string(v.SectorCount) + " ";
  return text;
}

void PutLe(TImage& image, std::size_t at, std::uint64_t value, int size) {
  for (int i = 0; i < size; ++i) image[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (8 * i));
}

/// A GPT header at `header` with entries at `entries` (sectors of 512 bytes), {first, last} each.
void PutGPT(TImage& image, std::uint64_t header, std::uint64_t entries,
            const std::vector<std::pair<std::uint64_t, std::uint64_t>>& volumes, std::uint32_t count = 128) {
  const std::size_t at = header * 512;
  PutLe(image, at + 12, 92, 4);
  PutLe(image, at + 72, entries, 8);
  PutLe(image, at + 80, count, 4);
  PutLe(image, at + 84, 128, 4);
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    const std::size_t entry = entries * 512 + i * 128;
    PutLe(image, entry, 0x11 * (i + 1), 8);
    PutLe(image, entry + 32, volumes[i].first, 8);
    PutLe(image, entry + 40, volumes[i].second, 8);
  }
}

}  // namespace

TEST_CASE("MBR: primary and logical volumes, boot flag, links from their own table") {
  TImage image(4096 * 512);
  PutTable(image, 0, {{0x0C, 64, 100}, {0x05, 1000, 2000}});
  image[446] = 128;
  PutTable(image, 1000, {{0x06, 10, 50}, {0x0F, 200, 300}});
  PutTable(image, 1200, {{0x07, 10, 60}});
  PARTITION_STYLE style{};
  const TVolumes volumes = VolumesOf(image, &style);
  CHECK(style == PARTITION_STYLE::PARTITION_STYLE_MBR);
  CHECK(Text(volumes) == "64+100 1010+50 1210+60 ");
  CHECK(volumes[0].PartitionType == TPartitionTypes{TPartitionType::ptBoot, TPartitionType::ptPrimary});
  CHECK(volumes[2].PartitionType == TPartitionTypes{TPartitionType::ptLogical});
  CHECK(volumes[2].MBRRecord.RelativeSector == 1200);
}

TEST_CASE("MBR: chains as the tools write them, counted from the extended partition") {
  TImage image(8192 * 512);
  PutTable(image, 0, {{0x05, 1000, 6000}});
  PutTable(image, 1000, {{0x83, 10, 50}, {0x05, 500, 300}});
  PutTable(image, 1500, {{0x83, 10, 60}, {0x05, 900, 300}});  // 1000 + 900; 1500 + 900 holds no table
  PutTable(image, 1900, {{0x83, 10, 70}});
  CHECK(Text(VolumesOf(image)) == "1010+50 1510+60 1910+70 ");
}

TEST_CASE("MBR: looped, self-linked and endless chains end") {
  TImage image(4096 * 512);
  PutTable(image, 0, {{0x05, 1000, 3000}});
  PutTable(image, 1000, {{0x83, 10, 50}, {0x05, 0, 300}});
  CHECK(Text(VolumesOf(image)) == "1010+50 ");
  PutTable(image, 1000, {{0x83, 10, 50}, {0x05, 100, 300}});
  PutTable(image, 1100, {{0x83, 10, 50}, {0x05, 0xFFFFFF9C, 300}});  // back by 100
  CHECK(Text(VolumesOf(image)) == "1010+50 1110+50 ");
}

TEST_CASE("GPT: the header is hunted, then the backup is taken") {
  TImage image(4096 * 512);
  PutTable(image, 0, {{0xEE, 1, 4095}});
  PARTITION_STYLE style{};
  SUBCASE("at its place") {
    PutGPT(image, 1, 2, {{64, 163}, {0, 9}, {200, 299}, {64, 163}});
    CHECK(Text(VolumesOf(image, &style)) == "64+100 200+100 ");
    CHECK(style == PARTITION_STYLE::PARTITION_STYLE_GPT);
  }
  SUBCASE("the protective entry is lost") {
    std::fill_n(image.begin(), 512, std::uint8_t{0});
    PutGPT(image, 1, 2, {{64, 163}});
    CHECK(Text(VolumesOf(image, &style)) == "64+100 ");
    CHECK(style == PARTITION_STYLE::PARTITION_STYLE_GPT);
  }
  SUBCASE("further on") {
    PutGPT(image, 777, 800, {{64, 163}});
    CHECK(Text(VolumesOf(image)) == "64+100 ");
  }
  SUBCASE("only the backup") {
    PutGPT(image, 4095, 4000, {{64, 163}});
    CHECK(Text(VolumesOf(image)) == "64+100 ");
  }
  SUBCASE("more entries than the bound, and garbage, give nothing") {
    PutGPT(image, 1, 2, {{64, 163}}, 2049);
    CHECK(VolumesOf(image).empty());
    PutGPT(image, 1, 2, {{64, 163}, {1, std::uint64_t{1} << 63}});
    CHECK(VolumesOf(image).empty());
  }
  SUBCASE("a start beyond the disk is no volume") {
    PutGPT(image, 1, 2, {{64, 163}, {5000, 6000}});
    CHECK(Text(VolumesOf(image)) == "64+100 ");
  }
}

TEST_CASE("Apple map: a damaged signature is forgiven where the type is spelled") {
  auto image = LoadSpecimen("ptable/apm.bin");
  if (!image) return;
  PARTITION_STYLE style{};
  CHECK(Text(VolumesOf(*image, &style)) == "1+63 64+61439920 61439984+16 ");
  CHECK(style == PARTITION_STYLE::PARTITION_STYLE_APM);
  (*image)[512] = 0;
  CHECK(VolumesOf(*image, &style).size() == 3);
  (*image)[512 + 48] = 0;
  VolumesOf(*image, &style);
  CHECK(style != PARTITION_STYLE::PARTITION_STYLE_APM);
}

TEST_CASE("tables of other origin read as their truth says") {
  struct TRow {
    const char* File;
    int SectorSize;
    std::int64_t Sectors;  // of the whole disk; the files hold only its head
    const char* Volumes;
  };
  const TRow rows[] = {
      {"ptable/gpt.bin.zst", 512, 61437952, "40+409600 411648+61026304 "},
      {"ptable/gpt_4k.bin.zst", 4096, 4192, "256+257 768+257 1280+2907 "},
      {"ptable/gpt_hybrid.bin.zst", 512, 4096, "2048+1025 3073+990 34+2014 "},
      {"ptable/mbr-512-p4.bin", 512, 2048, "1+2 3+2 5+2 7+2041 "},
      {"ptable/mbr-512-p1e2.bin.zst", 512, 2048, "2+511 514+511 1025+1023 "},
      {"ptable/mbr-two-volumes.raw.zst", 512, 2880, "1+350 352+2528 "},
  };
  for (const TRow& row : rows) {
    const auto image = LoadSpecimen(row.File);
    if (image) CHECK_MESSAGE(Text(VolumesOf(*image, nullptr, row.SectorSize, row.Sectors)) == row.Volumes, row.File);
  }
}

TEST_CASE("type bytes of hidden volumes are understood, 7 is never exFAT") {
  CHECK(FileSystemOfIndicator(17) == TFileSystem::fsFAT12);
  CHECK(FileSystemOfIndicator(22) == TFileSystem::fsFAT16);
  CHECK(FileSystemOfIndicator(28) == TFileSystem::fsFAT32);
  CHECK(FileSystemOfIndicator(7) == TFileSystem::fsNTFS);
  CHECK(FileSystemOfIndicator(0x83) == TFileSystem::fsUnknown);
}
