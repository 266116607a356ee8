// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/fat_builder.h"

#include <algorithm>
#include <cstring>

namespace brenlow::test {
namespace {

constexpr std::uint16_t Date = ((2021 - 1980) << 9) | (5 << 5) | 3;
constexpr std::uint16_t Time = (17 << 11) | (20 << 5) | 3;

}  // namespace

TFatBuilder::TFatBuilder(TFatShape shape) : Shape(shape) {
  const int clusters = Shape.TotalSectors / Shape.SectorsPerCluster + 2;
  TableSectors = (clusters * Shape.Width / 8 + Shape.BytesPerSector) / Shape.BytesPerSector;
  FirstDataSector = Shape.Reserved + Shape.Tables * TableSectors +
                    (Shape.RootEntries * 32 + Shape.BytesPerSector - 1) / Shape.BytesPerSector;
  Image.assign(static_cast<std::size_t>(Shape.TotalSectors) * static_cast<std::size_t>(Shape.BytesPerSector), 0);
  Put16(11, static_cast<std::uint32_t>(Shape.BytesPerSector));
  Image[13] = static_cast<std::uint8_t>(Shape.SectorsPerCluster);
  Put16(14, static_cast<std::uint32_t>(Shape.Reserved));
  Image[16] = static_cast<std::uint8_t>(Shape.Tables);
  Put16(17, static_cast<std::uint32_t>(Shape.RootEntries));
  Put32(32, static_cast<std::uint32_t>(Shape.TotalSectors));
  if (Shape.Width == 32) {
    Put32(36, static_cast<std::uint32_t>(TableSectors));
    Put32(44, 2);
    Put16(50, 6);
  } else {
    Put16(22, static_cast<std::uint32_t>(TableSectors));
  }
  Image[510] = 0x55;
  Image[511] = 0xAA;
  if (Shape.Width == 32) {
    std::copy_n(Image.begin(), 512, Image.begin() + 6 * Shape.BytesPerSector);
    Link(2, EndMark());
  }
}

std::size_t TFatBuilder::ClusterSize() const {
  return static_cast<std::size_t>(Shape.SectorsPerCluster) * static_cast<std::size_t>(Shape.BytesPerSector);
}

std::size_t TFatBuilder::ClusterAt(std::uint32_t cluster) const {
  return static_cast<std::size_t>(FirstDataSector) * static_cast<std::size_t>(Shape.BytesPerSector) +
         (cluster - 2) * ClusterSize();
}

std::size_t TFatBuilder::RootAt() const {
  if (Shape.Width == 32) return ClusterAt(2);
  return static_cast<std::size_t>(Shape.Reserved + Shape.Tables * TableSectors) *
         static_cast<std::size_t>(Shape.BytesPerSector);
}

std::uint32_t TFatBuilder::EndMark() const {
  return Shape.Width == 12 ? 0xFFF : Shape.Width == 16 ? 0xFFFF : 0x0FFFFFFF;
}

void TFatBuilder::Link(std::uint32_t cluster, std::uint32_t next) {
  for (int table = 0; table < Shape.Tables; ++table) {
    const auto base = static_cast<std::size_t>(Shape.Reserved + table * TableSectors) *
                      static_cast<std::size_t>(Shape.BytesPerSector);
    if (Shape.Width == 12) {
      const std::size_t at = base + cluster + cluster / 2;
      const std::uint32_t old = Image[at] | (std::uint32_t{Image[at + 1]} << 8);
      Put16(at, cluster % 2 == 0 ? (old & 0xF000) | next : (old & 0x000F) | (next << 4));
    } else if (Shape.Width == 16) {
      Put16(base + cluster * 2, next);
    } else {
      Put32(base + cluster * 4, next);
    }
  }
}

void TFatBuilder::Chain(const std::vector<std::uint32_t>& clusters) {
  for (std::size_t i = 0; i < clusters.size(); ++i) {
    Link(clusters[i], i + 1 < clusters.size() ? clusters[i + 1] : EndMark());
  }
}

void TFatBuilder::PutEntry(std::size_t at, const TFatEntry& entry) {
  std::memcpy(&Image[at], entry.Name.data(), 11);
  Image[at + 11] = entry.Attributes;
  Image[at + 12] = entry.CaseFlags;
  Put16(at + 14, Time);
  Put16(at + 16, Date);
  Put16(at + 18, Date);
  Put16(at + 20, entry.Cluster >> 16);
  Put16(at + 22, Time);
  Put16(at + 24, Date);
  Put16(at + 26, entry.Cluster);
  Put32(at + 28, entry.Size);
}

std::size_t TFatBuilder::PutLongEntry(std::size_t at, const std::u16string& name, const TFatEntry& entry,
                                      bool deleted) {
  std::uint8_t checksum = 0;
  for (std::size_t i = 0; i < 11; ++i) {
    checksum =
        static_cast<std::uint8_t>(((checksum & 1) << 7) + (checksum >> 1) + static_cast<std::uint8_t>(entry.Name[i]));
  }
  const std::size_t pieces = (name.size() + 12) / 13;
  const std::size_t places[13] = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};
  for (std::size_t piece = pieces; piece-- > 0; at += 32) {
    Image[at] = deleted ? 0xE5 : static_cast<std::uint8_t>((piece + 1) | (piece + 1 == pieces ? 0x40 : 0));
    Image[at + 11] = 0x0F;
    Image[at + 13] = checksum;
    for (std::size_t i = 0; i < 13; ++i) {
      const std::size_t index = piece * 13 + i;
      Put16(at + places[i], index < name.size() ? name[index] : index == name.size() ? 0 : 0xFFFF);
    }
  }
  PutEntry(at, entry);
  if (deleted) Image[at] = 0xE5;
  return (pieces + 1) * 32;
}

void TFatBuilder::PutDots(std::uint32_t cluster, std::uint32_t parent) {
  PutEntry(ClusterAt(cluster), {".          ", 0x10, cluster, 0});
  PutEntry(ClusterAt(cluster) + 32, {"..         ", 0x10, parent, 0});
}

void TFatBuilder::Fill(std::uint32_t cluster, const std::string& text) {
  std::memcpy(&Image[ClusterAt(cluster)], text.data(), text.size());
}

void TFatBuilder::Put16(std::size_t at, std::uint32_t value) {
  Image[at] = static_cast<std::uint8_t>(value);
  Image[at + 1] = static_cast<std::uint8_t>(value >> 8);
}

void TFatBuilder::Put32(std::size_t at, std::uint32_t value) {
  Put16(at, value);
  Put16(at + 2, value >> 16);
}

void PutTable(TImage& image, std::size_t sector, const std::vector<TTableEntry>& entries) {
  std::size_t at = sector * 512 + 446;
  for (const TTableEntry& entry : entries) {
    image[at + 4] = entry.Indicator;
    for (int i = 0; i < 4; ++i) {
      image[at + 8 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(entry.Start >> (8 * i));
      image[at + 12 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(entry.Sectors >> (8 * i));
    }
    at += 16;
  }
  image[sector * 512 + 510] = 0x55;
  image[sector * 512 + 511] = 0xAA;
}

}  // namespace brenlow::test
