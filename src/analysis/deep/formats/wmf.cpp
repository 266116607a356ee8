// SPDX-License-Identifier: GPL-3.0-or-later
// Metafiles with a placeable header: records up to the one that ends them ([MS-WMF] 2.3).
#include "analysis/deep/structure.h"

namespace brenlow {

TStructure ReadWmf(TFileWindow& window) {
  constexpr std::int64_t placeable = 22;  // bytes before the header itself
  if (window.Le(placeable + 2, 2) != 9) return {};
  std::int64_t at = placeable + 18;
  while (at + 6 <= window.Size()) {
    const auto size = 2 * static_cast<std::int64_t>(window.Le(at, 4));
    const bool isEnd = window.Le(at + 4, 2) == 0;
    if (size < 6 || at + size > window.Size()) break;
    at += size;
    if (isEnd) return {at, size == 6};
  }
  return {at};
}

}  // namespace brenlow
