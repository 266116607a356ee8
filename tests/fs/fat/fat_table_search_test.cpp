// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/fat/fat_table_search.h"

#include <doctest/doctest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

using namespace brenlow;
using namespace brenlow::fat;

TEST_CASE("Two sectors of a file that begin like tables of FAT16 are too far apart for tables") {
  constexpr int sectorSize = 512;
  std::vector<std::uint8_t> narrow(sectorSize), wide(sectorSize);
  std::ranges::copy(std::vector<std::uint8_t>{0xF8, 0xFF, 0xFF, 0xFF, 3, 0}, narrow.begin());
  std::ranges::copy(std::vector<std::uint8_t>{0xF8, 0xFF, 0xFF, 0x0F, 0xFF, 0xFF, 0xFF, 0x0F}, wide.begin());
  const auto isPair = [&](const std::vector<std::uint8_t>& sector, std::int64_t distance) {
    TTableSearch search;
    CHECK_FALSE(search.Note(sector, 1000, sectorSize));
    return search.Note(sector, 1000 + distance, sectorSize);
  };
  CHECK(isPair(narrow, 1));
  CHECK(isPair(narrow, 256));  // all 65,536 entries
  CHECK_FALSE(isPair(narrow, 300));
  CHECK(isPair(wide, 300));
  // What is too far from one may be the first of two.
  TTableSearch search;
  for (const std::int64_t sector : {1000, 9000, 9200}) search.Note(narrow, sector, sectorSize);
  REQUIRE(search.Pairs.size() == 1);
  CHECK(search.Pairs[0].First == 9000);
  CHECK(search.Pairs[0].Size == 200);
}
