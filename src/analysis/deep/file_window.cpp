// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/deep/file_window.h"

#include <algorithm>

namespace brenlow {

std::span<const std::uint8_t> TFileWindow::Bytes(std::int64_t position, std::size_t count) {
  if (position < 0 || position >= FSize || IsSpent()) return {};
  count = std::min({count, BlockSize, static_cast<std::size_t>(std::min<std::int64_t>(FSize - position, BlockSize))});
  const auto end = [&] { return FFirst + static_cast<std::int64_t>(FBlock.size()); };
  if (position < FFirst || position + static_cast<std::int64_t>(count) > end()) {
    // From a sector's start on, and two pieces long, so that what crosses a border is had whole.
    FFirst = position / 4096 * 4096;
    const auto size = static_cast<std::size_t>(std::min<std::int64_t>(FSize - FFirst, BlockSize + 4096));
    if (FBudget < static_cast<std::int64_t>(size)) {
      FBudget = 0;
      FBlock.clear();
      return {};
    }
    Charge(static_cast<std::int64_t>(size));
    FBlock.resize(size);
    FFetch(FFirst, FBlock);
  }
  return std::span(FBlock).subspan(static_cast<std::size_t>(position - FFirst), count);
}

bool TFileWindow::Has(std::int64_t position, std::string_view text) {
  const auto bytes = Bytes(position, text.size());
  return bytes.size() == text.size() &&
         std::equal(bytes.begin(), bytes.end(), text.begin(),
                    [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); });
}

}  // namespace brenlow
