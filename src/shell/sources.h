// SPDX-License-Identifier: GPL-3.0-or-later
// From what a user names to a source of the engine.
#pragma once

#include <string>

#include "core/types.h"

namespace brenlow {

class TLanguage;
struct TMountFailure;

/// The key for a path: absolute, and long enough not to be taken for a drive number or letter.
TString SourceKey(const std::string& path);

/// Why a source cannot be opened, and what the user can do.
std::string MountComplaint(const TLanguage& texts, const std::string& source, const TMountFailure& failure);

}  // namespace brenlow
