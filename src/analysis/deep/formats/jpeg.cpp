// SPDX-License-Identifier: GPL-3.0-or-later
// JPEG: segments and scan data up to the end marker (ITU-T T.81, B.1 and B.2).
#include <cstring>

#include "analysis/deep/structure.h"

namespace brenlow {
namespace {

/// The next marker within scan data: its FF byte; -1 when there is none.
std::int64_t NextMarker(TFileWindow& window, std::int64_t at) {
  for (;;) {
    const auto bytes = window.Bytes(at);
    if (bytes.size() < 2) return -1;
    const void* found = std::memchr(bytes.data(), 0xFF, bytes.size() - 1);
    if (found == nullptr) {
      at += static_cast<std::int64_t>(bytes.size()) - 1;
      continue;
    }
    const auto offset = static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - bytes.data());
    const std::uint8_t code = bytes[offset + 1];
    at += static_cast<std::int64_t>(offset);
    if (code == 0xFF) {
      ++at;
    } else if (code == 0 || (code >= 0xD0 && code <= 0xD7)) {
      at += 2;
    } else {
      return at;
    }
  }
}

}  // namespace

TStructure ReadJpeg(TFileWindow& window) {
  std::int64_t at = 2;
  bool hasFrame = false;
  bool hasScan = false;
  while (at >= 0 && at + 2 <= window.Size() && window.Byte(at) == 0xFF) {
    const std::uint8_t code = window.Byte(at + 1);
    if (code == 0xFF) {
      ++at;
      continue;
    }
    if (code == 0xD9) return {at + 2, hasFrame && hasScan};
    const bool isFrame = code >= 0xC0 && code <= 0xCF && code != 0xC4 && code != 0xC8 && code != 0xCC;
    if (code < 0xC0 || (code >= 0xD0 && code <= 0xD8) || (code >= 0xF0 && code <= 0xFD)) break;
    const auto length = static_cast<std::int64_t>(window.Be(at + 2, 2));
    if (length < 2) break;
    hasFrame = hasFrame || isFrame;
    const std::int64_t next = at + 2 + length;
    if (code != 0xDA) {
      at = next;
      continue;
    }
    hasScan = true;
    const std::int64_t marker = NextMarker(window, next);
    if (marker < 0) break;
    at = marker;
  }
  return {at};
}

}  // namespace brenlow
