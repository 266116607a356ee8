// SPDX-License-Identifier: GPL-3.0-or-later
// RIFF (WAV, AVI, ANI, WebP): chunks up to the end that the header states; AVI goes on in further ones (OpenDML).
#include "analysis/deep/structure.h"

namespace brenlow {
namespace {

bool IsPrintable(std::span<const std::uint8_t> id) {
  for (const std::uint8_t byte : id) {
    if (byte < 0x20 || byte > 0x7E) return false;
  }
  return id.size() == 4;
}

/// One list of chunks. Its padded end, the last byte of padding optional.
TStructure ReadList(TFileWindow& window, std::int64_t start) {
  const std::int64_t end = start + 8 + static_cast<std::int64_t>(window.Le(start + 4, 4));
  std::int64_t at = start + 12;
  if (end <= at || end > window.Size()) return {start};
  while (at + 8 <= end) {
    if (!IsPrintable(window.Bytes(at, 4))) return {at};
    const std::int64_t next = at + 8 + static_cast<std::int64_t>(window.Le(at + 4, 4));
    if (next > end) return {at};
    at = next + next % 2;
  }
  return {end, at >= end};
}

}  // namespace

TStructure ReadRiff(TFileWindow& window) {
  if (!window.Has(0, "RIFF")) return {};
  TStructure result = ReadList(window, 0);
  while (result.Sound && window.Has(result.Size, "RIFF") && window.Has(result.Size + 8, "AVIX")) {
    result = ReadList(window, result.Size);
  }
  return result;
}

}  // namespace brenlow
