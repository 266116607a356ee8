// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/sizes.h"

#include <fmt/format.h>

namespace brenlow {

std::string SizeText(std::int64_t bytes) {
  if (bytes == 1) return "1 byte";
  if (bytes < 1024) return fmt::format("{} bytes", bytes);
  constexpr const char* units[] = {"KB", "MB", "GB", "TB", "PB", "EB"};
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (value >= 1023.995 && unit + 1 < std::size(units)) {
    value /= 1024;
    ++unit;
  }
  return fmt::format("{:.{}f} {}", value, value < 9.995 ? 2 : value < 99.95 ? 1 : 0, units[unit]);
}

}  // namespace brenlow
