// SPDX-License-Identifier: GPL-3.0-or-later
// Conversions between the engine's UTF-16 and the outside, and small string helpers.
#pragma once

#include <string>
#include <string_view>

#include "core/types.h"

namespace brenlow {

/// UTF-8 for people and files; an unpaired surrogate becomes U+FFFD.
std::string ToUtf8(TStringView text);

/// Decodes UTF-8. An invalid byte becomes U+FFFD; `valid`, when given, says whether there was none.
TString FromUtf8(std::string_view text, bool* valid = nullptr);

/// Paths of the host are bytes, not text: bytes that are not UTF-8 become the surrogates
/// U+DC80 to U+DCFF and come back unchanged from `PathFromText`.
TString TextFromPath(std::string_view path);
std::string PathFromText(TStringView text);

/// Without blanks and control characters (U+0000 to U+0020) at both ends.
TStringView Trim(TStringView text);

/// Lower and upper case of ASCII, Latin-1, Greek and Cyrillic letters, one unit to one unit.
TString LowerCase(TStringView text);
char16_t LowerCase(char16_t unit);
TString UpperCase(TStringView text);

/// Extension without the dot, unchanged; empty when the name has none.
TStringView Extension(TStringView name);

/// A number in decimal.
TString NumberText(std::int64_t number);

}  // namespace brenlow
