// SPDX-License-Identifier: GPL-3.0-or-later
// Flash, unpacked: tags up to the end tag, which lies where the header says (SWF file format, chapter 2).
#include "analysis/deep/structure.h"

namespace brenlow {

TStructure ReadSwf(TFileWindow& window) {
  const auto size = static_cast<std::int64_t>(window.Le(4, 4));
  if (size > window.Size()) return {};
  const int bits = 5 + 4 * (window.Byte(8) >> 3);  // of the frame's rectangle
  std::int64_t at = 8 + (bits + 7) / 8 + 4;
  while (at + 2 <= size) {
    const std::uint64_t tag = window.Le(at, 2);
    const bool isLong = (tag & 0x3F) == 0x3F;
    at += isLong ? 6 + static_cast<std::int64_t>(window.Le(at + 2, 4)) : 2 + static_cast<std::int64_t>(tag & 0x3F);
    if (tag == 0) return {at, at == size};
  }
  return {at};
}

}  // namespace brenlow
