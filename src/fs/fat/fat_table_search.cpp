// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/fat/fat_table_search.h"

#include <algorithm>
#include <bit>
#include <string_view>

#include "core/numbers.h"

namespace brenlow::fat {
namespace {

// A disk of old tables has no more of either.
constexpr std::size_t MostStarts = 256;
constexpr std::size_t MostPairs = 64;
constexpr std::int64_t RootArea16 = 512 * 32;  // bytes of the root that FAT16 volumes have on disks
constexpr std::int64_t LargestTable16 =
    65536 * 2 + 16 * 512;  // bytes: an entry for each number, and what formatters round up

/// The width of the table that begins with these bytes: the first entry holds the media byte with all
/// other bits set, the second one is an end mark with two flags of its own (Microsoft, "FAT: General
/// Overview of On-Disk Format", FAT[0] and FAT[1]).
TFileSystem WidthOf(std::span<const std::uint8_t> bytes) {
  const std::uint8_t media = bytes[0];
  if ((media != 0xF0 && (media < 0xF8 || media == 0xFF)) || bytes[1] != 0xFF || bytes[2] != 0xFF) {
    return TFileSystem::fsUnknown;
  }
  constexpr std::uint32_t flags32 = 0x0C000000;
  const std::uint32_t second = ReadLe32(bytes, 4) & 0x0FFFFFFF;
  if ((bytes[3] & 0x0F) == 0x0F && bytes[3] < 0x10 && (second | flags32) >= 0x0FFFFFF8) return TFileSystem::fsFAT32;
  return (bytes[3] & 0x3F) == 0x3F ? TFileSystem::fsFAT16 : TFileSystem::fsUnknown;
}

}  // namespace

std::int64_t TTablePair::DataFirst() const {
  // Sectors of 512 bytes: no other size is in use with FAT16.
  return RootArea() + (Width == TFileSystem::fsFAT16 ? RootArea16 / 512 : 0);
}

int TTablePair::MostVotes() const { return *std::max_element(Votes.begin(), Votes.end()); }

int TTablePair::SectorsPerCluster() const {
  const auto most = std::max_element(Votes.begin(), Votes.end());
  return *most == 0 ? 0 : 1 << (most - Votes.begin());
}

void TTableSearch::Clear() {
  Pairs.clear();
  FStarts.clear();
}

bool TTableSearch::Note(std::span<const std::uint8_t> bytes, std::int64_t sector, int bytesPerSector) {
  if (bytes.size() < static_cast<std::size_t>(bytesPerSector) || bytes[1] != 0xFF || bytes[2] != 0xFF) return false;
  const TFileSystem width = WidthOf(bytes);
  if (width == TFileSystem::fsUnknown) return false;
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(bytesPerSector));
  const TStart start{width, sector, std::hash<std::string_view>()(text)};
  // The nearest one before it that begins alike. Tables of one volume differ while a change is under way
  // only.
  const auto first = std::find_if(FStarts.rbegin(), FStarts.rend(),
                                  [&](const TStart& s) { return s.Width == width && s.Content == start.Content; });
  const bool isNear = first != FStarts.rend() &&
                      (width != TFileSystem::fsFAT16 || (sector - first->Sector) * bytesPerSector <= LargestTable16);
  const bool isPair = isNear && Pairs.size() < MostPairs;
  if (isPair) Pairs.push_back({width, first->Sector, sector - first->Sector, {}});
  if (FStarts.size() >= MostStarts) FStarts.erase(FStarts.begin(), FStarts.begin() + MostStarts / 2);
  FStarts.push_back(start);
  return isPair;
}

bool TTableSearch::AddVote(TTablePair& pair, std::int64_t sector, std::uint32_t cluster) {
  const std::int64_t distance = sector - pair.DataFirst();
  if (cluster < 3 || distance <= 0 || distance % (std::int64_t{cluster} - 2) != 0) return false;
  const auto size = static_cast<std::uint64_t>(distance / (std::int64_t{cluster} - 2));
  if (size > 128 || !std::has_single_bit(size)) return false;
  ++pair.Votes[static_cast<std::size_t>(std::countr_zero(size))];
  return true;
}

int TTableSearch::Vote(std::int64_t sector, std::uint32_t cluster) {
  for (std::size_t i = Pairs.size(); i-- > 0;) {
    if (AddVote(Pairs[i], sector, cluster) && Pairs[i].MostVotes() == 2) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace brenlow::fat
