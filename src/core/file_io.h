// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <span>

namespace brenlow {

/// Writes all of the bytes to the open file, from byte `position` on. 0, or the errno.
int WriteAt(int file, std::span<const std::uint8_t> bytes, std::int64_t position);

}  // namespace brenlow
