// SPDX-License-Identifier: GPL-3.0-or-later
// Bounded integer readers: the only way in which on-disk fields become numbers.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace brenlow {

/// Reads an unsigned integer of `size` bytes (1 to 8) at `offset`. A field that does not fit in
/// the buffer, or another size, reads as 0.
constexpr std::uint64_t ReadNumber(std::span<const std::uint8_t> buffer, bool littleEndian, std::size_t size,
                                   std::size_t offset) {
  if (size < 1 || size > 8 || offset > buffer.size() || buffer.size() - offset < size) return 0;
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < size; ++i) {
    const std::size_t at = littleEndian ? size - 1 - i : i;
    value = (value << 8) | buffer[offset + at];
  }
  return value;
}

/// As `ReadNumber`, with the sign bit of the field extended.
constexpr std::int64_t ReadSignedNumber(std::span<const std::uint8_t> buffer, bool littleEndian, std::size_t size,
                                        std::size_t offset) {
  const std::uint64_t value = ReadNumber(buffer, littleEndian, size, offset);
  if (size < 1 || size >= 8) return static_cast<std::int64_t>(value);
  const std::uint64_t sign = std::uint64_t{1} << (size * 8 - 1);
  return static_cast<std::int64_t>((value ^ sign) - sign);
}

constexpr std::uint16_t ReadLe16(std::span<const std::uint8_t> buffer, std::size_t offset) {
  return static_cast<std::uint16_t>(ReadNumber(buffer, true, 2, offset));
}
constexpr std::uint32_t ReadLe32(std::span<const std::uint8_t> buffer, std::size_t offset) {
  return static_cast<std::uint32_t>(ReadNumber(buffer, true, 4, offset));
}
constexpr std::uint64_t ReadLe64(std::span<const std::uint8_t> buffer, std::size_t offset) {
  return ReadNumber(buffer, true, 8, offset);
}
constexpr std::uint16_t ReadBe16(std::span<const std::uint8_t> buffer, std::size_t offset) {
  return static_cast<std::uint16_t>(ReadNumber(buffer, false, 2, offset));
}
constexpr std::uint32_t ReadBe32(std::span<const std::uint8_t> buffer, std::size_t offset) {
  return static_cast<std::uint32_t>(ReadNumber(buffer, false, 4, offset));
}

/// The first eight bytes, unchecked, for inner loops.
inline std::uint64_t LoadLe64(const std::uint8_t* bytes) {
  static_assert(std::endian::native == std::endian::little);
  std::uint64_t value = 0;
  std::memcpy(&value, bytes, sizeof(value));
  return value;
}

inline bool IsAllZero(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return true;
  return bytes.front() == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0;
}

constexpr std::int64_t CeilDiv(std::int64_t value, std::int64_t divisor) {
  return value / divisor + (value % divisor > 0 ? 1 : 0);
}

}  // namespace brenlow
