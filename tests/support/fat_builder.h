// SPDX-License-Identifier: GPL-3.0-or-later
// Builds small FAT volumes byte by byte, independently of the driver, for cases that no tool writes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/images.h"

namespace brenlow::test {

struct TFatShape {
  int Width = 16;  // 12, 16 or 32
  int BytesPerSector = 512;
  int SectorsPerCluster = 1;
  int Reserved = 1;  // 32 for FAT32 is customary
  int Tables = 2;
  int RootEntries = 512;  // 0 for FAT32
  int TotalSectors = 16384;
};

/// A short directory entry. 2021-05-03 17:20:06 as all of its times.
struct TFatEntry {
  std::string Name;  // 11 bytes, padded with blanks
  std::uint8_t Attributes = 0x20;
  std::uint32_t Cluster = 0;
  std::uint32_t Size = 0;
  std::uint8_t CaseFlags = 0;
};

class TFatBuilder {
 public:
  explicit TFatBuilder(TFatShape shape);

  TFatShape Shape;
  TImage Image;
  int TableSectors = 0;
  int FirstDataSector = 0;

  std::size_t ClusterAt(std::uint32_t cluster) const;
  std::size_t RootAt() const;  // FAT12 and FAT16: the root area; FAT32: cluster 2
  std::size_t ClusterSize() const;
  /// Writes one entry of both tables.
  void Link(std::uint32_t cluster, std::uint32_t next);
  std::uint32_t EndMark() const;
  /// Links the clusters into one chain with an end mark.
  void Chain(const std::vector<std::uint32_t>& clusters);
  void PutEntry(std::size_t at, const TFatEntry& entry);
  /// The pieces of a long name followed by its entry; returns the bytes used.
  std::size_t PutLongEntry(std::size_t at, const std::u16string& name, const TFatEntry& entry, bool deleted = false);
  /// "." and "..".
  void PutDots(std::uint32_t cluster, std::uint32_t parent);
  void Fill(std::uint32_t cluster, const std::string& text);
  void Put16(std::size_t at, std::uint32_t value);
  void Put32(std::size_t at, std::uint32_t value);
};

/// A disk image with an MBR whose entries are {indicator, start, sectors}.
struct TTableEntry {
  std::uint8_t Indicator;
  std::uint32_t Start;
  std::uint32_t Sectors;
};
void PutTable(TImage& image, std::size_t sector, const std::vector<TTableEntry>& entries);

}  // namespace brenlow::test
