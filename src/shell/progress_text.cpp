// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/progress_text.h"

#include <fmt/format.h>

#include <cmath>

#include "core/sizes.h"

namespace brenlow {

std::string DurationText(double seconds) {
  const std::int64_t whole = std::llround(seconds);
  if (whole >= 3600) return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

std::string RateText(std::int64_t bytes, double seconds) {
  if (seconds < 0.05) return {};
  return SizeText(static_cast<std::int64_t>(static_cast<double>(bytes) / seconds)) + "/s";
}

double SecondsLeft(double position, double seconds) {
  if (position <= 0.01 || position >= 1) return -1;
  return seconds / position * (1 - position);
}

}  // namespace brenlow
