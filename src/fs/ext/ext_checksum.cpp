// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ext/ext_checksum.h"

#include <array>

namespace brenlow::ext {
namespace {

constexpr std::array<std::uint32_t, 256> MakeTable() {
  constexpr std::uint32_t polynomial = 0x82F63B78;
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? polynomial : 0);
    table[i] = value;
  }
  return table;
}
constexpr std::array<std::uint32_t, 256> Table = MakeTable();

/// By the highest byte of an entry, which is another one in each, its index.
constexpr std::array<std::uint8_t, 256> MakeIndex() {
  std::array<std::uint8_t, 256> index{};
  for (std::uint32_t i = 0; i < 256; ++i) index[Table[i] >> 24] = static_cast<std::uint8_t>(i);
  return index;
}
constexpr std::array<std::uint8_t, 256> IndexOfHighByte = MakeIndex();

}  // namespace

std::uint32_t Crc32c(std::uint32_t seed, std::span<const std::uint8_t> bytes) {
  for (const std::uint8_t byte : bytes) seed = (seed >> 8) ^ Table[(seed ^ byte) & 0xFF];
  return seed;
}

std::uint32_t Crc32cSeed(std::uint32_t sum, std::span<const std::uint8_t> bytes) {
  for (std::size_t i = bytes.size(); i-- > 0;) {
    const std::uint32_t index = IndexOfHighByte[sum >> 24];
    sum = (sum ^ Table[index]) << 8 | (index ^ bytes[i]);
  }
  return sum;
}

}  // namespace brenlow::ext
