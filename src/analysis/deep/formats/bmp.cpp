// SPDX-License-Identifier: GPL-3.0-or-later
// Windows bitmaps: the size in the header, checked against rows and palette (Microsoft, "Bitmap Storage").
#include "analysis/deep/structure.h"

namespace brenlow {

TStructure ReadBmp(TFileWindow& window) {
  const auto size = static_cast<std::int64_t>(window.Le(2, 4));
  const auto pixels = static_cast<std::int64_t>(window.Le(10, 4));
  const auto header = static_cast<std::int64_t>(window.Le(14, 4));
  if (header < 40 || header > 124 || pixels < 14 + header || size < pixels || size > window.Size()) return {};
  const std::int64_t width = static_cast<std::int32_t>(window.Le(18, 4));
  std::int64_t height = static_cast<std::int32_t>(window.Le(22, 4));
  height = height < 0 ? -height : height;
  const auto depth = static_cast<std::int64_t>(window.Le(28, 2));
  const std::uint64_t compression = window.Le(30, 4);
  if (window.Le(26, 2) != 1 || width <= 0 || height == 0 || depth > 32) return {};
  const bool isPlain = compression == 0 || compression == 3;
  const std::int64_t needed =
      isPlain ? (width * depth + 31) / 32 * 4 * height : static_cast<std::int64_t>(window.Le(34, 4));
  // Some programs pad the end to whole words.
  const std::int64_t excess = size - pixels - needed;
  return {size, needed > 0 && excess >= 0 && excess < 4};
}

}  // namespace brenlow
