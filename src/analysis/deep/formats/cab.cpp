// SPDX-License-Identifier: GPL-3.0-or-later
// Cabinets: folders lead to chains of data blocks, which end where the header says ([MS-CAB] 2).
#include <algorithm>

#include "analysis/deep/structure.h"

namespace brenlow {

TStructure ReadCab(TFileWindow& window) {
  const auto size = static_cast<std::int64_t>(window.Le(8, 4));
  const std::uint64_t folders = window.Le(26, 2);
  const std::uint64_t flags = window.Le(30, 2);
  if (window.Le(4, 4) != 0 || size < 36 || size > window.Size() || folders == 0) return {};
  const bool hasReserve = (flags & 4) != 0;
  std::int64_t at = hasReserve ? 40 + static_cast<std::int64_t>(window.Le(36, 2)) : 36;
  const int folderSize = 8 + (hasReserve ? window.Byte(38) : 0);
  const int blockSize = 8 + (hasReserve ? window.Byte(39) : 0);
  // Cabinets of a set name their neighbours: two texts for each.
  for (int texts = ((flags & 1) != 0 ? 2 : 0) + ((flags & 2) != 0 ? 2 : 0); texts > 0; --texts) {
    while (at < size && window.Byte(at) != 0) ++at;
    ++at;
  }
  std::int64_t end = 0;
  for (std::uint64_t folder = 0; folder < folders; ++folder, at += folderSize) {
    auto block = static_cast<std::int64_t>(window.Le(at, 4));
    for (std::uint64_t left = window.Le(at + 4, 2); left > 0; --left) {
      window.Charge(blockSize);  // folders may share blocks
      if (block < 36 || block + blockSize > size || window.IsSpent()) return {block};
      block += blockSize + static_cast<std::int64_t>(window.Le(block + 4, 2));
    }
    end = std::max(end, block);
  }
  return {size, end == size};
}

}  // namespace brenlow
