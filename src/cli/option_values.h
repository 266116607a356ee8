// SPDX-License-Identifier: GPL-3.0-or-later
// Values as people write them on a command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/datetime.h"

namespace brenlow::cli {

/// The members of a list that commas, blanks or both part, in lower case.
std::vector<std::string> SplitList(std::string_view list);

/// Bytes: a number, which may have a fraction, with K, M, G or T (units of 1024) after it.
std::optional<std::int64_t> ParseSize(std::string_view text);

/// A point in time: "2021-05-03", "2021-05-03 17:20" or "2021-05-03T17:20:06", each in local time
/// unless "Z" or an offset such as "+02:00" follows the time of day.
std::optional<TDateTime> ParseTime(std::string_view text);

}  // namespace brenlow::cli
