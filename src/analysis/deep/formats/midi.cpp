// SPDX-License-Identifier: GPL-3.0-or-later
// Standard MIDI files: as many tracks as the header says (RP-001, 2).
#include "analysis/deep/structure.h"

namespace brenlow {

TStructure ReadMidi(TFileWindow& window) {
  const auto header = static_cast<std::int64_t>(window.Be(4, 4));
  const std::uint64_t tracks = window.Be(10, 2);
  std::int64_t at = 8 + header;
  if (header < 6 || tracks == 0) return {};
  for (std::uint64_t i = 0; i < tracks; ++i) {
    const std::int64_t next = at + 8 + static_cast<std::int64_t>(window.Be(at + 4, 4));
    // A track ends with its own end mark.
    if (!window.Has(at, "MTrk") || next > window.Size() || !window.Has(next - 3, std::string_view("\xFF\x2F\0", 3)))
      return {at};
    at = next;
  }
  return {at, true};
}

}  // namespace brenlow
