// SPDX-License-Identifier: GPL-3.0-or-later
// What a reader of a format sees of a source: the bytes from a file's first one on, up to a bound.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <utility>

#include "core/numbers.h"
#include "core/types.h"

namespace brenlow {

class TFileWindow {
 public:
  /// Fills the buffer from byte `position` of the file on; what cannot be read is zeros.
  using TFetch = std::function<void(std::int64_t position, std::span<std::uint8_t> buffer)>;

  static constexpr std::size_t BlockSize = 65536;  // bytes of a fetch; no answer is longer

  /// `size`: bytes up to the bound. `budget`: bytes that may still be fetched, shared by all files of a pass. Once it
  /// is used up everything reads as the end of the file.
  TFileWindow(TFetch fetch, std::int64_t size, std::int64_t& budget)
      : FFetch(std::move(fetch)), FSize(size), FBudget(budget) {}

  std::int64_t Size() const { return FSize; }
  /// At most `count` bytes from `position` on: less at the bound, or beyond `BlockSize`. They hold until the next call.
  std::span<const std::uint8_t> Bytes(std::int64_t position, std::size_t count = BlockSize);
  /// Numbers at a place; 0 where they do not lie within the bound.
  std::uint64_t Le(std::int64_t position, std::size_t size) { return ReadNumber(Bytes(position, size), true, size, 0); }
  std::uint64_t Be(std::int64_t position, std::size_t size) {
    return ReadNumber(Bytes(position, size), false, size, 0);
  }
  std::uint8_t Byte(std::int64_t position) { return static_cast<std::uint8_t>(Le(position, 1)); }
  /// Whether that text lies there.
  bool Has(std::int64_t position, std::string_view text);
  /// Work that costs as much as fetching so many bytes: what a loop does that may meet the same place again.
  void Charge(std::int64_t bytes) { FBudget -= bytes; }
  bool IsSpent() const { return FBudget <= 0; }

 private:
  TFetch FFetch;
  std::int64_t FSize;
  std::int64_t& FBudget;
  std::int64_t FFirst = 0;  // of the block
  TByteDynArray FBlock;
};

}  // namespace brenlow
