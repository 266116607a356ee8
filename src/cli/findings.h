// SPDX-License-Identifier: GPL-3.0-or-later
// What an analysis has found, and what to say when that is nothing.
#pragma once

#include <cstdint>
#include <string>

#include "cli/options.h"
#include "core/types.h"

namespace brenlow {
class TEngine;
}  // namespace brenlow

namespace brenlow::cli {

/// Files on these drives, without what a file system keeps for itself.
std::int64_t CountFiles(TEngine& engine, const TIntegerDynArray& drives);

/// Says that nothing came of a run: that no files were found, and what to try next, or that none of
/// those found was wanted.
void ComplainOfNothing(TEngine& engine, const TOptions& options, const TIntegerDynArray& drives);

}  // namespace brenlow::cli
