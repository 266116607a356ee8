// SPDX-License-Identifier: GPL-3.0-or-later
// Finds the rows of a signature table whose headers fit, without a look at all of them.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "core/numbers.h"
#include "table/signatures.h"

namespace brenlow {

class THeaderIndex {
 public:
  explicit THeaderIndex(const std::vector<TFileSignature>& rows);

  /// Calls `use` with the number of each row that fits the bytes, in the order of the table, until
  /// it returns false. True when any row fits.
  template <typename TUse>
  bool ForEachMatch(std::span<const std::uint8_t> bytes, const TUse& use) const {
    bool any = false;
    if (bytes.empty()) return any;
    const std::uint64_t head = Head(bytes);
    for (const TProbe& probe : Probes(bytes.front())) {
      if (!probe.Head.Fits(head) || !MatchesCells(FRows[probe.Row].Header, bytes)) continue;
      any = true;
      if (!use(static_cast<int>(probe.Row))) break;
    }
    return any;
  }

 private:
  struct TProbe {
    TCellsHead Head;
    std::uint32_t Row;
  };
  /// The first eight bytes, those that are missing as zeros: the whole header is compared after this.
  static std::uint64_t Head(std::span<const std::uint8_t> bytes) {
    return bytes.size() >= 8 ? LoadLe64(bytes.data()) : ReadNumber(bytes, true, bytes.size(), 0);
  }
  std::span<const TProbe> Probes(std::uint8_t firstByte) const {
    return std::span(FProbes).subspan(FBegin[firstByte], FBegin[firstByte + 1U] - FBegin[firstByte]);
  }

  const std::vector<TFileSignature>& FRows;
  std::vector<TProbe> FProbes;  // grouped by the first byte, each group in the order of the rows
  std::array<std::uint32_t, 257> FBegin{};
};

}  // namespace brenlow
