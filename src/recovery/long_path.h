// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "core/types.h"

namespace brenlow {

/// Shortens a path of more than 259 characters, which many Windows programs cannot open: a name of
/// more than 100 characters is cut to its first 100, extension or not, and a folder of more than
/// 159 to its first 158; both are trimmed. `separator` parts folder and name.
TString ShortenLongPath(TStringView path, char16_t separator);

}  // namespace brenlow
