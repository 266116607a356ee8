// SPDX-License-Identifier: GPL-3.0-or-later
// LZNT1, the compression of NTFS and of compressed disk images: independent chunks that expand to
// 4096 bytes each.
//
// Format facts: Microsoft, [MS-XCA] "Xpress Compression Algorithm", section 2.5.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "core/types.h"

namespace brenlow {

/// Decompresses a stream into `output`, at most `limit` bytes of it: a full output ends the call
/// with success. False on damage; `output` then holds what came before it.
bool DecompressLZNT1(std::span<const std::uint8_t> input, TByteDynArray& output, std::size_t limit = 65536);

/// The same for a stream that may be damaged, whose place in `output` is given. Each chunk expands to
/// its 4096 bytes: those of a damaged one, or of one that lies in bytes that `isUnreadable(first, end)`
/// names, are zeros, and the next header is where this one says. What is left of `output` is zeros.
/// False when anything was lost.
bool SalvageLZNT1(std::span<const std::uint8_t> input, std::span<std::uint8_t> output,
                  const std::function<bool(std::size_t first, std::size_t end)>& isUnreadable);

/// Compresses into `output`, which must not become longer than `capacity`. False when it does not
/// fit; `output` is then of no use.
bool CompressLZNT1(std::span<const std::uint8_t> input, TByteDynArray& output, std::size_t capacity);

}  // namespace brenlow
