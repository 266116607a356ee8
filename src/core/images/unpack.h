// SPDX-License-Identifier: GPL-3.0-or-later
// Decompression of the blocks of virtual disks.
#pragma once

#include <cstdint>
#include <span>

namespace brenlow {

enum class TPacking : std::uint8_t {
  Deflate,  ///< raw, as RFC 1951 has it
  Zlib,     ///< with the head and checksum of RFC 1950
  Zstd,
};

/// Fills `output` from the beginning; bytes after the end of the packed data are not an error. The result is how
/// many bytes came out before the data ended or turned out to be damaged.
std::size_t Unpack(TPacking packing, std::span<const std::uint8_t> input, std::span<std::uint8_t> output);

}  // namespace brenlow
