// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/deep/header_index.h"

namespace brenlow {

THeaderIndex::THeaderIndex(const std::vector<TFileSignature>& rows) : FRows(rows) {
  for (std::uint32_t first = 0; first < 256; ++first) {
    FBegin[first] = static_cast<std::uint32_t>(FProbes.size());
    for (std::uint32_t row = 0; row < rows.size(); ++row) {
      const TSignatureCells& header = rows[row].Header;
      if (header.empty() || (header[0] >= 0 && header[0] != static_cast<std::int16_t>(first))) continue;
      FProbes.push_back({TCellsHead(header), row});
    }
  }
  FBegin[256] = static_cast<std::uint32_t>(FProbes.size());
}

}  // namespace brenlow
