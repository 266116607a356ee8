// SPDX-License-Identifier: GPL-3.0-or-later
// Windows icons, the one format whose size follows from its own directory.
#pragma once

#include <cstdint>
#include <span>

namespace brenlow {

/// Size in bytes of the icon that begins with these bytes, 0 when they are none. The directory
/// (Microsoft, "Icons", ICONDIR and ICONDIRENTRY) must list its images one right behind the other;
/// entries beyond the bytes at hand are taken on trust.
std::int64_t GetIconSize(std::span<const std::uint8_t> bytes);

}  // namespace brenlow
