// SPDX-License-Identifier: GPL-3.0-or-later
// Help files in HTML: the first section tells the size (published reading of the ITSF header).
#include "analysis/deep/structure.h"

namespace brenlow {

TStructure ReadChm(TFileWindow& window) {
  const std::uint64_t section = window.Le(0x38, 8);
  if (section > 0x1000 || window.Le(static_cast<std::int64_t>(section), 4) != 0x1FE) return {};
  const auto size = static_cast<std::int64_t>(window.Le(static_cast<std::int64_t>(section) + 8, 8));
  const std::uint64_t directory = window.Le(0x48, 8);
  const bool hasDirectory = directory < INT64_MAX && window.Has(static_cast<std::int64_t>(directory), "ITSP");
  return {size, hasDirectory && size > static_cast<std::int64_t>(directory) && size <= window.Size()};
}

}  // namespace brenlow
