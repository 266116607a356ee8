// SPDX-License-Identifier: GPL-3.0-or-later
// Looks for byte patterns in sectors, many bytes at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "table/signatures.h"

namespace brenlow {

class TPatternSearch {
 public:
  static constexpr std::size_t NotFound = static_cast<std::size_t>(-1);
  static constexpr std::size_t ShortestPattern = 2;  // cells

  /// The first two cells of the pattern are no wildcards.
  explicit TPatternSearch(TSignatureCells cells);

  std::size_t Length() const { return FCells.size(); }
  /// Whether the pattern lies anywhere in the bytes as a whole.
  bool Contains(std::span<const std::uint8_t> bytes) const;
  /// The last position below `positions` where the pattern begins and lies in the bytes as a whole.
  std::size_t FindLast(std::span<const std::uint8_t> bytes, std::size_t positions) const;

 private:
  bool MatchesAt(std::span<const std::uint8_t> bytes, std::size_t at) const;
  std::size_t LastMatch(std::span<const std::uint8_t> bytes, std::size_t at, std::uint64_t pairs) const;

  TSignatureCells FCells;
  TByteDynArray FPlain;  // the same when there is no wildcard
  // The first two cells, which are looked for, and as many as fit in eight bytes.
  std::uint8_t FFirst;
  std::uint8_t FSecond;
  TCellsHead FHead;
};

}  // namespace brenlow
