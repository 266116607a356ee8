// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "analysis/tree_walk.h"
#include "cli/json_line.h"

namespace brenlow::cli {

/// The fields of one file or folder in JSON output.
TJsonLine FileFields(TEngine& engine, const TTreeEntry& entry);
/// The same, once its content was read and that told more.
TJsonLine FileFields(TEngine& engine, const TTreeEntry& entry, TContentDoubt doubt);

/// How it is known where something lies, the same in every language.
const char* PlaceCode(TPlaceSource place);
/// The name of a doubt; empty for none.
const char* DoubtCode(TContentDoubt doubt);

/// The meaning of a folder that is not on the source, the same in every language; empty for all
/// others.
const char* VirtualCode(const TFile& file);

}  // namespace brenlow::cli
