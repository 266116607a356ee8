// SPDX-License-Identifier: GPL-3.0-or-later
// ASF (also WMA, WMV): the objects of the top level ([ASF] 2.1 and 3 to 6).
#include "analysis/deep/structure.h"

namespace brenlow {
namespace {

// First parts of the identifiers, as they lie on the disk.
constexpr std::uint32_t Header = 0x75B22630;
constexpr std::uint32_t Data = 0x75B22636;
constexpr std::uint32_t SimpleIndex = 0x33000890;
constexpr std::uint32_t Index = 0xD6E229D3;
constexpr std::uint32_t MediaIndex = 0xFEB103F8;
constexpr std::uint32_t TimecodeIndex = 0x3CB73FD0;

}  // namespace

TStructure ReadAsf(TFileWindow& window) {
  constexpr std::int64_t least = 24;  // bytes of an object
  std::int64_t at = 0;
  bool hasData = false;
  while (at + least <= window.Size()) {
    const auto kind = static_cast<std::uint32_t>(window.Le(at, 4));
    if (kind != (at == 0   ? Header
                 : hasData ? SimpleIndex
                           : Data) &&
        !(hasData && (kind == Index || kind == MediaIndex || kind == TimecodeIndex)))
      break;
    const std::uint64_t size = window.Le(at + 16, 8);
    if (size < least || size > static_cast<std::uint64_t>(window.Size() - at)) return {at};
    hasData = hasData || kind == Data;
    at += static_cast<std::int64_t>(size);
  }
  return {at, hasData};
}

}  // namespace brenlow
