// SPDX-License-Identifier: GPL-3.0-or-later
// ZIP and what is packed in it: the end record must lie right behind its directory (APPNOTE 4.3).
#include <cstring>

#include "analysis/deep/structure.h"

namespace brenlow {
namespace {

constexpr std::int64_t RecordSize = 22;  // bytes, without a comment

/// The directory that the record at `at` tells of, from its first to its last entry.
bool HasDirectory(TFileWindow& window, std::int64_t at) {
  auto entry = static_cast<std::int64_t>(window.Le(at + 16, 4));
  if (entry + static_cast<std::int64_t>(window.Le(at + 12, 4)) != at) return false;
  const std::uint64_t count = window.Le(at + 10, 2);
  for (std::uint64_t i = 0; i < count; ++i) {
    window.Charge(46);  // many records may tell of one directory
    if (!window.Has(entry, "PK\1\2")) return false;
    entry +=
        46 + static_cast<std::int64_t>(window.Le(entry + 28, 2) + window.Le(entry + 30, 2) + window.Le(entry + 32, 2));
  }
  return entry == at;
}

}  // namespace

TStructure ReadZip(TFileWindow& window) {
  constexpr std::string_view mark = "PK\5\6";
  for (std::int64_t at = 0;;) {
    const auto bytes = window.Bytes(at);
    if (bytes.size() < mark.size()) return {at};
    const void* found = ::memmem(bytes.data(), bytes.size(), mark.data(), mark.size());
    if (found == nullptr) {
      at += static_cast<std::int64_t>(bytes.size() - mark.size()) + 1;
      continue;
    }
    at += static_cast<const std::uint8_t*>(found) - bytes.data();
    const std::int64_t end = at + RecordSize + static_cast<std::int64_t>(window.Le(at + 20, 2));
    if (end <= window.Size() && HasDirectory(window, at)) return {end, true};
    ++at;
  }
}

}  // namespace brenlow
