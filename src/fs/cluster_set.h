// SPDX-License-Identifier: GPL-3.0-or-later
// A set of clusters of one volume, a bit each.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <vector>

namespace brenlow {

/// Numbers from 0 to the one given at the start. Only pages that hold a number take memory, so a set over
/// the clusters that a crafted boot sector claims costs no more than what is put into it.
class TClusterSet {
 public:
  TClusterSet() = default;
  explicit TClusterSet(std::int64_t last) : FLast(last), FPages(static_cast<std::size_t>(last / PageBits + 1)) {}

  bool Has(std::int64_t cluster) const { return IsIn(cluster) && (WordAt(cluster) >> (cluster % 64) & 1) != 0; }

  /// False when it is in the set already or lies outside of the volume.
  bool Add(std::int64_t cluster) {
    if (!IsIn(cluster) || Has(cluster)) return false;
    AddWord(cluster, std::uint64_t{1} << (cluster % 64));
    return true;
  }

  /// Adds those of 64 clusters from `cluster` (a multiple of 64) on whose bits are set.
  void AddWord(std::int64_t cluster, std::uint64_t bits) {
    if (bits == 0 || !IsIn(cluster)) return;
    std::vector<std::uint64_t>& page = FPages[static_cast<std::size_t>(cluster / PageBits)];
    if (page.empty()) page.resize(PageBits / 64, 0);
    page[static_cast<std::size_t>(cluster % PageBits / 64)] |= bits;
  }

  /// Adds the clusters from `first` up to, not including, `end`.
  void AddRange(std::int64_t first, std::int64_t end) {
    end = std::min(end, FLast + 1);
    for (std::int64_t at = std::max<std::int64_t>(first, 0); at < end;) {
      const std::int64_t word = at / 64 * 64;
      const std::int64_t until = std::min(word + 64, end);
      std::uint64_t bits = ~std::uint64_t{0} << (at - word);
      if (until - word < 64) bits &= (std::uint64_t{1} << (until - word)) - 1;
      AddWord(word, bits);
      at = until;
    }
  }

  /// The first member from `first` up to, not including, `end`; `end` when there is none.
  std::int64_t FirstIn(std::int64_t first, std::int64_t end) const {
    for (std::int64_t at = std::max<std::int64_t>(first, 0); at < end && at <= FLast;) {
      const bool noPage = FPages[static_cast<std::size_t>(at / PageBits)].empty();
      const std::uint64_t bits = noPage ? 0 : WordAt(at) >> (at % 64);
      if (bits != 0) return std::min(at + std::countr_zero(bits), end);
      const std::int64_t unit = noPage ? PageBits : 64;
      at = at / unit * unit + unit;
    }
    return end;
  }

  /// The first number from `first` up to, not including, `end` that is not in the set; `end` when all are.
  std::int64_t FirstNotIn(std::int64_t first, std::int64_t end) const {
    for (std::int64_t at = std::max<std::int64_t>(first, 0); at < end;) {
      if (at > FLast || FPages[static_cast<std::size_t>(at / PageBits)].empty()) return at;
      const std::uint64_t gaps = ~WordAt(at) >> (at % 64);
      if (gaps != 0) return std::min(at + std::countr_zero(gaps), end);
      at = at / 64 * 64 + 64;
    }
    return end;
  }

  /// How many numbers are in it.
  std::int64_t Count() const {
    std::int64_t count = 0;
    for (const auto& page : FPages) {
      for (const std::uint64_t word : page) count += std::popcount(word);
    }
    return count;
  }

 private:
  static constexpr std::int64_t PageBits = 262144;  // 32 KiB

  bool IsIn(std::int64_t cluster) const { return cluster >= 0 && cluster <= FLast; }
  std::uint64_t WordAt(std::int64_t cluster) const {
    const std::vector<std::uint64_t>& page = FPages[static_cast<std::size_t>(cluster / PageBits)];
    return page.empty() ? 0 : page[static_cast<std::size_t>(cluster % PageBits / 64)];
  }

  std::int64_t FLast = -1;
  std::vector<std::vector<std::uint64_t>> FPages;
};

}  // namespace brenlow
