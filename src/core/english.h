// SPDX-License-Identifier: GPL-3.0-or-later
// The English language files, built in so that the program runs without its folder `Language`.
#pragma once

#include <string_view>

namespace brenlow {

extern const std::string_view EnglishCommonTexts;  // Language/Common/English.lng
extern const std::string_view EnglishTexts;        // Language/English.lng

}  // namespace brenlow
