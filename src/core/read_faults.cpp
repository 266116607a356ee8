// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/read_faults.h"

#include <algorithm>
#include <iterator>

namespace brenlow {
namespace {

constexpr std::size_t MostPlaces = 1 << 18;  // some 20 MB

}  // namespace

TReadFaults::TPlace TReadFaults::At(std::int64_t position) const {
  if (position < 0 || position >= FPlaces.Size()) return TPlace::Unknown;
  switch (FPlaces.At(position)) {
    case TMapStatus::Bad:
      return TPlace::Unreadable;
    case TMapStatus::NotScraped:
      return TPlace::LeftOut;
    default:
      return TPlace::Unknown;
  }
}

void TReadFaults::Set(TRange range, TMapStatus status) {
  if (FPlaces.RangeCount() < MostPlaces) FPlaces.Set(range.Start, range.End - range.Start, status);
}

void TReadFaults::SetUnreadable(TRange range) {
  if (At(range.Start) != TPlace::Unreadable) FUnreadableBytes += range.End - range.Start;
  Set(range, TMapStatus::Bad);
  // It explains why a larger request failed.
  const auto after = FSuspects.upper_bound(range.Start);
  if (after != FSuspects.begin() && std::prev(after)->second >= range.End) FSuspects.erase(std::prev(after));
}

void TReadFaults::SetLeftOut(TRange range) {
  const std::int64_t end = std::min(range.End, FPlaces.Size());
  for (std::int64_t at = range.Start; at < end;) {
    const std::int64_t until = std::min(FPlaces.EndOfRange(at), end);
    if (At(at) == TPlace::Unknown) Set({at, until}, TMapStatus::NotScraped);
    at = until;
  }
}

void TReadFaults::SetRead(TRange range) {
  const std::int64_t end = std::min(range.End, FPlaces.Size());
  for (std::int64_t at = range.Start; at < end;) {
    const std::int64_t until = std::min(FPlaces.EndOfRange(at), end);
    if (At(at) == TPlace::Unreadable) FUnreadableBytes -= until - at;
    // Not through `Set`: this makes room.
    if (At(at) != TPlace::Unknown) FPlaces.Set(at, until - at, TMapStatus::NotTried);
    at = until;
  }
  // What fails lies in the rest of a larger request.
  for (auto suspect = FSuspects.lower_bound(range.Start); suspect != FSuspects.end() && suspect->first < end;) {
    const std::int64_t until = suspect->second;
    suspect = FSuspects.erase(suspect);
    if (until > end) FSuspects[end] = until;
  }
}

void TReadFaults::AddSuspect(TRange range) {
  if (FSuspects.size() >= MostPlaces) return;
  // The last word on a place counts: requests that overlap it are forgotten.
  auto suspect = FSuspects.upper_bound(range.Start);
  if (suspect != FSuspects.begin() && std::prev(suspect)->second > range.Start) --suspect;
  while (suspect != FSuspects.end() && suspect->first < range.End) suspect = FSuspects.erase(suspect);
  FSuspects[range.Start] = range.End;
}

std::optional<TReadFaults::TRange> TReadFaults::SuspectIn(TRange range) const {
  const auto suspect = FSuspects.lower_bound(range.Start);
  if (suspect == FSuspects.end() || suspect->second > range.End) return std::nullopt;
  return TRange{suspect->first, suspect->second};
}

void TReadFaults::ForgetLeftOut() {
  for (std::int64_t at = 0; at < FPlaces.Size();) {
    const std::int64_t until = FPlaces.EndOfRange(at);
    if (At(at) == TPlace::LeftOut) FPlaces.Set(at, until - at, TMapStatus::NotTried);
    at = until;
  }
}

int TReadFaults::CountAdjacent(TRange range) {
  FAdjacent = range.Start == FLastFailed.End ? FAdjacent + 1 : 1;
  FLastFailed = range;
  return FAdjacent;
}

std::int64_t TReadFaults::LeftOutSectors() const {
  std::int64_t bytes = FPlaces.Count(TMapStatus::NotScraped);
  for (const auto& [start, end] : FSuspects) {
    for (std::int64_t at = start; at < end; at = FPlaces.EndOfRange(at)) {
      if (At(at) == TPlace::Unknown) bytes += std::min(FPlaces.EndOfRange(at), end) - at;
    }
  }
  return bytes / FSectorSize;
}

}  // namespace brenlow
