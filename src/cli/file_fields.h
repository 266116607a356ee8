// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "analysis/tree_walk.h"
#include "cli/json_line.h"

namespace brenlow::cli {

/// The fields of one file or folder in JSON output.
TJsonLine FileFields(TEngine& engine, const TTreeEntry& entry);

}  // namespace brenlow::cli
