// SPDX-License-Identifier: GPL-3.0-or-later
// GIF: blocks up to the trailer (GIF89a by CompuServe, 1990).
#include "analysis/deep/structure.h"

namespace brenlow {
namespace {

/// Bytes of a colour table by its flags.
std::int64_t ColourTable(std::uint8_t flags) { return (flags & 0x80) == 0 ? 0 : std::int64_t{6} << (flags & 7); }

/// The byte behind a chain of data blocks.
std::int64_t SkipBlocks(TFileWindow& window, std::int64_t at) {
  for (std::uint8_t length = 1; length != 0 && at < window.Size(); at += 1 + length) {
    length = window.Byte(at);
    if (length == 0) return at + 1;
  }
  return at;
}

}  // namespace

TStructure ReadGif(TFileWindow& window) {
  std::int64_t at = 13 + ColourTable(window.Byte(10));
  while (at < window.Size()) {
    const std::uint8_t kind = window.Byte(at);
    if (kind == 0x3B) return {at + 1, true};
    if (kind == 0x21) {
      at = SkipBlocks(window, at + 2);
    } else if (kind == 0x2C) {
      const std::int64_t data = at + 10 + ColourTable(window.Byte(at + 9));
      const std::uint8_t codeSize = window.Byte(data);
      if (codeSize < 1 || codeSize > 11) break;
      at = SkipBlocks(window, data + 1);
    } else {
      break;
    }
  }
  return {at};
}

}  // namespace brenlow
