// SPDX-License-Identifier: GPL-3.0-or-later
// Compound documents: the sector table says which sectors are in use ([MS-CFB] 2.2 to 2.5).
#include <algorithm>
#include <vector>

#include "analysis/deep/structure.h"

namespace brenlow {
namespace {

constexpr std::int64_t MostTableSectors = 65536;   // 4 GiB in sectors of 512 bytes
constexpr std::uint32_t TableSector = 0xFFFFFFFD;  // in the table: the sector holds a part of it
constexpr std::uint32_t FirstSpecial = 0xFFFFFFFA;
constexpr std::uint32_t Free = 0xFFFFFFFF;

/// The sectors that the table lies in; empty when the list of them is damaged.
std::vector<std::uint32_t> TableSectors(TFileWindow& window, std::int64_t sectorSize) {
  constexpr std::int64_t inHeader = 109;
  const auto count = static_cast<std::int64_t>(window.Le(44, 4));
  if (count < 1 || count > std::min(window.Size() / sectorSize, MostTableSectors)) return {};
  std::vector<std::uint32_t> sectors;
  for (std::int64_t i = 0; i < std::min(count, inHeader); ++i) {
    sectors.push_back(static_cast<std::uint32_t>(window.Le(76 + 4 * i, 4)));
  }
  std::uint64_t list = window.Le(68, 4);
  const std::int64_t perSector = sectorSize / 4 - 1;
  for (std::int64_t left = count - inHeader; left > 0; left -= perSector) {
    if (list >= FirstSpecial) return {};
    const std::int64_t at = (static_cast<std::int64_t>(list) + 1) * sectorSize;
    for (std::int64_t i = 0; i < std::min(left, perSector); ++i) {
      sectors.push_back(static_cast<std::uint32_t>(window.Le(at + 4 * i, 4)));
    }
    list = window.Le(at + 4 * perSector, 4);
  }
  return sectors;
}

}  // namespace

TStructure ReadCompound(TFileWindow& window) {
  const std::uint64_t shift = window.Le(30, 2);
  if ((shift != 9 && shift != 12) || window.Le(28, 2) != 0xFFFE) return {};
  const std::int64_t sectorSize = std::int64_t{1} << shift;
  const std::int64_t perSector = sectorSize / 4;
  const std::vector<std::uint32_t> table = TableSectors(window, sectorSize);
  const std::int64_t entries = static_cast<std::int64_t>(table.size()) * perSector;
  std::int64_t last = -1;
  std::int64_t marked = 0;  // sectors that the table names as its own
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (table[i] >= FirstSpecial) return {};
    const std::int64_t at = (std::int64_t{table[i]} + 1) * sectorSize;
    window.Charge(sectorSize);  // the list may name one sector many times
    const auto bytes = window.Bytes(at, static_cast<std::size_t>(sectorSize));
    if (static_cast<std::int64_t>(bytes.size()) < sectorSize) return {};
    for (std::int64_t entry = 0; entry < perSector; ++entry) {
      const std::uint32_t value = ReadLe32(bytes, static_cast<std::size_t>(4 * entry));
      if (value == Free) continue;
      if (value < FirstSpecial && value >= entries) return {};
      if (value == TableSector) ++marked;
      last = static_cast<std::int64_t>(i) * perSector + entry;
    }
  }
  const std::int64_t size = (last + 2) * sectorSize;
  return {size, last >= 0 && size <= window.Size() && marked == static_cast<std::int64_t>(table.size())};
}

}  // namespace brenlow
