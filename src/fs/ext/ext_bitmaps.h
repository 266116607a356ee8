// SPDX-License-Identifier: GPL-3.0-or-later
// What the bitmaps of the block groups say is in use. Each is read when it is first asked for, and kept.
#pragma once

#include <cstdint>

#include "core/drive_records.h"

namespace brenlow {

class TEngine;

namespace ext {

/// Whether an inode counts as used; true where the bitmap cannot be read.
bool IsInodeUsed(TEngine& engine, TDriveInfo& drive, std::int64_t inode);

/// How many of `count` blocks from `block` on are in the same state, and whether that is "in use". Blocks whose
/// bitmap cannot be had count as used.
std::int64_t SameState(TEngine& engine, TDriveInfo& drive, std::int64_t block, std::int64_t count, bool& used);

}  // namespace ext
}  // namespace brenlow
