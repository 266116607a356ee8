// SPDX-License-Identifier: GPL-3.0-or-later
// RAR: blocks, each header with its checksum, up to the end block (technical notes of formats 4 and 5).
#include <zlib.h>

#include "analysis/deep/structure.h"

namespace brenlow {
namespace {

/// The sum of a header that lies within one block of the window; 0 for one that does not.
std::uint64_t Sum(TFileWindow& window, std::int64_t at, std::uint64_t size) {
  if (size > TFileWindow::BlockSize) return 0;
  const auto bytes = window.Bytes(at, static_cast<std::size_t>(size));
  return bytes.size() == size ? crc32(0, bytes.data(), static_cast<uInt>(size)) : 0;
}

TStructure ReadOld(TFileWindow& window) {
  constexpr std::uint8_t fileBlock = 0x74;
  constexpr std::uint8_t endBlock = 0x7B;
  std::int64_t at = 7;
  while (at < window.Size()) {
    const std::uint8_t kind = window.Byte(at + 2);
    const std::uint64_t flags = window.Le(at + 3, 2);
    const std::uint64_t header = window.Le(at + 5, 2);
    if (header < 7 || (Sum(window, at + 2, header - 2) & 0xFFFF) != window.Le(at, 2)) break;
    std::uint64_t data = (flags & 0x8000) != 0 ? window.Le(at + 7, 4) : 0;
    if (kind == fileBlock && (flags & 0x100) != 0) data |= window.Le(at + 32, 4) << 32;
    if (data > static_cast<std::uint64_t>(window.Size())) break;
    const std::int64_t next = at + static_cast<std::int64_t>(header + data);
    if (next > window.Size()) break;
    at = next;
    if (kind == endBlock) return {at, true};
  }
  return {at};
}

/// A number of seven bits a byte; moves on behind it.
std::uint64_t Number(TFileWindow& window, std::int64_t& at) {
  std::uint64_t value = 0;
  for (unsigned shift = 0; shift < 63; shift += 7) {
    const std::uint8_t byte = window.Byte(at++);
    value |= static_cast<std::uint64_t>(byte & 0x7F) << shift;
    if ((byte & 0x80) == 0) break;
  }
  return value;
}

TStructure ReadNew(TFileWindow& window) {
  constexpr std::uint64_t endBlock = 5;
  std::int64_t at = 8;
  while (at < window.Size()) {
    std::int64_t field = at + 4;
    const std::uint64_t size = Number(window, field);
    const std::int64_t header = field;
    if (size < 2 || size > TFileWindow::BlockSize) break;
    const auto length = static_cast<std::uint64_t>(header - at - 4) + size;
    if (Sum(window, at + 4, length) != window.Le(at, 4)) break;
    const std::uint64_t kind = Number(window, field);
    const std::uint64_t flags = Number(window, field);
    if ((flags & 1) != 0) Number(window, field);
    const std::uint64_t data = (flags & 2) != 0 ? Number(window, field) : 0;
    if (data > static_cast<std::uint64_t>(window.Size())) break;
    const std::int64_t next = header + static_cast<std::int64_t>(size + data);
    if (next > window.Size()) break;
    at = next;
    if (kind == endBlock) return {at, true};
  }
  return {at};
}

}  // namespace

TStructure ReadRar(TFileWindow& window) {
  if (window.Has(0, std::string_view("Rar!\x1A\x07\x01\x00", 8))) return ReadNew(window);
  return window.Has(0, std::string_view("Rar!\x1A\x07\x00", 7)) ? ReadOld(window) : TStructure();
}

}  // namespace brenlow
