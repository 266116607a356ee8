// SPDX-License-Identifier: GPL-3.0-or-later
// The readers of formats: the first byte selects one, the rest is its file. What is sound lies within the bytes, and
// no walk costs more than it was granted by much.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "analysis/deep/structure.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brenlow;
  if (size < 2) return 0;
  const auto formats = StructureFormats();
  const TStructureFormat& format = formats[data[0] % formats.size()];
  const std::span<const std::uint8_t> file(data + 1, size - 1);
  std::int64_t budget = 1 << 26;
  TFileWindow window(
      [&](std::int64_t position, std::span<std::uint8_t> buffer) {
        const auto at = static_cast<std::size_t>(position);
        if (at > file.size() || file.size() - at < buffer.size()) std::abort();
        std::copy_n(file.begin() + static_cast<std::ptrdiff_t>(at), buffer.size(), buffer.begin());
      },
      static_cast<std::int64_t>(file.size()), budget);
  const TStructure structure = format.Read(window);
  if (structure.Sound && (structure.Size <= 0 || structure.Size > window.Size())) std::abort();
  if (budget < -(1 << 24)) std::abort();
  return 0;
}
