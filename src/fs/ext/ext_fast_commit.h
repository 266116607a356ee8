// SPDX-License-Identifier: GPL-3.0-or-later
// Fast commits: what a program had flushed to the disk after the last full transaction of the journal. They name
// inodes, blocks and names instead of whole blocks of the file system, so the blocks are rebuilt from them.
//
// Format facts: Linux kernel documentation, "ext4 Data Structures and Algorithms" (Journal, Fast commits). All
// numbers are little-endian, unlike those of the rest of the journal.
#pragma once

#include <cstdint>

#include "fs/ext/ext_info.h"

namespace brenlow::ext {

class TVolumeReader;

/// Fills `TExtXInfo::Rebuilt` from the fast commits that belong to the transaction `sequence`: the one after the
/// last that was finished. `reader` reads the volume of `info` with that last one laid over it.
void ApplyFastCommits(TVolumeReader& reader, TExtXInfo& info, std::uint32_t sequence);

}  // namespace brenlow::ext
