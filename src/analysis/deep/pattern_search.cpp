// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/deep/pattern_search.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "core/numbers.h"

namespace brenlow {
namespace {

static_assert(std::endian::native == std::endian::little, "positions are counted from the low byte of a word");

constexpr std::size_t BlockSize = 16;
// A vector type of the compiler: one register on every machine that has such registers.
using TBlock = std::uint8_t __attribute__((vector_size(BlockSize)));

TBlock Load(const std::uint8_t* bytes) {
  TBlock block;
  std::memcpy(&block, bytes, BlockSize);
  return block;
}

/// Per position of a block, all bits set where `first` stands right before `second`. Reads
/// one byte more than a block.
TBlock Pairs(const std::uint8_t* bytes, TBlock first, TBlock second) {
  return static_cast<TBlock>((Load(bytes) == first) & (Load(bytes + 1) == second));
}

struct THalves {
  std::uint64_t Low;
  std::uint64_t High;
};
THalves HalvesOf(TBlock block) {
  THalves halves;
  static_assert(sizeof(halves) == sizeof(block));
  std::memcpy(&halves, &block, sizeof(halves));
  return halves;
}

bool Any(TBlock block) {
  const THalves halves = HalvesOf(block);
  return (halves.Low | halves.High) != 0;
}

}  // namespace

TPatternSearch::TPatternSearch(TSignatureCells cells)
    : FCells(std::move(cells)),
      FFirst(static_cast<std::uint8_t>(FCells.at(0))),
      FSecond(static_cast<std::uint8_t>(FCells.at(1))),
      FHead(FCells) {
  if (std::find(FCells.begin(), FCells.end(), -1) == FCells.end()) FPlain.assign(FCells.begin(), FCells.end());
}

bool TPatternSearch::MatchesAt(std::span<const std::uint8_t> bytes, std::size_t at) const {
  if (bytes.size() - at >= sizeof(std::uint64_t) && !FHead.Fits(LoadLe64(bytes.data() + at))) return false;
  if (!FPlain.empty()) return std::memcmp(bytes.data() + at, FPlain.data(), FPlain.size()) == 0;
  return MatchesCells(FCells, bytes.subspan(at));
}

/// The last match among eight positions from `at` on; `pairs` has the bits of a byte set for each
/// that comes into question.
std::size_t TPatternSearch::LastMatch(std::span<const std::uint8_t> bytes, std::size_t at, std::uint64_t pairs) const {
  while (pairs != 0) {
    const auto i = static_cast<unsigned>(63 - std::countl_zero(pairs)) / 8;
    if (MatchesAt(bytes, at + i)) return at + i;
    pairs &= ~(std::uint64_t{0xFF} << (8 * i));
  }
  return NotFound;
}

bool TPatternSearch::Contains(std::span<const std::uint8_t> bytes) const {
  return FindLast(bytes, bytes.size()) != NotFound;
}

std::size_t TPatternSearch::FindLast(std::span<const std::uint8_t> bytes, std::size_t positions) const {
  if (bytes.size() < FCells.size()) return NotFound;
  positions = std::min(positions, bytes.size() - FCells.size() + 1);
  std::size_t end = positions;
  for (; end % BlockSize != 0; --end) {
    if (bytes[end - 1] == FFirst && MatchesAt(bytes, end - 1)) return end - 1;
  }
  const TBlock first = TBlock{} + FFirst;
  const TBlock second = TBlock{} + FSecond;
  constexpr std::size_t stride = 4 * BlockSize;
  while (end > 0) {
    if (end >= stride) {
      const std::uint8_t* at = bytes.data() + end - stride;
      const TBlock pairs = Pairs(at, first, second) | Pairs(at + BlockSize, first, second) |
                           Pairs(at + 2 * BlockSize, first, second) | Pairs(at + 3 * BlockSize, first, second);
      if (!Any(pairs)) {
        end -= stride;
        continue;
      }
    }
    end -= BlockSize;
    const THalves pairs = HalvesOf(Pairs(bytes.data() + end, first, second));
    std::size_t at = LastMatch(bytes, end + sizeof(pairs.Low), pairs.High);
    if (at == NotFound) at = LastMatch(bytes, end, pairs.Low);
    if (at != NotFound) return at;
  }
  return NotFound;
}

}  // namespace brenlow
