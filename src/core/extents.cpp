// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/extents.h"

#include <algorithm>

namespace brenlow {
namespace {

/// True when `next` continues where `last` ends, on the volume too.
bool Joins(const TExtent& last, const TExtent& next) {
  if (last.Kind != next.Kind || last.Estimated != next.Estimated) return false;
  if (last.Kind == TExtentKind::Zeros || last.Kind == TExtentKind::Lost) return true;
  const bool placed = last.Kind == TExtentKind::Stored || last.Kind == TExtentKind::Inline;
  return placed && last.Place >= 0 && next.Place == last.Place + last.Length;
}

}  // namespace

void TExtents::Add(TExtent extent) {
  extent.Offset = KnownEnd();
  extent.Length = std::min(extent.Length, MaxLength - extent.Offset);
  if (extent.Length < 1) return;
  if (!FList.empty() && Joins(FList.back(), extent)) {
    FList.back().Length += extent.Length;
  } else {
    FList.push_back(extent);
  }
}

std::optional<TExtent> TExtents::At(std::int64_t offset, std::int64_t until) {
  if (offset < 0) return std::nullopt;
  Reach(offset, until);
  const std::size_t index = IndexOf(offset);
  if (index == FList.size()) return std::nullopt;
  return FList[index];
}

std::int64_t TExtents::EndNear(std::int64_t until) {
  Reach(until, until);
  return KnownEnd();
}

/// Index of the extent that holds a byte; the count of extents when none does.
std::size_t TExtents::IndexOf(std::int64_t offset) const {
  const auto after = std::upper_bound(FList.begin(), FList.end(), offset,
                                      [](std::int64_t at, const TExtent& extent) { return at < extent.End(); });
  return static_cast<std::size_t>(after - FList.begin());
}

/// Asks the source for all up to `until`. What lies long before `offset` may go.
void TExtents::Reach(std::int64_t offset, std::int64_t until) {
  if (!FSource) return;
  if (!FList.empty() && offset < FList.front().Offset) {
    FList.clear();
    FSource->Rewind();
    FEnded = false;
  }
  TExtent extent;
  while (!FEnded && KnownEnd() <= std::max(offset, until)) {
    extent = TExtent();
    if (!FSource->Next(extent) || extent.Length < 1) {
      FEnded = true;
      break;
    }
    Add(extent);
    if (FList.size() <= MaxKept) continue;
    const std::size_t before = std::min(IndexOf(offset), FList.size() - 1);
    if (before > MaxKept / 2) {
      FList.erase(FList.begin(), FList.begin() + static_cast<std::ptrdiff_t>(before - MinBefore));
    }
  }
}

std::optional<TExtent> TFileStream::At(std::int64_t offset, std::int64_t until) {
  if (offset >= Size) return std::nullopt;
  std::optional<TExtent> extent = Extents.At(offset, std::min(until, Size));
  if (!extent) return extent;
  if (offset >= ValidSize) {
    extent->Kind = TExtentKind::Zeros;
    extent->Estimated = false;
  } else if (extent->End() > ValidSize && extent->Kind != TExtentKind::Packed) {
    extent->Length = ValidSize - extent->Offset;
  }
  if (extent->End() > Size && extent->Kind != TExtentKind::Packed) extent->Length = Size - extent->Offset;
  return extent;
}

}  // namespace brenlow
