// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/deep/icon.h"

#include "core/numbers.h"

namespace brenlow {

std::int64_t GetIconSize(std::span<const std::uint8_t> bytes) {
  constexpr std::size_t headSize = 6;
  constexpr std::size_t entrySize = 16;
  if (bytes.size() < 12) return 0;
  const std::size_t count = ReadLe16(bytes, 4);
  const bool reservedFits = bytes[9] == 0 || bytes[9] == 0xFF;
  if (count == 0 || !reservedFits || ReadLe16(bytes, 10) > 1) return 0;
  auto position = static_cast<std::int64_t>(headSize + count * entrySize);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t entry = headSize + i * entrySize;
    if (entry + entrySize > bytes.size()) break;
    if (ReadLe32(bytes, entry + 12) != position) return 0;
    position += ReadLe32(bytes, entry + 8);
  }
  return position;
}

}  // namespace brenlow
