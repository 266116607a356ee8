// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>

namespace brenlow {

/// A size for people: "512 bytes", "1.44 MB", "2.00 TB" (powers of 1024).
std::string SizeText(std::int64_t bytes);

}  // namespace brenlow
