// SPDX-License-Identifier: GPL-3.0-or-later
// PNG: chunks with their checksums, up to IEND (ISO/IEC 15948, 5.3).
#include <zlib.h>

#include <algorithm>

#include "analysis/deep/structure.h"

namespace brenlow {

TStructure ReadPng(TFileWindow& window) {
  constexpr std::int64_t overhead = 12;  // bytes of a chunk beside its data
  std::int64_t at = 8;
  while (at + overhead <= window.Size()) {
    const auto length = static_cast<std::int64_t>(window.Be(at, 4));
    if (length > INT32_MAX || at + overhead + length > window.Size()) break;
    const bool isEnd = window.Has(at + 4, "IEND");
    uLong sum = crc32(0, nullptr, 0);
    for (std::int64_t i = at + 4; i < at + 8 + length;) {
      const auto left = static_cast<std::size_t>(at + 8 + length - i);
      const auto bytes = window.Bytes(i, std::min(left, TFileWindow::BlockSize));
      if (bytes.empty()) return {at};
      sum = crc32(sum, bytes.data(), static_cast<uInt>(bytes.size()));
      i += static_cast<std::int64_t>(bytes.size());
    }
    if (sum != window.Be(at + 8 + length, 4)) break;
    at += overhead + length;
    if (isEnd) return {at, true};
  }
  return {at};
}

}  // namespace brenlow
