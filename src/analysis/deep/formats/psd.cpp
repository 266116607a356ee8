// SPDX-License-Identifier: GPL-3.0-or-later
// Photoshop documents: four sections with their lengths, then the rows of the merged picture (Adobe, file formats).
#include "analysis/deep/structure.h"

namespace brenlow {

TStructure ReadPsd(TFileWindow& window) {
  const auto channels = static_cast<std::int64_t>(window.Be(12, 2));
  const auto height = static_cast<std::int64_t>(window.Be(14, 4));
  const auto width = static_cast<std::int64_t>(window.Be(18, 4));
  const auto depth = static_cast<std::int64_t>(window.Be(22, 2));
  constexpr std::int64_t mostSide = 30000;  // pixels
  if (window.Be(4, 2) != 1 || channels < 1 || channels > 56 || height < 1 || height > mostSide || width < 1 ||
      width > mostSide || depth < 1 || depth > 32)
    return {};
  std::int64_t at = 26;
  for (int section = 0; section < 3; ++section) at += 4 + static_cast<std::int64_t>(window.Be(at, 4));
  if (at + 2 > window.Size()) return {};
  const std::uint64_t packing = window.Be(at, 2);
  const std::int64_t rows = channels * height;
  std::int64_t end = at + 2;
  if (packing == 0) {
    end += rows * ((width * depth + 7) / 8);
  } else if (packing == 1) {
    if (end + 2 * rows > window.Size()) return {at};
    // The length of each packed row, then the rows.
    for (std::int64_t row = 0; row < rows; ++row) end += static_cast<std::int64_t>(window.Be(at + 2 + 2 * row, 2));
    end += 2 * rows;
  } else {
    return {at};
  }
  return {end, end <= window.Size()};
}

}  // namespace brenlow
