// SPDX-License-Identifier: GPL-3.0-or-later
// Times of the engine: days since 30 December 1899 as a real number, in local time.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace brenlow {

/// Days since 1899-12-30 00:00, local time; 0 means unknown.
using TDateTime = double;

struct TTimeStamp {
  TDateTime dtCreated = 0;
  TDateTime dtModified = 0;
  TDateTime dtAccessed = 0;
  TDateTime dtMetadataModified = 0;
};

/// Day number of a civil date. Month and day out of range give 0 (unknown).
TDateTime EncodeDate(int year, int month, int day);

/// Fraction of a day; hours above 23 and the like are carried over as they add up.
constexpr TDateTime EncodeTime(int hour, int minute, int second, int millisecond) {
  return (((hour * 60.0 + minute) * 60.0 + second) * 1000.0 + millisecond) / 86'400'000.0;
}

/// The time now, local.
TDateTime Now();

/// ISO 8601 without a zone ("2021-05-03T17:20:06", with milliseconds when there are any);
/// empty for 0.
std::string IsoTime(TDateTime time);

/// As `IsoTime`, with the offset from UTC that counts here at that time ("2021-05-03T17:20:06+02:00").
std::string IsoTimeWithOffset(TDateTime time);

/// Local time of a time in UTC; 0 (unknown) stays.
TDateTime FromUtc(TDateTime time);

/// Local time of a FILETIME: units of 100 ns since 1601-01-01 UTC. 0 and what no date can mean give 0.
TDateTime FromFileTime(std::uint64_t fileTime);

/// The instant that a local time names in the current zone. False when it is unknown (0) or out
/// of the range of years 1601 to 9999.
bool ToUnixTime(TDateTime time, std::timespec& result);

/// A clock that only goes forward, in milliseconds.
std::int64_t SteadyMilliseconds();

}  // namespace brenlow
