// SPDX-License-Identifier: GPL-3.0-or-later
// The checksum of metadata: CRC-32C (Castagnoli, reflected), without the final inversion.
#pragma once

#include <cstdint>
#include <span>

namespace brenlow::ext {

/// Goes on from `seed`; the first call starts from all ones.
std::uint32_t Crc32c(std::uint32_t seed, std::span<const std::uint8_t> bytes);

/// The seed from which `bytes` gave the sum `sum`: the way back.
std::uint32_t Crc32cSeed(std::uint32_t sum, std::span<const std::uint8_t> bytes);

}  // namespace brenlow::ext
