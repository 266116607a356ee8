// SPDX-License-Identifier: GPL-3.0-or-later
// The English texts that the engine itself needs, by language section and number.
#pragma once

#include <string_view>

#include "core/types.h"

namespace brenlow {

/// The text, or empty when there is none of that number.
TString MessageText(std::string_view section, int number);

/// The text with its one "%s" or "%d" replaced.
TString FormatMessage(std::string_view section, int number, TStringView argument);

}  // namespace brenlow
