// SPDX-License-Identifier: GPL-3.0-or-later
// How progress is shown to people.
#pragma once

#include <cstdint>
#include <string>

namespace brenlow {

/// "1:02:03" or "2:03".
std::string DurationText(double seconds);
/// "12.3 MB/s"; empty in the first moments.
std::string RateText(std::int64_t bytes, double seconds);
/// Seconds until the end of what has come to `position` (0 to 1); -1 while that is unknown.
double SecondsLeft(double position, double seconds);

}  // namespace brenlow
