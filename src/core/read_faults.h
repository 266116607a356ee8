// SPDX-License-Identifier: GPL-3.0-or-later
// What a run has learnt of the places of one device that do not read.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "core/images/rescue_map.h"

namespace brenlow {

/// All positions are bytes of the device. What it remembers is bounded: from some hundred thousand
/// separate places on, further ones are forgotten and may be tried again.
class TReadFaults {
 public:
  enum class TPlace {
    Unknown,     ///< nothing speaks against it
    Unreadable,  ///< a sector that failed when it was asked for alone
    LeftOut,     ///< not tried alone: it lies between places that failed
  };
  struct TRange {
    std::int64_t Start = 0;
    std::int64_t End = 0;
  };

  TReadFaults(std::int64_t deviceSize, int sectorSize) : FSectorSize(sectorSize), FPlaces(deviceSize) {}

  TPlace At(std::int64_t position) const;
  /// End of the stretch of one kind that holds the position.
  std::int64_t EndOf(std::int64_t position) const {
    return position < FPlaces.Size() ? FPlaces.EndOfRange(position) : INT64_MAX;
  }

  void SetUnreadable(TRange range);
  /// Concerns only those parts of the range of which nothing is known.
  void SetLeftOut(TRange range);
  /// The range was read.
  void SetRead(TRange range);

  /// A request of more than one sector failed: one of them cannot be read, and it is not known which.
  void AddSuspect(TRange range);
  /// The first such request that lies wholly inside the range: asking for all of it would fail again.
  std::optional<TRange> SuspectIn(TRange range) const;

  /// What was left out may be tried again.
  void ForgetLeftOut();

  /// Notes a failed request; how many of the last ones lay end to end.
  int CountAdjacent(TRange range);

  /// All of it as a map: `Bad`, `NotScraped` for what was left out, else `NotTried`.
  const TRescueMap& Places() const { return FPlaces; }

  /// Sectors that failed alone, and those that were left out or failed together with others.
  std::int64_t UnreadableSectors() const { return FUnreadableBytes / FSectorSize; }
  std::int64_t LeftOutSectors() const;

 private:
  void Set(TRange range, TMapStatus status);

  int FSectorSize;
  TRescueMap FPlaces;
  std::map<std::int64_t, std::int64_t> FSuspects;  // from start to end; disjoint
  std::int64_t FUnreadableBytes = 0;
  TRange FLastFailed;
  int FAdjacent = 0;
};

}  // namespace brenlow
