// SPDX-License-Identifier: GPL-3.0-or-later
// The order of rows in the file list.
#pragma once

#include <cstdint>

#include "core/types.h"

namespace brenlow {

class TEngine;

enum class TSortKey : std::uint8_t { Name, Type, Size, Status, Modified, Created, FreeSize, FileSystem };

struct TSortOrder {
  TSortKey Key = TSortKey::Name;
  bool Descending = false;
  bool operator==(const TSortOrder&) const = default;
};

/// Folders come before files in either direction; what is equal comes in the order of names.
/// Wrong numbers are not allowed.
void SortFiles(TEngine& engine, TIntegerDynArray& fileNumbers, TSortOrder order);

}  // namespace brenlow
