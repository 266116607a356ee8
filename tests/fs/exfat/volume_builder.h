// SPDX-License-Identifier: GPL-3.0-or-later
// Small exFAT volumes in memory, built slot by slot: bitmap in cluster 2, up-case table in 3, root in 4.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "core/text.h"
#include "fs/exfat/exfat_entry.h"
#include "support/images.h"

namespace brenlow::test {

/// One file or folder, as its set of entries describes it.
struct TExFatFile {
  std::string Name;
  std::uint32_t Cluster = 0;
  std::uint64_t Size = 0;
  bool Chain = false;  ///< follows the table
  bool Folder = false;
  bool Deleted = false;
  std::int64_t ValidSize = -1;         ///< -1: all of it
  std::uint32_t Created = 0x52B16DA5;  ///< 2021-05-17 13:45:10
  std::uint32_t Modified = 0x52B16DA5;
  std::uint8_t Hundredths = 0;
  std::uint8_t Zone = 0x80;  ///< UTC
};

class TExFatBuilder {
 public:
  static constexpr std::size_t Sector = 512;
  static constexpr std::size_t Table = 24;  // sector of the allocation table

  explicit TExFatBuilder(int sectorsPerCluster = 1, std::uint32_t clusters = 600, int tables = 1)
      : PerCluster(static_cast<std::size_t>(sectorsPerCluster)), Clusters(clusters) {
    TableSectors = (clusters + 2) * 4 / Sector + 1;
    Heap = Table + TableSectors * static_cast<std::size_t>(tables);
    Image.resize((Heap + clusters * PerCluster) * Sector);
    const std::string head =
        "\xEB\x76\x90"
        "EXFAT   ";
    std::copy(head.begin(), head.end(), Image.begin());
    Put(0x48, Image.size() / Sector, 8);
    Put(0x50, Table, 4);
    Put(0x54, TableSectors, 4);
    Put(0x58, Heap, 4);
    Put(0x5C, clusters, 4);
    Put(0x60, 4, 4);
    Image[0x6C] = 9;
    for (std::size_t size = PerCluster; size > 1; size /= 2) ++Image[0x6D];
    Image[0x6E] = static_cast<std::uint8_t>(tables);
    Image[0x70] = 0xFF;
    Image[510] = 0x55;
    Image[511] = 0xAA;
    SealBoot();
    Link(0, 0xFFFFFFF8);
    Link(1, 0xFFFFFFFF);
    for (const std::uint32_t cluster : {2U, 3U, 4U}) {
      Link(cluster, 0xFFFFFFFF);
      Use(cluster);
    }
    RootEntry(0, 0x83, 0, 0);
    RootEntry(1, 0x81, 2, (clusters + 7) / 8);
    // 128 units as they must stand, then all others as they are.
    RootEntry(2, 0x82, 3, 260);
    for (std::size_t i = 0; i < 128; ++i) Put(At(3) + 2 * i, i >= 'a' && i <= 'z' ? i - 32 : i, 2);
    Put(At(3) + 256, 0xFF80FFFF, 4);
    RootEnd = At(4) + 96;
  }

  TImage Image;
  std::size_t PerCluster;
  std::uint32_t Clusters;
  std::size_t Heap = 0;
  std::size_t TableSectors = 0;
  std::size_t RootEnd = 0;

  std::size_t At(std::uint32_t cluster) const { return (Heap + (cluster - 2) * PerCluster) * Sector; }
  std::size_t ClusterSize() const { return PerCluster * Sector; }
  void Put(std::size_t at, std::uint64_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) Image[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
  void Link(std::uint32_t cluster, std::uint32_t next, std::size_t table = 0) {
    Put((Table + table * TableSectors) * Sector + cluster * 4, next, 4);
  }
  void Chain(const std::vector<std::uint32_t>& clusters, std::size_t table = 0) {
    for (std::size_t i = 0; i < clusters.size(); ++i)
      Link(clusters[i], i + 1 < clusters.size() ? clusters[i + 1] : 0xFFFFFFFF, table);
  }
  void Use(std::uint32_t cluster, std::uint32_t bitmap = 2) {
    std::uint8_t& byte = Image[At(bitmap) + (cluster - 2) / 8];
    byte = static_cast<std::uint8_t>(byte | 1 << ((cluster - 2) % 8));
  }
  void Fill(std::uint32_t cluster, char letter) {
    std::fill_n(Image.begin() + static_cast<std::ptrdiff_t>(At(cluster)), ClusterSize(),
                static_cast<std::uint8_t>(letter));
  }
  void RootEntry(std::size_t slot, std::uint8_t type, std::uint32_t cluster, std::uint64_t size) {
    const std::size_t at = At(4) + slot * 32;
    Image[at] = type;
    Put(at + 0x14, cluster, 4);
    Put(at + 0x18, size, 8);
  }
  /// Checksum of the boot region, and the region's copy.
  void SealBoot() {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < 11 * Sector; ++i) {
      if (i != 106 && i != 107 && i != 112) sum = (sum << 31 | sum >> 1) + Image[i];
    }
    for (std::size_t at = 11 * Sector; at < 12 * Sector; at += 4) Put(at, sum, 4);
    std::copy_n(Image.begin(), 12 * Sector, Image.begin() + static_cast<std::ptrdiff_t>(12 * Sector));
  }

  /// The slots of a set, with checksum and hash (of a name of ASCII letters).
  static TByteDynArray Set(const TExFatFile& file) {
    const TString name = FromUtf8(file.Name);
    const std::size_t names = (name.size() + 14) / 15;
    TByteDynArray slots((2 + names) * 32);
    const auto put = [&](std::size_t at, std::uint64_t value, std::size_t size) {
      for (std::size_t i = 0; i < size; ++i) slots[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
    };
    slots[0] = 0x85;
    slots[1] = static_cast<std::uint8_t>(1 + names);
    put(4, file.Folder ? 0x10 : 0x20, 2);
    put(8, file.Created, 4);
    put(12, file.Modified, 4);
    put(16, file.Modified, 4);
    slots[20] = file.Hundredths;
    slots[22] = slots[23] = slots[24] = file.Zone;
    slots[32] = 0xC0;
    slots[33] = file.Chain ? 1 : 3;
    slots[35] = static_cast<std::uint8_t>(name.size());
    std::uint16_t hash = 0;
    for (const char16_t unit : name) {
      const auto upper = static_cast<std::uint8_t>(unit >= 'a' && unit <= 'z' ? unit - 32 : unit);
      for (const std::uint8_t byte : {upper, std::uint8_t{0}}) {
        hash = static_cast<std::uint16_t>((hash << 15 | hash >> 1) + byte);
      }
    }
    put(36, hash, 2);
    put(40, file.ValidSize < 0 ? file.Size : static_cast<std::uint64_t>(file.ValidSize), 8);
    put(52, file.Cluster, 4);
    put(56, file.Size, 8);
    for (std::size_t i = 0; i < name.size(); ++i) {
      slots[64 + i / 15 * 32] = 0xC1;
      put(66 + i / 15 * 32 + i % 15 * 2, name[i], 2);
    }
    std::uint16_t sum = 0;
    for (std::size_t i = 0; i < slots.size(); ++i) {
      if (i != 2 && i != 3) sum = static_cast<std::uint16_t>((sum << 15 | sum >> 1) + slots[i]);
    }
    put(2, sum, 2);
    for (std::size_t at = 0; file.Deleted && at < slots.size(); at += 32) slots[at] &= 0x7F;
    return slots;
  }
  /// Writes a set and returns the place after it.
  std::size_t PutSet(std::size_t at, const TExFatFile& file) {
    const TByteDynArray slots = Set(file);
    std::copy(slots.begin(), slots.end(), Image.begin() + static_cast<std::ptrdiff_t>(at));
    return at + slots.size();
  }
  /// A set at the end of the root, which is made longer as need be; the place of its first slot.
  std::size_t AddToRoot(const TExFatFile& file) {
    const std::size_t at = RootEnd;
    RootEnd = PutSet(at, file);
    for (std::uint32_t cluster = 4; At(cluster) < RootEnd; ++cluster) {
      Use(cluster);
      if (cluster > 4) Link(cluster - 1, cluster);
      Link(cluster, 0xFFFFFFFF);
    }
    return at;
  }
};

/// A volume that was mounted and analysed.
struct TAnalysed {
  TEngine Engine;
  int Number = -1;

  explicit TAnalysed(const TImage& image);
  /// The first row of that name; null when there is none.
  TFile* Row(const std::string& name);
  TDriveInfo& Drive() { return DriveOf(Engine, Number); }
  std::string Content(const std::string& name);
  /// "live", "whole" (deleted), "doubtful", "overwritten", or "none".
  std::string State(const std::string& name);
};

}  // namespace brenlow::test
